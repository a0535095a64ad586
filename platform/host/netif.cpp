// Interface settings of the platform library (the static routes are in static_routes.cpp).
#include "platform/vesk_shared.h"

#include "platform/host/trace.h"
#include "platform/host/unique_fd.h"

#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

std::string mac_text(const unsigned char *mac) {
    if (mac == nullptr) return "null";
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2],
                  mac[3], mac[4], mac[5]);
    return trace::text(text);
}

}  // namespace

int set_eth_mac(const char *ifname, const unsigned char *mac) {
    trace::call("set_eth_mac", {trace::text(ifname), mac_text(mac)});
    if (ifname == nullptr || mac == nullptr) return EINVAL;
    // A longer name cannot be an interface; cutting it could name another one.
    if (std::strlen(ifname) >= IFNAMSIZ || *ifname == '\0') return ENODEV;
    host::UniqueFd sock(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sock.valid()) return errno;
    ifreq ifr{};
    std::memcpy(ifr.ifr_name, ifname, std::strlen(ifname));
    ifr.ifr_hwaddr.sa_family = ARPHRD_ETHER;
    std::memcpy(ifr.ifr_hwaddr.sa_data, mac, 6);
    // Some drivers accept a new address only while the interface is down; the caller decides
    // about that, and learns the driver's refusal from the result.
    if (::ioctl(sock.get(), SIOCSIFHWADDR, &ifr) != 0) return errno;
    return 0;
}
