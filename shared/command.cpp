#include "shared/command.h"

#include <cstdlib>
#include <vector>

namespace shell {
namespace {

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
        if (values::fits(a->kind, a->text)) continue;
        std::string why = std::string("not ") + values::kind_name(a->kind) + " for command \"" +
                          values::printable(fmt) + "\"";
        values::report_refused(routine, a->what, a->text, why.c_str());
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
