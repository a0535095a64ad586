// A PPPoE Ethernet WAN through the whole daemon: the switch to Ethernet writes the PPP files,
// starts pppd on them and holds "pppoe_starting" while the session comes up.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/nvram.h"
#include "tests/program/daemon_process.h"
#include "tests/support/testroot.h"

namespace {

void set(const char *key, const char *value) { veskNvramConfig_set(key, value); }
std::string get(const char *key) { return veskNvramConfig_get(key); }

// Writes a FailoverEvent token once the controller holds the FIFO open for reading.
bool write_token(const char *token) {
    int fd = -1;
    if (!testroot::wait_for([&] { return (fd = open("/tmp/f_fifo", O_WRONLY | O_NONBLOCK)) >= 0; }))
        return false;
    bool written = write(fd, token, 2) == 2;
    close(fd);
    return written;
}

TEST(PppProgram, SwitchToEthernetWithPppoe_WritesFilesStartsPppdAndHoldsStartingFlag) {
    testroot::reset();
    set("wwan_wan_type", "2");
    set("module_ready", "0");
    set("wan_proto", "pppoe");
    set("wan_ifname", "eth0");
    set("wan_mtu", "1500");
    set("pppoe_username", "home");
    set("pppoe_passwd", "secret");
    set("pppoe_dod", "0");
    set("pppoe_localip", "0.0.0.0");
    set("wwan_failover_ping_ip", "198.51.100.7");
    testroot::script("ping", "4 packets transmitted, 4 packets received, 0% packet loss\n");
    mkdir("/tmp/ppp", 0777);  // the router's start-up makes it

    testroot::DaemonProcess daemon;
    ASSERT_GT(daemon.controller(), 0);
    ASSERT_TRUE(write_token("7:"));

    ASSERT_TRUE(testroot::wait_for([] { return !testroot::calls_of("pppd").empty(); }))
        << testroot::DaemonProcess::console();
    EXPECT_THAT(testroot::calls_of("pppd"),
                testing::ElementsAre(testing::ElementsAre("pppd", "file", "/tmp/ppp/options")));
    const std::string options = testroot::read_file("/tmp/ppp/options");
    EXPECT_THAT(options, testing::StartsWith("defaultroute\npty 'pppoecd -I eth0'\nnoauth\n"
                                             "user \"home\"\nmtu 1492\nmru 1492\n"));
    EXPECT_EQ(testroot::read_file("/tmp/ppp/pap-secrets"), "\"home\" * \"secret\" *\n");
    EXPECT_TRUE(testroot::wait_for([] {
        auto sleeps = testroot::sleeps_us();
        return std::count(sleeps.begin(), sleeps.end(), 8000000ul) == 1 &&
               get("pppoe_starting") == "0";
    }));
    EXPECT_TRUE(testroot::DaemonProcess::console_has("pppd executed successfully. (0)\n"));
    EXPECT_EQ(get("current_ifname"), "eth0");
}

}  // namespace
