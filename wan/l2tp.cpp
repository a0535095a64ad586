// L2TP: the pty nodes, the parameter file, the l2tpd configuration and info files, the pppd
// options and secrets, the address of the physical interface and the launch of pppd.
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include "platform/nvram.h"
#include "platform/vesk_shared.h"
#include "shared/file.h"
#include "wan/ppp_common.h"
#include "wan/ppp_sessions.h"

namespace {

using ppp::match;
using ppp::read_value;

constexpr int kMtuCap = 1428;

// The DNS servers host-routed by an earlier static start of this process; PPTP keeps its own.
ppp::DnsRouteTable dns_routes;

struct Settings {
    std::array<char, 61> user;  // raw: the "user" and "name" lines carry it unquoted
    std::array<char, 32> password;
    std::array<char, 32> user_ip;
    std::array<char, 64> server;
    std::array<char, 32> gateway;
    std::array<char, 61> conn_id;
    std::array<char, 16> wan_ifname;
    bool is_static;
};

// The user name goes raw into "user \"%s\"" of the pppd options and into the line-based l2tpd
// configuration, the server and the connection id into the latter. A line break would start a
// directive of its own there; a double quote in the name ends pppd's quoting early, and a blank,
// quote, backslash or '#' besides would let pppd read the rest as options of its own (a
// "connect" script runs through a shell). Such values are refused before any file is written.
bool values_fit(const Settings &s) {
    const char *routine = "start_l2tp_session";
    const std::pair<const char *, const char *> lines[] = {
        {"l2tp_user_name", s.user.data()}, {"l2tp_serv_ip", s.server.data()},
        {"l2tp_conn_id", s.conn_id.data()}};
    for (const auto &[key, value] : lines) {
        if (!ppp::has_control_character(value)) continue;
        std::fprintf(stderr, "%s: refused %s holding a control character\n", routine, key);
        return false;
    }
    if (std::strchr(s.user.data(), '"') && std::strpbrk(s.user.data(), " '\\#")) {
        std::fprintf(stderr, "%s: refused l2tp_user_name that pppd would read as more than a name\n",
                     routine);
        return false;
    }
    return true;
}

// Opens `path` for writing; perror with the path when it cannot be.
File open_or_report(const char *path) {
    File f = open_file(path, "w");
    if (!f) std::perror(path);
    return f;
}

bool write_parameters(const Settings &s) {
    File file = open_or_report("/tmp/ppp/l2tpIp");
    if (!file) return false;
    std::FILE *f = file.get();
    const char *gateway = s.server.data();
    if (s.is_static && s.gateway[0] != '\0' && std::strcmp(s.gateway.data(), "...") != 0)
        gateway = s.gateway.data();

    std::fprintf(f, "%s\n", s.wan_ifname.data());
    std::fprintf(f, "l2tp_serv_ip %s\n", s.server.data());
    std::fprintf(f, "l2tp_user_ip %s\n", s.is_static ? s.user_ip.data() : "0.0.0.0");
    std::fprintf(f, "l2tp_gateway_ip %s\n", gateway);
    std::fprintf(f, "l2tp_user_netmask %s\n",
                 s.is_static ? read_value<32>("l2tp_user_netmask").data() : "0.0.0.0");
    return true;
}

bool write_l2tpd_conf(const Settings &s) {
    const char *path = "/tmp/l2tp/l2tpd.conf";
    File file = open_or_report(path);
    if (!file) return false;
    std::FILE *f = file.get();
    std::fprintf(f, "[lac %s]\n", s.conn_id.data());
    std::fprintf(f, "lns = %s\n", s.server.data());
    std::fprintf(f, "name = %s\n", s.user.data());
    std::fputs("ppp debug = yes\n", f);
    std::fputs("pppoptfile = /tmp/ppp/options\n", f);
    std::fputs("length bit = yes\n", f);
    std::fputs("require authentication = yes\n", f);
    file.reset();
    chmod(path, 0666);
    return true;
}

bool write_options(const Settings &s, int mtu) {
    const char *path = "/tmp/ppp/options";
    File file = open_or_report(path);
    if (!file) return false;
    std::FILE *f = file.get();
    const bool on_demand = match("l2tp_dod", "1");
    const int idle_minutes = ppp::decimal_value(veskNvramConfig_get("l2tp_idle_time"));

    std::fputs("defaultroute\n", f);
    std::fputs("pty 'l2tpd -D -c /tmp/l2tp/l2tpd.conf'\n", f);
    std::fputs("noauth\n", f);
    std::fprintf(f, "user \"%s\"\n", s.user.data());
    std::fprintf(f, "mtu %d\n", mtu);
    std::fprintf(f, "mru %d\n", mtu);
    std::fputs("holdoff 5\n", f);
    if (match("l2tp_dod", "0")) std::fputs("persist\n", f);
    std::fputs("lcp-echo-interval 10\n", f);
    std::fputs("lcp-echo-failure 3\n", f);
    std::fputs("maxfail 0\n", f);
    std::fputs("connect echo\n", f);
    std::fputs("disconnect 'killall l2tpd'\n", f);
    std::fputs("lcp-restart 5\n", f);
    std::fputs("ipcp-restart 5\n", f);
    ppp::write_local_address_line(f, veskNvramConfig_get("l2tp_localip"), "l2tp_ip_sel");
    std::fputs("ipcp-accept-remote\n", f);
    std::fputs("noipdefault\n", f);
    std::fputs("ktune\n", f);
    ppp::write_link_lines(f);
    std::fputs("linkname 0\n", f);
    if (on_demand && idle_minutes != 0)
        std::fprintf(f, "idle %d\ndemand\n", ppp::minutes_to_seconds(idle_minutes));
    else if (on_demand)
        std::fputs("persist\n", f);

    file.reset();
    chmod(path, 0666);
    return true;
}

// The connection's name alone, without a newline.
bool write_info(const Settings &s) {
    const char *path = "/tmp/l2tp/l2tpd.info";
    File file = open_or_report(path);
    if (!file) return false;
    std::fputs(s.conn_id.data(), file.get());
    file.reset();
    chmod(path, 0666);
    return true;
}

}  // namespace

