// The once-a-day time-sync restart against the clock, which a case file cannot set.
#include "services/timesync.h"
#include "platform/nvram.h"
#include "tests/support/testroot.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace {

// Synced in LTE-only mode: a restart only when first_sync lies more than a day back, or cannot be
// read, and then first_sync becomes now. first_sync is built from the second the call runs in,
// again if the clock ticked meanwhile.
TEST(TimeSync, SyncedInLteMode_RestartsAtMostOncePerDay) {
    testroot::reset();
    veskNvramConfig_set("ntp_is_synced", "1");
    veskNvramConfig_set("wwan_wan_type", "0");
    const std::vector<std::string> restart = {"killall -9 timesync", "rm -rf /var/run/timesync.pid",
                                              "/usr/sbin/timesync /sbin/ntpclient &"};
    struct Case { const char *what; int64_t ago; bool restarts; };
    for (const Case &c : {Case{"an hour ago", 3600, false}, Case{"boundary second", 86400, false},
                          Case{"a day and a second ago", 86401, true},
                          Case{"clock set back", -600, true},
                          // The router's 32-bit strtoul gives 4294967295; low 32 bits would be now.
                          Case{"beyond 32 bits", -(int64_t{1} << 32), true}}) {
        for (int attempt = 0; attempt < 5; ++attempt) {
            testroot::clear_logs();
            auto now = static_cast<uint32_t>(std::time(nullptr));
            std::string first = std::to_string(now - c.ago);
            veskNvramConfig_set("first_sync", first.c_str());
            EXPECT_EQ(restart_timesync(), 0);
            if (now != static_cast<uint32_t>(std::time(nullptr))) continue;
            EXPECT_EQ(testroot::shell_commands(), c.restarts ? restart : std::vector<std::string>{})
                << c.what;
            EXPECT_EQ(veskNvramConfig_get("first_sync"), c.restarts ? std::to_string(now) : first)
                << c.what;
            break;
        }
    }
}

}  // namespace
