// The resolver files: list choice, merge, reset and removal, byte for byte, in the test root.
#include "services/dns.h"
#include "platform/nvram.h"
#include "tests/support/testroot.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <tuple>
#include <utility>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

const char *const kResolv = "/tmp/resolv.conf";
const char *const kSession2 = "/tmp/resolv_session2.conf";
const std::string kOptions = "options single-request\n";
const std::string kReload =
    R"({"fn":"_eval_daemon","args":[["killall","-1","dnsmasq"],">/dev/console",0,null,0]})";

std::string servers(std::initializer_list<std::string> addresses) {
    std::string text;
    for (const std::string &a : addresses) text += "nameserver " + a + "\n";
    return text;
}

// /proc/net/route with one line per (iface, destination, mask) in network-order hex.
void routes(std::initializer_list<std::array<const char *, 3>> table, const char *junk = "") {
    std::string text = "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";
    text += junk;
    for (const auto &[iface, destination, mask] : table) {
        char line[160];
        std::snprintf(line, sizeof line, "%s\t%08X\t00000000\t0001\t0\t0\t0\t%08X\t0\t0\t0\n",
                      iface, inet_addr(destination), inet_addr(mask));
        text += line;
    }
    testroot::write_file("/proc/net/route", text);
}

template <typename F>
std::string stderr_of(F f) {
    testing::internal::CaptureStderr();
    f();
    return testing::internal::GetCapturedStderr();
}

class Dns : public testing::Test {
protected:
    void SetUp() override { testroot::reset(); }
    static void set(std::initializer_list<std::pair<const char *, const char *>> pairs) {
        for (const auto &[key, value] : pairs) veskNvramConfig_set(key, value);
    }
    // Merges into a freshly reset file and returns what the servers became.
    static std::string merged(const char *ifname) {
        testroot::write_file(kResolv, kOptions);
        EXPECT_EQ(update_resolv_conf(ifname), 0);
        std::string text = testroot::read_file(kResolv);
        size_t n = kOptions.size();
        if (text == kOptions) return "";
        if (text.size() < 2 * n || text.compare(0, n, kOptions) != 0 ||
            text.compare(text.size() - n, n, kOptions) != 0)
            return "malformed: " + text;
        return text.substr(n, text.size() - 2 * n);
    }
};

TEST_F(Dns, Merge_SkipsPresentAndSpecialAddresses_AppendsNewThenOptions) {
    set({{"wan_dns", "8.8.8.8 0.0.0.0 1.1.1. 1.1.1.1 127.0.0.1 255.255.255.255 10.0.0.0 9.9.9.9"}});
    testroot::write_file(kResolv, servers({"8.8.8.8"}) + kOptions);
    testing::internal::CaptureStdout();
    EXPECT_EQ(update_resolv_conf("eth0"), 0);
    std::string out = testing::internal::GetCapturedStdout();
    for (const char *token : {"0.0.0.0", "1.1.1.", "127.0.0.1", "255.255.255.255", "10.0.0.0"})
        EXPECT_THAT(out, HasSubstr(std::string("Bypass special address '") + token + "'\n"));
    EXPECT_EQ(testroot::read_file(kResolv),
              servers({"8.8.8.8"}) + kOptions + servers({"1.1.1.1", "9.9.9.9"}) + kOptions);
    EXPECT_THAT(testroot::trace(), ElementsAre(kReload));
}

// A line end, tab or comment sign inside a token would write lines or words of its own, which
// no later merge matches: such a token is left out and named, the others are merged.
TEST_F(Dns, TokenWithLineEndTabOrComment_LeftOutAndReported) {
    set({{"wan_dns", "8.8.8.8\nnameserver 6.6.6.6 1.1.1.1\t2.2.2.2 9.9.9.9#x 9.9.9.9"}});
    testroot::write_file(kResolv, kOptions);
    std::string err = stderr_of([] { EXPECT_EQ(update_resolv_conf("eth0"), 0); });
    EXPECT_EQ(testroot::read_file(kResolv), kOptions + servers({"6.6.6.6", "9.9.9.9"}) + kOptions);
    EXPECT_THAT(err, HasSubstr("update_resolv_conf: refused DNS server \"8.8.8.8\\nnameserver\""));
    EXPECT_THAT(err, HasSubstr("refused DNS server \"1.1.1.1?2.2.2.2\": not a single word"));
    EXPECT_THAT(err, HasSubstr("refused DNS server \"9.9.9.9#x\""));
}

