// _eval and _eval_daemon with real processes inside the test root.
#include "platform/vesk_shared.h"
#include "tests/support/testroot.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <initializer_list>
#include <string>
#include <vector>

namespace {

// A null-terminated argument vector that owns its texts.
struct Argv {
    Argv(std::initializer_list<const char *> args) : texts(args.begin(), args.end()) {
        for (std::string &t : texts) pointers.push_back(t.data());
        pointers.push_back(nullptr);
    }
    char *const *get() { return pointers.data(); }
    std::vector<std::string> texts;
    std::vector<char *> pointers;
};

bool running(pid_t pid) { return kill(pid, 0) == 0; }

class Eval : public testing::Test {
protected:
    void SetUp() override { testroot::reset(); }
    void TearDown() override { signal(SIGCHLD, SIG_DFL); }
};

TEST_F(Eval, Wait_ReturnsExitStatusAfterTheProgramEnded) {
    Argv ok{"sh", "-c", "echo done > /tmp/eval_done"}, three{"sh", "-c", "exit 3"},
        killed{"sh", "-c", "kill -9 $$"};
    EXPECT_EQ(_eval(ok.get(), nullptr, 0, nullptr), 0);
    EXPECT_EQ(testroot::read_file("/tmp/eval_done"), "done\n");  // no wait would race here
    EXPECT_EQ(_eval(three.get(), nullptr, 0, nullptr), 3);
    EXPECT_EQ(_eval(killed.get(), nullptr, 0, nullptr), 128 + SIGKILL);
}

TEST_F(Eval, ProgramThatCannotStart_IsNegativeAndLeavesPidAlone) {
    Argv missing{"no-such-program-anywhere"}, empty{}, echo{"echo"};
    int pid = 12345;
    EXPECT_LT(_eval(missing.get(), nullptr, 0, &pid), 0);
    EXPECT_LT(_eval_daemon(missing.get(), ">/dev/console", 0, &pid, 0), 0);
    EXPECT_EQ(pid, 12345);
    EXPECT_LT(_eval(empty.get(), nullptr, 0, nullptr), 0);
    EXPECT_LT(_eval(nullptr, nullptr, 0, nullptr), 0);
    EXPECT_LT(_eval_daemon(nullptr, nullptr, 0, nullptr, 0), 0);
    EXPECT_LT(_eval_daemon(echo.get(), "console", 0, nullptr, 0), 0);
}

TEST_F(Eval, WithPidPointer_ReturnsAtOnceWithTheRunningChild) {
    Argv sleeper{"sleep", "30"};
    int pid = 0, status = 0;
    EXPECT_EQ(_eval(sleeper.get(), nullptr, 0, &pid), 0);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(waitpid(pid, &status, WNOHANG), 0);  // our child, still running
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
}

TEST_F(Eval, Redirection_TruncatesAppendsAndReads) {
    testroot::write_file("/tmp/eval_out", "old contents\n");
    Argv both{"sh", "-c", "echo out; echo err >&2"}, more{"echo", "more"},
        copy{"sh", "-c", "cat > /tmp/eval_copy"};
    EXPECT_EQ(_eval(both.get(), ">/tmp/eval_out", 0, nullptr), 0);
    EXPECT_EQ(_eval(more.get(), ">>/tmp/eval_out", 0, nullptr), 0);
    EXPECT_EQ(testroot::read_file("/tmp/eval_out"), "out\nerr\nmore\n");
    testroot::write_file("/tmp/eval_in", "from file\n");
    EXPECT_EQ(_eval(copy.get(), "</tmp/eval_in", 0, nullptr), 0);
    EXPECT_EQ(testroot::read_file("/tmp/eval_copy"), "from file\n");
}

TEST_F(Eval, Redirection_UnusableForms) {
    Argv echo{"echo", "x"};
    for (const char *nothing : {"", "<", ">", ">>"})  // no file name: nothing redirected
        EXPECT_EQ(_eval(echo.get(), nothing, 0, nullptr), 0) << nothing;
    testing::internal::CaptureStderr();
    EXPECT_LT(_eval(echo.get(), "/tmp/eval_out", 0, nullptr), 0);  // no operator
    EXPECT_NE(testing::internal::GetCapturedStderr().find("_eval: unusable redirection"),
              std::string::npos);
    EXPECT_EQ(_eval(echo.get(), ">/no/such/dir/file", 0, nullptr), 0);  // runs anyway
}

TEST_F(Eval, SigchldIgnored_StillWaitsAndReportsNoFailure) {
    signal(SIGCHLD, SIG_IGN);
    Argv ok{"sh", "-c", "echo done > /tmp/eval_done"}, fails{"false"},
        missing{"no-such-program-anywhere"};
    EXPECT_EQ(_eval(ok.get(), nullptr, 0, nullptr), 0);
    EXPECT_EQ(testroot::read_file("/tmp/eval_done"), "done\n");
    EXPECT_EQ(_eval(fails.get(), nullptr, 0, nullptr), 0);  // status reaped by the system
    EXPECT_LT(_eval(missing.get(), nullptr, 0, nullptr), 0);
}

TEST_F(Eval, Timeout_KillsTheProgramAndReturnsMinusOne) {
    Argv sleeper{"sh", "-c", "echo $$ > /tmp/eval_pid; exec sleep 30"}, quick{"true"};
    EXPECT_EQ(_eval(sleeper.get(), nullptr, 1, nullptr), -1);
    EXPECT_FALSE(running(std::stoi(testroot::read_file("/tmp/eval_pid"))));
    EXPECT_EQ(_eval(quick.get(), nullptr, 5, nullptr), 0);
}

using EvalDaemon = Eval;

TEST_F(EvalDaemon, StartsDetachedInItsOwnSession_WithOutputRedirected) {
    Argv echo{"sh", "-c", "echo hi; echo err >&2"};
    ASSERT_EQ(_eval_daemon(echo.get(), ">/tmp/daemon_out", 0, nullptr, 0), 0);
    EXPECT_TRUE(testroot::wait_for([] { return testroot::read_file("/tmp/daemon_out") == "hi\nerr\n"; }))
        << testroot::read_file("/tmp/daemon_out");
    Argv sleeper{"sleep", "30"};
    int pid = 0, status = 0;
    ASSERT_EQ(_eval_daemon(sleeper.get(), ">/dev/console", 0, &pid, 0), 0);
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(running(pid));
    errno = 0;
    EXPECT_EQ(waitpid(pid, &status, WNOHANG), -1);  // not our child
    EXPECT_EQ(errno, ECHILD);
    EXPECT_NE(getsid(pid), getsid(0));  // a session of its own
    kill(pid, SIGKILL);
}

}  // namespace
