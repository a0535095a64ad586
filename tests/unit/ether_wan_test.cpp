// Start, probe and stop of the Ethernet WAN, run against the test root's stand-ins, its
// platform call trace and the real veth pair.
#include "failover/ether_wan.h"
#include "failover/lte_control.h"
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
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr const char *kRouteWithProbe = "198.51.100.7 10.0.0.1 255.255.255.255 UGH 0 0 0 veth0\n";
constexpr const char *kPingOk = "4 packets transmitted, 4 packets received, 0% packet loss\n";
constexpr const char *kUdhcpc =
    "[\"udhcpc\",\"-i\",\"veth0\",\"-p\",\"/var/run/udhcpc0.pid\",\"-s\",\"/tmp/udhcpc\"";
constexpr const char *kResolv = "nameserver 192.0.2.53\n";

void set(const char *key, const std::string &value) { veskNvramConfig_set(key, value.c_str()); }
std::string get(const char *key) { return veskNvramConfig_get(key); }
std::string gets(std::initializer_list<const char *> keys) {
    std::string out;
    for (const char *key : keys) out += (out.empty() ? "" : " ") + get(key);
    return out;
}

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

// "ADDRESS up|down" of `name` (ADDRESS empty when none).
std::string interface_state(const char *name) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, name, IFNAMSIZ - 1);
    char text[INET_ADDRSTRLEN] = "";
    if (ioctl(fd, SIOCGIFADDR, &ifr) == 0)
        inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in *>(&ifr.ifr_addr)->sin_addr, text, sizeof text);
    bool up = ioctl(fd, SIOCGIFFLAGS, &ifr) == 0 && (ifr.ifr_flags & IFF_UP);
    close(fd);
    return std::string(text) + (up ? " up" : " down");
}

std::string link_target(const char *path) {
    char target[64];
    ssize_t n = readlink(path, target, sizeof target);
    return n > 0 ? std::string(target, static_cast<size_t>(n)) : "";
}

mode_t mode_of(const char *path) {
    struct stat st {};
    return stat(path, &st) == 0 ? st.st_mode & 07777 : 0;
}

class EtherWan : public testing::Test {
protected:
    void SetUp() override {
        testroot::reset();
        reset_probe_address();
        set("wwan_failover_ping_ip", "198.51.100.7");
        select_probe_address();
        // LTE active in failover mode leaves the Ethernet WAN alone; PPTP/L2TP static return.
        for (auto [key, value] :
             {std::pair{"wwan_wan_type", "2"}, {"current_ifname", "rm_usb0"}, {"static_pptp_enable", "1"},
              {"static_l2tp_enable", "1"}, {"wan_ifname", "veth0"}, {"wan_hwaddr_sel", "0"},
              {"et1macaddr", "02:00:00:00:00:01"}, {"wan_static_ipaddr", "10.0.0.2"},
              {"wan_static_netmask", "255.255.255.0"}, {"wan_static_gateway", "10.0.0.1"},
              {"wan_static_dns", "10.0.0.53"}})
            set(key, value);
        testroot::clear_logs();
    }
    int probe(int (*fn)(), std::string *err) {
        int result = 0;
        stdout_of([&] { result = fn(); }, err);
        return result;
    }
};

TEST_F(EtherWan, Start_Static_FillsAddressKeysConfiguresInterfaceAndMarksStatus) {
    set("wan_proto", "static");
    set("wan_ipaddr_old", "10.0.0.99");
    set("sku_lang", "English");
    Ether_connection_start();
    EXPECT_EQ(gets({"wan_ipaddr", "wan_netmask", "wan_gateway", "wan_dns", "wan_ipaddr_old"}),
              "10.0.0.2 255.255.255.0 10.0.0.1 10.0.0.53 0.0.0.0");
    EXPECT_EQ(get("static_if_status"), "1");
    EXPECT_EQ(get("first_wan_status") + get("second_wan_status"), "00");
    EXPECT_EQ(interface_state("veth0"), "10.0.0.2 up");
    EXPECT_THAT(trace_of("agApi_natSetRegion"), ElementsAre(HasSubstr("[\"English\"]")));
    EXPECT_THAT(trace_of("agApi_natProbeHook"), IsEmpty());
}

