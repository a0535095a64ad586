// failover-linkwatch IFNAME FILE
//
// Keeps FILE holding "Link Up" or "Link Down", the carrier of IFNAME, for hosts whose kernel
// has no "/proc/wan_status" (the host platform reads FILE instead when FAILOVER_WAN_STATUS_FILE
// names it). The state is learnt from rtnetlink link events, never by polling: the watcher
// sleeps in poll() until the kernel reports a change or a signal arrives. Each write goes to a
// temporary file renamed over FILE, so a reader sees the old line or the new one, never a part.
// An interface that does not exist (yet) reads as "Link Down". Runs until SIGTERM or SIGINT.
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "shared/file.h"
#include "shared/unique_fd.h"

namespace {

constexpr const char *kUsage = "usage: failover-linkwatch IFNAME FILE\n";
// The kernel's "lower layer up" link flag (linux/if.h, which clashes with net/if.h).
constexpr unsigned int kLowerUp = 1u << 16;

struct Watch {
    std::string ifname;
    std::string file;
    int ifindex = 0;  // 0 while the interface does not exist
    int written = -1; // last state written: 1 up, 0 down, -1 none yet
};

bool write_state(Watch &w, bool up) {
    if (w.written == (up ? 1 : 0)) return true;
    const std::string temporary = w.file + ".new";
    bool ok = false;
    if (File f = open_file(temporary.c_str(), "w"))
        ok = std::fputs(up ? "Link Up\n" : "Link Down\n", f.get()) >= 0 &&
             std::fflush(f.get()) == 0;
    if (!ok || std::rename(temporary.c_str(), w.file.c_str()) != 0) {
        std::fprintf(stderr, "failover-linkwatch: writing %s: %s\n", w.file.c_str(),
                     std::strerror(errno));
        std::remove(temporary.c_str());
        return false;
    }
    w.written = up ? 1 : 0;
    return true;
}

// Carrier from a link message: IFLA_CARRIER when the kernel sends it, else the lower-up flag.
bool carrier_of(const nlmsghdr *h, const ifinfomsg *info, std::string &name) {
    int carrier = -1;
    int length = static_cast<int>(IFLA_PAYLOAD(h));
    for (const rtattr *a = IFLA_RTA(info); RTA_OK(a, length); a = RTA_NEXT(a, length)) {
        if (a->rta_type == IFLA_IFNAME)
            name.assign(static_cast<const char *>(RTA_DATA(a)),
                        strnlen(static_cast<const char *>(RTA_DATA(a)), RTA_PAYLOAD(a)));
        else if (a->rta_type == IFLA_CARRIER && RTA_PAYLOAD(a) >= 1)
            carrier = *static_cast<const unsigned char *>(RTA_DATA(a));
    }
    if (carrier < 0) carrier = (info->ifi_flags & kLowerUp) ? 1 : 0;
    return carrier == 1;
}

// One link message (event or reply): follows the interface by name, and by index across
// renames and removal.
void on_link_message(Watch &w, const nlmsghdr *h) {
    if (h->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg))) return;
    const auto *info = static_cast<const ifinfomsg *>(NLMSG_DATA(h));
    std::string name;
    bool up = carrier_of(h, info, name);
    if (h->nlmsg_type == RTM_DELLINK) {
        if (info->ifi_index == w.ifindex || name == w.ifname) {
            w.ifindex = 0;
            write_state(w, false);
        }
        return;
    }
    if (name == w.ifname) {
        w.ifindex = info->ifi_index;
        write_state(w, up);
    } else if (info->ifi_index == w.ifindex) {  // renamed away
        w.ifindex = 0;
        write_state(w, false);
    }
}

// Asks for the interface's current state; the reply comes in like an event.
bool request_link(int sock, const Watch &w) {
    struct {
        nlmsghdr h;
        ifinfomsg info;
        char attributes[RTA_SPACE(IFNAMSIZ)];
    } request{};
    request.h.nlmsg_type = RTM_GETLINK;
    request.h.nlmsg_flags = NLM_F_REQUEST;
    request.h.nlmsg_seq = 1;
    request.info.ifi_family = AF_UNSPEC;
    auto *a = reinterpret_cast<rtattr *>(request.attributes);
    a->rta_type = IFLA_IFNAME;
    a->rta_len = static_cast<unsigned short>(RTA_LENGTH(w.ifname.size() + 1));
    std::memcpy(RTA_DATA(a), w.ifname.c_str(), w.ifname.size() + 1);
    request.h.nlmsg_len = NLMSG_LENGTH(sizeof(ifinfomsg)) + RTA_ALIGN(a->rta_len);
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    return sendto(sock, &request, request.h.nlmsg_len, 0, reinterpret_cast<sockaddr *>(&kernel),
                  sizeof kernel) >= 0;
}

// Reads what the kernel has sent. False when the socket failed for good.
bool read_messages(int sock, Watch &w) {
    alignas(nlmsghdr) char buffer[16384];
    ssize_t n = recv(sock, buffer, sizeof buffer, MSG_DONTWAIT);
    if (n < 0) {
        if (errno == EAGAIN || errno == EINTR) return true;
        if (errno == ENOBUFS) {  // events were dropped: ask again rather than guess
            return request_link(sock, w);
        }
        std::fprintf(stderr, "failover-linkwatch: netlink: %s\n", std::strerror(errno));
        return false;
    }
    int length = static_cast<int>(n);
    for (auto *h = reinterpret_cast<nlmsghdr *>(buffer); NLMSG_OK(h, length);
         h = NLMSG_NEXT(h, length)) {
        if (h->nlmsg_type == RTM_NEWLINK || h->nlmsg_type == RTM_DELLINK) {
            on_link_message(w, h);
        } else if (h->nlmsg_type == NLMSG_ERROR) {
            // Only our request is answered; ENODEV: the interface does not exist yet.
            const auto *e = static_cast<const nlmsgerr *>(NLMSG_DATA(h));
            if (e->error != 0) {
                w.ifindex = 0;
                write_state(w, false);
            }
        }
    }
    return true;
}

bool subscribe_link_events(int sock) {
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = RTMGRP_LINK;
    return bind(sock, reinterpret_cast<sockaddr *>(&local), sizeof local) == 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3 || argv[1][0] == '\0' || std::strlen(argv[1]) >= IFNAMSIZ || argv[2][0] == '\0') {
        std::fputs(kUsage, stderr);
        return 2;
    }
    Watch w{argv[1], argv[2]};

    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    sigprocmask(SIG_BLOCK, &stop, nullptr);
    UniqueFd signals(signalfd(-1, &stop, SFD_CLOEXEC));

    // Subscribe before asking, so that no change between the answer and the first event is lost.
    UniqueFd sock(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!sock.is_open() || !signals.is_open() || !subscribe_link_events(sock.get())) {
        std::fprintf(stderr, "failover-linkwatch: %s\n", std::strerror(errno));
        return 1;
    }
    if (!request_link(sock.get(), w)) {
        std::fprintf(stderr, "failover-linkwatch: netlink request: %s\n", std::strerror(errno));
        return 1;
    }

    pollfd fds[2] = {{sock.get(), POLLIN, 0}, {signals.get(), POLLIN, 0}};
    for (;;) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            std::fprintf(stderr, "failover-linkwatch: poll: %s\n", std::strerror(errno));
            return 1;
        }
        if (fds[1].revents != 0) return 0;
        if (fds[0].revents != 0 && !read_messages(sock.get(), w)) return 1;
    }
}
