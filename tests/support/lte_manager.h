// A stand-in for the router's LTE connection manager on "/tmp/cgi-2-sys", run as a thread of
// the test: it records every request and answers with a scripted reply.
#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace testroot {

class LteManager {
public:
    // The reply of a manager that accepted the request.
    static constexpr const char *kOkReply =
        "{\"set_network_connection_mode\":{\"errno\":0,\"errmsg\":\"\"}}";

    // `on_request` runs for each complete request before the reply is sent (for example to set
    // `wwan_runtime_state`), with the request text.
    explicit LteManager(std::string reply = kOkReply,
                        std::function<void(const std::string &)> on_request = {});
    ~LteManager();
    LteManager(const LteManager &) = delete;
    LteManager &operator=(const LteManager &) = delete;

    // How the manager treats each connection from now on.
    enum class Behaviour {
        answers,         // reads the request, waits `delay`, sends the reply, closes
        silent,          // reads the request and holds the connection until the client closes
        closes_at_once,  // closes each connection as soon as it is accepted, reading nothing
    };

    std::vector<std::string> requests() const;
    // Connections accepted so far, whatever became of them.
    int connections() const;
    void set_reply(std::string reply);
    void set_behaviour(Behaviour behaviour,
                       std::chrono::milliseconds delay = std::chrono::milliseconds(0));

private:
    void serve();
    void answer(int client);
    // Waits up to `timeout` (negative: without limit) for `fd` to become readable; false when
    // the manager is being stopped or the time ran out.
    bool wait_readable(int fd, int timeout_ms) const;

    int listener_ = -1;
    int stop_pipe_[2] = {-1, -1};
    mutable std::mutex mutex_;
    std::string reply_;
    Behaviour behaviour_ = Behaviour::answers;
    std::chrono::milliseconds delay_{0};
    int connections_ = 0;
    std::function<void(const std::string &)> on_request_;
    std::vector<std::string> requests_;
    std::thread thread_;
};

}  // namespace testroot
