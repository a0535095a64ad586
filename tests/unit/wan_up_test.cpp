// The WAN-up sequence and its NAT, DMZ and traffic-control companions, read back from the
// platform call trace and the shell log of the test root.
#include "services/wan_up.h"
#include "platform/nvram.h"
#include "tests/support/testroot.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

using Keys = std::vector<std::pair<const char *, const char *>>;

void set(const Keys &keys) {
    for (const auto &[key, value] : keys) veskNvramConfig_set(key, value);
}

std::string get(const char *key) { return veskNvramConfig_get(key); }

// One trace line as the host platform writes it; `args` is the JSON inside the brackets.
std::string call(const std::string &fn, const std::string &args = "") {
    return "{\"fn\":\"" + fn + "\",\"args\":[" + args + "]}";
}

// Trace lines whose function name starts with one of `prefixes`; the programs that the
// resolver, time-sync and tunnel routines start on their own (_eval...) are never among them.
std::vector<std::string> trace_of(std::vector<std::string> prefixes = {"agApi", "veskNat", "add_",
                                                                       "zerin", "openvpn"}) {
    std::vector<std::string> lines;
    for (const std::string &line : testroot::trace())
        for (const std::string &p : prefixes)
            if (line.rfind("{\"fn\":\"" + p, 0) == 0) lines.push_back(line);
    return lines;
}

// Route commands and the signals to check_fw, arp_check and httpd.
std::vector<std::string> wan_commands() {
    std::vector<std::string> lines;
    for (const std::string &c : testroot::shell_commands())
        if (c.rfind("route ", 0) == 0 || c.rfind("killall -SIG", 0) == 0) lines.push_back(c);
    return lines;
}

template <typename F>
std::string output_of(F f, bool errors = false) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    f();
    std::string err = testing::internal::GetCapturedStderr();
    std::string out = testing::internal::GetCapturedStdout();
    return errors ? err : out;
}

std::string log_line(const std::string &address) {
    std::string text = "[Internet connected] IP address: " + address + ",";
    return call("zerinWriteLog", "\"" + text + "\"," + std::to_string(text.size()) + ",524291");
}

// The NAT restart of start_wan_nat after the unhook of everything, for WAN `hooked`.
std::vector<std::string> nat_restart(const std::string &hooked) {
    return {call("agApi_natUnhook", "null"), call("agApi_natLanHook", "\"br0\""),
            call("agApi_natHook", "\"" + hooked + "\""), call("veskNat_DoConnRecovery"),
            call("agApi_fwDMZRuleSet", "0,0,\"192.168.1.2\""),
            call("agApi_natSetInboundFilter", "1"), call("agApi_natEnable")};
}