TEST_F(Dns, ResetThenMerges_RepeatOptionsLineAfterEachMerge) {
    set({{"wan_proto", "pppoe"}, {"pppoe_dhcp_dns", "192.0.2.1"}, {"wan_dns", "8.8.8.8"}});
    testroot::write_file(kResolv, servers({"9.9.9.9"}) + kOptions);
    write_ppp_resolv(1);
    EXPECT_EQ(testroot::read_file(kResolv), kOptions);
    EXPECT_FALSE(testroot::exists("/tmp/resolv.ppp"));
    EXPECT_THAT(testroot::trace(), IsEmpty());
    EXPECT_EQ(update_resolv_conf("ppp0"), 0);
    const std::string first = kOptions + servers({"8.8.8.8", "192.0.2.1"}) + kOptions;
    EXPECT_EQ(testroot::read_file(kResolv), first);
    set({{"wan_proto", "dhcp"}, {"wwan_wan_type", "0"}, {"wan1_dns", "10.64.0.1"}});
    EXPECT_EQ(update_resolv_conf("rm_usb0"), 0);
    EXPECT_EQ(testroot::read_file(kResolv), first + servers({"10.64.0.1"}) + kOptions);
}

// The options line goes where the last search left the file, over what was there.
TEST_F(Dns, Merge_LastTokenAlreadyPresent_OptionsLineOverwritesFollowingBytes) {
    for (auto [list, file, result] :
         {std::tuple{"1.1.1.1 8.8.8.8", servers({"8.8.8.8", "1.1.1.1"}), servers({"8.8.8.8"})},
          {"", servers({"8.8.8.8"}), std::string()}}) {
        set({{"wan_dns", list}});
        testroot::write_file(kResolv, file + kOptions);
        EXPECT_EQ(update_resolv_conf("eth0"), 0);
        EXPECT_EQ(testroot::read_file(kResolv), result + kOptions + "ons single-request\n");
    }
}

TEST_F(Dns, Merge_ResolverFileMissing_ReportsAndDoesNotReload) {
    set({{"wan_dns", "8.8.8.8"}});
    EXPECT_EQ(stderr_of([] { EXPECT_EQ(update_resolv_conf("eth0"), ENOENT); }),
              "/tmp/resolv.conf: No such file or directory\n");
    EXPECT_FALSE(testroot::exists(kResolv));
    EXPECT_THAT(testroot::trace(), IsEmpty());
}

TEST_F(Dns, Merge_TenKibList_IsCutWithoutCrash) {
    // 15-character addresses and a blank: the 1023 characters kept hold 64 whole addresses.
    std::string list, expected;
    for (int i = 0; i < 640; ++i) {
        char address[16];
        std::snprintf(address, sizeof address, "100.100.1%02d.1%02d", i / 100, i % 100);
        list += std::string(address) + " ";
        if (i < 64) expected += servers({address});
    }
    set({{"wan_dns", list.c_str()}});
    EXPECT_THAT(stderr_of([&] { EXPECT_EQ(merged("eth0"), expected); }),
                HasSubstr("DNS list longer than 1023"));
}

TEST_F(Dns, JapanSession2_WritesEveryTokenIncludingSpecial) {
    set({{"sku_name", "JP"}, {"wan2_dns", "192.0.2.1 0.0.0.0 198.51.100.2"}});
    testroot::write_file(kSession2, "nameserver 203.0.113.9\n");
    EXPECT_EQ(merged("ppp1"), servers({"192.0.2.1", "198.51.100.2"}));
    EXPECT_EQ(testroot::read_file(kSession2), servers({"192.0.2.1", "0.0.0.0", "198.51.100.2"}));

    set({{"sku_name", "WW"}, {"gui_region", "Japanese"}, {"wan2_dns_sel", "1"},
         {"wan2_dns1", "203.0.113.5"}});
    std::remove(kResolv);
    EXPECT_EQ(update_resolv_conf("ppp1"), ENOENT);
    // Written whole or not at all: the failed merge leaves the last one.
    EXPECT_EQ(testroot::read_file(kSession2), servers({"192.0.2.1", "0.0.0.0", "198.51.100.2"}));
    EXPECT_EQ(merged("ppp1"), servers({"203.0.113.5"}));
    EXPECT_EQ(testroot::read_file(kSession2), servers({"203.0.113.5"}));

    std::remove(kSession2);  // outside the region "ppp1" is an ordinary WAN
    set({{"gui_region", "English"}, {"wan_dns", "8.8.8.8"}});
    EXPECT_EQ(merged("ppp1"), servers({"8.8.8.8"}));
    EXPECT_FALSE(testroot::exists(kSession2));
}

