// failover-status run as a program on stores, console logs and event logs of each state of the
// router, against the screen and JSON next to each case in cases/NAME/; and its refusals.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include "platform/host/nvram_store.h"
#include "platform/host/status/status.h"
#include "tests/support/testroot.h"

namespace {

constexpr const char *kStore = "/var/lib/failover/nvram";
constexpr const char *kPidFile = "/var/run/failover.pid";
// 2026-11-18 11:06:40 UTC, the fixtures' daemon start.
constexpr time_t kDaemonStart = 1795000000;

struct Result {
    int exit_status = -1;
    std::string out, err;
};

Result run_status(const std::vector<std::string> &args) {
    pid_t pid = fork();
    if (pid == 0) {
        int out = open("/tmp/status.out", O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = open("/tmp/status.err", O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(out, 1);
        dup2(err, 2);
        setenv("TZ", "UTC", 1);
        std::vector<char *> argv{const_cast<char *>(FAILOVER_STATUS_BINARY)};
        for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int wstatus = 0;
    waitpid(pid, &wstatus, 0);
    Result r;
    r.exit_status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
    r.out = testroot::read_file("/tmp/status.out");
    r.err = testroot::read_file("/tmp/status.err");
    return r;
}

// KEY=VALUE lines; "\xHH" in a value stands for that byte.
void load_store(const std::string &fixture) {
    std::vector<std::pair<std::string, std::string>> pairs;
    size_t start = 0;
    while (start < fixture.size()) {
        size_t end = fixture.find('\n', start);
        std::string line = fixture.substr(start, end - start);
        start = end == std::string::npos ? fixture.size() : end + 1;
        size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        std::string value;
        for (size_t i = eq + 1; i < line.size(); ++i) {
            if (line.compare(i, 2, "\\x") == 0 && i + 3 < line.size()) {
                value += static_cast<char>(std::stoi(line.substr(i + 2, 2), nullptr, 16));
                i += 3;
            } else {
                value += line[i];
            }
        }
        pairs.emplace_back(line.substr(0, eq), value);
    }
    ASSERT_EQ(nvram_store_set_many(pairs), 0);
}

std::string replace_all(std::string text, const std::string &from, const std::string &to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

// Columns of a screen line: UTF-8 continuation bytes take none.
size_t columns(const std::string &line) {
    size_t n = 0;
    for (unsigned char c : line) n += (c & 0xc0) != 0x80;
    return n;
}

enum class Daemon { running, gone, none };

struct Case {
    const char *name;
    Daemon daemon;
    int exit_status;
};

void PrintTo(const Case &c, std::ostream *os) { *os << c.name; }

class StatusProgram : public ::testing::TestWithParam<Case> {
protected:
    void SetUp() override { testroot::reset(); }
};

TEST_P(StatusProgram, ScreenAndJsonMatchTheirGoldenFiles) {
    const Case &c = GetParam();
    const std::string dir = std::string(STATUS_CASES_DIR) + "/" + c.name + "/";
    load_store(testroot::read_file(dir + "store"));
    std::vector<std::string> args;
    if (testroot::exists(dir + "console.log")) {
        testroot::write_file("/tmp/console.log", testroot::read_file(dir + "console.log"));
        args = {"--console", "/tmp/console.log"};
    }
    if (testroot::exists(dir + "events.log"))
        testroot::write_file("/var/log/failover-events.log",
                             testroot::read_file(dir + "events.log"));
    const std::string pid = c.daemon == Daemon::running ? std::to_string(getpid()) : "999999";
    if (c.daemon != Daemon::none) {
        testroot::write_file(kPidFile, pid);
        timespec times[2] = {{kDaemonStart, 0}, {kDaemonStart, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, kPidFile, times, 0), 0);
    }

    // A different output is kept in /tmp/actual/NAME/ (TESTROOT_KEEP=DIR copies it out).
    auto compare = [&](const std::string &out, const char *golden) {
        std::string expected = testroot::read_file(dir + golden);
        EXPECT_EQ(out, replace_all(expected, "@PID@", pid)) << golden;
        if (out != replace_all(expected, "@PID@", pid))
            testroot::write_file("/tmp/actual/" + std::string(c.name) + "/" + golden,
                                 replace_all(out, pid, "@PID@"));
    };

    Result screen = run_status(args);
    EXPECT_EQ(screen.exit_status, c.exit_status);
    EXPECT_EQ(screen.err, "");
    compare(screen.out, "screen.txt");
    size_t lines = 0;
    for (size_t start = 0; start < screen.out.size(); ++lines) {
        size_t end = screen.out.find('\n', start);
        EXPECT_LE(columns(screen.out.substr(start, end - start)), 80u) << "line " << lines + 1;
        start = end + 1;
    }
    EXPECT_LE(lines, 23u) << "the screen and a prompt fit 24 lines";

    args.push_back("--json");
    Result json = run_status(args);
    EXPECT_EQ(json.exit_status, c.exit_status);
    EXPECT_EQ(json.err, "");
    compare(json.out, "status.json");
    cJSON *parsed = cJSON_Parse(json.out.c_str());
    ASSERT_NE(parsed, nullptr) << "not JSON";
    EXPECT_EQ(cJSON_IsTrue(cJSON_GetObjectItem(parsed, "online")), c.exit_status == 0);
    cJSON_Delete(parsed);
}

INSTANTIATE_TEST_SUITE_P(
    States, StatusProgram,
    ::testing::Values(Case{"on-ethernet", Daemon::running, 0}, Case{"on-lte", Daemon::running, 0},
                      Case{"lte-failing", Daemon::running, 1}, Case{"link-down", Daemon::gone, 1},
                      Case{"inactive", Daemon::none, 0}),
    [](const ::testing::TestParamInfo<Case> &param) {
        return replace_all(param.param.name, "-", "_");
    });

TEST(StatusRefusals, BadStoreOrArgumentsGiveAClearMessageAndNoScreen) {
    struct Refusal {
        const char *what;
        std::function<void()> setup;
        std::vector<std::string> args;
        int exit_status;
        std::string message;
    };
    const std::string cannot = "failover-status: cannot read the configuration store ";
    const std::vector<Refusal> refusals = {
        {"missing store", [] {}, {}, 3, cannot + kStore + ": No such file or directory\n"},
        {"directory", [] { mkdir(kStore, 0755); }, {}, 3, cannot + kStore + ": Is a directory\n"},
        {"text instead of a store",
         [] { testroot::write_file(kStore, "wan_proto=dhcp\ncurrent_ifname=eth0\n"); },
         {}, 3, cannot + kStore + ": not a configuration store (no key and value pairs)\n"},
        {"unknown option", [] { load_store("wwan_wan_type=2\n"); }, {"--jsn"}, 2,
         "failover-status: unknown argument \"--jsn\"\n"},
        {"console log missing", [] { load_store("wwan_wan_type=2\n"); },
         {"--console", "/tmp/none.log"}, 2,
         "failover-status: cannot read the console log /tmp/none.log: No such file or "
         "directory\n"},
    };
    for (const Refusal &r : refusals) {
        testroot::reset();
        r.setup();
        Result result = run_status(r.args);
        EXPECT_EQ(result.exit_status, r.exit_status) << r.what;
        EXPECT_EQ(result.out, "") << r.what;
        EXPECT_EQ(result.err.substr(0, r.message.size()), r.message) << r.what;
    }
}

TEST(StatusTimings, SumTheDaemonsWaitsForDhcpAndPppoe) {
    struct Expected {
        const char *proto;
        bool modem;
        double pull_best, pull_worst, back_best, back_worst;
    };
    // Cable pull: link sample 0..13, LTE client stop 0..2 and the 0.5 s disconnect request,
    // the Ethernet client's stop (DHCP kill 2, pppd 2), the 0.5 s connect request, then 3..15 s
    // of looks at the LTE state.
    // Failback: the tick-90 test 6..96 s after the cable returns; its address wait (DHCP 2..10,
    // PPPoE 8 + 0..10), 3 s of pings, the test client's stop (DHCP 2, pppd 2 + 2 again in the
    // switch), LTE client 0..2 and the 0.5 s disconnect request, PPPoE's 8 s hold.
    const Expected table[] = {
        {"dhcp", true, 6.0, 33.0, 13.5, 113.5},
        {"pppoe", true, 6.0, 33.0, 29.5, 131.5},
        {"dhcp", false, -1, -1, 13.0, 111.0},
        {"static", true, 4.0, 31.0, 11.5, 103.5},
        {"ipoe", true, 4.0, 31.0, -1, -1},
    };
    for (const Expected &e : table) {
        SCOPED_TRACE(std::string(e.proto) + (e.modem ? " with modem" : " without modem"));
        status::Estimate pull = status::cable_pull_estimate(e.proto, e.modem);
        status::Estimate back = status::failback_estimate(e.proto, e.modem);
        EXPECT_EQ(pull.possible, e.pull_best >= 0);
        EXPECT_EQ(back.possible, e.back_best >= 0);
        if (pull.possible) {
            EXPECT_DOUBLE_EQ(pull.best(), e.pull_best);
            EXPECT_DOUBLE_EQ(pull.worst(), e.pull_worst);
        }
        if (back.possible) {
            EXPECT_DOUBLE_EQ(back.best(), e.back_best);
            EXPECT_DOUBLE_EQ(back.worst(), e.back_worst);
        }
    }
}

}  // namespace
