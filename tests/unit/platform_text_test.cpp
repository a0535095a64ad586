// The platform library's text helpers: tokens, numbers, MAC and address texts, IPv6 joins.
#include "platform/vesk_shared.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Tokens {
    char t[12][VESK_TOKEN_SIZE];
    Tokens() { std::memset(t, 'X', sizeof t); }
    std::vector<std::string> get(const char *text, const char *seps, int max) {
        int n = getTokens(text, seps, t, max);
        return n < 0 ? std::vector<std::string>{"error"} : std::vector<std::string>(t, t + n);
    }
};

using Words = std::vector<std::string>;

TEST(GetTokens, RepeatedAndEdgeSeparators_GiveNoEmptyTokens) {
    Tokens tk;
    EXPECT_EQ(tk.get("  8.8.8.8   8.8.4.4 ", " ", 10), (Words{"8.8.8.8", "8.8.4.4"}));
    EXPECT_EQ(tk.get("2001:db8::/32", ":/", 10), (Words{"2001", "db8", "32"}));
    EXPECT_EQ(tk.get("", " ", 10), Words{});
    EXPECT_EQ(tk.get("   ", " ", 10), Words{});
    EXPECT_EQ(tk.get("one two", "", 10), Words{"one two"});  // no separators: the whole text
}

TEST(GetTokens, StopsAtMaxAndLeavesTheRestUntouched) {
    Tokens tk;
    EXPECT_EQ(tk.get("a b c d", " ", 2), (Words{"a", "b"}));
    EXPECT_EQ(tk.t[2][0], 'X');
    EXPECT_EQ(getTokens("a b", " ", tk.t, 0), 0);
    EXPECT_EQ(getTokens("a b", " ", tk.t, -1), 0);
    EXPECT_EQ(getTokens(nullptr, " ", tk.t, 2), 0);
    EXPECT_EQ(getTokens("a", " ", nullptr, 2), 0);
}

TEST(GetTokens, LongTokenIsCutAt127AndItsRestDropped) {
    Tokens tk;
    std::string text = std::string(127, 'a') + " " + std::string(300, 'b') + " c";
    EXPECT_EQ(tk.get(text.c_str(), " ", 10), (Words{std::string(127, 'a'), std::string(127, 'b'), "c"}));
}

TEST(Itoa, WritesDecimalIncludingExtremes) {
    char buf[12];
    EXPECT_STREQ(itoa(0, buf), "0");
    EXPECT_STREQ(itoa(-42, buf), "-42");
    EXPECT_STREQ(itoa(INT_MIN, buf), "-2147483648");
    EXPECT_STREQ(itoa(INT_MAX, buf), "2147483647");
    EXPECT_EQ(itoa(1, nullptr), nullptr);
}

TEST(EtherAtoe, ParsesColonOrDashSeparatedHex) {
    unsigned char mac[6] = {};
    const unsigned char want[6] = {0x00, 0x11, 0x22, 0xaa, 0xbb, 0xff};
    EXPECT_NE(ether_atoe("00:11:22:aA:Bb:fF", mac), 0);
    EXPECT_EQ(std::memcmp(mac, want, 6), 0);
    EXPECT_NE(ether_atoe("02-00-00-00-00-01", mac), 0);
    EXPECT_EQ(mac[0], 0x02);
    EXPECT_EQ(mac[5], 0x01);
}

TEST(EtherAtoe, BadText_FailsAndLeavesTheBuffer) {
    const unsigned char same[6] = {1, 2, 3, 4, 5, 6};
    for (const char *text : {"", "00:11:22:33:44", "00:11:22:33:44:55:66", "0:11:22:33:44:55",
                             "00:11:22:33:44:5g", "00-11:22:33:44:55", "00:11:22:33:44:55 ",
                             " 00:11:22:33:44:55", "001122334455", "00.11.22.33.44.55"}) {
        unsigned char mac[6] = {1, 2, 3, 4, 5, 6};
        EXPECT_EQ(ether_atoe(text, mac), 0) << text;
        EXPECT_EQ(std::memcmp(mac, same, 6), 0) << text;
    }
    unsigned char mac[6];
    EXPECT_EQ(ether_atoe(nullptr, mac), 0);
    EXPECT_EQ(ether_atoe("00:11:22:33:44:55", nullptr), 0);
}