TEST_F(Dns, Mode1WithoutAddress_MergesOnlyTunnelOrIpv6Servers) {
    set({{"wwan_wan_type", "1"}, {"wan_ipaddr", "0.0.0.0"}, {"wan_proto", "dhcp"},
         {"wan_dns", "8.8.8.8"}, {"wan_dns_sel", "1"}, {"wan_dns1", "9.9.9.9"},
         {"pptp_dhcp_dns", "192.0.2.1"}, {"ipv6_proto", "fixed"},
         {"ipv6_pri_dns", "2001:db8::53"}, {"ipv6_sec_dns", ""}});
    EXPECT_EQ(merged("eth0"), servers({"2001:db8::53"}));
    set({{"wan_proto", "pptp"}, {"ipv6_proto", "dhcp"}});
    EXPECT_EQ(merged("eth0"), servers({"192.0.2.1"}));
    set({{"static_pptp_enable", "1"}});
    EXPECT_EQ(merged("eth0"), servers({"9.9.9.9"}));
    set({{"wan_dns_sel", "0"}});
    EXPECT_EQ(merged("eth0"), "");
}

TEST_F(Dns, StaticPptp_ChoosesByGatewayAndParentalControl) {
    set({{"wan_proto", "pptp"}, {"static_pptp_enable", "1"}, {"pptp_gateway", "192.0.2.254"},
         {"wan_dns_sel", "1"}, {"wan_dns", "8.8.8.8"}, {"wan_dns1", "9.9.9.9"},
         {"pptp_dhcp_dns", "192.0.2.1"}});
    EXPECT_EQ(merged("eth0"), servers({"8.8.8.8", "9.9.9.9"}));
    set({{"ParentalControl", "1"}});
    EXPECT_EQ(merged("eth0"), servers({"9.9.9.9"}));
    set({{"ParentalControl", "0"}, {"pptp_gateway", "vpn.example"}});
    EXPECT_EQ(merged("eth0"), servers({"9.9.9.9"}));
    set({{"wan_dns_sel", "0"}});
    EXPECT_EQ(merged("eth0"), servers({"8.8.8.8"}));
}

TEST_F(Dns, Dynamic_ChoosesBySelectionInterfaceAndMode) {
    set({{"wan_proto", "dhcp"}, {"wan_dns", "8.8.8.8"}, {"wan_dns1", "9.9.9.9"},
         {"wan1_dns", "10.64.0.1"}, {"wwan_wan_type", "2"}});
    EXPECT_EQ(merged("eth0"), servers({"8.8.8.8"}));
    set({{"wwan_wan_type", "0"}});
    EXPECT_EQ(merged("rm_usb0"), servers({"10.64.0.1"}));
    set({{"wan_dns_sel", "1"}});
    EXPECT_EQ(merged("eth0"), servers({"9.9.9.9"}));
    EXPECT_EQ(merged("rm_usb0"), servers({"8.8.8.8"}));
}

TEST_F(Dns, PppUserServers_UnroutedFirstThenRoutedThenLearnt) {
    set({{"wan_proto", "pppoe"}, {"wan_dns_sel", "1"}, {"wan_ifname", "ppp0"},
         {"wan_dns", "8.8.8.8"}, {"wan_dns1", "10.0.0.53 9.9.9.9 10.0.0.54"},
         {"pppoe_dhcp_dns", "192.0.2.1"}});
    routes({{"ppp0", "10.0.0.0", "255.255.255.0"}, {"eth0", "9.9.9.0", "255.255.255.0"}});
    EXPECT_EQ(merged("ppp0"), servers({"9.9.9.9", "10.0.0.53", "10.0.0.54", "192.0.2.1"}));
    routes({{"ppp0", "0.0.0.0", "0.0.0.0"}});  // all routed: the learnt Ethernet list leads
    EXPECT_EQ(merged("ppp0"), servers({"8.8.8.8", "10.0.0.53", "9.9.9.9", "10.0.0.54", "192.0.2.1"}));
    set({{"ParentalControl", "1"}});
    EXPECT_EQ(merged("ppp0"), servers({"10.0.0.53", "9.9.9.9", "10.0.0.54", "192.0.2.1"}));
}

TEST_F(Dns, PppUserServers_LongerThanReorderBuffer_AreCut) {
    std::string list, expected;
    for (int i = 0; i < 40; ++i) list += "198.51.100." + std::to_string(100 + i) + " ";
    for (int i = 0; i < 8; ++i) expected += servers({"198.51.100." + std::to_string(100 + i)});
    set({{"wan_proto", "pptp"}, {"wan_dns_sel", "1"}, {"wan_dns1", list.c_str()}});
    // 8 addresses and the cut start of the ninth fill the 127 characters kept.
    EXPECT_THAT(stderr_of([&] { EXPECT_EQ(merged("eth0"), expected + servers({"198.51."})); }),
                HasSubstr("wan_dns1 longer than 127"));
}

TEST_F(Dns, WritePppResolv_WritesLearntListUnfilteredWithTokensCut) {
    std::string long_token(150, '1');
    std::string list = "192.0.2.1  0.0.0.0 " + long_token;
    set({{"wan_proto", "l2tp"}, {"l2tp_dhcp_dns", list.c_str()}});
    write_ppp_resolv(0);
    EXPECT_EQ(testroot::read_file(kResolv),
              servers({"192.0.2.1", "0.0.0.0", long_token.substr(0, 99)}) + kOptions);
    set({{"wan_proto", "dhcp"}});
    write_ppp_resolv(0);
    EXPECT_EQ(testroot::read_file(kResolv), kOptions);
}

