// The file-backed configuration store, the `nvram` tool and `failover-run`, with real processes.
#include "platform/host/nvram_store.h"
#include "platform/nvram.h"
#include "tests/support/testroot.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

using testing::HasSubstr;
using namespace std::string_literals;

namespace {

namespace fs = std::filesystem;
using Args = std::vector<std::string>;

std::string read_file(const fs::path &path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

void write_file(const fs::path &path, const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
}

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

struct ToolRun {
    int status;
    std::string out, err;
};

ToolRun run(const std::string &program, const Args &args, const fs::path &scratch) {
    fs::path out = scratch / "stdout", err = scratch / "stderr";
    pid_t pid = spawn([&] {
        dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
        dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
        std::vector<char *> argv{const_cast<char *>(program.c_str())};
        for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execv(program.c_str(), argv.data());
        return 127;
    });
    int status = wait_exit(pid);
    return {status, read_file(out), read_file(err)};
}

class NvramStore : public testing::Test {
protected:
    void SetUp() override {
        if (testroot::inside()) testroot::reset();
        char pattern[] = "/tmp/nvram_test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        scratch = pattern;
        if (const char *env = std::getenv("NVRAM_FILE")) saved_env = env;
        if (!testroot::inside()) setenv("NVRAM_FILE", (scratch / "store" / "nvram").c_str(), 1);
    }
    void TearDown() override {
        if (saved_env) setenv("NVRAM_FILE", saved_env->c_str(), 1);
        else unsetenv("NVRAM_FILE");
        fs::remove_all(scratch);
    }
    ToolRun nvram(const Args &args) { return run(NVRAM_BINARY, args, scratch); }
    ToolRun failover_run(const Args &args) { return run(FAILOVER_RUN_BINARY, args, scratch); }

    fs::path scratch;
    std::optional<std::string> saved_env;
};

TEST_F(NvramStore, AbsentAndUnsetKeys_ReadEmpty) {
    EXPECT_STREQ(veskNvramConfig_get("never_set"), "");
    EXPECT_STREQ(veskNvramConfig_get(nullptr), "");
    EXPECT_TRUE(veskNvramConfig_match("never_set", ""));
    EXPECT_FALSE(veskNvramConfig_invmatch("never_set", ""));
    ASSERT_EQ(veskNvramConfig_set("lte_start", "1"), 0);
    EXPECT_FALSE(veskNvramConfig_match("lte_start", "1 "));
    ASSERT_EQ(nvram_store_unset("lte_start"), 0);
    EXPECT_STREQ(veskNvramConfig_get("lte_start"), "");
    EXPECT_EQ(nvram_store_unset("lte_start"), 0);
}

TEST_F(NvramStore, AwkwardValues_ReadBackWholeInAnotherProcess) {
    std::string big(64 * 1024, '\0');
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(1 + i % 255);
    const std::vector<std::pair<std::string, std::string>> pairs = {
        {"blanks", "  two  blanks  "}, {"quotes", "\"double\" 'single'"}, {"equals", "a=b=c"},
        {"newlines", "line1\nline2\n"}, {"empty", ""},                       {"big", big}};
    for (const auto &[key, value] : pairs) ASSERT_EQ(veskNvramConfig_set(key.c_str(), value.c_str()), 0);
    for (const auto &[key, value] : pairs) {
        EXPECT_EQ(veskNvramConfig_get(key.c_str()), value) << key;
        ToolRun got = nvram({"get", key});
        EXPECT_EQ(got.status, 0);
        EXPECT_TRUE(got.out == value + "\n") << key << " read back as " << got.out.size() << " bytes";
    }
}

TEST_F(NvramStore, InvalidKeyOrValue_IsRefusedAndChangesNothing) {
    ASSERT_EQ(veskNvramConfig_set("kept", "1"), 0);
    testing::internal::CaptureStderr();
    for (const char *key : {"", "a=b", static_cast<const char *>(nullptr)})
        EXPECT_EQ(veskNvramConfig_set(key, "x"), -1);
    EXPECT_EQ(veskNvramConfig_set("kept", nullptr), -1);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("veskNvramConfig_set: "));
    EXPECT_STREQ(veskNvramConfig_get("a"), "");
    EXPECT_STREQ(veskNvramConfig_get("kept"), "1");
}

TEST_F(NvramStore, Read_CutsAtSizeMinusOneAndTerminates) {
    ASSERT_EQ(veskNvramConfig_set("wan_proto", "abcdef"), 0);
    char buf[8];
    for (auto [key, size, expected] : {std::tuple{"wan_proto", 4, "abc"}, {"wan_proto", 7, "abcdef"},
                                       {"wan_proto", 1, ""}, {"absent", 7, ""}}) {
        std::memset(buf, 'X', sizeof buf);
        EXPECT_EQ(veskNvramConfig_read(key, buf, size), 0);
        EXPECT_STREQ(buf, expected) << size;
        EXPECT_EQ(buf[size], 'X') << "written past the size " << size;
    }
    EXPECT_EQ(veskNvramConfig_read("wan_proto", buf, 0), -1);
    EXPECT_EQ(veskNvramConfig_read("wan_proto", nullptr, 8), -1);
}

TEST_F(NvramStore, GetPointer_StaysValidAndUnchanged_AfterKeySetAgain) {
    ASSERT_EQ(veskNvramConfig_set("current_ifname", "eth0"), 0);
    const char *before = veskNvramConfig_get("current_ifname");
    ASSERT_EQ(veskNvramConfig_set("current_ifname", "rm_usb0"), 0);
    EXPECT_STREQ(veskNvramConfig_get("current_ifname"), "rm_usb0");
    EXPECT_STREQ(before, "eth0");
    ASSERT_EQ(veskNvramConfig_set("other", "eth0"), 0);
    EXPECT_EQ(veskNvramConfig_get("other"), before);  // equal texts share one copy
}

TEST_F(NvramStore, SameSizeChangeByAnotherProcess_IsSeen) {
    ASSERT_EQ(veskNvramConfig_set("wan_port_status", "0"), 0);
    EXPECT_STREQ(veskNvramConfig_get("wan_port_status"), "0");
    ASSERT_EQ(nvram({"set", "wan_port_status=1"}).status, 0);
    EXPECT_STREQ(veskNvramConfig_get("wan_port_status"), "1");
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

TEST_F(NvramStore, NvramFile_MovesStoreAndCreatesItsDirectory) {
    fs::path first = scratch / "deep" / "er" / "nvram";
    setenv("NVRAM_FILE", first.c_str(), 1);
    ASSERT_EQ(veskNvramConfig_set("wwan_wan_type", "2"), 0);
    EXPECT_EQ(read_file(first), "wwan_wan_type\0" "2\0"s);
    setenv("NVRAM_FILE", (scratch / "second").c_str(), 1);
    EXPECT_STREQ(veskNvramConfig_get("wwan_wan_type"), "");
}

TEST_F(NvramStore, UnwritableLocation_FailsWithMessageAndNoCrash) {
    write_file(scratch / "plain", "not a directory");
    setenv("NVRAM_FILE", (scratch / "plain" / "nvram").c_str(), 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(veskNvramConfig_set("k", "v"), -1);
    EXPECT_EQ(veskNvramConfig_save(), -1);
    EXPECT_STREQ(veskNvramConfig_get("k"), "");
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("veskNvramConfig_set: open " + (scratch / "plain").string()));
}

TEST_F(NvramStore, BrokenStoreFile_KeepsWholePairsAndStaysWritable) {
    fs::path path = scratch / "broken";
    setenv("NVRAM_FILE", path.c_str(), 1);
    write_file(path, "k1\0v1\0=bad\0x\0\0empty\0k2\0cut off"s);
    EXPECT_STREQ(veskNvramConfig_get("k1"), "v1");
    EXPECT_STREQ(veskNvramConfig_get("k2"), "");
    ASSERT_EQ(veskNvramConfig_set("k3", "v3"), 0);
    EXPECT_EQ(read_file(path), "k1\0v1\0k3\0v3\0"s);
}

TEST_F(NvramStore, Tool_SetGetShowUnsetCommit) {
    EXPECT_EQ(nvram({"set", "wan_proto=dhcp"}).status, 0);
    ToolRun got = nvram({"get", "wan_proto"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, "dhcp\n");
    for (const char *a : {"zeta=3", "alpha=1", "mid=x=y"}) ASSERT_EQ(nvram({"set", a}).status, 0);
    EXPECT_EQ(nvram({"unset", "zeta"}).status, 0);
    EXPECT_EQ(nvram({"show"}).out, "alpha=1\nmid=x=y\nwan_proto=dhcp\n");
    EXPECT_EQ(nvram({"commit"}).status, 0);
}

TEST_F(NvramStore, Tool_Load_SetsPairsSkippingBlankAndCommentLines_OrNothingOnABadLine) {
    write_file(scratch / "defaults", "# defaults\n\nwan_proto=dhcp\n   \nlast=no newline");
    EXPECT_EQ(nvram({"load", (scratch / "defaults").string()}).status, 0);
    EXPECT_EQ(nvram({"show"}).out, "last=no newline\nwan_proto=dhcp\n");
    fs::path bad = scratch / "bad";
    write_file(bad, "a=1\n# ok\nbroken line\n");
    ToolRun r = nvram({"load", bad.string()});
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(r.err, HasSubstr(bad.string() + ":3:"));
    EXPECT_STREQ(veskNvramConfig_get("a"), "");
    EXPECT_EQ(nvram({"load", (scratch / "missing").string()}).status, 1);
}

TEST_F(NvramStore, Tool_Misuse_ExitsWithUsage) {
    for (const Args &args : std::vector<Args>{{}, {"frobnicate"}, {"get"}, {"get", "a", "b"},
                                              {"get", ""}, {"set", "novalue"}, {"set", "=value"},
                                              {"unset"}, {"show", "x"}, {"load"}}) {
        ToolRun r = nvram(args);
        EXPECT_EQ(r.status, 2) << testing::PrintToString(args);
        EXPECT_THAT(r.err, HasSubstr("usage: nvram")) << testing::PrintToString(args);
    }
    EXPECT_EQ(nvram({"show"}).out, "");
}

TEST_F(NvramStore, FailoverRun_PrintsOutputBufferThenResult_AndNullArguments) {
    ASSERT_EQ(veskNvramConfig_set("wan_hostname", "abcdef"), 0);
    const std::vector<std::pair<Args, std::string>> cases = {
        {{"veskNvramConfig_match", "wan_hostname", "abcdef"}, "result=1\n"},
        {{"veskNvramConfig_read", "wan_hostname", "4"}, "out=abc\nresult=0\n"},
        {{"veskNvramConfig_read", "wan_hostname", "0"}, "out=\nresult=-1\n"},
        {{"veskNvramConfig_get", "NULL"}, "result=\n"},
        {{"veskNvramConfig_set", "k", "NULL"}, "result=-1\n"},
        {{"veskNvramConfig_set", "k", "v"}, "result=0\n"}};
    for (const auto &[args, out] : cases) EXPECT_EQ(failover_run(args).out, out) << args[0];
    EXPECT_STREQ(veskNvramConfig_get("k"), "v");
}

TEST_F(NvramStore, FailoverRun_BadCalls_Exit2BeforeRunning) {
    ToolRun unknown = failover_run({"no_such_routine"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_THAT(unknown.err, HasSubstr("veskNvramConfig_match NAME MATCH"));
    for (const Args &args : std::vector<Args>{{}, {"veskNvramConfig_set", "only_key"},
                                              {"veskNvramConfig_save", "extra"}})
        EXPECT_EQ(failover_run(args).status, 2);
    for (const char *size : {"4x", "", "-1", "99999999999999999999"}) {
        ToolRun r = failover_run({"veskNvramConfig_read", "k", size});
        EXPECT_EQ(r.status, 2) << size;
        EXPECT_EQ(r.out, "") << size;
    }
}

}  // namespace
