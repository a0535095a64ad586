// The link watcher keeps the link-state file in step with the carrier of veth0, whose peer
// veth1 plays the cable; the link probe reads that file when FAILOVER_WAN_STATUS_FILE names it.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "failover/probes.h"
#include "tests/support/testroot.h"

namespace {

constexpr const char *kStateFile = "/tmp/wan_status";

// Within a second of the event: the watcher follows rtnetlink, it does not poll.
bool file_reads(const std::string &expected) {
    return testroot::wait_for([&] { return testroot::read_file(kStateFile) == expected; },
                              std::chrono::seconds(1));
}

TEST(LinkWatchProgram, PeerDownAndUp_FlipsTheFileTheLinkProbeReads) {
    testroot::reset();
    pid_t watcher = fork();
    if (watcher == 0) {
        execl(FAILOVER_LINKWATCH_BINARY, "failover-linkwatch", "veth0", kStateFile, nullptr);
        _exit(127);
    }
    // Both ends down at the start: no carrier.
    EXPECT_TRUE(file_reads("Link Down\n"));
    ASSERT_EQ(std::system("/host/usr/bin/ip link set veth0 up"), 0);

    // The router's path stays "/proc/wan_status" (the monitor's cases); the variable redirects it.
    setenv("FAILOVER_WAN_STATUS_FILE", kStateFile, 1);
    EXPECT_EQ(get_wan_link_status(), 0u);
    for (int round = 1; round <= 3; ++round) {
        ASSERT_EQ(std::system("/host/usr/bin/ip link set veth1 up"), 0);
        EXPECT_TRUE(file_reads("Link Up\n")) << "round " << round;
        EXPECT_EQ(get_wan_link_status(), 1u);
        ASSERT_EQ(std::system("/host/usr/bin/ip link set veth1 down"), 0);
        EXPECT_TRUE(file_reads("Link Down\n")) << "round " << round;
        EXPECT_EQ(get_wan_link_status(), 0u);
    }

    kill(watcher, SIGTERM);
    int status = 0;
    ASSERT_EQ(waitpid(watcher, &status, 0), watcher);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "stops cleanly on SIGTERM";
}

}  // namespace