TEST(IsValidIpAddr, AcceptsUnicastDottedQuadsOnly) {
    for (const char *good : {"1.2.3.4", "192.168.1.1", "10.0.0.0", "223.255.255.254",
                             "8.8.8.8", "126.255.255.255", "128.0.0.1"})
        EXPECT_NE(isValidIpAddr(good), 0) << good;
    for (const char *bad : {"", "0.0.0.0", "255.255.255.255", "127.0.0.1", "224.0.0.1",
                            "239.1.1.1", "240.0.0.1", "0.1.2.3", "1.2.3", "1.2.3.4.5",
                            "256.1.1.1", "1.2.3.4 ", " 1.2.3.4", "1..3.4", "01.2.3.4",
                            "1.2.3.-4", "1.2.3.4a", "1.2.3.1000", "a.b.c.d", "1.2.3.4/24"})
        EXPECT_EQ(isValidIpAddr(bad), 0) << bad;
    EXPECT_EQ(isValidIpAddr(nullptr), 0);
}

TEST(MacAddrToInterfaceId, Eui64FlipsTheLocalBit) {
    char out[VESK_IPV6_TEXT_SIZE];
    EXPECT_STREQ(mac_addr_to_interface_id("00:11:22:33:44:55", out), "0211:22ff:fe33:4455");
    EXPECT_STREQ(mac_addr_to_interface_id("02:AB:CD:EF:01:23", out), "00ab:cdff:feef:0123");
    EXPECT_STREQ(mac_addr_to_interface_id("not a mac", out), "");
    EXPECT_STREQ(mac_addr_to_interface_id(nullptr, out), "");
    EXPECT_EQ(mac_addr_to_interface_id("00:11:22:33:44:55", nullptr), nullptr);
}

TEST(CreateIpv6Addr, JoinsPrefixBitsAndIdentifier_OrGivesEmptyText) {
    const std::string long_text(5000, '1');
    struct Case { const char *addr; int len; const char *id, *want; };
    for (const Case &c : std::vector<Case>{
             {"2001:db8:1:2::", 64, "0211:22ff:fe33:4455", "2001:db8:1:2:211:22ff:fe33:4455"},
             {"2001:db8:1:2:aaaa:bbbb:cccc:dddd", 64, "1000", "2001:db8:1:2::1000"},  // bits replaced
             {"2001:db8:1:2::/64", 64, "2000", "2001:db8:1:2::2000"},
             {"2001:db8:abff::", 44, "::1", "2001:db8:abf0::1"},  // a prefix inside a byte
             {"2001:db8::1", 128, "0211:22ff:fe33:4455", "2001:db8::1"},
             {"2001:db8::1", 0, "1:2:3:4:5:6:7:8", "1:2:3:4:5:6:7:8"},
             {"not-an-address", 64, "1000", ""},
             {"2001:db8::", 64, "xyz", ""},
             {"2001:db8::", 64, "", ""},
             {"2001:db8::", 129, "1000", ""},
             {"2001:db8::", -1, "1000", ""},
             {"192.0.2.1", 64, "1000", ""},
             {nullptr, 64, "1000", ""},
             {long_text.c_str(), 64, long_text.c_str(), ""}}) {
        char out[VESK_IPV6_TEXT_SIZE];
        EXPECT_STREQ(create_ipv6_addr(c.addr, c.len, c.id, out), c.want) << (c.addr ? c.addr : "null");
    }
}

}  // namespace
