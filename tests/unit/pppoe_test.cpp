// The PPPoE session start in the test root: its files, nodes and launch, checked by Debian's pppd.
#include "platform/nvram.h"
#include "tests/support/testroot.h"
#include "tests/unit/ppp_checks.h"
#include "wan/ppp_common.h"
#include "wan/ppp_sessions.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

using namespace ppp_checks;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

void set(const char *key, const std::string &value) { veskNvramConfig_set(key, value.c_str()); }
std::string get(const char *key) { return veskNvramConfig_get(key); }
std::string options() { return testroot::read_file("/tmp/ppp/options"); }

class Pppoe : public testing::Test {
protected:
    void SetUp() override {
        testroot::reset();
        mkdir("/tmp/ppp", 0777);
        mkdir("/tmp/ppp/peers", 0777);
        for (auto [key, value] : {std::pair{"wan_ifname", "eth0"}, {"wan_mtu", "1500"},
                                  {"pppoe_username", "us\"er"}, {"pppoe_passwd", "p\"a%s$"},
                                  {"pppoe_dod", "0"}, {"pppoe_localip", "0.0.0.0"}})
            set(key, value);
        testroot::clear_logs();
    }

    // Standard output of the start; standard error goes to `err_`.
    std::string start() {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        start_pppoe_session("eth0", 0);
        err_ = testing::internal::GetCapturedStderr();
        return testing::internal::GetCapturedStdout();
    }
    std::string err_;
};

TEST_F(Pppoe, AlwaysOn_WritesOptionsSecretsNodesAndStartsPppd) {
    // A probe start while LTE is active: no ktune.
    for (auto [key, value] :
         {std::pair{"pppoe_servicename", "my isp"}, {"pppoe_localip", "10.1.2.3"},
          {"pppoe_ip_sel", "1"}, {"wwan_wan_type", "2"}, {"wan_proto", "pppoe"},
          {"current_ifname", "rm_usb0"}})
        set(key, value);
    EXPECT_EQ(start(), "pppd executed successfully. (0)\n");
    EXPECT_EQ(options(), std::string("defaultroute\npty 'pppoecd -I eth0 -S my\\\\\\ isp'\n"
                                     "noauth\nuser \"us\\\"er\"\nmtu 1492\nmru 1492\nholdoff 5\n"
                                     "persist\nlcp-echo-interval 10\nlcp-echo-failure 3\n"
                                     "maxfail 0\ndisconnect 'killall pppoecd'\n10.1.2.3:\n"
                                     "ipcp-accept-remote\nnoipdefault\n") +
                             kLinkLines + "pap-max-authreq 3\nchap-max-challenge 3\n");
    for (const char *secrets : {"/tmp/ppp/pap-secrets", "/tmp/ppp/chap-secrets"})
        EXPECT_EQ(testroot::read_file(secrets), "\"us\\\"er\" * \"p\\\"a%s\\$\" *\n");
    EXPECT_EQ(mode("/tmp/ppp/options") + mode("/tmp/ppp/chap-secrets"), 2 * 0666u);
    EXPECT_EQ(node("/dev/ptys0") + ", " + node("/dev/ttys0") + node("/dev/ptys1"),
              "c 2 48 600, c 3 48 600");
    EXPECT_THAT(testroot::calls_of("pppd"),
                ElementsAre(ElementsAre("pppd", "file", "/tmp/ppp/options")));
    EXPECT_FALSE(testroot::exists("/tmp/ppp/no_ppp2"));

    start();  // the nodes are there now: mknod fails harmlessly
    EXPECT_EQ(
        err_,
        "Unable to create /dev/ptys0: File exists\nUnable to create /dev/ttys0: File exists\n");
}

