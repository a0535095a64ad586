// PPPoE: the pppd options and secrets of the session, the second session of Japanese builds, the
// pty nodes of the pppoecd helper, the Russian dual access and the launch of pppd.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "platform/vesk_shared.h"
#include "shared/file.h"
#include "shared/generated_file.h"
#include "shared/settings.h"
#include "shared/store.h"
#include "wan/ppp_common.h"
#include "wan/ppp_sessions.h"

namespace {

using values::Kind;

constexpr const char *kRoutine = "start_pppoe_session";

using Credential = std::array<char, 64>;
using Quoted = std::array<char, 128>;
using Escaped = std::array<char, 256>;

int number(const char *key) { return ppp::decimal_value(store::get(key)); }

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

struct SessionKeys {
    const char *user;
    const char *password;
    const char *service;
};
constexpr SessionKeys kSession1{"pppoe_username", "pppoe_passwd", "pppoe_servicename"};
constexpr SessionKeys kSession2{"pppoe2_username", "pppoe2_passwd", "pppoe2_servicename"};

// What one session's files are made of.
struct Session {
    Quoted user;
    Quoted password;
    Escaped service;
    std::array<char, 16> wan_ifname;
};

// The session's values, or nothing after the refusal of each that does not fit: pppd hands the
// pty line to a shell, and the escaping of the service name leaves control characters as they
// are; the user name and password go quoted into one line each.
std::optional<Session> read_session(const SessionKeys &keys) {
    const Credential user = store::read_value<64>(keys.user);
    const Credential password = store::read_value<64>(keys.password);
    const Credential service = store::read_value<64>(keys.service);
    const auto wan_ifname = store::read_value<16>("wan_ifname");
    if (!ppp::values_fit(kRoutine, {{"wan_ifname", wan_ifname.data(), Kind::ifname},
                                    {keys.user, user.data(), Kind::line},
                                    {keys.password, password.data(), Kind::line},
                                    {keys.service, service.data(), Kind::line}}))
        return std::nullopt;
    return Session{ppp::quoted<128>(user), ppp::quoted<128>(password), escape_twice(service),
                   wan_ifname};
}

// The access concentrator and session id of the last session, for pppoecd to resume; no file
// when there is nothing to resume, or nothing fit to resume with.
void write_resume_file(const char *path, const char *mac_key, const char *id_key) {
    GeneratedFile f(path);
    if (!f) return;
    const char *mac = store::get(mac_key);
    const char *id = store::get(id_key);
    if (*mac != '\0' && ppp::decimal_value(id) != 0 &&
        ppp::values_fit(kRoutine, {{mac_key, mac, Kind::token}, {id_key, id, Kind::number}})) {
        f.printf("%s %s\n", mac, id);
        if (f.commit() == 0) return;
    }
    unlink(path);
}

bool ktune_wanted() {
    return !(store::match("wwan_wan_type", "2") && store::match("wan_proto", "pppoe") &&
             store::match("current_ifname", "rm_usb0"));
}

// "<helper> -I <ifname>[ -S <service>]<tail>".
std::string pty_command(const char *helper, const Session &s, const char *tail) {
    std::string command = std::string(helper) + " -I " + s.wan_ifname.data();
    if (s.service[0] != '\0') command += std::string(" -S ") + s.service.data();
    return command + tail;
}

bool write_session1_options(const Session &s, int mtu, bool single_session, bool japan) {
    return ppp::write_options(
        kRoutine, {.pty = pty_command("pppoecd", s, ""),
                   .user = s.user.data(),
                   .mtu = mtu,
                   .mru = mtu,
                   .dod_key = "pppoe_dod",
                   .disconnect = japan ? "killall pppoecd 2> /dev/null" : "killall pppoecd",
                   .local_ip_key = "pppoe_localip",
                   .ip_sel_key = "pppoe_ip_sel",
                   .ipv6 = single_session,
                   .ktune = ktune_wanted(),
                   .unit = japan ? 0 : -1,
                   .auth_limits = true,
                   .idle_key = "pppoe_idletime"});
}

// Session 2 never takes the default route and keeps its own pppoecd and unit.
bool write_session2_options(const Session &s, int mtu) {
    return ppp::write_options(kRoutine, {.path = "/tmp/ppp/peers/options",
                                         .default_route = false,
                                         .pty = pty_command("/tmp/pppoecd2", s, " -P 1"),
                                         .user = s.user.data(),
                                         .mtu = mtu,
                                         .mru = mtu,
                                         .dod_key = "pppoe2_dod",
                                         .lcp_echo_interval = 20,
                                         .disconnect = "killall pppoecd2 2> /dev/null",
                                         .local_ip_key = "pppoe2_localip",
                                         .unit = 1,
                                         .idle_key = "pppoe2_idletime",
                                         .persist_fallback = false});
}

bool write_secrets(const Session &s, bool append) {
    return ppp::write_secrets("/tmp/ppp/pap-secrets", "/tmp/ppp/pap-secrets", s.user.data(),
                              s.password.data(), append) &&
           ppp::write_secrets("/tmp/ppp/chap-secrets", "/tmp/ppp/chap-secrets", s.user.data(),
                              s.password.data(), append);
}

// The second session's files; its pppd is started later by the PPP link-up handler. Its
// secrets are appended to the first session's, which are rewritten at every start.
bool prepare_session2(int mtu) {
    const std::optional<Session> s = read_session(kSession2);
    if (!s) return false;
    write_resume_file("/tmp/ppp/pppoe2_session", "pppoe2_server_mac", "pppoe2_session_id");
    return write_session2_options(*s, mtu) && write_secrets(*s, true);
}

// Russian dual access: the physical interface gets its own address beside the PPPoE session.
void start_dual_access(const char *ifname, int unit) {
    if (store::match("static_pppoe_enable", "1")) {
        // The Ethernet WAN start has already put the user's address on the interface.
        std::puts("Static IP by user defined.");
        return;
    }
    std::puts("Dynamic IP by DHCP client.");
    store::set("pppoe_dhcp_enabled", "0");
    // A child whose execv failed goes on to the launch like its parent; kept as the router
    // does it.
    ppp::start_udhcpc(ifname, unit);
}

}  // namespace

