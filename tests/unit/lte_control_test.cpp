// The LTE control channel against the stand-in connection manager on "/tmp/cgi-2-sys": the bytes
// of each request and what each reply makes of the exchange. Replies of the wrong shape and the
// missing manager are case files (tests/cases/lte_control).
#include "failover/lte_control.h"
#include "platform/nvram.h"
#include "tests/support/lte_manager.h"
#include "tests/support/testroot.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

std::string request(int mode) {
    return "{\"action\":\"set_network_connection_mode\",\"args\":{\"manual_mode\":" +
           std::to_string(mode) + "} }";
}

const std::string kBusy = "{\"set_network_connection_mode\":{\"errno\":3,\"errmsg\":\"busy\"}}";

TEST(LteControl, Exchange_SendsTheExactRequestAndReturnsTheManagersAnswer) {
    struct Row {
        std::string reply;
        int mode, result;
    } rows[] = {
        {testroot::LteManager::kOkReply, 1, 0},
        {testroot::LteManager::kOkReply, 0, 0},
        {kBusy, 1, 3},                                   // the manager's errno
        {"", 1, -1},                                     // closed without a reply
        {std::string(kLteReplySize, 'x'), 1, -1},        // no room for the terminator
        {std::string(4 * kLteReplySize, 'x'), 0, -1},
    };
    testroot::reset();
    testroot::LteManager manager;
    for (const Row &row : rows) {
        manager.set_reply(row.reply);
        EXPECT_EQ(connect_disconnect(row.mode), row.result) << row.reply.substr(0, 60);
        EXPECT_EQ(manager.requests().back(), request(row.mode));
    }
}

TEST(LteControl, LongestReply_FitsAndNothingIsWrittenPastTheBuffer) {
    testroot::reset();
    testroot::LteManager manager(std::string(kLteReplySize, 'x'));
    char reply[kLteReplySize + 16];
    std::memset(reply, 'G', sizeof reply);
    EXPECT_EQ(f_read_write(request(1).c_str(), reply, kLteReplySize), -1);
    EXPECT_EQ(std::string(reply + kLteReplySize, 16), std::string(16, 'G'));
    manager.set_reply(std::string(kLteReplySize - 1, 'y'));
    EXPECT_EQ(f_read_write(request(1).c_str(), reply, kLteReplySize), 0);
    EXPECT_EQ(std::strlen(reply), kLteReplySize - 1);
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
