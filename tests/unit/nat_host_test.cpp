// The host NAT library: its table text, its shared state, its failures, and what it does to
// real packets between network namespaces.
#include "platform/host/nat_ruleset.h"
#include "platform/host/nat_runner.h"
#include "platform/host/nat_state.h"
#include "platform/nat.h"
#include "platform/nvram.h"
#include "services/wan_up.h"
#include "tests/support/testroot.h"
#include "tests/unit/netns.h"

#include <arpa/inet.h>
#include <linux/capability.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>

using testing::HasSubstr;
using testing::Not;
using namespace std::string_literals;

namespace {

const char *const kFullTable = R"(table ip failover
delete table ip failover
table ip failover {
	chain prerouting {
		type nat hook prerouting priority dstnat; policy accept;
		iifname { "ppp0", "eth0" } fib daddr type local tcp dport { 520, 1194 } return
		iifname { "ppp0", "eth0" } fib daddr type local udp dport { 520, 1194 } return
		iifname { "ppp0", "eth0" } fib daddr type local icmp type echo-request return
		iifname { "ppp0", "eth0" } fib daddr type local dnat to 192.168.1.50
	}
	chain postrouting {
		type nat hook postrouting priority srcnat; policy accept;
		iifname { "br0", "tun0" } oifname { "ppp0", "eth0" } masquerade
	}
	chain input {
		type filter hook input priority filter; policy accept;
		iifname { "ppp0", "eth0" } ct state established,related accept
		iifname { "ppp0", "eth0" } icmp type echo-request accept
		iifname { "ppp0", "eth0" } tcp dport { 520, 1194 } accept
		iifname { "ppp0", "eth0" } udp dport { 520, 1194 } accept
		iifname { "ppp0", "eth0" } drop
	}
	chain forward {
		type filter hook forward priority filter; policy accept;
		iifname { "ppp0", "eth0" } ct state established,related accept
		iifname { "ppp0", "eth0" } ct status dnat accept
		iifname { "ppp0", "eth0" } drop
	}
}
)";

nat::State full_state() {
    nat::State s;
    s.features = NAT_FEATURE_LAN_ONLY | NAT_FEATURE_FASTPATH;
    s.wans = {{"ppp0", "10.64.0.2"}};
    s.carriers = {{"eth0", ""}, {"ppp0", ""}};
    s.lans = {"tun0", "br0"};
    s.inbound_filter = s.echo = true;
    s.dmz = inet_addr("192.168.1.50");
    s.listen = {{0, 520}, {9, 1194}, {10, 1194}};
    return s;
}

template <typename F>
std::string stderr_of(F f) {
    testing::internal::CaptureStderr();
    f();
    return testing::internal::GetCapturedStderr();
}

size_t nft_runs() { return testroot::calls_of("nft").size(); }

class NatLibrary : public testing::Test {
protected:
    void SetUp() override { testroot::reset(); }
};

TEST(NatRuleset, FullState_IsExactText_NothingHooked_KeepsEmptyChains) {
    EXPECT_EQ(nat::ruleset(full_state()), kFullTable);
    nat::State unhooked = full_state();
    unhooked.wans.clear();
    unhooked.carriers.clear();
    std::string empty_chains;
    std::istringstream lines(kFullTable);
    for (std::string line; std::getline(lines, line);)
        if (line.rfind("\t\t", 0) != 0 || line.find("policy accept") != std::string::npos)
            empty_chains += line + "\n";
    EXPECT_EQ(nat::ruleset(unhooked), empty_chains);
}

TEST(NatRuleset, StaleAddresses_SkipThoseStillHookedAndRepeats) {
    nat::State s;
    s.wans = {{"rm_usb0", "10.0.2.2"}};
    s.carriers = {{"eth1", "10.0.3.2"}};
    s.gone = {{"eth0", "10.0.1.2"}, {"rm_usb0", "10.0.2.2"}, {"ppp0", ""}, {"eth0", "10.0.1.2"},
              {"eth1", "10.0.3.2"}, {"ppp0", "10.64.0.2"}};
    EXPECT_EQ(nat::stale_addresses(s), (std::vector<std::string>{"10.0.1.2", "10.64.0.2"}));
}