void start_pppoe_session(const char *ifname, int unit) {
    if (ifname == nullptr) ifname = "";
    const bool single_session = is_single_session_pppoe() != 0;
    if (single_session) {
        // IPv6 over the same session needs the link always up.
        store::set("pppoe_dod", "0");
        // Relative to the working directory, as the router names them.
        make_symlink("/sbin/vesk_service", "tmp/ppp/ipv6-up");
        make_symlink("/sbin/vesk_service", "tmp/ppp/ipv6-down");
    }
    const bool japan = in_japan_region();
    int mtu = number("wan_mtu");
    // Unsigned on purpose: a negative MTU becomes the cap.
    const unsigned cap = japan ? 1454 : 1492;
    if (static_cast<unsigned>(mtu) > cap) mtu = static_cast<int>(cap);
    ppp::set_number("wan_mtu", mtu);

    write_resume_file("/tmp/ppp/pppoe_session", "pppoe_server_mac", "pppoe_session_id");
    const std::optional<Session> s = read_session(kSession1);
    if (!s || !write_session1_options(*s, mtu, single_session, japan) || !write_secrets(*s, false))
        return;

    // The second session is independent: when it cannot be prepared it is left out, and
    // nothing is to start a pppd on its old or half-made files.
    bool session2 = japan && prepare_session2(mtu);
    if (japan && !session2) {
        unlink("/tmp/ppp/peers/options");
        unlink("/tmp/ppp/no_ppp2");
        std::fprintf(stderr, "%s: second PPPoE session left out\n", kRoutine);
    }

    ppp::make_pty_node(ppp::kPtys0);
    ppp::make_pty_node(ppp::kTtys0);
    if (japan) {
        ppp::make_pty_node(ppp::kPtys1);
        ppp::make_pty_node(ppp::kTtys1);
    }
    if (is_ru_region()) start_dual_access(ifname, unit);

    // The flag tells the PPP link-up handler that the second session's pppd is still to start.
    if (ppp::launch_pppd("pppoe_dod", "pppoe_dod", "pppd") && session2)
        write_generated_file("/tmp/ppp/no_ppp2", "", GeneratedFile::kCreationMode);
}
