// Starts the programs the NAT library acts through (nft, conntrack, sysctl): an argument vector
// looked up on PATH, no shell, `input` on its standard input, standard output and standard
// error collected. Host-internal.
#pragma once

#include <string>
#include <vector>

namespace nat {

struct Run {
    int start_error = 0;  // errno when the program could not be started, else 0
    int status = -1;      // exit code, or 128 + the signal number that ended it
    std::string output;   // standard output and standard error, interleaved
};

// Runs `argv` to its end. The exit status is learnt even when the caller ignores SIGCHLD (as
// the daemon does): a middle process waits for the program and reports it.
Run run(const std::vector<std::string> &argv, const std::string &input);

// The first line of `output` that says something, without its line end ("" when none): the
// cause a failure report quotes.
std::string first_line(const std::string &output);

}  // namespace nat
