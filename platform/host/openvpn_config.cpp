// The OpenVPN server's configuration files: a routed instance on a tun device, a bridged one
// on tap0 (which start_openvpn joins to the LAN bridge), and a client file for each, all made
// from the configuration store. The LAN settings the routed instance was written from are
// remembered, so that a LAN address change can be told apart and the server restarted.
#include "platform/nvram.h"
#include "platform/vesk_shared.h"

#include "platform/host/trace.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

namespace {

constexpr const char *kRoutine = "openvpn_make_config_file";
constexpr const char *kTunServer = "/tmp/server_tun.conf";
constexpr const char *kTapServer = "/tmp/server_tap.conf";
constexpr const char *kTunClient = "/tmp/client1.ovpn";
constexpr const char *kTapClient = "/tmp/client2.conf";
// "lan_ipaddr lan_netmask" as the routed instance's file was last written from.
constexpr const char *kLanRecord = "/tmp/openvpn_lan_settings";

struct Instance {
    const char *device;  // "tun" or "tap"
    int port = 0;
    const char *proto = "udp";
};

// The routed instance's networks, host byte order.
struct TunNetworks {
    uint32_t network = 0, netmask = 0;
    uint32_t lan_network = 0, lan_netmask = 0;
};

void report(const char *key, const char *value, const char *what, const char *file) {
    std::fprintf(stderr, "%s: %s %s %s; %s not written\n", kRoutine, key,
                 trace::text(value).c_str(), what, file);
}

// Four decimal parts without leading zeros, each at most 255.
bool parse_ipv4(const char *text, uint32_t *out) {
    in_addr address{};
    if (text == nullptr || std::strlen(text) > 15 || ::inet_pton(AF_INET, text, &address) != 1)
        return false;
    *out = ntohl(address.s_addr);
    return true;
}

std::string dotted(uint32_t host_order) {
    in_addr address{htonl(host_order)};
    char text[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
}

// Leading ones only, between `shortest` and `longest` bits long.
bool is_netmask(uint32_t mask, int shortest, int longest) {
    int length = 0;
    while (length < 32 && (mask & (0x80000000U >> length)) != 0) ++length;
    uint32_t expected = length == 0 ? 0 : 0xFFFFFFFFU << (32 - length);
    return mask == expected && length >= shortest && length <= longest;
}

// A configuration value, or `fallback` when the key is empty.
const char *value_or(const char *key, const char *fallback) {
    const char *value = veskNvramConfig_get(key);
    return value == nullptr || *value == '\0' ? fallback : value;
}

bool read_instance(Instance *instance, const char *port_key, const char *proto_key,
                   const char *fallback_port, const char *file) {
    const char *port = value_or(port_key, fallback_port);
    size_t length = std::strlen(port);
    bool digits = length > 0 && length <= 5 && port[0] != '0' &&
                  std::strspn(port, "0123456789") == length;
    instance->port = digits ? std::atoi(port) : 0;
    if (instance->port < 1 || instance->port > 65535) {
        report(port_key, port, "is no port number", file);
        return false;
    }
    const char *proto = value_or(proto_key, "udp");
    if (std::strcmp(proto, "udp") != 0 && std::strcmp(proto, "tcp") != 0) {
        report(proto_key, proto, "is neither \"udp\" nor \"tcp\"", file);
        return false;
    }
    instance->proto = std::strcmp(proto, "tcp") == 0 ? "tcp" : "udp";
    return true;
}

bool read_tun_networks(TunNetworks *n) {
    struct Address {
        const char *key;
        const char *fallback;
        uint32_t *out;
    };
    uint32_t lan_address = 0;
    const Address addresses[] = {{"openvpn_tun_network", "10.8.0.0", &n->network},
                                 {"openvpn_tun_netmask", "255.255.255.0", &n->netmask},
                                 {"lan_ipaddr", nullptr, &lan_address},
                                 {"lan_netmask", nullptr, &n->lan_netmask}};
    for (const Address &a : addresses) {
        const char *value = a.fallback != nullptr ? value_or(a.key, a.fallback)
                                                  : veskNvramConfig_get(a.key);
        if (!parse_ipv4(value, a.out)) {
            report(a.key, value, "is no IPv4 address", kTunServer);
            return false;
        }
    }
    // The clients need at least one address besides the server's.
    if (!is_netmask(n->netmask, 8, 29)) {
        report("openvpn_tun_netmask", dotted(n->netmask).c_str(), "is no netmask of /8 to /29",
               kTunServer);
        return false;
    }
    if ((n->network & ~n->netmask) != 0) {
        report("openvpn_tun_network", dotted(n->network).c_str(),
               "has bits outside openvpn_tun_netmask", kTunServer);
        return false;
    }
    if (!is_netmask(n->lan_netmask, 1, 30)) {
        report("lan_netmask", dotted(n->lan_netmask).c_str(), "is no LAN netmask", kTunServer);
        return false;
    }
    n->lan_network = lan_address & n->lan_netmask;
    // Overlapping networks would make the LAN unreachable for the VPN clients.
    uint32_t common = n->netmask & n->lan_netmask;
    if ((n->network & common) == (n->lan_network & common)) {
        report("openvpn_tun_network", dotted(n->network).c_str(),
               "overlaps the LAN of lan_ipaddr and lan_netmask", kTunServer);
        return false;
    }
    return true;
}

// A host name (letters, digits, '-' in dot-separated labels) or an IPv4 address.
bool is_remote_host(std::string_view host) {
    uint32_t address = 0;
    if (parse_ipv4(std::string(host).c_str(), &address)) return address != 0;
    if (host.empty() || host.size() > 253) return false;
    size_t label = 0;
    for (size_t i = 0; i <= host.size(); ++i) {
        char c = i < host.size() ? host[i] : '.';
        if (c == '.') {
            if (label == 0 || label > 63 || host[i - 1] == '-' || host[i - label] == '-')
                return false;
            label = 0;
        } else if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                   c == '-') {
            ++label;
        } else {
            return false;
        }
    }
    return true;
}

// Writes `text` to a temporary file renamed over `path`, so an openvpn starting meanwhile
// never reads half a file.
bool write_whole(const char *path, const std::string &text) {
    std::string temporary = std::string(path) + ".new";
    std::unique_ptr<FILE, int (*)(FILE *)> file(std::fopen(temporary.c_str(), "we"), &std::fclose);
    bool written = file != nullptr && std::fwrite(text.data(), 1, text.size(), file.get()) ==
                                          text.size();
    int closed = file != nullptr ? std::fclose(file.release()) : -1;
    if (!written || closed != 0 || std::rename(temporary.c_str(), path) != 0) {
        std::fprintf(stderr, "%s: %s: %s\n", kRoutine, path, std::strerror(errno));
        ::unlink(temporary.c_str());
        return false;
    }
    return true;
}

// Keeps a file written from earlier settings from being used with the current ones.
void discard(const char *path) { ::unlink(path); }

std::string server_head(const Instance &instance) {
    return "port " + std::to_string(instance.port) + "\nproto " + instance.proto +
           "\nca /tmp/openvpn/ca.crt\ncert /tmp/openvpn/server.crt\nkey /tmp/openvpn/server.key"
           "\ndh /tmp/openvpn/dh1024.pem\n";
}

// All clients share the one client certificate of the download bundle.
const char kServerTail[] = "duplicate-cn\nkeepalive 10 120\npersist-key\npersist-tun\nverb 3\n";

std::string tun_server(const Instance &instance, const TunNetworks &n) {
    // The server's own address on the tun device answers DNS (start_openvpn's dnsmasq).
    return server_head(instance) + "dev tun\ntopology subnet\nserver " + dotted(n.network) + " " +
           dotted(n.netmask) + "\npush \"route " + dotted(n.lan_network) + " " +
           dotted(n.lan_netmask) + "\"\npush \"dhcp-option DNS " + dotted(n.network + 1) +
           "\"\n" + kServerTail + "log /tmp/openvpn_log_tun\n";
}

// Bridged: the clients get their addresses from the LAN's own DHCP server.
std::string tap_server(const Instance &instance) {
    return server_head(instance) + "dev tap0\nserver-bridge\n" + kServerTail +
           "log-append /tmp/openvpn_log_tap\n";
}

// The client files travel with ca.crt, client.crt and client.key in one directory.
std::string client(const Instance &instance, const std::string &remote) {
    return std::string("client\ndev ") + instance.device + "\nproto " + instance.proto +
           "\nremote " + remote + " " + std::to_string(instance.port) +
           "\nresolv-retry infinite\nnobind\npersist-key\npersist-tun\nremote-cert-tls server\n"
           "ca ca.crt\ncert client.crt\nkey client.key\nverb 3\n";
}

std::string lan_settings() {
    return std::string(veskNvramConfig_get("lan_ipaddr")) + " " +
           veskNvramConfig_get("lan_netmask") + "\n";
}

std::string read_lan_record() {
    std::unique_ptr<FILE, int (*)(FILE *)> file(std::fopen(kLanRecord, "re"), &std::fclose);
    if (file == nullptr) return "";
    char text[128] = {};
    size_t n = std::fread(text, 1, sizeof text - 1, file.get());
    return std::string(text, n);
}

}  // namespace

