// Process lookup by name through the process list.
#include "shared/system_util.h"

#include "shared/command.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// Leading decimal pid of a process-list line, or nothing when the line does not start with one
// that fits an int.
bool leading_int(const char *start, int &value) {
    char *end = nullptr;
    errno = 0;
    long parsed = std::strtol(start, &end, 10);
    if (end == start || errno == ERANGE || parsed < INT_MIN || parsed > INT_MAX) return false;
    value = static_cast<int>(parsed);
    return true;
}

}  // namespace

bool pid_from_ps_line(const char *line, const char *name, int &pid) {
    if (!std::strstr(line, name) || std::strstr(line, "grep")) return false;
    leading_int(line, pid);
    return true;
}

int get_pid_by_name2(const char *name) {
    if (!name) {
        std::fprintf(stderr, "get_pid_by_name2: no process name given\n");
        return -1;
    }
    int pid = -1;
    {
        // The backslash keeps "-r" from being read as an option of grep.
        shell::Pipe ps("get_pid_by_name2", "ps | grep '%s' | grep -v '\\-r'", {shell::word(name)});
        if (!ps.is_open()) {
            std::fprintf(stderr, "ap/vesk/shared/system_util %s(%d) popen failed command=[%s]\n",
                         "get_pid_by_name2", 119, name);
            return 0;
        }
        std::string line;
        while (ps.next_line(line))
            if (pid_from_ps_line(line.c_str(), name, pid)) break;
    }
    if (pid > 0) return pid;
    std::fprintf(stderr, "%s(%d) can not find process [%s]\n", "get_pid_by_name2", 136, name);
    return pid;
}
