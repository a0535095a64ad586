#include "platform/host/lte/control_socket.h"

#include <glib-unix.h>
#include <glib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>
#include <utility>

#include "platform/host/lte/protocol.h"
#include "platform/host/unique_fd.h"

namespace lte {

namespace {

constexpr std::size_t kMaxRequest = 4096;
constexpr int kBadRequest = 22;

class Connection;

struct Listener {
    host::UniqueFd fd;
    guint watch = 0;
    std::string path;
    RequestHandler handler;
    SocketLimits limits;
    // Connections still reading or waiting for their answer; each removes itself when closed.
    std::set<std::shared_ptr<Connection>> open;
};

Listener *g_listener = nullptr;

class Connection : public PendingReply, public std::enable_shared_from_this<Connection> {
public:
    explicit Connection(int fd) : fd_(fd) {}
    ~Connection() override { drop_sources(); }

    void start(const SocketLimits &limits) {
        limits_ = limits;
        read_watch_ = g_unix_fd_add(fd_.get(), G_IO_IN, on_readable, this);
        timer_ = g_timeout_add(limits.read_timeout_ms, on_read_timeout, this);
    }

    void answer(int err, const std::string &message) override {
        if (answered_) return;
        answered_ = true;
        const std::string text = reply_text(err, message);
        // A few dozen bytes always fit the socket's buffer; a peer that went away loses them.
        ssize_t n;
        do {
            n = send(fd_.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        } while (n < 0 && errno == EINTR);
        close_now();
    }
    bool answered() const override { return answered_; }

private:
    static gboolean on_readable(gint fd, GIOCondition, gpointer data) {
        auto *self = static_cast<Connection *>(data);
        char buf[512];
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) return G_SOURCE_CONTINUE;
        if (n > 0) self->request_.append(buf, static_cast<std::size_t>(n));
        if (n > 0 && !request_complete(self->request_) && self->request_.size() <= kMaxRequest)
            return G_SOURCE_CONTINUE;
        self->read_watch_ = 0;
        self->dispatch(n <= 0 ? "the peer closed before a complete request" : nullptr);
        return G_SOURCE_REMOVE;
    }

    static gboolean on_read_timeout(gpointer data) {
        auto *self = static_cast<Connection *>(data);
        self->timer_ = 0;
        self->dispatch("no complete request within the time limit");
        return G_SOURCE_REMOVE;
    }

    static gboolean on_answer_due(gpointer data) {
        auto *self = static_cast<Connection *>(data);
        self->timer_ = 0;
        // Still in progress: the outcome shows in the keys.
        self->answer(0, "");
        return G_SOURCE_REMOVE;
    }

    void dispatch(const char *broken) {
        drop_sources();
        auto self = shared_from_this();  // the handler may answer, which unregisters us
        std::optional<int> mode;
        if (!broken) {
            mode = requested_mode(request_);
            if (!mode)
                broken =
                    request_.size() > kMaxRequest ? "request too long" : "not the expected JSON";
        }
        if (!mode) {
            std::fprintf(stderr, "failover-lte: bad request (%s), %zu bytes\n", broken,
                         request_.size());
            answer(kBadRequest, std::string("bad request: ") + broken);
            return;
        }
        timer_ = g_timeout_add(limits_.answer_within_ms, on_answer_due, this);
        if (g_listener) g_listener->handler(*mode, self);
    }

    void drop_sources() {
        if (read_watch_) g_source_remove(read_watch_);
        if (timer_) g_source_remove(timer_);
        read_watch_ = timer_ = 0;
    }

    void close_now() {
        drop_sources();
        fd_.reset();
        if (g_listener) {
            auto self = shared_from_this();
            g_listener->open.erase(self);
        }
    }

    host::UniqueFd fd_;
    SocketLimits limits_;
    std::string request_;
    guint read_watch_ = 0;
    guint timer_ = 0;
    bool answered_ = false;
};

gboolean on_accept(gint fd, GIOCondition, gpointer) {
    int client = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (client < 0) {
        if (errno != EINTR && errno != EAGAIN && errno != ECONNABORTED)
            std::fprintf(stderr, "failover-lte: accept: %s\n", std::strerror(errno));
        return G_SOURCE_CONTINUE;
    }
    auto connection = std::make_shared<Connection>(client);
    g_listener->open.insert(connection);
    connection->start(g_listener->limits);
    return G_SOURCE_CONTINUE;
}

}  // namespace

bool start_listening(const std::string &path, RequestHandler handler, SocketLimits limits) {
    sockaddr_un addr{};
    if (path.size() >= sizeof addr.sun_path) {
        std::fprintf(stderr, "failover-lte: socket path too long: %s\n", path.c_str());
        return false;
    }
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    host::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.valid()) {
        std::fprintf(stderr, "failover-lte: socket: %s\n", std::strerror(errno));
        return false;
    }
    if (unlink(path.c_str()) != 0 && errno != ENOENT)
        std::fprintf(stderr, "failover-lte: remove stale %s: %s\n", path.c_str(),
                     std::strerror(errno));
    if (bind(fd.get(), reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0 ||
        listen(fd.get(), 16) != 0) {
        std::fprintf(stderr, "failover-lte: listen on %s: %s\n", path.c_str(),
                     std::strerror(errno));
        return false;
    }
    g_listener = new Listener;
    g_listener->watch = g_unix_fd_add(fd.get(), G_IO_IN, on_accept, nullptr);
    g_listener->fd = std::move(fd);
    g_listener->path = path;
    g_listener->handler = std::move(handler);
    g_listener->limits = limits;
    return true;
}

void stop_listening() {
    if (!g_listener) return;
    g_source_remove(g_listener->watch);
    // Copy: answering removes each connection from the set.
    auto open = g_listener->open;
    for (const auto &connection : open) connection->answer(0, "");
    unlink(g_listener->path.c_str());
    delete g_listener;
    g_listener = nullptr;
}

}  // namespace lte
