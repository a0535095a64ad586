// The LAN's IPv6 daemons: radvd.conf (checked with Debian's radvd) and dhcp6s.conf byte for byte.
#include "ipv6/dhcp6s.h"
#include "ipv6/radvd.h"
#include "platform/nvram.h"
#include "tests/support/testroot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

using Keys = std::vector<std::pair<const char *, const char *>>;
const std::string kDhcp6sEval =
    R"({"fn":"_eval","args":[["dhcp6s","-c","/tmp/dhcp6s.conf"],null,0,"ppid"]})";

void set(const Keys &keys) {
    for (const auto &[key, value] : keys) veskNvramConfig_set(key, value);
}
std::string radvd_conf() { return testroot::read_file("/tmp/radvd.conf"); }

std::vector<std::string> trace_of(const std::string &fn) {
    std::vector<std::string> lines;
    for (const std::string &line : testroot::trace())
        if (line.rfind("{\"fn\":\"" + fn + "\"", 0) == 0) lines.push_back(line);
    return lines;
}

// Debian's radvd --configtest on the written file: accepted, and its output.
std::pair<bool, std::string> radvd_configtest() {
    int status = std::system(
        "/host/usr/sbin/radvd --configtest -C /tmp/radvd.conf >/tmp/configtest.out 2>&1");
    return {WIFEXITED(status) && WEXITSTATUS(status) == 0,
            testroot::read_file("/tmp/configtest.out")};
}

class LanDaemons : public testing::Test {
protected:
    void SetUp() override {
        if (!testroot::inside()) GTEST_SKIP() << "needs the test root";
        testroot::reset();
        set({{"ipv6_proto", "dhcp"}, {"lan_ifname", "br0"}, {"RA_AdvCurHopLimit", "64"},
             {"RA_MinRtrAdvInterval", "200"}, {"RA_MaxRtrAdvInterval", "600"},
             {"RA_AdvManagedFlag", "off"}, {"RA_AdvOtherConfigFlag", "on"},
             {"RA_AdvDefaultLifetime", "1800"}, {"RA_AdvReachableTime", "0"},
             {"RA_AdvRetransTimer", "0"}, {"RA_AdvOnLink", "on"}, {"RA_AdvAutonomous", "on"},
             {"RA_AdvValidLifetime", "7200"}, {"RA_AdvPreferredLifetime", "3600"},
             {"RA_AdvValidLifetime_from_IAPD", "86400"},
             {"RA_AdvPreferredLifetime_from_IAPD", "14400"}, {"RA_use_dynamic_lifetime", "1"},
             {"ipv6_lan_ipaddr", "2001:db8:1:2::1"}, {"ipv6_lan_length", "64"},
             {"lan_ipv6_link_local_addr", "fe80::1"}, {"lan_ipv6_link_local_addr1", "fe80::2"},
             {"ipv6rd_wan_dns_sel", "1"}, {"ipv6rd_wan_mtu", "1480"}, {"ipv6_6to4_sla_id", "10"},
             {"wan_proto", "dhcp"}, {"wan_ifname", "eth0"}, {"lan_dhcpsv6_lifetime", "86400"},
             {"lan_dhcpsv6_enable", "1"}});
    }
};

TEST_F(LanDaemons, Radvd_DelegatedPrefixWithObsoletePrefix_WritesWholeFileAndStartsRadvd) {
    set({{"radvd_lan_obsolete_ipaddr", "2001:db8:9:9::1"},
         {"radvd_lan_obsolete_ipaddr_length", "64"}});
    EXPECT_EQ(write_radvd_conf(), 0);
    EXPECT_EQ(radvd_conf(),
              "interface br0 {\n AdvSendAdvert on;\n AdvCurHopLimit 64;\n MinRtrAdvInterval 200;\n"
              " MaxRtrAdvInterval 600;\n AdvManagedFlag off;\n AdvOtherConfigFlag on;\n"
              " AdvDefaultLifetime 1800;\n AdvReachableTime 0;\n AdvRetransTimer 0;\n"
              " AdvDefaultPreference low;\n AdvHomeAgentFlag off;\n"
              " prefix 2001:db8:1:2::/64 {\n  AdvOnLink on;\n  AdvAutonomous on;\n"
              "  AdvValidLifetime 86400;\n  AdvPreferredLifetime 14400;\n };\n"
              " prefix 2001:db8:9:9::/64 {\n  AdvOnLink on;\n  AdvAutonomous off;\n"
              "  AdvValidLifetime 0;\n  AdvPreferredLifetime 0;\n };\n"
              " RDNSS fe80::2 {\n  AdvRDNSSPreference 0;\n  AdvRDNSSLifetime 1200;\n };\n};\n\n");
    EXPECT_EQ(testroot::read_file("/proc/sys/net/ipv6/conf/all/forwarding"), "1\n");
    EXPECT_THAT(testroot::shell_commands(), ElementsAre("radvd -d 1 -D -C /tmp/radvd.conf &"));
    auto [accepted, output] = radvd_configtest();
    EXPECT_TRUE(accepted) << output;
}

