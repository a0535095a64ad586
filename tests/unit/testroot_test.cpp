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

struct Popened {
    std::string output;
    int status = -1;  // as pclose gives it
};

Popened run_popen(const char *command) {
    Popened result;
    FILE *pipe = popen(command, "r");
    char buffer[256];
    while (pipe && fgets(buffer, sizeof buffer, pipe)) result.output += buffer;
    if (pipe) result.status = pclose(pipe);
    return result;
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

TEST_F(TestRoot, SystemCommand_IsRecordedAsShellCommand_AndConsoleCollectsOutput) {
    ASSERT_EQ(system("echo 'a  b' >/dev/null; echo started >/dev/console"), 0);
    EXPECT_EQ(testroot::shell_commands(), Lines{"echo 'a  b' >/dev/null; echo started >/dev/console"});
    EXPECT_TRUE(testroot::calls().empty());
    EXPECT_EQ(testroot::read_file("/dev/console"), "started\n");
}

TEST_F(TestRoot, StandinThroughPopen_ReplacesBusyboxApplet_PrintsScriptAndStatus) {
    // ping is also a busybox applet, which busybox sh would prefer to anything on PATH.
    testroot::script("ping", "64 bytes from 10.0.0.1\nround-trip done\n", 3);
    Popened ping = run_popen("ping -c 4 10.0.0.1");
    EXPECT_EQ(ping.output, "64 bytes from 10.0.0.1\nround-trip done\n");
    ASSERT_TRUE(WIFEXITED(ping.status));
    EXPECT_EQ(WEXITSTATUS(ping.status), 3);
    EXPECT_EQ(testroot::calls(), (std::vector<Argv>{{"ping", "-c", "4", "10.0.0.1"}}));
    EXPECT_EQ(testroot::events(), (Lines{"sh: ping -c 4 10.0.0.1", "run: ping -c 4 10.0.0.1"}));
}

TEST_F(TestRoot, StandinsInAPipeline_AreRecorded) {
    testroot::script("ps", "  PID USER COMMAND\n  812 root udhcpc -i eth0\n");
    EXPECT_EQ(run_popen("ps | grep 'udhcpc' | grep -v '\\-r'").output, "  812 root udhcpc -i eth0\n");
    EXPECT_EQ(testroot::calls_of("ps"), std::vector<Argv>{{"ps"}});
}

TEST_F(TestRoot, StandinByAbsolutePath_KeepsArgumentsWithBlanksAndNewlines) {
    const Argv argv = {"/usr/sbin/udhcpc", "-i", "eth0", "-H", "my router\nline two", ""};
    EXPECT_EQ(run_argv(argv), 0);
    EXPECT_EQ(testroot::calls_of("/usr/sbin/udhcpc"), std::vector<Argv>{argv});
    EXPECT_TRUE(testroot::calls_of("udhcpc").empty());
    EXPECT_TRUE(testroot::shell_commands().empty());
}

TEST_F(TestRoot, ScriptForPath_TakesPrecedenceOverScriptForName) {
    testroot::script("udhcpc", "by name\n", 1);
    testroot::script("/usr/sbin/udhcpc", "by path\n", 2);
    EXPECT_EQ(run_popen("udhcpc").output, "by name\n");
    Popened by_path = run_popen("/usr/sbin/udhcpc");
    EXPECT_EQ(by_path.output, "by path\n");
    EXPECT_EQ(WEXITSTATUS(by_path.status), 2);
}

TEST_F(TestRoot, InstalledStandin_RecordsFullPath_AndShellScriptsUseStandins) {
    testroot::install_standin("/usr/bin/iptables");
    testroot::script("/usr/bin/iptables", "", 4);
    EXPECT_EQ(run_argv({"/usr/bin/iptables", "-F"}), 4);
    testroot::write_file("/tmp/tc_cmd", "route add default gw 10.0.0.1\n");
    EXPECT_EQ(run_argv({"/bin/sh", "/tmp/tc_cmd"}), 0);
    EXPECT_EQ(testroot::calls(), (std::vector<Argv>{{"/usr/bin/iptables", "-F"},
                                                    {"route", "add", "default", "gw", "10.0.0.1"}}));
}

TEST_F(TestRoot, SleepAndUsleep_AreRecordedInMicroseconds_AndReturnWithoutWaiting) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(sleep(3), 0u);
    EXPECT_EQ(usleep(500000), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2)) << "really slept";
    EXPECT_EQ(testroot::sleeps_us(), (std::vector<unsigned long>{3000000, 500000}));
}