TEST(NatRuleset, UntranslatedFlows_OnlyForwardedOnesWithoutNat) {
    const std::string listing =
        "udp 17 29 src=192.168.1.10 dst=203.0.113.1 sport=40000 dport=9000 [UNREPLIED] "
        "src=203.0.113.1 dst=192.168.1.10 sport=9000 dport=40000 mark=0 use=1\n"
        "udp 17 29 src=192.168.1.10 dst=203.0.113.1 sport=40001 dport=9000 src=203.0.113.1 "
        "dst=192.168.1.10 sport=9000 dport=40001 mark=0 use=1\n"  // same pair
        "icmp 1 29 src=192.168.1.10 dst=203.0.113.1 type=8 code=0 id=7 src=203.0.113.1 "
        "dst=10.0.2.2 type=0 code=0 id=7 mark=0 use=1\n"  // masqueraded
        "tcp 6 431999 ESTABLISHED src=192.168.1.10 dst=192.168.1.1 sport=5000 dport=53 "
        "src=192.168.1.1 dst=192.168.1.10 sport=53 dport=5000 [ASSURED] mark=0 use=1\n"  // router
        "tcp 6 117 SYN_SENT src=10.0.1.1 dst=10.0.1.2 sport=5000 dport=8080 src=192.168.1.10 "
        "dst=10.0.1.1 sport=8080 dport=5000 mark=0 use=1\n"  // DMZ
        "conntrack v1.4.7 (conntrack-tools): 5 flow entries have been shown.\n";
    EXPECT_EQ(nat::untranslated_flows(listing, {"127.0.0.1", "192.168.1.1", "10.0.2.2"}),
              (std::vector<std::pair<std::string, std::string>>{{"192.168.1.10", "203.0.113.1"}}));
}

TEST_F(NatLibrary, EverySwitchCombination_PassesNftCheck) {
    for (unsigned bits = 0; bits < 64; ++bits) {
        nat::State s;
        s.wans = {{"eth0", "10.0.1.2"}};
        if (bits & 1) s.carriers = {{"eth1", ""}};
        if (bits & 2) s.lans = {"br0"};
        s.features = (bits & 4) ? NAT_FEATURE_LAN_ONLY : 0;
        s.inbound_filter = bits & 8;
        s.echo = bits & 16;
        if (bits & 32) {
            s.dmz = inet_addr("192.168.1.50");
            s.listen = {{0, 520}};
        }
        nat::Run r = nat::run({"/host/usr/sbin/nft", "-c", "-f", "-"}, nat::ruleset(s));
        EXPECT_EQ(r.status, 0) << bits << ": " << r.output << nat::ruleset(s);
    }
}

TEST_F(NatLibrary, ChangingCalls_RebuildTable_OthersLeaveKernelAlone) {
    const std::pair<std::function<int()>, size_t> steps[] = {
        {[] { return agApi_natHook("eth0"); }, 1},
        {[] { return agApi_natHook("eth0"); }, 0},
        {[] { return agApi_natProbeHook("eth0") + agApi_natSetRegion("Japanese"); }, 0},
        {[] { return agApi_feature_set(NAT_FEATURE_LAN_ONLY); }, 0},  // no LAN side yet
        {[] { return agApi_natLanHook("br0"); }, 1},
        {[] { return agApi_fwDMZRuleSet(0, 1, inet_addr("192.168.1.50")) - 1; }, 1},
        {[] { return agApi_fwEchoRespSet(1) - 1; }, 1},
        {[] { return agApi_setDeviceListenPort(0, 520, 1); }, 1},
        {[] { return agApi_natSetInboundFilter(1); }, 1},
        {[] { return agApi_natSetInboundFilter(1); }, 0},
        {[] { int n = 0; return agApi_natWanIfCnt(&n) + n - 1; }, 0},
        {[] { return agApi_natEnable(); }, 1},  // rebuilt even unchanged
    };
    for (size_t i = 0; i < std::size(steps); ++i) {
        size_t before = nft_runs();
        EXPECT_EQ(steps[i].first(), 0) << "step " << i;
        EXPECT_EQ(nft_runs() - before, steps[i].second) << "step " << i;
    }
    EXPECT_EQ(testroot::calls_of("nft")[0], (std::vector<std::string>{"nft", "-f", "-"}));
    EXPECT_EQ(testroot::calls_of("sysctl"),
              (std::vector<std::vector<std::string>>{{"sysctl", "-q", "-w", "net.ipv4.ip_forward=1"}}));
    EXPECT_EQ(testroot::read_file(nat::STATE_PATH),
              "features 2\nwan eth0 -\nlan br0\ninbound 1\necho 1\ndmz 192.168.1.50\nlisten 0 520\n");
}

