// The one set of checks for values that come from the configuration store or a peer and go
// into a shell command line or a line of a generated file. Every writer and every command
// asks here; a refused value is reported once, in one shape, and never written cut.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace values {

// What a value must look like where it is used. An empty value passes every kind: it cannot
// carry anything into a command or a file (callers that need a value test for "" themselves).
enum class Kind {
    ipv4,     // dotted quad: four decimal parts of 0 to 255
    ipv6,     // IPv6 address text
    ifname,   // interface name the kernel could hold: up to 15 of letters, digits, . _ - @ :
    number,   // decimal number text, optionally signed, up to 20 digits
    name,     // host or program name: up to 64 of letters, digits, . _ - /
    token,    // one word of a file that splits on blanks, quotes, '#', ';', braces or brackets
    line,     // the rest of one line: no line end or other control character
    trusted,  // text made by the program itself, never from the store or a peer
};

// True when `text` is acceptable as `kind`.
bool fits(Kind kind, std::string_view text);

// What `kind` is called in a refusal line ("an IPv4 address", "an interface name" ...).
const char *kind_name(Kind kind);

// True when `text` holds a byte below 0x20 or DEL.
bool has_control_character(std::string_view text);

// A value that must be there and fit: not empty, and `fits` its kind.
bool is_ipv4(std::string_view text);
bool is_ifname(std::string_view text);

// A dotted quad whose one bits run contiguously from the top (255.255.255.0, not 255.0.255.0).
bool is_netmask(std::string_view text);

// Blank-separated dotted quads rewritten with single blanks; "" for none. Nothing when one
// of them is no address.
std::optional<std::string> ipv4_list(std::string_view text);

// `text` fit for a console line: a line end shown as \n, other control bytes and bytes above
// DEL as '?', cut at 64 characters with the full length said.
std::string printable(std::string_view text);

// The one refusal line, on standard error:
//   <routine>: refused <what> "<printable value>": <why>
void report_refused(const char *routine, const char *what, std::string_view value,
                    const char *why);

// True when `value` fits `kind`; otherwise the refusal line ("not <kind name>") and false.
bool check(const char *routine, const char *what, std::string_view value, Kind kind);

}  // namespace values
