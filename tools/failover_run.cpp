// failover-run ROUTINE [ARG...]: runs one routine of the program in this process, for debugging
// a router and for tests.
//
// Arguments are texts; the word NULL passes a null text; integers are decimal. After the routine
// returns, the last lines of standard output are "out=TEXT" for each output buffer it filled, in
// order, then "result=N" (or "result=TEXT" for a routine returning a text; no result line for a
// routine without one). Unknown routine, wrong argument count or a bad integer: a message on
// standard error and exit status 2, before anything runs.
//
// Adding a routine is one entry in `routines` below: its name, its parameters and a lambda that
// calls it through Call, e.g.
//   {"get_ping_result", "", [](Call &c) { c.result(get_ping_result()); }},
//   {"f_read_write", "path", [](Call &c) { f_read_write(c.text(0), c.buffer(256)); }},
#include "failover/ether_wan.h"
#include "failover/failover_conn.h"
#include "failover/lte_control.h"
#include "failover/probes.h"
#include "ipv6/dhcp6s.h"
#include "ipv6/ipv6_wan.h"
#include "ipv6/radvd.h"
#include "ipv6/spiv6.h"
#include "ipv6/tunnels.h"
#include "platform/nat.h"
#include "platform/nvram.h"
#include "platform/vesk_shared.h"
#include "services/dhcp_event.h"
#include "services/dns.h"
#include "services/openvpn.h"
#include "services/ppp_event.h"
#include "services/rip.h"
#include "services/timesync.h"
#include "services/wan_up.h"
#include "shared/ifconfig.h"
#include "shared/system_util.h"
#include "wan/ppp_common.h"
#include "wan/ppp_sessions.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

constexpr int exit_misuse = 2;

struct Param {
    std::string name;  // as shown in messages, upper case
    bool integer;
};

// One call of a routine: the arguments from the command line and what the routine hands back.
class Call {
public:
    Call(const char *routine, std::vector<Param> params, std::vector<const char *> args)
        : routine_(routine), params_(std::move(params)), args_(std::move(args)) {}

    // Text argument `i`; null for the word NULL.
    const char *text(size_t i) const {
        return std::strcmp(args_.at(i), "NULL") == 0 ? nullptr : args_.at(i);
    }

    // Integer argument `i`, which must lie in [low, high]; otherwise exits with status 2.
    long long integer(size_t i, long long low = INT_MIN, long long high = INT_MAX) const {
        std::optional<long long> value = parse_integer(args_.at(i));
        if (!value || *value < low || *value > high) {
            std::string arg(args_.at(i), strnlen(args_.at(i), 64));
            std::fprintf(stderr, "failover-run: %s: %s must be an integer from %lld to %lld, not \"%s\"\n",
                         routine_, params_.at(i).name.c_str(), low, high, arg.c_str());
            std::exit(exit_misuse);
        }
        return *value;
    }

    // A zeroed output buffer of `size` bytes for the routine to fill; printed as "out=" after
    // the call. One byte more is kept zero, so a routine that fills it whole is still printable.
    char *buffer(size_t size) {
        buffers_.emplace_back(size + 1, '\0');
        outputs_.push_back(Output{&buffers_.back(), {}});
        return buffers_.back().data();
    }

    // An output the routine gives back some other way (through a pointer to a number, ...).
    void out(std::string text) { outputs_.push_back(Output{nullptr, std::move(text)}); }

    template <typename T>
    void result(T value) {
        if constexpr (std::is_convertible_v<T, const char *>) {
            const char *s = value;
            result_ = s ? s : "NULL";
        } else {
            static_assert(std::is_integral_v<T>, "results are integers or texts");
            result_ = std::to_string(value);
        }
    }

    // The lines that close the output, after everything the routine printed.
    void print_outputs() const {
        std::fflush(stdout);
        for (const Output &o : outputs_) {
            const char *text = o.buffer ? o.buffer->data() : o.text.c_str();
            std::printf("out=%s\n", text);
        }
        if (result_) std::printf("result=%s\n", result_->c_str());
        std::fflush(stdout);
    }

    static std::optional<long long> parse_integer(const char *text) {
        if (!*text) return std::nullopt;
        char *end = nullptr;
        errno = 0;
        long long value = std::strtoll(text, &end, 10);
        if (errno != 0 || *end != '\0') return std::nullopt;
        return value;
    }

private:
    struct Output {
        const std::vector<char> *buffer;
        std::string text;
    };

