// 6to4 and 6rd: derived addresses and prefixes, and the tunnel starts.
#include "ipv6/tunnels.h"
#include "platform/nvram.h"
#include "tests/support/testroot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using testing::ElementsAre;

namespace {

const std::string kLanId = "211:22ff:fe33:4455";  // EUI-64 of lan_hwaddr below
constexpr uint32_t kWan = 0xC0000201;              // 192.0.2.1

void set(const char *key, const std::string &value) { veskNvramConfig_set(key, value.c_str()); }
std::string get(const char *key) { return veskNvramConfig_get(key); }

std::vector<std::string> sit0_commands() {
    std::vector<std::string> out;
    for (const std::string &c : testroot::shell_commands())
        if (c.find("sit0") != std::string::npos) out.push_back(c);
    return out;
}

class Tunnels : public testing::Test {
protected:
    void SetUp() override {
        testroot::reset();
        for (auto [key, value] : {std::pair{"lan_ifname", "br0"}, {"lan_hwaddr", "00:11:22:33:44:55"},
                                  {"wan_hwaddr", "00:01:02:03:04:05"}, {"wan_ipaddr", "192.0.2.1"},
                                  {"ipv6_6to4_sla_id", "1"}})
            set(key, value);
    }
};

TEST(SixrdPrefix, MakeSixrdPrefix_BuildsDelegatedPrefixOrRefusesTheRule) {
    struct Case { const char *prefix; int mask, rc; std::string out; };
    for (const Case &c : {Case{"2001:db8::/32", 0, 64, "2001:db8:c000:201:"},
                          Case{"2001:db8:100::/40", 8, 64, "2001:db8:100:201:"},
                          Case{"2001:db8::/24", 16, 40, "2001:d02:100:0:"},  // zero padded
                          Case{"2001:db8::/40", 0, -1, ""},                  // D = 72
                          Case{"2001::/32", 0, -1, ""},                      // too few groups
                          Case{"2001:db8::", 0, -1, ""}, Case{"2001:db8::/32/1", 0, -1, ""},
                          Case{"2001:db8::/32", 33, -1, ""},
                          Case{"2001:db8::/2147483647", 0, -1, ""}}) {  // no int overflow
        char out[64] = "x";
        EXPECT_EQ(make_6rd_prefix(out, c.prefix, c.mask, kWan), c.rc) << c.prefix;
        EXPECT_EQ(out, "x" + c.out) << c.prefix;
    }
}

TEST_F(Tunnels, Start6to4_OnlyWhenConfiguredAndWithAWanAddress) {
    set("ipv6_proto", "dhcp");
    EXPECT_EQ(start_6to4_tunnel(), 0);
    set("ipv6_proto", "6to4");
    for (const char *wan : {"0.0.0.0", "64.64.64.64", "", "192.0.2.300"}) {
        set("wan_ipaddr", wan);
        testing::internal::CaptureStderr();
        EXPECT_EQ(start_6to4_tunnel(), -1) << wan;
        testing::internal::GetCapturedStderr();
    }
    EXPECT_TRUE(testroot::events().empty());
}

TEST_F(Tunnels, Start6to4_RoutesThroughRelayAndStartsIpv6WithTheTunnelAddress) {
    char address[128] = "";
    EXPECT_EQ(make_6to4_address(address), 0);
    EXPECT_STREQ(address, "2002:C000:0201:0001:0201:02ff:fe03:0405");
    for (auto [key, value] : {std::pair{"ipv6_proto", "auto"}, {"ipv6_proto_auto", "6to4"},
                              {"ipv6_6to4_relay", "0"}, {"ipv6_6to4_router", "192.88.99.1"}})
        set(key, value);
    EXPECT_EQ(start_6to4_tunnel(), 0);
    EXPECT_THAT(sit0_commands(), ElementsAre("ifconfig sit0 up"));
    EXPECT_THAT(testroot::trace(),
                testing::Contains(R"({"fn":"_eval_daemon","args":[["route","-A","inet6","add",)"
                                  R"("2000::/3","gw","::192.88.99.1","dev","sit0"],)"
                                  R"(">/dev/console",0,null,0]})"));
    EXPECT_EQ(get("ipv6_6to4_tunnel"), "up");
    EXPECT_EQ(get("ipv6_lan_ipaddr") + "/" + get("ipv6_lan_length"),
              "2002:c000:201:1:" + kLanId + "/64");
}

TEST_F(Tunnels, Start6rd_RecordsOneStatusPerRuleAndEndsUp) {
    const std::vector<std::string> tunnel = {"ifconfig sit0 up",
                                             "route -A inet6 add 2000::/3 gw ::192.0.2.9 dev sit0"};
    struct Case { const char *auto_mode, *rules, *status; bool tunnel; };
    for (const Case &c : {
             Case{"0", "0,2001:db8:100::/40,8,192.0.2.2;1,2001:db8::/32,0,192.0.2.9", "0;1;",
                  true},
             Case{"0", "1,2001:db8::/40,0,192.0.2.9;1,2001:db8::/32,0,192.0.2.255;1,x",
                  "-1;-1;-1;", false},
             Case{"0", "", "", false},
             Case{"1", "", "", false},  // no learnt parameters
             Case{"1", "learnt", "1;", true}}) {
        SCOPED_TRACE(c.rules);
        SetUp();
        set("ipv6rd_auto_mode", c.auto_mode);
        set("ipv6rd_rules", c.rules);
        if (std::string(c.rules) == "learnt") {
            set("ipv6rd_auto_prefix", "2001:db8::/32");
            set("ipv6rd_auto_masklen", "0");
            set("ipv6rd_auto_relay", "192.0.2.9");
        }
        set("ipv6_6rd_status", "stale");
        EXPECT_EQ(start_6rd_tunnel(), 0);
        EXPECT_EQ(get("ipv6_6rd_status") + " " + get("ipv6_6rd_tunnel"),
                  c.status + std::string(" up"));
        EXPECT_EQ(sit0_commands(), c.tunnel ? tunnel : std::vector<std::string>{});
        EXPECT_EQ(get("ipv6_lan_ipaddr"), c.tunnel ? "2001:db8:c000:201:" + kLanId : "");
    }
}

}  // namespace
