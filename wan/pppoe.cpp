// PPPoE: the pppd options and secrets of the session, the second session of Japanese builds, the
// pty nodes of the pppoecd helper, the Russian dual access and the launch of pppd.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "platform/nvram.h"
#include "platform/vesk_shared.h"
#include "shared/command.h"
#include "shared/file.h"
#include "wan/ppp_common.h"
#include "wan/ppp_sessions.h"
#include "shared/settings.h"

namespace {

using ppp::match;
using ppp::read_value;

using Credential = std::array<char, 64>;
using Quoted = std::array<char, 128>;
using Escaped = std::array<char, 256>;

int number(const char *key) { return ppp::decimal_value(veskNvramConfig_get(key)); }

// The service name escaped for the shell twice: once for the pty command's own shell and once
// more for pppd's option parser, which takes one level of backslashes away.
Escaped escape_twice(const Credential &service) {
    constexpr size_t once_max = 2 * (sizeof(Credential) - 1);  // every character escaped
    std::array<char, 128> once{};
    static_assert(sizeof once >= once_max + 1);
    escape_shell_string(service.data(), once.data(), std::strlen(service.data()));
    Escaped twice{};
    static_assert(sizeof twice >= 2 * once_max + 1);
    escape_shell_string(once.data(), twice.data(), std::strlen(once.data()));
    return twice;
}

// What one session's files are made of.
struct Session {
    Quoted user;
    Quoted password;
    Escaped service;
    std::array<char, 16> wan_ifname;
};

Session read_session(const char *user_key, const char *password_key, const char *service_key) {
    Credential user = read_value<64>(user_key);
    Credential password = read_value<64>(password_key);
    Credential service = read_value<64>(service_key);
    return {ppp::quoted<128>(user), ppp::quoted<128>(password), escape_twice(service),
            read_value<16>("wan_ifname")};
}

// The access concentrator and session id of the last session, for pppoecd to resume; no file
// when there is nothing to resume.
void write_resume_file(const char *path, const char *mac_key, const char *id_key) {
    File f = open_file(path, "w");
    if (!f) {
        std::perror(path);
        return;
    }
    const char *mac = veskNvramConfig_get(mac_key);
    const char *id = veskNvramConfig_get(id_key);
    if (*mac != '\0' && ppp::decimal_value(id) != 0) {
        std::fprintf(f.get(), "%s %s\n", mac, id);
        return;
    }
    f.reset();
    unlink(path);
}

// pppd hands the pty line to a shell. The interface name must be one; the service name is
// escaped for every character the shell treats specially, but not for control characters, so a
// line break or a tab in it would start a command of its own there.
bool pty_values_fit(const Session &s) {
    const char *routine = "start_pppoe_session";
    if (!shell::format(routine, "pty 'pppoecd -I %s'", {shell::ifname(s.wan_ifname.data())}))
        return false;
    if (!ppp::has_control_character(s.service.data())) return true;
    std::fprintf(stderr, "%s: refused service name with a control character for the pty line\n",
                 routine);
    return false;
}

bool ktune_wanted() {
    return !(match("wwan_wan_type", "2") && match("wan_proto", "pppoe") &&
             match("current_ifname", "rm_usb0"));
}

bool write_options(const Session &s, int mtu, bool single_session, bool japan) {
    const char *path = "/tmp/ppp/options";
    File file = open_file(path, "w");
    if (!file) {
        std::perror(path);
        return false;
    }
    std::FILE *f = file.get();
    const bool always_on = match("pppoe_dod", "0");
    const bool on_demand = match("pppoe_dod", "1");
    const int idle = number("pppoe_idletime");

    std::fputs("defaultroute\n", f);
    if (s.service[0] != '\0')
        std::fprintf(f, "pty 'pppoecd -I %s -S %s'\n", s.wan_ifname.data(), s.service.data());
    else
        std::fprintf(f, "pty 'pppoecd -I %s'\n", s.wan_ifname.data());
    std::fputs("noauth\n", f);
    std::fprintf(f, "user \"%s\"\n", s.user.data());
    std::fprintf(f, "mtu %d\n", mtu);
    std::fprintf(f, "mru %d\n", mtu);
    std::fputs("holdoff 5\n", f);
    if (always_on) std::fputs("persist\n", f);
    std::fputs("lcp-echo-interval 10\n", f);
    std::fputs("lcp-echo-failure 3\n", f);
    std::fputs("maxfail 0\n", f);
    std::fputs(
        japan ? "disconnect 'killall pppoecd 2> /dev/null'\n" : "disconnect 'killall pppoecd'\n",
        f);
    ppp::write_local_address_line(f, veskNvramConfig_get("pppoe_localip"), "pppoe_ip_sel");
    if (single_session) std::fputs("+ipv6\nipv6 , \n", f);
    std::fputs("ipcp-accept-remote\n", f);
    std::fputs("noipdefault\n", f);
    if (ktune_wanted()) std::fputs("ktune\n", f);
    ppp::write_link_lines(f);
    if (japan) std::fputs("unit 0\n", f);
    std::fputs("pap-max-authreq 3\n", f);
    std::fputs("chap-max-challenge 3\n", f);
    if (on_demand && idle != 0)
        std::fprintf(f, "idle %d\ndemand\n", idle);
    else if (on_demand)
        std::fputs("persist\n", f);

    file.reset();
    chmod(path, 0666);
    return true;
}

// Session 2 never takes the default route and keeps its own pppoecd and unit.
bool write_session2_options(const Session &s, int mtu) {
    const char *path = "/tmp/ppp/peers/options";
    File file = open_file(path, "w+");
    if (!file) {
        std::perror(path);
        return false;
    }
    std::FILE *f = file.get();
    const int idle = number("pppoe2_idletime");

    if (s.service[0] != '\0')
        std::fprintf(f, "pty '/tmp/pppoecd2 -I %s -S %s -P 1'\n", s.wan_ifname.data(),
                     s.service.data());
    else
        std::fprintf(f, "pty '/tmp/pppoecd2 -I %s -P 1'\n", s.wan_ifname.data());
    std::fputs("noauth\n", f);
    std::fprintf(f, "user \"%s\"\n", s.user.data());
    std::fprintf(f, "mtu %d\n", mtu);
    std::fprintf(f, "mru %d\n", mtu);
    std::fputs("holdoff 5\n", f);
    if (match("pppoe2_dod", "0")) std::fputs("persist\n", f);
    std::fputs("lcp-echo-interval 20\n", f);
    std::fputs("lcp-echo-failure 3\n", f);
    std::fputs("maxfail 0\n", f);
    std::fputs("disconnect 'killall pppoecd2 2> /dev/null'\n", f);
    ppp::write_local_address_line(f, veskNvramConfig_get("pppoe2_localip"), nullptr);
    std::fputs("ipcp-accept-remote\n", f);
    std::fputs("noipdefault\n", f);
    std::fputs("ktune\n", f);
    ppp::write_link_lines(f);
    std::fputs("unit 1\n", f);
    if (match("pppoe2_dod", "1") && idle != 0) std::fprintf(f, "idle %d\ndemand\n", idle);

    file.reset();
    chmod(path, 0666);
    return true;
}

// The second session's files; its pppd is started later by the PPP link-up handler. Its
// secrets are appended to the first session's, which are rewritten at every start.
bool prepare_session2(int mtu) {
    Session s = read_session("pppoe2_username", "pppoe2_passwd", "pppoe2_servicename");
    if (!pty_values_fit(s)) return false;
    write_resume_file("/tmp/ppp/pppoe2_session", "pppoe2_server_mac", "pppoe2_session_id");
    return write_session2_options(s, mtu) &&
           ppp::write_secrets("/tmp/ppp/pap-secrets", "a+", "/tmp/ppp/pap-secrets", s.user.data(),
                              s.password.data()) &&
           ppp::write_secrets("/tmp/ppp/chap-secrets", "a+", "/tmp/ppp/chap-secrets", s.user.data(),
                              s.password.data());
}

// Russian dual access: the physical interface gets its own address beside the PPPoE session.
void start_dual_access(const char *ifname, int unit) {
    if (match("static_pppoe_enable", "1")) {
        // The Ethernet WAN start has already put the user's address on the interface.
        std::puts("Static IP by user defined.");
        return;
    }
    std::puts("Dynamic IP by DHCP client.");
    veskNvramConfig_set("pppoe_dhcp_enabled", "0");
    // A child whose execv failed goes on to the launch like its parent; kept as the router
    // does it.
    ppp::start_udhcpc(ifname, unit);
}

}  // namespace

