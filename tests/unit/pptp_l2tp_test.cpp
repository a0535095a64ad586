// The PPTP and L2TP session starts in the test root, and their files read by pppd and xl2tpd.
#include "platform/nvram.h"
#include "tests/support/testroot.h"
#include "tests/unit/ppp_checks.h"
#include "wan/ppp_sessions.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

using namespace ppp_checks;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

using Start = void (*)(const char *, int);

void set(const char *key, const std::string &value) { veskNvramConfig_set(key, value.c_str()); }
std::string get(const char *key) { return veskNvramConfig_get(key); }
std::string file(const char *path) { return testroot::read_file(path); }

// The route commands started through _eval_daemon, as JSON arrays.
std::vector<std::string> route_commands() {
    std::vector<std::string> commands;
    const std::string prefix = "{\"fn\":\"_eval_daemon\",\"args\":[";
    for (const std::string &line : testroot::trace())
        if (line.rfind(prefix + "[\"route\"", 0) == 0)
            commands.push_back(line.substr(prefix.size(), line.find(']') - prefix.size() + 1));
    return commands;
}

// Runs `run` in a child with standard output and error in `log`.
template <class F> pid_t in_child(const char *log, F run) {
    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        int fd = open(log, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, 1);
        dup2(fd, 2);
        run();
        std::fflush(nullptr);
        _exit(0);
    }
    return pid;
}

std::string start_here(Start start, const char *ifname) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    start(ifname, 0);
    std::string out = testing::internal::GetCapturedStdout();
    return out + testing::internal::GetCapturedStderr();
}

// Console of a start in a child, as the Ethernet WAN start runs it; once udhcpc was started, the
// DHCP event script is played here by setting `lease_key` to "1".
std::string start_with_lease(Start start, const char *ifname, const char *lease_key) {
    pid_t pid = in_child("/tmp/child.console", [&] {
        setenv("SLEEP_SHIM_DIVISOR", "1000", 1);  // the lease poll keeps a pace
        start(ifname, 0);
    });
    EXPECT_TRUE(testroot::wait_for([] { return !testroot::calls_of("/usr/sbin/udhcpc").empty(); }));
    EXPECT_EQ(get(lease_key), "0");
    set(lease_key, "1");
    EXPECT_TRUE(testroot::wait_for([&] { return waitpid(pid, nullptr, WNOHANG) == pid; }));
    return file("/tmp/child.console");
}

class Tunnel : public testing::Test {
protected:
    void SetUp() override {
        testroot::reset();
        mkdir("/tmp/ppp", 0777);
        testroot::write_file("/tmp/resolv.conf", "");
        for (auto [key, value] :
             {std::pair{"wan_ifname", "veth0"}, {"wan_mtu", "1400"}, {"pptp_username", "us\"er"},
              {"pptp_passwd", "pa$s"}, {"pptp_serv_ip", "192.0.2.1"}, {"pptp_localip", "0.0.0.0"},
              {"l2tp_user_name", "us\"er"}, {"l2tp_user_passwd", "p`w"},
              {"l2tp_serv_ip", "192.0.2.1"}, {"l2tp_conn_id", "office"},
              {"l2tp_localip", "0.0.0.0"}})
            set(key, value);
        testroot::clear_logs();
    }
};

