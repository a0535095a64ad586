// The connection manager: follows ModemManager's modem and carries out connect and disconnect
// requests, keeping the modem's store keys true.
#pragma once

#include "platform/host/lte/control_socket.h"

namespace lte {

struct ManagerOptions {
    unsigned connect_timeout_s = 0;  // 0: wwan_connect_timeout, else 30
};

// Connects to the system bus (DBUS_SYSTEM_BUS_ADDRESS when set) and follows ModemManager; the
// keys are true when this returns. Retries the bus while it is unreachable.
void manager_start(const ManagerOptions &options);

// A request from the control socket: manual_mode 1 connects, 0 disconnects.
void manager_request(int mode, Reply reply);

// Disconnects (bounded wait for ModemManager), leaves wwan_runtime_state "Disconnected".
void manager_stop();

}  // namespace lte
