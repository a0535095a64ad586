// What the Ethernet WAN start does that its cases (tests/cases/ether_wan) cannot see: the tunnel
// start's child and the address wait inside one process.
#include "failover/ether_wan.h"
#include "platform/nvram.h"
#include "tests/support/testroot.h"

#include <sys/wait.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

void set(const char *key, const char *value) { veskNvramConfig_set(key, value); }

// A tunnel WAN's start forks a child that starts the session; it ends well and leaves the
// session's parameters file. (The address a static or PPPoE start puts on the interface is read
// back with the interface primitive's tests.)
TEST(EtherWan, Start_TunnelProtocols_StartTheSessionInAChild) {
    for (auto [proto, child_file] : {std::pair{"pptp", "/tmp/ppp/pptpIp"}, {"l2tp", "/tmp/ppp/l2tpIp"}}) {
        SCOPED_TRACE(proto);
        testroot::reset();
        for (auto [key, value] :
             {std::pair{"wwan_wan_type", "2"}, {"current_ifname", "rm_usb0"}, {"wan_ifname", "veth0"},
              {"static_pptp_enable", "1"}, {"static_l2tp_enable", "1"}, {"pptp_serv_ip", "192.0.2.1"},
              {"l2tp_serv_ip", "192.0.2.1"}, {"wan_proto", proto}})
            set(key, value);
        Ether_connection_start();
        int status = -1;
        ASSERT_GT(waitpid(-1, &status, 0), 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        EXPECT_TRUE(testroot::exists(child_file));
    }
}

// The sleep shim lets no time pass, so a lease "arriving" is the n-th look returning an address.
TEST(EtherWan, WaitForAddress_FiveLooks_AnAddressSeenOnlyInTheFifthGoneAtTheNextFails) {
    struct Row {
        bool sleep_first;
        std::vector<int> with_address;  // the looks (from 1) that see an address
        int result, looks, sleeps;
    } rows[] = {
        {true, {2, 3, 4, 5, 6}, 0, 2, 2},
        {false, {2, 3, 4, 5, 6}, 0, 2, 1},  // the PPPoE probe looks before pausing
        {true, {}, 0, 5, 5},                // never: goes on after five passes
        {true, {5}, -1, 6, 5},
        {false, {5}, -1, 6, 4},
        {true, {5, 6}, 0, 6, 5},
        {false, {4}, 0, 4, 3},
    };
    testroot::reset();
    for (const Row &row : rows) {
        testroot::clear_logs();
        int looks = 0;
        int result = wait_for_wan_address(row.sleep_first, [&] {
            ++looks;
            for (int n : row.with_address)
                if (n == looks) return std::string("203.0.113.9");
            return std::string("0.0.0.0");
        });
        EXPECT_EQ(result, row.result) << row.looks;
        EXPECT_EQ(looks, row.looks);
        EXPECT_EQ(testroot::sleeps_us(), std::vector<unsigned long>(row.sleeps, 2000000));
    }
}

}  // namespace
