// Start, probe and stop of the Ethernet WAN, run against the test root's stand-ins, its
// platform call trace and the real veth pair.
#include "failover/ether_wan.h"
#include "failover/probes.h"
#include "platform/nvram.h"
#include "tests/support/testroot.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr const char *kRouteWithProbe =
    "198.51.100.7    10.0.0.1        255.255.255.255 UGH   0      0        0 veth0\n";
constexpr const char *kPingOk = "4 packets transmitted, 4 packets received, 0% packet loss\n";
constexpr const char *kPingLost = "4 packets transmitted, 0 packets received, 100% packet loss\n";
constexpr const char *kUdhcpc =
    "[\"udhcpc\",\"-i\",\"veth0\",\"-p\",\"/var/run/udhcpc0.pid\",\"-s\",\"/tmp/udhcpc\"";

constexpr const char *kAddressKeys[] = {"wan_ipaddr", "wan_netmask", "wan_gateway", "wan_dns",
                                        "wan_ipaddr_old"};

void set(const char *key, const std::string &value) { veskNvramConfig_set(key, value.c_str()); }
std::string get(const char *key) { return veskNvramConfig_get(key); }

// The trace lines of platform function `fn`.
std::vector<std::string> trace_of(const std::string &fn) {
    std::vector<std::string> lines;
    for (const std::string &line : testroot::trace())
        if (line.rfind("{\"fn\":\"" + fn + "\"", 0) == 0) lines.push_back(line);
    return lines;
}

std::vector<unsigned long> seconds(std::vector<unsigned long> list) {
    for (unsigned long &s : list) s *= 1000000;
    return list;
}

// Standard output of `f`; its standard error goes to `err` when given.
template <typename F>
std::string stdout_of(F f, std::string *err = nullptr) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    f();
    std::string e = testing::internal::GetCapturedStderr();
    if (err) *err = e;
    return testing::internal::GetCapturedStdout();
}

// The IPv4 address of `name` ("" when none) and whether it is up.
std::pair<std::string, bool> interface_state(const char *name) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, name, IFNAMSIZ - 1);
    std::string address;
    if (ioctl(fd, SIOCGIFADDR, &ifr) == 0) {
        char text[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in *>(&ifr.ifr_addr)->sin_addr, text,
                  sizeof text);
        address = text;
    }
    bool up = ioctl(fd, SIOCGIFFLAGS, &ifr) == 0 && (ifr.ifr_flags & IFF_UP);
    close(fd);
    return {address, up};
}

std::string link_target(const char *path) {
    char target[64];
    ssize_t n = readlink(path, target, sizeof target);
    return n > 0 ? std::string(target, static_cast<size_t>(n)) : "";
}

class EtherWan : public testing::Test {
protected:
    void SetUp() override {
        if (!testroot::inside()) GTEST_SKIP() << "needs the test root";
        testroot::reset();
        reset_probe_address();
        set("wwan_failover_ping_ip", "198.51.100.7");
        select_probe_address();
        // LTE is the active WAN in failover mode, so the WAN-up sequence leaves the Ethernet
        // WAN alone.
        set("wwan_wan_type", "2");
        set("current_ifname", "rm_usb0");
        // PPTP and L2TP over DHCP would wait for a lease without end; static mode returns.
        set("static_pptp_enable", "1");
        set("static_l2tp_enable", "1");
        set("wan_ifname", "veth0");
        set("wan_hwaddr_sel", "0");
        set("et1macaddr", "02:00:00:00:00:01");
        set("wan_static_ipaddr", "10.0.0.2");
        set("wan_static_netmask", "255.255.255.0");
        set("wan_static_gateway", "10.0.0.1");
        set("wan_static_dns", "10.0.0.53");
        testroot::clear_logs();
    }
};

// ---- Start --------------------------------------------------------------------------------

