// The request and reply texts of the LTE control socket "/tmp/cgi-2-sys".
#pragma once

#include <optional>
#include <string>

namespace lte {

// The daemon keeps its write side open, so a request ends where its JSON object closes: true
// once `text` holds one complete object (braces inside strings do not count).
bool request_complete(const std::string &text);

// manual_mode (0 or 1) of a well-formed set_network_connection_mode request; nothing for any
// other text.
std::optional<int> requested_mode(const std::string &text);

// {"set_network_connection_mode":{"errno":N,"errmsg":"TEXT"}}, TEXT escaped as JSON.
std::string reply_text(int err, const std::string &message);

}  // namespace lte
