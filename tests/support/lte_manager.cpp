#include "tests/support/lte_manager.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace testroot {
namespace {

constexpr const char *kSocketPath = "/tmp/cgi-2-sys";

// The client does not shut down its side: a request is complete when its braces balance.
bool complete(const std::string &text) {
    int depth = 0;
    bool opened = false;
    for (char c : text) {
        if (c == '{') ++depth, opened = true;
        if (c == '}') --depth;
    }
    return opened && depth == 0;
}

}  // namespace

LteManager::LteManager(std::string reply, std::function<void(const std::string &)> on_request)
    : reply_(std::move(reply)), on_request_(std::move(on_request)) {
    unlink(kSocketPath);
    listener_ = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, kSocketPath, sizeof addr.sun_path - 1);
    if (listener_ < 0 || bind(listener_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0 ||
        listen(listener_, 8) < 0 || pipe(stop_pipe_) < 0)
        throw std::runtime_error(std::string("LteManager: ") + std::strerror(errno));
    thread_ = std::thread([this] { serve(); });
}

LteManager::~LteManager() {
    if (write(stop_pipe_[1], "x", 1) < 0) {}
    if (thread_.joinable()) thread_.join();
    close(listener_);
    close(stop_pipe_[0]);
    close(stop_pipe_[1]);
    unlink(kSocketPath);
}

std::vector<std::string> LteManager::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

void LteManager::set_reply(std::string reply) {
    std::lock_guard lock(mutex_);
    reply_ = std::move(reply);
}

int LteManager::connections() const {
    std::lock_guard lock(mutex_);
    return connections_;
}

void LteManager::set_behaviour(Behaviour behaviour, std::chrono::milliseconds delay) {
    std::lock_guard lock(mutex_);
    behaviour_ = behaviour;
    delay_ = delay;
}

bool LteManager::wait_readable(int fd, int timeout_ms) const {
    pollfd fds[2] = {{fd, POLLIN, 0}, {stop_pipe_[0], POLLIN, 0}};
    int n = poll(fds, 2, timeout_ms);
    return n > 0 && !fds[1].revents && fds[0].revents;
}

void LteManager::serve() {
    for (;;) {
        pollfd fds[2] = {{listener_, POLLIN, 0}, {stop_pipe_[0], POLLIN, 0}};
        if (poll(fds, 2, -1) < 0) continue;
        if (fds[1].revents) return;
        int client = accept(listener_, nullptr, nullptr);
        if (client < 0) continue;
        answer(client);
        close(client);
    }
}

void LteManager::answer(int client) {
    Behaviour behaviour;
    std::chrono::milliseconds delay;
    {
        std::lock_guard lock(mutex_);
        ++connections_;
        behaviour = behaviour_;
        delay = delay_;
    }
    if (behaviour == Behaviour::closes_at_once) return;
    std::string request;
    char buf[512];
    while (!complete(request)) {
        if (!wait_readable(client, 5000)) break;
        ssize_t n = read(client, buf, sizeof buf);
        if (n <= 0) break;
        request.append(buf, static_cast<size_t>(n));
    }
    std::string reply;
    {
        std::lock_guard lock(mutex_);
        requests_.push_back(request);
        reply = reply_;
    }
    if (behaviour == Behaviour::silent) {
        // Until the client gives up and closes its end.
        while (wait_readable(client, -1) && read(client, buf, sizeof buf) > 0) {}
        return;
    }
    if (delay.count() > 0) {
        pollfd stop{stop_pipe_[0], POLLIN, 0};
        if (poll(&stop, 1, static_cast<int>(delay.count())) > 0) return;  // being stopped
    }
    if (on_request_) on_request_(request);
    for (size_t done = 0; done < reply.size();) {
        // The client may have given up already; that must not kill the test.
        ssize_t n = send(client, reply.data() + done, reply.size() - done, MSG_NOSIGNAL);
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
}

}  // namespace testroot
