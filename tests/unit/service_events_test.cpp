// The DHCP client's event script on a real interface (the root's veth pair): the lease's address
// goes on and comes off. Keys, commands and refusals are in tests/cases/service_events.
#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include <gmock/gmock.h>
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

TEST(ServiceEvents, BoundThenDeconfig_OnEthernet_RecordsLeaseRunsWanUpThenClears) {
    testroot::reset();
    veskNvramConfig_set("wan_ifname", "veth0");
    veskNvramConfig_set("wan_proto", "dhcp");
    testroot::write_file("/tmp/resolv.conf", "");
    const DhcpLease lease{"veth0", "10.1.0.5", "255.255.255.0", "10.1.0.1 10.1.0.2",
                          " 10.1.0.53  8.8.8.8 "};
    ASSERT_EQ(dhcp_client_event("bound", lease), 0);
    EXPECT_EQ(address_of("veth0"), "10.1.0.5");
    for (auto [key, value] : {std::pair{"wan_ipaddr", "10.1.0.5"}, {"wan_netmask", "255.255.255.0"},
                              {"wan_gateway", "10.1.0.1"}, {"wan_dns", "10.1.0.53 8.8.8.8"}})
        EXPECT_STREQ(veskNvramConfig_get(key), value) << key;
    EXPECT_THAT(testroot::shell_commands(), testing::Contains("route add default gw 10.1.0.1"));

    ASSERT_EQ(dhcp_client_event("deconfig", lease), 0);
    EXPECT_EQ(address_of("veth0"), "");
    for (const char *key : {"wan_ipaddr", "wan_netmask", "wan_gateway", "wan_dns"})
        EXPECT_STREQ(veskNvramConfig_get(key), "0.0.0.0") << key;
}

}  // namespace
