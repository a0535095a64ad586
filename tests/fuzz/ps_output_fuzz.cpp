// Process-list lines: the first part of the input is the name looked up, the rest the listing.

#include "fuzz_support.h"
#include "shared/system_util.h"

int fuzz::one(std::string_view input) {
    std::vector<std::string> in = fuzz::parts(input, 2);
    const char *name = in[0].c_str();
    for (const std::string &line : fuzz::lines(in[1])) {
        int pid = -1;
        bool taken = pid_from_ps_line(line.c_str(), name, pid);
        const char *text = line.c_str();
        fuzz::check(taken == (std::strstr(text, name) && !std::strstr(text, "grep")),
                    "wrong line taken");
        if (taken) break;
        fuzz::check(pid == -1, "pid read from a line not taken");
    }
    return 0;
}
