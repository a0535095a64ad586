#include "wan/ppp_common.h"

#include <arpa/inet.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/nvram.h"
#include "platform/vesk_shared.h"
#include "services/wan_up.h"
#include "shared/file.h"
#include "shared/ifconfig.h"
#include "shared/settings.h"

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

bool match(const char *key, const char *value) { return veskNvramConfig_match(key, value) != 0; }

bool has_control_character(const char *text) {
    for (; *text != '\0'; ++text)
        if (static_cast<unsigned char>(*text) < 0x20 || *text == 0x7f) return true;
    return false;
}


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
    veskNvramConfig_set(key, itoa(value, text));
}

bool write_secrets(const char *path, const char *mode, const char *error_label, const char *user,
                   const char *password) {
    File f = open_file(path, mode);
    if (!f) {
        std::perror(error_label);
        return false;
    }
    std::fprintf(f.get(), "\"%s\" * \"%s\" *\n", user, password);
    f.reset();
    chmod(path, 0666);
    return true;
}

void make_pty_node(const PtyNode &node) {
    if (mknod(node.path, S_IFCHR | 0600, makedev(node.major, node.minor)) != 0)
        std::perror(node.error_label);
}

void write_local_address_line(std::FILE *f, const char *local_ip, const char *ip_sel_key) {
    if (std::strcmp(local_ip, "0.0.0.0") == 0 || (ip_sel_key && match(ip_sel_key, "0")))
        std::fputs("ipcp-accept-local\n", f);
    else
        std::fprintf(f, "%s:\n", local_ip);
}

void write_link_lines(std::FILE *f) {
    for (const char *line : {"default-asyncmap\n", "noaccomp\n", "nopcomp\n", "noccp\n", "novj\n",
                             "nobsdcomp\n", "nodeflate\n", "lock\n", "usepeerdns\n"})
        std::fputs(line, f);
}

DhcpStart start_udhcpc(const char *ifname, int unit) {
    char pid_file[40];
    std::snprintf(pid_file, sizeof pid_file, "/var/run/udhcpc%d.pid", unit);
    std::string host = veskNvramConfig_get("wan_hostname");
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

bool merge_resolv_nameservers(const char *servers, size_t line_size) {
    File f = open_file("/tmp/resolv.conf", "r+");
    if (!f) {
        std::perror("/tmp/resolv.conf");
        return false;
    }
    add_missing_nameservers(f.get(), servers, line_size);
    return true;
}

void add_missing_nameservers(std::FILE *f, const char *servers, size_t line_size) {
    std::vector<char> line(line_size);
    const char *p = servers;
    for (;;) {
        while (*p == ' ') ++p;
        if (*p == '\0') break;
        size_t len = std::strcspn(p, " ");
        // An address longer than a line holds is taken in pieces, as a fixed-width scan does.
        std::string address(p, std::min(len, line_size - 1));
        p += address.size();

        bool listed = false;
        std::rewind(f);
        while (!listed && std::fgets(line.data(), static_cast<int>(line_size), f)) {
            char *save = nullptr;
            const char *first = strtok_r(line.data(), " \t\n", &save);
            const char *second = first ? strtok_r(nullptr, " \t\n", &save) : nullptr;
            listed = first && second && std::strcmp(first, "nameserver") == 0 && address == second;
        }
        if (!listed) {
            std::fseek(f, 0, SEEK_END);
            std::fprintf(f, "nameserver %s\n", address.c_str());
        }
    }
}

void refresh_dns_routes(DnsRouteTable &table, const char *gateway, const char *local_ip,
                        const char *netmask) {
    const bool routed = *gateway != '\0';
    for (auto &entry : table)
        if (entry[0] != '\0' && routed) route_command({"route", "del", entry, "gw", gateway});
    std::memset(table, 0, sizeof table);
    getTokens(veskNvramConfig_get("wan_dns1"), " ", table, kDnsRouteEntries);
    for (auto &entry : table)
        if (entry[0] != '\0' && routed && outside_subnet(entry, local_ip, netmask))
            route_command({"route", "add", "-host", entry, "gw", gateway});
}

bool address_carrier(const TunnelCarrier &c, bool is_static) {
    if (!is_static) {
        std::puts("Dynamic IP by DHCP client.");
        veskNvramConfig_set(c.dhcp_enabled_key, "0");
        DhcpStart started = start_udhcpc(c.ifname, c.unit);
        if (started != DhcpStart::parent) return false;
        // Nothing but the client's event script ends this wait.
        do sleep(1);
        while (!match(c.dhcp_enabled_key, "1"));
        sleep(1);
        return true;
    }

    std::puts("Static IP by user defined.");
    if (match(c.netmask_key, "")) veskNvramConfig_set(c.netmask_key, "255.0.0.0");
    ifconfig(c.ifname, kWanInterfaceFlags, c.user_ip, read_value<32>(c.netmask_key).data());
    if (match("wan_dns_sel", "1")) {
        const std::string servers =
            std::string(veskNvramConfig_get("wan_dns1")).substr(0, c.dns_text_size - 1);
        veskNvramConfig_set(c.dhcp_dns_key, servers.c_str());
        if (!merge_resolv_nameservers(servers.c_str(), c.dns_text_size)) return false;
        std::vector<char> netmask(c.netmask_route_size);
        veskNvramConfig_read(c.netmask_key, netmask.data(), netmask.size());
        refresh_dns_routes(*c.routes, c.gateway, c.user_ip, netmask.data());
    }
    second_wan_up(c.second_wan_ifname);
    return true;
}

bool launch_pppd(const char *dod_key, const char *nat_key, const char *failed_name) {
    if (!match(dod_key, "0") && !match(dod_key, "1")) return false;
    char pppd[] = "pppd", file[] = "file", options[] = "/tmp/ppp/options";
    char *argv[] = {pppd, file, options, nullptr};
    int result = _eval(argv, nullptr, 0, nullptr);
    if (result < 0) {
        std::printf("Failed to execute %s. (%d)\n", failed_name, result);
    } else {
        if (match(nat_key, "1")) wan_up("ppp0");
        std::printf("pppd executed successfully. (%d)\n", result);
    }
    // A console redirected to a file would hold the line until the daemon's next output.
    std::fflush(stdout);
    return true;
}

}  // namespace ppp
