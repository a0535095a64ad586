// Platform service calls that act on the system: static routes and LAN ports on the root's veth
// pair, the OpenVPN server and client files (run with Debian's openvpn) and the iQoS switch.
#include "platform/nvram.h"
#include "platform/vesk_shared.h"
#include "tests/support/testroot.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;

extern char **environ;

namespace {

const std::string kIp = "/host/usr/bin/ip";

// Standard output of a shell command line.
std::string sh(const std::string &command) {
    std::string out;
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return out;
    char buf[512];
    while (std::fgets(buf, sizeof buf, pipe) != nullptr) out += buf;
    pclose(pipe);
    return out;
}

unsigned long flags_of(const std::string &name) {
    return std::stoul(testroot::read_file("/sys/class/net/" + name + "/flags"), nullptr, 16);
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
        lines.push_back(text.substr(start, end - start));
    return lines;
}

template <typename F>
std::string stderr_of(F f) {
    testing::internal::CaptureStderr();
    f();
    return testing::internal::GetCapturedStderr();
}

class PlatformServices : public testing::Test {
protected:
    void SetUp() override { testroot::reset(); }
    // Both ends up, so veth0 has a carrier and a subnet for gateways.
    static void veth_up() {
        sh(kIp + " link set veth0 up && " + kIp + " link set veth1 up && " + kIp +
           " addr add 10.9.0.1/24 dev veth0");
    }
    static std::string static_routes() { return sh(kIp + " -4 route show proto static"); }
};

TEST_F(PlatformServices, AddRoutes_InstallsActiveEntriesOfTheInterface_RefusesBadOnes) {
    veth_up();
    const std::string entries[] = {
        "10.20.0.0:255.255.0.0:10.9.0.254:5:veth0:1:office",
        "192.0.2.0:255.255.255.0:::veth0:1:on-link",
        "10.30.0.0:255.255.0.0:10.9.0.254:0:veth0:0:inactive",
        "10.40.0.0:255.255.0.0:10.9.0.254:0:veth1:1:other-port",
        "10.50.0.1:255.255.0.0:10.9.0.254:0:veth0:1:host-bits",
        "10.60.0.0:255.0.255.0:10.9.0.254:0:veth0:1:holey-mask",
        "0.0.0.0:0.0.0.0:10.9.0.254:0:veth0:1:default",
        "10.70.0.0;reboot:255.255.0.0:10.9.0.254:0:veth0:1:x",
        "10.80.0.0:255.255.0.0:$(reboot):0:veth0:1:x",
        "10.90.0.0:255.255.0.0:10.9.0.254:4294967296:veth0:1:x",
        "10.100.0.0:255.255.0.0:10.99.0.1:0:veth0:1:gateway-off-link",
        "10.110.0.0:255.255.0.0:10.9.0.254:0:veth0:1:" + std::string(100, 'n'),
    };
    std::string value;
    for (const std::string &e : entries) value += e + " ";
    veskNvramConfig_set("static_route", value.c_str());

    int result = 0;
    std::string err = stderr_of([&] { result = add_routes("veth0"); });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(static_routes(), "10.20.0.0/16 via 10.9.0.254 dev veth0 metric 5 \n"
                               "192.0.2.0/24 dev veth0 scope link \n");
    std::vector<std::string> refused = lines_of(err);
    ASSERT_EQ(refused.size(), 8u) << err;
    const char *destinations[] = {"10.50.0.1:", "10.60.0.0:", "0.0.0.0:",   "10.70.0.0;reboot:",
                                  "10.80.0.0:", "10.90.0.0:", "10.100.0.0:", "10.110.0.0:"};
    for (size_t i = 0; i < refused.size(); ++i) {
        EXPECT_THAT(refused[i], HasSubstr("add_routes: static route \"" +
                                          std::string(destinations[i])));
        EXPECT_THAT(refused[i], HasSubstr(" refused: "));
    }

    // Run again with a new gateway: the route is replaced, not refused as existing.
    veskNvramConfig_set("static_route", "10.20.0.0:255.255.0.0:10.9.0.253:5:veth0:1:office");
    EXPECT_EQ(add_routes("veth0"), 0);
    EXPECT_THAT(static_routes(), HasSubstr("10.20.0.0/16 via 10.9.0.253 dev veth0 metric 5 \n"));
}

TEST_F(PlatformServices, AddRoutes_OnlyAnInterfaceWithEntriesMustExist) {
    veskNvramConfig_set("static_route", "10.20.0.0:255.255.0.0:10.9.0.254:5:nosuch0:1:x");
    EXPECT_EQ(stderr_of([] { EXPECT_EQ(add_routes("veth0"), 0); }), "");
    EXPECT_EQ(stderr_of([] { EXPECT_EQ(add_routes(""), 0); }), "");
    EXPECT_EQ(stderr_of([] { EXPECT_EQ(add_routes("nosuch0"), -1); }),
              "add_routes: \"nosuch0\": no such interface\n");
    EXPECT_EQ(stderr_of([] { EXPECT_EQ(add_routes(nullptr), -1); }), "add_routes: no interface\n");
}

TEST_F(PlatformServices, LanPorts_GoDownAndUpByName_BadNamesReportedOthersStillChange) {
    veth_up();
    veskNvramConfig_set("lan_ethernet_ports", "veth0  nosuch0 bad/name veth1");
    std::string err = stderr_of([] { EXPECT_EQ(abDisableLanEthernetPort(), -1); });
    EXPECT_EQ(flags_of("veth0") & IFF_UP, 0ul);
    EXPECT_EQ(flags_of("veth1") & IFF_UP, 0ul);
    EXPECT_THAT(lines_of(err),
                ElementsAre("abDisableLanEthernetPort: nosuch0: No such device",
                            "abDisableLanEthernetPort: \"bad/name\" in lan_ethernet_ports is no "
                            "interface name"));
    stderr_of([] { EXPECT_EQ(abEnableLanEthernetPort(), -1); });
    EXPECT_NE(flags_of("veth0") & IFF_UP, 0ul);
    EXPECT_NE(flags_of("veth1") & IFF_UP, 0ul);

    veskNvramConfig_set("lan_ethernet_ports", "");
    EXPECT_EQ(abDisableLanEthernetPort(), 0);  // no ports named: nothing to do
    EXPECT_NE(flags_of("veth0") & IFF_UP, 0ul);
}

TEST_F(PlatformServices, Iqos_StateFollowsActionsAndFeatureSwitch) {
    auto state = [] { return std::string(veskNvramConfig_get("iqos_state")); };
    stderr_of([] { EXPECT_EQ(iqos_service("restart_iqos"), -1); });  // switched off
    EXPECT_EQ(state(), "stopped");
    veskNvramConfig_set("broadstream_iqos_enable", "1");
    EXPECT_EQ(iqos_service("restart_iqos"), 0);
    EXPECT_EQ(state(), "running");
    stderr_of([] { EXPECT_EQ(iqos_service("start_iqos;reboot"), -1); });
    EXPECT_EQ(state(), "running");
}

// ---- OpenVPN --------------------------------------------------------------------------------

const char *const kServerFiles[] = {"/tmp/server_tun.conf", "/tmp/client1.ovpn",
                                    "/tmp/server_tap.conf", "/tmp/client2.conf"};

class OpenVpnFiles : public PlatformServices {
protected:
    void SetUp() override {
        PlatformServices::SetUp();
        for (auto [key, value] : {std::pair{"openvpnActive", "enable"},
                                  {"lan_ipaddr", "192.168.1.1"},
                                  {"lan_netmask", "255.255.255.0"},
                                  {"openvpn_client_remote", "127.0.0.1"}})
            veskNvramConfig_set(key, value);
    }
};

TEST_F(OpenVpnFiles, Written_FromTheConfiguration) {
    veskNvramConfig_set("openvpn_service_port_tun", "12973");
    veskNvramConfig_set("openvpn_service_port", "12974");
    veskNvramConfig_set("openvpn_service_proto", "tcp");
    veskNvramConfig_set("openvpn_tun_network", "10.77.0.0");
    veskNvramConfig_set("openvpn_tun_netmask", "255.255.0.0");
    veskNvramConfig_set("lan_ipaddr", "192.168.7.9");
    veskNvramConfig_set("openvpn_client_remote", "vpn.example.net");
    ASSERT_EQ(openvpn_make_config_file(), 0);
    EXPECT_EQ(testroot::read_file("/tmp/server_tun.conf"),
              "port 12973\nproto udp\nca /tmp/openvpn/ca.crt\ncert /tmp/openvpn/server.crt\n"
              "key /tmp/openvpn/server.key\ndh /tmp/openvpn/dh1024.pem\n"
              "dev tun\ntopology subnet\nserver 10.77.0.0 255.255.0.0\n"
              "push \"route 192.168.7.0 255.255.255.0\"\npush \"dhcp-option DNS 10.77.0.1\"\n"
              "duplicate-cn\nkeepalive 10 120\npersist-key\npersist-tun\nverb 3\n"
              "log /tmp/openvpn_log_tun\n");
    EXPECT_THAT(testroot::read_file("/tmp/client2.conf"),
                HasSubstr("\ndev tap\nproto tcp\nremote vpn.example.net 12974\n"));
}

TEST_F(OpenVpnFiles, BadValue_RemovesTheFilesOfItsInstanceOnly) {
    struct Case {
        const char *key, *value;
        std::vector<const char *> gone;
    };
    const Case cases[] = {
        {"openvpn_service_port_tun", "0", {"/tmp/server_tun.conf", "/tmp/client1.ovpn"}},
        {"openvpn_service_port", "11 94", {"/tmp/server_tap.conf", "/tmp/client2.conf"}},
        {"openvpn_service_proto", "sctp", {"/tmp/server_tap.conf", "/tmp/client2.conf"}},
        {"lan_ipaddr", "10.8.0.5", {"/tmp/server_tun.conf", "/tmp/client1.ovpn"}},
        {"openvpn_tun_netmask", "255.0.255.0", {"/tmp/server_tun.conf", "/tmp/client1.ovpn"}},
        {"lan_ipaddr", "", {"/tmp/server_tun.conf", "/tmp/client1.ovpn"}},
        {"openvpn_client_remote", "vpn.example;reboot", {"/tmp/client1.ovpn", "/tmp/client2.conf"}},
        {"openvpn_client_remote", "0.0.0.0", {"/tmp/client1.ovpn", "/tmp/client2.conf"}},
    };
    for (const Case &c : cases) {
        SetUp();
        ASSERT_EQ(openvpn_make_config_file(), 0);
        veskNvramConfig_set(c.key, c.value);
        std::string err = stderr_of([] { EXPECT_EQ(openvpn_make_config_file(), -1); });
        EXPECT_THAT(err, HasSubstr(c.key)) << c.key << "=" << c.value;
        for (const char *file : kServerFiles) {
            bool gone = std::find(c.gone.begin(), c.gone.end(), std::string(file)) != c.gone.end();
            EXPECT_EQ(testroot::exists(file), !gone) << c.key << "=" << c.value << ": " << file;
        }
    }
}

TEST_F(OpenVpnFiles, SetLanIp_NonZeroUntilFilesAreWrittenFromTheCurrentLan) {
    veskNvramConfig_set("openvpnActive", "disable");
    EXPECT_EQ(openvpn_set_lan_ip(), 0);
    veskNvramConfig_set("openvpnActive", "enable");
    EXPECT_NE(openvpn_set_lan_ip(), 0);  // never written
    ASSERT_EQ(openvpn_make_config_file(), 0);
    EXPECT_EQ(openvpn_set_lan_ip(), 0);
    veskNvramConfig_set("lan_ipaddr", "192.168.2.1");
    EXPECT_NE(openvpn_set_lan_ip(), 0);
    EXPECT_NE(openvpn_set_lan_ip(), 0);  // asking does not make it current
    ASSERT_EQ(openvpn_make_config_file(), 0);
    EXPECT_EQ(openvpn_set_lan_ip(), 0);
    veskNvramConfig_set("lan_netmask", "255.255.0.0");
    EXPECT_NE(openvpn_set_lan_ip(), 0);
}

// Test certificates as start_openvpn's working copies: a CA, server and client certificates
// on P-256 keys, and 2048-bit DH parameters under the router's file name (Debian's OpenSSL
// refuses 1024 bits).
void make_certificates() {
    testroot::write_file("/tmp/openvpn/ssl.cnf", "[req]\ndistinguished_name = dn\n[dn]\n");
    for (const char *role : {"server", "client"})
        testroot::write_file(std::string("/tmp/openvpn/") + role + ".ext",
                             std::string("basicConstraints=CA:FALSE\n"
                                         "keyUsage=digitalSignature,keyAgreement\n"
                                         "extendedKeyUsage=") +
                                 role + "Auth\n");
    const std::string ssl = "/host/usr/bin/openssl";
    const std::string key =
        " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -config ssl.cnf";
    std::string script = "cd /tmp/openvpn && " + ssl + " req -x509" + key +
                         " -keyout ca.key -out ca.crt -days 2 -subj /CN=ca"
                         " -addext basicConstraints=critical,CA:TRUE"
                         " -addext keyUsage=keyCertSign,cRLSign";
    for (const std::string role : {"server", "client"})
        script += " && " + ssl + " req" + key + " -keyout " + role + ".key -out " + role +
                  ".csr -subj /CN=" + role + " && " + ssl + " x509 -req -in " + role +
                  ".csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 2 -extfile " + role +
                  ".ext -out " + role + ".crt";
    script += " && " + ssl + " genpkey -genparam -algorithm DH -pkeyopt group:ffdhe2048"
                             " -out dh1024.pem && echo done";
    ASSERT_EQ(sh(script + " 2>/dev/null"), "done\n");
}

pid_t start(std::vector<std::string> args) {
    std::vector<char *> argv;
    for (std::string &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

bool completed(const std::string &log) {
    return testroot::wait_for(
        [&] {
            return testroot::read_file(log).find("Initialization Sequence Completed") !=
                   std::string::npos;
        },
        std::chrono::seconds(30));
}

TEST_F(OpenVpnFiles, Servers_StartWithDebiansOpenvpn_ClientsConnect) {
    const std::string openvpn = "/host/usr/sbin/openvpn";
    ASSERT_EQ(access(openvpn.c_str(), X_OK), 0) << "openvpn is installed by tools/install-deps";
    make_certificates();
    mkdir("/dev/net", 0755);
    ASSERT_TRUE(mknod("/dev/net/tun", S_IFCHR | 0600, makedev(10, 200)) == 0 || errno == EEXIST);
    veskNvramConfig_set("openvpn_service_proto_tun", "tcp");  // both protocols get started
    ASSERT_EQ(openvpn_make_config_file(), 0);
    // As start_openvpn prepares them: the tap log FIFO with its reader, the client bundle.
    ASSERT_EQ(initial_abfifo("/tmp/openvpn_log_tap", "/tmp/openvpn_log_tap2", 10), 0);
    sh("mkdir /tmp/openvpn_zip && cp /tmp/client1.ovpn /tmp/openvpn/ca.crt "
       "/tmp/openvpn/client.crt /tmp/openvpn/client.key /tmp/client2.conf /tmp/openvpn_zip");

    std::vector<pid_t> pids = {start({openvpn, "/tmp/server_tun.conf"}),
                               start({openvpn, "/tmp/server_tap.conf"})};
    EXPECT_TRUE(completed("/tmp/openvpn_log_tun")) << testroot::read_file("/tmp/openvpn_log_tun");
    EXPECT_TRUE(completed("/tmp/openvpn_log_tap2")) << testroot::read_file("/tmp/openvpn_log_tap2");
    for (const std::string client : {"client1.ovpn", "client2.conf"})
        pids.push_back(start({openvpn, "--cd", "/tmp/openvpn_zip", "--config", client, "--log",
                              "/tmp/" + client + ".log"}));
    EXPECT_TRUE(completed("/tmp/client1.ovpn.log")) << testroot::read_file("/tmp/client1.ovpn.log");
    EXPECT_TRUE(completed("/tmp/client2.conf.log")) << testroot::read_file("/tmp/client2.conf.log");
    EXPECT_THAT(testroot::read_file("/tmp/client1.ovpn.log"),
                HasSubstr("PUSH_REPLY,route 192.168.1.0 255.255.255.0,dhcp-option DNS 10.8.0.1"));
    // Clients first, so no server waits on a connected client.
    for (auto pid = pids.rbegin(); pid != pids.rend(); ++pid) {
        kill(*pid, SIGTERM);
        if (!testroot::wait_for([&] { return waitpid(*pid, nullptr, WNOHANG) == *pid; },
                                std::chrono::seconds(5))) {
            ADD_FAILURE() << "openvpn #" << (pids.rend() - pid) << " ignores SIGTERM";
            kill(*pid, SIGKILL);
            waitpid(*pid, nullptr, 0);
        }
    }
    std::string reader = testroot::read_file("/tmp/openvpn_log_tap.pid");
    if (!reader.empty()) kill(std::stoi(reader), SIGKILL);
}

}  // namespace
