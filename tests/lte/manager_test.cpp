// failover-lte against ModemManager on a private system bus, seen as the router sees it: the
// reply bytes on "/tmp/cgi-2-sys", the store keys, the programs run and rm_usb0's state.
// ModemManager is the simulated router's mock (sim/modem), or Debian's own daemon; veth0 is
// renamed rm_usb0 to stand for the modem's network device.
#include <arpa/inet.h>
#include <net/if.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "platform/nvram.h"
#include "tests/support/testroot.h"

namespace {

std::string request(int mode) {
    return "{\"action\":\"set_network_connection_mode\",\"args\":{\"manual_mode\":" +
           std::to_string(mode) + "} }";
}

std::string reply(int err, const std::string &message) {
    std::string escaped;
    for (char c : message) escaped += c == '"' ? std::string("\\\"") : std::string(1, c);
    return "{\"set_network_connection_mode\":{\"errno\":" + std::to_string(err) + ",\"errmsg\":\"" +
           escaped + "\"}}";
}

const std::string kOk = reply(0, "");

std::string key(const char *name) { return veskNvramConfig_get(name); }

bool key_is(const char *name, const std::string &value) {
    return testroot::wait_for([&] { return key(name) == value; });
}

// rm_usb0 as the kernel has it: "up" or "down", and its address or "none".
std::string rm_usb0() {
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq ifr{};
    std::snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "rm_usb0");
    const bool up = ioctl(s, SIOCGIFFLAGS, &ifr) == 0 && (ifr.ifr_flags & IFF_UP);
    char text[INET_ADDRSTRLEN] = "none";
    if (ioctl(s, SIOCGIFADDR, &ifr) == 0)
        inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in *>(&ifr.ifr_addr)->sin_addr, text,
                  sizeof text);
    close(s);
    return std::string(up ? "up " : "down ") + text;
}

// Starts a command line, its output going to `log`; the process is the program itself.
pid_t spawn(const std::string &command, const std::string &log) {
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", ("exec " + command + " >>" + log + " 2>&1").c_str(), nullptr);
        _exit(127);
    }
    return pid;
}

// Ends a process started by spawn(); its wait status.
int stop(pid_t &pid) {
    int status = -1;
    if (pid > 0 && kill(pid, SIGTERM) == 0) waitpid(pid, &status, 0);
    pid = -1;
    return status;
}

// Lines of the platform call trace that begin with `prefix`. A DHCP client ended at once may
// never log its call as a stand-in; the manager's call is always there.
size_t traced(const std::string &prefix) {
    const auto trace = testroot::trace();
    return std::count_if(trace.begin(), trace.end(),
                         [&](const std::string &line) { return line.rfind(prefix, 0) == 0; });
}

const std::string kUdhcpc = "{\"fn\":\"_eval\",\"args\":[[\"udhcpc\",\"-i\",\"rm_usb0\",\"-p\","
                            "\"/var/run/udhcpc1.pid\",\"-s\",\"/tmp/udhcpc\"]";

// What a command prints; `meanwhile` runs while it does. A failed command fails the test.
std::string output_of(const std::string &command, const std::function<void()> &meanwhile = {}) {
    FILE *out = popen(command.c_str(), "r");
    if (meanwhile) meanwhile();
    std::string text;
    char buf[4096];
    for (size_t n; out && (n = fread(buf, 1, sizeof buf, out)) > 0;) text.append(buf, n);
    EXPECT_EQ(out ? pclose(out) : -1, 0) << command;
    return text.substr(0, text.find_last_not_of('\n') + 1);
}

// One exchange made by the daemon's own code (failover-run f_read_write, which waits 5 s at
// most): the reply's bytes.
std::string exchange(const std::string &text, const std::function<void()> &meanwhile = {}) {
    const std::string out =
        output_of(FAILOVER_RUN_BINARY " f_read_write '" + text + "'", meanwhile);
    const size_t at = out.rfind("out=");
    return at == std::string::npos ? "<no reply>" : out.substr(at + 4, out.find('\n', at) - at - 4);
}

const std::string kPython =
    access("/host/usr/bin/python3", X_OK) == 0 ? "/host/usr/bin/python3" : "/usr/bin/python3";

// The simulated router's own controls of its modem (the mock's, sim/modem/modem-control).
std::string modem_control(const std::string &args) {
    return output_of(kPython + " " MODEM_SIM_DIR "/modem-control " + args);
}

