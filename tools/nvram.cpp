// nvram: the router's command-line view of the configuration store.
//   nvram get KEY | set KEY=VALUE | commit             (every build)
//   nvram unset KEY | show | load FILE                  (the host store only)
// Exit status: 0 done, 1 the store or the file failed, 2 misuse or a verb this build lacks.
#include "platform/nvram.h"
#include "tools/nvram_tool.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

namespace nvram_tool {

int usage(const char *problem) {
    if (problem) std::fprintf(stderr, "nvram: %s\n", problem);
    std::fputs("usage: nvram get KEY\n"
               "       nvram set KEY=VALUE\n"
               "       nvram commit\n",
               stderr);
#ifdef NVRAM_HOST_VERBS
    std::fputs("       nvram unset KEY\n"
               "       nvram show\n"
               "       nvram load FILE      (KEY=VALUE lines; blank lines and # comments skipped)\n",
               stderr);
#endif
    return exit_misuse;
}

void put(std::string_view text) { std::fwrite(text.data(), 1, text.size(), stdout); }

int finish_output() {
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        std::fprintf(stderr, "nvram: write to standard output: %s\n", std::strerror(errno));
        return exit_failed;
    }
    return 0;
}

}  // namespace nvram_tool

namespace {

using nvram_tool::exit_failed;
using nvram_tool::usage;
#ifndef NVRAM_HOST_VERBS
using nvram_tool::exit_misuse;
#endif

int get(const char *key) {
    if (*key == '\0' || std::strchr(key, '='))
        return usage("KEY must be non-empty and hold no \"=\"");
    nvram_tool::put(veskNvramConfig_get(key));
    nvram_tool::put("\n");
    return nvram_tool::finish_output();
}

int set(const char *assignment) {
    const char *eq = std::strchr(assignment, '=');
    if (!eq) return usage("set needs KEY=VALUE");
    if (eq == assignment) return usage("set needs a non-empty KEY before \"=\"");
    std::string key(assignment, eq);
    return veskNvramConfig_set(key.c_str(), eq + 1) == 0 ? 0 : exit_failed;
}

int commit() { return veskNvramConfig_save() == 0 ? 0 : exit_failed; }

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) return usage(nullptr);
    std::string_view command = argv[1];
    bool takes_argument = command == "get" || command == "set" || command == "unset" ||
                          command == "load";
    bool takes_none = command == "show" || command == "commit";
    if (!takes_argument && !takes_none) {
        std::string problem = "unknown command \"" + std::string(command.substr(0, 64)) + "\"";
        return usage(problem.c_str());
    }
#ifndef NVRAM_HOST_VERBS
    // The vendor's store offers get, set and commit only.
    if (command == "unset" || command == "show" || command == "load") {
        std::fprintf(stderr, "nvram: %s is not available in this build\n", argv[1]);
        return exit_misuse;
    }
#endif
    if (argc != (takes_argument ? 3 : 2)) {
        std::string problem = std::string(command) +
                              (takes_argument ? " takes one argument" : " takes no argument");
        return usage(problem.c_str());
    }

    if (command == "get") return get(argv[2]);
    if (command == "set") return set(argv[2]);
#ifdef NVRAM_HOST_VERBS
    if (command == "unset") return nvram_tool::unset(argv[2]);
    if (command == "load") return nvram_tool::load(argv[2]);
    if (command == "show") return nvram_tool::show();
#endif
    return commit();
}