TEST_F(Pppoe, Mtu_ClampedUnsignedToRegionCapAndWrittenBack) {
    using Case = std::tuple<const char *, const char *, const char *, const char *>;
    for (auto [sku, region, mtu, expected] :
         {Case{"", "", "1500", "1492"}, Case{"JP", "", "1500", "1454"},
          Case{"WW", "Japanese", "1500", "1454"}, Case{"WW", "English", "1500", "1492"},
          Case{"", "", "1400", "1400"}, Case{"", "", "-5", "1492"}, Case{"", "", "", "0"},
          Case{"", "", "99999999999999999999", "1492"}}) {
        SCOPED_TRACE(std::string(sku) + "/" + region + " wan_mtu=" + mtu);
        set("sku_name", sku);
        set("gui_region", region);
        set("wan_mtu", mtu);
        start();
        EXPECT_THAT(options(),
                    HasSubstr(std::string("\nmtu ") + expected + "\nmru " + expected + "\n"));
        EXPECT_EQ(get("wan_mtu"), expected);
    }
}

TEST_F(Pppoe, DialOnDemand_IdleGivesDemandZeroIdleGivesPersist_AndRunsWanUp) {
    set("pppoe_dod", "1");
    for (auto [idle, tail] : {std::pair{"5", "challenge 3\nidle 5\ndemand\n"},
                              std::pair{"0", "challenge 3\npersist\n"}}) {
        set("pppoe_idletime", idle);
        testroot::clear_logs();
        EXPECT_EQ(start(), "pppd executed successfully. (0)\n");
        EXPECT_THAT(options(), testing::EndsWith(tail));
        EXPECT_THAT(options(), Not(HasSubstr("holdoff 5\npersist")));
        EXPECT_TRUE(wan_up_ran());
    }
}

TEST_F(Pppoe, JapanRegion_WritesSecondSessionAppendsItsSecretsAndFlagsItsLaunch) {
    // Idle 0 on demand: no "persist" fallback for session 2.
    for (auto [key, value] :
         {std::pair{"sku_name", "JP"}, {"pppoe2_username", "second"}, {"pppoe2_passwd", "pw`2"},
          {"pppoe2_servicename", "flets"}, {"pppoe2_localip", "10.9.9.9"}, {"pppoe2_dod", "1"},
          {"pppoe2_idletime", "0"}, {"pppoe2_server_mac", "00:aa:bb:cc:dd:ee"},
          {"pppoe2_session_id", "7"}})
        set(key, value);
    for (int run = 0; run < 2; ++run) start();  // session 1 rewrites the secrets: no pile-up
    EXPECT_EQ(testroot::read_file("/tmp/ppp/peers/options"),
              std::string("pty '/tmp/pppoecd2 -I eth0 -S flets -P 1'\nnoauth\nuser \"second\"\n"
                          "mtu 1454\nmru 1454\nholdoff 5\nlcp-echo-interval 20\n"
                          "lcp-echo-failure 3\nmaxfail 0\n"
                          "disconnect 'killall pppoecd2 2> /dev/null'\n10.9.9.9:\n"
                          "ipcp-accept-remote\nnoipdefault\nktune\n") +
                  kLinkLines + "unit 1\n");
    EXPECT_THAT(options(),
                HasSubstr("disconnect 'killall pppoecd 2> /dev/null'\nipcp-accept-local\n"));
    EXPECT_THAT(options(), HasSubstr("usepeerdns\nunit 0\npap-max-authreq 3\n"));
    EXPECT_EQ(testroot::read_file("/tmp/ppp/pap-secrets"),
              "\"us\\\"er\" * \"p\\\"a%s\\$\" *\n\"second\" * \"pw\\`2\" *\n");
    EXPECT_EQ(testroot::read_file("/tmp/ppp/pppoe2_session"), "00:aa:bb:cc:dd:ee 7\n");
    EXPECT_EQ(node("/dev/ptys1") + ", " + node("/dev/ttys1"), "c 2 49 600, c 3 49 600");
    EXPECT_TRUE(testroot::exists("/tmp/ppp/no_ppp2"));
}

TEST_F(Pppoe, ManualMode_WritesEverythingButStartsNoPppdAndPrintsNothing) {
    set("pppoe_dod", "2");
    set("sku_name", "JP");
    EXPECT_EQ(start(), "");
    EXPECT_TRUE(testroot::exists("/tmp/ppp/peers/options"));
    EXPECT_EQ(node("/dev/ttys1"), "c 3 49 600");
    EXPECT_TRUE(testroot::calls_of("pppd").empty());
    EXPECT_FALSE(testroot::exists("/tmp/ppp/no_ppp2"));
}

