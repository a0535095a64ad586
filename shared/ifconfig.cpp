#include "shared/ifconfig.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "shared/unique_fd.h"

namespace {


// Stores `address` (network order) as the request's AF_INET socket address, port 0.
void put_address(ifreq &ifr, in_addr_t address) {
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_port = 0;
    sin.sin_addr.s_addr = address;
    std::memcpy(&ifr.ifr_addr, &sin, sizeof sin);
}

// Strict dotted quad; anything else is refused rather than half-parsed.
bool parse_quad(const char *text, in_addr_t &out) {
    in_addr a{};
    if (inet_pton(AF_INET, text, &a) != 1) return false;
    out = a.s_addr;
    return true;
}

// Reports and returns the error: one perror line naming the interface, socket already closed.
int fail(UniqueFd &sock, const char *name) {
    int err = errno;
    sock.close();
    errno = err;
    std::perror(name);
    return err;
}

}  // namespace

int ifconfig(const char *name, int flags, const char *address, const char *netmask) {
    if (!name) name = "";
    UniqueFd sock(socket(AF_INET, SOCK_RAW, IPPROTO_RAW));
    if (sock.get() < 0) return fail(sock, name);

    ifreq ifr{};
    // The kernel's name field holds 16 bytes; a longer name is cut there, with no terminator
    // of our own (the kernel terminates it).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wstringop-truncation"
    std::strncpy(ifr.ifr_name, name, IFNAMSIZ);
#pragma GCC diagnostic pop
    ifr.ifr_flags = static_cast<short>(flags);
    if (ioctl(sock.get(), SIOCSIFFLAGS, &ifr) < 0) return fail(sock, name);

    if (!address) return 0;

    // Both texts are checked before any address is set; a netmask alone is ignored.
    in_addr_t addr = 0;
    in_addr_t mask = 0;
    if (!parse_quad(address, addr) || (netmask && !parse_quad(netmask, mask))) {
        errno = EINVAL;
        return fail(sock, name);
    }

    put_address(ifr, addr);
    if (ioctl(sock.get(), SIOCSIFADDR, &ifr) < 0) return fail(sock, name);

    if (!netmask) return 0;
    put_address(ifr, mask);
    if (ioctl(sock.get(), SIOCSIFNETMASK, &ifr) < 0) return fail(sock, name);

    // Always derived from address and netmask, never taken from the caller.
    put_address(ifr, (addr & mask) | ~mask);
    if (ioctl(sock.get(), SIOCSIFBRDADDR, &ifr) < 0) return fail(sock, name);
    return 0;
}

int ipv6_prepare_wan() { return 0; }
