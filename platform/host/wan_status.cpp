// The Ethernet port's link state for kernels without the router's module.
//
// The router kernel provides "/proc/wan_status"; a plain Linux kernel has no such file and no
// mount can put one into /proc. The program keeps opening that path; this library is linked
// with -Wl,--wrap=fopen (and fopen64), so every fopen of exactly "/proc/wan_status" opens the
// file named by FAILOVER_WAN_STATUS_FILE instead, when that variable is set and not empty
// (failover-linkwatch keeps such a file). Every other path, and every open without the
// variable, goes to the C library unchanged.
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" {
FILE *__real_fopen(const char *path, const char *mode);
FILE *__wrap_fopen(const char *path, const char *mode);
FILE *__real_fopen64(const char *path, const char *mode);
FILE *__wrap_fopen64(const char *path, const char *mode);
}

namespace {

constexpr const char *kWanStatusPath = "/proc/wan_status";

const char *link_state_path(const char *path) {
    if (path == nullptr || std::strcmp(path, kWanStatusPath) != 0) return path;
    const char *file = std::getenv("FAILOVER_WAN_STATUS_FILE");
    return (file != nullptr && file[0] != '\0') ? file : path;
}

}  // namespace

extern "C" FILE *__wrap_fopen(const char *path, const char *mode) {
    return __real_fopen(link_state_path(path), mode);
}

extern "C" FILE *__wrap_fopen64(const char *path, const char *mode) {
    return __real_fopen64(link_state_path(path), mode);
}
