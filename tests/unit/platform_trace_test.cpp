// The platform call trace, byte for byte, through the calls that write it.
#include "platform/nat.h"
#include "platform/vesk_shared.h"
#include "tests/support/testroot.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <string>

using testing::ElementsAre;

namespace {

class PlatformTrace : public testing::Test {
protected:
    void SetUp() override {
        testroot::reset();
    }
};

TEST_F(PlatformTrace, DmzRule_ShowsAddressAsDottedTextAndReportsOne) {
    EXPECT_EQ(agApi_fwDMZRuleSet(0, 1, inet_addr("10.0.0.254")), 1);
    EXPECT_EQ(agApi_fwEchoRespSet(1), 1);
    EXPECT_THAT(testroot::trace(),
                ElementsAre(R"({"fn":"agApi_fwDMZRuleSet","args":[0,1,"10.0.0.254"]})",
                            R"({"fn":"agApi_fwEchoRespSet","args":[1]})"));
}

TEST_F(PlatformTrace, Texts_AreEscapedAsJson) {
    iqos_service("say \"hi\"\n\\end\tx\r");
    iqos_service("ctl\x01\x1f del\x7f");
    iqos_service("caf\xc3\xa9 bad\xff\xc3");  // valid UTF-8 kept, stray bytes escaped
    EXPECT_THAT(testroot::trace(),
                ElementsAre(R"({"fn":"iqos_service","args":["say \"hi\"\n\\end\tx\r"]})",
                            "{\"fn\":\"iqos_service\",\"args\":[\"ctl\\u0001\\u001f del\x7f\"]}",
                            "{\"fn\":\"iqos_service\",\"args\":[\"caf\xc3\xa9 bad\\u00ff\\u00c3\"]}"));
}

TEST_F(PlatformTrace, NumbersNullsArgumentVectorsAndOutputPointers) {
    agApi_feature_set(0xffffffffu);
    zerinWriteLog("abcdef", 3, 0x80003);  // the text shows as far as `length` reaches
    agApi_natUnhook(nullptr);
    agApi_natEnable();
    int count = -1;
    agApi_natWanIfCnt(&count);
    const char *daemon_argv[] = {"killall", "-1", "dnsmasq", nullptr};
    _eval_daemon(const_cast<char *const *>(daemon_argv), ">/dev/console", 0, nullptr, 0);
    const char *eval_argv[] = {"no-such-program", "a \"b\"", nullptr};
    int pid = 0;
    _eval(const_cast<char *const *>(eval_argv), nullptr, 0, &pid);
    _eval(nullptr, nullptr, 0, nullptr);
    EXPECT_THAT(testroot::trace(),
                ElementsAre(R"({"fn":"agApi_feature_set","args":[4294967295]})",
                            R"({"fn":"zerinWriteLog","args":["abc",3,524291]})",
                            R"({"fn":"agApi_natUnhook","args":[null]})",
                            R"({"fn":"agApi_natEnable","args":[]})",
                            R"({"fn":"agApi_natWanIfCnt","args":["count"]})",
                            R"({"fn":"_eval_daemon","args":[["killall","-1","dnsmasq"],">/dev/console",0,null,0]})",
                            R"({"fn":"_eval","args":[["no-such-program","a \"b\""],null,0,"ppid"]})",
                            R"({"fn":"_eval","args":[null,null,0,null]})"));
}

TEST_F(PlatformTrace, TwoProcessesAppending_NeverInterleave) {
    const std::string a(3000, 'a'), b(3000, 'b');  // long, so a line written in pieces would show
    constexpr int kLines = 200;
    for (const std::string *text : {&a, &b}) {
        if (fork() == 0) {
            for (int i = 0; i < kLines; ++i) agApi_natSetRegion(text->c_str());
            _exit(0);
        }
    }
    for (int status = 0, i = 0; i < 2; ++i) ASSERT_GT(wait(&status), 0);
    std::map<std::string, int> seen;
    for (const std::string &line : testroot::trace()) ++seen[line];
    EXPECT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[R"({"fn":"agApi_natSetRegion","args":[")" + a + "\"]}"], kLines);
    EXPECT_EQ(seen[R"({"fn":"agApi_natSetRegion","args":[")" + b + "\"]}"], kLines);
}

}  // namespace
