// A stand-in for the router's LTE connection manager on "/tmp/cgi-2-sys", run as a thread of
// the test: it records every request and answers with a scripted reply.
#pragma once

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

    std::vector<std::string> requests() const;
    void set_reply(std::string reply);

private:
    void serve();
    void answer(int client);

    int listener_ = -1;
    int stop_pipe_[2] = {-1, -1};
    mutable std::mutex mutex_;
    std::string reply_;
    std::function<void(const std::string &)> on_request_;
    std::vector<std::string> requests_;
    std::thread thread_;
};

}  // namespace testroot
