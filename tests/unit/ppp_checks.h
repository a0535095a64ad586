// Debian's pppd as the judge of a generated options file.
#pragma once

#include <sys/wait.h>

#include <cstdlib>
#include <string>
#include <utility>

#include "tests/support/testroot.h"

namespace ppp_checks {

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