TEST_F(TestRoot, SleepDivisor_WaitsAFractionForReal) {
    setenv("SLEEP_SHIM_DIVISOR", "10", 1);
    const auto start = std::chrono::steady_clock::now();
    usleep(300000);
    const auto waited = std::chrono::steady_clock::now() - start;
    unsetenv("SLEEP_SHIM_DIVISOR");
    EXPECT_GE(waited, std::chrono::milliseconds(30));
}

TEST_F(TestRoot, ProcFiles_ArePlainWritableFilesWithDefaults) {
    EXPECT_EQ(testroot::read_file("/proc/sys/net/ipv6/conf/all/forwarding"), "0\n");
    EXPECT_EQ(testroot::read_file("/proc/net/route").rfind("Iface\tDestination\tGateway \t", 0), 0u);
    EXPECT_EQ(testroot::read_file("/proc/wan_status"), "Link Up\n");
    testroot::write_file("/proc/wan_status", "Link Down\n");
    EXPECT_EQ(testroot::read_file("/proc/wan_status"), "Link Down\n");
}

TEST_F(TestRoot, Network_HasVethPairDown_LoUp_AndLookupsFail) {
    EXPECT_NE(if_nametoindex("veth0"), 0u);
    EXPECT_NE(if_nametoindex("veth1"), 0u);
    EXPECT_EQ(interface_flags("veth0") & IFF_UP, 0u);
    EXPECT_NE(interface_flags("lo") & IFF_UP, 0u);
    EXPECT_EQ(gethostbyname("www.vesk.com"), nullptr);
}

TEST_F(TestRoot, Reset_ClearsFilesLogsScriptsAndRestoresDefaults) {
    for (const char *path : {"/tmp/ppp/options", "/var/run/failover.pid", "/tmp/platform_trace.jsonl"})
        testroot::write_file(path, "x\n");
    testroot::write_file("/proc/wan_status", "Link Down\n");
    ASSERT_EQ(veskNvramConfig_set("wwan_wan_type", "2"), 0);
    ASSERT_TRUE(testroot::exists("/var/lib/failover/nvram"));
    testroot::script("ping", "reply\n", 1);
    ASSERT_EQ(system("echo up >/dev/console; ping"), 256);
    usleep(10);

    testroot::reset();

    for (const char *path : {"/tmp/ppp", "/var/run/failover.pid", "/var/lib/failover/nvram"})
        EXPECT_FALSE(testroot::exists(path)) << path;
    EXPECT_EQ(testroot::read_file("/proc/wan_status"), "Link Up\n");
    EXPECT_EQ(testroot::read_file("/dev/console"), "");
    EXPECT_TRUE(testroot::events().empty());
    EXPECT_TRUE(testroot::sleeps_us().empty());
    EXPECT_TRUE(testroot::trace().empty());
    Popened ping = run_popen("ping");
    EXPECT_EQ(ping.output, "");
    EXPECT_EQ(ping.status, 0);
}

TEST_F(TestRoot, ClearLogs_KeepsFilesAndScripts) {
    testroot::write_file("/tmp/keep", "x");
    testroot::script("route", "table\n");
    ASSERT_EQ(system("route"), 0);
    testroot::clear_logs();
    EXPECT_TRUE(testroot::events().empty());
    EXPECT_EQ(testroot::read_file("/tmp/keep"), "x");
    EXPECT_EQ(run_popen("route").output, "table\n");
}

TEST_F(TestRoot, WaitFor_ReportsWhetherTheConditionHeldInTime) {
    int polls = 0;
    EXPECT_TRUE(testroot::wait_for([&] { return ++polls == 3; }));
    EXPECT_FALSE(testroot::wait_for([] { return false; }, std::chrono::milliseconds(20)));
}

TEST(TestRootProcess, RunsInItsOwnPidNamespace) {
    EXPECT_EQ(getppid(), 1);  // the launcher's shell is process 1
}

}  // namespace