TEST_F(EtherWan, Start_Dhcp_StartsUdhcpcWithHostNameOnlyWhenSet) {
    set("wan_proto", "dhcp");
    for (const char *key : {"wan_ipaddr", "wan_netmask", "wan_gateway", "wan_dns", "wan_ipaddr_old"})
        set(key, "192.0.2.1");
    EXPECT_EQ(stdout_of(Ether_connection_start), "Start DHCP client daemon\n");
    EXPECT_THAT(trace_of("_eval"), ElementsAre(std::string("{\"fn\":\"_eval\",\"args\":[") +
                                               kUdhcpc + "],null,0,\"ppid\"]}"));
    EXPECT_EQ(gets({"wan_ipaddr", "wan_netmask", "wan_gateway", "wan_dns", "wan_ipaddr_old"}),
              "0.0.0.0 0.0.0.0 0.0.0.0 0.0.0.0 0.0.0.0");
    EXPECT_EQ(interface_state("veth0"), " up");
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
        SCOPED_TRACE(std::string(dod) + run_test);
        testroot::clear_logs();
        set("bpa_dod", dod);
        set("run_test", run_test);
        Ether_connection_start();
        EXPECT_THAT(trace_of("_eval"), ElementsAre(HasSubstr(std::string(kUdhcpc) + "]")));
        EXPECT_THAT(trace_of("agApi_setDeviceListenPort"), ElementsAre(HasSubstr("[1,5050,1]")));
        const std::string daemon =
            "{\"fn\":\"_eval_daemon\",\"args\":[[\"bpa_monitor\"],\">/dev/console\",0,null,0]}";
        EXPECT_EQ(trace_of("_eval_daemon"), monitor ? std::vector{daemon} : std::vector<std::string>{});
    }
}

TEST_F(EtherWan, Start_PppoeFixedAddress_AndPptpL2tpChildExitsZero) {
    set("wan_proto", "pppoe");
    set("static_pppoe_enable", "1");
    set("pppoe_user_ip", "100.64.0.9");
    set("pppoe_localnetmask", "255.255.255.255");
    Ether_connection_start();
    EXPECT_EQ(interface_state("veth0"), "100.64.0.9 up");
    EXPECT_EQ(get("wan_ipaddr"), "0.0.0.0");

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
    EXPECT_EQ(stdout_of(Ether_connection_start), "Ether_connection_start: Unknown protocol (ipoe)!\n");
    EXPECT_EQ(get("wan_ipaddr"), "0.0.0.0");
    EXPECT_EQ(interface_state("veth0"), " up");

    int result = 0;
    const std::string line = stdout_of([&] { result = Ether_connection_probe(); });
    EXPECT_EQ(line, "Ether_connection_probe: Unknown protocol (ipoe)!\n");
    EXPECT_EQ(result, static_cast<int>(line.size()));
    EXPECT_THAT(testroot::shell_commands(), IsEmpty());
    EXPECT_THAT(testroot::sleeps_us(), IsEmpty());

    set("wan_proto", std::string(5000, 'p') + "\n;reboot");  // cut to 19 characters
    EXPECT_EQ(stdout_of(Ether_connection_start),
              "Ether_connection_start: Unknown protocol (" + std::string(19, 'p') + ")!\n");
}

