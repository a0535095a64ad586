// The link watcher keeps the link-state file in step with the carrier of veth0, whose peer
// veth1 plays the cable; the link probe reads that file when FAILOVER_WAN_STATUS_FILE names it.
#include <net/if.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "failover/probes.h"
#include "tests/support/testroot.h"

namespace {

constexpr const char *kStateFile = "/tmp/wan_status";

bool set_up(const char *ifname, bool up) {
    int sock = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, ifname, IFNAMSIZ - 1);
    bool ok = ioctl(sock, SIOCGIFFLAGS, &ifr) == 0;
    ifr.ifr_flags = static_cast<short>(up ? (ifr.ifr_flags | IFF_UP) : (ifr.ifr_flags & ~IFF_UP));
    ok = ok && ioctl(sock, SIOCSIFFLAGS, &ifr) == 0;
    close(sock);
    return ok;
}

// Milliseconds from flipping the peer until the file reads `expected`; -1 after a second.
double flip_peer_and_time(bool up, const std::string &expected) {
    const auto start = std::chrono::steady_clock::now();
    if (!set_up("veth1", up)) return -1;
    // A tight look every 0.1 ms, so that the figure is the watcher's and not the poll's.
    for (;;) {
        std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
        if (testroot::read_file(kStateFile) == expected) return took.count();
        if (took.count() > 1000) return -1;
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
}

TEST(LinkWatchProgram, PeerDownAndUp_FlipsTheFileTheLinkProbeReads) {
    testroot::reset();
    pid_t watcher = fork();
    if (watcher == 0) {
        execl(FAILOVER_LINKWATCH_BINARY, "failover-linkwatch", "veth0", kStateFile, nullptr);
        _exit(127);
    }
    ASSERT_GT(watcher, 0);
    // Both ends down at the start: no carrier.
    EXPECT_TRUE(
        testroot::wait_for([] { return testroot::read_file(kStateFile) == "Link Down\n"; }));
    ASSERT_TRUE(set_up("veth0", true));

    // The router's path stays "/proc/wan_status" (here "Link Up"); the variable redirects it.
    setenv("FAILOVER_WAN_STATUS_FILE", kStateFile, 1);
    EXPECT_EQ(get_wan_link_status(), 0u);
    for (int round = 1; round <= 5; ++round) {
        double up_ms = flip_peer_and_time(true, "Link Up\n");
        EXPECT_GE(up_ms, 0) << "round " << round;
        EXPECT_EQ(get_wan_link_status(), 1u);
        double down_ms = flip_peer_and_time(false, "Link Down\n");
        EXPECT_GE(down_ms, 0) << "round " << round;
        EXPECT_EQ(get_wan_link_status(), 0u);
        std::printf("link watcher round %d: \"Link Up\" after %.2f ms, "
                    "\"Link Down\" after %.2f ms\n",
                    round, up_ms, down_ms);
    }
    unsetenv("FAILOVER_WAN_STATUS_FILE");
    EXPECT_EQ(get_wan_link_status(), 1u);

    // It stops cleanly on SIGTERM.
    kill(watcher, SIGTERM);
    int status = 0;
    ASSERT_EQ(waitpid(watcher, &status, 0), watcher);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
