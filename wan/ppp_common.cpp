#include "wan/ppp_common.h"

#include <arpa/inet.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/vesk_shared.h"
#include "services/dns.h"
#include "services/wan_up.h"
#include "shared/generated_file.h"
#include "shared/ifconfig.h"
#include "shared/store.h"

namespace {

bool shell_special(unsigned char c) {
    return std::strchr(" !\"#$&'()*,;<>?[\\]^`{|}~", c) != nullptr && c != '\0';
}

// Runs argv in the background with its output on the console; the result is not looked at.
void route_command(std::vector<std::string> args) {
    std::vector<char *> argv;
    for (std::string &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    _eval_daemon(argv.data(), ">/dev/console", 0, nullptr, 0);
}

// Address and mask as inet_addr reads them (an unparsable text is INADDR_NONE).
bool outside_subnet(const char *address, const char *local_ip, const char *netmask) {
    return ((inet_addr(address) ^ inet_addr(local_ip)) & inet_addr(netmask)) != 0;
}

}  // namespace

char *escape_shell_string(const char *src, char *dst, size_t len) {
    if (src == nullptr || dst == nullptr) return nullptr;
    char *out = dst;
    for (size_t i = 0; i < len && src[i] != '\0'; ++i) {
        if (shell_special(static_cast<unsigned char>(src[i]))) *out++ = '\\';
        *out++ = src[i];
    }
    *out = '\0';
    return dst;
}

namespace ppp {

void quote_into(const char *src, char *dst) {
    for (; *src != '\0'; ++src) {
        if (*src == '$' || *src == '`' || *src == '"' || *src == '\\') *dst++ = '\\';
        *dst++ = *src;
    }
    *dst = '\0';
}

int decimal_value(const char *text) {
    long value = std::strtol(text, nullptr, 10);
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return static_cast<int>(value);
}

int minutes_to_seconds(int minutes) {
    return static_cast<int>(static_cast<unsigned>(minutes) * 60u);
}

void set_number(const char *key, int value) {
    char text[12];
    store::set(key, itoa(value, text));
}

bool values_fit(const char *routine, std::initializer_list<Value> list) {
    bool fit = true;
    for (const Value &v : list)
        if (!values::check(routine, v.key, v.text, v.kind)) fit = false;
    return fit;
}

bool raw_user_fits(const char *routine, const char *key, std::string_view user) {
    if (!values::check(routine, key, user, values::Kind::line)) return false;
    if (user.find('"') == std::string_view::npos ||
        user.find_first_of(" '\\#") == std::string_view::npos)
        return true;
    values::report_refused(routine, key, user, "pppd would read it as more than a name");
    return false;
}

bool write_secrets(const char *path, const char *error_label, std::string_view user,
                   std::string_view password, bool append) {
    GeneratedFile f(path, error_label);
    if (!f || (append && !f.keep_existing())) return false;
    f.put("\"");
    f.put(user);
    f.put("\" * \"");
    f.put(password);
    f.put("\" *\n");
    return f.commit(0666) == 0;
}

void make_pty_node(const PtyNode &node) {
    if (mknod(node.path, S_IFCHR | 0600, makedev(node.major, node.minor)) != 0)
        std::perror(node.error_label);
}

bool write_options(const char *routine, const OptionsProfile &p) {
    const bool always_on = store::match(p.dod_key, "0");
    const bool on_demand = store::match(p.dod_key, "1");
    const int idle = decimal_value(store::get(p.idle_key));
    const int idle_value = p.idle_in_minutes ? minutes_to_seconds(idle) : idle;
    const std::string local_ip = store::get(p.local_ip_key);
    const bool accept_local =
        local_ip == "0.0.0.0" || (p.ip_sel_key && store::match(p.ip_sel_key, "0"));
    const bool request_local =
        !accept_local && values::check(routine, p.local_ip_key, local_ip, values::Kind::ipv4);
    const std::string disconnect = std::string("disconnect '") + p.disconnect + "'";

    struct Line {
        bool when;
        std::string text;
    };
    const Line lines[] = {
        {p.default_route, "defaultroute"},
        {true, "pty '" + p.pty + "'"},
        {true, "noauth"},
        {true, "user \"" + p.user + "\""},
        {true, "mtu " + std::to_string(p.mtu)},
        {true, "mru " + std::to_string(p.mru)},
        {true, "holdoff 5"},
        {always_on, "persist"},
        {true, "lcp-echo-interval " + std::to_string(p.lcp_echo_interval)},
        {true, "lcp-echo-failure 3"},
        {p.disconnect_before_maxfail, disconnect},
        {true, "maxfail 0"},
        {p.connect_echo, "connect echo"},
        {!p.disconnect_before_maxfail, disconnect},
        {p.restarts, "lcp-restart 5"},
        {p.restarts, "ipcp-restart 5"},
        {accept_local, "ipcp-accept-local"},
        {request_local, local_ip + ":"},
        {p.ipv6, "+ipv6"},
        {p.ipv6, "ipv6 , "},
        {true, "ipcp-accept-remote"},
        {true, "noipdefault"},
        {p.ktune, "ktune"},
        // Compression, locking and the peer's DNS servers.
        {true, "default-asyncmap\nnoaccomp\nnopcomp\nnoccp\nnovj\nnobsdcomp\nnodeflate\nlock\n"
               "usepeerdns"},
        {p.unit >= 0, "unit " + std::to_string(p.unit)},
        {p.linkname, "linkname 0"},
        {p.auth_limits, "pap-max-authreq 3"},
        {p.auth_limits, "chap-max-challenge 3"},
        {on_demand && idle != 0, "idle " + std::to_string(idle_value)},
        {on_demand && idle != 0, "demand"},
        {on_demand && idle == 0 && p.persist_fallback, "persist"},
    };

    GeneratedFile f(p.path);
    if (!f) return false;
    for (const Line &line : lines) {
        if (!line.when) continue;
        f.put(line.text);
        f.put("\n");
    }
    return f.commit(0666) == 0;
}

DhcpStart start_udhcpc(const char *ifname, int unit) {
    char pid_file[40];
    std::snprintf(pid_file, sizeof pid_file, "/var/run/udhcpc%d.pid", unit);
    std::string host = store::get("wan_hostname");
    std::vector<std::string> args = {"udhcpc", "-i", ifname, "-p", pid_file, "-s", "/tmp/udhcpc"};
    if (!host.empty()) {
        args.push_back("-H");
        args.push_back(host);
    }
    std::vector<char *> argv;
    for (std::string &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);

    std::fflush(nullptr);  // the child must not repeat lines still buffered
    pid_t pid = fork();
    if (pid < 0) {
        std::printf("Fork could not create child process (%d)!!\n", pid);
        return DhcpStart::fork_failed;
    }
    if (pid > 0) return DhcpStart::parent;
    // The daemon ignores both; the client runs its event script and must see it end.
    auto old_chld = std::signal(SIGCHLD, SIG_DFL);
    auto old_pipe = std::signal(SIGPIPE, SIG_DFL);
    execv("/usr/sbin/udhcpc", argv.data());
    std::signal(SIGCHLD, old_chld);
    std::signal(SIGPIPE, old_pipe);
    return DhcpStart::exec_failed;
}

void refresh_dns_routes(DnsRouteTable &table, const char *gateway, const char *local_ip,
                        const char *netmask) {
    const bool routed = *gateway != '\0';
    for (auto &entry : table)
        if (entry[0] != '\0' && routed) route_command({"route", "del", entry, "gw", gateway});
    std::memset(table, 0, sizeof table);
    getTokens(store::get("wan_dns1"), " ", table, kDnsRouteEntries);
    for (auto &entry : table)
        if (entry[0] != '\0' && routed && outside_subnet(entry, local_ip, netmask))
            route_command({"route", "add", "-host", entry, "gw", gateway});
}

const char *parameter_gateway(const TunnelParameters &p) {
    if (p.is_static && p.gateway[0] != '\0' && std::strcmp(p.gateway, "...") != 0) return p.gateway;
    return p.server;
}

bool write_tunnel_parameters(const char *path, const char *prefix, const TunnelParameters &p) {
    GeneratedFile f(path);
    if (!f) return false;
    f.printf("%s\n", p.wan_ifname);
    f.printf("%sserv_ip %s\n", prefix, p.server);
    f.printf("%suser_ip %s\n", prefix, p.is_static ? p.user_ip : "0.0.0.0");
    f.printf("%sgateway_ip %s\n", prefix, parameter_gateway(p));
    f.printf("%suser_netmask %s\n", prefix, p.is_static ? p.netmask : "0.0.0.0");
    return f.commit() == 0;
}

bool address_carrier(const TunnelCarrier &c, bool is_static) {
    if (!is_static) {
        std::puts("Dynamic IP by DHCP client.");
        store::set(c.dhcp_enabled_key, "0");
        DhcpStart started = start_udhcpc(c.ifname, c.unit);
        if (started != DhcpStart::parent) return false;
        // Nothing but the client's event script ends this wait.
        do sleep(1);
        while (!store::match(c.dhcp_enabled_key, "1"));
        sleep(1);
        return true;
    }

    std::puts("Static IP by user defined.");
    if (store::match(c.netmask_key, "")) store::set(c.netmask_key, "255.0.0.0");
    ifconfig(c.ifname, kWanInterfaceFlags, c.user_ip, store::read_value<32>(c.netmask_key).data());
    if (store::match("wan_dns_sel", "1")) {
        const std::string servers =
            std::string(store::get("wan_dns1")).substr(0, c.dns_text_size - 1);
        store::set(c.dhcp_dns_key, servers.c_str());
        if (!merge_resolv_nameservers(servers.c_str(), c.dns_text_size)) return false;
        std::vector<char> netmask(c.netmask_route_size);
        store::read(c.netmask_key, netmask.data(), netmask.size());
        refresh_dns_routes(*c.routes, c.gateway, c.user_ip, netmask.data());
    }
    second_wan_up(c.second_wan_ifname);
    return true;
}

bool launch_pppd(const char *dod_key, const char *nat_key, const char *failed_name) {
    if (!store::match(dod_key, "0") && !store::match(dod_key, "1")) return false;
    char pppd[] = "pppd", file[] = "file", options[] = "/tmp/ppp/options";
    char *argv[] = {pppd, file, options, nullptr};
    int result = _eval(argv, nullptr, 0, nullptr);
    if (result < 0) {
        std::printf("Failed to execute %s. (%d)\n", failed_name, result);
    } else {
        if (store::match(nat_key, "1")) wan_up("ppp0");
        std::printf("pppd executed successfully. (%d)\n", result);
    }
    // A console redirected to a file would hold the line until the daemon's next output.
    std::fflush(stdout);
    return true;
}

}  // namespace ppp
