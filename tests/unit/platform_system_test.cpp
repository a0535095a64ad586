// Platform calls that change the system: interface MAC, event log, NAT bookkeeping, the debug
// FIFO and the configuration-backed region and 6rd answers.
#include "platform/nat.h"
#include "platform/nvram.h"
#include "platform/vesk_shared.h"
#include "tests/support/testroot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <tuple>

using testing::ElementsAre;
using testing::MatchesRegex;

namespace {

class PlatformSystem : public testing::Test {
protected:
    void SetUp() override { testroot::reset(); }
};

std::string hardware_address(const char *ifname) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, ifname, IFNAMSIZ - 1);
    int r = ioctl(fd, SIOCGIFHWADDR, &ifr);
    close(fd);
    if (r != 0) return std::strerror(errno);
    const auto *b = reinterpret_cast<const unsigned char *>(ifr.ifr_hwaddr.sa_data);
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2], b[3], b[4], b[5]);
    return text;
}

void write_fifo(const std::string &fifo, const std::string &text) {
    FILE *w = std::fopen(fifo.c_str(), "w");
    ASSERT_NE(w, nullptr);
    std::fputs(text.c_str(), w);
    std::fclose(w);
}

// Ends the reader that initial_abfifo started for `fifo`, by the pid it recorded.
void stop_reader(const std::string &fifo) {
    std::string pid = testroot::read_file(fifo + ".pid");
    if (!pid.empty()) kill(std::stoi(pid), SIGKILL);
}

TEST_F(PlatformSystem, SetEthMac_ChangesTheAddress_RefusalsComeBackAsErrno) {
    const unsigned char mac[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    EXPECT_EQ(set_eth_mac("veth0", mac), 0);
    EXPECT_EQ(hardware_address("veth0"), "02:11:22:33:44:55");
    EXPECT_THAT(testroot::trace(),
                ElementsAre(R"({"fn":"set_eth_mac","args":["veth0","02:11:22:33:44:55"]})"));
    const unsigned char multicast[6] = {0x01, 0, 0, 0, 0, 1};
    EXPECT_EQ(set_eth_mac("veth0", multicast), EADDRNOTAVAIL);
    EXPECT_EQ(set_eth_mac("nosuchif0", mac), ENODEV);
    EXPECT_EQ(set_eth_mac(std::string(100, 'e').c_str(), mac), ENODEV);  // never cut to another
    EXPECT_EQ(set_eth_mac(nullptr, mac), EINVAL);
    EXPECT_EQ(set_eth_mac("veth0", nullptr), EINVAL);
}

TEST_F(PlatformSystem, EventLog_AppendsOneStampedLinePerEvent) {
    const char text[] = "[Internet connected] IP address: 192.0.2.1,";
    EXPECT_EQ(zerinWriteLog(text, static_cast<int>(std::strlen(text)), 0x80003), 0);
    EXPECT_EQ(zerinWriteLog("two\nlines and more", 9, 0x8001E), 0);
    EXPECT_THAT(testroot::read_file("/var/log/failover-events.log"),
                MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} "
                             "\\[code 0x80003\\] \\[Internet connected\\] IP address: 192\\.0\\.2\\.1,\n"
                             "[-0-9]{10} [:0-9]{8} \\[code 0x8001e\\] two lines\n"));
    EXPECT_EQ(zerinWriteLog(nullptr, 3, 1), -1);
    EXPECT_EQ(zerinWriteLog("x", -1, 1), -1);
}

TEST_F(PlatformSystem, NatWanCount_FollowsHooksAndUnhooks) {
    auto count = [] { int n = -1; return agApi_natWanIfCnt(&n) == 0 ? n : -1; };
    agApi_natUnhook(nullptr);
    EXPECT_EQ(count(), 0);
    EXPECT_EQ(agApi_natHook("ppp0"), 0);
    EXPECT_EQ(agApi_natHook("ppp0"), 0);  // the same interface twice is one
    EXPECT_EQ(count(), 1);
    agApi_natHook("eth0");
    agApi_natPptpWanHook("eth0");
    agApi_natProbeHook("eth0");
    EXPECT_EQ(count(), 2);
    agApi_natUnhook("ppp0");
    agApi_natUnhook("never-hooked");
    EXPECT_EQ(count(), 1);
    agApi_natUnhook(nullptr);
    EXPECT_EQ(count(), 0);
    EXPECT_EQ(agApi_natWanIfCnt(nullptr), -1);
    EXPECT_EQ(agApi_natHook(nullptr), -1);
}

