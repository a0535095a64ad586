// failover-status run as a program on the store, console log, event log and pid file of each
// state of the router in cases/NAME/, against the screen and JSON beside them; and its refusals.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include "platform/nvram.h"
#include "tests/support/testroot.h"

namespace {

constexpr const char *kStore = "/var/lib/failover/nvram";
constexpr const char *kPidFile = "/var/run/failover.pid";

struct Result {
    int exit_status;
    std::string out, err;
};

Result run_status(const std::string &args) {
    const std::string command = std::string("TZ=UTC ") + FAILOVER_STATUS_BINARY + " " + args +
                                " >/tmp/status.out 2>/tmp/status.err";
    int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, testroot::read_file("/tmp/status.out"),
            testroot::read_file("/tmp/status.err")};
}

std::string replace_all(std::string text, const std::string &from, const std::string &to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

std::vector<std::string> case_names() {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(STATUS_CASES_DIR))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

class StatusProgram : public testing::TestWithParam<std::string> {};

// A case is a store as `nvram load` reads it and may hold a console.log (passed with --console),
// an events.log and a pid file, whose "@PID@" stands for a running process (the test's own); the
// pid file is dated at the fixtures' daemon start, 2026-11-18 11:06:40 UTC.
TEST_P(StatusProgram, ScreenAndJsonMatchTheirGoldenFiles) {
    testroot::reset();
    const std::string dir = std::string(STATUS_CASES_DIR) + "/" + GetParam() + "/";
    ASSERT_EQ(std::system((std::string(NVRAM_BINARY) + " load " + dir + "store").c_str()), 0);
    std::string args;
    if (testroot::exists(dir + "console.log")) {
        testroot::write_file("/tmp/console.log", testroot::read_file(dir + "console.log"));
        args = "--console /tmp/console.log";
    }
    if (testroot::exists(dir + "events.log"))
        testroot::write_file("/var/log/failover-events.log",
                             testroot::read_file(dir + "events.log"));
    const std::string pid =
        replace_all(testroot::read_file(dir + "pid"), "@PID@", std::to_string(getpid()));
    if (!pid.empty()) {
        testroot::write_file(kPidFile, pid);
        timespec times[2] = {{1795000000, 0}, {1795000000, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, kPidFile, times, 0), 0);
    }

    const Result screen = run_status(args), json = run_status(args + " --json");
    for (auto [result, golden] : {std::pair{&screen, "screen.txt"}, {&json, "status.json"}}) {
        EXPECT_EQ(result->err, "") << golden;
        EXPECT_EQ(result->out, replace_all(testroot::read_file(dir + golden), "@PID@", pid))
            << golden;
    }
    cJSON *parsed = cJSON_Parse(json.out.c_str());
    ASSERT_NE(parsed, nullptr) << "not JSON";
    const int online = cJSON_IsTrue(cJSON_GetObjectItem(parsed, "online"));
    cJSON_Delete(parsed);
    EXPECT_EQ(screen.exit_status, online ? 0 : 1);
    EXPECT_EQ(json.exit_status, online ? 0 : 1);

    // The screen and a prompt fit an 80x24 terminal; UTF-8 continuation bytes take no column.
    std::istringstream lines(screen.out);
    int n = 0;
    for (std::string line; std::getline(lines, line); ++n)
        EXPECT_LE(std::count_if(line.begin(), line.end(),
                                [](unsigned char c) { return (c & 0xc0) != 0x80; }),
                  80)
            << "line " << n + 1;
    EXPECT_LE(n, 23);
}

INSTANTIATE_TEST_SUITE_P(States, StatusProgram, testing::ValuesIn(case_names()),
                         [](const auto &param) { return replace_all(param.param, "-", "_"); });

TEST(StatusRefusals, BadStoreOrArgumentsGiveAClearMessageAndNoScreen) {
    const std::string cannot =
        std::string("failover-status: cannot read the configuration store ") + kStore;
    const struct {
        std::function<void()> setup;
        std::string args;
        int exit_status;
        std::string message;
    } refusals[] = {
        {[] {}, "", 3, cannot + ": No such file or directory\n"},
        {[] { mkdir(kStore, 0755); }, "", 3, cannot + ": Is a directory\n"},
        {[] { testroot::write_file(kStore, "wan_proto=dhcp\ncurrent_ifname=eth0\n"); }, "", 3,
         cannot + ": not a configuration store (no key and value pairs)\n"},
        {[] { veskNvramConfig_set("wwan_wan_type", "2"); }, "--jsn", 2,
         "failover-status: unknown argument \"--jsn\"\n"},
        {[] { veskNvramConfig_set("wwan_wan_type", "2"); }, "--console /tmp/none.log", 2,
         "failover-status: cannot read the console log /tmp/none.log: No such file or directory\n"},
    };
    for (const auto &r : refusals) {
        testroot::reset();
        r.setup();
        Result result = run_status(r.args);
        EXPECT_EQ(result.exit_status, r.exit_status) << r.message;
        EXPECT_EQ(result.out, "") << r.message;
        EXPECT_EQ(result.err.substr(0, r.message.size()), r.message);
    }
}

}  // namespace
