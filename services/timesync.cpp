// Restart of the platform's time client. In LTE WAN mode with a good clock, restarts are
// limited to one a day (metered link); `first_sync` holds the time of the last counted one.
#include "services/timesync.h"

#include "platform/nvram.h"
#include "shared/c_numbers.h"
#include "shared/command.h"
#include "shared/store.h"

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace {

constexpr std::uint32_t kOneDay = 86400;

}  // namespace

int restart_timesync() {
    if (store::match("ntp_is_synced", "1") &&
        store::match("wwan_wan_type", "0")) {
        // 32-bit arithmetic as on the router: a clock set back before first_sync wraps to a
        // large difference and restarts the client.
        auto now = static_cast<std::uint32_t>(std::time(nullptr));
        std::uint32_t first = strtoul32(store::get("first_sync"));
        if (static_cast<std::uint32_t>(now - first) <= kOneDay) return 0;
        char text[16];
        std::snprintf(text, sizeof text, "%lu", static_cast<unsigned long>(now));
        store::set("first_sync", text);
    }
    shell::run("restart_timesync", "killall -9 timesync");
    shell::run("restart_timesync", "rm -rf /var/run/timesync.pid");
    shell::run("restart_timesync", "/usr/sbin/timesync /sbin/ntpclient &");
    return 0;
}
