// What the fuzz targets share: each defines fuzz::one, the property check the one driver
// (fuzz_driver.cpp) calls for every input, and cuts its input with parts() and lines().
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

// The check of one input: 0, or -1 to keep the input out of the corpus.
int one(std::string_view input);

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
        size_t length = std::min<size_t>(std::min(input.find('\n'), input.size() - 1) + 1, 255);
        out.emplace_back(input.substr(0, length));
        input.remove_prefix(length);
    }
    return out;
}

// A failed check: libFuzzer keeps the input as a crash.
inline void check(bool ok, const char *what) {
    if (ok) return;
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
}

}  // namespace fuzz
