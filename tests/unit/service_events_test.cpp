// The DHCP client's event script on a real interface (the root's veth pair): the lease's address
// goes on and comes off. Keys, commands and refusals are in tests/cases/service_events, a real
// lease's keys and routes in the program test DhcpLeaseProgram.
#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "platform/nvram.h"
#include "services/dhcp_event.h"
#include "tests/support/testroot.h"

namespace {

// The IPv4 address on `ifname`, "" when it has none.
std::string address_of(const char *ifname) {
    int sock = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, ifname, IFNAMSIZ - 1);
    int rc = ioctl(sock, SIOCGIFADDR, &ifr);
    close(sock);
    if (rc != 0) return "";
    sockaddr_in sin{};
    std::memcpy(&sin, &ifr.ifr_addr, sizeof sin);
    return inet_ntoa(sin.sin_addr);
}

// The lease's address goes on the interface and, when the lease is given up, comes off it.
TEST(ServiceEvents, BoundThenDeconfig_PutsTheAddressOnThenTakesItOff) {
    testroot::reset();
    veskNvramConfig_set("wan_ifname", "veth0");
    veskNvramConfig_set("wan_proto", "dhcp");
    const DhcpLease lease{"veth0", "10.1.0.5", "255.255.255.0", "10.1.0.1", "10.1.0.53"};
    ASSERT_EQ(dhcp_client_event("bound", lease), 0);
    EXPECT_EQ(address_of("veth0"), "10.1.0.5");
    ASSERT_EQ(dhcp_client_event("deconfig", lease), 0);
    EXPECT_EQ(address_of("veth0"), "");
}

}  // namespace
