// Region and feature tests, and the iQoS service switch.
#include "platform/nvram.h"
#include "platform/vesk_shared.h"

#include "platform/host/trace.h"

#include <cstdio>
#include <cstring>

int is_single_session_pppoe(void) {
    return veskNvramConfig_match("ipv6_pppoe_single_session", "1");
}

int is_ru_region(void) { return veskNvramConfig_match("sku_name", "RU"); }

// The host has no iQoS engine: the service is its state key `iqos_state`, "running" or
// "stopped", which follows the actions and the feature switch `broadstream_iqos_enable`.
int iqos_service(const char *action) {
    trace::call("iqos_service", {trace::text(action)});
    if (action == nullptr || *action == '\0') {
        std::fprintf(stderr, "iqos_service: no action\n");
        return -1;
    }
    if (std::strcmp(action, "stop_iqos") == 0) {
        veskNvramConfig_set("iqos_state", "stopped");
        return 0;
    }
    if (std::strcmp(action, "start_iqos") != 0 && std::strcmp(action, "restart_iqos") != 0) {
        std::fprintf(stderr, "iqos_service: unknown action %s\n", trace::text(action).c_str());
        return -1;
    }
    if (!veskNvramConfig_match("broadstream_iqos_enable", "1")) {
        veskNvramConfig_set("iqos_state", "stopped");
        std::fprintf(stderr, "iqos_service: %s: iQoS is switched off (broadstream_iqos_enable)\n",
                     action);
        return -1;
    }
    return veskNvramConfig_set("iqos_state", "running") == 0 ? 0 : -1;
}