TEST_F(LanDaemons, Radvd_EachMode_WritesItsBlocksAndRadvdAcceptsTheFile) {
    struct Case { const char *name; Keys keys; const char *present, *absent, *flags; };
    const std::vector<Case> cases = {
        {"6to4 over PPPoE", {{"ipv6_proto", "6to4"}, {"wan_proto", "pppoe"}},
         " prefix 0:0:0:a::/64 {\n  AdvOnLink on;\n  AdvAutonomous on;\n  AdvRouterAddr off;\n"
         "  Base6to4Interface ppp0;\n  AdvValidLifetime 7200;\n  AdvPreferredLifetime 3600;\n };\n",
         "AdvLinkMTU", "-d 1"},
        {"auto 6rd", {{"ipv6_proto", "auto"}, {"ipv6_proto_auto", "6rd"}},
         " AdvLinkMTU 1480;\n prefix 2001:db8:1:2::/64 {\n  AdvOnLink on;\n  AdvAutonomous on;\n"
         "  AdvValidLifetime 7200;\n  AdvPreferredLifetime 3600;\n };\n",
         "0:0:0:a::", "-d 1"},
        {"fixed /56", {{"ipv6_proto", "fixed"}, {"ipv6_lan_length", "56"}},
         " prefix 2001:db8:1::/56 {\n  AdvOnLink on;\n  AdvAutonomous on;\n"
         "  AdvValidLifetime 7200;\n", "AdvLinkMTU", "-d 1"},
        {"dynamic lifetimes off", {{"RA_use_dynamic_lifetime", "0"}},
         "  AdvValidLifetime 7200;\n  AdvPreferredLifetime 3600;\n", "86400", "-d 1"},
        {"managed on, obsolete prefix withdrawn",
         {{"RA_AdvManagedFlag", "on"}, {"radvd_lan_obsolete_ipaddr", "2001:db8:9:9::1"},
          {"radvd_lan_obsolete_ipaddr_length", "64"}},
         " AdvHomeAgentFlag off;\n prefix 2001:db8:9:9::/64 {\n  AdvOnLink on;\n"
         "  AdvAutonomous off;\n", "2001:db8:1:2::/64", "-d 1 -D"},
        // radvd refuses this one, so it is not run on it
        {"unparsable LAN address", {{"ipv6_lan_ipaddr", "2001:db8:zz::1"}, {"ipv6rd_wan_dns_sel", "0"}},
         " AdvHomeAgentFlag off;\n RDNSS 2001:db8:zz::1 {\n", " prefix", "-d 1 -D"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        set(c.keys);
        EXPECT_EQ(write_radvd_conf(), 0);
        EXPECT_THAT(radvd_conf(), HasSubstr(c.present));
        EXPECT_THAT(radvd_conf(), Not(HasSubstr(c.absent)));
        EXPECT_THAT(testroot::shell_commands(),
                    ElementsAre(std::string("radvd ") + c.flags + " -C /tmp/radvd.conf &"));
        if (&c == &cases.back()) break;
        auto [accepted, output] = radvd_configtest();
        EXPECT_TRUE(accepted) << output;
        EXPECT_THAT(output, HasSubstr("syntax ok"));
    }
    SetUp();  // no LAN interface: an empty file, radvd still started
    set({{"lan_ifname", ""}});
    EXPECT_EQ(write_radvd_conf(), 0);
    EXPECT_TRUE(testroot::exists("/tmp/radvd.conf") && radvd_conf().empty());
    EXPECT_THAT(testroot::shell_commands(), ElementsAre("radvd -d 1 -D -C /tmp/radvd.conf &"));
}

TEST_F(LanDaemons, RdnssFromLinkLocal_DependsOnDnsSelectionAndProtocol) {
    struct Case { const char *dns_sel, *proto, *proto_auto; int expected; };
    for (const Case &c : {Case{"0", "dhcp", "", 0}, Case{"", "dhcp", "", 1},
                          Case{"1", "pppoe", "", 1}, Case{"1", "6rd", "", 1},
                          Case{"1", "fixed", "", 0}, Case{"1", "auto", "autoconfig", 1},
                          Case{"1", "auto", "6to4", 1}, Case{"1", "auto", "pppoe", 0},
                          Case{"1", "autoconfig", "", 1}}) {
        set({{"ipv6rd_wan_dns_sel", c.dns_sel}, {"ipv6_proto", c.proto},
             {"ipv6_proto_auto", c.proto_auto}});
        EXPECT_EQ(rdnss_from_link_local(), c.expected) << c.dns_sel << c.proto << c.proto_auto;
    }
}

TEST_F(LanDaemons, Dhcp6s_EachServerKind_WritesWholeFile) {
    const std::string head = "interface br0 {\noption dns_servers ",
                      times = " ;\nrenew-time 43200 ;\nrebind-time 64800 ;\nprefer-life-time "
                              "86400 ;\nvalid-life-time 86400 ;\nallow rapid-commit ;\n";
    struct Case { const char *name; Keys keys; std::string expected; };
    for (const Case &c : std::vector<Case>{
             {"stateful", {{"ipv6_sip_servers", "2001:db8::5060"}, {"ipv6_ntp_servers", "2001:db8::123"}},
              head + "fe80::2 ;\noption sip_servers 2001:db8::5060 ;\noption ntp_servers 2001:db8::123" +
                  times + "link LAN {\npool {\nrange 2001:db8:1:2::1000 to 2001:db8:1:2::2000/64;\n"
                  "};\n};\n};\n\n"},
             {"stateless", {{"ipv6_proto", "fixed"}, {"lan_dhcpsv6_enable", "0"}},
              head + "2001:db8:1:2::1" + times + "send information-only;\nlink LAN {\n};\n};\n\n"},
             {"empty link", {{"ipv6_proto", "fixed"}, {"lan_dhcpsv6_enable", ""}, {"ipv6_lan_ipaddr", ""}},
              head + "fe80::1" + times + "link LAN {\n};\n};\n\n"},
             {"empty pool", {{"ipv6_lan_ipaddr", ""}},
              head + "fe80::2" + times + "link LAN {\npool {\n};\n};\n};\n\n"}}) {
        SCOPED_TRACE(c.name);
        SetUp();
        testroot::write_file("/tmp/server6.leases", "kept lease\n");
        set(c.keys);
        EXPECT_EQ(start_dhcp6s(), 0);
        EXPECT_EQ(testroot::read_file("/tmp/dhcp6s.conf"), c.expected);
        EXPECT_EQ(testroot::read_file("/tmp/server6.leases"), "kept lease\n");
        EXPECT_THAT(trace_of("_eval"), ElementsAre(kDhcp6sEval));
    }
}

// A store value that would end its directive early or open a block of its own leaves its one
// directive out (the daemon's default stands); the rest of the file is written and radvd still
// accepts it.
TEST_F(LanDaemons, ValueThatWouldAddDirectives_LeavesItsDirectiveOut) {
    struct Case { const char *key, *file, *left_out; Keys mode; };
    const Case cases[] = {
        {"RA_AdvCurHopLimit", "/tmp/radvd.conf", " AdvCurHopLimit", {}},
        {"RA_AdvOnLink", "/tmp/radvd.conf", "  AdvOnLink", {}},
        {"RA_AdvValidLifetime_from_IAPD", "/tmp/radvd.conf", "  AdvValidLifetime", {}},
        {"ipv6rd_wan_mtu", "/tmp/radvd.conf", "AdvLinkMTU", {{"ipv6_proto", "6rd"}}},
        {"lan_ipv6_link_local_addr1", "/tmp/radvd.conf", "RDNSS", {}},
        {"lan_ipv6_link_local_addr1", "/tmp/dhcp6s.conf", "dns_servers", {}},
        {"ipv6_sip_servers", "/tmp/dhcp6s.conf", "sip_servers", {}},
        {"ipv6_ntp_servers", "/tmp/dhcp6s.conf", "ntp_servers", {}},
    };
    for (const Case &c : cases) {
        for (const char *value : {"1;\n AdvSendAdvert off", "2001:db8::1 ; }; INJECTED {"}) {
            SCOPED_TRACE(std::string(c.key) + " = " + value);
            SetUp();
            set(c.mode);
            set({{c.key, value}});
            testing::internal::CaptureStderr();
            EXPECT_EQ(write_radvd_conf(), 0);
            EXPECT_EQ(start_dhcp6s(), 0);
            EXPECT_THAT(testing::internal::GetCapturedStderr(),
                        HasSubstr(std::string(": refused ") + c.key + " \""));
            const std::string text = testroot::read_file(c.file);
            EXPECT_THAT(text, Not(HasSubstr(c.left_out)));
            EXPECT_THAT(text, Not(HasSubstr("INJECTED")));
            EXPECT_THAT(text, Not(HasSubstr("AdvSendAdvert off")));
            auto [accepted, output] = radvd_configtest();
            EXPECT_TRUE(accepted) << output;
        }
    }
}

TEST_F(LanDaemons, Dhcp6s_Lifetime_GivesRenewAndRebindIn32BitArithmetic) {
    for (auto [lifetime, times] : {
             // 3 x 2000000000 wraps to 1705032704; beyond 32 bits strtoul gives 4294967295.
             std::pair{"2000000000", "renew-time 1000000000 ;\nrebind-time 426258176 ;\n"},
             {"5000000000", "renew-time 2147483647 ;\nrebind-time 1073741823 ;\n"},
             // Two words would split the line: the server's default lifetimes stand instead.
             {"1 day", "renew-time 0 ;\nrebind-time 0 ;\nallow rapid-commit ;\n"}}) {
        set({{"lan_dhcpsv6_lifetime", lifetime}});
        testing::internal::CaptureStderr();
        EXPECT_EQ(start_dhcp6s(), 0);
        testing::internal::GetCapturedStderr();
        EXPECT_THAT(testroot::read_file("/tmp/dhcp6s.conf"), HasSubstr(times)) << lifetime;
    }
}

TEST_F(LanDaemons, DebugCapture_StartsReaderOnceAndRunsDaemonsIntoFifo) {
    set({{"hidden_page_debug_ipv6", "1"}});
    for (int i = 0; i < 2; ++i) {  // the second time the readers are running already
        EXPECT_EQ(write_radvd_conf(), 0);
        EXPECT_EQ(start_dhcp6s(), 0);
    }
    EXPECT_THAT(trace_of("initial_abfifo"),
                ElementsAre(R"({"fn":"initial_abfifo","args":["/tmp/radvd_debug.fifo",)"
                            R"("/tmp/radvd_debug.txt",1000]})",
                            R"({"fn":"initial_abfifo","args":["/tmp/dhcp6s_debug.fifo",)"
                            R"("/tmp/dhcp6s_debug.txt",1000]})"));
    EXPECT_THAT(trace_of("_eval"), IsEmpty());
    std::vector<std::string> twice;
    for (int i = 0; i < 2; ++i)
        twice.insert(twice.end(),
                     {"echo '========' >> /tmp/radvd_debug.fifo",
                      "radvd -d 9 -D -m stderr -C /tmp/radvd.conf 2>>/tmp/radvd_debug.fifo &",
                      "echo '==========' >> /tmp/dhcp6s_debug.fifo &",
                      "dhcp6s -f -D -c /tmp/dhcp6s.conf 2>>/tmp/dhcp6s_debug.fifo &"});
    EXPECT_EQ(testroot::shell_commands(), twice);
    EXPECT_TRUE(testroot::wait_for([] {
        return testroot::read_file("/tmp/radvd_debug.txt") == "========\n========\n";
    }));
}

TEST_F(LanDaemons, Ipv6OffOrPassedThrough_NeitherDaemonIsConfiguredOrStarted) {
    for (const Keys &keys : {Keys{{"ipv6_proto", "disable"}}, Keys{{"ipv6_proto", "passthrough"}},
                             Keys{{"ipv6_proto", "auto"}, {"ipv6_proto_auto", "passthrough"}}}) {
        set(keys);
        EXPECT_EQ(write_radvd_conf(), 0);
        EXPECT_EQ(start_dhcp6s(), 0);
    }
    EXPECT_FALSE(testroot::exists("/tmp/radvd.conf") || testroot::exists("/tmp/server6.leases"));
    EXPECT_THAT(testroot::events(), IsEmpty());
    EXPECT_THAT(testroot::trace(), IsEmpty());
}

TEST_F(LanDaemons, FileCannotBeCreated_ReportsPathAndStartsNothing) {
    for (const char *path : {"/tmp/radvd.conf", "/tmp/dhcp6s.conf", "/tmp/server6.leases"})
        ASSERT_EQ(mkdir(path, 0755), 0) << path;
    testing::internal::CaptureStderr();
    EXPECT_EQ(write_radvd_conf(), EISDIR);
    EXPECT_EQ(start_dhcp6s(), EISDIR);
    std::filesystem::remove("/tmp/server6.leases");
    EXPECT_EQ(start_dhcp6s(), EISDIR);
    EXPECT_EQ(testroot::read_file("/proc/sys/net/ipv6/conf/all/forwarding"), "0\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "/tmp/radvd.conf: Is a directory\n/tmp/server6.leases: Is a directory\n"
              "/tmp/dhcp6s.conf: Is a directory\n");
    EXPECT_THAT(testroot::events(), IsEmpty());
    EXPECT_THAT(trace_of("_eval"), IsEmpty());
}

}  // namespace
