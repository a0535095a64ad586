// The IPv6 WAN start: prefix texts, prefix-change detection and the LAN daemons' restart order.
#include "ipv6/ipv6_wan.h"
#include "platform/nvram.h"
#include "tests/support/testroot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

const std::string kNewLan = "2002:c000:201:1::abcd";

void set(const char *key, const std::string &value) { veskNvramConfig_set(key, value.c_str()); }
std::string get(const char *key) { return veskNvramConfig_get(key); }

// Interface, radio and kill commands whole; the daemons' starts by name.
std::vector<std::string> restart_steps() {
    std::vector<std::string> steps;
    for (const std::string &c : testroot::shell_commands()) {
        std::string first = c.substr(0, c.find(' '));
        if (first == "radvd" || first == "dhcp6s") steps.push_back(first);
        else if (first == "ifconfig" || first == "wl" || first == "killall") steps.push_back(c);
    }
    return steps;
}

std::vector<std::string> port_calls() {
    std::vector<std::string> calls;
    for (const std::string &line : testroot::trace())
        if (line.find("LanEthernetPort") != std::string::npos)
            calls.push_back(line.substr(7, line.find('"', 7) - 7));
    return calls;
}

class Ipv6WanStart : public testing::Test {
protected:
    void SetUp() override {
        if (!testroot::inside()) GTEST_SKIP() << "needs the test root";
        testroot::reset();
        for (auto [key, value] : {std::pair{"lan_ifname", "br0"}, {"ipv6_proto", "6to4"},
                                  {"ipv6_interfaceid_enable", "1"}, {"ipv6_interface_id", "::abcd"},
                                  {"wan_dns", "192.0.2.53"}, {"ipv6_wan_gateway", "2001:db8::1"},
                                  {"wla_wlanstate", "Enable"}, {"wlg_wlanstate", "Enable"},
                                  // the radios mark the LAN cycle in the shell log
                                  {"RA_AdvManagedFlag", "on"},
                                  // both daemons start through the shell, so their order shows
                                  {"hidden_page_debug_ipv6", "1"}})
            set(key, value);
    }
    static void start_6to4() {
        EXPECT_EQ(ipv6_wan_start("6to4", nullptr, nullptr, nullptr, "2002:C000:0201:0001::", "64"),
                  0);
    }
};

TEST(Ipv6Prefix, GetIpv6Prefix_ClearsBitsBeyondLength_AndRejectsLength128) {
    struct Case { const char *addr; int length, rc; std::string out, console; };
    const char *a = "2001:db8:1:ffff:3:4:5:7";
    for (const Case &c : {Case{a, 64, 0, "2001:db8:1:ffff::/64", ""},
                          Case{a, 61, 0, "2001:db8:1:fff8::/61", ""},
                          Case{a, 127, 0, "2001:db8:1:ffff:3:4:5:6/127", ""},
                          Case{a, 0, 0, "::/0", ""},
                          Case{a, 128, -1, "", "Invalid prefix length (128)!\n"},
                          Case{"192.0.2.1", 64, -1, "", ""}, Case{"", 0, -1, "", ""}}) {
        char out[kIpv6PrefixSize] = "";
        testing::internal::CaptureStdout();
        EXPECT_EQ(get_ipv6_prefix(c.addr, c.length, out), c.rc) << c.addr << " " << c.length;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.console);
        EXPECT_EQ(out, c.out);
    }
}

TEST_F(Ipv6WanStart, RadvdUpdateLanPrefix_ReportsOnlyAChangedPrefix) {
    struct Case { std::string stored, addr, len; int changed; };
    for (const Case &c : {Case{"2001:db8:1:2::1", "2001:db8:1:3::1", "64", 1},
                          Case{"2001:db8:1:2::1", "2001:db8:1:2::99", "64", 0},  // same /64
                          Case{"2001:db8:1:2::1", "2001:db8:1:3::1", "128", 0}}) {
        set("radvd_lan_new_ipaddr", c.stored);
        set("radvd_lan_new_ipaddr_length", c.len);
        EXPECT_EQ(radvd_update_lan_prefix(c.addr.c_str(), c.len.c_str()), c.changed) << c.addr;
        EXPECT_EQ(get("radvd_lan_obsolete_ipaddr") + "/" + get("radvd_lan_obsolete_ipaddr_length"),
                  c.changed ? c.stored + "/" + c.len : "/");
        EXPECT_EQ(get("radvd_lan_new_ipaddr") + "/" + get("radvd_lan_new_ipaddr_length"),
                  c.addr + "/" + c.len);
    }
}

