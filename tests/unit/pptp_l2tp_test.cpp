// What the PPP session cases (tests/cases/pppoe, pptp, l2tp) cannot do: a DHCP lease arriving
// while a tunnel start waits, xl2tpd reading our configuration, and a full /tmp.
#include "platform/nvram.h"
#include "tests/support/testroot.h"
#include "wan/ppp_sessions.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

using testing::ElementsAre;

namespace {

void set(const char *key, const char *value) { veskNvramConfig_set(key, value); }

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

class PppSession : public testing::Test {
protected:
    void SetUp() override {
        testroot::reset();
        mkdir("/tmp/ppp", 0777);
        for (auto [key, value] :
             {std::pair{"wan_ifname", "veth0"}, {"wan_mtu", "1400"}, {"pptp_username", "user"},
              {"pptp_serv_ip", "192.0.2.1"}, {"pptp_dod", "1"}, {"l2tp_user_name", "office-user"},
              {"l2tp_serv_ip", "192.0.2.1"}, {"l2tp_conn_id", "office"}, {"l2tp_dod", "0"},
              {"pppoe_username", "user"}, {"pppoe_dod", "0"}})
            set(key, value);
    }
};

// Without a static address the start runs udhcpc on the WAN interface and launches pppd only
// once the DHCP event script has set the lease key.
TEST_F(PppSession, TunnelDhcp_WaitsForTheLeaseThenLaunchesPppd) {
    using Start = void (*)(const char *, int);
    // PPTP runs the client on the interface it was given, L2TP on wan_ifname.
    for (auto [start, lease_key, parameters, client_ifname] :
         {std::tuple<Start, const char *, const char *, const char *>{
              start_pptp_session, "pptp_dhcp_enabled", "/tmp/ppp/pptpIp", "eth9"},
          {start_l2tp_session, "l2tp_dhcp_enabled", "/tmp/ppp/l2tpIp", "veth0"}}) {
        SCOPED_TRACE(lease_key);
        testroot::clear_logs();
        pid_t pid = in_child("/tmp/child.console", [start] {
            setenv("SLEEP_SHIM_DIVISOR", "1000", 1);  // the lease poll keeps a pace
            start("eth9", 0);
        });
        ASSERT_TRUE(testroot::wait_for([] { return !testroot::calls_of("/usr/sbin/udhcpc").empty(); }));
        EXPECT_EQ(std::string(veskNvramConfig_get(lease_key)), "0");
        EXPECT_TRUE(testroot::calls_of("pppd").empty());
        set(lease_key, "1");
        ASSERT_TRUE(testroot::wait_for([&] { return waitpid(pid, nullptr, WNOHANG) == pid; }));
        EXPECT_THAT(testroot::calls_of("/usr/sbin/udhcpc"),
                    ElementsAre(ElementsAre("/usr/sbin/udhcpc", "-i", client_ifname, "-p", "/var/run/udhcpc0.pid",
                                            "-s", "/tmp/udhcpc")));
        EXPECT_EQ(testroot::calls_of("pppd").size(), 1u);
        EXPECT_EQ(testroot::read_file(parameters).rfind("veth0\n", 0), 0u);
    }
}

TEST_F(PppSession, L2tpConfiguration_AcceptedByXl2tpd) {
    set("static_l2tp_enable", "1");
    start_l2tp_session("veth0", 0);
    // In the foreground it says that it listens once it has taken the configuration.
    pid_t pid = in_child("/tmp/xl2tpd.log", [] {
        execl("/host/usr/sbin/xl2tpd", "xl2tpd", "-D", "-c", "/tmp/l2tp/l2tpd.conf", "-p",
              "/tmp/xl2tpd.pid", "-C", "/tmp/xl2tpd.control", static_cast<char *>(nullptr));
        _exit(127);
    });
    EXPECT_TRUE(testroot::wait_for([] {
        return testroot::read_file("/tmp/xl2tpd.log").find("Listening on IP address") != std::string::npos;
    })) << testroot::read_file("/tmp/xl2tpd.log");
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
}

// A full /tmp: the write is reported with its path, the old options stay, no pppd starts and no
// temporary file is left.
TEST_F(PppSession, PppoeOnFullTmp_KeepsTheOldOptionsAndStartsNoPppd) {
    ASSERT_EQ(mount("tmpfs", "/tmp/ppp", "tmpfs", 0, "size=8k"), 0);
    testroot::write_file("/tmp/ppp/options", "old options\n");
    int fd = open("/tmp/ppp/filler", O_WRONLY | O_CREAT, 0600);
    const std::string block(512, 'x');
    while (write(fd, block.data(), block.size()) > 0) {
    }
    close(fd);
    testing::internal::CaptureStderr();
    start_pppoe_session("eth0", 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "/tmp/ppp/options: No space left on device\n");
    EXPECT_EQ(testroot::read_file("/tmp/ppp/options"), "old options\n");
    EXPECT_TRUE(testroot::calls_of("pppd").empty());
    int entries = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/tmp/ppp")) entries += entry.is_regular_file();
    EXPECT_EQ(entries, 2);  // filler and options
}

}  // namespace