TEST_F(Pppoe, SecondSessionFailures_LeaveItOutAndStartTheFirst) {
    set("sku_name", "JP");
    set("pppoe2_localip", "0.0.0.0");
    using Break = void (*)();
    for (auto [broken, report] :
         {std::pair<Break, const char *>{
              [] { set("pppoe2_servicename", "isp\nconnect x"); },
              "start_pppoe_session: refused pppoe2_servicename \"isp\\nconnect x\": not a "
              "single line\n"},
          {[] { std::filesystem::remove_all("/tmp/ppp/peers"); },
           "/tmp/ppp/peers/options: No such file or directory\n"}}) {
        set("pppoe2_servicename", "");
        mkdir("/tmp/ppp/peers", 0777);
        start();  // a whole start leaves session 2's files and its flag
        ASSERT_TRUE(testroot::exists("/tmp/ppp/peers/options") &&
                    testroot::exists("/tmp/ppp/no_ppp2"));
        broken();
        unlink("/dev/ptys0");
        testroot::clear_logs();

        EXPECT_EQ(start(), "pppd executed successfully. (0)\n");
        // The Japan region's second pty pair is made all the same (it exists from the first start).
        EXPECT_EQ(err_, std::string(report) + "start_pppoe_session: second PPPoE session left out\n"
                                              "Unable to create /dev/ttys0: File exists\n"
                                              "Unable to create /dev/ptys1: File exists\n"
                                              "Unable to create /dev/ttys1: File exists\n");
        EXPECT_FALSE(testroot::exists("/tmp/ppp/peers/options") ||
                     testroot::exists("/tmp/ppp/no_ppp2"));
        EXPECT_EQ(node("/dev/ptys0"), "c 2 48 600");
        EXPECT_EQ(testroot::calls_of("pppd").size(), 1u);
        EXPECT_EQ(testroot::read_file("/tmp/ppp/chap-secrets"),
                  "\"us\\\"er\" * \"p\\\"a%s\\$\" *\n");  // session 1's line alone
    }
}

TEST_F(Pppoe, FullTmp_WriteReportedWithPathOldFileKeptNoPppd) {
    ASSERT_EQ(mount("tmpfs", "/tmp/ppp", "tmpfs", 0, "size=8k"), 0);
    testroot::write_file("/tmp/ppp/options", "old options\n");
    int fd = open("/tmp/ppp/filler", O_WRONLY | O_CREAT, 0600);
    const std::string block(512, 'x');
    while (write(fd, block.data(), block.size()) > 0) {
    }
    close(fd);

    EXPECT_EQ(start(), "");
    EXPECT_EQ(err_, "/tmp/ppp/options: No space left on device\n");
    EXPECT_EQ(options(), "old options\n");
    EXPECT_TRUE(testroot::calls_of("pppd").empty());
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator("/tmp/ppp"))
        names.push_back(entry.path().filename());
    EXPECT_THAT(names, testing::UnorderedElementsAre("filler", "options"));
}

TEST_F(Pppoe, RussianDualAccess_StartsUdhcpcWithoutWaitingUnlessStatic) {
    set("sku_name", "RU");
    set("wan_hostname", "home");
    EXPECT_EQ(start(), "Dynamic IP by DHCP client.\npppd executed successfully. (0)\n");
    EXPECT_EQ(get("pppoe_dhcp_enabled"), "0");
    EXPECT_TRUE(testroot::wait_for([] { return !testroot::calls_of("/usr/sbin/udhcpc").empty(); }));
    EXPECT_THAT(testroot::calls_of("/usr/sbin/udhcpc")[0],
                ElementsAre("/usr/sbin/udhcpc", "-i", "eth0", "-p", "/var/run/udhcpc0.pid", "-s",
                            "/tmp/udhcpc", "-H", "home"));
    set("static_pppoe_enable", "1");
    EXPECT_EQ(start(), "Static IP by user defined.\npppd executed successfully. (0)\n");
}

