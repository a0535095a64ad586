// nvram: the router's command-line view of the configuration store.
//   nvram get KEY | set KEY=VALUE | unset KEY | show | commit | load FILE
// Exit status: 0 done, 1 the store or the file failed, 2 misuse.
#include "platform/host/nvram_store.h"
#include "platform/nvram.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr int exit_failed = 1;
constexpr int exit_misuse = 2;

int usage(const char *problem) {
    if (problem) std::fprintf(stderr, "nvram: %s\n", problem);
    std::fputs("usage: nvram get KEY\n"
               "       nvram set KEY=VALUE\n"
               "       nvram unset KEY\n"
               "       nvram show\n"
               "       nvram commit\n"
               "       nvram load FILE      (KEY=VALUE lines; blank lines and # comments skipped)\n",
               stderr);
    return exit_misuse;
}

// Standard output is checked at the end, so that a full disk or a closed pipe is not silent.
int finish_output() {
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        std::fprintf(stderr, "nvram: write to standard output: %s\n", std::strerror(errno));
        return exit_failed;
    }
    return 0;
}

void put(std::string_view text) { std::fwrite(text.data(), 1, text.size(), stdout); }

int get(const char *key) {
    if (!nvram_store_valid_key(key)) return usage("KEY must be non-empty and hold no \"=\"");
    put(veskNvramConfig_get(key));
    put("\n");
    return finish_output();
}

int set(const char *assignment) {
    const char *eq = std::strchr(assignment, '=');
    if (!eq) return usage("set needs KEY=VALUE");
    if (eq == assignment) return usage("set needs a non-empty KEY before \"=\"");
    std::string key(assignment, eq);
    return veskNvramConfig_set(key.c_str(), eq + 1) == 0 ? 0 : exit_failed;
}

int unset(const char *key) {
    if (!nvram_store_valid_key(key)) return usage("KEY must be non-empty and hold no \"=\"");
    return nvram_store_unset(key) == 0 ? 0 : exit_failed;
}

int show() {
    std::vector<std::pair<std::string, std::string>> pairs;
    if (!nvram_store_list(pairs)) return exit_failed;
    for (const auto &[key, value] : pairs) {
        put(key);
        put("=");
        put(value);
        put("\n");
    }
    return finish_output();
}

int commit() { return veskNvramConfig_save() == 0 ? 0 : exit_failed; }

struct FileCloser {
    void operator()(FILE *f) const { std::fclose(f); }
};

// The buffer that getline grows; freed once at the end.
struct LineBuffer {
    char *text = nullptr;
    size_t capacity = 0;
    LineBuffer() = default;
    LineBuffer(const LineBuffer &) = delete;
    LineBuffer &operator=(const LineBuffer &) = delete;
    ~LineBuffer() { std::free(text); }
};

bool blank(std::string_view line) {
    return line.find_first_not_of(" \t\r") == std::string_view::npos;
}

// All lines are checked before anything is set, so a broken file changes nothing.
int load(const char *path) {
    std::unique_ptr<FILE, FileCloser> file(std::fopen(path, "re"));
    if (!file) {
        std::fprintf(stderr, "nvram: %s: %s\n", path, std::strerror(errno));
        return exit_failed;
    }
    std::vector<std::pair<std::string, std::string>> pairs;
    LineBuffer buffer;
    unsigned long number = 0;
    for (;;) {
        errno = 0;
        ssize_t length = ::getline(&buffer.text, &buffer.capacity, file.get());
        if (length < 0) {
            if (errno != 0 || std::ferror(file.get())) {
                std::fprintf(stderr, "nvram: %s: %s\n", path, std::strerror(errno ? errno : EIO));
                return exit_failed;
            }
            break;
        }
        ++number;
        std::string_view line(buffer.text, static_cast<size_t>(length));
        if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
        if (blank(line) || line.front() == '#') continue;

        const char *problem = nullptr;
        size_t eq = line.find('=');
        if (line.find('\0') != std::string_view::npos) problem = "NUL byte in line";
        else if (eq == std::string_view::npos) problem = "no \"=\" in line";
        else if (eq == 0) problem = "empty key";
        if (problem) {
            std::fprintf(stderr, "nvram: %s:%lu: %s\n", path, number, problem);
            return exit_failed;
        }
        pairs.emplace_back(std::string(line.substr(0, eq)), std::string(line.substr(eq + 1)));
    }
    return nvram_store_set_many(pairs) == 0 ? 0 : exit_failed;
}

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
    if (argc != (takes_argument ? 3 : 2)) {
        std::string problem = std::string(command) +
                              (takes_argument ? " takes one argument" : " takes no argument");
        return usage(problem.c_str());
    }

    if (command == "get") return get(argv[2]);
    if (command == "set") return set(argv[2]);
    if (command == "unset") return unset(argv[2]);
    if (command == "load") return load(argv[2]);
    if (command == "show") return show();
    return commit();
}
