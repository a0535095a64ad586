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

#include <chrono>
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
    void TearDown() override { unsetenv("NVRAM_FILE"); }
};

TEST_F(NvramStore, GetPointer_StaysValidAndUnchanged_AfterKeySetAgain) {
    ASSERT_EQ(veskNvramConfig_set("current_ifname", "eth0"), 0);
    const char *before = veskNvramConfig_get("current_ifname");
    ASSERT_EQ(veskNvramConfig_set("current_ifname", "rm_usb0"), 0);
    EXPECT_STREQ(veskNvramConfig_get("current_ifname"), "rm_usb0");
    EXPECT_STREQ(before, "eth0");
}

TEST_F(NvramStore, ConcurrentWritersInOtherProcesses_LoseNoKey) {
    constexpr int kProcesses = 6, kKeys = 40;
    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        children.push_back(spawn([&] {
            close(gate[1]);
            char byte;
            if (read(gate[0], &byte, 1) < 0) return 2;  // all start when the gate closes
            for (int k = 0; k < kKeys; ++k) {
                std::string key = "p" + std::to_string(p) + "_k" + std::to_string(k);
                if (veskNvramConfig_set(key.c_str(), key.c_str()) != 0) return 1;
            }
            return 0;
        }));
    }
    close(gate[0]);
    close(gate[1]);
    for (pid_t child : children) EXPECT_EQ(wait_exit(child), 0);
    std::vector<std::pair<std::string, std::string>> pairs;
    ASSERT_TRUE(nvram_store_list(pairs));
    EXPECT_EQ(pairs.size(), size_t{kProcesses * kKeys});
    for (const auto &[key, value] : pairs) EXPECT_EQ(key, value);
}

// Long values too: readers in other processes see the one or the other whole.
TEST_F(NvramStore, ReadersInOtherProcesses_NeverSeeTornValue_WhileWriterAlternates) {
    const std::string a(70000, 'a'), b(50000, 'b');
    ASSERT_EQ(veskNvramConfig_set("big", a.c_str()), 0);
    pid_t writer = spawn([&] {
        for (int i = 0; i < 300; ++i)
            if (veskNvramConfig_set("big", (i % 2 ? a : b).c_str()) != 0) return 1;
        return veskNvramConfig_set("done", "1") == 0 ? 0 : 1;
    });
    std::vector<pid_t> readers;
    for (int r = 0; r < 2; ++r) {
        readers.push_back(spawn([&] {
            auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
            while (!veskNvramConfig_match("done", "1")) {
                const char *v = veskNvramConfig_get("big");
                if (v != a && v != b) return 1;
                if (std::chrono::steady_clock::now() > deadline) return 2;
            }
            return 0;
        }));
    }
    EXPECT_EQ(wait_exit(writer), 0);
    for (pid_t reader : readers) EXPECT_EQ(wait_exit(reader), 0) << "1: torn value, 2: timed out";
}

// NVRAM_FILE moves the store (its directories made), and a place that cannot hold it fails.
TEST_F(NvramStore, NvramFile_MovesTheStore_OrFailsWhereNoFileCanBe) {
    setenv("NVRAM_FILE", "/tmp/deep/er/nvram", 1);
    ASSERT_EQ(veskNvramConfig_set("wwan_wan_type", "2"), 0);
    EXPECT_EQ(testroot::read_file("/tmp/deep/er/nvram"), "wwan_wan_type\0" "2\0"s);
    setenv("NVRAM_FILE", "/tmp/deep/er/nvram/under_a_file", 1);
    EXPECT_EQ(veskNvramConfig_set("k", "v"), -1);
    EXPECT_EQ(veskNvramConfig_save(), -1);
    EXPECT_STREQ(veskNvramConfig_get("wwan_wan_type"), "");
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
        {"", 2, ""}, {"frobnicate", 2, ""}, {"get", 2, ""}, {"get a b", 2, ""}, {"set novalue", 2, ""},
        {"set =value", 2, ""}, {"unset", 2, ""}, {"show x", 2, ""}, {"load", 2, ""},
    };
    for (const auto &step : steps) {
        const std::string command = NVRAM_BINARY " " + step.args + " >/tmp/out 2>/dev/null";
        EXPECT_EQ(WEXITSTATUS(std::system(command.c_str())), step.status) << step.args;
        EXPECT_EQ(testroot::read_file("/tmp/out"), step.out) << step.args;
    }
}

}  // namespace
