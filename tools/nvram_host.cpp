// The host store's extra verbs of the nvram program: unset, show, load. Linked only in the host
// build; the vendor's store has no such calls.
#include "platform/host/nvram_store.h"
#include "tools/nvram_tool.h"

#include <sys/types.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace nvram_tool {

namespace {

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

}  // namespace

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

}  // namespace nvram_tool