    const char *routine_;
    std::vector<Param> params_;
    std::vector<const char *> args_;
    std::deque<std::vector<char>> buffers_;  // a deque keeps earlier buffers in place
    std::vector<Output> outputs_;
    std::optional<std::string> result_;
};

// The probe routines read the process-wide probe address; here it is their first argument.
void set_probe_address(const Call &c) {
    if (const char *address = c.text(0))
        std::snprintf(probe_address, sizeof probe_address, "%s", address);
}

// A 6rd rule as its configuration entry is written: "enable,prefix,ipv4 mask length,relay".
std::string rule_text(const ipv6rd_rule_t &rule) {
    return std::to_string(rule.enable) + "," + rule.prefix + "," +
           std::to_string(rule.ipv4_mask_length) + "," + rule.relay;
}

struct Routine {
    const char *name;
    // Parameter names separated by blanks; a name starting with "#" is an integer.
    const char *params;
    void (*call)(Call &);
};

const Routine routines[] = {
    {"veskNvramConfig_get", "name", [](Call &c) { c.result(veskNvramConfig_get(c.text(0))); }},
    {"veskNvramConfig_set", "name value",
     [](Call &c) { c.result(veskNvramConfig_set(c.text(0), c.text(1))); }},
    {"veskNvramConfig_match", "name match",
     [](Call &c) { c.result(veskNvramConfig_match(c.text(0), c.text(1))); }},
    {"veskNvramConfig_invmatch", "name invmatch",
     [](Call &c) { c.result(veskNvramConfig_invmatch(c.text(0), c.text(1))); }},
    {"veskNvramConfig_read", "name #size",
     [](Call &c) {
         auto size = static_cast<size_t>(c.integer(1, 0, 1 << 24));
         c.result(veskNvramConfig_read(c.text(0), c.buffer(size), size));
     }},
    {"veskNvramConfig_save", "", [](Call &c) { c.result(veskNvramConfig_save()); }},
    {"update_resolv_conf", "ifname", [](Call &c) { c.result(update_resolv_conf(c.text(0))); }},
    {"write_ppp_resolv", "#mode",
     [](Call &c) { write_ppp_resolv(static_cast<int>(c.integer(0))); }},
    {"remove_wan_dns", "ifname", [](Call &c) { c.result(remove_wan_dns(c.text(0))); }},
    {"dns_routed_via_wan", "address", [](Call &c) { c.result(dns_routed_via_wan(c.text(0))); }},
    {"dhcp_client_event", "event interface ip subnet router dns",
     [](Call &c) {
         auto s = [&c](size_t i) { return std::string(c.text(i) ? c.text(i) : ""); };
         c.result(dhcp_client_event(s(0), {s(1), s(2), s(3), s(4), s(5)}));
     }},
    {"ppp_ip_up", "ifname local remote dns1 dns2",
     [](Call &c) {
         auto s = [&c](size_t i) { return std::string(c.text(i) ? c.text(i) : ""); };
         c.result(ppp_ip_up({s(0), s(1), s(2), s(3), s(4)}));
     }},
    {"ppp_ip_down", "ifname local remote dns1 dns2",
     [](Call &c) {
         auto s = [&c](size_t i) { return std::string(c.text(i) ? c.text(i) : ""); };
         c.result(ppp_ip_down({s(0), s(1), s(2), s(3), s(4)}));
     }},
    {"start_openvpn", "", [](Call &c) { c.result(start_openvpn()); }},
    {"stop_openvpn", "", [](Call &c) { c.result(stop_openvpn()); }},
    {"get_tun_device_name", "", [](Call &c) { get_tun_device_name(c.buffer(kTunNameSize)); }},
    {"restart_timesync", "", [](Call &c) { c.result(restart_timesync()); }},
    {"start_rip", "", [](Call &c) { c.result(start_rip()); }},
    {"stop_rip", "", [](Call &c) { c.result(stop_rip()); }},
    {"write_rip_conf", "ifname #is_lan",
     [](Call &c) { c.result(write_rip_conf(c.text(0), static_cast<int>(c.integer(1)))); }},
    {"netmask_to_prefix_length", "netmask",
     [](Call &c) { c.result(netmask_to_prefix_length(c.text(0))); }},
    {"ifconfig", "name #flags address netmask",
     [](Call &c) {
         c.result(ifconfig(c.text(0), static_cast<int>(c.integer(1)), c.text(2), c.text(3)));
     }},
    {"ipv6_prepare_wan", "", [](Call &c) { c.result(ipv6_prepare_wan()); }},
    {"Ether_connection_start", "", [](Call &) { Ether_connection_start(); }},
    {"Ether_connection_probe", "", [](Call &c) { c.result(Ether_connection_probe()); }},
    {"start_pppoe_wan", "", [](Call &) { start_pppoe_wan(); }},
    {"PPPoE_connection_probe", "", [](Call &c) { c.result(PPPoE_connection_probe()); }},
    {"stop_ether_wan", "", [](Call &) { stop_ether_wan(); }},
    {"stop_lte_dhcp_client", "", [](Call &) { stop_lte_dhcp_client(); }},
    {"start_pppoe_session", "ifname #unit",
     [](Call &c) { start_pppoe_session(c.text(0), static_cast<int>(c.integer(1))); }},
    {"start_pptp_session", "ifname #unit",
     [](Call &c) { start_pptp_session(c.text(0), static_cast<int>(c.integer(1))); }},
    {"start_l2tp_session", "ifname #unit",
     [](Call &c) { start_l2tp_session(c.text(0), static_cast<int>(c.integer(1))); }},
    {"escape_shell_string", "src #len",
     [](Call &c) {
         auto len = static_cast<size_t>(c.integer(1, 0, 1 << 20));
         c.result(escape_shell_string(c.text(0), c.buffer(2 * len + 1), len));
     }},
    {"get_wan_link_status", "", [](Call &c) { c.result(get_wan_link_status()); }},
    {"reset_probe_address", "",
     [](Call &c) {
         reset_probe_address();
         c.out(probe_address);
     }},
    {"select_probe_address", "",
     [](Call &c) {
         select_probe_address();
         c.out(probe_address);
     }},
    {"get_ping_result", "probe_address",
     [](Call &c) {
         set_probe_address(c);
         c.result(get_ping_result());
     }},
    {"add_probing_route", "probe_address",
     [](Call &c) {
         set_probe_address(c);
         c.result(add_probing_route());
     }},
    {"test_probing_route", "probe_address",
     [](Call &c) {
         set_probe_address(c);
         c.result(test_probing_route());
     }},
    {"del_probing_route", "probe_address",
     [](Call &c) {
         set_probe_address(c);
         c.result(del_probing_route());
     }},
    {"get_pid_by_name2", "name", [](Call &c) { c.result(get_pid_by_name2(c.text(0))); }},
    {"f_read_write", "request",
     [](Call &c) { c.result(f_read_write(c.text(0), c.buffer(kLteReplySize), kLteReplySize)); }},
    {"connect_disconnect", "#mode",
     [](Call &c) { c.result(connect_disconnect(static_cast<int>(c.integer(0)))); }},
    {"lte_connect", "", [](Call &) { lte_connect(); }},
    {"parse_lte_reply", "reply #mode",
     [](Call &c) { c.result(parse_lte_reply(c.text(0), static_cast<int>(c.integer(1)))); }},
    {"handle_failover_batch", "data", [](Call &c) { handle_failover_batch(c.text(0)); }},
    {"monitor_ticks", "#count",
     [](Call &c) {
         MonitorState state;
         for (long long i = c.integer(0, 0, 1000); i > 0; --i) monitor_tick(state);
         c.out("tick=" + std::to_string(state.tick) + " lte_wait=" + std::to_string(state.lte_wait));
     }},
    {"lte_disconnect", "", [](Call &) { lte_disconnect(); }},
    {"wan_up", "ifname", [](Call &c) { wan_up(c.text(0)); }},
    {"start_wan_nat", "#is_ether",
     [](Call &c) { c.result(start_wan_nat(static_cast<int>(c.integer(0)))); }},
    {"mp_start_nat", "ifname", [](Call &c) { c.result(mp_start_nat(c.text(0))); }},
    {"dmz_init", "", [](Call &c) { c.result(dmz_init()); }},
    {"second_wan_up", "ifname", [](Call &c) { c.result(second_wan_up(c.text(0))); }},
    {"start_tc_qos", "", [](Call &c) { c.result(start_tc_qos()); }},
    {"ipv6_spi_mode", "#mode",
     [](Call &c) { c.result(ipv6_spi_mode(static_cast<int>(c.integer(0)))); }},
    {"ipv6_spi_lan_hook", "ifname", [](Call &c) { c.result(ipv6_spi_lan_hook(c.text(0))); }},
    {"ipv6_spi_wan_hook", "ifname", [](Call &c) { c.result(ipv6_spi_wan_hook(c.text(0))); }},
    {"ipv6_drop_all_packet", "#flag",
     [](Call &c) { c.result(ipv6_drop_all_packet(static_cast<int>(c.integer(0)))); }},
    {"ipv6_enable_wan_ping", "#flag",
     [](Call &c) { c.result(ipv6_enable_wan_ping(static_cast<int>(c.integer(0)))); }},
    {"write_radvd_conf", "", [](Call &c) { c.result(write_radvd_conf()); }},
    {"rdnss_from_link_local", "", [](Call &c) { c.result(rdnss_from_link_local()); }},
    {"start_dhcp6s", "", [](Call &c) { c.result(start_dhcp6s()); }},
    {"ipv6_wan_start", "mode wan_ifname wan_addr wan_length lan_prefix lan_length",
     [](Call &c) {
         c.result(ipv6_wan_start(c.text(0), c.text(1), c.text(2), c.text(3), c.text(4),
                                 c.text(5)));
     }},
    {"radvd_update_lan_prefix", "lan_addr lan_length",
     [](Call &c) { c.result(radvd_update_lan_prefix(c.text(0), c.text(1))); }},
    {"get_ipv6_prefix", "addr #length",
     [](Call &c) {
         c.result(get_ipv6_prefix(c.text(0), static_cast<int>(c.integer(1)),
                                  c.buffer(kIpv6PrefixSize)));
     }},
    {"start_6to4_tunnel", "", [](Call &c) { c.result(start_6to4_tunnel()); }},
    {"make_6to4_address", "", [](Call &c) { c.result(make_6to4_address(c.buffer(128))); }},
    {"start_6rd_tunnel", "", [](Call &c) { c.result(start_6rd_tunnel()); }},
    {"make_6rd_prefix", "rule_prefix #ipv4_mask_length #wan_ipv4",
     [](Call &c) {
         char *out = c.buffer(64);
         c.result(make_6rd_prefix(out, c.text(0), static_cast<int>(c.integer(1)),
                                  static_cast<uint32_t>(c.integer(2, 0, UINT32_MAX))));
     }},
    {"agApi_feature_set", "#mask",
     [](Call &c) { c.result(agApi_feature_set(static_cast<unsigned>(c.integer(0, 0, UINT_MAX)))); }},
    {"agApi_natHook", "ifname", [](Call &c) { c.result(agApi_natHook(c.text(0))); }},
    {"agApi_natUnhook", "ifname", [](Call &c) { c.result(agApi_natUnhook(c.text(0))); }},
    {"agApi_natLanHook", "ifname", [](Call &c) { c.result(agApi_natLanHook(c.text(0))); }},
    {"agApi_natPptpWanHook", "ifname", [](Call &c) { c.result(agApi_natPptpWanHook(c.text(0))); }},
    {"agApi_natProbeHook", "ifname", [](Call &c) { c.result(agApi_natProbeHook(c.text(0))); }},
    {"agApi_natWanIfCnt", "",
     [](Call &c) {
         int count = -1;
         c.result(agApi_natWanIfCnt(&count));
         c.out(std::to_string(count));
     }},
    {"agApi_natSetRegion", "region", [](Call &c) { c.result(agApi_natSetRegion(c.text(0))); }},
    {"agApi_fwDMZRuleSet", "#index #enable host",
     [](Call &c) {
         c.result(agApi_fwDMZRuleSet(static_cast<int>(c.integer(0)), static_cast<int>(c.integer(1)),
                                     inet_addr(c.text(2))));
     }},
    {"agApi_natSetInboundFilter", "#on",
     [](Call &c) { c.result(agApi_natSetInboundFilter(static_cast<int>(c.integer(0)))); }},
    {"agApi_natEnable", "", [](Call &c) { c.result(agApi_natEnable()); }},
    {"agApi_setDeviceListenPort", "#service #port #enable",
     [](Call &c) {
         c.result(agApi_setDeviceListenPort(static_cast<int>(c.integer(0)),
                                            static_cast<int>(c.integer(1)),
                                            static_cast<int>(c.integer(2))));
     }},
    {"agApi_fwEchoRespSet", "#on",
     [](Call &c) { c.result(agApi_fwEchoRespSet(static_cast<int>(c.integer(0)))); }},
    {"veskNat_DoConnRecovery", "",
     [](Call &c) { c.result(veskNat_DoConnRecovery()); }},
    // argv0 to argv2 with NULL ending the vector early, as in "_eval sh -c 'exit 3' NULL 0".
    {"_eval", "argv0 argv1 argv2 path #timeout",
     [](Call &c) {
         char *argv[] = {const_cast<char *>(c.text(0)), const_cast<char *>(c.text(1)),
                         const_cast<char *>(c.text(2)), nullptr};
         c.result(_eval(argv, c.text(3), static_cast<int>(c.integer(4)), nullptr));
     }},
    {"isValidIpAddr", "text", [](Call &c) { c.result(isValidIpAddr(c.text(0))); }},
    {"mac_addr_to_interface_id", "mac",
     [](Call &c) { c.result(mac_addr_to_interface_id(c.text(0), c.buffer(VESK_IPV6_TEXT_SIZE))); }},
    {"create_ipv6_addr", "prefix #prefix_len ifid",
     [](Call &c) {
         c.result(create_ipv6_addr(c.text(0), static_cast<int>(c.integer(1)), c.text(2),
                                   c.buffer(VESK_IPV6_TEXT_SIZE)));
     }},
    // The MAC as text; one ether_atoe cannot parse stays all zeros.
    {"set_eth_mac", "ifname mac",
     [](Call &c) {
         unsigned char mac[6] = {};
         ether_atoe(c.text(1), mac);
         c.result(set_eth_mac(c.text(0), mac));
     }},
    {"get_6rd_auto_params", "",
     [](Call &c) {
         ipv6rd_rule_t rule{};
         c.result(get_6rd_auto_params(&rule));
         c.out(rule_text(rule));
     }},
    // Index 0 asks for the number of rules (a null rule); others fill the rule.
    {"getinst_ipv6rd_rules_shared", "#index",
     [](Call &c) {
         ipv6rd_rule_t rule{};
         int index = static_cast<int>(c.integer(0));
         c.result(getinst_ipv6rd_rules_shared(index == 0 ? nullptr : &rule, index));
         c.out(rule_text(rule));
     }},
    {"add_routes", "ifname", [](Call &c) { c.result(add_routes(c.text(0))); }},
    {"iqos_service", "action", [](Call &c) { c.result(iqos_service(c.text(0))); }},
    {"openvpn_make_config_file", "",
     [](Call &c) { c.result(openvpn_make_config_file()); }},
    {"openvpn_set_lan_ip", "", [](Call &c) { c.result(openvpn_set_lan_ip()); }},
    {"abDisableLanEthernetPort", "",
     [](Call &c) { c.result(abDisableLanEthernetPort()); }},
    {"abEnableLanEthernetPort", "", [](Call &c) { c.result(abEnableLanEthernetPort()); }},
};

