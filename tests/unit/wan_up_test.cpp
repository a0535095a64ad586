// What the WAN-up cases (tests/cases/wan_up) cannot see: the dynamic-DNS client's signal and
// the traffic-control start's memory of its first run, both inside one process.
#include "services/wan_up.h"
#include "platform/nvram.h"
#include "tests/support/testroot.h"

#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

volatile sig_atomic_t ddns_signals = 0;

TEST(WanUp, SignalsTheDynamicDnsClientByItsPidFile) {
    testroot::reset();
    for (auto [key, value] : {std::pair{"wwan_wan_type", "2"}, {"current_ifname", "eth0"},
                              {"wan_proto", "dhcp"}, {"wan_gateway", "10.0.0.1"}, {"wan_ipaddr", "10.0.0.2"}})
        veskNvramConfig_set(key, value);
    signal(SIGUSR2, [](int) { ddns_signals = ddns_signals + 1; });
    testroot::write_file("/var/run/ddnsd.pid", std::to_string(getpid()) + "\n");
    wan_up("eth0");
    EXPECT_EQ(ddns_signals, 1);
}

// PPP WANs run the script at every start, others only at the first, which a start that found no
// script uses up too. (QoS off and the look for the script are the case wan_up/tc_qos.)
TEST(WanUp, TcQos_PppEveryTime_OthersOnlyTheFirstTime) {
    testroot::reset();
    const std::string run_script =
        "{\"fn\":\"_eval_daemon\",\"args\":[[\"/bin/sh\",\"/tmp/tc_cmd\"],\">/dev/console\",0,null,0]}";
    veskNvramConfig_set("qos_bw_enable", "1");
    veskNvramConfig_set("qos_enable", "1");
    veskNvramConfig_set("wan_proto", "static");
    start_tc_qos();
    testroot::write_file("/tmp/tc_cmd", "true\n");
    start_tc_qos();
    EXPECT_TRUE(testroot::trace().empty());
    veskNvramConfig_set("wan_proto", "pppoe");
    start_tc_qos();
    start_tc_qos();
    EXPECT_EQ(testroot::trace(), std::vector<std::string>(2, run_script));
}

}  // namespace
