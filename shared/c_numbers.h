// atoi and strtoul as the router's C library computes them with its 32-bit long, so that a
// 64-bit host build writes the same numbers into the daemons' files.
#pragma once

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>

// atoi: out-of-range text gives INT_MAX or INT_MIN; null or no digits gives 0.
inline int atoi32(const char *text) {
    if (text == nullptr) return 0;
    int saved = errno;
    long long value = std::strtoll(text, nullptr, 10);
    errno = saved;
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return static_cast<int>(value);
}

// strtoul with base 10: out-of-range text gives 0xFFFFFFFF, a leading minus negates modulo 2^32.
inline std::uint32_t strtoul32(const char *text) {
    if (text == nullptr) return 0;
    const char *p = text;
    while (std::isspace(static_cast<unsigned char>(*p))) ++p;
    bool negative = *p == '-';
    int saved = errno;
    errno = 0;
    unsigned long long value = std::strtoull(text, nullptr, 10);
    bool overflow = errno == ERANGE;
    errno = saved;
    unsigned long long magnitude = negative ? 0ULL - value : value;
    if (overflow || magnitude > UINT32_MAX) return UINT32_MAX;
    auto low = static_cast<std::uint32_t>(magnitude);
    return negative ? 0u - low : low;
}