void start_l2tp_session(const char *ifname, int unit) {
    if (ifname == nullptr) ifname = "";
    Settings s{};
    s.user = read_value<61>("l2tp_user_name");
    s.password = read_value<32>("l2tp_user_passwd");
    s.user_ip = read_value<32>("l2tp_user_ip");
    s.server = read_value<64>("l2tp_serv_ip");
    s.gateway = read_value<32>("l2tp_gateway_ip");
    s.conn_id = read_value<61>("l2tp_conn_id");
    s.wan_ifname = read_value<16>("wan_ifname");
    s.is_static = match("static_l2tp_enable", "1");
    if (!values_fit(s)) return;

    // All three pairs, before any file is written.
    for (const ppp::PtyNode &node :
         {ppp::kPtys0, ppp::kPtys1, ppp::kPtys2, ppp::kTtys0, ppp::kTtys1, ppp::kTtys2})
        ppp::make_pty_node(node);

    const auto user = ppp::quoted<122>(s.user);
    const auto password = ppp::quoted<64>(s.password);

    int mtu = ppp::decimal_value(veskNvramConfig_get("wan_mtu"));
    // Signed on purpose: a negative MTU is kept as it is.
    if (mtu > kMtuCap) mtu = kMtuCap;
    ppp::set_number("wan_mtu", mtu);

    if (!write_parameters(s)) return;
    if (mkdir("/tmp/l2tp", 0777) == 0) chmod("/tmp/l2tp", 0777);
    if (!write_l2tpd_conf(s) || !write_options(s, mtu) || !write_info(s)) return;
    if (!ppp::write_secrets("/tmp/ppp/pap-secrets", "w", "/tmp/ppp/pap-screts", user.data(),
                            password.data()) ||
        !ppp::write_secrets("/tmp/ppp/chap-secrets", "w", "/tmp/ppp/chap-screts", user.data(),
                            password.data()))
        return;

    // Unlike PPTP, the interface is the one named in the store, not the caller's.
    const ppp::TunnelCarrier carrier{.ifname = s.wan_ifname.data(),
                                     .second_wan_ifname = ifname,
                                     .unit = unit,
                                     .user_ip = s.user_ip.data(),
                                     .netmask_key = "l2tp_user_netmask",
                                     .netmask_route_size = 32,
                                     .gateway = s.gateway.data(),
                                     .dhcp_dns_key = "l2tp_dhcp_dns",
                                     .dns_text_size = 128,
                                     .dhcp_enabled_key = "l2tp_dhcp_enabled",
                                     .routes = &dns_routes};
    if (!ppp::address_carrier(carrier, s.is_static)) return;
    // "pptp_dod" decides wan_up here, not "l2tp_dod"; kept as the router does it.
    ppp::launch_pppd("l2tp_dod", "pptp_dod", "l2tpd");
}
