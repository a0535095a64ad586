// What the NAT table the router loads with the real nft does to real packets, and what the real
// conntrack holds, between a LAN host, the router and an ISP, each in a network namespace.
#include "platform/host/nat_runner.h"
#include "platform/nat.h"
#include "platform/nvram.h"
#include "services/wan_up.h"
#include "tests/support/testroot.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

using testing::HasSubstr;
using testing::Not;
using namespace std::string_literals;

namespace {

int status_of(pid_t pid) {
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Runs a program of the machine, path and arguments separated by blanks, and returns its exit
// status; its output is dropped.
int exec_here(const std::string &command) {
    pid_t pid = fork();
    if (pid == 0) {
        std::istringstream words(command);
        std::vector<std::string> argv{std::istream_iterator<std::string>(words), {}};
        std::vector<char *> args;
        for (std::string &a : argv) args.push_back(a.data());
        args.push_back(nullptr);
        dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
        execv(args[0], args.data());
        _exit(127);
    }
    return status_of(pid);
}

int ip_here(const std::string &command) { return exec_here("/host/usr/bin/ip " + command); }

// A network namespace held by a stopped child (the test root has no /proc to name it by);
// others enter it through the child's pidfd. What was started in it ends with it.
class Namespace {
public:
    Namespace() {
        if ((holder_ = fork()) == 0) {
            if (unshare(CLONE_NEWNET) == 0) raise(SIGSTOP);
            _exit(1);
        }
        int status = 0;
        if (waitpid(holder_, &status, WUNTRACED) == holder_ && WIFSTOPPED(status))
            pidfd_ = static_cast<int>(syscall(SYS_pidfd_open, holder_, 0));
        run_ip("link set lo up");
    }
    ~Namespace() {
        started_.push_back(holder_);
        for (pid_t pid : started_) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        close(pidfd_);
    }

    pid_t pid() const { return holder_; }  // for "ip link ... netns PID"
    // Runs `fn` in a child inside the namespace; the result is its exit status.
    int run(const std::function<int()> &fn) const { return status_of(enter(fn)); }
    void start(const std::function<int()> &fn) { started_.push_back(enter(fn)); }
    int run_ip(const std::string &command) const {
        return run([&] { return ip_here(command); });
    }

private:
    pid_t enter(const std::function<int()> &fn) const {
        pid_t pid = fork();
        if (pid == 0) _exit(setns(pidfd_, CLONE_NEWNET) == 0 ? fn() : 126);
        return pid;
    }

    pid_t holder_ = -1;
    int pidfd_ = -1;
    std::vector<pid_t> started_;
};

// ---- Real packets: LAN host -- br0 [router] eth0 / rm_usb0 -- ISP with the server ----

sockaddr_in address_of(const char *address, int port) {
    return {AF_INET, htons(static_cast<uint16_t>(port)), {inet_addr(address)}, {}};
}

int bound(int type, const char *address, int port) {
    int s = socket(AF_INET, type, 0), one = 1;
    setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a = address_of(address, port);
    if (bind(s, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) return -1;
    return type == SOCK_STREAM && listen(s, 16) != 0 ? -1 : s;
}

// The server answers every datagram with the address it came from.
int udp_echo_server() {
    int s = bound(SOCK_DGRAM, "203.0.113.1", 9000);
    for (char buf[64];;) {
        sockaddr_in from{};
        socklen_t len = sizeof from;
        if (recvfrom(s, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &len) < 0)
            continue;
        std::string text = inet_ntoa(from.sin_addr) + std::string("\n");
        sendto(s, text.data(), text.size(), 0, reinterpret_cast<sockaddr *>(&from), len);
    }
}

// One LAN flow: a datagram every 20 ms from one source port; the answers appended to `log`.
int udp_stream(const char *log) {
    int s = bound(SOCK_DGRAM, "0.0.0.0", 40000);
    timeval tick{0, 20000};
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tick, sizeof tick);
    FILE *out = std::fopen(log, "a");
    sockaddr_in to = address_of("203.0.113.1", 9000);
    for (char buf[64];;) {
        sendto(s, "x", 1, 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
        ssize_t n = recv(s, buf, sizeof buf, 0);
        if (n > 0 && std::fwrite(buf, 1, static_cast<size_t>(n), out) > 0) std::fflush(out);
    }
}

// 0 when a TCP connection to address:port is made within half a second.
int tcp_connects(const char *address, int port) {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    timeval half{0, 500000};
    setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, &half, sizeof half);
    sockaddr_in a = address_of(address, port);
    return connect(s, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 ? 0 : 1;
}

class NatKernel : public testing::Test {
protected:
    void SetUp() override {
        testroot::reset();
        // The real programs ahead of the stand-ins; the kernel's sysctl tree under /proc/sys.
        setenv("PATH", ("/host/usr/sbin:/host/usr/bin:" + std::string(getenv("PATH"))).c_str(), 1);
        mkdir("/kproc", 0755);
        ASSERT_EQ(mount("proc", "/kproc", "proc", 0, nullptr), 0) << strerror(errno);
        ASSERT_EQ(mount("/kproc/sys", "/proc/sys", nullptr, MS_BIND, nullptr), 0)
            << strerror(errno);
        const std::string lan = std::to_string(lan_.pid()), isp = std::to_string(isp_.pid());
        for (const std::string &c :
             {"link add br0 type veth peer name lan0 netns " + lan,
              "link add eth0 type veth peer name x0 netns " + isp,
              "link add rm_usb0 type veth peer name x1 netns " + isp,
              "addr add 192.168.1.1/24 dev br0"s, "addr add 10.0.1.2/24 dev eth0"s,
              "addr add 10.0.2.2/24 dev rm_usb0"s, "link set br0 up"s, "link set eth0 up"s,
              "link set rm_usb0 up"s, "route add default via 10.0.1.1"s})
            ASSERT_EQ(ip_here(c), 0) << c;
        for (const char *c : {"addr add 192.168.1.10/24 dev lan0", "link set lan0 up",
                              "route add default via 192.168.1.1"})
            ASSERT_EQ(lan_.run_ip(c), 0) << c;
        for (const char *c : {"addr add 203.0.113.1/32 dev lo", "addr add 10.0.1.1/24 dev x0",
                              "addr add 10.0.2.1/24 dev x1", "link set x0 up", "link set x1 up"})
            ASSERT_EQ(isp_.run_ip(c), 0) << c;
        for (auto [key, value] :
             {std::pair{"wwan_wan_type", "2"}, {"wan_proto", "dhcp"}, {"wan_ifname", "eth0"},
              {"wan1_ifname", "rm_usb0"}, {"wan_ipaddr", "10.0.1.2"}, {"wan_ipaddr_old", "0.0.0.0"},
              {"sku_name", "US"}, {"nat_inbound_filtering", "0"}})
            veskNvramConfig_set(key, value);
        ASSERT_EQ(start_wan_nat(1), 0);
    }
    static std::string conntrack_list(const char *reply_dst) {
        return nat::run({"conntrack", "-L", "-f", "ipv4", "--reply-dst", reply_dst}, "").output;
    }

    Namespace lan_, isp_;
};

class NatFlow : public NatKernel, public testing::WithParamInterface<const char *> {};

// A LAN flow runs masqueraded on Ethernet; the outage (in the ISP) takes the Ethernet path away
// and the default route moves to LTE, which leaves the flow stuck; the NAT re-hook onto LTE and
// the connection recovery bring it back through LTE.
TEST_P(NatFlow, LanFlow_MovesToLteAfterReHookAndRecovery) {
    const char *log = "/tmp/stream";
    isp_.start(udp_echo_server);
    lan_.start([log] { return udp_stream(log); });
    auto answered_by = [log](const char *wan) {
        return testroot::read_file(log).find(std::string(wan) + "\n") != std::string::npos;
    };
    ASSERT_TRUE(testroot::wait_for([&] { return answered_by("10.0.1.2"); }));

    ASSERT_EQ(isp_.run_ip(GetParam()), 0);
    ASSERT_EQ(ip_here("route replace default via 10.0.2.1 dev rm_usb0"), 0);
    EXPECT_FALSE(testroot::wait_for([&] { return answered_by("10.0.2.2"); },
                                    std::chrono::milliseconds(300)));

    ASSERT_EQ(start_wan_nat(0), 0);
    ASSERT_TRUE(testroot::wait_for([&] { return answered_by("10.0.2.2"); }));
    EXPECT_THAT(conntrack_list("10.0.1.2"), Not(HasSubstr("src=")));
    EXPECT_THAT(conntrack_list("10.0.2.2"), HasSubstr("dport=9000"));
}

// The cable pulled: the kernel drops the flow's translation itself, and its next packets leave
// untranslated through LTE before NAT is re-hooked there. Unreachable with the link up: the flow
// keeps the Ethernet address until the recovery.
INSTANTIATE_TEST_SUITE_P(Outages, NatFlow,
                         testing::Values("link set x0 down", "addr del 10.0.1.1/24 dev x0"),
                         [](const testing::TestParamInfo<const char *> &row) {
                             return row.index ? "EthernetUnreachable" : "EthernetCarrierLost";
                         });

// What reaches the router (ports 2222 and 1194, ping) and the DMZ host (8080) from the ISP side
// as the inbound filter, a listen port, the echo answer and the DMZ are switched one by one.
TEST_F(NatKernel, InboundFilterListenPortEchoAndDmz_DecideWhatReachesWhom) {
    int router_ssh = bound(SOCK_STREAM, "0.0.0.0", 2222);
    int router_vpn = bound(SOCK_STREAM, "0.0.0.0", 1194);
    ASSERT_TRUE(router_ssh >= 0 && router_vpn >= 0);
    lan_.start([] { return bound(SOCK_STREAM, "0.0.0.0", 8080) < 0 ? 1 : pause(); });
    veskNvramConfig_set("dmz_ipaddr", "192.168.1.10");
    static auto dmz = [](const char *enabled) {
        veskNvramConfig_set("fw_dmz_enab", enabled);
        dmz_init();
    };
    struct Step {
        const char *what;
        std::function<void()> action;
        bool port_2222, port_1194, port_8080, ping;
    };
    const Step steps[] = {
        // LTE hooked as a PPTP carrier too: the table with a carrier must load as well.
        {"filter off", [] { EXPECT_EQ(agApi_natPptpWanHook("rm_usb0"), 0); },
         true, true, false, false},
        {"filter on", [] { agApi_natSetInboundFilter(1); }, false, false, false, false},
        {"listen port", [] { agApi_setDeviceListenPort(9, 1194, 1); }, false, true, false, false},
        {"echo", [] { agApi_fwEchoRespSet(1); }, false, true, false, true},
        {"dmz", [] { dmz("1"); }, false, true, true, true},
        {"dmz off", [] { dmz("0"); }, false, true, false, true},
    };
    for (const Step &s : steps) {
        s.action();
        for (auto [port, open] :
             {std::pair{2222, s.port_2222}, {1194, s.port_1194}, {8080, s.port_8080}})
            EXPECT_EQ(isp_.run([port] { return tcp_connects("10.0.1.2", port); }) == 0, open)
                << s.what << ", port " << port;
        auto ping = [] { return exec_here("/bin/busybox ping -q -c1 -W1 10.0.1.2"); };
        EXPECT_EQ(isp_.run(ping) == 0, s.ping) << s.what << ", ping";
    }
    close(router_ssh);
    close(router_vpn);
}

}  // namespace