class LteManager : public ::testing::Test {
protected:
    void SetUp() override {
        testroot::reset();
        ASSERT_TRUE(testroot::inside());
        int s = socket(AF_INET, SOCK_DGRAM, 0);
        ifreq ifr{};
        std::snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "veth0");
        std::snprintf(ifr.ifr_newname, sizeof ifr.ifr_newname, "rm_usb0");
        ioctl(s, SIOCSIFNAME, &ifr);
        close(s);
        ASSERT_NE(if_nametoindex("rm_usb0"), 0u);
        // The bus ends with the test's PID namespace at the latest.
        const std::string bus = output_of(MODEM_SIM_DIR "/private-bus /tmp/bus --parent none");
        ASSERT_EQ(bus.rfind("unix:path=", 0), 0u)
            << "no private system bus: dbus-daemon (Debian package dbus) missing?";
        setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.c_str(), 1);
        veskNvramConfig_set("wwan_wan_type", "2");
        veskNvramConfig_set("wla_wds_enable", "0");  // the WAN-up restarts NAT
    }

    void TearDown() override {
        if (HasFailure())
            std::printf("--- failover-lte:\n%s--- ModemManager:\n%s",
                        testroot::read_file("/tmp/lte.log").c_str(),
                        testroot::read_file("/tmp/mm.log").c_str());
        if (manager_ > 0) {
            EXPECT_EQ(stop(manager_), 0) << "failover-lte did not end cleanly";
        }
        stop(mm_);
        system(MODEM_SIM_DIR "/private-bus --stop /tmp/bus");
    }

    // The mock, or another ModemManager; returns once it owns its name on the bus.
    void start_modemmanager(const std::string &command =
                                kPython + " -m dbusmock --system --template " MODEM_SIM_DIR
                                          "/modemmanager.py") {
        mm_ = spawn(command, "/tmp/mm.log");
        ASSERT_EQ(system((kPython + " " MODEM_SIM_DIR "/modem-control wait").c_str()), 0)
            << "no ModemManager from " << command << " (Debian packages python3-dbusmock, "
            << "modemmanager)\n" << testroot::read_file("/tmp/mm.log");
    }

    void start_manager() {
        manager_ = spawn(FAILOVER_LTE_BINARY, "/tmp/lte.log");
        ASSERT_TRUE(testroot::wait_for([] { return testroot::exists("/tmp/cgi-2-sys"); }))
            << testroot::read_file("/tmp/lte.log");
    }

    // The mock with one usable modem, and the manager; returns the modem's path.
    std::string start_with_modem() {
        start_modemmanager();
        const std::string modem = modem_control("add-modem");
        start_manager();
        EXPECT_TRUE(key_is("module_ready", "1"));
        return modem;
    }

    pid_t mm_ = -1;
    pid_t manager_ = -1;
};

