// The simulated LTE manager, talked to by the daemon's own LTE control channel in a test root
// whose veth0 is renamed rm_usb0 (the modem's interface); udhcpc there is a recording stand-in.
#include <net/if.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "failover/lte_control.h"
#include "platform/nvram.h"
#include "shared/ifconfig.h"
#include "tests/support/testroot.h"

namespace {

short flags_of(const char *ifname) {
    int sock = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, ifname, IFNAMSIZ - 1);
    short flags = ioctl(sock, SIOCGIFFLAGS, &ifr) == 0 ? ifr.ifr_flags : -1;
    close(sock);
    return flags;
}

bool has(const char *key, const char *value) { return veskNvramConfig_match(key, value) != 0; }

class SimLteManager : public ::testing::Test {
protected:
    void SetUp() override {
        testroot::reset();
        // The modem's interface: veth0 under the name the router gives it.
        int sock = socket(AF_INET, SOCK_DGRAM, 0);
        ifreq ifr{};
        std::strncpy(ifr.ifr_name, "veth0", IFNAMSIZ - 1);
        std::strncpy(ifr.ifr_newname, "rm_usb0", IFNAMSIZ - 1);
        ioctl(sock, SIOCSIFNAME, &ifr);
        close(sock);
    }
    void TearDown() override {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
    }
    void start(std::vector<const char *> args) {
        args.insert(args.begin(), "failover-sim-lte");
        args.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            execv(SIM_LTE_BINARY, const_cast<char *const *>(args.data()));
            _exit(127);
        }
        ASSERT_TRUE(testroot::wait_for([] { return testroot::exists("/tmp/cgi-2-sys"); }));
    }
    pid_t pid_ = -1;
};

TEST_F(SimLteManager, ConnectThenDisconnect_DrivesLinkClientAndKeys) {
    start({"--attach-delay", "0.2"});
    EXPECT_TRUE(has("module_ready", "1"));
    EXPECT_TRUE(has("wwan_runtime_state", "Disconnected"));

    EXPECT_EQ(connect_disconnect(1), 0);
    EXPECT_TRUE(has("wwan_runtime_state", "Connecting"));
    ASSERT_TRUE(testroot::wait_for([] { return has("wwan_runtime_state", "Connected"); }));
    EXPECT_TRUE(flags_of("rm_usb0") & IFF_UP);
    ASSERT_TRUE(testroot::wait_for([] { return !testroot::calls_of("udhcpc").empty(); }));
    EXPECT_EQ(testroot::calls_of("udhcpc").front(),
              (std::vector<std::string>{"udhcpc", "-i", "rm_usb0", "-p", "/var/run/udhcpc1.pid",
                                        "-s", "/tmp/udhcpc"}));

    // The address the lease gives the interface shows in wan1_ipaddr.
    ASSERT_EQ(ifconfig("rm_usb0", kWanInterfaceFlags, "10.64.0.170", "255.255.255.0"), 0);
    EXPECT_TRUE(testroot::wait_for([] { return has("wan1_ipaddr", "10.64.0.170"); }));

    EXPECT_EQ(connect_disconnect(0), 0);
    EXPECT_TRUE(has("wwan_runtime_state", "Disconnected"));
    EXPECT_TRUE(has("wan1_ipaddr", "0.0.0.0"));
    EXPECT_FALSE(flags_of("rm_usb0") & IFF_UP);
}

TEST_F(SimLteManager, Failing_RefusesConnectsUntilToldToWork) {
    start({"--attach-delay", "0", "--fail"});
    EXPECT_EQ(connect_disconnect(1), 5);
    EXPECT_TRUE(has("wwan_runtime_state", "Searching"));
    EXPECT_TRUE(testroot::calls_of("udhcpc").empty());

    kill(pid_, SIGUSR2);
    EXPECT_TRUE(testroot::wait_for([] { return connect_disconnect(1) == 0; }));
    EXPECT_TRUE(testroot::wait_for([] { return has("wwan_runtime_state", "Connected"); }));

    kill(pid_, SIGUSR1);
    EXPECT_EQ(connect_disconnect(0), 0);
    EXPECT_TRUE(testroot::wait_for([] { return connect_disconnect(1) == 5; }));
}

TEST_F(SimLteManager, RequestsOtherThanTheConnectionMode_GetErrno22) {
    start({});
    const char *requests[] = {
        "{\"action\":\"reboot\",\"args\":{\"manual_mode\":1} }",
        "{\"action\":\"set_network_connection_mode\",\"args\":{\"manual_mode\":2} }",
        "{\"action\":\"set_network_connection_mode\",\"args\":{\"manual_mode\":\"1\"} }",
        "{\"action\":\"set_network_connection_mode\"}",
        "{\"action\":1,{{",
        "{}",
    };
    for (const char *request : requests) {
        char reply[kLteReplySize];
        ASSERT_EQ(f_read_write(request, reply), 0) << request;
        EXPECT_STREQ(reply, "{\"set_network_connection_mode\":{\"errno\":22,\"errmsg\":\"bad request\"}}")
            << request;
    }
    EXPECT_TRUE(has("wwan_runtime_state", "Disconnected"));
    EXPECT_EQ(connect_disconnect(1), 0);  // still serving
}

}  // namespace
