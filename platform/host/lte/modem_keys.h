// What the store says about the modem: module_ready, its reason and wwan_runtime_state, from
// ModemManager's view of the modem and the manager's own connection phase.
#pragma once

#include <ModemManager.h>

#include <string>

namespace lte {

enum class Phase { idle, connecting, connected, disconnecting };

struct ModemView {
    bool mm_running = false;  // ModemManager owns its bus name
    bool present = false;     // a modem object exists
    MMModemState state = MM_MODEM_STATE_UNKNOWN;
    MMModemStateFailedReason failed_reason = MM_MODEM_STATE_FAILED_REASON_NONE;
    bool has_sim = false;
    MMModemLock lock = MM_MODEM_LOCK_UNKNOWN;
};

struct Readiness {
    bool ready = false;
    std::string reason;  // "" when ready
};

Readiness readiness(const ModemView &modem);

// `disconnected` is true after a disconnect request while nothing asked to connect since.
std::string runtime_state(const ModemView &modem, Phase phase, bool disconnected);

}  // namespace lte
