// The simulated router's LTE connection manager: serves "/tmp/cgi-2-sys" the way the router's
// own manager does, and drives the simulated modem, which is the interface rm_usb0 (one end of
// a veth pair whose other end is the "LTE network").
//
//     failover-sim-lte [--attach-delay SECONDS] [--fail]
//
// A connect request is answered at once; after the attach delay the link comes up, the LTE
// DHCP client starts ("udhcpc -i rm_usb0 -p /var/run/udhcpc1.pid -s /tmp/udhcpc") and
// `wwan_runtime_state` becomes "Connected". A disconnect ends the client, takes the link down
// and sets "Disconnected". `wan1_ipaddr` follows the interface's address throughout.
// While failing (--fail, or after SIGUSR1 until SIGUSR2) a connect is refused with errno 5
// "no service" and the modem stays "Searching"; a request of any other shape gets errno 22. SIGTERM or SIGINT: disconnect and leave.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <chrono>
#include <cjson/cJSON.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "platform/nvram.h"
#include "shared/file.h"
#include "shared/unique_fd.h"

namespace {

constexpr const char *kSocketPath = "/tmp/cgi-2-sys";
constexpr const char *kIfname = "rm_usb0";
constexpr const char *kPidFile = "/var/run/udhcpc1.pid";
constexpr size_t kMaxRequest = 4096;

volatile std::sig_atomic_t g_stop = 0;
volatile std::sig_atomic_t g_failing = 0;

using Clock = std::chrono::steady_clock;

__attribute__((format(printf, 1, 2))) void say(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    std::fprintf(stderr, "lte-manager: ");
    std::vfprintf(stderr, fmt, args);
    std::fputc('\n', stderr);
    va_end(args);
}

struct Cjson {
    cJSON *tree;
    explicit Cjson(const std::string &text) : tree(cJSON_Parse(text.c_str())) {}
    ~Cjson() { cJSON_Delete(tree); }
    Cjson(const Cjson &) = delete;
    Cjson &operator=(const Cjson &) = delete;
};

// The daemon does not shut down its side of the socket: a request is complete when its
// braces balance.
bool request_complete(const std::string &text) {
    int depth = 0;
    bool opened = false;
    for (char c : text) {
        if (c == '{') ++depth, opened = true;
        if (c == '}') --depth;
    }
    return opened && depth == 0;
}

// manual_mode of a well-formed request, nothing for anything else.
std::optional<int> requested_mode(const std::string &text) {
    Cjson json(text);
    const cJSON *action = cJSON_GetObjectItem(json.tree, "action");
    const cJSON *args = cJSON_GetObjectItem(json.tree, "args");
    const cJSON *mode = cJSON_GetObjectItem(args, "manual_mode");
    if (!cJSON_IsString(action) || std::strcmp(action->valuestring, "set_network_connection_mode") != 0 ||
        !cJSON_IsNumber(mode) || (mode->valueint != 0 && mode->valueint != 1))
        return std::nullopt;
    return mode->valueint;
}

std::string reply(int err, const char *message) {
    char text[160];
    std::snprintf(text, sizeof text,
                  "{\"set_network_connection_mode\":{\"errno\":%d,\"errmsg\":\"%s\"}}", err, message);
    return text;
}

bool set_link(bool up) {
    UniqueFd s(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq ifr{};
    std::snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%s", kIfname);
    if (!s.is_open() || ioctl(s.get(), SIOCGIFFLAGS, &ifr) < 0) return false;
    if (up)
        ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP);
    else
        ifr.ifr_flags = static_cast<short>(ifr.ifr_flags & ~IFF_UP);
    return ioctl(s.get(), SIOCSIFFLAGS, &ifr) == 0;
}

// Dotted address of rm_usb0, "0.0.0.0" while it has none.
std::string interface_address() {
    UniqueFd s(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq ifr{};
    std::snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%s", kIfname);
    if (!s.is_open() || ioctl(s.get(), SIOCGIFADDR, &ifr) < 0) return "0.0.0.0";
    char text[INET_ADDRSTRLEN];
    const auto *sin = reinterpret_cast<const sockaddr_in *>(&ifr.ifr_addr);
    return inet_ntop(AF_INET, &sin->sin_addr, text, sizeof text) ? text : "0.0.0.0";
}

void clear_address() {
    UniqueFd s(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq ifr{};
    std::snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%s", kIfname);
    auto *sin = reinterpret_cast<sockaddr_in *>(&ifr.ifr_addr);
    sin->sin_family = AF_INET;
    if (s.is_open()) ioctl(s.get(), SIOCSIFADDR, &ifr);
}

void start_dhcp_client() {
    pid_t pid = fork();
    if (pid == 0) {
        signal(SIGCHLD, SIG_DFL);
        const char *argv[] = {"udhcpc", "-i", kIfname, "-p", kPidFile, "-s", "/tmp/udhcpc", nullptr};
        execvp(argv[0], const_cast<char *const *>(argv));
        std::fprintf(stderr, "lte-manager: udhcpc: %s\n", std::strerror(errno));
        _exit(127);
    }
    if (pid < 0) say("fork: %s", std::strerror(errno));
}

// The LTE DHCP client may already have been ended by the daemon; what is left goes now.
void stop_dhcp_client() {
    int pid = 0;
    if (File f = open_file(kPidFile, "r"); !f || std::fscanf(f.get(), "%d", &pid) != 1) pid = 0;
    if (pid > 1) kill(pid, SIGTERM);
    unlink(kPidFile);
}

class Modem {
public:
    explicit Modem(double attach_delay) : attach_delay_(attach_delay) {
        veskNvramConfig_set("module_ready", "1");
        veskNvramConfig_set("wwan_runtime_state", "Disconnected");
        set_link(false);
    }

    std::string handle(int mode) {
        if (mode == 0) {
            disconnect();
            return reply(0, "");
        }
        if (g_failing) {
            say("%s", "connect refused: no service");
            veskNvramConfig_set("wwan_runtime_state", "Searching");
            return reply(5, "no service");
        }
        if (!attached_ && !attaching_) {
            say("%s", "connect requested, attaching");
            veskNvramConfig_set("wwan_runtime_state", "Connecting");
            attaching_ = true;
            attach_at_ = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                            std::chrono::duration<double>(attach_delay_));
        }
        return reply(0, "");
    }

    // Timed work: the attach, and `wan1_ipaddr` kept in step with the interface.
    void tick() {
        if (attaching_ && Clock::now() >= attach_at_) {
            attaching_ = false;
            if (g_failing) {
                say("%s", "attach failed: no service");
                veskNvramConfig_set("wwan_runtime_state", "Searching");
            } else {
                attached_ = true;
                set_link(true);
                start_dhcp_client();
                veskNvramConfig_set("wwan_runtime_state", "Connected");
                say("%s", "connected");
            }
        }
        veskNvramConfig_set("wan1_ipaddr", interface_address().c_str());
    }

    void disconnect() {
        attaching_ = false;
        if (!attached_) {
            veskNvramConfig_set("wwan_runtime_state", "Disconnected");
            return;
        }
        attached_ = false;
        stop_dhcp_client();
        clear_address();
        set_link(false);
        veskNvramConfig_set("wan1_ipaddr", "0.0.0.0");
        veskNvramConfig_set("wwan_runtime_state", "Disconnected");
        say("%s", "disconnected");
    }

private:
    double attach_delay_;
    bool attached_ = false;
    bool attaching_ = false;
    Clock::time_point attach_at_{};
};

void answer(int client, Modem &modem) {
    std::string request;
    char buf[512];
    while (!request_complete(request) && request.size() < kMaxRequest) {
        pollfd pfd{client, POLLIN, 0};
        if (poll(&pfd, 1, 2000) <= 0) break;
        ssize_t n = read(client, buf, sizeof buf);
        if (n <= 0) break;
        request.append(buf, static_cast<size_t>(n));
    }
    std::optional<int> mode = requested_mode(request);
    std::string text = mode ? modem.handle(*mode) : reply(22, "bad request");
    if (!mode) say("bad request: %s", request.c_str());
    for (size_t done = 0; done < text.size();) {
        ssize_t n = write(client, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
}

// The listening socket, or -1 after a line on stderr.
int listen_on_socket() {
    unlink(kSocketPath);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", kSocketPath);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0 ||
        listen(fd, 8) < 0) {
        std::fprintf(stderr, "lte-manager: %s: %s\n", kSocketPath, std::strerror(errno));
        if (fd >= 0) close(fd);
        return -1;
    }
    return fd;
}

void on_signal(int sig) {
    if (sig == SIGUSR1) g_failing = 1;
    else if (sig == SIGUSR2) g_failing = 0;
    else g_stop = 1;
}

}  // namespace

int main(int argc, char **argv) {
    double attach_delay = 3.0;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--fail") == 0) {
            g_failing = 1;
        } else if (std::strcmp(argv[i], "--attach-delay") == 0 && i + 1 < argc) {
            char *end = nullptr;
            attach_delay = std::strtod(argv[++i], &end);
            if (*end != '\0' || attach_delay < 0 || attach_delay > 3600) {
                std::fprintf(stderr, "failover-sim-lte: bad attach delay '%s'\n", argv[i]);
                return 2;
            }
        } else {
            std::fprintf(stderr, "usage: failover-sim-lte [--attach-delay SECONDS] [--fail]\n");
            return 2;
        }
    }
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    for (int sig : {SIGTERM, SIGINT, SIGUSR1, SIGUSR2}) sigaction(sig, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGCHLD, SIG_IGN);  // the DHCP clients are reaped by the system

    // The modem's keys stand before the socket appears: whoever finds the socket may read them.
    Modem modem(attach_delay);
    UniqueFd listener(listen_on_socket());
    if (!listener.is_open()) return 1;
    say("listening on %s", kSocketPath);
    while (!g_stop) {
        pollfd pfd{listener.get(), POLLIN, 0};
        // The attach and the address are looked at five times a second.
        int ready = poll(&pfd, 1, 200);
        if (ready > 0) {
            UniqueFd client(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (client.is_open()) answer(client.get(), modem);
        }
        modem.tick();
    }
    modem.disconnect();
    unlink(kSocketPath);
    return 0;
}