TEST_F(EtherWan, Start_Static_FillsAddressKeysConfiguresInterfaceAndMarksStatus) {
    set("wan_proto", "static");
    set("wan_ipaddr_old", "10.0.0.99");
    set("sku_lang", "English");
    Ether_connection_start();
    EXPECT_EQ(get("wan_ipaddr") + " " + get("wan_netmask") + " " + get("wan_gateway") + " " +
                  get("wan_dns") + " " + get("wan_ipaddr_old"),
              "10.0.0.2 255.255.255.0 10.0.0.1 10.0.0.53 0.0.0.0");
    EXPECT_EQ(get("static_if_status"), "1");
    EXPECT_EQ(get("first_wan_status") + get("second_wan_status"), "00");
    EXPECT_EQ(interface_state("veth0"), std::make_pair(std::string("10.0.0.2"), true));
    EXPECT_THAT(trace_of("agApi_natSetRegion"), ElementsAre(HasSubstr("[\"English\"]")));
    EXPECT_THAT(trace_of("agApi_natProbeHook"), IsEmpty());
}

TEST_F(EtherWan, Start_Dhcp_StartsUdhcpcWithHostNameOnlyWhenSet) {
    set("wan_proto", "dhcp");
    for (const char *key : kAddressKeys)
        set(key, "192.0.2.1");
    EXPECT_EQ(stdout_of(Ether_connection_start), "Start DHCP client daemon\n");
    EXPECT_THAT(trace_of("_eval"), ElementsAre(std::string("{\"fn\":\"_eval\",\"args\":[") +
                                               kUdhcpc + "],null,0,\"ppid\"]}"));
    for (const char *key : kAddressKeys)
        EXPECT_EQ(get(key), "0.0.0.0") << key;
    EXPECT_TRUE(interface_state("veth0").second);
    EXPECT_TRUE(testroot::wait_for([] { return !testroot::calls_of("udhcpc").empty(); }));

    testroot::clear_logs();
    set("system_name", "home router");
    stdout_of(Ether_connection_start);
    EXPECT_THAT(trace_of("_eval"), ElementsAre(HasSubstr(std::string(kUdhcpc) +
                                                         ",\"-H\",\"home router\"],null,0,")));
}

TEST_F(EtherWan, Start_Bpa_StartsClientOpensListenPortAndMonitorByDialOnDemand) {
    set("wan_proto", "bpa");
    using Case = std::tuple<const char *, const char *, bool>;
    for (auto [dod, run_test, monitor] : {Case{"0", "0", true}, Case{"1", "0", true},
                                          Case{"2", "1", true}, Case{"2", "0", false},
                                          Case{"3", "1", false}}) {
        SCOPED_TRACE(std::string("bpa_dod=") + dod + " run_test=" + run_test);
        testroot::clear_logs();
        set("bpa_dod", dod);
        set("run_test", run_test);
        Ether_connection_start();
        EXPECT_THAT(trace_of("_eval"), ElementsAre(HasSubstr(std::string(kUdhcpc) + "]")));
        EXPECT_THAT(trace_of("agApi_setDeviceListenPort"), ElementsAre(HasSubstr("[1,5050,1]")));
        EXPECT_EQ(trace_of("_eval_daemon"),
                  monitor ? std::vector<std::string>{"{\"fn\":\"_eval_daemon\",\"args\":[[\"bpa_"
                                                     "monitor\"],\">/dev/console\",0,null,0]}"}
                          : std::vector<std::string>{});
    }
}

TEST_F(EtherWan, Start_PppoeWithFixedLocalAddress_AddressesInterface) {
    set("wan_proto", "pppoe");
    set("static_pppoe_enable", "1");
    set("pppoe_user_ip", "100.64.0.9");
    set("pppoe_localnetmask", "255.255.255.255");
    Ether_connection_start();
    EXPECT_EQ(interface_state("veth0"), std::make_pair(std::string("100.64.0.9"), true));
    EXPECT_EQ(get("wan_ipaddr"), "0.0.0.0");
}

TEST_F(EtherWan, Start_PptpAndL2tp_RunSessionInChildThatExitsZero) {
    for (const char *proto : {"pptp", "l2tp"}) {
        set("wan_proto", proto);
        Ether_connection_start();
        int status = -1;
        ASSERT_GT(waitpid(-1, &status, 0), 0) << proto;
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << proto << " " << status;
    }
}

