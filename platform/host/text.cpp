// Text helpers of the platform library: tokens, numbers, MAC and IPv4 address texts.
#include "platform/vesk_shared.h"

#include <cstdio>
#include <cstring>

namespace {

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// One part of a dotted quad: 1 to 3 decimal digits, no leading zero (inet_addr would read
// "010" as octal), at most 255. Advances `p` past it; -1 when there is none.
int dotted_part(const char *&p) {
    if (*p < '0' || *p > '9') return -1;
    if (p[0] == '0' && p[1] >= '0' && p[1] <= '9') return -1;
    int value = 0;
    int digits = 0;
    while (*p >= '0' && *p <= '9') {
        if (++digits > 3) return -1;
        value = value * 10 + (*p - '0');
        ++p;
    }
    return value <= 255 ? value : -1;
}

}  // namespace

int getTokens(const char *text, const char *separators, char tokens[][VESK_TOKEN_SIZE], int max) {
    if (text == nullptr || tokens == nullptr || max <= 0) return 0;
    if (separators == nullptr) separators = "";
    auto is_separator = [separators](char c) { return std::strchr(separators, c) != nullptr; };
    int count = 0;
    const char *p = text;
    while (*p != '\0' && count < max) {
        while (*p != '\0' && is_separator(*p)) ++p;
        if (*p == '\0') break;
        const char *start = p;
        while (*p != '\0' && !is_separator(*p)) ++p;
        // A token longer than an entry holds is cut at 127 characters; its rest is dropped.
        size_t len = static_cast<size_t>(p - start);
        if (len > VESK_TOKEN_SIZE - 1) len = VESK_TOKEN_SIZE - 1;
        std::memcpy(tokens[count], start, len);
        tokens[count][len] = '\0';
        ++count;
    }
    return count;
}

char *itoa(int value, char *buf) {
    if (buf == nullptr) return nullptr;
    std::snprintf(buf, 12, "%d", value);  // "-2147483648" and its NUL fill the 12 bytes
    return buf;
}

int ether_atoe(const char *text, unsigned char *mac) {
    if (text == nullptr || mac == nullptr) return 0;
    // Exactly six pairs of hexadecimal digits joined by ':' or, throughout, by '-'.
    if (std::strlen(text) != 17) return 0;
    char separator = text[2];
    if (separator != ':' && separator != '-') return 0;
    unsigned char parsed[6];
    for (int i = 0; i < 6; ++i) {
        const char *pair = text + i * 3;
        int high = hex_value(pair[0]);
        int low = hex_value(pair[1]);
        if (high < 0 || low < 0) return 0;
        if (i < 5 && pair[2] != separator) return 0;
        parsed[i] = static_cast<unsigned char>(high << 4 | low);
    }
    std::memcpy(mac, parsed, sizeof parsed);
    return 1;
}

int isValidIpAddr(const char *text) {
    if (text == nullptr) return 0;
    int part[4];
    const char *p = text;
    for (int i = 0; i < 4; ++i) {
        if (i > 0 && *p++ != '.') return 0;
        part[i] = dotted_part(p);
        if (part[i] < 0) return 0;
    }
    if (*p != '\0') return 0;
    // Usable as a unicast host address: not "this network" (0.x), not loopback (127.x), not
    // multicast (224-239.x) nor reserved/broadcast (240-255.x).
    if (part[0] == 0 || part[0] == 127 || part[0] >= 224) return 0;
    return 1;
}