TEST_F(Tunnel, PptpDhcpOnDemand_WritesFilesWaitsForLeaseThenLaunchesWithWanUp) {
    set("pptp_gateway", "10.0.0.1");  // not used without a static address
    set("pptp_dod", "1");
    set("pptp_idletime", "5");
    EXPECT_EQ(start_with_lease(start_pptp_session, "eth0", "pptp_dhcp_enabled"),
              "Dynamic IP by DHCP client.\npppd executed successfully. (0)\n");
    EXPECT_EQ(file("/tmp/ppp/pptpIp"), "veth0\npptp_serv_ip 192.0.2.1\npptp_user_ip 0.0.0.0\n"
                                       "pptp_gateway_ip 192.0.2.1\npptp_user_netmask 0.0.0.0\n");
    EXPECT_EQ(file("/tmp/ppp/options"),
              std::string("defaultroute\npty 'pptp 192.0.2.1 --nolaunchpppd'\nnoauth\n"
                          "user \"us\\\"er\"\nmtu 1400\nmru 1436\nholdoff 5\n"
                          "lcp-echo-interval 10\nlcp-echo-failure 3\n"
                          "disconnect 'killall pptp'\nmaxfail 0\nconnect echo\n"
                          "ipcp-accept-local\nipcp-accept-remote\nnoipdefault\nktune\n") +
                  kLinkLines + "idle 300\ndemand\n");
    EXPECT_EQ(file("/tmp/ppp/chap-secrets"), "\"us\\\"er\" * \"pa\\$s\" *\n");
    EXPECT_EQ(node("/dev/ptys0") + ", " + node("/dev/ttys0"), "c 2 48 600, c 3 48 600");
    EXPECT_THAT(testroot::calls_of("/usr/sbin/udhcpc")[0],
                ElementsAre("/usr/sbin/udhcpc", "-i", "eth0", "-p", "/var/run/udhcpc0.pid", "-s",
                            "/tmp/udhcpc"));
    EXPECT_EQ(testroot::calls_of("pppd").size(), 1u);
    EXPECT_EQ(testroot::sleeps_us().at(0), 1000000u);
    EXPECT_TRUE(wan_up_ran());
}

TEST_F(Tunnel, L2tpDhcp_StartsUdhcpcOnWanIfnameAndWaitsForLease) {
    set("l2tp_dod", "0");
    EXPECT_EQ(start_with_lease(start_l2tp_session, "eth9", "l2tp_dhcp_enabled"),
              "Dynamic IP by DHCP client.\npppd executed successfully. (0)\n");
    EXPECT_THAT(testroot::calls_of("/usr/sbin/udhcpc")[0], testing::Contains("veth0"));
}

TEST_F(Tunnel, Mtu_PptpClampsUnsignedWritesBackOnlyWhenClamped_L2tpSignedAlwaysStored) {
    set("static_pptp_enable", "1");
    set("pptp_gateway", "...");  // no gateway: the server stands in for it
    set("static_l2tp_enable", "1");
    set("l2tp_conn_id", "");
    using Case = std::tuple<Start, const char *, const char *, const char *>;
    for (auto [start, mtu, lines, stored] :
         {Case{start_pptp_session, "1500", "mtu 1436\nmru 1436\n", "1436"},
          Case{start_pptp_session, "1400", "mtu 1400\nmru 1436\n", "1400"},
          Case{start_pptp_session, "-5", "mtu 1436\nmru 1436\n", "1436"},
          Case{start_pptp_session, "", "mtu 0\nmru 1436\n", ""},
          Case{start_l2tp_session, "1500", "mtu 1428\nmru 1428\n", "1428"},
          Case{start_l2tp_session, "-1", "mtu -1\nmru -1\n", "-1"},
          Case{start_l2tp_session, "", "mtu 0\nmru 0\n", "0"}}) {
        SCOPED_TRACE(std::string("wan_mtu=") + mtu);
        set("wan_mtu", mtu);
        start_here(start, "veth0");
        EXPECT_THAT(file("/tmp/ppp/options"), HasSubstr(std::string("\n") + lines));
        EXPECT_EQ(get("wan_mtu"), stored);
    }
    EXPECT_THAT(file("/tmp/ppp/pptpIp"), HasSubstr("\npptp_gateway_ip 192.0.2.1\n"));
    EXPECT_THAT(file("/tmp/l2tp/l2tpd.conf"), testing::StartsWith("[lac ]\nlns"));
    EXPECT_EQ(file("/tmp/l2tp/l2tpd.info"), "");
}

