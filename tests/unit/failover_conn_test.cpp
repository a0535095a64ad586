// The monitor's tick and the controller's event handling, run in-process in the test root.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "failover/failover_conn.h"
#include "shared/failover_event.h"
#include "platform/nvram.h"
#include "tests/support/lte_manager.h"
#include "tests/support/testroot.h"

namespace {

constexpr const char *kPingOk =
    "PING 198.51.100.7 (198.51.100.7): 56 data bytes\n\n"
    "--- 198.51.100.7 ping statistics ---\n"
    "4 packets transmitted, 4 packets received, 0% packet loss\n";
constexpr const char *kPingLost =
    "--- 198.51.100.7 ping statistics ---\n"
    "4 packets transmitted, 0 packets received, 100% packet loss\n";
constexpr const char *kConnect =
    "{\"action\":\"set_network_connection_mode\",\"args\":{\"manual_mode\":1} }";
constexpr const char *kDisconnect =
    "{\"action\":\"set_network_connection_mode\",\"args\":{\"manual_mode\":0} }";

std::string get(const char *key) { return veskNvramConfig_get(key); }

// Reads the FIFO the way the controller would, without blocking: the tokens written so far.
class FifoReader {
public:
    FifoReader() {
        mkfifo(kFailoverFifo, 0664);
        fd_ = open(kFailoverFifo, O_RDONLY | O_NONBLOCK);
    }
    ~FifoReader() { close(fd_); }
    std::string drain() {
        std::string out;
        char buf[256];
        ssize_t n;
        while ((n = read(fd_, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
        return out;
    }

private:
    int fd_;
};

class MonitorTest : public ::testing::Test {
protected:
    void SetUp() override {
        testroot::reset();
        veskNvramConfig_set("wwan_wan_type", "2");
        veskNvramConfig_set("current_ifname", "eth0");
        veskNvramConfig_set("wan_proto", "dhcp");
        veskNvramConfig_set("wwan_failover_ping_ip", "198.51.100.7");
        testroot::script("ping", kPingOk);
        fifo.emplace();  // after reset(), which empties /tmp
    }

    void run_ticks(int count) {
        for (int i = 0; i < count; ++i) monitor_tick(state);
    }

    MonitorState state;
    std::optional<FifoReader> fifo;
};

TEST_F(MonitorTest, LinkDown_Writes3OnEthernetAtEverySample_4OnLte) {
    testroot::write_file("/proc/wan_status", "Link Down\n");
    run_ticks(15);  // samples at ticks 0, 7 and 14
    EXPECT_EQ(fifo->drain(), "3:3:3:");
    EXPECT_EQ(get("wan_port_status"), "0");
    veskNvramConfig_set("current_ifname", "rm_usb0");
    run_ticks(7);
    EXPECT_EQ(fifo->drain(), "4:");
}

TEST_F(MonitorTest, FailoverInactive_WritesNothing_TicksOnePerSecondWrappingAfter90) {
    veskNvramConfig_set("wwan_wan_type", "0");
    testroot::write_file("/proc/wan_status", "Link Down\n");
    run_ticks(90);
    EXPECT_EQ(state.tick, 90);
    run_ticks(1);
    EXPECT_EQ(state.tick, 1);
    EXPECT_EQ(fifo->drain(), "");
    EXPECT_EQ(testroot::sleeps_us(), std::vector<unsigned long>(91, 1000000));
}

TEST_F(MonitorTest, ReachabilityOnEthernet_PingAnswered_SetsReadyAndWritesNothing) {
    run_ticks(1);  // tick 0: link sample and reachability test
    EXPECT_EQ(fifo->drain(), "");
    EXPECT_EQ(get("ether_wan_ready"), "1");
    EXPECT_EQ(get("wwan_failover_test_ip"), "198.51.100.7");
    EXPECT_EQ(testroot::shell_commands(), std::vector<std::string>{"ping -c 4 198.51.100.7"});
}

TEST_F(MonitorTest, ReachabilityOnEthernet_AllLost_Writes8AtTicks0And90Only) {
    testroot::script("ping", kPingLost);
    run_ticks(90);  // tick 0 tests; ticks 1..89 do not
    EXPECT_EQ(fifo->drain(), "8:");
    EXPECT_EQ(get("ether_wan_ready"), "0");
    run_ticks(1);  // tick 90
    EXPECT_EQ(fifo->drain(), "8:");
}

TEST_F(MonitorTest, PppoeStarting_SkipsTestAndLteSupervisionForTheTick) {
    veskNvramConfig_set("wan_proto", "pppoe");
    veskNvramConfig_set("pppoe_starting", "1");
    veskNvramConfig_set("lte_start", "1");
    veskNvramConfig_set("wwan_runtime_state", "Connected");
    run_ticks(1);
    EXPECT_EQ(testroot::shell_commands(), std::vector<std::string>{});
    EXPECT_EQ(get("lte_start"), "1");  // supervision did not run
    run_ticks(1);
    EXPECT_EQ(get("lte_start"), "0");  // next tick it did
}

// After a PPPoE probe on LTE the monitor ends the probe's pppd and its options file, then
// waits 2 s whether or not pppd was found.
TEST_F(MonitorTest, PppoeProbeOnLte_KillsPppdRemovesOptionsAndPausesTwoSeconds) {
    veskNvramConfig_set("wan_proto", "pppoe");
    veskNvramConfig_set("current_ifname", "rm_usb0");
    veskNvramConfig_set("pppoe_dod", "2");  // files only: no pppd of the stand-ins to wait for
    testroot::script("ps", "  412 root      2312 S    pppd file /tmp/ppp/options\n");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    run_ticks(1);
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    const std::vector<std::string> sh = testroot::shell_commands();
    ASSERT_FALSE(sh.empty());
    EXPECT_EQ(sh.back(), "kill -SIGTERM 412");
    EXPECT_FALSE(testroot::exists("/tmp/ppp/options"));
    std::vector<unsigned long> sleeps = testroot::sleeps_us();
    ASSERT_GE(sleeps.size(), 2u);
    EXPECT_EQ(sleeps.end()[-2], 2000000u);  // then the tick's own second

    testroot::clear_logs();
    testroot::script("ps", "");
    state.tick = 0;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    run_ticks(1);
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    for (const std::string &line : testroot::shell_commands())
        EXPECT_EQ(line.find("kill"), std::string::npos) << line;
    sleeps = testroot::sleeps_us();
    ASSERT_GE(sleeps.size(), 2u);
    EXPECT_EQ(sleeps.end()[-2], 2000000u);
}

TEST_F(MonitorTest, LteNeverConnects_WritesAAt60thTickThenEvery60) {
    veskNvramConfig_set("wwan_wan_type", "2");
    veskNvramConfig_set("lte_start", "1");
    testroot::write_file("/proc/wan_status", "Link Up\n");
    run_ticks(1);  // tick 0 (test passes, counts 1)
    run_ticks(58);
    EXPECT_EQ(fifo->drain(), "");
    run_ticks(1);
    EXPECT_EQ(fifo->drain(), "a:");
    run_ticks(59);
    EXPECT_EQ(fifo->drain(), "");
    run_ticks(1);
    EXPECT_EQ(fifo->drain(), "a:");
}

TEST_F(MonitorTest, LteConnected_ClearsLteStartAndTheCount) {
    veskNvramConfig_set("lte_start", "1");
    run_ticks(30);
    veskNvramConfig_set("wwan_runtime_state", "Connected");
    run_ticks(1);
    EXPECT_EQ(get("lte_start"), "0");
    EXPECT_EQ(state.lte_wait, 0);
}

class ControllerTest : public ::testing::Test {
protected:
    void SetUp() override {
        testroot::reset();
        veskNvramConfig_set("wwan_wan_type", "2");
        veskNvramConfig_set("current_ifname", "eth0");
        veskNvramConfig_set("module_ready", "1");
        veskNvramConfig_set("wan_proto", "dhcp");
    }
    void batch(std::string data) { handle_failover_batch(data.data()); }
};

TEST_F(ControllerTest, LinkDown_SwitchesToLte_DisconnectThenConnect) {
    testroot::LteManager manager;
    testing::internal::CaptureStderr();
    batch("3:");
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(get("current_ifname"), "rm_usb0");
    EXPECT_EQ(get("lte_start"), "1");
    EXPECT_EQ(get("wwan_runtime_state"), "--");
    EXPECT_EQ(manager.requests(), (std::vector<std::string>{kDisconnect, kConnect}));
    EXPECT_NE(err.find("@@@@@@@@@@@@@@@ read token = 3 \n********** Ethernet WAN link down && "
                       "current WAN is Ethernet WAN **********\n"),
              std::string::npos);
}

// Switch to Ethernet: the Ethernet client stopped, the LTE client stopped, LTE disconnected,
// then the Ethernet WAN started, in that order.
TEST_F(ControllerTest, InternetBackOnEthernet_StopsBothClientsDisconnectsThenStarts) {
    veskNvramConfig_set("current_ifname", "rm_usb0");
    veskNvramConfig_set("lte_start", "1");
    veskNvramConfig_set("wan_ifname", "eth0");
    testroot::script("ps", "  100 root udhcpc -i eth0 -p /var/run/udhcpc0.pid -s /tmp/udhcpc\n"
                           "  101 root udhcpc -i rm_usb0 -p /var/run/udhcpc1.pid -s /tmp/udhcpc\n");
    // The manager marks its request among the commands, so that one order covers both.
    testroot::LteManager manager(testroot::LteManager::kOkReply,
                                 [](const std::string &) { std::system(": lte-request"); });
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    batch("7:");
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(get("current_ifname"), "eth0");
    EXPECT_EQ(get("lte_start"), "0");
    EXPECT_EQ(manager.requests(), std::vector<std::string>{kDisconnect});
    std::vector<std::string> steps;
    auto started = [&steps] {
        steps.clear();
        for (const std::string &event : testroot::events())
            if (event == "sh: kill -9 100" || event == "sh: kill -9 101" ||
                event == "sh: : lte-request" || event.rfind("run: udhcpc -i eth0", 0) == 0)
                steps.push_back(event.substr(0, 19));
        return steps.size() == 4;  // the client starts in the background
    };
    testroot::wait_for(started);
    EXPECT_EQ(steps, (std::vector<std::string>{"sh: kill -9 100", "sh: kill -9 101",
                                               "sh: : lte-request", "run: udhcpc -i eth0"}));
}

TEST_F(ControllerTest, TwoTokensInOneRead_SwitchTwice) {
    testroot::LteManager manager;
    batch("3:8:");
    EXPECT_EQ(manager.requests(),
              (std::vector<std::string>{kDisconnect, kConnect, kDisconnect, kConnect}));
}

TEST_F(ControllerTest, ModuleAbsent_SwitchToLteOnlyRecordsTheWan) {
    veskNvramConfig_set("module_ready", "0");
    testroot::LteManager manager;
    batch("8:");
    EXPECT_EQ(get("current_ifname"), "rm_usb0");
    EXPECT_TRUE(manager.requests().empty());
    EXPECT_TRUE(testroot::sleeps_us().empty());
}

TEST_F(ControllerTest, UnknownOrLongTokens_OnlyFirstCharacterCounts) {
    testroot::LteManager manager;
    veskNvramConfig_set("current_ifname", "rm_usb0");
    testing::internal::CaptureStderr();
    batch("b:0:");
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, "@@@@@@@@@@@@@@@ read token = b \n");
    EXPECT_TRUE(manager.requests().empty());
    batch("7xyz:");
    EXPECT_EQ(get("current_ifname"), "eth0");
    EXPECT_EQ(get("lte_start"), "0");
    EXPECT_EQ(manager.requests(), std::vector<std::string>{kDisconnect});
}

TEST_F(ControllerTest, LteDownWithoutEthernetLink_OnlyPrintsTheLine) {
    veskNvramConfig_set("current_ifname", "rm_usb0");
    veskNvramConfig_set("wan_port_status", "0");
    testing::internal::CaptureStderr();
    batch("6:");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "@@@@@@@@@@@@@@@ read token = 6 \n"
              "********** LTE connection is down **********\n");
    EXPECT_EQ(get("current_ifname"), "rm_usb0");
}

TEST_F(ControllerTest, LinkDownOnLte_KeepsConnectedLteWithAddress) {
    testroot::LteManager manager;
    veskNvramConfig_set("current_ifname", "rm_usb0");
    veskNvramConfig_set("wwan_runtime_state", "Connected");
    veskNvramConfig_set("wan1_ipaddr", "10.64.0.2");
    batch("4:9:");
    EXPECT_TRUE(manager.requests().empty());
    veskNvramConfig_set("wan1_ipaddr", "0.0.0.0");
    batch("9:");
    EXPECT_EQ(manager.requests(), (std::vector<std::string>{kDisconnect, kConnect}));
}

TEST_F(ControllerTest, LteProbeTimeout_SwitchesBackOnlyWithEthernetLink) {
    testroot::LteManager manager;
    veskNvramConfig_set("current_ifname", "rm_usb0");
    veskNvramConfig_set("lte_start", "1");
    veskNvramConfig_set("wan_port_status", "0");
    batch("a:");
    EXPECT_EQ(get("current_ifname"), "rm_usb0");
    veskNvramConfig_set("wan_port_status", "1");
    batch("a:");
    EXPECT_EQ(get("current_ifname"), "eth0");
    EXPECT_EQ(get("lte_start"), "0");
    veskNvramConfig_set("lte_start", "1");
    batch("5:");  // LTE up
    EXPECT_EQ(get("lte_start"), "0");
}

}  // namespace