int openvpn_make_config_file(void) {
    trace::call("openvpn_make_config_file", {});
    int result = 0;

    Instance tun{"tun"}, tap{"tap"};
    TunNetworks networks;
    bool tun_ok = read_instance(&tun, "openvpn_service_port_tun", "openvpn_service_proto_tun",
                                "1194", kTunServer) &&
                  read_tun_networks(&networks);
    bool tap_ok = read_instance(&tap, "openvpn_service_port", "openvpn_service_proto", "1195",
                                kTapServer);

    ::unlink(kLanRecord);  // rewritten below once the routed instance's file holds these
    if (tun_ok && write_whole(kTunServer, tun_server(tun, networks))) {
        std::string settings = lan_settings();
        write_whole(kLanRecord, settings);
    } else {
        discard(kTunServer);
        tun_ok = false;
        result = -1;
    }
    if (!tap_ok || !write_whole(kTapServer, tap_server(tap))) {
        discard(kTapServer);
        tap_ok = false;
        result = -1;
    }

    // The clients dial the router's name or, without one, its current WAN address.
    const char *remote = value_or("openvpn_client_remote", veskNvramConfig_get("wan_ipaddr"));
    if (!is_remote_host(remote)) {
        std::fprintf(stderr, "%s: no address for the clients to dial (openvpn_client_remote %s); "
                             "%s and %s not written\n",
                     kRoutine, trace::text(remote).c_str(), kTunClient, kTapClient);
        tun_ok = tap_ok = false;
        result = -1;
    }
    if (!tun_ok || !write_whole(kTunClient, client(tun, remote))) {
        discard(kTunClient);
        result = -1;
    }
    if (!tap_ok || !write_whole(kTapClient, client(tap, remote))) {
        discard(kTapClient);
        result = -1;
    }
    return result;
}

int openvpn_set_lan_ip(void) {
    trace::call("openvpn_set_lan_ip", {});
    if (!veskNvramConfig_match("openvpnActive", "enable")) return 0;
    // Never written, or written from other LAN settings: the running server is out of date.
    return read_lan_record() != lan_settings() ? 1 : 0;
}
