// The LTE control channel against a scripted connection manager on "/tmp/cgi-2-sys".
#include "failover/lte_control.h"
#include "platform/nvram.h"
#include "tests/support/lte_manager.h"
#include "tests/support/testroot.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {
// Runs after every sleep() of the code under test, so a test can change the store between waits.
std::function<void(unsigned)> after_sleep;
}  // namespace

// Wraps the test root's sleep shim (next in lookup order), which still records the sleep.
extern "C" unsigned int sleep(unsigned int seconds) {
    static const auto next = reinterpret_cast<unsigned int (*)(unsigned int)>(dlsym(RTLD_NEXT, "sleep"));
    unsigned int left = next(seconds);
    if (after_sleep) after_sleep(seconds);
    return left;
}

namespace {

std::string request(int mode) {
    return "{\"action\":\"set_network_connection_mode\",\"args\":{\"manual_mode\":" +
           std::to_string(mode) + "} }";
}

std::string answer(int err, const std::string &msg) {
    return "{\"set_network_connection_mode\":{\"errno\":" + std::to_string(err) + ",\"errmsg\":\"" +
           msg + "\"}}";
}

class LteControl : public testing::Test {
protected:
    void SetUp() override {
        testroot::reset();
    }
    void TearDown() override { after_sleep = nullptr; }
};

TEST_F(LteControl, ConnectAndDisconnect_SendExactRequests) {
    testroot::LteManager manager(answer(0, ""));
    CaptureStdout();
    EXPECT_EQ(connect_disconnect(1), 0);
    EXPECT_EQ(connect_disconnect(0), 0);
    std::string out = GetCapturedStdout();
    EXPECT_THAT(manager.requests(), ElementsAre(request(1), request(0)));
    EXPECT_THAT(out, HasSubstr("f_read_write read 0 (" + answer(0, "") + ")\n\nconnect ok\n"));
    EXPECT_THAT(out, HasSubstr("\ndisconnect ok\n"));
}

TEST_F(LteControl, ErrorReply_ReturnsManagersErrnoAndStillWaitsFullTime) {
    testroot::LteManager manager(answer(3, "busy"));
    CaptureStdout();
    lte_connect();
    EXPECT_THAT(GetCapturedStdout(), HasSubstr("connect_disconnect:3 busy\nconnect apply fail! ret=3\n"));
    EXPECT_STREQ(veskNvramConfig_get("lte_start"), "1");
    EXPECT_THAT(testroot::sleeps_us(), ElementsAre(500000, 3000000, 3000000, 3000000, 3000000, 3000000));
}

TEST_F(LteControl, Connect_StateConnectedAfterSecondWait_StopsWaiting) {
    testroot::LteManager manager;
    int waits = 0;
    after_sleep = [&waits](unsigned seconds) {
        if (seconds == 3 && ++waits == 2) veskNvramConfig_set("wwan_runtime_state", "Connected");
    };
    CaptureStdout();
    lte_connect();
    EXPECT_THAT(GetCapturedStdout(), HasSubstr("connect ok\nconnect apply OK!\n"));
    EXPECT_THAT(manager.requests(), ElementsAre(request(1)));
    EXPECT_THAT(testroot::sleeps_us(), ElementsAre(500000, 3000000, 3000000));
}

TEST_F(LteControl, NoManager_FailsWithSocketPathAndReason) {
    CaptureStdout();
    lte_disconnect();
    EXPECT_EQ(GetCapturedStdout(), std::string("Can't bind unix socket to /tmp/cgi-2-sys: ") +
                                       std::strerror(ENOENT) + "disconnect apply fail! ret=-1\n");
    EXPECT_THAT(testroot::sleeps_us(), ElementsAre(500000));
}

TEST_F(LteControl, ReplyThatDoesNotFit_IsRejectedWithoutOverrun) {
    testroot::LteManager manager(std::string(kLteReplySize, 'x'));
    char reply[kLteReplySize + 16];
    std::memset(reply, 'G', sizeof reply);
    CaptureStdout();
    EXPECT_EQ(f_read_write(request(1).c_str(), reply, kLteReplySize), -1);
    manager.set_reply(std::string(4 * kLteReplySize, 'x'));
    EXPECT_EQ(connect_disconnect(1), -1);
    EXPECT_THAT(GetCapturedStdout(), HasSubstr("longer than 1023 bytes"));
    EXPECT_EQ(std::string(reply + kLteReplySize, 16), std::string(16, 'G'));

    manager.set_reply(std::string(kLteReplySize - 1, 'y'));
    EXPECT_EQ(f_read_write(request(1).c_str(), reply, kLteReplySize), 0);
    EXPECT_EQ(std::strlen(reply), kLteReplySize - 1);
}

TEST_F(LteControl, ReplyWithoutRequiredShape_ExchangeFails) {
    testroot::LteManager manager("");
    char reply[kLteReplySize] = "stale";
    EXPECT_EQ(f_read_write(request(1).c_str(), reply), 0);  // closed without a reply
    EXPECT_STREQ(reply, "");
    EXPECT_EQ(connect_disconnect(1), -1);
    for (const char *broken : {"{\"set_network_connection_mode\":",
                               "{\"other\":{\"errno\":0,\"errmsg\":\"\"}}",
                               "{\"set_network_connection_mode\":0}",
                               "{\"set_network_connection_mode\":{\"errno\":\"0\",\"errmsg\":\"\"}}",
                               "{\"set_network_connection_mode\":{\"errno\":0.5,\"errmsg\":\"\"}}",
                               "{\"set_network_connection_mode\":{\"errno\":0}}"}) {
        manager.set_reply(broken);
        EXPECT_EQ(connect_disconnect(1), -1) << broken;
    }
}

}  // namespace