TEST_F(Dns, WritePppResolv_TempFileUnwritable_LeavesResolverFile) {
    testroot::write_file(kResolv, servers({"8.8.8.8"}) + kOptions);
    mkdir("/tmp/resolv.ppp", 0755);
    EXPECT_EQ(stderr_of([] { write_ppp_resolv(1); }), "/tmp/resolv.ppp: Is a directory\n");
    EXPECT_EQ(testroot::read_file(kResolv), servers({"8.8.8.8"}) + kOptions);
}

TEST_F(Dns, Remove_OutsideJapan_KeepsLastServerOfListAndOnlyServerLines) {
    set({{"wan_dns", "8.8.8.8 8.8.4.4"}, {"wan1_ifname", "rm_usb0"}, {"wan1_dns", "10.64.0.1 "}});
    testroot::write_file(kResolv, "# written by hand\nnameserver\t8.8.8.8\n" + servers({"8.8.4.4"}) +
                                      "search lan\nnameserver\n" +
                                      servers({"10.64.0.1", "9.9.9.9"}) + kOptions + kOptions);
    EXPECT_EQ(remove_wan_dns("eth0"), 0);
    EXPECT_EQ(testroot::read_file(kResolv), servers({"8.8.4.4", "10.64.0.1", "9.9.9.9"}) + kOptions);
    EXPECT_THAT(testroot::trace(), ElementsAre(kReload));
    // A trailing blank puts a space after the LTE list's last server too.
    EXPECT_EQ(remove_wan_dns("rm_usb0"), 0);
    EXPECT_EQ(testroot::read_file(kResolv), servers({"8.8.4.4", "9.9.9.9"}) + kOptions);
}

TEST_F(Dns, Remove_InJapan_DropsEveryServerOfTheList) {
    set({{"sku_name", "WW"}, {"gui_region", "Japanese"}, {"wan_dns_sel", "1"},
         {"wan_dns", "9.9.9.9"}, {"wan_dns1", "8.8.8.8 8.8.4.4"}, {"wan2_dns", "192.0.2.1"}});
    testroot::write_file(kResolv, servers({"8.8.8.8", "8.8.4.4", "9.9.9.9", "192.0.2.1"}) + kOptions);
    EXPECT_EQ(remove_wan_dns("eth0"), 0);
    EXPECT_EQ(testroot::read_file(kResolv), servers({"9.9.9.9", "192.0.2.1"}) + kOptions);
    EXPECT_EQ(remove_wan_dns("ppp1"), 0);
    EXPECT_EQ(testroot::read_file(kResolv), servers({"9.9.9.9"}) + kOptions);
}

TEST_F(Dns, Remove_TempFileUnavailable_ReportsErrorNumberAndKeepsFile) {
    testroot::write_file(kResolv, servers({"8.8.8.8"}) + kOptions);
    mkdir("/tmp/resolv.tmp", 0755);
    EXPECT_EQ(stderr_of([] { EXPECT_EQ(remove_wan_dns("eth0"), EISDIR); }),
              "fopen /tmp/resolv.tmp: Is a directory\n");
    EXPECT_EQ(testroot::read_file(kResolv), servers({"8.8.8.8"}) + kOptions);
    EXPECT_THAT(testroot::trace(), IsEmpty());
}

TEST_F(Dns, Remove_OverlongLines_ComeInPiecesWithoutCrash) {
    testroot::write_file(kResolv, "nameserver " + std::string(300, 'x') + "\n" + kOptions);
    EXPECT_EQ(remove_wan_dns("eth0"), 0);
    EXPECT_EQ(testroot::read_file(kResolv), servers({std::string(88, 'x')}) + kOptions);
}

TEST_F(Dns, RoutedViaWan_FollowsRoutesOnWanInterfaceOnly) {
    set({{"wan_ifname", "eth0"}});
    routes({{"eth0", "0.0.0.0", "0.0.0.0"}});
    EXPECT_EQ(dns_routed_via_wan("8.8.8.8"), 1);
    routes({{"eth0", "8.8.8.8", "255.255.255.255"}, {"rm_usb0", "0.0.0.0", "0.0.0.0"}});
    EXPECT_EQ(dns_routed_via_wan("8.8.8.8"), 1);
    EXPECT_EQ(dns_routed_via_wan("8.8.4.4"), 0);
    routes({{"rm_usb0", "0.0.0.0", "0.0.0.0"}}, "garbage\n");
    EXPECT_EQ(dns_routed_via_wan("8.8.8.8"), 0);
}

}  // namespace
