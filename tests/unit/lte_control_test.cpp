// The LTE control channel against the stand-in connection manager on "/tmp/cgi-2-sys": the bytes
// of each request and what each reply, delay or hang-up makes of the exchange. Replies of the
// wrong shape and the missing manager are case files (tests/cases/lte_control).
#include "failover/lte_control.h"
#include "platform/nvram.h"
#include "tests/support/lte_manager.h"
#include "tests/support/testroot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

namespace {

std::string request(int mode) {
    return "{\"action\":\"set_network_connection_mode\",\"args\":{\"manual_mode\":" +
           std::to_string(mode) + "} }";
}

using Behaviour = testroot::LteManager::Behaviour;
using std::chrono::milliseconds;

const std::string kBusy = "{\"set_network_connection_mode\":{\"errno\":3,\"errmsg\":\"busy\"}}";
const char *const kTooLong = "f_read_write: reply from /tmp/cgi-2-sys longer than 1023 bytes, dropped\n";
const char *const kNoReply = "f_read_write: no reply from /tmp/cgi-2-sys within 5 s\n";

// Against each kind of manager the exchange ends: with the manager's errno when its answer comes
// within 5 s, otherwise with -1 and a line (a regular expression) saying why. A manager that
// reads gets the exact request.
TEST(LteControl, Exchange_EndsWithTheManagersAnswerOrAReason) {
    const std::string ok = testroot::LteManager::kOkReply;
    // The answer padded with blanks to `size` bytes.
    const auto padded = [&](size_t size) { return ok + std::string(size - ok.size(), ' '); };
    struct Row {
        Behaviour behaviour;
        milliseconds delay;
        std::string reply;
        int mode, result;
        const char *line;
    } rows[] = {
        {Behaviour::answers, {}, ok, 1, 0, "connect ok\n"},
        {Behaviour::answers, milliseconds(1500), ok, 0, 0, "disconnect ok\n"},
        {Behaviour::answers, {}, kBusy, 1, 3, "connect_disconnect:3 busy\n"},  // the manager's errno
        {Behaviour::answers, {}, padded(kLteReplySize - 1), 1, 0, "connect ok\n"},  // the longest
        {Behaviour::answers, {}, padded(kLteReplySize), 1, -1, kTooLong},  // no room for the terminator
        {Behaviour::answers, {}, std::string(4 * kLteReplySize, 'x'), 0, -1, kTooLong},
        {Behaviour::answers, {}, "", 1, -1, "connect_disconnect: reply is not JSON\n"},
        {Behaviour::answers, milliseconds(7000), ok, 1, -1, kNoReply},
        {Behaviour::silent, {}, ok, 1, -1, kNoReply},
        {Behaviour::closes_at_once, {}, ok, 1, -1, "(f_read_write|connect_disconnect): "},
    };
    testroot::reset();
    testroot::LteManager manager;
    for (const Row &row : rows) {
        manager.set_behaviour(row.behaviour, row.delay);
        manager.set_reply(row.reply);
        testing::internal::CaptureStdout();
        EXPECT_EQ(connect_disconnect(row.mode), row.result) << row.line;
        EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::ContainsRegex(row.line));
        if (row.behaviour != Behaviour::closes_at_once) {
            EXPECT_EQ(manager.requests().back(), request(row.mode)) << row.line;
        }
    }
}

// A connect waits in 3 s steps for the manager to report Connected, and stops once it has (the
// wait for a connect never reported is a case).
TEST(LteControl, Connect_StopsWaitingOnceConnected) {
    testroot::reset();
    testroot::LteManager manager(testroot::LteManager::kOkReply, [](const std::string &) {
        veskNvramConfig_set("wwan_runtime_state", "Connected");
    });
    lte_connect();
    EXPECT_EQ(manager.requests(), std::vector<std::string>{request(1)});
    EXPECT_EQ(testroot::sleeps_us(), (std::vector<unsigned long>{500000, 3000000}));
}

}  // namespace
