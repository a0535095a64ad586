// The host's file-backed configuration store with real processes, and the `nvram` tool. Values
// read back by another process, the store's refusals and failover-run are case files
// (tests/cases/nvram).
#include "platform/host/nvram_store.h"
#include "platform/nvram.h"
#include "tests/support/testroot.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

using namespace std::string_literals;

namespace {

int wait_exit(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A forked child whose exit status is `body`'s return value.
template <typename Body>
pid_t spawn(Body body) {
    pid_t pid = fork();
    if (pid == 0) _exit(body());
    return pid;
}

class NvramStore : public testing::Test {
protected:
    void SetUp() override { testroot::reset(); }
};

// Processes writing their own keys and one long value in turn: no key is lost, and readers in
// other processes see the long value whole, the one or the other.
TEST_F(NvramStore, ProcessesWritingAtOnce_LoseNoKeyAndReadersNeverSeeATornValue) {
    constexpr int kWriters = 6, kKeys = 40;
    const std::string a(70000, 'a'), b(50000, 'b');
    ASSERT_EQ(veskNvramConfig_set("big", a.c_str()), 0);
    std::vector<pid_t> readers, writers;
    for (int r = 0; r < 2; ++r) {
        readers.push_back(spawn([&] {
            while (!veskNvramConfig_match("done", "1")) {
                const char *v = veskNvramConfig_get("big");
                if (v != a && v != b) return 1;
            }
            return 0;
        }));
    }
    for (int p = 0; p < kWriters; ++p) {
        writers.push_back(spawn([&] {
            for (int k = 0; k < kKeys; ++k) {
                std::string key = "p" + std::to_string(p) + "_k" + std::to_string(k);
                if (veskNvramConfig_set(key.c_str(), key.c_str()) != 0) return 1;
                if (veskNvramConfig_set("big", (k % 2 ? a : b).c_str()) != 0) return 1;
            }
            return 0;
        }));
    }
    for (pid_t writer : writers) EXPECT_EQ(wait_exit(writer), 0);
    ASSERT_EQ(veskNvramConfig_set("done", "1"), 0);
    for (pid_t reader : readers) EXPECT_EQ(wait_exit(reader), 0) << "a torn value";
    std::vector<std::pair<std::string, std::string>> pairs;
    ASSERT_TRUE(nvram_store_list(pairs));
    EXPECT_EQ(pairs.size(), size_t{kWriters * kKeys + 2});
    for (const auto &[key, value] : pairs) EXPECT_TRUE(key == "big" || key == "done" || key == value) << key;
}

TEST_F(NvramStore, BrokenStoreFile_KeepsWholePairsAndStaysWritable) {
    testroot::write_file("/var/lib/failover/nvram", "k1\0v1\0=bad\0x\0\0empty\0k2\0cut off"s);
    EXPECT_STREQ(veskNvramConfig_get("k1"), "v1");
    EXPECT_STREQ(veskNvramConfig_get("k2"), "");
    ASSERT_EQ(veskNvramConfig_set("k3", "v3"), 0);
    EXPECT_EQ(testroot::read_file("/var/lib/failover/nvram"), "k1\0v1\0k3\0v3\0"s);
}

// The tool's verbs in turn on one store: exit status and standard output of each.
TEST_F(NvramStore, Tool_VerbsAndExitCodes) {
    testroot::write_file("/tmp/defaults", "# defaults\n\nwan_proto=dhcp\n   \nlast=no newline");
    testroot::write_file("/tmp/bad", "a=1\n# ok\nbroken line\n");
    const struct {
        std::string args;
        int status;
        std::string out;
    } steps[] = {
        {"set zeta=3", 0, ""}, {"set mid=x=y", 0, ""}, {"get mid", 0, "x=y\n"},
        {"unset zeta", 0, ""}, {"unset zeta", 0, ""},  {"commit", 0, ""},
        {"load /tmp/defaults", 0, ""},
        {"load /tmp/bad", 1, ""},  // nothing of a file with a bad line
        {"load /tmp/missing", 1, ""},
        {"show", 0, "last=no newline\nmid=x=y\nwan_proto=dhcp\n"},
        {"", 2, ""}, {"frobnicate", 2, ""}, {"get a b", 2, ""}, {"set novalue", 2, ""}, {"set =value", 2, ""},
    };
    for (const auto &step : steps) {
        const std::string command = NVRAM_BINARY " " + step.args + " >/tmp/out 2>/dev/null";
        EXPECT_EQ(WEXITSTATUS(std::system(command.c_str())), step.status) << step.args;
        EXPECT_EQ(testroot::read_file("/tmp/out"), step.out) << step.args;
    }
}

}  // namespace
