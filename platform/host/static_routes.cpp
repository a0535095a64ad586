// The user's static routes: the entries of `static_route` that belong to an interface are
// installed in the main routing table through rtnetlink.
//
// An entry is "destination:netmask:gateway:metric:interface:active:name". The value comes
// from the configuration store, so every field is checked; an entry that fails a check is
// reported and skipped, and the next one is tried.
#include "platform/nvram.h"
#include "platform/vesk_shared.h"

#include "platform/host/trace.h"
#include "platform/host/unique_fd.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr size_t kMaxEntries = 32;     // as many as the static-route editor keeps
constexpr size_t kMaxEntryLength = 127;
constexpr size_t kFieldCount = 7;

struct Route {
    in_addr destination{};
    int prefix_length = 0;
    in_addr gateway{};  // 0: the destination is on the link
    uint32_t metric = 0;
};

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    for (;;) {
        size_t end = text.find(separator);
        parts.push_back(text.substr(0, end));
        if (end == std::string_view::npos) return parts;
        text.remove_prefix(end + 1);
    }
}

// Four decimal parts without leading zeros, each at most 255, nothing else.
bool parse_dotted_quad(std::string_view text, in_addr *out) {
    if (text.empty() || text.size() > 15) return false;
    std::string copy(text);
    return ::inet_pton(AF_INET, copy.c_str(), out) == 1;
}

// The length of a netmask made of leading ones only; -1 for any other mask.
int mask_length(in_addr mask) {
    uint32_t bits = ntohl(mask.s_addr);
    int length = 0;
    while (length < 32 && (bits & (0x80000000U >> length)) != 0) ++length;
    uint32_t expected = length == 0 ? 0 : 0xFFFFFFFFU << (32 - length);
    return bits == expected ? length : -1;
}

bool parse_metric(std::string_view text, uint32_t *out) {
    if (text.empty()) {
        *out = 0;
        return true;
    }
    if (text.size() > 10) return false;
    uint64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + static_cast<uint64_t>(c - '0');
    }
    if (value > UINT32_MAX) return false;
    *out = static_cast<uint32_t>(value);
    return true;
}

// Checks the fields of one entry; the reason of a refusal, or "" for a usable route.
std::string check_entry(const std::vector<std::string_view> &fields, Route *route) {
    if (!parse_dotted_quad(fields[0], &route->destination)) return "destination is no IPv4 address";
    in_addr mask{};
    if (!parse_dotted_quad(fields[1], &mask)) return "netmask is no IPv4 address";
    route->prefix_length = mask_length(mask);
    if (route->prefix_length < 0) return "netmask is not contiguous";
    // The default route belongs to the WAN; a static route must never take it over.
    if (route->prefix_length == 0) return "netmask 0.0.0.0 would replace the default route";
    if ((route->destination.s_addr & ~mask.s_addr) != 0)
        return "destination has bits outside the netmask";
    if (!fields[2].empty() && !parse_dotted_quad(fields[2], &route->gateway))
        return "gateway is no IPv4 address";
    uint32_t gateway = ntohl(route->gateway.s_addr);
    if (gateway != 0 && ((gateway >> 24) == 127 || (gateway >> 24) >= 224 || (gateway >> 24) == 0))
        return "gateway is not a unicast host address";
    if (!parse_metric(fields[3], &route->metric)) return "metric is not a decimal number";
    return "";
}

void add_attribute(std::vector<char> &message, uint16_t type, const void *data, size_t size) {
    rtattr attribute{};
    attribute.rta_type = type;
    attribute.rta_len = static_cast<unsigned short>(RTA_LENGTH(size));
    size_t at = message.size();
    message.resize(at + RTA_SPACE(size));
    std::memcpy(message.data() + at, &attribute, sizeof attribute);
    std::memcpy(message.data() + at + RTA_LENGTH(0), data, size);
}

