// What the PPPoE, PPTP and L2TP session starts share: pppd string quoting, the value checks of a
// session, the one pppd options writer, the secrets files, the pty nodes, the DHCP client on the
// physical interface, and the DNS handling of a tunnel with a static address.
#pragma once

#include <array>
#include <cstddef>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <string_view>

#include "platform/vesk_shared.h"
#include "shared/values.h"

// Copies `len` bytes of `src` to `dst` (stopping early at a NUL), with a backslash before each
// character the shell treats specially. `dst` must hold 2 * len + 1 bytes and is terminated.
// Returns `dst`, or null (writing nothing) when `src` or `dst` is null.
char *escape_shell_string(const char *src, char *dst, size_t len);

namespace ppp {

// Copies `src` into `dst` with a backslash before '$', '`', '"' and '\', for pppd's
// double-quoted strings. `dst` holds 2 * strlen(src) + 1 bytes at least.
void quote_into(const char *src, char *dst);

// The quoted copy of a value of at most N - 1 characters; the buffer fits the worst case.
template <size_t Q, size_t N>
std::array<char, Q> quoted(const std::array<char, N> &src) {
    static_assert(Q >= 2 * (N - 1) + 1, "quoted buffer too small for every character escaped");
    std::array<char, Q> dst{};
    quote_into(src.data(), dst.data());
    return dst;
}

// The decimal value of a store text as the C library's atoi reads it on the router: leading
// blanks and a sign, digits up to the first other character, 0 without digits; values beyond
// int saturate instead of being undefined.
int decimal_value(const char *text);

// An idle time in minutes as pppd's seconds, wrapping as the router's int arithmetic does.
int minutes_to_seconds(int minutes);

// The text of `value` as the store keeps numbers.
void set_number(const char *key, int value);

// One value of a session and what it must look like where it goes.
struct Value {
    const char *key;
    std::string_view text;
    values::Kind kind;
};

// True when every value fits its kind; each one that does not gets its refusal line.
bool values_fit(const char *routine, std::initializer_list<Value> list);

// A user name that goes raw between pppd's double quotes: a double quote in it ends the quoting
// early, and a blank, quote, backslash or '#' besides would let pppd read the rest as options of
// its own (a "connect" script runs through a shell). True when it is safe; else the refusal.
bool raw_user_fits(const char *routine, const char *key, std::string_view user);

// Writes one secrets line ("\"user\" * \"password\" *") as the whole of `path`, or after its
// present lines when `append`; mode 0666. False, after a report with `error_label`, when the
// file cannot be written.
bool write_secrets(const char *path, const char *error_label, std::string_view user,
                   std::string_view password, bool append);

// A pty device node and the message printed when it cannot be made.
struct PtyNode {
    const char *path;
    unsigned int major;
    unsigned int minor;
    const char *error_label;
};
inline constexpr PtyNode kPtys0{"/dev/ptys0", 2, 48, "Unable to create /dev/ptys0"};
inline constexpr PtyNode kPtys1{"/dev/ptys1", 2, 49, "Unable to create /dev/ptys1"};
inline constexpr PtyNode kPtys2{"/dev/ptys2", 2, 50, "Unable to create /dev/ptys2"};
inline constexpr PtyNode kTtys0{"/dev/ttys0", 3, 48, "Unable to create /dev/ttys0"};
inline constexpr PtyNode kTtys1{"/dev/ttys1", 3, 49, "Unable to create /dev/ttys1"};
inline constexpr PtyNode kTtys2{"/dev/ttys2", 3, 50, "Unable to create /dev/ttys2"};

// Creates the character device (mode 0600); a failure is printed and otherwise ignored (an
// existing node fails harmlessly).
void make_pty_node(const PtyNode &node);

// What one pppd options file is made of: the lines common to every session are the writer's,
// these are the ones that differ between the sessions.
// Members with a value hold what most sessions use; a profile names only where it differs.
struct OptionsProfile {
    const char *path = "/tmp/ppp/options";  // or session 2's file
    bool default_route = true;               // "defaultroute"
    std::string pty;                         // the helper's command line, between single quotes
    std::string user;                        // as the "user" line carries it (quoted or raw)
    int mtu = 0;
    int mru = 0;
    const char *dod_key = nullptr;           // "0": "persist" after "holdoff"; "1": the idle lines
    int lcp_echo_interval = 10;
    const char *disconnect = nullptr;        // the disconnect command, between single quotes
    bool disconnect_before_maxfail = false;  // else after "maxfail" (and "connect echo")
    bool connect_echo = false;               // "connect echo" after "maxfail"
    bool restarts = false;                   // "lcp-restart 5", "ipcp-restart 5"
    const char *local_ip_key = nullptr;      // the requested local address ("%s:")
    const char *ip_sel_key = nullptr;        // "0" takes the peer's offer; null: no selector
    bool ipv6 = false;                       // "+ipv6", "ipv6 , "
    bool ktune = true;
    int unit = -1;                           // "unit N"; below 0: none
    bool linkname = false;                   // "linkname 0"
    bool auth_limits = false;                // "pap-max-authreq 3", "chap-max-challenge 3"
    const char *idle_key = nullptr;          // idle time-out of demand mode
    bool idle_in_minutes = false;            // else stored as pppd's seconds
    bool persist_fallback = true;            // demand mode without idle time: "persist"
};

// Writes the options file of `profile`, mode 0666. A requested local address that is not an
// IPv4 address is reported and its line left out: pppd then takes the peer's offer, as
// "noipdefault" already says. False, after the report, when the file cannot be written.
bool write_options(const char *routine, const OptionsProfile &profile);

// The DHCP client on the physical interface: "udhcpc -i IFNAME -p /var/run/udhcpc<unit>.pid
// -s /tmp/udhcpc [-H <wan_hostname>]", started by fork and execv of /usr/sbin/udhcpc.
enum class DhcpStart {
    parent,       // this process goes on; the client runs (or fails) in the child
    fork_failed,  // reported; no child
    exec_failed,  // this process is the child whose execv failed
};
DhcpStart start_udhcpc(const char *ifname, int unit);

// The physical interface under a PPTP or L2TP session: a static address with the user's DNS
// servers, or a DHCP lease waited for without limit.
inline constexpr int kDnsRouteEntries = 50;
using DnsRouteTable = char[kDnsRouteEntries][VESK_TOKEN_SIZE];

// What the PPTP and L2TP parameter files say of the tunnel.
struct TunnelParameters {
    const char *wan_ifname;
    const char *server;
    const char *user_ip;
    const char *gateway;
    const char *netmask;
    bool is_static;
};

// The gateway of the parameter file: the user's in static mode, else the server.
const char *parameter_gateway(const TunnelParameters &p);

// Writes the parameter file `path`: the interface, then "<prefix>serv_ip", "<prefix>user_ip",
// "<prefix>gateway_ip" and "<prefix>user_netmask" lines ("0.0.0.0" for the addresses outside
// static mode). False after a report when it could not be written.
bool write_tunnel_parameters(const char *path, const char *prefix, const TunnelParameters &p);

struct TunnelCarrier {
    const char *ifname;             // interface addressed (ifconfig, udhcpc -i)
    const char *second_wan_ifname;  // handed to second_wan_up
    int unit;                       // udhcpc pid-file number
    const char *user_ip;            // static address
    const char *netmask_key;        // static mask, "255.0.0.0" when empty
    size_t netmask_route_size;      // buffer the mask is read into for the subnet test
    const char *gateway;            // gateway of the DNS host routes
    const char *dhcp_dns_key;       // receives the copy of "wan_dns1"
    size_t dns_text_size;           // buffer of that copy, of each address and resolver line
    const char *dhcp_enabled_key;   // "1" once the DHCP client has its lease
    DnsRouteTable *routes;          // the process-wide host routes of this protocol
};

// Static: prints "Static IP by user defined.", addresses the interface, merges the DNS servers
// into /tmp/resolv.conf and routes them, then second_wan_up. DHCP: prints "Dynamic IP by DHCP
// client.", starts udhcpc and polls `dhcp_enabled_key` each second until it is "1". True when
// pppd is to be launched next; false when this process is to end the session start (a file or
// fork failure, or the DHCP child whose execv failed).
bool address_carrier(const TunnelCarrier &carrier, bool is_static);

// Deletes the host routes of `table` through `gateway`, then refills it from the DNS list
// "wan_dns1" and adds a host route through `gateway` for each server outside the subnet of
// `local_ip`/`netmask`. Nothing is routed without a gateway.
void refresh_dns_routes(DnsRouteTable &table, const char *gateway, const char *local_ip,
                        const char *netmask);

// The launch: only when `dod_key` is "0" (always on) or "1" (dial on demand), pppd is run on
// /tmp/ppp/options; a start failure prints "Failed to execute <failed_name>. (N)", otherwise
// wan_up("ppp0") runs when `nat_key` is "1" and "pppd executed successfully. (N)" is printed.
// True when the launch was attempted (manual mode: false, nothing printed).
bool launch_pppd(const char *dod_key, const char *nat_key, const char *failed_name);

}  // namespace ppp
