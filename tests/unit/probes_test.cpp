// Link and reachability probes and the process lookup, run against the test root's stand-ins.
#include "failover/probes.h"
#include "platform/nvram.h"
#include "shared/system_util.h"
#include "tests/support/testroot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

class Probes : public testing::Test {
protected:
    void SetUp() override {
        testroot::reset();
        reset_probe_address();
    }
    static void use_probe(const char *address) {
        veskNvramConfig_set("wwan_failover_ping_ip", address);
        select_probe_address();
    }
};

TEST_F(Probes, LinkStatus_FollowsWanStatusFile) {
    EXPECT_EQ(get_wan_link_status(), 1u);
    testroot::write_file("/proc/wan_status", "Link Down\n");
    EXPECT_EQ(get_wan_link_status(), 0u);
    testroot::write_file("/proc/wan_status", "");
    EXPECT_EQ(get_wan_link_status(), 1u);
    std::remove("/proc/wan_status");
    EXPECT_EQ(get_wan_link_status(), 0u);
}

TEST_F(Probes, Ping_ReportsLossFromSummary_OrFullLossWithoutOne) {
    use_probe("192.0.2.7");
    testroot::script("ping", "--- 192.0.2.7 ping statistics ---\n"
                             "4 packets transmitted, 1 packets received, 75% packet loss\n"
                             "round-trip min/avg/max = 12.1/12.1/12.1 ms\n");
    CaptureStderr();
    EXPECT_EQ(get_ping_result(), 75);
    EXPECT_THAT(GetCapturedStderr(), HasSubstr("get_ping_result() [IP=192.0.2.7,count=1] 4 packets "
                                               "transmitted, 1 packets received, 75% packet loss\n"));
    EXPECT_THAT(testroot::shell_commands(), ElementsAre("ping -c 4 192.0.2.7"));

    testroot::script("ping", "ping: sendto: Network unreachable\n", 1);
    CaptureStderr();
    EXPECT_EQ(get_ping_result(), 100);
    EXPECT_THAT(GetCapturedStderr(), HasSubstr("[IP=192.0.2.7,count=1] 0 packets transmitted, "
                                               "0 packets received, 100% packet loss"));

    testroot::clear_logs();
    use_probe("1.2.3.4;reboot");
    CaptureStderr();
    EXPECT_EQ(get_ping_result(), 100);
    EXPECT_THAT(GetCapturedStderr(), HasSubstr("failover_conn get_ping_result(324) popen failed "
                                               "IPv4=[1.2.3.4;reboot] count=1\n"));
    EXPECT_THAT(testroot::shell_commands(), IsEmpty());
}

TEST_F(Probes, SelectProbe_UnsetResolvesTheDefaultHost) {
    testroot::write_file("/etc/hosts", std::string("203.0.113.77\t") + FAILOVER_PROBE_HOST + "\n");
    testing::internal::CaptureStdout();
    use_probe("0.0.0.0");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "GOT HOST IP host IP = 203.0.113.77\n");
    EXPECT_STREQ(probe_address, "203.0.113.77");
    EXPECT_STREQ(veskNvramConfig_get("wwan_failover_test_ip"), "203.0.113.77");
}

TEST_F(Probes, SelectProbe_UsesConfiguredCutToBuffer_ElsePublicDns) {
    use_probe("192.0.2.7");
    EXPECT_STREQ(veskNvramConfig_get("wwan_failover_test_ip"), "192.0.2.7");
    use_probe(std::string(5000, '9').c_str());
    EXPECT_EQ(std::string(probe_address), std::string(kProbeAddressSize - 1, '9'));
    for (const char *unset : {"0.0.0.0", ""}) {
        reset_probe_address();
        testing::internal::CaptureStdout();
        use_probe(unset);
        EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("HOST = NULL\n"));
        EXPECT_STREQ(probe_address, "8.8.8.8");
        EXPECT_STREQ(veskNvramConfig_get("wwan_failover_test_ip"), "8.8.8.8");
    }
}