TEST_F(NatLibrary, Failures_GiveDocumentedValueAndOneLine_StateKept) {
    signal(SIGCHLD, SIG_IGN);  // as in the daemon: the status must still come through
    ASSERT_EQ(agApi_natHook("eth0"), 0);
    const std::string kept = testroot::read_file(nat::STATE_PATH);
    testroot::script("nft", "Error: Could not process rule: Operation not permitted\n", 1);
    EXPECT_EQ(stderr_of([] { EXPECT_EQ(agApi_natHook("ppp0"), -1); }),
              "agApi_natHook: nft loading the NAT table failed: Error: Could not process rule: "
              "Operation not permitted\n");
    EXPECT_EQ(agApi_fwDMZRuleSet(0, 1, inet_addr("192.168.1.50")), 0);
    EXPECT_EQ(agApi_fwEchoRespSet(1), 0);
    EXPECT_EQ(agApi_setDeviceListenPort(9, 1194, 1), -1);
    EXPECT_EQ(agApi_natEnable(), -1);
    EXPECT_EQ(testroot::read_file(nat::STATE_PATH), kept);

    setenv("PATH", "/bin", 1);
    EXPECT_EQ(stderr_of([] { EXPECT_EQ(agApi_natSetInboundFilter(1), -1); }),
              "agApi_natSetInboundFilter: cannot run nft: No such file or directory\n");
    for (const char *name : {"", "eth0\"; flush ruleset", "sixteen-chars-xx"})
        EXPECT_THAT(stderr_of([name] { EXPECT_EQ(agApi_natHook(name), -1); }),
                    HasSubstr("agApi_natHook: "));
    EXPECT_EQ(agApi_fwDMZRuleSet(0, 1, inet_addr("224.0.0.1")), 0);
    EXPECT_EQ(agApi_fwDMZRuleSet(1, 1, inet_addr("192.168.1.50")), 0);
    EXPECT_EQ(testroot::read_file(nat::STATE_PATH), kept);

    testroot::write_file(nat::STATE_PATH, "gateway 10.0.0.1\n");
    EXPECT_EQ(stderr_of([] { EXPECT_EQ(agApi_natUnhook(nullptr), -1); }),
              "agApi_natUnhook: /var/run/failover-nat.state: unreadable NAT state\n");
    ASSERT_EQ(unlink(nat::STATE_PATH), 0);
    ASSERT_EQ(mkdir(nat::STATE_PATH, 0755), 0);
    int count = 7;
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(agApi_natWanIfCnt(&count), -1); }),
              "agApi_natWanIfCnt: read /var/run/failover-nat.state: Is a directory\n");
}

