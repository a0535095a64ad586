// The LAN's IPv6 daemons: "/tmp/radvd.conf" (checked with Debian's radvd) and
// "/tmp/dhcp6s.conf" byte for byte, and how each daemon is started.
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
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

using Keys = std::vector<std::pair<const char *, const char *>>;

constexpr const char *kRadvdConf = "/tmp/radvd.conf";
constexpr const char *kDhcp6sConf = "/tmp/dhcp6s.conf";
constexpr const char *kRadvdRealBinary = "/host/usr/sbin/radvd";
const std::string kDhcp6sEval =
    R"({"fn":"_eval","args":[["dhcp6s","-c","/tmp/dhcp6s.conf"],null,0,"ppid"]})";

void set(const Keys &keys) {
    for (const auto &[key, value] : keys) veskNvramConfig_set(key, value);
}

// Lines of the platform call trace for function `fn`.
std::vector<std::string> trace_of(const std::string &fn) {
    std::vector<std::string> lines;
    for (const std::string &line : testroot::trace())
        if (line.rfind("{\"fn\":\"" + fn + "\"", 0) == 0) lines.push_back(line);
    return lines;
}

// Runs Debian's radvd on the written file; its output, and whether it accepted the file.
std::pair<bool, std::string> radvd_configtest() {
    std::string command = std::string(kRadvdRealBinary) + " --configtest -C " + kRadvdConf +
                          " >/tmp/configtest.out 2>&1";
    int status = std::system(command.c_str());
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

// ---- radvd --------------------------------------------------------------------------------

TEST_F(LanDaemons, Radvd_DelegatedPrefixWithObsoletePrefix_WritesWholeFileAndStartsRadvd) {
    set({{"radvd_lan_obsolete_ipaddr", "2001:db8:9:9::1"},
         {"radvd_lan_obsolete_ipaddr_length", "64"}});
    EXPECT_EQ(write_radvd_conf(), 0);
    EXPECT_EQ(testroot::read_file(kRadvdConf),
              "interface br0 {\n"
              " AdvSendAdvert on;\n"
              " AdvCurHopLimit 64;\n"
              " MinRtrAdvInterval 200;\n"
              " MaxRtrAdvInterval 600;\n"
              " AdvManagedFlag off;\n"
              " AdvOtherConfigFlag on;\n"
              " AdvDefaultLifetime 1800;\n"
              " AdvReachableTime 0;\n"
              " AdvRetransTimer 0;\n"
              " AdvDefaultPreference low;\n"
              " AdvHomeAgentFlag off;\n"
              " prefix 2001:db8:1:2::/64 {\n"
              "  AdvOnLink on;\n"
              "  AdvAutonomous on;\n"
              "  AdvValidLifetime 86400;\n"
              "  AdvPreferredLifetime 14400;\n"
              " };\n"
              " prefix 2001:db8:9:9::/64 {\n"
              "  AdvOnLink on;\n"
              "  AdvAutonomous off;\n"
              "  AdvValidLifetime 0;\n"
              "  AdvPreferredLifetime 0;\n"
              " };\n"
              " RDNSS fe80::2 {\n"
              "  AdvRDNSSPreference 0;\n"
              "  AdvRDNSSLifetime 1200;\n"
              " };\n"
              "};\n\n");
    EXPECT_EQ(testroot::read_file("/proc/sys/net/ipv6/conf/all/forwarding"), "1\n");
    EXPECT_THAT(testroot::shell_commands(), ElementsAre("radvd -d 1 -D -C /tmp/radvd.conf &"));
    auto [accepted, output] = radvd_configtest();
    EXPECT_TRUE(accepted) << output;
}

TEST_F(LanDaemons, Radvd_EachMode_WritesItsBlocksAndRadvdAcceptsTheFile) {
    struct Case {
        const char *name;
        Keys keys;
        const char *present;
        const char *absent;
        const char *command;
        bool radvd_accepts = true;
    };
    const std::vector<Case> cases = {
        {"6to4 over PPPoE",
         {{"ipv6_proto", "6to4"}, {"wan_proto", "pppoe"}},
         " prefix 0:0:0:a::/64 {\n  AdvOnLink on;\n  AdvAutonomous on;\n  AdvRouterAddr off;\n"
         "  Base6to4Interface ppp0;\n  AdvValidLifetime 7200;\n  AdvPreferredLifetime 3600;\n };\n",
         "AdvLinkMTU", "radvd -d 1 -C /tmp/radvd.conf &"},
        {"auto 6rd: configured lifetimes",
         {{"ipv6_proto", "auto"}, {"ipv6_proto_auto", "6rd"}},
         " AdvLinkMTU 1480;\n prefix 2001:db8:1:2::/64 {\n  AdvOnLink on;\n  AdvAutonomous on;\n"
         "  AdvValidLifetime 7200;\n  AdvPreferredLifetime 3600;\n };\n",
         "0:0:0:a::", "radvd -d 1 -C /tmp/radvd.conf &"},
        {"fixed: configured lifetimes",
         {{"ipv6_proto", "fixed"}, {"ipv6_lan_length", "56"}},
         " prefix 2001:db8:1::/56 {\n  AdvOnLink on;\n  AdvAutonomous on;\n"
         "  AdvValidLifetime 7200;\n",
         "AdvLinkMTU", "radvd -d 1 -C /tmp/radvd.conf &"},
        {"dynamic lifetimes switched off",
         {{"RA_use_dynamic_lifetime", "0"}},
         "  AdvValidLifetime 7200;\n  AdvPreferredLifetime 3600;\n", "86400",
         "radvd -d 1 -C /tmp/radvd.conf &"},
        {"managed addresses, obsolete prefix still withdrawn",
         {{"RA_AdvManagedFlag", "on"},
          {"radvd_lan_obsolete_ipaddr", "2001:db8:9:9::1"},
          {"radvd_lan_obsolete_ipaddr_length", "64"}},
         " AdvHomeAgentFlag off;\n prefix 2001:db8:9:9::/64 {\n  AdvOnLink on;\n"
         "  AdvAutonomous off;\n",
         "2001:db8:1:2::/64", "radvd -d 1 -D -C /tmp/radvd.conf &"},
        {"unparsable LAN address: no LAN prefix, rest written",
         {{"ipv6_lan_ipaddr", "2001:db8:zz::1"}, {"ipv6rd_wan_dns_sel", "0"}},
         " AdvHomeAgentFlag off;\n RDNSS 2001:db8:zz::1 {\n", " prefix",
         "radvd -d 1 -D -C /tmp/radvd.conf &", false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        set(c.keys);
        EXPECT_EQ(write_radvd_conf(), 0);
        std::string conf = testroot::read_file(kRadvdConf);
        EXPECT_THAT(conf, HasSubstr(c.present));
        EXPECT_THAT(conf, Not(HasSubstr(c.absent)));
        EXPECT_THAT(testroot::shell_commands(), ElementsAre(c.command));
        if (!c.radvd_accepts) continue;
        auto [accepted, output] = radvd_configtest();
        EXPECT_TRUE(accepted) << output;
        // Debian's radvd only warns about the RDNSS preference it no longer uses.
        EXPECT_THAT(output, HasSubstr("syntax ok"));
    }
}

TEST_F(LanDaemons, Radvd_EmptyLanIfname_WritesEmptyFileAndStillStartsRadvd) {
    set({{"lan_ifname", ""}});
    EXPECT_EQ(write_radvd_conf(), 0);
    EXPECT_TRUE(testroot::exists(kRadvdConf) && testroot::read_file(kRadvdConf).empty());
    EXPECT_THAT(testroot::shell_commands(), ElementsAre("radvd -d 1 -D -C /tmp/radvd.conf &"));
}

TEST_F(LanDaemons, RdnssFromLinkLocal_DependsOnDnsSelectionAndProtocol) {
    struct Case {
        const char *dns_sel, *proto, *proto_auto;
        int expected;
    };
    const Case cases[] = {
        {"0", "dhcp", "", 0},       {"", "dhcp", "", 1},          {"1", "pppoe", "", 1},
        {"1", "6rd", "", 1},        {"1", "fixed", "", 0},        {"1", "auto", "autoconfig", 1},
        {"1", "auto", "6to4", 1},   {"1", "auto", "pppoe", 0},    {"1", "autoconfig", "", 1},
    };
    for (const Case &c : cases) {
        set({{"ipv6rd_wan_dns_sel", c.dns_sel}, {"ipv6_proto", c.proto},
             {"ipv6_proto_auto", c.proto_auto}});
        EXPECT_EQ(rdnss_from_link_local(), c.expected)
            << c.dns_sel << " " << c.proto << " " << c.proto_auto;
    }
}

// ---- dhcp6s -------------------------------------------------------------------------------

TEST_F(LanDaemons, Dhcp6s_EachServerKind_WritesWholeFile) {
    struct Case {
        const char *name;
        Keys keys;
        std::string expected;
    };
    const std::string times =
        "renew-time 43200 ;\nrebind-time 64800 ;\nprefer-life-time 86400 ;\n"
        "valid-life-time 86400 ;\nallow rapid-commit ;\n";
    const std::vector<Case> cases = {
        {"stateful, DNS on the second link-local address",
         {{"ipv6_sip_servers", "2001:db8::5060"}, {"ipv6_ntp_servers", "2001:db8::123"}},
         "interface br0 {\noption dns_servers fe80::2 ;\noption sip_servers 2001:db8::5060 ;\n"
         "option ntp_servers 2001:db8::123 ;\n" +
             times +
             "link LAN {\npool {\nrange 2001:db8:1:2::1000 to 2001:db8:1:2::2000/64;\n};\n};\n"
             "};\n\n"},
        {"stateless, DNS on the LAN address",
         {{"ipv6_proto", "fixed"}, {"lan_dhcpsv6_enable", "0"}},
         "interface br0 {\noption dns_servers 2001:db8:1:2::1 ;\n" + times +
             "send information-only;\nlink LAN {\n};\n};\n\n"},
        {"neither kind: empty link, DNS on the link-local address",
         {{"ipv6_proto", "fixed"}, {"lan_dhcpsv6_enable", ""}, {"ipv6_lan_ipaddr", ""}},
         "interface br0 {\noption dns_servers fe80::1 ;\n" + times + "link LAN {\n};\n};\n\n"},
        {"stateful without a LAN address: empty pool",
         {{"ipv6_lan_ipaddr", ""}},
         "interface br0 {\noption dns_servers fe80::2 ;\n" + times +
             "link LAN {\npool {\n};\n};\n};\n\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        testroot::write_file("/tmp/server6.leases", "kept lease\n");
        set(c.keys);
        EXPECT_EQ(start_dhcp6s(), 0);
        EXPECT_EQ(testroot::read_file(kDhcp6sConf), c.expected);
        EXPECT_EQ(testroot::read_file("/tmp/server6.leases"), "kept lease\n");
        EXPECT_THAT(trace_of("_eval"), ElementsAre(kDhcp6sEval));
    }
}

TEST_F(LanDaemons, Dhcp6s_Lifetime_GivesRenewAndRebindIn32BitArithmetic) {
    struct Case {
        const char *lifetime;
        const char *times;
    };
    const Case cases[] = {
        {"86400", "renew-time 43200 ;\nrebind-time 64800 ;\nprefer-life-time 86400 ;\n"},
        // 3 x 2000000000 wraps to 1705032704.
        {"2000000000",
         "renew-time 1000000000 ;\nrebind-time 426258176 ;\nprefer-life-time 2000000000 ;\n"},
        // Beyond 32 bits strtoul gives its maximum 4294967295.
        {"5000000000",
         "renew-time 2147483647 ;\nrebind-time 1073741823 ;\nprefer-life-time 5000000000 ;\n"},
        {"1 day", "renew-time 0 ;\nrebind-time 0 ;\nprefer-life-time 1 day ;\n"},
    };
    for (const Case &c : cases) {
        set({{"lan_dhcpsv6_lifetime", c.lifetime}});
        EXPECT_EQ(start_dhcp6s(), 0);
        EXPECT_THAT(testroot::read_file(kDhcp6sConf), HasSubstr(c.times)) << c.lifetime;
    }
}

// ---- Both ---------------------------------------------------------------------------------

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
    std::vector<std::string> once = {
        "echo '========' >> /tmp/radvd_debug.fifo",
        "radvd -d 9 -D -m stderr -C /tmp/radvd.conf 2>>/tmp/radvd_debug.fifo &",
        "echo '==========' >> /tmp/dhcp6s_debug.fifo &",
        "dhcp6s -f -D -c /tmp/dhcp6s.conf 2>>/tmp/dhcp6s_debug.fifo &"};
    std::vector<std::string> twice = once;
    twice.insert(twice.end(), once.begin(), once.end());
    EXPECT_EQ(testroot::shell_commands(), twice);
    EXPECT_TRUE(testroot::wait_for([] {
        return testroot::read_file("/tmp/radvd_debug.txt") == "========\n========\n";
    }));
}

TEST_F(LanDaemons, Ipv6OffOrPassedThrough_NeitherDaemonIsConfiguredOrStarted) {
    const Keys cases[] = {{{"ipv6_proto", "disable"}},
                          {{"ipv6_proto", "passthrough"}},
                          {{"ipv6_proto", "auto"}, {"ipv6_proto_auto", "passthrough"}}};
    for (const Keys &keys : cases) {
        set(keys);
        EXPECT_EQ(write_radvd_conf(), 0);
        EXPECT_EQ(start_dhcp6s(), 0);
    }
    EXPECT_FALSE(testroot::exists(kRadvdConf) || testroot::exists("/tmp/server6.leases"));
    EXPECT_THAT(testroot::events(), IsEmpty());
    EXPECT_THAT(testroot::trace(), IsEmpty());
}

TEST_F(LanDaemons, FileCannotBeCreated_ReportsPathAndStartsNothing) {
    for (const char *path : {kRadvdConf, kDhcp6sConf, "/tmp/server6.leases"})
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
