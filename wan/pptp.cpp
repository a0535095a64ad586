// PPTP: the parameter file of the pptp helper, the pppd options and secrets, the pty nodes, the
// address of the physical interface (static or DHCP) and the launch of pppd.
#include <cstdio>
#include <cstring>

#include "platform/vesk_shared.h"
#include "shared/generated_file.h"
#include "shared/store.h"
#include "wan/ppp_common.h"
#include "wan/ppp_sessions.h"

namespace {

using values::Kind;

constexpr const char *kRoutine = "start_pptp_session";
constexpr int kMtuCap = 1436;

// The DNS servers host-routed by an earlier static start of this process.
ppp::DnsRouteTable dns_routes;

struct Settings {
    std::array<char, 61> user;
    std::array<char, 51> password;
    std::array<char, 32> user_ip;
    std::array<char, 64> server;
    std::array<char, 32> gateway;
    std::array<char, 32> netmask;
    std::array<char, 16> wan_ifname;
    bool is_static;
};

ppp::TunnelParameters parameters(const Settings &s) {
    return {s.wan_ifname.data(), s.server.data(), s.user_ip.data(),
            s.gateway.data(),    s.netmask.data(), s.is_static};
}

// pppd hands the pty line to a shell: the server must be one address or host name there. The
// rest goes into one line each of the parameter file, the options and the secrets.
bool values_fit(const Settings &s) {
    const bool own_gateway = ppp::parameter_gateway(parameters(s)) == s.gateway.data();
    return ppp::values_fit(
        kRoutine,
        {{"pptp_serv_ip", s.server.data(), Kind::name},
         {"wan_ifname", s.wan_ifname.data(), Kind::ifname},
         {"pptp_user_ip", s.is_static ? s.user_ip.data() : "", Kind::ipv4},
         {"pptp_gateway", own_gateway ? s.gateway.data() : "", Kind::ipv4},
         {"pptp_user_netmask", s.is_static ? s.netmask.data() : "", Kind::ipv4},
         {"pptp_username", s.user.data(), Kind::line},
         {"pptp_passwd", s.password.data(), Kind::line}});
}

bool write_parameters(const Settings &s) {
    return ppp::write_tunnel_parameters("/tmp/ppp/pptpIp", "pptp_", parameters(s));
}

bool write_options(const Settings &s, const char *user, int mtu) {
    return ppp::write_options(
        kRoutine, {.pty = std::string("pptp ") + s.server.data() + " --nolaunchpppd",
                   .user = user,
                   .mtu = mtu,
                   .mru = kMtuCap,  // the MRU stays at the cap whatever the MTU
                   .dod_key = "pptp_dod",
                   .disconnect = "killall pptp",
                   .disconnect_before_maxfail = true,
                   .connect_echo = true,
                   .local_ip_key = "pptp_localip",
                   .ip_sel_key = "pptp_ip_sel",
                   .idle_key = "pptp_idletime",
                   .idle_in_minutes = true});
}

}  // namespace

void start_pptp_session(const char *ifname, int unit) {
    if (ifname == nullptr) ifname = "";
    Settings s{};
    s.user = store::read_value<61>("pptp_username");
    s.password = store::read_value<51>("pptp_passwd");
    s.user_ip = store::read_value<32>("pptp_user_ip");
    s.server = store::read_value<64>("pptp_serv_ip");
    s.gateway = store::read_value<32>("pptp_gateway");
    s.wan_ifname = store::read_value<16>("wan_ifname");
    s.is_static = store::match("static_pptp_enable", "1");
    const auto user = ppp::quoted<122>(s.user);
    const auto password = ppp::quoted<102>(s.password);

    int mtu = ppp::decimal_value(store::get("wan_mtu"));
    // Unsigned on purpose: a negative MTU is clamped too. The key changes only when clamped.
    if (static_cast<unsigned>(mtu) > kMtuCap) {
        store::set("wan_mtu", "1436");
        mtu = kMtuCap;
    }

    // The mask as the parameter file carries it: before an empty one gets its default.
    s.netmask = store::read_value<32>("pptp_user_netmask");
    if (!values_fit(s) || !write_parameters(s) || !write_options(s, user.data(), mtu)) return;
    if (!ppp::write_secrets("/tmp/ppp/pap-secrets", "/tmp/ppp/pap-screts", user.data(),
                            password.data(), false) ||
        !ppp::write_secrets("/tmp/ppp/chap-secrets", "/tmp/ppp/chap-screts", user.data(),
                            password.data(), false))
        return;
    ppp::make_pty_node(ppp::kPtys0);
    ppp::make_pty_node(ppp::kTtys0);

    const ppp::TunnelCarrier carrier{.ifname = ifname,
                                     .second_wan_ifname = ifname,
                                     .unit = unit,
                                     .user_ip = s.user_ip.data(),
                                     .netmask_key = "pptp_user_netmask",
                                     .netmask_route_size = 20,
                                     .gateway = s.gateway.data(),
                                     .dhcp_dns_key = "pptp_dhcp_dns",
                                     .dns_text_size = 100,
                                     .dhcp_enabled_key = "pptp_dhcp_enabled",
                                     .routes = &dns_routes};
    if (!ppp::address_carrier(carrier, s.is_static)) return;
    ppp::launch_pppd("pptp_dod", "pptp_dod", "pppd");
}