TEST_F(NatLibrary, ConnRecovery_FlushesAddressesNoLongerHooked_RetriesAfterFailure) {
    ASSERT_EQ(netns::ip_here("addr add 10.0.1.2/24 dev veth0"), 0);
    ASSERT_EQ(netns::ip_here("addr add 10.0.2.2/24 dev veth1"), 0);
    agApi_natHook("veth0");
    agApi_natHook("veth1");
    agApi_natUnhook(nullptr);
    agApi_natHook("veth1");
    testroot::script("conntrack", "conntrack v1.4.7 (conntrack-tools): Operation failed\n", 1);
    EXPECT_EQ(stderr_of([] { EXPECT_EQ(veskNat_DoConnRecovery(), -1); }),
              "veskNat_DoConnRecovery: conntrack deleting connections failed: "
              "conntrack v1.4.7 (conntrack-tools): Operation failed\n");
    testroot::clear_logs();
    testroot::script("conntrack", "", 0);
    EXPECT_EQ(veskNat_DoConnRecovery(), 0);
    EXPECT_EQ(veskNat_DoConnRecovery(), 0);  // no address left to flush
    const std::vector<std::string> listing{"conntrack", "-L", "-f", "ipv4"};
    EXPECT_EQ(testroot::calls_of("conntrack"),
              (std::vector<std::vector<std::string>>{
                  {"conntrack", "-D", "-f", "ipv4", "--orig-dst", "10.0.1.2"},
                  {"conntrack", "-D", "-f", "ipv4", "--reply-dst", "10.0.1.2"}, listing, listing}));
    EXPECT_EQ(nft_runs(), 0u);
}

TEST_F(NatLibrary, ProcessesHookingAtOnce_LoseNothing) {
    for (char prefix : {'a', 'b'})
        if (fork() == 0) {
            for (int i = 0; i < 8; ++i) agApi_natHook((prefix + std::to_string(i)).c_str());
            _exit(0);
        }
    for (int status = 0, i = 0; i < 2; ++i) ASSERT_GT(wait(&status), 0);
    int count = 0;
    EXPECT_EQ(agApi_natWanIfCnt(&count), 0);
    EXPECT_EQ(count, 16);
}

// ---- Real packets: LAN host -- br0 [router] eth0 / rm_usb0 -- ISP with the server ----

constexpr const char *kServer = "203.0.113.1";

sockaddr_in address_of(const char *address, int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, address, &a.sin_addr);
    return a;
}

