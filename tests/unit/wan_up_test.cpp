// The WAN-up sequence and its NAT, DMZ and traffic-control companions.
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

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using Lines = std::vector<std::string>;

namespace {

using Keys = std::vector<std::pair<const char *, const char *>>;
void set(const Keys &keys) {
    for (const auto &[key, value] : keys) veskNvramConfig_set(key, value);
}

std::string call(const std::string &fn, const std::string &args = "") {
    return "{\"fn\":\"" + fn + "\",\"args\":[" + args + "]}";
}

// Trace lines whose function name starts with one of `prefixes`.
Lines trace_of(Lines prefixes = {"agApi", "veskNat", "add_", "zerin", "openvpn"}) {
    Lines lines;
    for (const std::string &line : testroot::trace())
        for (const std::string &p : prefixes)
            if (line.rfind("{\"fn\":\"" + p, 0) == 0) lines.push_back(line);
    return lines;
}

// Route commands and signals.
Lines wan_commands() {
    Lines lines;
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

const std::string kDmzOff = call("agApi_fwDMZRuleSet", "0,0,\"192.168.1.2\"");

// The whole trace of a WAN-up on `ifname` with address `address` and a full NAT restart.
Lines up_trace(const std::string &ifname, const std::string &address) {
    std::string log = "[Internet connected] IP address: " + address + ",";
    return {call("agApi_feature_set", "11"), call("add_routes", "\"" + ifname + "\""),
            call("add_routes", "\"br0\""), call("agApi_natUnhook", "null"),
            call("agApi_natLanHook", "\"br0\""), call("agApi_natHook", "\"" + ifname + "\""),
            call("veskNat_DoConnRecovery"), kDmzOff, call("agApi_natSetInboundFilter", "1"),
            call("agApi_natEnable"),
            call("zerinWriteLog", "\"" + log + "\"," + std::to_string(log.size()) + ",524291"),
            call("openvpn_set_lan_ip")};
}

volatile sig_atomic_t ddns_signals = 0;

class WanUp : public testing::Test {
protected:
    void SetUp() override {
        testroot::reset();
        set({{"wwan_wan_type", "2"}, {"current_ifname", "eth0"}, {"wan_proto", "dhcp"},
             {"wan_ifname", "eth0"}, {"wan_gateway", "10.0.0.1"}, {"wan_ipaddr", "10.0.0.2"},
             {"wan_ipaddr_old", "0.0.0.0"}, {"wan1_ifname", "rm_usb0"},
             {"wan1_gateway", "100.64.0.1"}, {"wan1_ipaddr", "100.64.0.2"},
             {"lan_ifname", "br0"}, {"bs_enable", "0"}, {"sku_name", "US"},
             {"wla_wds_enable", "0"}, {"nat_inbound_filtering", "1"}});
    }
};

TEST_F(WanUp, EthernetDhcp_RoutesHooksNatLogsAndSignalsDdns) {
    signal(SIGUSR2, [](int) { ddns_signals = ddns_signals + 1; });
    testroot::write_file("/var/run/ddnsd.pid", std::to_string(getpid()) + "\n");
    std::string out = output_of([] { wan_up("eth0"); });
    EXPECT_THAT(trace_of(), ElementsAreArray(up_trace("eth0", "10.0.0.2")));
    EXPECT_THAT(wan_commands(), ElementsAre("route add -host 10.0.0.1 dev eth0",
                                            "route add default gw 10.0.0.1",
                                            "killall -SIGUSR2 check_fw"));
    EXPECT_THAT(out, HasSubstr("wan_up: IP addr NOT changed! (10.0.0.2->10.0.0.2) do arp_check!\n"));
    EXPECT_EQ(ddns_signals, 1);
}

TEST_F(WanUp, Lte_HooksLteWanEvenWithSameEthernetAddressAndWritesToken) {
    ASSERT_EQ(mkfifo("/tmp/f_fifo", 0664), 0);
    int reader = open("/tmp/f_fifo", O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    set({{"current_ifname", "rm_usb0"}, {"wan_proto", "pptp"}, {"wan_ipaddr_old", "10.0.0.2"}});
    wan_up("rm_usb0");
    EXPECT_THAT(trace_of(), ElementsAreArray(up_trace("rm_usb0", "100.64.0.2")));
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
    Lines expected = up_trace("ppp0", "10.0.0.2");
    expected[3] = call("agApi_natUnhook", "\"ppp0\"");
    expected[4] = call("agApi_natHook", "\"ppp0\"");
    expected[5] = call("agApi_natWanIfCnt", "\"count\"");
    EXPECT_THAT(trace_of(), ElementsAreArray(expected));
    EXPECT_THAT(wan_commands(), ElementsAre("route delete default", "route add default dev ppp0",
                                            "killall -SIGUSR2 check_fw"));
    EXPECT_EQ(std::string(veskNvramConfig_get("first_wan_status")), "1");

    SetUp();
    set({{"sku_name", "WW"}, {"gui_region", "Japanese"}});
    wan_up("eth0");
    EXPECT_THAT(wan_commands(), Contains("killall -SIGWINCH httpd"));
    EXPECT_THAT(trace_of({"agApi_natLanHook"}), IsEmpty());
}

TEST_F(WanUp, Wds_NatLeftAloneOnlyWhenBothRadiosBridgeOutsideMode2) {
    const std::pair<Keys, size_t> cases[] = {
        {{{"wla_wds_enable", "1"}, {"wla_wds_mode", "1"}, {"wlg_wds_enable", "1"}}, 0},
        {{{"wla_wds_enable", "1"}, {"wla_wds_mode", "2"}, {"wlg_wds_enable", "1"}}, 1},
        {{{"wla_wds_enable", "1"}, {"wlg_wds_enable", "1"}, {"wlg_wds_mode", "2"}}, 1},
        {{{"wla_wds_enable", "1"}, {"wlg_wds_enable", "0"}}, 1},
    };
    for (const auto &[keys, restarts] : cases) {
        SetUp();
        set(keys);
        wan_up("eth0");
        EXPECT_EQ(trace_of({"agApi_natEnable"}).size(), restarts) << keys[1].first;
    }
}

TEST_F(WanUp, FeatureMask_FollowsProtocolAndQosSwitches) {
    struct Case {
        const char *ifname;
        Keys keys;
        const char *mask;
    } cases[] = {
        {"ppp0", {{"wan_proto", "pppoe"}}, "11"},
        {"ppp0", {{"wan_proto", "pptp"}}, "10"},
        {"ppp0", {{"wan_proto", "l2tp"}}, "10"},
        {"ppp0", {{"wan_proto", "pppoe"}, {"enable_vlan", "enable"}}, "10"},
        {"ppp0", {{"wan_proto", "pppoe"}, {"iptv_enabled", "1"}}, "10"},
        {"eth0", {{"enable_vlan", "enable"}, {"iptv_enabled", "1"}}, "11"},
        {"eth0", {{"bs_enable", ""}}, "10"},
        {"eth0", {{"vesknat_ctf_disable", "1"}}, "10"},
        {"eth0", {{"qos_down_streaming_enable", "1"}}, "10"},
        {"eth0", {{"access_control_mode", "1"}}, "10"},
        {"eth0", {{"vesknat_nat4lanonly_disable", "1"}}, "9"},
        {"eth0", {{"broadstream_iqos_enable", "1"}}, "3"},
    };
    for (const Case &c : cases) {
        SetUp();
        set(c.keys);
        std::string out = output_of([&c] { wan_up(c.ifname); });
        bool iqos = c.mask == std::string("3");
        Lines expected = {call("agApi_feature_set", c.mask)};
        if (iqos) expected.insert(expected.begin(), call("iqos_service", "\"restart_iqos\""));
        EXPECT_THAT(trace_of({"iqos", "agApi_feature"}), ElementsAreArray(expected))
            << c.ifname << " " << c.keys.back().first;
        EXPECT_EQ(out.find("wan_up(3209) restart iqos for mobile WAN\n") != std::string::npos, iqos);
    }
}

// Stored values are covered with the other hostile values; the interface comes from pppd.
TEST_F(WanUp, ShellMetacharactersInInterface_RefusedNotRun_FirewallStillSignalled) {
    set({{"wan_proto", "pppoe"}});
    EXPECT_THAT(output_of([] { wan_up("ppp0;reboot"); }, true),
                HasSubstr("wan_up: refused the interface name \"ppp0;reboot\""));
    EXPECT_THAT(testroot::shell_commands(), Not(Contains(HasSubstr("reboot"))));
    EXPECT_THAT(wan_commands(), Contains("killall -SIGUSR2 check_fw"));
}

TEST_F(WanUp, StartWanNat_HooksPerModeAndSessionStatus) {
    auto hook = [](const char *n) { return call("agApi_natHook", std::string("\"") + n + "\""); };
    const std::string carrier = call("agApi_natPptpWanHook", "\"eth0\"");
    struct Case {
        Keys keys;
        int is_ether;
        Lines hooks;
    } cases[] = {
        {{{"wwan_wan_type", "0"}}, 1, {hook("rm_usb0")}},
        {{{"wwan_wan_type", "1"}}, 0, {hook("eth0")}},
        {{{"wan_proto", "pptp"}, {"first_wan_status", "1"}, {"second_wan_status", "1"}}, 1,
         {hook("ppp0"), carrier}},
        {{{"wan_proto", "l2tp"}, {"first_wan_status", "0"}, {"second_wan_status", "1"}}, 1,
         {hook("eth0"), carrier}},
        {{{"wan_proto", "pppoe"}, {"first_wan_status", "0"}, {"second_wan_status", "1"}}, 1,
         {hook("eth0")}},
        {{{"wan_proto", "pppoe"}, {"first_wan_status", "1"}, {"second_wan_status", "1"}}, 1,
         {hook("ppp0"), carrier}},
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
    for (const char *name : {"eth0", "pp", static_cast<const char *>(nullptr)})
        EXPECT_EQ(output_of([name] { EXPECT_EQ(mp_start_nat(name), -1); }, true),
                  std::string("mp_start_nat: ") + (name ? name : "(null)") +
                      " not a ppp interface.\n");
    EXPECT_THAT(testroot::trace(), IsEmpty());
    EXPECT_EQ(mp_start_nat("ppp0"), 0);
    EXPECT_EQ(mp_start_nat("ppp1"), 0);
    EXPECT_THAT(trace_of({"veskNat", "agApi_fwDMZ"}),
                ElementsAre(call("veskNat_DoConnRecovery"), kDmzOff));
    EXPECT_EQ(trace_of({"agApi_natEnable"}).size(), 2u);
}

TEST_F(WanUp, DmzInit_SetsHostOrDisablesRule) {
    const std::pair<Keys, const char *> cases[] = {
        {{{"dmz_ipaddr", "192.168.1.50"}}, "0,1,\"192.168.1.50\""},
        {{{"fw_dmz_ip4", "254"}, {"lan_ipaddr", "10.0.0.1"}}, "0,1,\"10.0.0.254\""},
        {{{"fw_dmz_ip4", "0"}, {"lan_ipaddr", "10.0.0.1"}}, nullptr},
        {{{"fw_dmz_ip4", "255"}, {"lan_ipaddr", "10.0.0.1"}}, nullptr},
        {{{"fw_dmz_ip4", "99999999999999999999"}, {"lan_ipaddr", "10.0.0.1"}}, nullptr},
        {{{"fw_dmz_ip4", "20"}, {"lan_ipaddr", "no address"}}, nullptr},
        {{{"dmz_ipaddr", "10.0.0.300"}}, nullptr},
        {{{"fw_dmz_enab", "0"}, {"dmz_ipaddr", "192.168.1.50"}}, nullptr},
    };
    for (const auto &[keys, args] : cases) {
        testroot::reset();
        set({{"fw_dmz_enab", "1"}});
        set(keys);
        EXPECT_EQ(dmz_init(), 0);
        EXPECT_THAT(testroot::trace(),
                    ElementsAre(args ? call("agApi_fwDMZRuleSet", args) : kDmzOff))
            << keys.back().second;
    }
}

TEST_F(WanUp, TcQos_PppRunsEveryTimeDhcpOnlyFirst) {
    testroot::write_file("/tmp/tc_cmd", "true\n");
    EXPECT_EQ(start_tc_qos(), 0);  // QoS off
    set({{"qos_bw_enable", "1"}, {"qos_enable", "1"}});
    for (auto [proto, runs] : {std::pair{"pppoe", true}, {"pppoe", true}, {"dhcp", true},
                               {"dhcp", false}, {"pptp", true}}) {
        set({{"wan_proto", proto}});
        EXPECT_EQ(output_of([] { EXPECT_EQ(start_tc_qos(), 0); }), runs ? "TC is active.\n" : "")
            << proto;
    }
    EXPECT_EQ(testroot::trace(),
              Lines(4, call("_eval_daemon", "[\"/bin/sh\",\"/tmp/tc_cmd\"],\">/dev/console\",0,null,0")));
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

// 6to4: 2002: and 192.0.2.1 in hexadecimal, SLA id 1, then the LAN's interface identifier.
TEST_F(WanUp, SixToFourConfigured_WanUpStartsIpv6WithTheTunnelAddress) {
    set({{"wan_ipaddr", "192.0.2.1"}, {"wan_hwaddr", "00:01:02:03:04:05"},
         {"lan_hwaddr", "00:11:22:33:44:55"}, {"ipv6_proto", "6to4"}, {"ipv6_6to4_sla_id", "1"},
         {"ipv6_6to4_relay", "0"}, {"ipv6_6to4_router", "192.88.99.1"}});
    wan_up("eth0");
    EXPECT_EQ(std::string(veskNvramConfig_get("ipv6_6to4_tunnel")), "up");
    EXPECT_EQ(std::string(veskNvramConfig_get("ipv6_lan_ipaddr")), "2002:c000:201:1:211:22ff:fe33:4455");
    EXPECT_THAT(testroot::shell_commands(), Contains("ifconfig sit0 up"));
}

}  // namespace
