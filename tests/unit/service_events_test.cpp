// The event scripts of the router's service program: DHCP leases and PPP links on the WANs.
#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/nvram.h"
#include "services/dhcp_event.h"
#include "services/ppp_event.h"
#include "tests/support/testroot.h"

using testing::Contains;
using testing::IsEmpty;
using testing::Not;

namespace {

void set(const char *key, const char *value) { veskNvramConfig_set(key, value); }
std::string get(const char *key) { return veskNvramConfig_get(key); }

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

// Every key the scripts may write, as one text, to see that a refusal wrote none.
std::string lease_keys() {
    std::string all;
    for (const char *key : {"wan_ipaddr", "wan_netmask", "wan_gateway", "wan_dns", "wan1_ipaddr",
                            "wan1_gateway", "wan1_dns", "pptp_dhcp_enabled", "pppoe_dhcp_dns",
                            "wan2_dns"})
        all += std::string(key) + "=" + get(key) + ";";
    return all;
}

const DhcpLease kLease{"veth0", "10.1.0.5", "255.255.255.0", "10.1.0.1 10.1.0.2",
                       " 10.1.0.53  8.8.8.8 "};

class ServiceEvents : public testing::Test {
protected:
    void SetUp() override {
        testroot::reset();
        set("wan_ifname", "veth0");
        set("wan1_ifname", "veth1");
        set("wan_proto", "dhcp");
        testroot::write_file("/tmp/resolv.conf", "");
    }
};

TEST_F(ServiceEvents, BoundThenDeconfig_OnEthernet_RecordsLeaseRunsWanUpThenClears) {
    ASSERT_EQ(dhcp_client_event("bound", kLease), 0);
    EXPECT_EQ(address_of("veth0"), "10.1.0.5");
    EXPECT_EQ(get("wan_ipaddr") + " " + get("wan_netmask") + " " + get("wan_gateway"),
              "10.1.0.5 255.255.255.0 10.1.0.1");
    EXPECT_EQ(get("wan_dns"), "10.1.0.53 8.8.8.8");
    EXPECT_THAT(testroot::shell_commands(), Contains("route add default gw 10.1.0.1"));

    ASSERT_EQ(dhcp_client_event("deconfig", kLease), 0);
    EXPECT_EQ(address_of("veth0"), "");
    for (const char *key : {"wan_ipaddr", "wan_netmask", "wan_gateway", "wan_dns"})
        EXPECT_EQ(get(key), "0.0.0.0") << key;
}

TEST_F(ServiceEvents, Bound_OnLteOrTunnelCarrier_FillsThatWansKeys) {
    DhcpLease lte = kLease;
    lte.interface = "veth1";
    ASSERT_EQ(dhcp_client_event("renew", lte), 0);
    EXPECT_EQ(get("wan1_ipaddr") + " " + get("wan1_gateway") + " " + get("wan1_dns"),
              "10.1.0.5 10.1.0.1 10.1.0.53 8.8.8.8");
    EXPECT_EQ(get("wan_ipaddr"), "");

    // Under PPTP the Ethernet lease only carries the session: the session start waits for the
    // flag, and the PPP link will own wan_ipaddr and the default route.
    set("wan_proto", "pptp");
    testroot::clear_logs();
    ASSERT_EQ(dhcp_client_event("bound", kLease), 0);
    EXPECT_EQ(get("pptp_dhcp_enabled"), "1");
    EXPECT_EQ(get("second_wan_status"), "1");
    EXPECT_EQ(get("wan_dns"), "10.1.0.53 8.8.8.8");
    EXPECT_EQ(get("wan_ipaddr"), "");
    EXPECT_THAT(testroot::shell_commands(), Not(Contains(testing::HasSubstr("route add default"))));
}

TEST_F(ServiceEvents, IpUpThenDown_OnPpp0_RecordsLinkRunsWanUpStartsSecondSession) {
    set("wan_proto", "pppoe");
    testroot::write_file("/tmp/ppp/no_ppp2", "");
    ASSERT_EQ(ppp_ip_up({"ppp0", "10.64.0.2", "10.64.0.1", "192.0.2.53", ""}), 0);
    EXPECT_EQ(get("wan_ipaddr") + " " + get("wan_gateway"), "10.64.0.2 10.64.0.1");
    EXPECT_EQ(get("pppoe_dhcp_dns"), "192.0.2.53");
    EXPECT_THAT(testroot::shell_commands(), Contains("route add default dev ppp0"));
    EXPECT_THAT(testroot::shell_commands(), Contains("/sbin/pppd file /tmp/ppp/peers/options &"));
    EXPECT_FALSE(testroot::exists("/tmp/ppp/no_ppp2"));

    ASSERT_EQ(ppp_ip_down({"ppp0", "10.64.0.2", "10.64.0.1", "", ""}), 0);
    EXPECT_EQ(get("wan_ipaddr") + " " + get("wan_gateway"), "0.0.0.0 0.0.0.0");
    EXPECT_EQ(get("pppoe_dhcp_dns"), "");
}

// Values come from the network: a refusal must happen before anything is written or run.
TEST_F(ServiceEvents, HostileValuesOrForeignInterfaces_RefusedWithNothingWritten) {
    set("wan_proto", "pppoe");
    const std::vector<DhcpLease> leases = {
        {"veth0;reboot", "10.1.0.5", "255.255.255.0", "10.1.0.1", ""},
        {"lo", "10.1.0.5", "255.255.255.0", "10.1.0.1", ""},
        {"veth1", "10.1.0.300", "255.255.255.0", "10.1.0.1", ""},
        {"veth1", "10.1.0.5 ", "255.255.255.0", "10.1.0.1", ""},
        {"veth1", "10.1.0.5", "255.0.255.0", "10.1.0.1", ""},
        {"veth1", "10.1.0.5", "255.255.255.0", "", ""},
        {"veth1", "10.1.0.5", "255.255.255.0", "$(reboot)", ""},
        {"veth1", "10.1.0.5", "255.255.255.0", "10.1.0.1", "8.8.8.8;id"},
    };
    const std::vector<PppLink> links = {
        {"ppp0 x", "10.64.0.2", "10.64.0.1", "", ""},
        {"ppp0", "10.64.0.2;id", "10.64.0.1", "", ""},
        {"ppp0", "10.64.0.2", "", "", ""},
        {"ppp0", "10.64.0.2", "10.64.0.1", "1.1.1.1`id`", ""},
        {"ppp7", "10.64.0.2", "10.64.0.1", "", ""},
    };
    const std::string before = lease_keys();
    for (const DhcpLease &lease : leases)
        EXPECT_EQ(dhcp_client_event("bound", lease), 1) << lease.interface << " " << lease.ip;
    for (const PppLink &link : links)
        EXPECT_EQ(ppp_ip_up(link), 1) << link.ifname << " " << link.local << " " << link.dns1;
    EXPECT_EQ(lease_keys(), before);
    EXPECT_EQ(address_of("veth1"), "");
    EXPECT_THAT(testroot::shell_commands(), IsEmpty());
}

}  // namespace