TEST_F(EtherWan, UnknownProtocol_PrintedAfterResetAndRaise_ProbeReturnsItsLength) {
    set("wan_proto", "ipoe");
    set("wan_ipaddr", "192.0.2.1");
    EXPECT_EQ(stdout_of(Ether_connection_start),
              "Ether_connection_start: Unknown protocol (ipoe)!\n");
    EXPECT_EQ(get("wan_ipaddr"), "0.0.0.0");
    EXPECT_TRUE(interface_state("veth0").second);

    int result = 0;
    const std::string line = stdout_of([&] { result = Ether_connection_probe(); });
    EXPECT_EQ(line, "Ether_connection_probe: Unknown protocol (ipoe)!\n");
    EXPECT_EQ(result, static_cast<int>(line.size()));
    EXPECT_THAT(testroot::shell_commands(), IsEmpty());
    EXPECT_THAT(testroot::sleeps_us(), IsEmpty());

    // A value of any length is taken cut to 19 characters.
    set("wan_proto", std::string(5000, 'p') + "\n;reboot");
    EXPECT_EQ(stdout_of(Ether_connection_start),
              "Ether_connection_start: Unknown protocol (" + std::string(19, 'p') + ")!\n");
}

TEST_F(EtherWan, Start_MacChoice_FollowsHwaddrSel) {
    set("wan_proto", "static");
    set("wan_hwaddr2", "02:aa:bb:cc:dd:ee");
    Ether_connection_start();
    EXPECT_THAT(trace_of("set_eth_mac"),
                ElementsAre(HasSubstr("[\"veth0\",\"02:00:00:00:00:01\"]")));
    EXPECT_EQ(get("wan_hwaddr"), "02:00:00:00:00:01");

    testroot::clear_logs();
    set("wan_hwaddr_sel", "1");
    Ether_connection_start();
    EXPECT_THAT(trace_of("set_eth_mac"),
                ElementsAre(HasSubstr("[\"veth0\",\"02:aa:bb:cc:dd:ee\"]")));
    EXPECT_EQ(get("wan_hwaddr"), "02:aa:bb:cc:dd:ee");

    // An unparsable MAC is reported and not programmed; the start goes on.
    testroot::clear_logs();
    set("wan_hwaddr2", "not a mac address at all");
    std::string err;
    stdout_of(Ether_connection_start, &err);
    EXPECT_THAT(err, HasSubstr("MAC address"));
    EXPECT_THAT(trace_of("set_eth_mac"), IsEmpty());
    EXPECT_EQ(get("wan_hwaddr"), "not a mac address a");
    EXPECT_EQ(get("static_if_status"), "1");
}

