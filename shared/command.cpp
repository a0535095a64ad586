#include "shared/command.h"

#include <arpa/inet.h>

#include <cctype>
#include <cstdlib>
#include <vector>

namespace shell {
namespace {

bool all_of_chars(std::string_view text, bool (*ok)(unsigned char)) {
    for (unsigned char c : text)
        if (!ok(c)) return false;
    return true;
}

bool ifname_char(unsigned char c) {
    return std::isalnum(c) || c == '.' || c == '_' || c == '-' || c == '@' || c == ':';
}

bool word_char(unsigned char c) {
    return std::isalnum(c) || c == '.' || c == '_' || c == '-' || c == '/';
}

bool parses_as(int family, std::string_view text) {
    if (text.size() > 63) return false;
    std::string copy(text);
    unsigned char buf[16];
    return inet_pton(family, copy.c_str(), buf) == 1;
}

bool is_digits(std::string_view text) {
    if (!text.empty() && (text[0] == '-' || text[0] == '+')) text.remove_prefix(1);
    if (text.empty() || text.size() > 20) return false;
    return all_of_chars(text, [](unsigned char c) -> bool { return std::isdigit(c); });
}

// Control characters and quotes shown as escapes, long values cut, so that a refused value
// cannot garble the console line that reports it.
std::string printable(std::string_view text) {
    std::string out;
    for (unsigned char c : text.substr(0, 200)) {
        if (c == '\n') out += "\\n";
        else if (c < 0x20 || c == 0x7f) out += '?';
        else out += static_cast<char>(c);
    }
    if (text.size() > 200) out += "...(" + std::to_string(text.size()) + " bytes)";
    return out;
}

const char *kind_name(Kind kind) {
    switch (kind) {
        case Kind::ipv4: return "IPv4 address";
        case Kind::ipv6: return "IPv6 address";
        case Kind::ifname: return "interface name";
        case Kind::digits: return "number";
        case Kind::word: return "name";
        case Kind::trusted: return "text";
    }
    return "value";
}

// Substitutes without checking; used for the command line itself and for the refusal report.
std::optional<std::string> substitute(const char *fmt, const std::vector<const Arg *> &args) {
    std::string out;
    size_t next = 0;
    for (const char *p = fmt; *p; ++p) {
        if (p[0] == '%' && p[1] == '%') {
            out += '%';
            ++p;
        } else if (p[0] == '%' && (p[1] == 's' || p[1] == 'd')) {
            if (next >= args.size()) return std::nullopt;
            out += args[next++]->text;
            ++p;
        } else {
            out += *p;
        }
    }
    if (next != args.size()) return std::nullopt;
    return out;
}

}  // namespace

bool value_fits(Kind kind, std::string_view text) {
    if (text.empty()) return true;
    switch (kind) {
        case Kind::ipv4: return parses_as(AF_INET, text);
        case Kind::ipv6: return parses_as(AF_INET6, text);
        case Kind::ifname: return text.size() <= 32 && all_of_chars(text, ifname_char);
        case Kind::digits: return is_digits(text);
        case Kind::word: return text.size() <= 64 && all_of_chars(text, word_char);
        case Kind::trusted: return true;
    }
    return false;
}

std::optional<std::string> format(const char *routine, const char *fmt,
                                  std::initializer_list<Arg> args) {
    std::vector<const Arg *> list;
    for (const Arg &a : args) list.push_back(&a);
    auto command = substitute(fmt, list);
    if (!command) {
        std::fprintf(stderr, "%s: command \"%s\" given %zu values, refused\n", routine, fmt,
                     list.size());
        return std::nullopt;
    }
    for (const Arg *a : list) {
        if (value_fits(a->kind, a->text)) continue;
        std::fprintf(stderr, "%s: refused value \"%s\" (not a %s) for command \"%s\"\n", routine,
                     printable(a->text).c_str(), kind_name(a->kind),
                     printable(*command).c_str());
        return std::nullopt;
    }
    return command;
}

int run(const char *routine, const char *fmt, std::initializer_list<Arg> args) {
    auto command = format(routine, fmt, args);
    if (!command) return -1;
    std::fflush(nullptr);  // keep our console lines ahead of the command's
    return std::system(command->c_str());
}

Pipe::Pipe(const char *routine, const char *fmt, std::initializer_list<Arg> args) {
    auto command = format(routine, fmt, args);
    if (!command) return;
    command_ = *command;
    std::fflush(nullptr);
    pipe_ = popen(command_.c_str(), "r");
}

Pipe::~Pipe() { close(); }

bool Pipe::next_line(std::string &line) {
    if (!pipe_) return false;
    char buf[256];
    if (!std::fgets(buf, sizeof buf, pipe_)) return false;
    line = buf;
    return true;
}

int Pipe::close() {
    if (!pipe_) return -1;
    int status = pclose(pipe_);
    pipe_ = nullptr;
    return status;
}

}  // namespace shell