TEST_F(Tunnel, PptpStaticUserDns_MergesResolverAndRoutesServersOutsideSubnetOnly) {
    for (auto [key, value] : {std::pair{"static_pptp_enable", "1"}, {"pptp_user_ip", "10.0.0.2"},
                              {"pptp_gateway", "10.0.0.1"}, {"pptp_dod", "0"}, {"wan_dns_sel", "1"},
                              {"wan_dns1", " 10.9.9.9  198.51.100.53 198.51.100.54"}})
        set(key, value);
    testroot::write_file("/tmp/resolv.conf", "nameserver\t198.51.100.53\n");
    EXPECT_EQ(start_here(start_pptp_session, "veth0"),
              "Static IP by user defined.\npppd executed successfully. (0)\n");
    // Written before the empty mask gets its default.
    EXPECT_EQ(file("/tmp/ppp/pptpIp"), "veth0\npptp_serv_ip 192.0.2.1\npptp_user_ip 10.0.0.2\n"
                                       "pptp_gateway_ip 10.0.0.1\npptp_user_netmask \n");
    EXPECT_EQ(get("pptp_user_netmask"), "255.0.0.0");
    EXPECT_EQ(get("pptp_dhcp_dns"), " 10.9.9.9  198.51.100.53 198.51.100.54");
    EXPECT_EQ(file("/tmp/resolv.conf"),
              "nameserver\t198.51.100.53\nnameserver 10.9.9.9\nnameserver 198.51.100.54\n");
    EXPECT_THAT(route_commands(),
                ElementsAre(R"(["route","add","-host","198.51.100.53","gw","10.0.0.1"])",
                            R"(["route","add","-host","198.51.100.54","gw","10.0.0.1"])"));
    EXPECT_EQ(get("second_wan_status"), "1");

    // A later start takes every remembered server's route away first.
    testroot::clear_logs();
    set("wan_dns1", "198.51.100.99");
    start_here(start_pptp_session, "veth0");
    EXPECT_THAT(route_commands(),
                ElementsAre(R"(["route","del","10.9.9.9","gw","10.0.0.1"])",
                            R"(["route","del","198.51.100.53","gw","10.0.0.1"])",
                            R"(["route","del","198.51.100.54","gw","10.0.0.1"])",
                            R"(["route","add","-host","198.51.100.99","gw","10.0.0.1"])"));
}

TEST_F(Tunnel, L2tpStatic_WritesItsFilesWithRawUserNameAndDecidesWanUpByPptpDod) {
    for (auto [key, value] :
         {std::pair{"static_l2tp_enable", "1"}, {"l2tp_user_ip", "10.0.0.2"},
          {"l2tp_user_netmask", "255.255.255.0"}, {"l2tp_gateway_ip", "10.0.0.1"},
          {"l2tp_dod", "1"}, {"l2tp_idle_time", "2"}, {"pptp_dod", "0"}})
        set(key, value);
    EXPECT_EQ(start_here(start_l2tp_session, "ignored0"),
              "Static IP by user defined.\npppd executed successfully. (0)\n");
    EXPECT_EQ(file("/tmp/l2tp/l2tpd.conf"),
              "[lac office]\nlns = 192.0.2.1\nname = us\"er\nppp debug = yes\n"
              "pppoptfile = /tmp/ppp/options\nlength bit = yes\nrequire authentication = yes\n");
    EXPECT_EQ(file("/tmp/l2tp/l2tpd.info"), "office");
    EXPECT_EQ(file("/tmp/ppp/l2tpIp"), "veth0\nl2tp_serv_ip 192.0.2.1\nl2tp_user_ip 10.0.0.2\n"
                                       "l2tp_gateway_ip 10.0.0.1\nl2tp_user_netmask 255.255.255.0\n");
    EXPECT_EQ(file("/tmp/ppp/options"),
              std::string("defaultroute\npty 'l2tpd -D -c /tmp/l2tp/l2tpd.conf'\nnoauth\n"
                          "user \"us\"er\"\nmtu 1400\nmru 1400\nholdoff 5\n"
                          "lcp-echo-interval 10\nlcp-echo-failure 3\nmaxfail 0\nconnect echo\n"
                          "disconnect 'killall l2tpd'\nlcp-restart 5\nipcp-restart 5\n"
                          "ipcp-accept-local\nipcp-accept-remote\nnoipdefault\nktune\n") +
                  kLinkLines + "linkname 0\nidle 120\ndemand\n");
    EXPECT_EQ(file("/tmp/ppp/pap-secrets"), "\"us\\\"er\" * \"p\\`w\" *\n");
    EXPECT_EQ(mode("/tmp/l2tp") + mode("/tmp/l2tp/l2tpd.conf"), 0777u + 0666u);
    EXPECT_EQ(node("/dev/ptys2") + ", " + node("/dev/ttys1"), "c 2 50 600, c 3 49 600");
    EXPECT_EQ(testroot::calls_of("pppd").size(), 1u);
    EXPECT_FALSE(wan_up_ran());
}