TEST_F(Pppoe, ResumeFile_OnlyWithAMacAndSessionIdFitToResume_ElseNoneLeft) {
    using Case = std::tuple<const char *, const char *, const char *, const char *>;
    for (auto [mac, id, content, report] :
         {Case{"00:11:22:33:44:55", "7", "00:11:22:33:44:55 7\n", ""},
          Case{"00:11:22:33:44:55", "0", "", ""}, Case{"", "7", "", ""},
          Case{"00:11 #x", "7", "",
               "start_pppoe_session: refused pppoe_server_mac \"00:11 #x\": not a single word\n"},
          Case{"00:11:22:33:44:55", "7\nx", "",
               "start_pppoe_session: refused pppoe_session_id \"7\\nx\": not a number\n"}}) {
        SCOPED_TRACE(std::string(mac) + " " + id);
        testroot::write_file("/tmp/ppp/pppoe_session", "00:99:99:99:99:99 1\n");  // an old one
        set("pppoe_server_mac", mac);
        set("pppoe_session_id", id);
        EXPECT_EQ(start(), "pppd executed successfully. (0)\n");
        EXPECT_EQ(testroot::exists("/tmp/ppp/pppoe_session")
                      ? testroot::read_file("/tmp/ppp/pppoe_session")
                      : "",
                  content);
        const bool refused = *report != '\0';
        EXPECT_EQ(err_.find(refused ? report : "refused") != std::string::npos, refused) << err_;
    }
}

TEST_F(Pppoe, LongValues_CutAt63CharactersAndEscapedWithinTheirBuffers) {
    set("pppoe_username", std::string(200, '"'));
    set("pppoe_servicename", std::string(200, ' '));
    set("wan_ifname", "a-very-long-interface-name");
    start();
    std::string spaces, quotes;
    for (int i = 0; i < 63; ++i) spaces += "\\\\\\ ", quotes += "\\\"";
    EXPECT_THAT(options(), HasSubstr("pty 'pppoecd -I a-very-long-int -S " + spaces + "'\n"));
    EXPECT_THAT(options(), HasSubstr("\nuser \"" + quotes + "\"\n"));

    char dst[2 * 40 + 1];
    const std::string specials = " !\"#$&'()*,;<>?[\\]^`{|}~", plain = "%+-./:=@_aZ9";
    std::string escaped;
    for (char c : specials) escaped += std::string("\\") + c;
    const std::string src = specials + plain;
    EXPECT_STREQ(escape_shell_string(src.c_str(), dst, src.size()), (escaped + plain).c_str());
    EXPECT_EQ(escape_shell_string(nullptr, dst, 3), nullptr);
}

TEST_F(Pppoe, OptionsFiles_AcceptedByDebianPppd) {
    for (auto [key, value] : {std::pair{"pppoe_servicename", "my isp"}, {"pppoe_dod", "1"},
                              {"pppoe_idletime", "5"}, {"sku_name", "JP"}, {"pppoe2_localip", "0.0.0.0"}})
        set(key, value);
    start();
    // pppd leaves "my\ isp" for the pty command's shell (and shows the backslash doubled).
    EXPECT_THAT(pppd_dryrun("/tmp/ppp/options").second,
                HasSubstr("pty pppoecd -I eth0 -S my\\\\ isp\t"));
    for (int ipv6 = 0; ipv6 < 2; ++ipv6) {
        for (const char *file : {"/tmp/ppp/options", "/tmp/ppp/peers/options"}) {
            auto [status, output] = pppd_dryrun(file);
            EXPECT_EQ(status, 0) << file << "\n" << output;
            EXPECT_THAT(output, Not(HasSubstr("warning"))) << file;
        }
        set("ipv6_pppoe_single_session", "1");  // IPv6 over the same session forces always-on
        ASSERT_EQ(chdir("/"), 0);  // its hook links are relative to the working directory
        start();
    }
    EXPECT_EQ(get("pppoe_dod"), "0");
    EXPECT_THAT(options(), HasSubstr("ipcp-accept-local\n+ipv6\nipv6 , \nipcp-accept-remote\n"));
    EXPECT_TRUE(testroot::exists("/tmp/ppp/ipv6-up"));
}

}  // namespace