TEST_F(Ipv6WanStart, FirstRun_RestartsRadvdBeforeDhcp6sWithoutCyclingPorts) {
    start_6to4();
    EXPECT_THAT(restart_steps(), ElementsAre("ifconfig br0 add " + kNewLan + "/64",
                                             "killall -9 radvd", "killall dhcp6s", "radvd",
                                             "dhcp6s"));
    EXPECT_TRUE(port_calls().empty());
    EXPECT_THAT(testroot::sleeps_us(), ElementsAre(2000000));
    EXPECT_EQ(get("ipv6_lan_ipaddr") + get("ipv6_lan_length") + get("ipv6_lan_ipaddr_old") +
                  get("ipv6_lan_length_old") + get("radvd_lan_new_ipaddr") + get("ipv6_wan_ipaddr"),
              kNewLan + "64" + kNewLan + "64" + kNewLan);
}

TEST_F(Ipv6WanStart, ChangedPrefix_CyclesPortsAndRadiosAroundTheRestart) {
    set("radvd_lan_new_ipaddr", "2002:c000:202:1::1");
    set("radvd_lan_new_ipaddr_length", "64");
    testroot::write_file("/tmp/server6.leases", "old lease\n");
    start_6to4();
    EXPECT_THAT(restart_steps(),
                ElementsAre("ifconfig br0 add " + kNewLan + "/64", "wl down", "wl -i eth2 down",
                            "killall -9 radvd", "killall dhcp6s", "dhcp6s", "wl up",
                            "wl -i eth2 up", "radvd"));
    EXPECT_THAT(port_calls(), ElementsAre("abDisableLanEthernetPort", "abEnableLanEthernetPort"));
    EXPECT_THAT(testroot::sleeps_us(), ElementsAre(1000000, 2000000, 4000000));
    EXPECT_EQ(testroot::read_file("/tmp/server6.leases"), "");  // deleted, then made anew
    EXPECT_EQ(get("radvd_lan_obsolete_ipaddr"), "2002:c000:202:1::1");
}

TEST_F(Ipv6WanStart, Modes_FollowTheDecisionTable) {
    const std::string wan = "ifconfig ppp0 add 2001:db8::2/64";
    const char *kill_radvd = "killall -9 radvd", *kill_dhcp6s = "killall dhcp6s";
    struct Case { const char *mode, *single; std::vector<std::string> steps; std::string lan; };
    for (const Case &c :
         {Case{"dhcp", "0", {wan, "ifconfig br0 add 2001:db8:5::abcd/64", kill_radvd,
                             kill_dhcp6s, "radvd", "dhcp6s"}, "2001:db8:5::abcd"},
          Case{"fixed", "0", {wan, "ifconfig br0 add 2001:db8:5::/64", kill_radvd, kill_dhcp6s,
                              "radvd", "dhcp6s"}, "2001:db8:5::"},
          Case{"autoconfig_wan", "1", {wan, kill_dhcp6s, "dhcp6s"}, "untouched"},
          Case{"autoconfig_wan", "0", {wan}, "untouched"}}) {
        SCOPED_TRACE(std::string(c.mode) + ", single session PPPoE " + c.single);
        SetUp();
        set("ipv6_proto", c.mode);
        set("ipv6_pppoe_single_session", c.single);
        set("ipv6_lan_ipaddr", "untouched");
        testroot::write_file("/tmp/resolv.conf", "");
        ipv6_wan_start(c.mode, "ppp0", "2001:db8::2", "64", "2001:db8:5::", "64");
        EXPECT_EQ(restart_steps(), c.steps);
        EXPECT_EQ(get("ipv6_lan_ipaddr") + " " + get("ipv6_wan_ipaddr_old"),
                  c.lan + " 2001:db8::2");
        bool fixed = std::string(c.mode) == "fixed";
        EXPECT_EQ(testroot::read_file("/tmp/resolv.conf").empty(), !fixed);  // DNS rebuilt
        EXPECT_EQ(testing::Matches(Contains(HasSubstr(R"("::/0","gw","2001:db8::1")")))(
                      testroot::trace()), fixed);
    }
}

// A LAN interface radvd and dhcp6s cannot be told about refuses their files and the daemons;
// the rest of the start goes on.
TEST_F(Ipv6WanStart, BadValues_AreRefusedAndTheStartGoesOn) {
    set("lan_ifname", "br0;reboot");
    testing::internal::CaptureStderr();
    EXPECT_EQ(ipv6_wan_start("dhcp", "eth0", "2001:db8::2;reboot", "64", "nonsense", "64"), 0);
    EXPECT_EQ(ipv6_wan_start(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("write_radvd_conf: refused lan_ifname \"br0;reboot\""));
    EXPECT_THAT(testroot::shell_commands(), testing::Not(Contains(HasSubstr("reboot"))));
    EXPECT_THAT(restart_steps(), testing::Not(Contains("radvd")));
    EXPECT_FALSE(testroot::exists("/tmp/radvd.conf"));
}

TEST_F(Ipv6WanStart, WithoutFirewallDevice_ReportsItFourTimesAndGoesOn) {
    testing::internal::CaptureStdout();
    start_6to4();
    std::string line = "Can't open device file: /dev/spiv6\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), line + line + line + line);
    EXPECT_THAT(restart_steps(), Contains("radvd"));
}

}  // namespace
