#include "platform/host/lte/data_path.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/host/unique_fd.h"
#include "platform/vesk_shared.h"
#include "services/dhcp_event.h"
#include "shared/ifconfig.h"
#include "shared/store.h"

namespace lte {

namespace {

constexpr const char *kPidFile = "/var/run/udhcpc1.pid";

void set_mtu(unsigned mtu) {
    host::UniqueFd s(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq ifr{};
    std::snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%s", kDataInterface);
    ifr.ifr_mtu = static_cast<int>(mtu);
    if (!s.valid() || ioctl(s.get(), SIOCSIFMTU, &ifr) != 0)
        std::fprintf(stderr, "failover-lte: MTU %u on %s: %s\n", mtu, kDataInterface,
                     std::strerror(errno));
}

}  // namespace

std::string netmask_of(unsigned prefix) {
    if (prefix > 32) return "";
    const uint32_t mask = prefix == 0 ? 0 : ~uint32_t{0} << (32 - prefix);
    in_addr addr{htonl(mask)};
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &addr, text, sizeof text) ? text : "";
}

pid_t start_dhcp_client() {
    if (ifconfig(kDataInterface, kWanInterfaceFlags, nullptr, nullptr) != 0) return -1;
    char *argv[] = {const_cast<char *>("udhcpc"),       const_cast<char *>("-i"),
                    const_cast<char *>(kDataInterface), const_cast<char *>("-p"),
                    const_cast<char *>(kPidFile),       const_cast<char *>("-s"),
                    const_cast<char *>("/tmp/udhcpc"),  nullptr};
    int pid = 0;
    if (_eval(argv, nullptr, 0, &pid) != 0) return -1;
    return pid;
}

pid_t apply_static(const StaticConfig &config) {
    const std::string netmask = netmask_of(config.prefix);
    if (netmask.empty() || config.prefix == 0) {
        std::fprintf(stderr, "failover-lte: static bearer with prefix %u refused\n", config.prefix);
        return -1;
    }
    DhcpLease lease{kDataInterface, config.address, netmask, config.gateway, ""};
    for (const std::string &server : config.dns) {
        if (!lease.dns.empty()) lease.dns += ' ';
        lease.dns += server;
    }
    if (config.mtu > 0) set_mtu(config.mtu);
    // The lease handling does not record the LTE netmask; a static bearer does.
    store::set("wan1_netmask", netmask.c_str());
    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        signal(SIGPIPE, SIG_IGN);
        int status = dhcp_client_event("bound", lease);
        std::fflush(nullptr);
        _exit(status);
    }
    if (pid < 0) std::fprintf(stderr, "failover-lte: fork: %s\n", std::strerror(errno));
    return pid;
}

void take_down(pid_t client) {
    if (FILE *f = std::fopen(kPidFile, "r")) {
        int pid = 0;
        if (std::fscanf(f, "%d", &pid) == 1 && pid > 1) kill(pid, SIGTERM);
        std::fclose(f);
    }
    if (client > 0) kill(client, SIGTERM);
    unlink(kPidFile);
    // The interface may be gone with the modem; that is no failure.
    if (if_nametoindex(kDataInterface) != 0) ifconfig(kDataInterface, 0, "0.0.0.0", nullptr);
    for (const char *key : {"wan1_ipaddr", "wan1_gateway", "wan1_dns"}) store::set(key, "0.0.0.0");
}

}  // namespace lte
