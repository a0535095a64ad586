// The LTE control channel: requests to the router's LTE connection manager on "/tmp/cgi-2-sys".
#pragma once

#include <cstddef>

// Size of the reply buffer; a reply must fit with its terminator.
inline constexpr std::size_t kLteReplySize = 1024;

// Sends `request` and reads the reply until the manager closes the connection. 0 when the
// exchange completed (reply terminated in `reply`, which holds `size` bytes), -1 on failure,
// when the reply does not fit, or when the manager has not closed within 5 s.
int f_read_write(const char *request, char *reply, std::size_t size = kLteReplySize);

// The result of the manager's reply to a request for `mode`, with its console line: 0 on
// success, the reply's non-zero "errno", or -1 when the reply is no JSON or lacks a required
// member.
int parse_lte_reply(const char *reply, int mode);

// Asks for mode 1 (connect) or 0 (disconnect). 0 on success, the manager's non-zero "errno",
// or -1 when the exchange failed or the reply lacks a required member.
int connect_disconnect(int mode);

// Asks the manager to connect and waits up to 15 s for `wwan_runtime_state` "Connected".
void lte_connect();

// Asks the manager to disconnect; waits for nothing.
void lte_disconnect();

// Kills the LTE interface's DHCP client and drops its DNS servers from the resolver file.
void stop_lte_dhcp_client();