void start_pppoe_session(const char *ifname, int unit) {
    if (ifname == nullptr) ifname = "";
    const Session s = read_session("pppoe_username", "pppoe_passwd", "pppoe_servicename");
    if (!pty_values_fit(s)) return;
    const bool single_session = is_single_session_pppoe() != 0;
    if (single_session) {
        // IPv6 over the same session needs the link always up.
        veskNvramConfig_set("pppoe_dod", "0");
        // Relative to the working directory, as the router names them.
        symlink("/sbin/vesk_service", "tmp/ppp/ipv6-up");
        symlink("/sbin/vesk_service", "tmp/ppp/ipv6-down");
    }
    const bool japan = in_japan_region();
    int mtu = number("wan_mtu");
    // Unsigned on purpose: a negative MTU becomes the cap.
    const unsigned cap = japan ? 1454 : 1492;
    if (static_cast<unsigned>(mtu) > cap) mtu = static_cast<int>(cap);
    ppp::set_number("wan_mtu", mtu);

    write_resume_file("/tmp/ppp/pppoe_session", "pppoe_server_mac", "pppoe_session_id");
    if (!write_options(s, mtu, single_session, japan)) return;
    if (!ppp::write_secrets("/tmp/ppp/pap-secrets", "w", "/tmp/ppp/pap-secrets", s.user.data(),
                            s.password.data()) ||
        !ppp::write_secrets("/tmp/ppp/chap-secrets", "w", "/tmp/ppp/chap-secrets", s.user.data(),
                            s.password.data()))
        return;
    if (japan && !prepare_session2(mtu)) return;

    ppp::make_pty_node(ppp::kPtys0);
    ppp::make_pty_node(ppp::kTtys0);
    if (japan) {
        ppp::make_pty_node(ppp::kPtys1);
        ppp::make_pty_node(ppp::kTtys1);
    }
    if (is_ru_region()) start_dual_access(ifname, unit);

    // The flag tells the PPP link-up handler that the second session's pppd is still to start.
    if (ppp::launch_pppd("pppoe_dod", "pppoe_dod", "pppd") && japan)
        open_file("/tmp/ppp/no_ppp2", "w+");
}
