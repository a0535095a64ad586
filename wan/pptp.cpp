// PPTP: the parameter file of the pptp helper, the pppd options and secrets, the pty nodes, the
// address of the physical interface (static or DHCP) and the launch of pppd.
#include <sys/stat.h>

#include <cstdio>
#include <cstring>

#include "platform/nvram.h"
#include "platform/vesk_shared.h"
#include "shared/command.h"
#include "shared/file.h"
#include "wan/ppp_common.h"
#include "wan/ppp_sessions.h"

namespace {

using ppp::match;
using ppp::read_value;

constexpr int kMtuCap = 1436;

// The DNS servers host-routed by an earlier static start of this process.
ppp::DnsRouteTable dns_routes;

struct Settings {
    std::array<char, 122> user;
    std::array<char, 102> password;
    std::array<char, 32> user_ip;
    std::array<char, 64> server;
    std::array<char, 32> gateway;
    std::array<char, 16> wan_ifname;
    bool is_static;
};

bool write_parameters(const Settings &s) {
    const char *path = "/tmp/ppp/pptpIp";
    File file = open_file(path, "w");
    if (!file) {
        std::perror(path);
        return false;
    }
    std::FILE *f = file.get();
    const char *gateway = s.server.data();
    if (s.is_static && s.gateway[0] != '\0' && std::strcmp(s.gateway.data(), "...") != 0)
        gateway = s.gateway.data();

    std::fprintf(f, "%s\n", s.wan_ifname.data());
    std::fprintf(f, "pptp_serv_ip %s\n", s.server.data());
    std::fprintf(f, "pptp_user_ip %s\n", s.is_static ? s.user_ip.data() : "0.0.0.0");
    std::fprintf(f, "pptp_gateway_ip %s\n", gateway);
    std::fprintf(f, "pptp_user_netmask %s\n",
                 s.is_static ? read_value<32>("pptp_user_netmask").data() : "0.0.0.0");
    return true;
}

bool write_options(const Settings &s, int mtu) {
    const char *path = "/tmp/ppp/options";
    File file = open_file(path, "w");
    if (!file) {
        std::perror(path);
        return false;
    }
    std::FILE *f = file.get();
    const bool on_demand = match("pptp_dod", "1");
    const int idle_minutes = ppp::decimal_value(veskNvramConfig_get("pptp_idletime"));

    std::fputs("defaultroute\n", f);
    std::fprintf(f, "pty 'pptp %s --nolaunchpppd'\n", s.server.data());
    std::fputs("noauth\n", f);
    std::fprintf(f, "user \"%s\"\n", s.user.data());
    std::fprintf(f, "mtu %d\n", mtu);
    // The MRU stays at the cap whatever the MTU.
    std::fprintf(f, "mru %d\n", kMtuCap);
    std::fputs("holdoff 5\n", f);
    if (match("pptp_dod", "0")) std::fputs("persist\n", f);
    std::fputs("lcp-echo-interval 10\n", f);
    std::fputs("lcp-echo-failure 3\n", f);
    std::fputs("disconnect 'killall pptp'\n", f);
    std::fputs("maxfail 0\n", f);
    std::fputs("connect echo\n", f);
    ppp::write_local_address_line(f, veskNvramConfig_get("pptp_localip"), "pptp_ip_sel");
    std::fputs("ipcp-accept-remote\n", f);
    std::fputs("noipdefault\n", f);
    std::fputs("ktune\n", f);
    ppp::write_link_lines(f);
    if (on_demand && idle_minutes != 0)
        std::fprintf(f, "idle %d\ndemand\n", ppp::minutes_to_seconds(idle_minutes));
    else if (on_demand)
        std::fputs("persist\n", f);

    file.reset();
    chmod(path, 0666);
    return true;
}

}  // namespace

void start_pptp_session(const char *ifname, int unit) {
    if (ifname == nullptr) ifname = "";
    Settings s{};
    s.user = ppp::quoted<122>(read_value<61>("pptp_username"));
    s.password = ppp::quoted<102>(read_value<51>("pptp_passwd"));
    s.user_ip = read_value<32>("pptp_user_ip");
    s.server = read_value<64>("pptp_serv_ip");
    s.gateway = read_value<32>("pptp_gateway");
    s.wan_ifname = read_value<16>("wan_ifname");
    s.is_static = match("static_pptp_enable", "1");
    // pppd hands the pty line to a shell: the server must be one address or host name there.
    if (!shell::format("start_pptp_session", "pty 'pptp %s --nolaunchpppd'",
                       {shell::word(s.server.data())}))
        return;

    int mtu = ppp::decimal_value(veskNvramConfig_get("wan_mtu"));
    // Unsigned on purpose: a negative MTU is clamped too. The key changes only when clamped.
    if (static_cast<unsigned>(mtu) > kMtuCap) {
        veskNvramConfig_set("wan_mtu", "1436");
        mtu = kMtuCap;
    }

    if (!write_parameters(s) || !write_options(s, mtu)) return;
    if (!ppp::write_secrets("/tmp/ppp/pap-secrets", "w", "/tmp/ppp/pap-screts", s.user.data(),
                            s.password.data()) ||
        !ppp::write_secrets("/tmp/ppp/chap-secrets", "w", "/tmp/ppp/chap-screts", s.user.data(),
                            s.password.data()))
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