std::vector<std::string> joined(std::vector<std::vector<std::string>> parts) {
    std::vector<std::string> all;
    for (auto &p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

const std::string kDmzOff = call("agApi_fwDMZRuleSet", "0,0,\"192.168.1.2\"");

volatile sig_atomic_t ddns_signals = 0;

class WanUp : public testing::Test {
protected:
    void SetUp() override {
        if (!testroot::inside()) GTEST_SKIP() << "needs the test root";
        testroot::reset();
        set({{"wwan_wan_type", "2"}, {"current_ifname", "eth0"}, {"wan_proto", "dhcp"},
             {"wan_ifname", "eth0"}, {"wan_gateway", "10.0.0.1"}, {"wan_ipaddr", "10.0.0.2"},
             {"wan_ipaddr_old", "0.0.0.0"}, {"wan1_ifname", "rm_usb0"},
             {"wan1_gateway", "100.64.0.1"}, {"wan1_ipaddr", "100.64.0.2"},
             {"lan_ifname", "br0"}, {"bs_enable", "0"}, {"sku_name", "US"},
             {"wla_wds_enable", "0"}, {"nat_inbound_filtering", "1"}});
    }
};

// ---- wan_up -------------------------------------------------------------------------------

TEST_F(WanUp, EthernetDhcp_RoutesHooksNatLogsAndSignalsDdns) {
    signal(SIGUSR2, [](int) { ddns_signals = ddns_signals + 1; });
    testroot::write_file("/var/run/ddnsd.pid", std::to_string(getpid()) + "\n");

    std::string out = output_of([] { wan_up("eth0"); });

    EXPECT_THAT(trace_of(), ElementsAreArray(joined(
                                {{call("agApi_feature_set", "11"), call("add_routes", "\"eth0\""),
                                  call("add_routes", "\"br0\"")},
                                 nat_restart("eth0"),
                                 {log_line("10.0.0.2"), call("openvpn_set_lan_ip")}})));
    EXPECT_THAT(wan_commands(), ElementsAre("route add -host 10.0.0.1 dev eth0",
                                            "route add default gw 10.0.0.1",
                                            "killall -SIGUSR2 check_fw"));
    // The NAT restart stored the address first, so the change is never seen here.
    EXPECT_THAT(out, HasSubstr("wan_up: IP addr NOT changed! (10.0.0.2->10.0.0.2) do arp_check!\n"));
    EXPECT_EQ(ddns_signals, 1);
}

TEST_F(WanUp, Lte_HooksLteWanEvenWithSameEthernetAddressAndWritesToken) {
    ASSERT_EQ(mkfifo("/tmp/f_fifo", 0664), 0);
    int reader = open("/tmp/f_fifo", O_RDONLY | O_NONBLOCK);  // keeps what is written
    ASSERT_GE(reader, 0);
    // PPTP on the Ethernet side keeps neither the fast path nor the LTE hook from LTE.
    set({{"current_ifname", "rm_usb0"}, {"wan_proto", "pptp"}, {"wan_ipaddr_old", "10.0.0.2"}});

    wan_up("rm_usb0");

    EXPECT_THAT(trace_of(), ElementsAreArray(joined(
                                {{call("agApi_feature_set", "11"),
                                  call("add_routes", "\"rm_usb0\""), call("add_routes", "\"br0\"")},
                                 nat_restart("rm_usb0"),
                                 {log_line("100.64.0.2"), call("openvpn_set_lan_ip")}})));
    EXPECT_THAT(wan_commands(), ElementsAre("route add -host 100.64.0.1 dev rm_usb0",
                                            "route add default gw 100.64.0.1",
                                            "killall -SIGUSR2 check_fw"));
    char token[8] = {};
    EXPECT_EQ(read(reader, token, sizeof token), 2);
    EXPECT_STREQ(token, "5:");
    close(reader);
}

TEST_F(WanUp, EthernetWhileLteActive_DoesNothingAtAll) {
    set({{"current_ifname", "rm_usb0"}});
    wan_up("eth0");
    EXPECT_THAT(testroot::trace(), IsEmpty());
    EXPECT_THAT(testroot::events(), IsEmpty());
}

TEST_F(WanUp, EthernetRepeatedWithSameAddress_KeepsNat) {
    wan_up("eth0");
    testroot::clear_logs();
    wan_up("eth0");
    EXPECT_THAT(trace_of({"agApi", "veskNat"}), ElementsAre(call("agApi_feature_set", "11")));
}

TEST_F(WanUp, JapanPppoe_UsesSessionNatAndLeavesHttpdAlone_JapanDhcpSignalsIt) {
    set({{"sku_name", "JP"}, {"wan_proto", "pppoe"}, {"first_wan_status", "0"}});
    wan_up("ppp0");
    EXPECT_THAT(trace_of(),
                ElementsAre(call("agApi_feature_set", "11"), call("add_routes", "\"ppp0\""),
                            call("add_routes", "\"br0\""), call("agApi_natUnhook", "\"ppp0\""),
                            call("agApi_natHook", "\"ppp0\""),
                            call("agApi_natWanIfCnt", "\"count\""),
                            call("veskNat_DoConnRecovery"), kDmzOff,
                            call("agApi_natSetInboundFilter", "1"), call("agApi_natEnable"),
                            log_line("10.0.0.2"), call("openvpn_set_lan_ip")));
    EXPECT_THAT(wan_commands(), ElementsAre("route delete default", "route add default dev ppp0",
                                            "killall -SIGUSR2 check_fw"));
    EXPECT_EQ(get("first_wan_status"), "1");

    SetUp();
    set({{"sku_name", "WW"}, {"gui_region", "Japanese"}});
    wan_up("eth0");
    EXPECT_THAT(wan_commands(), testing::Contains("killall -SIGWINCH httpd"));
    EXPECT_THAT(trace_of({"agApi_natLanHook"}), IsEmpty());
}

TEST_F(WanUp, Wds_NatLeftAloneOnlyWhenBothRadiosBridgeOutsideMode2) {
    struct Case {
        Keys keys;
        size_t restarts;
    };
    const Case cases[] = {
        {{{"wla_wds_enable", "1"}, {"wla_wds_mode", "1"}, {"wlg_wds_enable", "1"}}, 0},
        {{{"wla_wds_enable", "1"}, {"wla_wds_mode", "2"}, {"wlg_wds_enable", "1"}}, 1},
        {{{"wla_wds_enable", "1"}, {"wlg_wds_enable", "1"}, {"wlg_wds_mode", "2"}}, 1},
        {{{"wla_wds_enable", "1"}, {"wlg_wds_enable", "0"}}, 1},
    };
    for (const Case &c : cases) {
        SetUp();
        set(c.keys);
        wan_up("eth0");
        EXPECT_EQ(trace_of({"agApi_natEnable"}).size(), c.restarts) << c.keys[1].first;
    }
}

TEST_F(WanUp, FeatureMask_FollowsProtocolAndQosSwitches) {
    struct Case {
        const char *ifname;
        Keys keys;
        std::vector<std::string> calls;
    };
    auto mask = [](const char *m) { return std::vector{call("agApi_feature_set", m)}; };
    const Case cases[] = {
        {"eth0", {{"wan_proto", "static"}}, mask("11")},
        {"ppp0", {{"wan_proto", "pppoe"}}, mask("11")},
        {"ppp0", {{"wan_proto", "pptp"}}, mask("10")},
        {"ppp0", {{"wan_proto", "l2tp"}}, mask("10")},
        {"ppp0", {{"wan_proto", "pppoe"}, {"enable_vlan", "enable"}}, mask("10")},
        {"ppp0", {{"wan_proto", "pppoe"}, {"iptv_enabled", "1"}}, mask("10")},
        {"eth0", {{"enable_vlan", "enable"}, {"iptv_enabled", "1"}}, mask("11")},
        {"eth0", {{"bs_enable", ""}}, mask("10")},
        {"eth0", {{"vesknat_ctf_disable", "1"}}, mask("10")},
        {"eth0", {{"qos_down_streaming_enable", "1"}}, mask("10")},
        {"eth0", {{"access_control_mode", "1"}}, mask("10")},
        {"eth0", {{"vesknat_nat4lanonly_disable", "1"}}, mask("9")},
        {"eth0",
         {{"broadstream_iqos_enable", "1"}},
         {call("iqos_service", "\"restart_iqos\""), call("agApi_feature_set", "3")}},
    };
    for (const Case &c : cases) {
        SetUp();
        set(c.keys);
        std::string out = output_of([&c] { wan_up(c.ifname); });
        EXPECT_THAT(trace_of({"iqos", "agApi_feature"}), ElementsAreArray(c.calls))
            << c.ifname << " " << c.keys.back().first;
        EXPECT_EQ(out.find("wan_up(3209) restart iqos for mobile WAN\n") != std::string::npos,
                  c.calls.size() == 2);
    }
}

TEST_F(WanUp, ShellMetacharacters_AreRefusedNotRun) {
    const std::pair<const char *, Keys> cases[] = {
        {"eth0", {{"wan_gateway", "10.0.0.1; reboot"}}},
        {"eth0", {{"wan_gateway", "$(reboot)"}}},
        {"eth0", {{"wan_ifname", "eth0`reboot`"}}},
        {"ppp0;reboot", {{"wan_proto", "pppoe"}}},
    };
    for (const auto &[ifname, keys] : cases) {
        SetUp();
        set(keys);
        std::string err = output_of([ifname] { wan_up(ifname); }, true);
        EXPECT_THAT(err, HasSubstr("wan_up: refused value")) << keys[0].second;
        for (const std::string &c : testroot::shell_commands())
            EXPECT_THAT(c, Not(HasSubstr("reboot")));
        EXPECT_THAT(wan_commands(), testing::Contains("killall -SIGUSR2 check_fw"));
    }
}

// ---- start_wan_nat, mp_start_nat, dmz_init ------------------------------------------------

TEST_F(WanUp, StartWanNat_HooksPerModeAndSessionStatus) {
    auto hook = [](const char *n) { return call("agApi_natHook", std::string("\"") + n + "\""); };
    const std::string carrier = call("agApi_natPptpWanHook", "\"eth0\"");
    struct Case {
        Keys keys;
        int is_ether;
        std::vector<std::string> hooks;
    };
    const Case cases[] = {
        {{{"wwan_wan_type", "0"}}, 1, {hook("rm_usb0")}},
        {{{"wwan_wan_type", "1"}}, 0, {hook("eth0")}},
        {{{"wan_proto", "pptp"}, {"first_wan_status", "1"}, {"second_wan_status", "1"}},
         1, {hook("ppp0"), carrier}},
        {{{"wan_proto", "l2tp"}, {"first_wan_status", "0"}, {"second_wan_status", "1"}},
         1, {hook("eth0"), carrier}},
        {{{"wan_proto", "pppoe"}, {"first_wan_status", "0"}, {"second_wan_status", "1"}},
         1, {hook("eth0")}},
        {{{"wan_proto", "pppoe"}, {"first_wan_status", "1"}, {"second_wan_status", "1"}},
         1, {hook("ppp0"), carrier}},
        {{{"wan_proto", "pptp"}}, 1, {}},
    };
    for (const Case &c : cases) {
        SetUp();
        set(c.keys);
        EXPECT_EQ(start_wan_nat(c.is_ether), 0);
        EXPECT_THAT(trace_of({"agApi_natHook", "agApi_natPptp"}), ElementsAreArray(c.hooks))
            << c.keys.back().first << "=" << c.keys.back().second;
    }
}

TEST_F(WanUp, MpStartNat_RefusesNonPppNames_RecoversOnlyForFirstSession) {
    for (const char *name : {"eth0", "pp", "", static_cast<const char *>(nullptr)}) {
        std::string err = output_of([name] { EXPECT_EQ(mp_start_nat(name), -1); }, true);
        EXPECT_EQ(err, std::string("mp_start_nat: ") + (name ? name : "(null)") +
                           " not a ppp interface.\n");
    }
    EXPECT_THAT(testroot::trace(), IsEmpty());

    EXPECT_EQ(mp_start_nat("ppp0"), 0);
    EXPECT_EQ(mp_start_nat("ppp1"), 0);
    EXPECT_THAT(trace_of({"veskNat", "agApi_fwDMZ"}),
                ElementsAre(call("veskNat_DoConnRecovery"), kDmzOff));
    EXPECT_EQ(trace_of({"agApi_natEnable"}).size(), 2u);
}

// The host NAT library never fails a DMZ set, so the "Error setting DMZ." branch cannot be
// reached here; an address that does not parse leaves the same way (rule disabled).
TEST_F(WanUp, DmzInit_SetsHostOrDisablesRule) {
    const std::pair<Keys, std::string> cases[] = {
        {{{"dmz_ipaddr", "192.168.1.50"}}, "0,1,\"192.168.1.50\""},
        {{{"fw_dmz_ip4", "254"}, {"lan_ipaddr", "10.0.0.1"}}, "0,1,\"10.0.0.254\""},
        {{{"fw_dmz_ip4", "7"}, {"lan_ipaddr", "172.16.5.1"}}, "0,1,\"172.16.5.7\""},
        {{{"fw_dmz_ip4", "0"}, {"lan_ipaddr", "10.0.0.1"}}, "0,0,\"192.168.1.2\""},
        {{{"fw_dmz_ip4", "255"}, {"lan_ipaddr", "10.0.0.1"}}, "0,0,\"192.168.1.2\""},
        {{{"fw_dmz_ip4", "-3"}, {"lan_ipaddr", "10.0.0.1"}}, "0,0,\"192.168.1.2\""},
        {{{"fw_dmz_ip4", "99999999999999999999"}, {"lan_ipaddr", "10.0.0.1"}},
         "0,0,\"192.168.1.2\""},
        {{{"fw_dmz_ip4", "20"}, {"lan_ipaddr", "no address"}}, "0,0,\"192.168.1.2\""},
        {{{"dmz_ipaddr", "10.0.0.300"}}, "0,0,\"192.168.1.2\""},
        {{{"fw_dmz_enab", "0"}, {"dmz_ipaddr", "192.168.1.50"}}, "0,0,\"192.168.1.2\""},
    };
    for (const auto &[keys, args] : cases) {
        testroot::reset();
        set({{"fw_dmz_enab", "1"}});
        set(keys);
        EXPECT_EQ(dmz_init(), 0);
        EXPECT_THAT(testroot::trace(), ElementsAre(call("agApi_fwDMZRuleSet", args)))
            << keys.back().second;
    }
}

// ---- start_tc_qos -------------------------------------------------------------------------

TEST_F(WanUp, TcQos_PppRunsEveryTimeDhcpOnlyFirst) {
    const std::string tc =
        call("_eval_daemon", "[\"/bin/sh\",\"/tmp/tc_cmd\"],\">/dev/console\",0,null,0");
    testroot::write_file("/tmp/tc_cmd", "true\n");
    EXPECT_EQ(start_tc_qos(), 0);  // QoS off
    set({{"qos_bw_enable", "1"}, {"qos_enable", "1"}});
    const std::pair<const char *, bool> runs[] = {
        {"pppoe", true}, {"pppoe", true}, {"dhcp", true}, {"dhcp", false}, {"pptp", true}};
    for (const auto &[proto, runs_script] : runs) {
        set({{"wan_proto", proto}});
        EXPECT_EQ(output_of([] { EXPECT_EQ(start_tc_qos(), 0); }),
                  runs_script ? "TC is active.\n" : "")
            << proto;
    }
    EXPECT_EQ(testroot::trace(), std::vector<std::string>(4, tc));
    EXPECT_THAT(testroot::sleeps_us(), IsEmpty());
}

TEST_F(WanUp, TcQos_ScriptMissing_WaitsElevenSecondsThenGivesUpForGood) {
    set({{"qos_bw_enable", "1"}, {"qos_enable", "1"}, {"wan_proto", "static"}});
    EXPECT_EQ(output_of([] { start_tc_qos(); }), "/tmp/tc_cmd is NOT exist!! TC is NOT active!!\n");
    EXPECT_EQ(testroot::sleeps_us(), std::vector<unsigned long>(11, 1000000));

    testroot::write_file("/tmp/tc_cmd", "true\n");
    start_tc_qos();
    EXPECT_THAT(testroot::trace(), IsEmpty());
}

}  // namespace

namespace {

// A WAN-up with 6to4 configured goes on into the IPv6 WAN start with the tunnel's address:
// 2002: and the WAN address 192.0.2.1 in hexadecimal, SLA id 1, then the interface identifier.
TEST_F(WanUp, SixToFourConfigured_WanUpStartsIpv6WithTheTunnelAddress) {
    set({{"wan_ipaddr", "192.0.2.1"}, {"wan_hwaddr", "00:01:02:03:04:05"},
         {"lan_hwaddr", "00:11:22:33:44:55"}, {"ipv6_proto", "6to4"}, {"ipv6_6to4_sla_id", "1"},
         {"ipv6_6to4_relay", "0"}, {"ipv6_6to4_router", "192.88.99.1"}});
    wan_up("eth0");
    EXPECT_EQ(veskNvramConfig_get("ipv6_6to4_tunnel"), std::string("up"));
    // The LAN address is the tunnel address's /64 with the LAN's own identifier.
    EXPECT_EQ(veskNvramConfig_get("ipv6_lan_ipaddr"),
              std::string("2002:c000:201:1:211:22ff:fe33:4455"));
    EXPECT_THAT(testroot::shell_commands(), testing::Contains("ifconfig sit0 up"));
}

}  // namespace
