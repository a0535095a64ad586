// The listening socket "/tmp/cgi-2-sys" on the GLib main loop: one request per connection,
// read within a time limit, answered once, then closed.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace lte {

// One accepted request awaiting its answer. Answering twice, or after the connection's bound,
// does nothing; a request not answered within the bound gets errno 0 and an empty errmsg.
class PendingReply {
public:
    virtual ~PendingReply() = default;
    virtual void answer(int err, const std::string &message) = 0;
    virtual bool answered() const = 0;
};
using Reply = std::shared_ptr<PendingReply>;

// Called with manual_mode (0 or 1) of each well-formed request. Requests of any other shape are
// answered errno 22 by the socket itself.
using RequestHandler = std::function<void(int mode, Reply reply)>;

struct SocketLimits {
    unsigned read_timeout_ms = 2000;   // for the whole request
    unsigned answer_within_ms = 4000;  // from the end of the request
};

// Unlinks a stale socket at `path`, listens there and serves on the default main context until
// stop_listening(). False (with a line on stderr) when the socket cannot be set up.
bool start_listening(const std::string &path, RequestHandler handler, SocketLimits limits = {});
// Closes the listener, answers every open request as its bound would, removes the socket file.
void stop_listening();

}  // namespace lte
