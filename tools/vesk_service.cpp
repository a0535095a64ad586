// vesk_service: the router's multi-call service program ("/sbin/vesk_service" in a router
// root). The Ethernet WAN start links its event scripts to it and it acts by the name it is
// called under:
//
//   udhcpc EVENT              udhcpc's script ("/tmp/udhcpc"): deconfig, bound, renew, ...;
//                             the lease in the environment (interface, ip, subnet, router, dns)
//   ip-up IFNAME TTY SPEED LOCAL REMOTE [IPPARAM]
//   ip-down IFNAME TTY SPEED LOCAL REMOTE [IPPARAM]
//                             pppd's scripts ("/tmp/ppp/ip-up", "/tmp/ppp/ip-down"); the peer's
//                             DNS servers in DNS1 and DNS2
//   ipv6-up, ipv6-down        pppd's IPv6 scripts: accepted, nothing to do yet
//
// Exit status: 0 done, 1 a value was refused or a step failed (a line on stderr), 2 misuse.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "services/dhcp_event.h"
#include "shared/values.h"
#include "services/ppp_event.h"

namespace {

int usage() {
    std::fputs("usage: vesk_service is called as udhcpc EVENT, ip-up or ip-down IFNAME TTY SPEED "
               "LOCAL REMOTE [IPPARAM], ipv6-up or ipv6-down\n",
               stderr);
    return 2;
}

std::string env(const char *name) {
    const char *value = std::getenv(name);
    return value ? value : "";
}

std::string base_name(const char *path) {
    const char *slash = std::strrchr(path, '/');
    return slash ? slash + 1 : path;
}

int dhcp_script(int argc, char **argv) {
    if (argc < 2) return usage();
    DhcpLease lease{env("interface"), env("ip"), env("subnet"), env("router"), env("dns")};
    return dhcp_client_event(argv[1], lease);
}

int ppp_script(const std::string &name, int argc, char **argv) {
    if (argc < 6) return usage();
    PppLink link{argv[1], argv[4], argv[5], env("DNS1"), env("DNS2")};
    return name == "ip-up" ? ppp_ip_up(link) : ppp_ip_down(link);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 1 || argv[0] == nullptr) return usage();
    const std::string name = base_name(argv[0]);
    int status = 2;
    if (name == "udhcpc") {
        status = dhcp_script(argc, argv);
    } else if (name == "ip-up" || name == "ip-down") {
        status = ppp_script(name, argc, argv);
    } else if (name == "ipv6-up" || name == "ipv6-down") {
        std::printf("vesk_service: %s %s: nothing to do\n", name.c_str(),
                    values::printable(argc > 1 ? argv[1] : "").c_str());
        status = 0;
    } else {
        status = usage();
    }
    std::fflush(nullptr);
    return status;
}
