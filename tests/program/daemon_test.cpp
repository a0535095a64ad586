// The failover daemon as a whole: the built binary started in the test root, with the sleep
// shim speeding its one-second ticks up a hundredfold and a stand-in LTE connection manager.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include "platform/nvram.h"
#include "tests/program/daemon_process.h"
#include "tests/support/lte_manager.h"
#include "tests/support/testroot.h"

namespace {

constexpr const char *kPingOk = "4 packets transmitted, 4 packets received, 0% packet loss\n";
constexpr const char *kPingLost = "4 packets transmitted, 0 packets received, 100% packet loss\n";
constexpr const char *kConnect =
    "{\"action\":\"set_network_connection_mode\",\"args\":{\"manual_mode\":1} }";
constexpr const char *kDisconnect =
    "{\"action\":\"set_network_connection_mode\",\"args\":{\"manual_mode\":0} }";

std::string get(const char *key) { return veskNvramConfig_get(key); }

using Daemon = testroot::DaemonProcess;

class DaemonTest : public ::testing::Test {
protected:
    void SetUp() override {
        testroot::reset();
        veskNvramConfig_set("wwan_wan_type", "2");
        veskNvramConfig_set("module_ready", "1");
        veskNvramConfig_set("wan_proto", "dhcp");
        veskNvramConfig_set("wwan_failover_ping_ip", "198.51.100.7");
        testroot::script("ping", kPingOk);
    }
    static std::string console() { return Daemon::console(); }
    static bool console_has(const std::string &line) { return Daemon::console_has(line); }
};

TEST_F(DaemonTest, StartUp_WritesPidFileKeysAndFifo) {
    Daemon daemon;
    ASSERT_GT(daemon.controller(), 0);
    EXPECT_EQ(testroot::read_file("/var/run/failover.pid"), std::to_string(daemon.controller()));
    EXPECT_EQ(get("current_ifname"), "eth0");
    EXPECT_EQ(get("lte_start"), "0");
    EXPECT_EQ(get("json_debug"), "1");
    struct stat st{};
    ASSERT_EQ(stat("/tmp/f_fifo", &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0664u);
    EXPECT_TRUE(testroot::wait_for([] {
        return console_has("XXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXParent process 1682...\n") &&
               console_has("XXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXChild process 1425...\n");
    }));
}

TEST_F(DaemonTest, LinkLostOnEthernet_SwitchesToLteAndConnects) {
    testroot::LteManager manager;
    testroot::write_file("/proc/wan_status", "Link Down\n");
    Daemon daemon;
    ASSERT_TRUE(testroot::wait_for([&] { return manager.requests().size() >= 2; }));
    EXPECT_EQ(manager.requests()[0], kDisconnect);
    EXPECT_EQ(manager.requests()[1], kConnect);
    EXPECT_EQ(get("current_ifname"), "rm_usb0");
    EXPECT_TRUE(console_has("@@@@@@@@@@@@@@@@@@Ether port link down@@@@@@@@@@@@@@@@@@@@@@@@@\n"));
    EXPECT_TRUE(console_has(
        "********** Ethernet WAN link down && current WAN is Ethernet WAN **********\n"));
}

TEST_F(DaemonTest, LteConnectNeverReported_TimesOutAndSwitchesBackWithLink) {
    testroot::LteManager manager;
    Daemon daemon;
    // After the first tick's test, so that the next test is 90 ticks away.
    ASSERT_TRUE(testroot::wait_for([] { return console_has("Ether Internet up"); }));
    veskNvramConfig_set("lte_start", "1");  // a connect that the manager never completes
    veskNvramConfig_set("current_ifname", "rm_usb0");
    ASSERT_TRUE(testroot::wait_for([] {
        return console_has("********** current WAN is LTE WAN && n seconds probing LTE "
                           "connection failed **********\n");
    })) << console();
    EXPECT_TRUE(testroot::wait_for([] { return get("current_ifname") == "eth0"; }));
    EXPECT_EQ(get("lte_start"), "0");
    EXPECT_TRUE(testroot::wait_for([&] { return !manager.requests().empty(); }));
    EXPECT_EQ(manager.requests()[0], kDisconnect);
}

TEST_F(DaemonTest, InternetLostOnEthernet_Writes8AndSwitchesToLte) {
    testroot::LteManager manager;
    testroot::script("ping", kPingLost);
    Daemon daemon;
    ASSERT_TRUE(testroot::wait_for([] {
        return console_has(
            "********** Ethernet WAN Internet is down && current WAN is Ethernet WAN **********\n");
    }));
    EXPECT_TRUE(testroot::wait_for([] { return get("current_ifname") == "rm_usb0"; }));
    EXPECT_EQ(get("ether_wan_ready"), "0");
}

TEST_F(DaemonTest, FailoverInactive_NoTokenEverWritten) {
    veskNvramConfig_set("wwan_wan_type", "0");
    testroot::write_file("/proc/wan_status", "Link Down\n");
    Daemon daemon;
    ASSERT_TRUE(testroot::wait_for([] { return testroot::sleeps_us().size() >= 40; }));
    int fd = open("/tmp/f_fifo", O_RDONLY | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(testroot::wait_for([] { return testroot::sleeps_us().size() >= 80; }));
    char buf[16];
    EXPECT_LE(read(fd, buf, sizeof buf), 0);
    close(fd);
    EXPECT_FALSE(console_has("Ether port link"));
    EXPECT_EQ(get("current_ifname"), "eth0");
}

// The whole cycle on a DHCP Ethernet WAN: the cable goes, LTE takes over, the cable returns,
// the probe over Ethernet answers and the daemon switches back.
TEST_F(DaemonTest, CablePulledAndReturned_DhcpWanSwitchesToLteAndBack) {
    veskNvramConfig_set("wan_ifname", "eth0");
    testroot::script("ps", "  123 root      1500 S    udhcpc -i eth0 -p /var/run/udhcpc0.pid "
                           "-s /tmp/udhcpc\n");
    testroot::script("route", "198.51.100.7    0.0.0.0         255.255.255.255 UH    0      0 "
                              "       0 eth0\n");
    // The manager brings LTE up at once, so only the probe over Ethernet can switch back.
    testroot::LteManager manager(testroot::LteManager::kOkReply, [](const std::string &request) {
        if (request.find("\"manual_mode\":1") != std::string::npos)
            veskNvramConfig_set("wwan_runtime_state", "Connected");
    });
    testroot::write_file("/proc/wan_status", "Link Down\n");
    Daemon daemon;

    ASSERT_TRUE(testroot::wait_for([&] { return manager.requests().size() >= 2; })) << console();
    EXPECT_EQ(get("current_ifname"), "rm_usb0");
    auto commands = testroot::shell_commands();
    auto at = [&](const std::string &cmd) {
        return std::find(commands.begin(), commands.end(), cmd) - commands.begin();
    };
    // The Ethernet client is ended by the kill sequence, then every udhcpc.
    EXPECT_LT(at("kill -SIGUSR2 123"), at("kill -9 123"));
    EXPECT_LT(at("kill -9 123"), at("rm -f /var/run/udhcpc0.pid"));
    EXPECT_LT(at("rm -f /var/run/udhcpc0.pid"), at("killall udhcpc"));
    EXPECT_LT(at("killall udhcpc"), static_cast<long>(commands.size()));

    testroot::clear_logs();
    testroot::write_file("/proc/wan_status", "Link Up\n");
    ASSERT_TRUE(testroot::wait_for([] { return get("current_ifname") == "eth0"; })) << console();
    EXPECT_TRUE(console_has(
        "********** Ethernet WAN Internet is up && current WAN is LTE WAN **********\n"));
    EXPECT_EQ(get("lte_start"), "0");
    // udhcpc ran for the probe and again for the real start.
    const std::vector<std::string> udhcpc = {"udhcpc", "-i", "eth0", "-p",
                                             "/var/run/udhcpc0.pid", "-s", "/tmp/udhcpc"};
    ASSERT_TRUE(testroot::wait_for([&] { return testroot::calls_of("udhcpc").size() >= 2; }));
    for (const auto &call : testroot::calls_of("udhcpc")) EXPECT_EQ(call, udhcpc);
    commands = testroot::shell_commands();
    EXPECT_LT(at("ip route add 198.51.100.7 via 0.0.0.0 src 0.0.0.0"),
              at("ping -c 4 198.51.100.7"));
    EXPECT_LT(at("ping -c 4 198.51.100.7"), at("ip route delete 198.51.100.7 via 0.0.0.0"));
}

}  // namespace
