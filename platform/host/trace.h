// The platform call trace: one JSON object per traced call, appended to TRACE_PATH as
// {"fn":NAME,"args":[...]} with no blanks. Host-internal: only platform/host/ uses it.
//
// Each argument is handed over already rendered as JSON by the helpers below, so that every
// call site says how its argument shows: texts as strings, integers as numbers, IPv4
// addresses as dotted text, null pointers as null, argument vectors as arrays of strings.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>

namespace trace {

inline constexpr const char *TRACE_PATH = "/tmp/platform_trace.jsonl";

// A NUL-terminated text as a JSON string; null when `s` is null.
std::string text(const char *s);
// The first `n` bytes of `s` as a JSON string; null when `s` is null.
std::string text(const char *s, size_t n);
// An integer as a JSON number.
std::string number(long long v);
// An IPv4 address in network byte order as its dotted text, e.g. "10.0.0.254".
std::string ipv4(uint32_t network_order);
// A null-terminated argument vector as an array of strings; null when `argv` is null.
std::string argv(char *const argv[]);
// An output pointer: null when null, else the text `name` (its value does not exist yet).
std::string out_ptr(const void *p, const char *name);

// The trace line of one call, without the line end.
std::string line(const char *fn, std::initializer_list<std::string> args);

// Appends the line of one call to TRACE_PATH in a single write with O_APPEND, so that lines of
// concurrent processes never interleave. A failure is ignored: the trace is a debugging aid.
void call(const char *fn, std::initializer_list<std::string> args);

}  // namespace trace