std::vector<Param> split_params(const char *params) {
    std::vector<Param> names;
    std::string_view rest = params;
    while (!rest.empty()) {
        size_t start = rest.find_first_not_of(' ');
        if (start == std::string_view::npos) break;
        rest.remove_prefix(start);
        size_t end = std::min(rest.find(' '), rest.size());
        std::string_view word = rest.substr(0, end);
        rest.remove_prefix(end);
        Param param{{}, word[0] == '#'};
        for (char ch : word.substr(param.integer ? 1 : 0))
            param.name += static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
        names.push_back(std::move(param));
    }
    return names;
}

std::string synopsis(const Routine &r) {
    std::string line = r.name;
    for (const Param &p : split_params(r.params)) line += " " + p.name;
    return line;
}

void list_routines() {
    std::fputs("known routines:\n", stderr);
    for (const Routine &r : routines) std::fprintf(stderr, "  %s\n", synopsis(r).c_str());
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        std::fputs("usage: failover-run ROUTINE [ARG...]   (NULL for a null text)\n", stderr);
        list_routines();
        return exit_misuse;
    }
    const Routine *routine = nullptr;
    for (const Routine &r : routines)
        if (std::strcmp(r.name, argv[1]) == 0) routine = &r;
    if (!routine) {
        std::string name(argv[1], strnlen(argv[1], 64));
        std::fprintf(stderr, "failover-run: unknown routine \"%s\"\n", name.c_str());
        list_routines();
        return exit_misuse;
    }

    std::vector<Param> params = split_params(routine->params);
    std::vector<const char *> args(argv + 2, argv + argc);
    if (args.size() != params.size()) {
        std::fprintf(stderr, "failover-run: %s takes %zu argument%s, not %zu\n", routine->name,
                     params.size(), params.size() == 1 ? "" : "s", args.size());
        std::fprintf(stderr, "usage: failover-run %s\n", synopsis(*routine).c_str());
        return exit_misuse;
    }
    Call call(routine->name, params, args);
    // Integers are checked before the routine runs, so a typo never half-runs it.
    for (size_t i = 0; i < params.size(); ++i)
        if (params[i].integer) call.integer(i, LLONG_MIN, LLONG_MAX);

    routine->call(call);
    call.print_outputs();
    return 0;
}
