// Checks shared by the PPP session tests.
#pragma once

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

#include "tests/support/testroot.h"

namespace ppp_checks {

// The lines every options file carries after "ktune".
inline constexpr const char *kLinkLines =
    "default-asyncmap\nnoaccomp\nnopcomp\nnoccp\nnovj\nnobsdcomp\nnodeflate\nlock\nusepeerdns\n";

// "c MAJOR MINOR MODE" for a character device, "" otherwise.
inline std::string node(const char *path) {
    struct stat st {};
    if (lstat(path, &st) != 0 || !S_ISCHR(st.st_mode)) return "";
    char text[40];
    std::snprintf(text, sizeof text, "c %u %u %o", major(st.st_rdev), minor(st.st_rdev),
                  st.st_mode & 07777);
    return text;
}

inline unsigned mode(const char *path) {
    struct stat st {};
    return stat(path, &st) == 0 ? st.st_mode & 07777 : 0;
}

// The WAN-up sequence installs the static routes of the interface it was given.
inline bool wan_up_ran() {
    for (const std::string &line : testroot::trace())
        if (line == "{\"fn\":\"add_routes\",\"args\":[\"ppp0\"]}") return true;
    return false;
}

// Exit status and output of Debian's pppd reading `options` without dialling; IPv6CP only when
// the file asks for it with "+ipv6".
inline std::pair<int, std::string> pppd_dryrun(const std::string &options) {
    testroot::write_file("/dev/ppp", "");  // the kernel here has no PPP; pppd only opens it
    const bool ipv6 = testroot::read_file(options).find("+ipv6\n") != std::string::npos;
    int status = std::system(("/host/usr/sbin/pppd file " + options + (ipv6 ? "" : " noipv6") +
                              " dryrun >/tmp/pppd.out 2>&1").c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, testroot::read_file("/tmp/pppd.out")};
}

}  // namespace ppp_checks