TEST_F(EtherWan, Start_MakesHookLinksAndJapanExtrasOnlyInJapan) {
    set("wan_proto", "static");
    set("sku_lang", "German");
    set("sku_name", "WW");
    Ether_connection_start();
    struct stat st {};
    ASSERT_EQ(stat("/tmp/ppp", &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0777u);
    for (const char *link : {"/tmp/ppp/ip-up", "/tmp/ppp/ip-down", "/tmp/udhcpc"})
        EXPECT_EQ(link_target(link), "/sbin/vesk_service") << link;
    EXPECT_FALSE(testroot::exists("/tmp/ppp/peers"));
    EXPECT_FALSE(testroot::exists("/tmp/pppoecd2"));
    EXPECT_THAT(trace_of("agApi_natSetRegion"), ElementsAre(HasSubstr("[\"German\"]")));

    for (auto [sku, region] : {std::pair{"JP", ""}, std::pair{"WW", "Japanese"}}) {
        SCOPED_TRACE(sku);
        testroot::reset();
        set("wan_proto", "pptp");
        set("static_pptp_enable", "1");
        set("sku_lang", "German");
        set("sku_name", sku);
        set("gui_region", region);
        Ether_connection_start();
        waitpid(-1, nullptr, 0);
        ASSERT_EQ(stat("/tmp/ppp/peers", &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0777u);
        EXPECT_EQ(link_target("/tmp/pppoecd2"), "/usr/sbin/pppoecd");
        EXPECT_THAT(trace_of("agApi_natSetRegion"), ElementsAre(HasSubstr("[\"Japanese\"]")));
    }
}

TEST_F(EtherWan, Start_Ipv6Settings_CaptureAndInterfaceDown) {
    set("wan_proto", "static");
    set("hidden_page_debug_ipv6", "1");
    for (const char *proto : {"auto", "dhcp"}) {
        testroot::clear_logs();
        set("ipv6_proto", proto);
        Ether_connection_start();
        EXPECT_THAT(testroot::shell_commands(),
                    ElementsAre("tcpdump -i eth0 'ether[12:2] != 0x8100' and "
                                "'ether[14:2] != 0x0001' -w /tmp/IPv6_autodetect.cap -C 5 -W 3 &"));
        EXPECT_EQ(testroot::sleeps_us(), seconds({1}));
        EXPECT_THAT(trace_of("_eval_daemon"), IsEmpty());
    }

    testroot::clear_logs();
    set("ipv6_proto", "6to4");
    set("ipv6ready", "1");
    Ether_connection_start();
    EXPECT_THAT(testroot::shell_commands(), IsEmpty());
    EXPECT_THAT(trace_of("_eval_daemon"),
                ElementsAre("{\"fn\":\"_eval_daemon\",\"args\":[[\"ifconfig\",\"veth0\",\"down\"],"
                            "\">/dev/console\",0,null,0]}"));
}

TEST_F(EtherWan, StartPppoeWan_HoldsStartingFlagForEightSeconds) {
    set("wan_ipaddr_old", "192.0.2.1");
    start_pppoe_wan();
    EXPECT_EQ(get("pppoe_starting"), "0");
    EXPECT_EQ(get("wan_ipaddr_old"), "0.0.0.0");
    EXPECT_EQ(testroot::sleeps_us(), seconds({8}));
}

// ---- Probe --------------------------------------------------------------------------------

TEST_F(EtherWan, Probe_StaticReachable_PingsThroughHostRouteAndRemovesIt) {
    set("wan_proto", "static");
    testroot::script("route", kRouteWithProbe);
    testroot::script("ping", kPingOk);
    int result = -1;
    std::string err;
    stdout_of([&] { result = Ether_connection_probe(); }, &err);
    EXPECT_EQ(result, 0);
    EXPECT_THAT(err, HasSubstr("\nEther_connection_probe() Get ping result -> 0 lost \n"));
    EXPECT_EQ(get("ether_wan_ready"), "1");
    EXPECT_EQ(get("static_if_status"), "0");
    EXPECT_THAT(testroot::shell_commands(),
                ElementsAre("ip route add 198.51.100.7 via 10.0.0.1 src 10.0.0.2",
                            "route | grep 198.51.100.7", "ping -c 4 198.51.100.7",
                            "ip route delete 198.51.100.7 via 10.0.0.1"));
    // The address is there at the first look, which comes after one pause.
    EXPECT_EQ(testroot::sleeps_us(), seconds({2}));
    EXPECT_EQ(testroot::trace().at(0), "{\"fn\":\"agApi_natProbeHook\",\"args\":[\"eth0\"]}");
    EXPECT_THAT(trace_of("agApi_natSetRegion"), IsEmpty());
}

TEST_F(EtherWan, Probe_DhcpWithoutLease_WaitsTenSecondsThenProbesAnyway) {
    set("wan_proto", "dhcp");
    testroot::script("route", "Kernel IP routing table\n");
    int result = 0;
    std::string err;
    stdout_of([&] { result = Ether_connection_probe(); }, &err);
    EXPECT_EQ(result, -1);
    EXPECT_THAT(err, HasSubstr("\nEther_connection_probe() Get ping result -> 100 lost \n"));
    EXPECT_EQ(get("ether_wan_ready"), "0");
    // The probing route is not listed: no ping.
    EXPECT_THAT(testroot::shell_commands(),
                ElementsAre("ip route add 198.51.100.7 via 0.0.0.0 src 0.0.0.0",
                            "route | grep 198.51.100.7",
                            "ip route delete 198.51.100.7 via 0.0.0.0"));
    EXPECT_EQ(testroot::sleeps_us(), seconds({2, 2, 2, 2, 2}));
}

TEST_F(EtherWan, PppoeProbe_AddressAlreadyThere_LooksBeforeWaitingAndReportsLoss) {
    set("wan_proto", "pppoe");
    set("pppoe_ifname", "ppp0");
    set("pppoe_starting", "1");
    set("wan_ipaddr", "203.0.113.9");
    testroot::script("route", kRouteWithProbe);
    testroot::script("ping", kPingLost);
    int result = 0;
    std::string err;
    stdout_of([&] { result = PPPoE_connection_probe(); }, &err);
    EXPECT_EQ(result, -1);
    EXPECT_THAT(err, HasSubstr("\nPPPoE_connection_probe() Get ping result 2 -> 100 lost \n"));
    EXPECT_EQ(get("ether_wan_ready"), "0");
    EXPECT_EQ(get("pppoe_starting"), "0");
    EXPECT_EQ(testroot::sleeps_us(), seconds({8}));
    EXPECT_THAT(testroot::shell_commands(),
                ElementsAre("route add 198.51.100.7 dev ppp0", "route | grep 198.51.100.7",
                            "ping -c 4 198.51.100.7", "route del 198.51.100.7"));

    testroot::script("ping", kPingOk);
    stdout_of([&] { result = PPPoE_connection_probe(); }, &err);
    EXPECT_EQ(result, 0);
    EXPECT_THAT(err, HasSubstr("\nPPPoE_connection_probe() Get ping result -> 0 lost \n"));
    EXPECT_EQ(get("ether_wan_ready"), "1");
}

// The address wait, driven through its reader: the sleep shim lets no time pass, so a lease
// "arriving" is the n-th look returning an address.
class AddressWait : public testing::Test {
protected:
    void SetUp() override {
        if (!testroot::inside()) GTEST_SKIP() << "needs the test root";
        testroot::reset();
    }
    // Looks return "0.0.0.0" except the listed ones (counted from 1).
    int wait(bool sleep_first, std::vector<int> with_address) {
        looks = 0;
        testroot::clear_logs();
        return wait_for_wan_address(sleep_first, [&] {
            ++looks;
            for (int n : with_address)
                if (n == looks) return std::string("203.0.113.9");
            return std::string("0.0.0.0");
        });
    }
    int looks = 0;
};

TEST_F(AddressWait, LeaseInSecondPass_EndsTheWait) {
    EXPECT_EQ(wait(true, {2, 3, 4, 5, 6}), 0);
    EXPECT_EQ(looks, 2);
    EXPECT_EQ(testroot::sleeps_us(), seconds({2, 2}));

    EXPECT_EQ(wait(false, {2, 3, 4, 5, 6}), 0);  // the PPPoE probe looks before pausing
    EXPECT_EQ(looks, 2);
    EXPECT_EQ(testroot::sleeps_us(), seconds({2}));

    EXPECT_EQ(wait(true, {}), 0);  // never: the probe goes on after five passes
    EXPECT_EQ(looks, 5);
    EXPECT_EQ(testroot::sleeps_us(), seconds({2, 2, 2, 2, 2}));
}

TEST_F(AddressWait, FifthPassAddressGoneAtSecondLook_FailsTheStart) {
    for (bool sleep_first : {true, false}) {
        SCOPED_TRACE(sleep_first);
        int result = 0;
        EXPECT_EQ(stdout_of([&] { result = wait(sleep_first, {5}); }), "WAN start failed! \n");
        EXPECT_EQ(result, -1);
        EXPECT_EQ(looks, 6);
        EXPECT_EQ(wait(sleep_first, {5, 6}), 0);
        EXPECT_EQ(wait(sleep_first, {4}), 0);
    }
}

// ---- Stop ---------------------------------------------------------------------------------

TEST_F(EtherWan, Stop_Static_DeletesDefaultHostAndNetworkRoutesAndSavesSettings) {
    set("wan_proto", "static");
    set("wan_ifname", "eth0");
    set("wan_ipaddr", "192.168.5.20");
    set("wan_netmask", "255.255.255.0");
    set("wan_gateway", "192.168.5.1");
    set("wan_dns", "192.168.5.1 8.8.8.8");
    EXPECT_EQ(stdout_of(stop_ether_wan),
              "1. cmd == route del -host 192.168.5.1 gw 0.0.0.0 eth0\n"
              "2. cmd == route del -net 192.168.5.0 netmask 255.255.255.0 gw 0.0.0.0 eth0\n");
    EXPECT_THAT(testroot::shell_commands(),
                ElementsAre("route delete default", "route del -host 192.168.5.1 gw 0.0.0.0 eth0",
                            "route del -net 192.168.5.0 netmask 255.255.255.0 gw 0.0.0.0 eth0"));
    EXPECT_EQ(get("wan_static_ipaddr") + " " + get("wan_static_netmask") + " " +
                  get("wan_static_gateway") + " " + get("wan_static_dns"),
              "192.168.5.20 255.255.255.0 192.168.5.1 192.168.5.1 8.8.8.8");

    // Broken values never reach the shell.
    testroot::clear_logs();
    set("wan_gateway", "192.168.5.1;reboot");
    set("wan_ipaddr", std::string(3000, '1'));
    std::string err;
    stdout_of(stop_ether_wan, &err);
    EXPECT_THAT(err, HasSubstr("refused"));
    EXPECT_THAT(err, HasSubstr("no network route"));
    EXPECT_THAT(testroot::shell_commands(), ElementsAre("route delete default"));
}

TEST_F(EtherWan, Stop_Dhcp_KillsClientDropsDnsAndKillsAllClients) {
    set("wan_proto", "dhcp");
    set("wan_ifname", "eth0");
    testroot::write_file("/tmp/resolv.conf", "nameserver 192.0.2.53\n");
    testroot::script("ps", "  230 root      1200 S    udhcpc -i eth0 -p /var/run/udhcpc0.pid\n");
    stdout_of(stop_ether_wan);
    EXPECT_THAT(testroot::shell_commands(),
                ElementsAre("ps | grep 'udhcpc0' | grep -v '\\-r'", "kill -SIGUSR2 230",
                            "kill -9 230", "rm -f /var/run/udhcpc0.pid", "killall udhcpc"));
    EXPECT_EQ(testroot::sleeps_us(), seconds({1, 1}));
    EXPECT_NE(testroot::read_file("/tmp/resolv.conf"), "nameserver 192.0.2.53\n")
        << "the resolver file is rewritten";

    // No client: only the broad killall; the resolver file is left alone.
    testroot::clear_logs();
    testroot::write_file("/tmp/resolv.conf", "nameserver 192.0.2.53\n");
    testroot::script("ps", "");
    stdout_of(stop_ether_wan);
    EXPECT_THAT(testroot::shell_commands(),
                ElementsAre("ps | grep 'udhcpc0' | grep -v '\\-r'", "killall udhcpc"));
    EXPECT_THAT(testroot::sleeps_us(), IsEmpty());
    EXPECT_EQ(testroot::read_file("/tmp/resolv.conf"), "nameserver 192.0.2.53\n");
}

TEST_F(EtherWan, Stop_PppoeEndsPppd_OtherProtocolsDoNothing) {
    set("wan_proto", "pppoe");
    testroot::write_file("/tmp/ppp/options", "noauth\n");
    testroot::script("ps", "  412 root      1500 S    pppd file /tmp/ppp/options\n");
    stop_ether_wan();
    EXPECT_THAT(testroot::shell_commands(),
                ElementsAre("ps | grep 'pppd' | grep -v '\\-r'", "kill -SIGTERM 412"));
    EXPECT_FALSE(testroot::exists("/tmp/ppp/options"));
    EXPECT_EQ(testroot::sleeps_us(), seconds({2}));

    testroot::clear_logs();
    set("wan_proto", "pptp");
    stop_ether_wan();
    EXPECT_THAT(testroot::events(), IsEmpty());
    EXPECT_THAT(testroot::sleeps_us(), IsEmpty());
}

TEST_F(EtherWan, StopLteDhcpClient_KillsUdhcpc1AndDropsItsDnsInAnyCase) {
    set("wan1_ifname", "rm_usb0");
    testroot::script("ps", "  415 root      1200 S    udhcpc -i rm_usb0 -p /var/run/udhcpc1.pid\n");
    stdout_of(stop_lte_dhcp_client);
    EXPECT_THAT(testroot::shell_commands(),
                ElementsAre("ps | grep 'udhcpc1' | grep -v '\\-r'", "kill -SIGUSR2 415",
                            "kill -9 415", "rm -f /var/run/udhcpc1.pid"));
    EXPECT_EQ(testroot::sleeps_us(), seconds({1, 1}));

    testroot::clear_logs();
    testroot::write_file("/tmp/resolv.conf", "nameserver 192.0.2.53\n");
    testroot::script("ps", "");
    stdout_of(stop_lte_dhcp_client);
    EXPECT_THAT(testroot::shell_commands(), ElementsAre("ps | grep 'udhcpc1' | grep -v '\\-r'"));
    EXPECT_NE(testroot::read_file("/tmp/resolv.conf"), "nameserver 192.0.2.53\n");
}

}  // namespace