TEST_F(EtherWan, Start_MacChoice_FollowsHwaddrSel_UnparsableIsNotProgrammed) {
    set("wan_proto", "static");
    for (auto [sel, mac2, programmed] :
         {std::tuple{"0", "02:aa:bb:cc:dd:ee", "02:00:00:00:00:01"},
          {"1", "02:aa:bb:cc:dd:ee", "02:aa:bb:cc:dd:ee"}, {"1", "not a mac address at all", ""}}) {
        SCOPED_TRACE(mac2);
        testroot::clear_logs();
        set("wan_hwaddr_sel", sel);
        set("wan_hwaddr2", mac2);
        std::string err;
        stdout_of(Ether_connection_start, &err);
        if (*programmed) {
            EXPECT_THAT(trace_of("set_eth_mac"),
                        ElementsAre(HasSubstr("[\"veth0\",\"" + std::string(programmed) + "\"]")));
            EXPECT_EQ(get("wan_hwaddr"), programmed);
        } else {
            EXPECT_THAT(err, HasSubstr("MAC address"));
            EXPECT_THAT(trace_of("set_eth_mac"), IsEmpty());
            EXPECT_EQ(get("wan_hwaddr"), "not a mac address a");
        }
    }
}

TEST_F(EtherWan, Start_MakesHookLinksAndJapanExtrasOnlyInJapan) {
    set("wan_proto", "static");
    set("sku_lang", "German");
    set("sku_name", "WW");
    Ether_connection_start();
    EXPECT_EQ(mode_of("/tmp/ppp"), 0777u);
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
        EXPECT_EQ(mode_of("/tmp/ppp/peers"), 0777u);
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
    EXPECT_EQ(get("pppoe_starting") + " " + get("wan_ipaddr_old"), "0 0.0.0.0");
    EXPECT_EQ(testroot::sleeps_us(), seconds({8}));
}

TEST_F(EtherWan, Probe_StaticReachable_PingsThroughHostRouteAndRemovesIt) {
    set("wan_proto", "static");
    testroot::script("route", kRouteWithProbe);
    testroot::script("ping", kPingOk);
    std::string err;
    EXPECT_EQ(probe(Ether_connection_probe, &err), 0);
    EXPECT_THAT(err, HasSubstr("\nEther_connection_probe() Get ping result -> 0 lost \n"));
    EXPECT_EQ(get("ether_wan_ready") + get("static_if_status"), "10");
    EXPECT_THAT(testroot::shell_commands(),
                ElementsAre("ip route add 198.51.100.7 via 10.0.0.1 src 10.0.0.2",
                            "route | grep 198.51.100.7", "ping -c 4 198.51.100.7",
                            "ip route delete 198.51.100.7 via 10.0.0.1"));
    EXPECT_EQ(testroot::sleeps_us(), seconds({2}));  // the address is there at the first look
    EXPECT_EQ(testroot::trace().at(0), "{\"fn\":\"agApi_natProbeHook\",\"args\":[\"eth0\"]}");
    EXPECT_THAT(trace_of("agApi_natSetRegion"), IsEmpty());
}

TEST_F(EtherWan, Probe_DhcpWithoutLease_WaitsTenSecondsThenProbesAnyway) {
    set("wan_proto", "dhcp");
    testroot::script("route", "Kernel IP routing table\n");
    std::string err;
    EXPECT_EQ(probe(Ether_connection_probe, &err), -1);
    EXPECT_THAT(err, HasSubstr("\nEther_connection_probe() Get ping result -> 100 lost \n"));
    EXPECT_EQ(get("ether_wan_ready"), "0");
    EXPECT_THAT(testroot::shell_commands(),  // route not listed: no ping
                ElementsAre("ip route add 198.51.100.7 via 0.0.0.0 src 0.0.0.0",
                            "route | grep 198.51.100.7", "ip route delete 198.51.100.7 via 0.0.0.0"));
    EXPECT_EQ(testroot::sleeps_us(), seconds({2, 2, 2, 2, 2}));
}

