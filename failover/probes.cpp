// Link and reachability probes: the Ethernet port's link state, the ping to the probe address
// and the host route that forces that ping through the Ethernet WAN while LTE holds the default.
#include "failover/probes.h"

#include "platform/nvram.h"
#include "shared/command.h"
#include "shared/store.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

char probe_address[kProbeAddressSize] = "0.0.0.0";

namespace {

struct FileCloser {
    void operator()(std::FILE *f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// Copies `text` into the probe address, cut at the buffer's size: a longer value is no address
// anyway, and the commands that use it refuse it.
void set_probe_address(const char *text) {
    std::snprintf(probe_address, sizeof probe_address, "%s", text);
}

// The command line is printed before it runs, so it is formatted (and checked) first.
int run_printed(const char *routine, const char *format, std::initializer_list<shell::Arg> args) {
    auto command = shell::format(routine, format, args);
    if (!command) return -1;
    std::printf("cmd = %s\n", command->c_str());
    return shell::run(routine, "%s", {shell::trusted(*command)});
}

}  // namespace

void reset_probe_address() { set_probe_address("0.0.0.0"); }

unsigned get_wan_link_status() {
    File f(std::fopen("/proc/wan_status", "rb"));
    if (!f) return 0;
    char line[100] = "";
    if (!std::fgets(line, sizeof line, f.get())) {
        // An empty file reads as link up; one that cannot be read at all tells nothing.
        if (std::ferror(f.get())) {
            std::perror("get_wan_link_status: /proc/wan_status");
            return 0;
        }
        line[0] = '\0';
    }
    return std::strstr(line, "Link Down") ? 0 : 1;
}

int get_ping_result() {
    int loss = 100, transmitted = 0, received = 0;
    shell::Pipe ping("get_ping_result", "ping -c 4 %s", {shell::ipv4(probe_address, "the probe address")});
    if (!ping.is_open()) {
        std::fprintf(stderr, "%s %s(%d) popen failed IPv4=[%s] count=%d\n", "failover_conn",
                     "get_ping_result", 324, probe_address, 1);
        return loss;
    }
    std::string line;
    while (ping.next_line(line))
        if (parse_ping_summary(line.c_str(), transmitted, received, loss)) break;
    ping.close();
    std::fprintf(stderr, "%s() [IP=%s,count=%d] %d packets transmitted, %d packets received, %d%% packet loss\n",
                 "get_ping_result", probe_address, 1, transmitted, received, loss);
    return loss;
}

bool parse_ping_summary(const char *line, int &transmitted, int &received, int &loss) {
    int t = 0, r = 0, l = 0;
    if (std::sscanf(line, "%d packets transmitted, %d packets received, %d%% packet loss", &t, &r,
                    &l) != 3)
        return false;
    // A loss outside 0..100 is no ping summary; below 100 would read as reachable.
    if (l < 0 || l > 100) return false;
    transmitted = t;
    received = r;
    loss = l;
    return true;
}

bool route_line_names(const char *line, const char *address) {
    return std::strstr(line, address) != nullptr;
}

void select_probe_address() {
    const char *configured = store::get("wwan_failover_ping_ip");
    if (std::strcmp(configured, "0.0.0.0") != 0 && configured[0] != '\0') {
        set_probe_address(configured);
        store::set("wwan_failover_test_ip", probe_address);
        return;
    }

    const hostent *host = gethostbyname(FAILOVER_PROBE_HOST);
    if (!host) {
        std::puts("HOST = NULL");
    } else if (host->h_addrtype == AF_INET || host->h_length == 4) {
        std::printf("GOT HOST IP ");
        if (host->h_addr_list && host->h_addr_list[0]) {
            char text[INET_ADDRSTRLEN];
            if (inet_ntop(AF_INET, host->h_addr_list[0], text, sizeof text))
                set_probe_address(text);
        }
        std::printf("host IP = %s\n", probe_address);
    } else {
        std::puts("Invalid address type or it's not IPv4 address ");
    }

    if (std::strcmp(probe_address, "0.0.0.0") == 0) set_probe_address("8.8.8.8");
    store::set("wwan_failover_test_ip", probe_address);
}

int add_probing_route() {
    if (store::match("wan_proto", "pppoe"))
        return run_printed("add_probing_route", "route add %s dev %s",
                           {shell::ipv4(probe_address, "the probe address"),
                            shell::ifname(store::get("pppoe_ifname"), "pppoe_ifname")});
    return run_printed("add_probing_route", "ip route add %s via %s src %s",
                       {shell::ipv4(probe_address, "the probe address"), shell::ipv4(store::get("wan_gateway"), "wan_gateway"),
                        shell::ipv4(store::get("wan_ipaddr"), "wan_ipaddr")});
}

int test_probing_route() {
    shell::Pipe route("test_probing_route", "route | grep %s", {shell::ipv4(probe_address, "the probe address")});
    if (!route.is_open()) {
        // Lenient on purpose: a broken shell must not block the ping that follows.
        std::fprintf(stderr, "%s(%d) popen failed key =[%s]\n", "test_probing_route", 275,
                     probe_address);
        return 0;
    }
    std::string line;
    while (route.next_line(line))
        if (route_line_names(line.c_str(), probe_address)) return 0;
    return -1;
}

int del_probing_route() {
    if (store::match("wan_proto", "pppoe"))
        return shell::run("del_probing_route", "route del %s", {shell::ipv4(probe_address, "the probe address")});
    return shell::run("del_probing_route", "ip route delete %s via %s",
                      {shell::ipv4(probe_address, "the probe address"), shell::ipv4(store::get("wan_gateway"), "wan_gateway")});
}
