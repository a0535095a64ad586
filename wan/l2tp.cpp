// L2TP: the pty nodes, the parameter file, the l2tpd configuration and info files, the pppd
// options and secrets, the address of the physical interface and the launch of pppd.
#include <sys/stat.h>

#include <cstdio>
#include <cstring>

#include "platform/vesk_shared.h"
#include "shared/generated_file.h"
#include "shared/store.h"
#include "wan/ppp_common.h"
#include "wan/ppp_sessions.h"

namespace {

using values::Kind;

constexpr const char *kRoutine = "start_l2tp_session";
constexpr int kMtuCap = 1428;

// The DNS servers host-routed by an earlier static start of this process; PPTP keeps its own.
ppp::DnsRouteTable dns_routes;

struct Settings {
    std::array<char, 61> user;  // raw: the "user" and "name" lines carry it unquoted
    std::array<char, 32> password;
    std::array<char, 32> user_ip;
    std::array<char, 64> server;
    std::array<char, 32> gateway;
    std::array<char, 32> netmask;
    std::array<char, 61> conn_id;
    std::array<char, 16> wan_ifname;
    bool is_static;
};

ppp::TunnelParameters parameters(const Settings &s) {
    return {s.wan_ifname.data(), s.server.data(), s.user_ip.data(),
            s.gateway.data(),    s.netmask.data(), s.is_static};
}

// The server is one host to l2tpd and the parameter file; the interface and addresses one
// word each; the connection id, user name and password one line each. Refused before any file
// is written.
bool values_fit(const Settings &s) {
    const bool own_gateway = ppp::parameter_gateway(parameters(s)) == s.gateway.data();
    const bool fit = ppp::values_fit(
        kRoutine, {{"l2tp_serv_ip", s.server.data(), Kind::name},
                   {"wan_ifname", s.wan_ifname.data(), Kind::ifname},
                   {"l2tp_user_ip", s.is_static ? s.user_ip.data() : "", Kind::ipv4},
                   {"l2tp_gateway_ip", own_gateway ? s.gateway.data() : "", Kind::ipv4},
                   {"l2tp_user_netmask", s.is_static ? s.netmask.data() : "", Kind::ipv4},
                   // The section name ends at ']' and the info file is read as one word.
                   {"l2tp_conn_id", s.conn_id.data(), Kind::token},
                   {"l2tp_user_passwd", s.password.data(), Kind::line}});
    return ppp::raw_user_fits(kRoutine, "l2tp_user_name", s.user.data()) && fit;
}

bool write_parameters(const Settings &s) {
    return ppp::write_tunnel_parameters("/tmp/ppp/l2tpIp", "l2tp_", parameters(s));
}

bool write_l2tpd_conf(const Settings &s) {
    GeneratedFile f("/tmp/l2tp/l2tpd.conf");
    if (!f) return false;
    f.printf("[lac %s]\n", s.conn_id.data());
    f.printf("lns = %s\n", s.server.data());
    f.printf("name = %s\n", s.user.data());
    f.put("ppp debug = yes\n"
          "pppoptfile = /tmp/ppp/options\n"
          "length bit = yes\n"
          "require authentication = yes\n");
    return f.commit(0666) == 0;
}

bool write_options(const Settings &s, int mtu) {
    return ppp::write_options(kRoutine, {.pty = "l2tpd -D -c /tmp/l2tp/l2tpd.conf",
                                         .user = s.user.data(),
                                         .mtu = mtu,
                                         .mru = mtu,
                                         .dod_key = "l2tp_dod",
                                         .disconnect = "killall l2tpd",
                                         .connect_echo = true,
                                         .restarts = true,
                                         .local_ip_key = "l2tp_localip",
                                         .ip_sel_key = "l2tp_ip_sel",
                                         .linkname = true,
                                         .idle_key = "l2tp_idle_time",
                                         .idle_in_minutes = true});
}

// The connection's name alone, without a newline.
bool write_info(const Settings &s) {
    return write_generated_file("/tmp/l2tp/l2tpd.info", s.conn_id.data(), 0666) == 0;
}

}  // namespace

void start_l2tp_session(const char *ifname, int unit) {
    if (ifname == nullptr) ifname = "";
    Settings s{};
    s.user = store::read_value<61>("l2tp_user_name");
    s.password = store::read_value<32>("l2tp_user_passwd");
    s.user_ip = store::read_value<32>("l2tp_user_ip");
    s.server = store::read_value<64>("l2tp_serv_ip");
    s.gateway = store::read_value<32>("l2tp_gateway_ip");
    s.netmask = store::read_value<32>("l2tp_user_netmask");
    s.conn_id = store::read_value<61>("l2tp_conn_id");
    s.wan_ifname = store::read_value<16>("wan_ifname");
    s.is_static = store::match("static_l2tp_enable", "1");
    if (!values_fit(s)) return;

    // All three pairs, before any file is written.
    for (const ppp::PtyNode &node :
         {ppp::kPtys0, ppp::kPtys1, ppp::kPtys2, ppp::kTtys0, ppp::kTtys1, ppp::kTtys2})
        ppp::make_pty_node(node);

    const auto user = ppp::quoted<122>(s.user);
    const auto password = ppp::quoted<64>(s.password);

    int mtu = ppp::decimal_value(store::get("wan_mtu"));
    // Signed on purpose: a negative MTU is kept as it is.
    if (mtu > kMtuCap) mtu = kMtuCap;
    ppp::set_number("wan_mtu", mtu);

    if (!write_parameters(s)) return;
    if (mkdir("/tmp/l2tp", 0777) == 0) chmod("/tmp/l2tp", 0777);
    if (!write_l2tpd_conf(s) || !write_options(s, mtu) || !write_info(s)) return;
    if (!ppp::write_secrets("/tmp/ppp/pap-secrets", "/tmp/ppp/pap-screts", user.data(),
                            password.data(), false) ||
        !ppp::write_secrets("/tmp/ppp/chap-secrets", "/tmp/ppp/chap-screts", user.data(),
                            password.data(), false))
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
