#include "platform/host/lte/modem_keys.h"

#include <libmm-glib.h>

namespace lte {

Readiness readiness(const ModemView &modem) {
    if (!modem.mm_running) return {false, "ModemManager not running"};
    if (!modem.present) return {false, "no modem"};
    if (modem.state == MM_MODEM_STATE_FAILED) {
        if (modem.failed_reason == MM_MODEM_STATE_FAILED_REASON_SIM_MISSING)
            return {false, "no SIM"};
        const char *why = mm_modem_state_failed_reason_get_string(modem.failed_reason);
        return {false, std::string("modem failed: ") + (why ? why : "unknown")};
    }
    if (!modem.has_sim) return {false, "no SIM"};
    if (modem.state == MM_MODEM_STATE_LOCKED ||
        (modem.lock != MM_MODEM_LOCK_NONE && modem.lock != MM_MODEM_LOCK_UNKNOWN))
        return {false, "SIM locked"};
    return {true, ""};
}

std::string runtime_state(const ModemView &modem, Phase phase, bool disconnected) {
    if (!modem.mm_running || !modem.present) return "NoModem";
    switch (phase) {
        case Phase::connected: return "Connected";
        case Phase::connecting: return "Connecting";
        case Phase::disconnecting: return "Disconnecting";
        case Phase::idle: break;
    }
    const char *mapped = "Disabled";
    switch (modem.state) {
        case MM_MODEM_STATE_FAILED: return "Failed";
        case MM_MODEM_STATE_LOCKED: return "Locked";
        case MM_MODEM_STATE_UNKNOWN:
        case MM_MODEM_STATE_INITIALIZING:
        case MM_MODEM_STATE_DISABLED:
        case MM_MODEM_STATE_DISABLING: return "Disabled";
        case MM_MODEM_STATE_ENABLING:
        case MM_MODEM_STATE_ENABLED: mapped = "Enabled"; break;
        case MM_MODEM_STATE_SEARCHING: mapped = "Searching"; break;
        // A bearer that is not ours (or one from before our start) is not our connection.
        case MM_MODEM_STATE_REGISTERED:
        case MM_MODEM_STATE_CONNECTED: mapped = "Registered"; break;
        case MM_MODEM_STATE_CONNECTING: mapped = "Connecting"; break;
        case MM_MODEM_STATE_DISCONNECTING: mapped = "Disconnecting"; break;
    }
    return disconnected ? "Disconnected" : mapped;
}

}  // namespace lte
