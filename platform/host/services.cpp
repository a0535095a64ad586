// Region and feature tests, and the router services that the host has no counterpart for yet:
// these are traced and report success without changing anything.
#include "platform/nvram.h"
#include "platform/vesk_shared.h"

#include "platform/host/trace.h"

#include <cstdio>

int is_single_session_pppoe(void) {
    return veskNvramConfig_match("ipv6_pppoe_single_session", "1");
}

int is_ru_region(void) { return veskNvramConfig_match("sku_name", "RU"); }

int iqos_service(const char *action) {
    trace::call("iqos_service", {trace::text(action)});
    if (action == nullptr || *action == '\0') {
        std::fprintf(stderr, "iqos_service: no action\n");
        return -1;
    }
    return 0;
}

int openvpn_set_lan_ip(void) {
    trace::call("openvpn_set_lan_ip", {});
    return 0;  // nothing changed: the server never needs a restart for it
}

int openvpn_make_config_file(void) {
    trace::call("openvpn_make_config_file", {});
    return 0;
}

int abDisableLanEthernetPort(void) {
    trace::call("abDisableLanEthernetPort", {});
    return 0;
}

int abEnableLanEthernetPort(void) {
    trace::call("abEnableLanEthernetPort", {});
    return 0;
}