int bound(int type, const char *address, int port) {
    int s = socket(AF_INET, type, 0), one = 1;
    setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a = address_of(address, port);
    return bind(s, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 ? s : -1;
}

// Answers every datagram with the address it came from.
int udp_echo_server() {
    int s = bound(SOCK_DGRAM, kServer, 9000);
    for (;;) {
        char buf[64];
        sockaddr_in from{};
        socklen_t len = sizeof from;
        if (recvfrom(s, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &len) < 0) continue;
        char text[INET_ADDRSTRLEN + 1] = {};
        inet_ntop(AF_INET, &from.sin_addr, text, INET_ADDRSTRLEN);
        std::strcat(text, "\n");
        sendto(s, text, std::strlen(text), 0, reinterpret_cast<sockaddr *>(&from), len);
    }
}

// One flow: a datagram every 20 ms from one source port; every answer appended to `log`.
int udp_stream(const char *log) {
    int s = bound(SOCK_DGRAM, "0.0.0.0", 40000);
    FILE *out = std::fopen(log, "a");
    sockaddr_in to = address_of(kServer, 9000);
    for (;;) {
        sendto(s, "x", 1, 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
        pollfd p{s, POLLIN, 0};
        char buf[64];
        ssize_t n = poll(&p, 1, 20) == 1 ? recv(s, buf, sizeof buf, 0) : -1;
        if (n > 0) {
            std::fwrite(buf, 1, static_cast<size_t>(n), out);
            std::fflush(out);
        }
    }
}

int tcp_listen(int port) {
    int s = bound(SOCK_STREAM, "0.0.0.0", port);
    return s >= 0 && listen(s, 16) == 0 ? s : -1;
}

// 0 when a TCP connection to address:port is made within half a second.
int tcp_connects(const char *address, int port) {
    int s = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_in a = address_of(address, port);
    if (connect(s, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 && errno != EINPROGRESS) return 1;
    pollfd p{s, POLLOUT, 0};
    if (poll(&p, 1, 500) != 1) return 2;
    int err = 0;
    socklen_t len = sizeof err;
    getsockopt(s, SOL_SOCKET, SO_ERROR, &err, &len);
    return err == 0 ? 0 : 3;
}

class NatKernel : public testing::Test {
protected:
    void SetUp() override {
        testroot::reset();
        // The real programs, ahead of the stand-ins; the kernel's sysctl tree under /proc/sys.
        setenv("PATH", ("/host/usr/sbin:/host/usr/bin:" + std::string(getenv("PATH"))).c_str(), 1);
        mkdir("/kproc", 0755);
        ASSERT_EQ(mount("proc", "/kproc", "proc", 0, nullptr), 0) << strerror(errno);
        ASSERT_EQ(mount("/kproc/sys", "/proc/sys", nullptr, MS_BIND, nullptr), 0) << strerror(errno);
        mounted_ = true;
        ASSERT_TRUE(lan_.usable() && isp_.usable());
        const std::string lan = std::to_string(lan_.pid()), isp = std::to_string(isp_.pid());
        for (const std::string &c :
             {"link add br0 type veth peer name lan0 netns " + lan,
              "link add eth0 type veth peer name x0 netns " + isp,
              "link add rm_usb0 type veth peer name x1 netns " + isp, "addr add 192.168.1.1/24 dev br0"s,
              "addr add 10.0.1.2/24 dev eth0"s, "addr add 10.0.2.2/24 dev rm_usb0"s, "link set br0 up"s,
              "link set eth0 up"s, "link set rm_usb0 up"s, "route add default via 10.0.1.1"s})
            ASSERT_EQ(netns::ip_here(c), 0) << c;
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
    }
    void TearDown() override {
        if (!mounted_) return;
        umount2("/proc/sys", MNT_DETACH);
        umount2("/kproc", MNT_DETACH);
    }
    void flow_moves_to_lte(const char *outage);
    std::string conntrack_list(const char *reply_dst) {
        return nat::run({"conntrack", "-L", "-f", "ipv4", "--reply-dst", reply_dst}, "").output;
    }

    bool mounted_ = false;
    netns::Namespace lan_, isp_;
};

// A LAN flow runs masqueraded on Ethernet; `outage` (in the ISP) takes the Ethernet path away
// and the default route moves to LTE, which leaves the flow stuck; the NAT re-hook onto LTE and
// the connection recovery bring it back through LTE.
void NatKernel::flow_moves_to_lte(const char *outage) {
    ASSERT_EQ(start_wan_nat(1), 0);
    const char *log = "/tmp/stream";
    isp_.start(udp_echo_server);
    lan_.start([log] { return udp_stream(log); });
    auto answered_by = [log](const char *wan) {
        return testroot::read_file(log).find(std::string(wan) + "\n") != std::string::npos;
    };
    ASSERT_TRUE(testroot::wait_for([&] { return answered_by("10.0.1.2"); }));

    ASSERT_EQ(isp_.run_ip(outage), 0);
    ASSERT_EQ(netns::ip_here("route replace default via 10.0.2.1 dev rm_usb0"), 0);
    EXPECT_FALSE(testroot::wait_for([&] { return answered_by("10.0.2.2"); },
                                    std::chrono::milliseconds(300)));

    auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(start_wan_nat(0), 0);
    ASSERT_TRUE(testroot::wait_for([&] { return answered_by("10.0.2.2"); }));
    auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    std::printf("%s: flow back through LTE %lld ms after the re-hook began\n", outage,
                static_cast<long long>(took.count()));
    EXPECT_THAT(conntrack_list("10.0.1.2"), Not(HasSubstr("src=")));
    EXPECT_THAT(conntrack_list("10.0.2.2"), HasSubstr("dport=9000"));
}

// The cable is pulled: the kernel drops the flow's translation itself, and its next packets
// leave untranslated through LTE before NAT is re-hooked there.
TEST_F(NatKernel, LanFlow_EthernetCarrierLost_MovesToLteAfterReHookAndRecovery) {
    flow_moves_to_lte("link set x0 down");
}

// The link stays up but carries nothing: the flow keeps the Ethernet address.
TEST_F(NatKernel, LanFlow_EthernetUnreachable_MovesToLteAfterReHookAndRecovery) {
    flow_moves_to_lte("addr del 10.0.1.1/24 dev x0");
}

TEST_F(NatKernel, InboundFilterListenPortEchoAndDmz_DecideWhatReachesWhom) {
    ASSERT_EQ(start_wan_nat(1), 0);  // inbound filter off
    int router_ssh = tcp_listen(2222), router_vpn = tcp_listen(1194);
    ASSERT_GE(router_ssh, 0);
    ASSERT_GE(router_vpn, 0);
    lan_.start([] {
        tcp_listen(8080);
        pause();
        return 0;
    });
    veskNvramConfig_set("dmz_ipaddr", "192.168.1.10");
    struct Step {
        const char *what;
        std::function<void()> action;
        bool port_2222, port_1194, port_8080, ping;
    };
    const Step steps[] = {
        {"filter off", [] {}, true, true, false, false},
        {"filter on", [] { agApi_natSetInboundFilter(1); }, false, false, false, false},
        {"listen port", [] { agApi_setDeviceListenPort(9, 1194, 1); }, false, true, false, false},
        {"echo", [] { agApi_fwEchoRespSet(1); }, false, true, false, true},
        {"dmz", [] { veskNvramConfig_set("fw_dmz_enab", "1"); dmz_init(); }, false, true, true, true},
        {"dmz off", [] { veskNvramConfig_set("fw_dmz_enab", "0"); dmz_init(); }, false, true, false, true},
    };
    for (const Step &s : steps) {
        s.action();
        for (auto [port, open] : {std::pair{2222, s.port_2222}, {1194, s.port_1194}, {8080, s.port_8080}})
            EXPECT_EQ(isp_.run([port] { return tcp_connects("10.0.1.2", port); }) == 0, open)
                << s.what << ", port " << port;
        EXPECT_EQ(isp_.exec({"/bin/busybox", "ping", "-q", "-c", "1", "-W", "1", "10.0.1.2"}) == 0, s.ping)
            << s.what << ", ping";
    }
    close(router_ssh);
    close(router_vpn);
}

TEST_F(NatKernel, DmzInit_NftRefusedByKernel_ReportsErrorSettingDmzAndLeavesItOff) {
    ASSERT_EQ(start_wan_nat(1), 0);
    veskNvramConfig_set("fw_dmz_enab", "1");
    veskNvramConfig_set("dmz_ipaddr", "192.168.1.10");
    testroot::clear_logs();
    pid_t pid = fork();
    if (pid == 0) {
        // Without CAP_NET_ADMIN, even for root, nft is refused by the kernel.
        FILE *out = std::freopen("/tmp/dmz.out", "w", stdout);
        if (out == nullptr || dup2(fileno(stdout), STDERR_FILENO) < 0) _exit(2);
        prctl(PR_CAPBSET_DROP, CAP_NET_ADMIN, 0, 0, 0);
        dmz_init();
        std::fflush(nullptr);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    std::string out = testroot::read_file("/tmp/dmz.out");
    EXPECT_THAT(out, HasSubstr("agApi_fwDMZRuleSet: nft loading the NAT table failed: "));
    EXPECT_THAT(out, HasSubstr("dmz_init: Error setting DMZ.\n"));
    EXPECT_EQ(testroot::trace(),
              (std::vector<std::string>{R"({"fn":"agApi_fwDMZRuleSet","args":[0,1,"192.168.1.10"]})",
                                        R"({"fn":"agApi_fwDMZRuleSet","args":[0,0,"192.168.1.2"]})"}));
    nat::Run table = nat::run({"nft", "list", "table", "ip", "failover"}, "");
    EXPECT_THAT(table.output, HasSubstr("masquerade"));
    EXPECT_THAT(table.output, Not(HasSubstr("dnat")));
}

}  // namespace
