// What the fuzz targets share: the input as text, split into parts, and files in memory for
// the routines that work on an open resolver file or route table.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "shared/file.h"

namespace fuzz {

inline std::string_view text(const uint8_t *data, size_t size) {
    return {reinterpret_cast<const char *>(data), size};
}

// The input cut at its first `count - 1` newlines: the last part keeps the rest, newlines and
// all; missing parts are empty.
inline std::vector<std::string> parts(std::string_view input, size_t count) {
    std::vector<std::string> out;
    while (out.size() + 1 < count) {
        size_t end = input.find('\n');
        out.emplace_back(input.substr(0, end));
        input.remove_prefix(end == std::string_view::npos ? input.size() : end + 1);
    }
    out.emplace_back(input);
    return out;
}

// The pieces a 256-byte fgets would read from `input`: up to and including a newline, at
// most 255 characters each.
inline std::vector<std::string> lines(std::string_view input) {
    std::vector<std::string> out;
    while (!input.empty()) {
        size_t end = input.find('\n');
        size_t length = end == std::string_view::npos ? input.size() : end + 1;
        if (length > 255) length = 255;
        out.emplace_back(input.substr(0, length));
        input.remove_prefix(length);
    }
    return out;
}

// A file that lives in memory only (no path anywhere), holding `content`, positioned at its
// start and open with `mode`.
inline File memory_file(std::string_view content, const char *mode = "r+") {
    int fd = memfd_create("fuzz", 0);
    if (fd < 0) std::abort();
    if (!content.empty() && write(fd, content.data(), content.size()) !=
                                static_cast<ssize_t>(content.size()))
        std::abort();
    lseek(fd, 0, SEEK_SET);
    File f(fdopen(fd, mode));
    if (!f) std::abort();
    return f;
}

// The whole content of a memory file.
inline std::string contents(std::FILE *f) {
    std::fflush(f);
    std::string out;
    std::rewind(f);
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
    return out;
}

// A failed check: libFuzzer keeps the input as a crash.
inline void check(bool ok, const char *what) {
    if (ok) return;
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
}

// The property check of one target, called by the shared driver (fuzz_driver.cpp) for every
// input: 0, or -1 to keep an input out of the corpus.
int one(const uint8_t *data, size_t size);

// Keeps the routines' console lines out of the fuzzer's output.
inline void quiet() {
    static bool done = false;
    if (done) return;
    done = true;
    if (!std::freopen("/dev/null", "w", stdout)) std::abort();
}

}  // namespace fuzz
