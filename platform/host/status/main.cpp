// failover-status [--json] [--console FILE]: which WAN carries the traffic and why, on one
// screen. Exit status: 0 online, 1 offline, 2 misuse, 3 the configuration store cannot be read.
#include "platform/host/status/status.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

constexpr int kOnline = 0;
constexpr int kOffline = 1;
constexpr int kMisuse = 2;
constexpr int kNoStore = 3;

int usage(const std::string &problem) {
    if (!problem.empty()) std::fprintf(stderr, "failover-status: %s\n", problem.c_str());
    std::fputs("usage: failover-status [--json] [--console FILE]\n"
               "  --json          one JSON object instead of the screen\n"
               "  --console FILE  read the daemon's console from FILE instead of the journal\n"
               "Exit status: 0 online, 1 offline, 2 misuse, 3 the store cannot be read.\n",
               problem.empty() ? stdout : stderr);
    return problem.empty() ? kOnline : kMisuse;
}

}  // namespace

int main(int argc, char **argv) {
    status::Options options;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") return usage("");
        if (arg == "--json") {
            options.json = true;
        } else if (arg == "--console" && i + 1 < argc && argv[i + 1][0] != '\0') {
            options.console_file = argv[++i];
        } else if (arg == "--console") {
            return usage("--console needs a file name");
        } else {
            return usage("unknown argument \"" + arg + "\"");
        }
    }

    std::string problem = status::store_problem();
    if (!problem.empty()) {
        std::fprintf(stderr, "failover-status: %s\n", problem.c_str());
        return kNoStore;
    }
    if (!options.console_file.empty()) {
        if (FILE *f = std::fopen(options.console_file.c_str(), "re")) {
            std::fclose(f);
        } else {
            std::fprintf(stderr, "failover-status: cannot read the console log %s: %s\n",
                         options.console_file.c_str(), std::strerror(errno));
            return kMisuse;
        }
    }

    status::Status s = status::gather(options);
    std::string text = options.json ? status::render_json(s) : status::render_screen(s);
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() ||
        std::fflush(stdout) != 0) {
        std::fprintf(stderr, "failover-status: write to standard output: %s\n",
                     std::strerror(errno));
        return kOffline;
    }
    return s.online ? kOnline : kOffline;
}