// Each refusal as the daemon's own exchange gets it (so within its 5 s), on one manager in
// turn: bad requests, the modem's readiness (also in module_ready_reason), ModemManager's own
// error text, the time-out and the cancel. A refused connect leaves its reason in
// wwan_last_error and starts no DHCP client.
TEST_F(LteManager, Replies_ErrnoAndReasonOfEachRefusal) {
    start_manager();
    EXPECT_TRUE(key_is("wan1_ifname", "rm_usb0"));
    EXPECT_EQ(key("wwan_runtime_state"), "NoModem");

    const std::string bad = "bad request: not the expected JSON", none = "ModemManager not running";
    std::string modem;
    const struct {
        const char *what;
        std::function<void()> given;
        std::string ready_reason;  // module_ready_reason once given
        std::string text;
        int err;
        std::string errmsg;
        std::function<void()> meanwhile = nullptr;  // before the reply is read
    } cases[] = {
        {"not JSON", nullptr, none, "hello}", 22, bad},
        {"other action", nullptr, none, R"({"action":"reboot","args":{"manual_mode":1}})", 22, bad},
        {"mode as text", nullptr, none,
         R"({"action":"set_network_connection_mode","args":{"manual_mode":"1"}})", 22, bad},
        {"endless object", nullptr, none, std::string(5000, '{'), 22,
         "bad request: request too long"},
        {"half a request", nullptr, none, R"({"action":)", 22,
         "bad request: no complete request within the time limit"},
        {"disconnect", nullptr, none, request(0), 0, ""},
        {"connect", nullptr, none, request(1), 19, none},
        {"no modem", [&] { start_modemmanager(); }, "no modem", request(1), 19, "no modem"},
        {"SIM locked",
         [&] {
             modem = modem_control("add-modem");
             modem_control("set-state " + modem + " 2");  // locked
         },
         "SIM locked", request(1), 19, "SIM locked"},
        {"refused by ModemManager",
         [&] {
             modem_control("set-state " + modem + " 3");  // disabled: unlocked
             modem_control(
                 R"(connect-result refuse '{"message": "Service option not subscribed"}')");
         },
         "", request(1), 5, "Service option not subscribed"},
        // A bearer on another interface is not the router's WAN.
        {"bearer on wwan0", [] { modem_control(R"(connect-result dhcp '{"interface":"wwan0"}')"); },
         "", request(1), 5, "bearer interface is \"wwan0\", not rm_usb0 (udev rule missing?)"},
        {"cancelled", [] { modem_control("connect-result never"); }, "", request(1), 125,
         "connect cancelled by a disconnect",
         [] {
             EXPECT_TRUE(key_is("wwan_runtime_state", "Connecting"));
             EXPECT_EQ(exchange(request(0)), kOk);
         }},
        {"timed out", [] { veskNvramConfig_set("wwan_connect_timeout", "1"); }, "", request(1), 110,
         "connect not completed within 1 s"},
        // Still under way when the daemon would stop waiting: errno 0, the outcome in the keys.
        {"slow connect", [] { veskNvramConfig_set("wwan_connect_timeout", "30"); }, "", request(1),
         0, ""},
        // The connect under way goes with its modem; the refusal is the next modem's.
        {"no SIM",
         [&] {
             modem_control("remove-modem " + modem);
             modem_control("add-modem --no-sim");
         },
         "no SIM", request(1), 19, "no SIM"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        if (c.given) c.given();
        EXPECT_TRUE(key_is("module_ready_reason", c.ready_reason));
        EXPECT_EQ(exchange(c.text, c.meanwhile), reply(c.err, c.errmsg));
        if (c.err == 19 || c.err == 5 || c.err == 110) {
            EXPECT_EQ(key("wwan_last_error"), c.errmsg);
        }
    }
    EXPECT_EQ(traced(kUdhcpc), 0u);
}

// Connect and disconnect with each way the bearer gets its address, and the keys each leaves.
// Both end in the WAN-up for rm_usb0: udhcpc's lease script, or for a static bearer the lease
// event the manager runs itself.
TEST_F(LteManager, ConnectDisconnect_DhcpAndStaticBearers) {
    start_with_modem();
    EXPECT_EQ(key("wwan_runtime_state"), "Disabled");
    const struct {
        const char *how;
        const char *details;
        const char *address;  // rm_usb0's once connected
    } cases[] = {
        {"dhcp", "{}", "none"},
        {"static",
         R"({"address": "10.64.7.2", "prefix": 30, "gateway": "10.64.7.1", )"
         R"("dns1": "10.64.0.53", "dns2": "10.64.0.54", "mtu": 1430})",
         "10.64.7.2"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.how);
        testroot::clear_logs();
        modem_control(std::string("connect-result ") + c.how + " '" + c.details + "'");
        EXPECT_EQ(exchange(request(1)), kOk);
        EXPECT_TRUE(key_is("wwan_runtime_state", "Connected"));
        EXPECT_EQ(key("wwan_last_error"), "");
        EXPECT_EQ(key("wwan_operator"), "Test Network");
        EXPECT_EQ(key("wwan_access_tech"), "lte");
        EXPECT_EQ(rm_usb0(), std::string("up ") + c.address);
        const bool dhcp = std::strcmp(c.how, "dhcp") == 0;
        EXPECT_TRUE(testroot::wait_for([&] { return traced(kUdhcpc) == (dhcp ? 1u : 0u); }));
        if (!dhcp) {
            EXPECT_TRUE(key_is("wan1_ipaddr", "10.64.7.2"));
            EXPECT_EQ(key("wan1_netmask"), "255.255.255.252");
            EXPECT_EQ(key("wan1_gateway"), "10.64.7.1");
            EXPECT_EQ(key("wan1_dns"), "10.64.0.53 10.64.0.54");
            // The WAN-up for LTE hooks NAT onto rm_usb0.
            EXPECT_TRUE(testroot::wait_for(
                [] { return traced(R"({"fn":"agApi_natHook","args":["rm_usb0"]})") == 1; }));
        }
        EXPECT_EQ(exchange(request(0)), kOk);
        EXPECT_TRUE(key_is("wwan_runtime_state", "Disconnected"));
        EXPECT_EQ(key("wan1_ipaddr"), "0.0.0.0");
        EXPECT_EQ(rm_usb0(), "down none");
    }

    // Stopped while connected: the connection goes with the manager.
    EXPECT_EQ(exchange(request(1)), kOk);
    ASSERT_TRUE(key_is("wwan_runtime_state", "Connected"));
    EXPECT_EQ(stop(manager_), 0);
    EXPECT_EQ(key("wwan_runtime_state"), "Disconnected");
    EXPECT_EQ(rm_usb0(), "down none");
}

// The modem unplugged while connected, then ModemManager restarting: the keys follow each
// change, and the connection the router asked for comes back with the modem.
TEST_F(LteManager, ModemRemovedAndModemManagerRestarted_KeysFollowAndConnectionReturns) {
    const std::string modem = start_with_modem();
    EXPECT_EQ(exchange(request(1)), kOk);
    ASSERT_TRUE(key_is("wwan_runtime_state", "Connected"));

    modem_control("remove-modem " + modem);
    EXPECT_TRUE(key_is("wwan_runtime_state", "NoModem"));
    EXPECT_EQ(key("module_ready"), "0");
    EXPECT_EQ(key("module_ready_reason"), "no modem");
    EXPECT_EQ(key("wan1_ipaddr"), "0.0.0.0");
    EXPECT_EQ(rm_usb0(), "down none");

    modem_control("add-modem");
    EXPECT_TRUE(key_is("wwan_runtime_state", "Connected"));
    EXPECT_TRUE(testroot::wait_for([] { return traced(kUdhcpc) == 2; }));

    stop(mm_);
    EXPECT_TRUE(key_is("module_ready_reason", "ModemManager not running"));
    EXPECT_EQ(key("wwan_runtime_state"), "NoModem");
    EXPECT_EQ(rm_usb0(), "down none");

    start_modemmanager();
    EXPECT_TRUE(key_is("module_ready_reason", "no modem"));
    modem_control("add-modem");
    EXPECT_TRUE(key_is("wwan_runtime_state", "Connected"));
    EXPECT_TRUE(testroot::wait_for([] { return traced(kUdhcpc) == 3; }));
}

// Debian's own ModemManager, which finds no modem in the test root (no udev, suspend or QRTR):
// the manager says so and refuses a connect at once, also once ModemManager has gone.
TEST_F(LteManager, RealModemManagerWithoutModem_ConnectRefused) {
    start_modemmanager(
        "/host/usr/sbin/ModemManager --test-no-udev --test-no-suspend-resume --test-no-qrtr");
    start_manager();
    EXPECT_TRUE(key_is("module_ready_reason", "no modem"));
    EXPECT_EQ(exchange(request(1)), reply(19, "no modem"));

    stop(mm_);
    EXPECT_TRUE(key_is("module_ready_reason", "ModemManager not running"));
    EXPECT_EQ(exchange(request(1)), reply(19, "ModemManager not running"));
}

// 200 connect/disconnect cycles: the manager's descriptors do not grow and its children are
// reaped. Its figures are printed; memory is not checked (allocators keep some).
TEST_F(LteManager, ConnectCycles_NoDescriptorGrowth) {
    mkdir("/tmp/proc", 0755);  // the test root's /proc is a plain directory
    ASSERT_EQ(mount("proc", "/tmp/proc", "proc", 0, nullptr), 0) << std::strerror(errno);
    start_with_modem();
    const std::string proc = "/tmp/proc/" + std::to_string(manager_);
    // Descriptors and resident KiB once the DHCP clients are reaped (each holds a descriptor
    // until then).
    auto usage = [&] {
        EXPECT_TRUE(testroot::wait_for([&] {
            return testroot::read_file(proc + "/task/" + std::to_string(manager_) + "/children")
                .empty();
        })) << "children left unreaped";
        const auto fds = std::distance(std::filesystem::directory_iterator(proc + "/fd"), {});
        const std::string status = testroot::read_file(proc + "/status");
        const size_t at = status.find("VmRSS:");
        return std::pair(fds, at == std::string::npos ? -1L : std::atol(status.c_str() + at + 6));
    };
    std::pair<std::ptrdiff_t, long> before;
    for (int i = 0; i < 210; ++i) {
        if (i == 10) before = usage();  // once caches and the bus have settled
        EXPECT_EQ(exchange(request(1)), kOk);
        EXPECT_EQ(exchange(request(0)), kOk);
    }
    const auto after = usage();
    std::printf("failover-lte, 200 cycles: descriptors %td -> %td, resident %ld -> %ld KiB\n",
                before.first, after.first, before.second, after.second);
    EXPECT_GT(before.first, 0);
    EXPECT_EQ(after.first, before.first);
    umount("/tmp/proc");
}

}  // namespace
