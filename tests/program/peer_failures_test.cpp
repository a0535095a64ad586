// Peers that misbehave: an LTE connection manager that never answers, answers late, answers
// garbage or too much, or hangs up at once, and a FIFO flooded with junk. Each failure is
// reported, and the daemon's loops go on to the next event.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "failover/lte_control.h"
#include "platform/nvram.h"
#include "tests/program/daemon_process.h"
#include "tests/support/lte_manager.h"
#include "tests/support/testroot.h"

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using Behaviour = testroot::LteManager::Behaviour;
using Daemon = testroot::DaemonProcess;

namespace {

using std::chrono::milliseconds;

constexpr const char *kPingOk = "4 packets transmitted, 4 packets received, 0% packet loss\n";
constexpr const char *kNoReply = "f_read_write: no reply from /tmp/cgi-2-sys within 5 s\n";

// Writes `text` into the controller's FIFO when it has a reader.
void offer(const std::string &text) {
    int fd = open("/tmp/f_fifo", O_WRONLY | O_NONBLOCK);
    if (fd < 0) return;
    if (write(fd, text.data(), text.size()) < 0) {}
    close(fd);
}

int count_of(const std::string &text, const std::string &part) {
    int n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

class PeerFailures : public testing::Test {
protected:
    void SetUp() override {
        testroot::reset();
        signal(SIGPIPE, SIG_IGN);  // a write into the FIFO the controller just closed
        veskNvramConfig_set("wwan_wan_type", "2");
        veskNvramConfig_set("module_ready", "1");
        veskNvramConfig_set("wan_proto", "dhcp");
        veskNvramConfig_set("wwan_failover_ping_ip", "198.51.100.7");
        testroot::script("ping", kPingOk);
    }
};

struct Peer {
    const char *what;
    Behaviour behaviour;
    milliseconds delay;
    std::string reply;
    int result;
    const char *line;  // a regular expression for the report
};

TEST_F(PeerFailures, LteManagerMisbehaving_ExchangeEndsAndIsReported) {
    const std::string ok = testroot::LteManager::kOkReply;
    const std::vector<Peer> peers = {
        {"never answers", Behaviour::silent, {}, ok, -1, kNoReply},
        {"answers within the limit", Behaviour::answers, milliseconds(1500), ok, 0, "connect ok\n"},
        {"answers too late", Behaviour::answers, milliseconds(7000), ok, -1, kNoReply},
        {"answers garbage", Behaviour::answers, {}, "\x01\xff{{not json", -1,
         "connect_disconnect: .*JSON"},
        {"answers more than fits", Behaviour::answers, {}, std::string(5000, '{'), -1,
         "f_read_write: reply from /tmp/cgi-2-sys longer than 1023 bytes"},
        {"hangs up at once", Behaviour::closes_at_once, {}, ok, -1,
         "(f_read_write|connect_disconnect): "},
    };
    testroot::LteManager manager;
    for (const Peer &peer : peers) {
        manager.set_behaviour(peer.behaviour, peer.delay);
        manager.set_reply(peer.reply);
        CaptureStdout();
        EXPECT_EQ(connect_disconnect(1), peer.result) << peer.what;
        EXPECT_THAT(GetCapturedStdout(), ContainsRegex(peer.line)) << peer.what;
    }
    EXPECT_EQ(manager.connections(), static_cast<int>(peers.size()));
}

// The controller is held for the time-out of each exchange, then goes on: the monitor's next
// link-down token restarts LTE, which works once the manager answers again.
TEST_F(PeerFailures, LteManagerSilent_ControllerReportsAndHandlesNextEvent) {
    testroot::LteManager manager;
    manager.set_behaviour(Behaviour::silent);
    testroot::write_file("/proc/wan_status", "Link Down\n");
    Daemon daemon;
    // Both exchanges of the switch to LTE time out; the connect is the second.
    ASSERT_TRUE(testroot::wait_for(
        [] { return Daemon::console_has(std::string(kNoReply) + "connect apply fail! ret=-1\n"); },
        std::chrono::seconds(30)))
        << Daemon::console();
    EXPECT_TRUE(Daemon::console_has("disconnect apply fail! ret=-1\n"));
    EXPECT_EQ(veskNvramConfig_get("current_ifname"), std::string("rm_usb0"));

    manager.set_behaviour(Behaviour::answers);
    ASSERT_TRUE(testroot::wait_for([] { return Daemon::console_has("connect apply OK!\n"); },
                                   std::chrono::seconds(30)))
        << Daemon::console();
    EXPECT_TRUE(Daemon::console_has(
        "********** Ethernet WAN link down && current WAN is LTE WAN **********\n"));
}

// Junk never starts with an event code, so nothing may be switched; the controller prints what
// it read and goes on reading.
TEST_F(PeerFailures, FifoFlooded_JunkIgnoredAndLaterTokenHandled) {
    Daemon daemon;
    ASSERT_GT(daemon.controller(), 0);
    ASSERT_TRUE(testroot::wait_for([] { return Daemon::console_has("Ether port link up"); }));

    std::string junk;
    const std::string pieces[] = {"b", "::::", "zz:", "0x", "#!", "\x01\x7f\xfe", "b:c:", " "};
    for (size_t i = 0; junk.size() < 4096; ++i) junk += pieces[(i * 7) % std::size(pieces)];
    // Each round is written until the controller has read a batch of it: what is written while
    // it handles the one before is thrown away with the pipe.
    const std::string read_line = "@@@@@@@@@@@@@@@ read token = ";
    constexpr int kRounds = 20;
    for (int round = 0; round < kRounds; ++round) {
        const int reads = count_of(Daemon::console(), read_line);
        ASSERT_TRUE(testroot::wait_for([&] {
            offer(junk);
            return testroot::wait_for(
                [&] { return count_of(Daemon::console(), read_line) > reads; }, milliseconds(200));
        })) << "round " << round;
    }
    // A valid token afterwards is still read and acted on (written until a read catches it).
    const char *line = "********** Ethernet WAN link up && current WAN is Ethernet WAN **********\n";
    ASSERT_TRUE(testroot::wait_for([&] {
        offer("1:");
        return Daemon::console_has(line);
    })) << Daemon::console();

    const std::string console = Daemon::console();
    EXPECT_GT(count_of(console, read_line), kRounds);
    EXPECT_EQ(count_of(console, "**********"), 2 * count_of(console, line))
        << "no line but the valid token's";
    EXPECT_EQ(kill(daemon.controller(), 0), 0);
    // The monitor keeps its ticks: the link is sampled again after the flood.
    const int samples = count_of(console, "Ether port link up");
    EXPECT_TRUE(testroot::wait_for(
        [&] { return count_of(Daemon::console(), "Ether port link up") > samples; }));
    EXPECT_EQ(veskNvramConfig_get("current_ifname"), std::string("eth0"));
}

// A plain file left where the FIFO belongs would be read again at every turn, its tokens acted
// on each second.
TEST_F(PeerFailures, PlainFileInPlaceOfFifo_ReplacedAndNotReplayed) {
    veskNvramConfig_set("module_ready", "0");
    testroot::write_file("/tmp/f_fifo", "3:");
    Daemon daemon;
    ASSERT_TRUE(testroot::wait_for([] { return testroot::sleeps_us().size() >= 30; }));
    struct stat st {};
    ASSERT_EQ(stat("/tmp/f_fifo", &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    EXPECT_TRUE(Daemon::console_has("failover: /tmp/f_fifo is no FIFO, made again\n"));
    EXPECT_FALSE(Daemon::console_has("Ethernet WAN link down"));
    EXPECT_EQ(veskNvramConfig_get("current_ifname"), std::string("eth0"));
}

// The FIFO removed while failover was inactive: the controller finds it missing when it becomes
// active, makes it again, and the monitor's tokens reach it.
TEST_F(PeerFailures, FifoRemoved_MadeAgainWhenControllerOpensIt) {
    veskNvramConfig_set("module_ready", "0");
    veskNvramConfig_set("wwan_wan_type", "0");
    testroot::write_file("/proc/wan_status", "Link Down\n");
    Daemon daemon;
    ASSERT_TRUE(testroot::wait_for([] { return testroot::sleeps_us().size() >= 10; }));
    ASSERT_EQ(unlink("/tmp/f_fifo"), 0);
    veskNvramConfig_set("wwan_wan_type", "2");
    ASSERT_TRUE(testroot::wait_for([] {
        return Daemon::console_has(
            "********** Ethernet WAN link down && current WAN is Ethernet WAN **********\n");
    })) << Daemon::console();
    EXPECT_TRUE(Daemon::console_has("Error opening fifo for reading...: No such file or directory"));
    // The banner comes first; the switch sets the key right after it.
    EXPECT_TRUE(testroot::wait_for([] { return veskNvramConfig_match("current_ifname", "rm_usb0"); }));
}

}  // namespace