// Adds the route, or replaces the one with the same destination and metric so that a changed
// gateway takes effect. 0, or the kernel's errno.
int install(int sock, const Route &route, unsigned ifindex, uint32_t sequence) {
    std::vector<char> message(NLMSG_SPACE(sizeof(rtmsg)));
    auto *header = reinterpret_cast<nlmsghdr *>(message.data());
    header->nlmsg_type = RTM_NEWROUTE;
    header->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_REPLACE;
    header->nlmsg_seq = sequence;
    auto *rt = static_cast<rtmsg *>(NLMSG_DATA(header));
    rt->rtm_family = AF_INET;
    rt->rtm_dst_len = static_cast<unsigned char>(route.prefix_length);
    rt->rtm_table = RT_TABLE_MAIN;
    rt->rtm_protocol = RTPROT_STATIC;
    rt->rtm_scope = route.gateway.s_addr == 0 ? RT_SCOPE_LINK : RT_SCOPE_UNIVERSE;
    rt->rtm_type = RTN_UNICAST;
    add_attribute(message, RTA_DST, &route.destination, sizeof route.destination);
    uint32_t oif = ifindex;
    add_attribute(message, RTA_OIF, &oif, sizeof oif);
    if (route.gateway.s_addr != 0)
        add_attribute(message, RTA_GATEWAY, &route.gateway, sizeof route.gateway);
    if (route.metric != 0) add_attribute(message, RTA_PRIORITY, &route.metric, sizeof route.metric);
    header = reinterpret_cast<nlmsghdr *>(message.data());
    header->nlmsg_len = static_cast<uint32_t>(message.size());

    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (::sendto(sock, message.data(), message.size(), 0, reinterpret_cast<sockaddr *>(&kernel),
                 sizeof kernel) < 0)
        return errno;
    alignas(nlmsghdr) char reply[4096];
    for (;;) {
        ssize_t n = ::recv(sock, reply, sizeof reply, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return errno;
        int left = static_cast<int>(n);
        for (auto *h = reinterpret_cast<nlmsghdr *>(reply); NLMSG_OK(h, left);
             h = NLMSG_NEXT(h, left)) {
            if (h->nlmsg_seq != sequence || h->nlmsg_type != NLMSG_ERROR) continue;
            if (h->nlmsg_len < NLMSG_LENGTH(sizeof(nlmsgerr))) return EPROTO;
            return -static_cast<const nlmsgerr *>(NLMSG_DATA(h))->error;
        }
    }
}

}  // namespace

int add_routes(const char *ifname) {
    trace::call("add_routes", {trace::text(ifname)});
    if (ifname == nullptr) {
        std::fprintf(stderr, "add_routes: no interface\n");
        return -1;
    }
    if (*ifname == '\0') return 0;  // no interface configured, so none of its routes either

    const char *value = veskNvramConfig_get("static_route");
    std::vector<std::string_view> entries;
    for (std::string_view entry : split(value != nullptr ? value : "", ' '))
        if (!entry.empty()) entries.push_back(entry);
    if (entries.size() > kMaxEntries) {
        std::fprintf(stderr, "add_routes: static_route holds %zu entries; the first %zu count\n",
                     entries.size(), kMaxEntries);
        entries.resize(kMaxEntries);
    }

    int result = 0;
    host::UniqueFd sock;
    unsigned ifindex = 0;
    uint32_t sequence = 0;
    for (std::string_view entry : entries) {
        auto refuse = [&](const std::string &reason) {
            std::fprintf(stderr, "add_routes: static route %s refused: %s\n",
                         trace::text(entry.data(), entry.size()).c_str(), reason.c_str());
            result = -1;
        };
        std::vector<std::string_view> fields = split(entry, ':');
        fields.resize(kFieldCount);
        // Only active entries of this interface concern this call.
        if (fields[4] != ifname || fields[5] != "1") continue;
        // A cut entry would be another route: refuse it whole.
        if (entry.size() > kMaxEntryLength) {
            refuse("longer than 127 characters");
            continue;
        }
        Route route;
        std::string reason = check_entry(fields, &route);
        if (!reason.empty()) {
            refuse(reason);
            continue;
        }
        if (ifindex == 0) {
            ifindex = std::strlen(ifname) < IFNAMSIZ ? ::if_nametoindex(ifname) : 0;
            if (ifindex == 0) {
                std::fprintf(stderr, "add_routes: %s: no such interface\n",
                             trace::text(ifname).c_str());
                return -1;
            }
            sock.reset(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
            // The kernel answers at once; the bound only keeps a broken reply from hanging us.
            timeval bound{2, 0};
            if (!sock.valid() ||
                ::setsockopt(sock.get(), SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound) != 0) {
                std::fprintf(stderr, "add_routes: netlink: %s\n", std::strerror(errno));
                return -1;
            }
        }
        int error = install(sock.get(), route, ifindex, ++sequence);
        if (error != 0) refuse(std::string("the kernel says: ") + std::strerror(error));
    }
    return result;
}
