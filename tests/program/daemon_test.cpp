// The failover daemon as a whole: the built binary started in the test root, with the sleep
// shim speeding its one-second ticks up a hundredfold and a stand-in LTE connection manager.
// Its peers misbehave here too: a manager that stays silent, and a FIFO flooded with junk or
// replaced by a plain file. Each failure is reported and the daemon goes on. (A late, garbled or
// hanging-up manager is the LTE control channel's unit test.)
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/nvram.h"
#include "tests/support/lte_manager.h"
#include "tests/support/testroot.h"

namespace {

using Behaviour = testroot::LteManager::Behaviour;

constexpr const char *kConsole = "/tmp/failover.console";
constexpr const char *kNoReply = "f_read_write: no reply from /tmp/cgi-2-sys within 5 s\n";

void set(const char *key, const char *value) { veskNvramConfig_set(key, value); }
std::string get(const char *key) { return veskNvramConfig_get(key); }
std::string console() { return testroot::read_file(kConsole); }
bool console_has(const std::string &text) { return console().find(text) != std::string::npos; }

int count_of(const std::string &text, const std::string &part) {
    int n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

// Writes `text` into the controller's FIFO when it has a reader.
bool offer(const std::string &text) {
    int fd = open("/tmp/f_fifo", O_WRONLY | O_NONBLOCK);
    if (fd < 0) return false;
    bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return written;
}

// The daemon with its console in kConsole, each sleep cut to 1/100; its processes are killed
// at the end. controller() is the pid from "/var/run/failover.pid", 0 when it did not start.
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
        waitpid(pid, nullptr, 0);  // daemon() lets the starting process exit at once
        testroot::wait_for([this] {
            controller_ = std::atoi(testroot::read_file("/var/run/failover.pid").c_str());
            return controller_ > 0;
        });
    }
    // daemon() made the controller a session leader; the monitor is in its group.
    ~Daemon() { if (controller_ > 0) kill(-controller_, SIGKILL); }
    pid_t controller() const { return controller_; }

private:
    pid_t controller_ = 0;
};

class DaemonTest : public testing::Test {
protected:
    void SetUp() override {
        testroot::reset();
        signal(SIGPIPE, SIG_IGN);  // a write into the FIFO the controller just closed
        set("wwan_wan_type", "2");
        set("module_ready", "1");
        set("wan_proto", "dhcp");
        set("wwan_failover_ping_ip", "198.51.100.7");
        testroot::script("ping", "4 packets transmitted, 4 packets received, 0% packet loss\n");
    }
};

// The same daemon; the suites' names keep apart what tests/qemu-excluded.txt leaves out.
using PeerFailures = DaemonTest;

// Start-up; the monitor's tokens reaching the controller through the FIFO are PeerFailures'.
TEST_F(DaemonTest, StartUp_WritesPidFileKeysAndFifo) {
    Daemon daemon;
    ASSERT_GT(daemon.controller(), 0);
    // The pid file may come before the start-up keys.
    EXPECT_TRUE(testroot::wait_for([] {
        return get("current_ifname") == "eth0" && get("lte_start") == "0" && get("json_debug") == "1";
    })) << get("current_ifname") << " " << get("lte_start") << " " << get("json_debug");
    struct stat st{};
    EXPECT_TRUE(testroot::wait_for([&] { return stat("/tmp/f_fifo", &st) == 0 && S_ISFIFO(st.st_mode); }));
    EXPECT_EQ(st.st_mode & 0777, 0664u);
    EXPECT_TRUE(testroot::wait_for([] {
        return console_has("XXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXParent process 1682...\n") &&
               console_has("XXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXChild process 1425...\n");
    }));
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
        [] { return console_has(std::string(kNoReply) + "connect apply fail! ret=-1\n"); },
        std::chrono::seconds(30)))
        << console();
    EXPECT_TRUE(console_has("disconnect apply fail! ret=-1\n"));
    EXPECT_EQ(get("current_ifname"), "rm_usb0");

    manager.set_behaviour(Behaviour::answers);
    ASSERT_TRUE(testroot::wait_for([] { return console_has("connect apply OK!\n"); },
                                   std::chrono::seconds(30)))
        << console();
    EXPECT_TRUE(console_has(
        "********** Ethernet WAN link down && current WAN is LTE WAN **********\n"));
}

// Junk never starts with an event code, so nothing may be switched; a valid token afterwards
// is still read and acted on.
TEST_F(PeerFailures, FifoFlooded_JunkIgnoredAndLaterTokenHandled) {
    Daemon daemon;
    ASSERT_TRUE(testroot::wait_for([] { return console_has("Ether port link up"); }));
    std::string junk;
    const std::string pieces[] = {"b", "::::", "zz:", "0x", "#!", "\x01\x7f\xfe", "b:c:", " "};
    for (size_t i = 0; junk.size() < 4096; ++i) junk += pieces[(i * 7) % std::size(pieces)];
    const std::string read_line = "@@@@@@@@@@@@@@@ read token = ";
    ASSERT_TRUE(testroot::wait_for([&] {
        offer(junk);
        return count_of(console(), read_line) >= 20;
    }));
    const char *line = "********** Ethernet WAN link up && current WAN is Ethernet WAN **********\n";
    ASSERT_TRUE(testroot::wait_for([&] { return offer("1:") && console_has(line); })) << console();

    EXPECT_EQ(count_of(console(), "**********"), 2 * count_of(console(), line))
        << "no line but the valid token's";
    EXPECT_EQ(kill(daemon.controller(), 0), 0);
    // The monitor keeps its ticks: the link is sampled again after the flood.
    const int samples = count_of(console(), "Ether port link up");
    EXPECT_TRUE(testroot::wait_for(
        [&] { return count_of(console(), "Ether port link up") > samples; }));
    EXPECT_EQ(get("current_ifname"), "eth0");
}

// A plain file left where the FIFO belongs would be read again at every turn, its tokens acted
// on each second.
TEST_F(PeerFailures, PlainFileInPlaceOfFifo_ReplacedAndNotReplayed) {
    set("module_ready", "0");
    testroot::write_file("/tmp/f_fifo", "3:");
    Daemon daemon;
    ASSERT_TRUE(testroot::wait_for([] { return testroot::sleeps_us().size() >= 30; }));
    struct stat st{};
    ASSERT_EQ(stat("/tmp/f_fifo", &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    EXPECT_TRUE(console_has("failover: /tmp/f_fifo is no FIFO, made again\n"));
    EXPECT_FALSE(console_has("Ethernet WAN link down"));
    EXPECT_EQ(get("current_ifname"), "eth0");
}

}  // namespace