TEST_F(Tunnel, Failures_EndTheStartWithTheirOwnMessages) {
    mkdir("/tmp/ppp/pap-secrets", 0777);
    for (Start start : {start_pptp_session, start_l2tp_session})
        EXPECT_EQ(start_here(start, "veth0"), "/tmp/ppp/pap-screts: Is a directory\n");
    rmdir("/tmp/ppp/pap-secrets");

    set("static_pptp_enable", "1");
    set("wan_dns_sel", "1");
    set("pptp_dod", "0");
    unlink("/tmp/resolv.conf");
    EXPECT_THAT(start_here(start_pptp_session, "veth0"),
                testing::EndsWith("/tmp/resolv.conf: No such file or directory\n"));
    EXPECT_TRUE(testroot::calls_of("pppd").empty());

    unlink("/testbin/pppd");  // no pppd anywhere on PATH
    unlink("/sbin/pppd");
    set("wan_dns_sel", "0");
    set("static_l2tp_enable", "1");
    set("l2tp_dod", "1");
    EXPECT_THAT(start_here(start_pptp_session, "veth0"),
                HasSubstr("\nFailed to execute pppd. (-1)\n"));
    EXPECT_THAT(start_here(start_l2tp_session, "veth0"),
                HasSubstr("\nFailed to execute l2tpd. (-1)\n"));

    std::filesystem::remove_all("/tmp/ppp");
    EXPECT_EQ(start_here(start_pptp_session, "veth0"),
              "/tmp/ppp/pptpIp: No such file or directory\n");
}

TEST_F(Tunnel, Files_AcceptedByDebianPppdAndXl2tpd) {
    set("l2tp_user_name", "office-user");  // a raw double quote would end pppd's "user" word
    set("pptp_idletime", "5");
    set("l2tp_idle_time", "5");
    for (auto [start, prefix] : {std::pair<Start, std::string>{start_pptp_session, "pptp_"},
                                 {start_l2tp_session, "l2tp_"}}) {
        set((prefix + "dod").c_str(), "1");
        set(("static_" + prefix + "enable").c_str(), "1");
        start_here(start, "veth0");
        auto [status, output] = pppd_dryrun("/tmp/ppp/options");
        EXPECT_EQ(status, 0) << prefix << output;
        EXPECT_THAT(output, testing::Not(HasSubstr("warning"))) << prefix;
    }

    auto xl2tpd = [](const char *log) {
        return in_child(log, [] {
            execl("/host/usr/sbin/xl2tpd", "xl2tpd", "-D", "-c", "/tmp/l2tp/l2tpd.conf", "-p",
                  "/tmp/xl2tpd.pid", "-C", "/tmp/xl2tpd.control", static_cast<char *>(nullptr));
            _exit(127);
        });
    };
    // In the foreground it says that it listens once it has taken the configuration.
    pid_t pid = xl2tpd("/tmp/xl2tpd.log");
    EXPECT_TRUE(testroot::wait_for([] {
        return file("/tmp/xl2tpd.log").find("Listening on IP address") != std::string::npos;
    })) << file("/tmp/xl2tpd.log");
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    // The same check refuses a field it does not know.
    testroot::write_file("/tmp/l2tp/l2tpd.conf", file("/tmp/l2tp/l2tpd.conf") + "no such field = 1\n");
    int status = 0;
    waitpid(xl2tpd("/tmp/xl2tpd.bad.log"), &status, 0);
    EXPECT_NE(WEXITSTATUS(status), 0);
    EXPECT_THAT(file("/tmp/xl2tpd.bad.log"), HasSubstr("Unknown field"));
}

}  // namespace
