#include "platform/host/trace.h"

#include "platform/host/unique_fd.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>

namespace trace {
namespace {

// Length of the well-formed UTF-8 sequence at s[0..n), or 0 when it is not one.
size_t utf8_sequence(const unsigned char *s, size_t n) {
    unsigned char c = s[0];
    size_t len;
    unsigned long cp;
    if (c >= 0xc2 && c <= 0xdf) {
        len = 2;
        cp = c & 0x1f;
    } else if (c >= 0xe0 && c <= 0xef) {
        len = 3;
        cp = c & 0x0f;
    } else if (c >= 0xf0 && c <= 0xf4) {
        len = 4;
        cp = c & 0x07;
    } else {
        return 0;
    }
    if (n < len) return 0;
    for (size_t i = 1; i < len; ++i) {
        if ((s[i] & 0xc0) != 0x80) return 0;
        cp = (cp << 6) | (s[i] & 0x3f);
    }
    if ((len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000)) return 0;  // overlong
    if (cp >= 0xd800 && cp <= 0xdfff) return 0;                            // surrogate
    if (cp > 0x10ffff) return 0;
    return len;
}

void append_escaped_byte(std::string &out, unsigned char c) {
    static const char hex[] = "0123456789abcdef";
    out += "\\u00";
    out += hex[c >> 4];
    out += hex[c & 0xf];
}

}  // namespace

std::string text(const char *s, size_t n) {
    if (s == nullptr) return "null";
    std::string out;
    out.reserve(n + 2);
    out += '"';
    const auto *p = reinterpret_cast<const unsigned char *>(s);
    for (size_t i = 0; i < n;) {
        unsigned char c = p[i];
        if (c == '"') {
            out += "\\\"";
        } else if (c == '\\') {
            out += "\\\\";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c == '\b') {
            out += "\\b";
        } else if (c == '\f') {
            out += "\\f";
        } else if (c < 0x20) {
            append_escaped_byte(out, c);
        } else if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (size_t len = utf8_sequence(p + i, n - i); len > 0) {
            out.append(s + i, len);
            i += len;
            continue;
        } else {
            // Not UTF-8: the byte shows as the code point of the same value, so that the line
            // stays valid JSON whatever a configuration value holds.
            append_escaped_byte(out, c);
        }
        ++i;
    }
    out += '"';
    return out;
}

std::string text(const char *s) { return s == nullptr ? "null" : text(s, std::strlen(s)); }

std::string number(long long v) { return std::to_string(v); }

std::string ipv4(uint32_t network_order) {
    const auto *b = reinterpret_cast<const unsigned char *>(&network_order);
    return '"' + std::to_string(b[0]) + '.' + std::to_string(b[1]) + '.' + std::to_string(b[2]) +
           '.' + std::to_string(b[3]) + '"';
}

std::string argv(char *const argv[]) {
    if (argv == nullptr) return "null";
    std::string out = "[";
    for (size_t i = 0; argv[i] != nullptr; ++i) {
        if (i > 0) out += ',';
        out += text(argv[i]);
    }
    out += ']';
    return out;
}

std::string out_ptr(const void *p, const char *name) { return p == nullptr ? "null" : text(name); }

std::string line(const char *fn, std::initializer_list<std::string> args) {
    std::string out = "{\"fn\":" + text(fn) + ",\"args\":[";
    bool first = true;
    for (const std::string &a : args) {
        if (!first) out += ',';
        out += a;
        first = false;
    }
    out += "]}";
    return out;
}

void call(const char *fn, std::initializer_list<std::string> args) {
    std::string l = line(fn, args);
    l += '\n';
    host::UniqueFd fd(::open(TRACE_PATH, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666));
    if (!fd.valid()) return;
    // One write: O_APPEND places the whole line at the end in one step.
    ssize_t written = ::write(fd.get(), l.data(), l.size());
    (void)written;
}

}  // namespace trace