TEST_F(Probes, ProbingRoute_PppoeViaSession_OthersViaGateway_BrokenRunsNothing) {
    use_probe("192.0.2.7");
    veskNvramConfig_set("wan_proto", "pppoe");
    veskNvramConfig_set("pppoe_ifname", "ppp0");
    testing::internal::CaptureStdout();
    EXPECT_EQ(add_probing_route(), 0);
    EXPECT_EQ(del_probing_route(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "cmd = route add 192.0.2.7 dev ppp0\n");
    EXPECT_THAT(testroot::shell_commands(),
                ElementsAre("route add 192.0.2.7 dev ppp0", "route del 192.0.2.7"));

    testroot::clear_logs();
    veskNvramConfig_set("wan_proto", "dhcp");
    veskNvramConfig_set("wan_gateway", "198.51.100.1");
    veskNvramConfig_set("wan_ipaddr", "198.51.100.20");
    testroot::script("ip", "RTNETLINK answers: File exists\n", 2);
    int status = add_probing_route();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2) << status;
    del_probing_route();
    EXPECT_THAT(testroot::shell_commands(),
                ElementsAre("ip route add 192.0.2.7 via 198.51.100.1 src 198.51.100.20",
                            "ip route delete 192.0.2.7 via 198.51.100.1"));

    testroot::clear_logs();
    veskNvramConfig_set("wan_gateway", "198.51.100.1 && reboot");
    EXPECT_EQ(add_probing_route(), -1);
    EXPECT_EQ(del_probing_route(), -1);
    EXPECT_THAT(testroot::shell_commands(), IsEmpty());
}

TEST_F(Probes, TestProbingRoute_AbsentOnlyWhenListingLacksIt) {
    use_probe("192.0.2.7");
    const std::string header = "Kernel IP routing table\ndefault 198.51.100.1 0.0.0.0 UG 0 0 0 rm_usb0\n";
    testroot::script("route", header + "192.0.2.7 198.51.100.1 255.255.255.255 UGH 0 0 0 eth0\n");
    EXPECT_EQ(test_probing_route(), 0);
    EXPECT_THAT(testroot::shell_commands(), ElementsAre("route | grep 192.0.2.7"));
    testroot::script("route", header);
    EXPECT_EQ(test_probing_route(), -1);

    use_probe("192.0.2.7 ;");  // lenient when the check cannot run
    CaptureStderr();
    EXPECT_EQ(test_probing_route(), 0);
    EXPECT_THAT(GetCapturedStderr(), HasSubstr("test_probing_route(275) popen failed key =[192.0.2.7 ;]\n"));
}

TEST_F(Probes, PidByName_SkipsGrepAndRestartLines_TakesFirstMatch) {
    testroot::script("ps", "  PID USER       VSZ STAT COMMAND\n"
                           "  101 root      1000 S    grep udhcpc0\n"
                           "  102 root      1200 S    udhcpc0 -r 10.0.0.5\n"
                           "  230 root      1200 S    udhcpc0 -i eth0\n"
                           "  415 root      1200 S    udhcpc0 -i rm_usb0\n");
    EXPECT_EQ(get_pid_by_name2("udhcpc0"), 230);
    EXPECT_THAT(testroot::shell_commands(), ElementsAre("ps | grep 'udhcpc0' | grep -v '\\-r'"));

    testroot::clear_logs();
    CaptureStderr();
    EXPECT_EQ(get_pid_by_name2("pppd"), -1);
    EXPECT_EQ(get_pid_by_name2("x';reboot;'"), 0);
    std::string err = GetCapturedStderr();
    EXPECT_THAT(err, HasSubstr("get_pid_by_name2(136) can not find process [pppd]\n"));
    EXPECT_THAT(err, HasSubstr("system_util get_pid_by_name2(119) popen failed command=[x';reboot;']\n"));
    EXPECT_THAT(testroot::shell_commands(), ElementsAre("ps | grep 'pppd' | grep -v '\\-r'"));
}

}  // namespace
