// The one way the routines read and write the configuration store.
#pragma once

#include <array>
#include <cstddef>

#include "platform/nvram.h"

namespace store {

// True when `key` holds exactly `value` (an absent key holds "").
inline bool match(const char *key, const char *value) {
    return veskNvramConfig_match(key, value) != 0;
}

// The value of `key`; "" when absent. Valid for the life of the process.
inline const char *get(const char *key) { return veskNvramConfig_get(key); }

// Sets `key`; a failure is reported by the store itself.
inline void set(const char *key, const char *value) { veskNvramConfig_set(key, value); }

// Copies the value of `key` into `buf` of `size` bytes, cut to size - 1 characters.
inline void read(const char *key, char *buf, std::size_t size) {
    veskNvramConfig_read(key, buf, size);
}

// A value read into a buffer of the router's size: at most N - 1 characters, the last byte
// always NUL. The cut is the router's, on purpose.
template <std::size_t N>
std::array<char, N> read_value(const char *key) {
    std::array<char, N> buf{};
    veskNvramConfig_read(key, buf.data(), N);
    buf[N - 1] = '\0';
    return buf;
}

// Makes the values set so far durable.
inline void save() { veskNvramConfig_save(); }

}  // namespace store
