// The one place where the program formats and runs shell command lines and reads command output.
//
// Every value interpolated into a command line is an Arg that says what it must be (the kinds of
// shared/values.h). A value holding anything else never reaches the shell: the refusal is
// reported on standard error with the routine's name and the command it would have gone into.
// Argument vectors started through _eval/_eval_daemon go to no shell and need none of this.
#pragma once

#include <cstdio>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "shared/values.h"

namespace shell {

using values::Kind;

struct Arg {
    Kind kind;
    std::string text;
    const char *what = "value";  // the key or role named when the value is refused
};

inline Arg ipv4(std::string_view v, const char *what = "value") {
    return {Kind::ipv4, std::string(v), what};
}
inline Arg ipv6(std::string_view v, const char *what = "value") {
    return {Kind::ipv6, std::string(v), what};
}
inline Arg ifname(std::string_view v, const char *what = "value") {
    return {Kind::ifname, std::string(v), what};
}
inline Arg digits(std::string_view v, const char *what = "value") {
    return {Kind::number, std::string(v), what};
}
inline Arg word(std::string_view v, const char *what = "value") {
    return {Kind::name, std::string(v), what};
}
inline Arg trusted(std::string_view v, const char *what = "value") {
    return {Kind::trusted, std::string(v), what};
}
inline Arg number(long v) { return {Kind::trusted, std::to_string(v), "number"}; }

// Replaces each "%s" or "%d" of `format` with the next argument's text ("%%" gives "%").
// Returns nothing, after reporting on stderr, when an argument does not fit its kind or the
// count of arguments does not match the format.
std::optional<std::string> format(const char *routine, const char *format,
                                  std::initializer_list<Arg> args);

// Formats and runs the command through the system shell. Returns the shell's status as system()
// gives it, or -1 when the command was refused.
int run(const char *routine, const char *format, std::initializer_list<Arg> args = {});

// A command whose output is read line by line, like fgets into a 256-byte buffer: a line longer
// than 255 characters comes in pieces. Closes the pipe when destroyed.
class Pipe {
public:
    Pipe(const char *routine, const char *format, std::initializer_list<Arg> args = {});
    ~Pipe();
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;

    // False when the command was refused or popen failed.
    bool is_open() const { return pipe_ != nullptr; }
    // The command as run ("" when refused).
    const std::string &command() const { return command_; }
    // Next piece of output of at most 255 characters, the newline kept; false at the end.
    bool next_line(std::string &line);
    // Closes the pipe and returns pclose()'s status (-1 when it was not open).
    int close();

private:
    std::string command_;
    FILE *pipe_ = nullptr;
};

}  // namespace shell