TEST_F(EtherWan, PppoeProbe_AddressAlreadyThere_LooksBeforeWaitingAndReportsLoss) {
    set("wan_proto", "pppoe");
    set("pppoe_ifname", "ppp0");
    set("pppoe_starting", "1");
    set("wan_ipaddr", "203.0.113.9");
    testroot::script("route", kRouteWithProbe);
    testroot::script("ping", "4 packets transmitted, 0 packets received, 100% packet loss\n");
    std::string err;
    EXPECT_EQ(probe(PPPoE_connection_probe, &err), -1);
    EXPECT_THAT(err, HasSubstr("\nPPPoE_connection_probe() Get ping result 2 -> 100 lost \n"));
    EXPECT_EQ(get("ether_wan_ready") + get("pppoe_starting"), "00");
    EXPECT_EQ(testroot::sleeps_us(), seconds({8}));
    EXPECT_THAT(testroot::shell_commands(),
                ElementsAre("route add 198.51.100.7 dev ppp0", "route | grep 198.51.100.7",
                            "ping -c 4 198.51.100.7", "route del 198.51.100.7"));

    testroot::script("ping", kPingOk);
    EXPECT_EQ(probe(PPPoE_connection_probe, &err), 0);
    EXPECT_THAT(err, HasSubstr("\nPPPoE_connection_probe() Get ping result -> 0 lost \n"));
    EXPECT_EQ(get("ether_wan_ready"), "1");
}

// The sleep shim lets no time pass, so a lease "arriving" is the n-th look returning an address.
class AddressWait : public testing::Test {
protected:
    void SetUp() override { testroot::reset(); }
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
    for (auto [sleep_first, with, looked, sleeps] :
         {std::tuple{true, std::vector<int>{2, 3, 4, 5, 6}, 2, seconds({2, 2})},
          {false, {2, 3, 4, 5, 6}, 2, seconds({2})},  // the PPPoE probe looks before pausing
          {true, {}, 5, seconds({2, 2, 2, 2, 2})}}) {  // never: goes on after five passes
        EXPECT_EQ(wait(sleep_first, with), 0);
        EXPECT_EQ(looks, looked);
        EXPECT_EQ(testroot::sleeps_us(), sleeps);
    }
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
    EXPECT_EQ(gets({"wan_static_ipaddr", "wan_static_netmask", "wan_static_gateway", "wan_static_dns"}),
              "192.168.5.20 255.255.255.0 192.168.5.1 192.168.5.1 8.8.8.8");

    testroot::clear_logs();  // broken values never reach the shell
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
    testroot::write_file("/tmp/resolv.conf", kResolv);
    testroot::script("ps", "  230 root      1200 S    udhcpc -i eth0 -p /var/run/udhcpc0.pid\n");
    stdout_of(stop_ether_wan);
    EXPECT_THAT(testroot::shell_commands(),
                ElementsAre("ps | grep 'udhcpc0' | grep -v '\\-r'", "kill -SIGUSR2 230",
                            "kill -9 230", "rm -f /var/run/udhcpc0.pid", "killall udhcpc"));
    EXPECT_EQ(testroot::sleeps_us(), seconds({1, 1}));
    EXPECT_NE(testroot::read_file("/tmp/resolv.conf"), kResolv);

    // No client: only the broad killall; the resolver file is left alone.
    testroot::clear_logs();
    testroot::write_file("/tmp/resolv.conf", kResolv);
    testroot::script("ps", "");
    stdout_of(stop_ether_wan);
    EXPECT_THAT(testroot::shell_commands(),
                ElementsAre("ps | grep 'udhcpc0' | grep -v '\\-r'", "killall udhcpc"));
    EXPECT_THAT(testroot::sleeps_us(), IsEmpty());
    EXPECT_EQ(testroot::read_file("/tmp/resolv.conf"), kResolv);
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
    testroot::write_file("/tmp/resolv.conf", kResolv);
    testroot::script("ps", "");
    stdout_of(stop_lte_dhcp_client);
    EXPECT_THAT(testroot::shell_commands(), ElementsAre("ps | grep 'udhcpc1' | grep -v '\\-r'"));
    EXPECT_NE(testroot::read_file("/tmp/resolv.conf"), kResolv);
}

}  // namespace
