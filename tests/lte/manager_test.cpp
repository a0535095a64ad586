// failover-lte against the ModemManager mock on a private system bus, seen as the router sees
// it: the reply bytes on "/tmp/cgi-2-sys", the store keys, the programs run and rm_usb0's
// state. veth0 is renamed rm_usb0 to stand for the modem's network device.
#include <arpa/inet.h>
#include <gio/gio.h>
#include <net/if.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/nvram.h"
#include "tests/support/testroot.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr const char *kSocket = "/tmp/cgi-2-sys";
constexpr const char *kOk = "{\"set_network_connection_mode\":{\"errno\":0,\"errmsg\":\"\"}}";
constexpr const char *kMockPath = "/org/freedesktop/ModemManager1";
constexpr const char *kMockIface = "org.freedesktop.ModemManager1.Mock";

std::string request(int mode) {
    return "{\"action\":\"set_network_connection_mode\",\"args\":{\"manual_mode\":" +
           std::to_string(mode) + "} }";
}

std::string reply(int err, const std::string &message) {
    return "{\"set_network_connection_mode\":{\"errno\":" + std::to_string(err) + ",\"errmsg\":\"" +
           message + "\"}}";
}

std::string key(const char *name) { return veskNvramConfig_get(name); }

int open_request(const std::string &text) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", kSocket);
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    // As the daemon does: the request, no newline, the write side left open.
    if (!text.empty() && send(fd, text.data(), text.size(), MSG_NOSIGNAL) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

struct Answer {
    std::string bytes;  // everything sent until the manager closed, or "<no reply>"
    double seconds = 0;
};

Answer read_reply(int fd) {
    if (fd < 0) return {"<no connection>", 0};
    const auto start = std::chrono::steady_clock::now();
    Answer answer;
    pollfd p{fd, POLLIN, 0};
    char buf[1024];
    ssize_t n = 1;
    while (n > 0) {
        if (poll(&p, 1, 6000) != 1) {
            answer.bytes = "<no reply>";
            break;
        }
        // A reset after the reply (a request cut short) ends it like a close.
        n = read(fd, buf, sizeof buf);
        if (n > 0) answer.bytes.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    answer.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return answer;
}

Answer exchange(const std::string &text) { return read_reply(open_request(text)); }

// rm_usb0 as the kernel has it: whether it is up, and its address ("none").
struct Interface {
    bool up = false;
    std::string address = "none";
};

Interface rm_usb0() {
    Interface result;
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq ifr{};
    std::snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "rm_usb0");
    if (ioctl(s, SIOCGIFFLAGS, &ifr) == 0) result.up = ifr.ifr_flags & IFF_UP;
    char text[INET_ADDRSTRLEN];
    if (ioctl(s, SIOCGIFADDR, &ifr) == 0)
        result.address = inet_ntop(
            AF_INET, &reinterpret_cast<sockaddr_in *>(&ifr.ifr_addr)->sin_addr, text, sizeof text);
    close(s);
    return result;
}

pid_t spawn(const std::vector<std::string> &argv, const std::string &log) {
    pid_t pid = fork();
    if (pid == 0) {
        int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        dup2(fd, 1);
        dup2(fd, 2);
        std::vector<char *> args;
        for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    return pid;
}

int stop(pid_t &pid) {
    if (pid <= 0) return -1;
    kill(pid, SIGTERM);
    int status = 0;
    waitpid(pid, &status, 0);
    pid = -1;
    return status;
}

class LteManager : public ::testing::Test {
protected:
    void SetUp() override {
        testroot::reset();
        ASSERT_TRUE(testroot::inside());
        // The modem's network device, named as the udev rule names it.
        int s = socket(AF_INET, SOCK_DGRAM, 0);
        ifreq ifr{};
        std::snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "veth0");
        std::snprintf(ifr.ifr_newname, sizeof ifr.ifr_newname, "rm_usb0");
        ioctl(s, SIOCSIFNAME, &ifr);
        close(s);
        ASSERT_NE(if_nametoindex("rm_usb0"), 0u);

        // The bus ends with the test's PID namespace at the latest.
        FILE *out = popen(LTE_TEST_DIR "/private-bus /tmp/bus --parent none", "r");
        ASSERT_NE(out, nullptr);
        char line[512] = "";
        if (!fgets(line, sizeof line, out)) line[0] = '\0';
        pclose(out);
        address_ = line;
        if (!address_.empty() && address_.back() == '\n') address_.pop_back();
        ASSERT_EQ(address_.rfind("unix:path=", 0), 0u)
            << "sim/modem/private-bus gave no address; dbus-daemon (Debian package dbus) missing?";
        setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
        GError *error = nullptr;
        bus_ = g_dbus_connection_new_for_address_sync(
            address_.c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, &error);
        ASSERT_NE(bus_, nullptr) << (error ? error->message : "");
        veskNvramConfig_set("wwan_wan_type", "2");
        veskNvramConfig_set("wla_wds_enable", "0");  // the WAN-up restarts NAT
    }

    void TearDown() override {
        if (HasFailure())
            std::printf("--- failover-lte:\n%s--- mock:\n%s",
                        testroot::read_file("/tmp/lte.log").c_str(),
                        testroot::read_file("/tmp/mock.log").c_str());
        if (manager_ > 0) {
            EXPECT_EQ(stop(manager_), 0) << "failover-lte did not end cleanly";
        }
        stop(mock_);
        if (bus_) g_object_unref(bus_);
        system(LTE_TEST_DIR "/private-bus --stop /tmp/bus");
    }

    void start_mock() {
        const char *python = access("/host/usr/bin/python3", X_OK) == 0 ? "/host/usr/bin/python3"
                                                                        : "/usr/bin/python3";
        mock_ = spawn(
            {python, "-m", "dbusmock", "--system", "--template", LTE_TEST_DIR "/modemmanager.py"},
            "/tmp/mock.log");
        ASSERT_TRUE(testroot::wait_for([this] { return has_owner(); }))
            << "no ModemManager mock on the bus; python3-dbusmock (Debian) installed?\n"
            << testroot::read_file("/tmp/mock.log");
    }

    void start_manager() {
        manager_ = spawn({FAILOVER_LTE_BINARY}, "/tmp/lte.log");
        ASSERT_TRUE(testroot::wait_for([] { return testroot::exists(kSocket); }))
            << testroot::read_file("/tmp/lte.log");
    }

    bool has_owner() {
        GVariant *r = g_dbus_connection_call_sync(
            bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "NameHasOwner", g_variant_new("(s)", "org.freedesktop.ModemManager1"),
            G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE, 2000, nullptr, nullptr);
        gboolean owned = FALSE;
        if (r) {
            g_variant_get(r, "(b)", &owned);
            g_variant_unref(r);
        }
        return owned;
    }

    // A control call on the mock; its result ("" when none, or the object path it returns).
    std::string mock(const char *method, GVariant *args) {
        GError *error = nullptr;
        GVariant *r = g_dbus_connection_call_sync(bus_, "org.freedesktop.ModemManager1", kMockPath,
                                                  kMockIface, method, args, nullptr,
                                                  G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
        EXPECT_NE(r, nullptr) << method << ": " << (error ? error->message : "");
        std::string result;
        const gchar *path = nullptr;
        if (r && g_variant_is_of_type(r, G_VARIANT_TYPE("(o)"))) g_variant_get(r, "(&o)", &path);
        if (path) result = path;
        if (r) g_variant_unref(r);
        if (error) g_error_free(error);
        return result;
    }

    std::string add_modem(bool has_sim = true) {
        return mock("AddModem", g_variant_new("(b)", has_sim));
    }
    void connect_result(const char *how, const char *details = "@a{sv} {}") {
        GVariant *d = g_variant_new_parsed(details);
        mock("SetConnectResult", g_variant_new("(s@a{sv})", how, d));
    }

    static bool key_is(const char *name, const std::string &value,
                       milliseconds limit = seconds(10)) {
        return testroot::wait_for([&] { return key(name) == value; }, limit);
    }

    std::string address_;
    GDBusConnection *bus_ = nullptr;
    pid_t mock_ = -1;
    pid_t manager_ = -1;
};

const std::vector<std::string> kUdhcpc{
    "udhcpc", "-i", "rm_usb0", "-p", "/var/run/udhcpc1.pid", "-s", "/tmp/udhcpc"};

// Requests the daemon never sends, and a ModemManager that is not there: an answer each, at
// once or at the read limit, and the manager keeps serving.
TEST_F(LteManager, BadRequestsAndNoModemManager_AnsweredWithErrnoAndReason) {
    start_manager();
    EXPECT_TRUE(key_is("module_ready", "0"));
    EXPECT_EQ(key("module_ready_reason"), "ModemManager not running");
    EXPECT_EQ(key("wwan_runtime_state"), "NoModem");
    EXPECT_EQ(key("wan1_ifname"), "rm_usb0");
    EXPECT_EQ(key("wan1_ipaddr"), "0.0.0.0");

    const struct {
        const char *what;
        std::string text;
        std::string expected;
    } cases[] = {
        {"not JSON", "hello}", reply(22, "bad request: not the expected JSON")},
        {"other action", "{\"action\":\"reboot\",\"args\":{\"manual_mode\":1} }",
         reply(22, "bad request: not the expected JSON")},
        {"mode 2", "{\"action\":\"set_network_connection_mode\",\"args\":{\"manual_mode\":2} }",
         reply(22, "bad request: not the expected JSON")},
        {"mode as text",
         "{\"action\":\"set_network_connection_mode\",\"args\":{\"manual_mode\":\"1\"}}",
         reply(22, "bad request: not the expected JSON")},
        {"brace in a string", "{\"action\":\"}\",\"args\":{}}",
         reply(22, "bad request: not the expected JSON")},
        {"endless object", std::string(5000, '{'), reply(22, "bad request: request too long")},
        {"half a request",
         "{\"action\":", reply(22, "bad request: no complete request within the time limit")},
        {"nothing", "", reply(22, "bad request: no complete request within the time limit")},
        {"connect", request(1), reply(19, "ModemManager not running")},
        {"disconnect", request(0), kOk},
    };
    for (const auto &c : cases) {
        const Answer a = exchange(c.text);
        EXPECT_EQ(a.bytes, c.expected) << c.what;
        EXPECT_LT(a.seconds, 3.0) << c.what;
    }
    EXPECT_EQ(key("wwan_last_error"), "ModemManager not running");

    // ModemManager appears without a modem: the keys follow, with no request.
    start_mock();
    EXPECT_TRUE(key_is("module_ready_reason", "no modem"));
    EXPECT_EQ(exchange(request(1)).bytes, reply(19, "no modem"));
}

// Connect and disconnect with each way the bearer gets its address; both end in the WAN-up
// for rm_usb0 (udhcpc's lease script, or the lease handling run by the manager).
TEST_F(LteManager, ConnectDisconnect_DhcpAndStaticBearers) {
    start_mock();
    add_modem();
    start_manager();
    ASSERT_TRUE(key_is("module_ready", "1"));
    EXPECT_EQ(key("module_ready_reason"), "");
    EXPECT_EQ(key("wwan_runtime_state"), "Disabled");

    const struct {
        const char *how;
        const char *details;
        bool dhcp;
    } cases[] = {
        {"dhcp", "@a{sv} {}", true},
        {"static",
         "{'address': <'10.64.7.2'>, 'prefix': <uint32 30>, 'gateway': <'10.64.7.1'>,"
         " 'dns1': <'10.64.0.53'>, 'dns2': <'10.64.0.54'>, 'mtu': <uint32 1430>}",
         false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.how);
        testroot::clear_logs();
        connect_result(c.how, c.details);
        EXPECT_EQ(exchange(request(1)).bytes, kOk);
        EXPECT_TRUE(key_is("wwan_runtime_state", "Connected"));
        EXPECT_EQ(key("wwan_last_error"), "");
        EXPECT_TRUE(rm_usb0().up);
        if (c.dhcp) {
            EXPECT_TRUE(testroot::wait_for([] { return !testroot::calls_of("udhcpc").empty(); }));
            EXPECT_EQ(testroot::calls_of("udhcpc"), std::vector<std::vector<std::string>>{kUdhcpc});
        } else {
            EXPECT_TRUE(key_is("wan1_ipaddr", "10.64.7.2"));
            EXPECT_EQ(key("wan1_netmask"), "255.255.255.252");
            EXPECT_EQ(key("wan1_gateway"), "10.64.7.1");
            EXPECT_EQ(key("wan1_dns"), "10.64.0.53 10.64.0.54");
            EXPECT_EQ(rm_usb0().address, "10.64.7.2");
            EXPECT_TRUE(testroot::calls_of("udhcpc").empty());
        }
        // The WAN-up for LTE hooks NAT onto rm_usb0, whoever ran it.
        if (!c.dhcp) {
            EXPECT_TRUE(testroot::wait_for([] {
                for (const auto &line : testroot::trace())
                    if (line == "{\"fn\":\"agApi_natHook\",\"args\":[\"rm_usb0\"]}") return true;
                return false;
            }));
        }
        EXPECT_EQ(key("wwan_operator"), "Test Network");
        EXPECT_EQ(key("wwan_access_tech"), "lte");

        EXPECT_EQ(exchange(request(0)).bytes, kOk);
        EXPECT_TRUE(key_is("wwan_runtime_state", "Disconnected"));
        EXPECT_EQ(key("wan1_ipaddr"), "0.0.0.0");
        EXPECT_FALSE(rm_usb0().up);
        EXPECT_EQ(rm_usb0().address, "none");
    }

    // Stopped while connected: the connection goes with the manager.
    EXPECT_EQ(exchange(request(1)).bytes, kOk);
    ASSERT_TRUE(key_is("wwan_runtime_state", "Connected"));
    EXPECT_EQ(stop(manager_), 0);
    EXPECT_EQ(key("wwan_runtime_state"), "Disconnected");
    EXPECT_FALSE(rm_usb0().up);
}

// Refusals carry the reason: the modem's own state, or ModemManager's error text.
TEST_F(LteManager, ConnectRefused_RepliesTheReason) {
    start_mock();
    start_manager();
    ASSERT_TRUE(key_is("module_ready_reason", "no modem"));
    EXPECT_EQ(exchange(request(1)).bytes, reply(19, "no modem"));

    const std::string no_sim = add_modem(false);
    EXPECT_TRUE(key_is("module_ready_reason", "no SIM"));
    EXPECT_EQ(exchange(request(1)).bytes, reply(19, "no SIM"));
    // Or the connect asked for would run as soon as a usable modem appears.
    EXPECT_EQ(exchange(request(0)).bytes, kOk);
    mock("RemoveModem", g_variant_new("(o)", no_sim.c_str()));

    add_modem();
    ASSERT_TRUE(key_is("module_ready", "1"));
    connect_result("refuse", "{'message': <'Service option not subscribed'>}");
    EXPECT_EQ(exchange(request(1)).bytes, reply(5, "Service option not subscribed"));
    EXPECT_EQ(key("wwan_last_error"), "Service option not subscribed");
    EXPECT_NE(key("wwan_runtime_state"), "Connected");
    EXPECT_TRUE(testroot::calls_of("udhcpc").empty());

    // A bearer on another interface is not the router's WAN.
    connect_result("dhcp", "{'interface': <'wwan0'>}");
    const Answer a = exchange(request(1));
    EXPECT_EQ(a.bytes,
              reply(5, "bearer interface is \\\"wwan0\\\", not rm_usb0 (udev rule missing?)"));
    EXPECT_TRUE(testroot::calls_of("udhcpc").empty());
}

// LTE DHCP clients started, from the call trace: a client ended at once may never log its call.
size_t udhcpc_starts() {
    size_t n = 0;
    for (const auto &line : testroot::trace())
        if (line.find("{\"fn\":\"_eval\",\"args\":[[\"udhcpc\",\"-i\",\"rm_usb0\"") == 0) ++n;
    return n;
}

// The modem unplugged while connected, then ModemManager restarting: the keys follow each
// change, and the connection the router asked for comes back with the modem.
TEST_F(LteManager, ModemRemovedAndModemManagerRestarted_KeysFollowAndConnectionReturns) {
    start_mock();
    std::string modem = add_modem();
    start_manager();
    ASSERT_TRUE(key_is("module_ready", "1"));
    connect_result("dhcp");
    EXPECT_EQ(exchange(request(1)).bytes, kOk);
    ASSERT_TRUE(key_is("wwan_runtime_state", "Connected"));

    mock("RemoveModem", g_variant_new("(o)", modem.c_str()));
    EXPECT_TRUE(key_is("wwan_runtime_state", "NoModem"));
    EXPECT_EQ(key("module_ready"), "0");
    EXPECT_EQ(key("module_ready_reason"), "no modem");
    EXPECT_EQ(key("wan1_ipaddr"), "0.0.0.0");
    EXPECT_FALSE(rm_usb0().up);

    modem = add_modem();
    EXPECT_TRUE(key_is("wwan_runtime_state", "Connected"));
    EXPECT_TRUE(testroot::wait_for([] { return udhcpc_starts() == 2; }));

    stop(mock_);
    EXPECT_TRUE(key_is("module_ready_reason", "ModemManager not running"));
    EXPECT_EQ(key("wwan_runtime_state"), "NoModem");
    EXPECT_FALSE(rm_usb0().up);

    start_mock();
    EXPECT_TRUE(key_is("module_ready_reason", "no modem"));
    connect_result("dhcp");
    add_modem();
    EXPECT_TRUE(key_is("wwan_runtime_state", "Connected"));
    EXPECT_TRUE(testroot::wait_for([] { return udhcpc_starts() == 3; }));
}

// A connect ModemManager never completes: answered errno 0 within the daemon's 5 s, cancelled
// and reported at the time-out; a disconnect cancels one still pending.
TEST_F(LteManager, ConnectNeverCompletes_AnsweredInTimeThenTimesOut) {
    start_mock();
    add_modem();
    veskNvramConfig_set("wwan_connect_timeout", "6");
    start_manager();
    ASSERT_TRUE(key_is("module_ready", "1"));
    connect_result("never");

    const Answer first = exchange(request(1));
    EXPECT_EQ(first.bytes, kOk);
    EXPECT_GT(first.seconds, 3.5);
    EXPECT_LT(first.seconds, 5.0);  // the daemon gives up on an exchange after 5 s
    EXPECT_EQ(key("wwan_runtime_state"), "Connecting");
    // One connect at a time: another one is told it is under way.
    const Answer again = exchange(request(1));
    EXPECT_EQ(again.bytes, kOk);
    EXPECT_LT(again.seconds, 1.0);
    EXPECT_TRUE(key_is("wwan_last_error", "connect not completed within 6 s", seconds(4)));
    EXPECT_NE(key("wwan_runtime_state"), "Connected");

    const int pending = open_request(request(1));
    ASSERT_TRUE(key_is("wwan_runtime_state", "Connecting"));
    EXPECT_EQ(exchange(request(0)).bytes, kOk);
    EXPECT_EQ(read_reply(pending).bytes, reply(125, "connect cancelled by a disconnect"));
    EXPECT_TRUE(key_is("wwan_runtime_state", "Disconnected"));
    EXPECT_TRUE(testroot::calls_of("udhcpc").empty());
}

size_t open_descriptors(pid_t pid) {
    size_t n = 0;
    if (DIR *dir = opendir(("/tmp/proc/" + std::to_string(pid) + "/fd").c_str())) {
        while (dirent *e = readdir(dir)) n += e->d_name[0] != '.';
        closedir(dir);
    }
    return n;
}

// Child processes of `pid`, zombies included.
size_t children_of(pid_t pid) {
    size_t n = 0;
    const std::string parent = "PPid:\t" + std::to_string(pid) + "\n";
    if (DIR *dir = opendir("/tmp/proc")) {
        while (dirent *e = readdir(dir))
            if (e->d_name[0] >= '1' && e->d_name[0] <= '9')
                n += testroot::read_file("/tmp/proc/" + std::string(e->d_name) + "/status")
                         .find(parent) != std::string::npos;
        closedir(dir);
    }
    return n;
}

long resident_kib(pid_t pid) {
    const std::string status = testroot::read_file("/tmp/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find("VmRSS:");
    return at == std::string::npos ? -1 : std::strtol(status.c_str() + at + 6, nullptr, 10);
}

// 200 connect/disconnect cycles: the manager's descriptors must not grow and its children are
// reaped; its memory is printed (allocators keep some).
TEST_F(LteManager, Soak200Cycles_NoDescriptorGrowth) {
    mkdir("/tmp/proc", 0755);
    ASSERT_EQ(mount("proc", "/tmp/proc", "proc", 0, nullptr), 0) << std::strerror(errno);
    start_mock();
    add_modem();
    start_manager();
    ASSERT_TRUE(key_is("module_ready", "1"));
    connect_result("dhcp");
    auto cycle = [] {
        EXPECT_EQ(exchange(request(1)).bytes, kOk);
        EXPECT_EQ(exchange(request(0)).bytes, kOk);
    };
    // Counted once the DHCP clients are reaped: each holds a descriptor until then.
    auto settled = [this] {
        return testroot::wait_for([this] { return children_of(manager_) == 0; });
    };
    for (int i = 0; i < 10; ++i) cycle();  // caches and the bus settle
    ASSERT_TRUE(settled());
    const size_t fds_before = open_descriptors(manager_);
    const long rss_before = resident_kib(manager_);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 200 && !HasFailure(); ++i) cycle();
    const double took =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_TRUE(settled()) << "children left unreaped";
    const size_t fds_after = open_descriptors(manager_);
    const long rss_after = resident_kib(manager_);
    std::printf(
        "failover-lte, 200 cycles in %.1f s: descriptors %zu -> %zu, resident %ld -> %ld KiB\n",
        took, fds_before, fds_after, rss_before, rss_after);
    EXPECT_GT(fds_before, 0u);
    EXPECT_EQ(fds_after, fds_before);
    umount("/tmp/proc");
}

}  // namespace
