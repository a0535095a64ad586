// Self-tests of the throwaway test root: if one of these fails, every other test's findings
// are in doubt.
#include "platform/nvram.h"
#include "tests/support/testroot.h"

#include <gtest/gtest.h>

#include <net/if.h>
#include <netdb.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Argv = std::vector<std::string>;
using Lines = std::vector<std::string>;

class TestRoot : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(testroot::inside()) << "not run through tests/testroot/launch";
        testroot::reset();
    }
};

// Output and exit status of a popen()ed command line.
std::pair<std::string, int> run_popen(const char *command) {
    std::string output;
    FILE *pipe = popen(command, "r");
    char buffer[256];
    while (pipe && fgets(buffer, sizeof buffer, pipe)) output += buffer;
    int status = pipe ? pclose(pipe) : -1;
    return {output, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

// Runs an argument vector without a shell, as _eval does; returns its exit status.
int run_argv(const Argv &argv) {
    std::vector<char *> args;
    for (const auto &arg : argv) args.push_back(const_cast<char *>(arg.c_str()));
    args.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        execvp(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

unsigned interface_flags(const char *name) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    int rc = ioctl(fd, SIOCGIFFLAGS, &request);
    close(fd);
    return rc == 0 ? static_cast<unsigned>(request.ifr_flags) : 0;
}

TEST_F(TestRoot, ShellCommands_AreRecorded_AndStandinsReplaceBusyboxApplets) {
    ASSERT_EQ(system("echo started >/dev/console"), 0);
    EXPECT_EQ(testroot::read_file("/dev/console"), "started\n");
    // ping is also a busybox applet, which busybox sh would prefer to anything on PATH.
    testroot::script("ping", "64 bytes from 10.0.0.1\n", 3);
    EXPECT_EQ(run_popen("ping -c 4 10.0.0.1 | grep -v x"),
              (std::pair<std::string, int>{"64 bytes from 10.0.0.1\n", 0}));
    EXPECT_EQ(testroot::events(), (Lines{"sh: echo started >/dev/console",
                                         "sh: ping -c 4 10.0.0.1 | grep -v x",
                                         "run: ping -c 4 10.0.0.1"}));
    EXPECT_EQ(run_popen("ping").second, 3);
}

TEST_F(TestRoot, StandinsByPath_KeepArguments_AndShellScriptsUseStandins) {
    const Argv argv = {"/usr/sbin/udhcpc", "-i", "eth0", "-H", "my router\nline two", ""};
    testroot::script("/usr/sbin/udhcpc", "", 2);
    EXPECT_EQ(run_argv(argv), 2);
    testroot::install_standin("/usr/bin/iptables");
    EXPECT_EQ(run_argv({"/usr/bin/iptables", "-F"}), 0);
    testroot::write_file("/tmp/tc_cmd", "route add default gw 10.0.0.1\n");
    EXPECT_EQ(run_argv({"/bin/sh", "/tmp/tc_cmd"}), 0);
    EXPECT_EQ(testroot::calls(), (std::vector<Argv>{argv, {"/usr/bin/iptables", "-F"},
                                                    {"route", "add", "default", "gw", "10.0.0.1"}}));
}

TEST_F(TestRoot, SleepAndUsleep_AreRecordedInMicroseconds_AndWaitOnlyTheDivisorsShare) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(sleep(3), 0u);
    EXPECT_EQ(usleep(500000), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2)) << "really slept";
    EXPECT_EQ(testroot::sleeps_us(), (std::vector<unsigned long>{3000000, 500000}));
    // The daemon's tests keep a pace with a divisor: a tenth of the time, waited for real.
    setenv("SLEEP_SHIM_DIVISOR", "10", 1);
    const auto paced = std::chrono::steady_clock::now();
    usleep(300000);
    unsetenv("SLEEP_SHIM_DIVISOR");
    EXPECT_GE(std::chrono::steady_clock::now() - paced, std::chrono::milliseconds(30));
}

TEST_F(TestRoot, ProcAndNetwork_AreTheRootsOwn) {
    EXPECT_EQ(testroot::read_file("/proc/sys/net/ipv6/conf/all/forwarding"), "0\n");
    EXPECT_EQ(testroot::read_file("/proc/net/route").rfind("Iface\tDestination\tGateway \t", 0), 0u);
    EXPECT_EQ(testroot::read_file("/proc/wan_status"), "Link Up\n");
    EXPECT_NE(if_nametoindex("veth1"), 0u);
    EXPECT_EQ(interface_flags("veth0") & IFF_UP, 0u);
    EXPECT_NE(interface_flags("lo") & IFF_UP, 0u);
    EXPECT_EQ(gethostbyname("www.vesk.com"), nullptr);
    EXPECT_EQ(getppid(), 1);  // own PID namespace: the launcher's shell is process 1
}

TEST_F(TestRoot, ClearLogsKeepsFilesAndScripts_ResetClearsEverything) {
    for (const char *path : {"/tmp/ppp/options", "/var/run/failover.pid", "/tmp/platform_trace.jsonl"})
        testroot::write_file(path, "x\n");
    testroot::write_file("/proc/wan_status", "Link Down\n");
    ASSERT_EQ(veskNvramConfig_set("wwan_wan_type", "2"), 0);
    ASSERT_TRUE(testroot::exists("/var/lib/failover/nvram"));
    testroot::script("ping", "reply\n", 1);
    ASSERT_EQ(system("echo up >/dev/console; ping"), 256);
    usleep(10);

    testroot::clear_logs();
    EXPECT_TRUE(testroot::events().empty());
    EXPECT_TRUE(testroot::trace().empty());
    EXPECT_TRUE(testroot::exists("/var/run/failover.pid"));
    EXPECT_EQ(run_popen("ping").first, "reply\n");

    testroot::reset();
    for (const char *path : {"/tmp/ppp", "/var/run/failover.pid", "/var/lib/failover/nvram"})
        EXPECT_FALSE(testroot::exists(path)) << path;
    EXPECT_EQ(testroot::read_file("/proc/wan_status"), "Link Up\n");
    EXPECT_EQ(testroot::read_file("/dev/console"), "");
    EXPECT_TRUE(testroot::events().empty());
    EXPECT_TRUE(testroot::sleeps_us().empty());
    EXPECT_EQ(run_popen("ping"), (std::pair<std::string, int>{"", 0}));
}

}  // namespace
