// The failover daemon as a whole: the built binary started in the test root, with the sleep
// shim speeding its one-second ticks up a hundredfold and a stand-in LTE connection manager.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "platform/nvram.h"
#include "tests/support/lte_manager.h"
#include "tests/support/testroot.h"

namespace {

constexpr const char *kConsole = "/tmp/failover.console";
constexpr const char *kPingOk = "4 packets transmitted, 4 packets received, 0% packet loss\n";
constexpr const char *kPingLost = "4 packets transmitted, 0 packets received, 100% packet loss\n";
constexpr const char *kConnect =
    "{\"action\":\"set_network_connection_mode\",\"args\":{\"manual_mode\":1} }";
constexpr const char *kDisconnect =
    "{\"action\":\"set_network_connection_mode\",\"args\":{\"manual_mode\":0} }";

std::string get(const char *key) { return veskNvramConfig_get(key); }

bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

// Starts the daemon with its console in kConsole; kills both of its processes at the end.
class Daemon {
public:
    Daemon() {
        pid_t pid = fork();
        if (pid == 0) {
            int fd = open(kConsole, O_WRONLY | O_CREAT | O_APPEND, 0644);
            dup2(fd, 1);
            dup2(fd, 2);
            setenv("SLEEP_SHIM_DIVISOR", "100", 1);
            execl(FAILOVER_BINARY, "failover", static_cast<char *>(nullptr));
            _exit(127);
        }
        int status = 0;
        waitpid(pid, &status, 0);  // daemon() lets the starting process exit at once
        testroot::wait_for([this] {
            controller_ = std::atoi(testroot::read_file("/var/run/failover.pid").c_str());
            return controller_ > 0;
        });
    }
    ~Daemon() {
        // daemon() made the controller a session leader; the monitor is in its group.
        if (controller_ > 0) kill(-controller_, SIGKILL);
    }
    pid_t controller() const { return controller_; }

private:
    pid_t controller_ = 0;
};

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
    static std::string console() { return testroot::read_file(kConsole); }
    static bool console_has(const std::string &line) { return contains(console(), line); }
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

}  // namespace