TEST_F(PlatformSystem, DebugFifo_ReaderCopiesWritesIntoTheFile) {
    const std::string fifo = "/tmp/radvd_debug.fifo", file = "/tmp/radvd_debug.txt";
    EXPECT_EQ(abfifo_is_running_or_not(fifo.c_str()), 0);
    ASSERT_EQ(initial_abfifo(fifo.c_str(), file.c_str(), 1000), 0);
    EXPECT_NE(abfifo_is_running_or_not(fifo.c_str()), 0);
    // Two writers one after the other: the reader outlives each writer's close.
    write_fifo(fifo, "========\n");
    write_fifo(fifo, "radvd says hello\n");
    EXPECT_TRUE(testroot::wait_for(
        [&] { return testroot::read_file(file) == "========\nradvd says hello\n"; }))
        << testroot::read_file(file);
    EXPECT_EQ(initial_abfifo(fifo.c_str(), file.c_str(), 1000), 0);  // one reader is enough
    stop_reader(fifo);
    EXPECT_TRUE(testroot::wait_for([&] { return abfifo_is_running_or_not(fifo.c_str()) == 0; }));
}

TEST_F(PlatformSystem, DebugFifo_FileStaysWithinItsBound) {
    const std::string fifo = "/tmp/openvpn_log_tap", file = "/tmp/openvpn_log_tap2";
    ASSERT_EQ(initial_abfifo(fifo.c_str(), file.c_str(), 1), 0);  // 1 KiB
    const std::string chunk(600, 'x');
    for (int i = 0; i < 3; ++i) {
        write_fifo(fifo, chunk + std::to_string(i));
        // One write at a time, so each reaches the reader as one chunk.
        ASSERT_TRUE(testroot::wait_for(
            [&] { return testroot::read_file(file).find(std::to_string(i)) != std::string::npos; }));
    }
    EXPECT_EQ(testroot::read_file(file), chunk + "2");
    stop_reader(fifo);
}

TEST_F(PlatformSystem, DebugFifo_BadPathsFail) {
    testroot::write_file("/tmp/plain", "not a fifo");
    EXPECT_EQ(initial_abfifo("/tmp/plain", "/tmp/out", 10), -1);
    EXPECT_EQ(initial_abfifo("/no/such/dir/fifo", "/tmp/out", 10), -1);
    ASSERT_EQ(mkfifo("/tmp/stale.fifo", 0666), 0);  // a stale pid file of a reader that is gone
    testroot::write_file("/tmp/stale.fifo.pid", "999999\n");
    EXPECT_EQ(abfifo_is_running_or_not("/tmp/stale.fifo"), 0);
}

TEST_F(PlatformSystem, SixrdAuto_NeedsAllThreeKeys) {
    ipv6rd_rule_t rule{};
    veskNvramConfig_set("ipv6rd_auto_prefix", "2001:db8::/32");
    veskNvramConfig_set("ipv6rd_auto_masklen", "0");
    EXPECT_NE(get_6rd_auto_params(&rule), 0);
    veskNvramConfig_set("ipv6rd_auto_relay", "192.0.2.254");
    ASSERT_EQ(get_6rd_auto_params(&rule), 0);
    EXPECT_EQ(std::tuple(rule.enable, std::string(rule.prefix), rule.ipv4_mask_length, std::string(rule.relay)),
              std::tuple(1, std::string("2001:db8::/32"), 0, std::string("192.0.2.254")));
    veskNvramConfig_set("ipv6rd_auto_masklen", "33");
    EXPECT_NE(get_6rd_auto_params(&rule), 0);
}

TEST_F(PlatformSystem, SixrdRules_CountAndFetchByNumber) {
    EXPECT_EQ(getinst_ipv6rd_rules_shared(nullptr, 0), 0);
    const std::string rules = "0,2001:db8::/32,0,192.0.2.1; 1, 2001:db8:100::/40 ,8,192.0.2.2;;"
                              "1,2001:db8::/32,0,192.168.100.200.1;1,2001::/16,x,1.1.1.1;" +
                              std::string(100, 'p');
    veskNvramConfig_set("ipv6rd_rules", rules.c_str());
    EXPECT_EQ(getinst_ipv6rd_rules_shared(nullptr, 0), 5);
    ipv6rd_rule_t rule{};
    ASSERT_EQ(getinst_ipv6rd_rules_shared(&rule, 1), 0);
    EXPECT_EQ(rule.enable, 0);
    ASSERT_EQ(getinst_ipv6rd_rules_shared(&rule, 2), 0);
    EXPECT_EQ(std::tuple(rule.enable, std::string(rule.prefix), rule.ipv4_mask_length, std::string(rule.relay)),
              std::tuple(1, std::string("2001:db8:100::/40"), 8, std::string("192.0.2.2")));
    // Too long a relay, a bad mask length, a malformed entry, out of range: rule left as it was.
    for (int index : {3, 4, 5, 0, 6, -1}) {
        EXPECT_NE(getinst_ipv6rd_rules_shared(&rule, index), 0) << index;
        EXPECT_STREQ(rule.relay, "192.0.2.2") << index;
    }
}

}  // namespace
