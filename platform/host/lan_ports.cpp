// The LAN Ethernet ports, taken down and brought back up so that LAN hosts notice a new IPv6
// prefix. The ports are the interfaces named in `lan_ethernet_ports`, separated by blanks.
#include "platform/nvram.h"
#include "platform/vesk_shared.h"

#include "platform/host/trace.h"
#include "platform/host/unique_fd.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

namespace {

// What a port name may hold: a kernel interface name of the usual characters, never cut.
bool is_port_name(std::string_view name) {
    if (name.empty() || name.size() >= IFNAMSIZ) return false;
    for (char c : name)
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '.' || c == '_' || c == '-'))
            return false;
    return true;
}

int set_up_flag(int sock, const std::string &name, bool up) {
    ifreq ifr{};
    std::memcpy(ifr.ifr_name, name.data(), name.size());
    if (::ioctl(sock, SIOCGIFFLAGS, &ifr) != 0) return errno;
    if (up) ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP);
    else ifr.ifr_flags = static_cast<short>(ifr.ifr_flags & ~IFF_UP);
    if (::ioctl(sock, SIOCSIFFLAGS, &ifr) != 0) return errno;
    return 0;
}

// Every named port is tried; one that fails is reported and the others still change.
int set_lan_ports(const char *routine, bool up) {
    const char *value = veskNvramConfig_get("lan_ethernet_ports");
    std::string_view rest(value != nullptr ? value : "");
    host::UniqueFd sock;
    int result = 0;
    while (!rest.empty()) {
        size_t end = rest.find(' ');
        std::string_view name = rest.substr(0, end);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        if (name.empty()) continue;
        if (!is_port_name(name)) {
            std::fprintf(stderr, "%s: %s in lan_ethernet_ports is no interface name\n", routine,
                         trace::text(name.data(), name.size()).c_str());
            result = -1;
            continue;
        }
        if (!sock.valid()) sock.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        int error = sock.valid() ? set_up_flag(sock.get(), std::string(name), up) : errno;
        if (error != 0) {
            std::fprintf(stderr, "%s: %.*s: %s\n", routine, static_cast<int>(name.size()),
                         name.data(), std::strerror(error));
            result = -1;
        }
    }
    return result;
}

}  // namespace

int abDisableLanEthernetPort(void) {
    trace::call("abDisableLanEthernetPort", {});
    return set_lan_ports("abDisableLanEthernetPort", false);
}

int abEnableLanEthernetPort(void) {
    trace::call("abEnableLanEthernetPort", {});
    return set_lan_ports("abEnableLanEthernetPort", true);
}
