// The controller's switches in-process against the stand-in LTE manager: the requests on its
// socket and the WAN left in the store. The monitor's ticks and the events that reach no socket
// are case files (tests/cases/failover).
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "failover/failover_conn.h"
#include "platform/nvram.h"
#include "tests/support/lte_manager.h"
#include "tests/support/testroot.h"

namespace {

const std::string kConnect = "{\"action\":\"set_network_connection_mode\",\"args\":{\"manual_mode\":1} }";
const std::string kDisconnect = "{\"action\":\"set_network_connection_mode\",\"args\":{\"manual_mode\":0} }";

using Keys = std::vector<std::pair<const char *, const char *>>;

std::string get(const char *key) { return veskNvramConfig_get(key); }

void reset_with(const Keys &keys) {
    testroot::reset();
    for (const auto &[key, value] : Keys{{"wwan_wan_type", "2"}, {"module_ready", "1"},
                                         {"wan_proto", "dhcp"}, {"wan_port_status", "1"}})
        veskNvramConfig_set(key, value);
    for (const auto &[key, value] : keys) veskNvramConfig_set(key, value);
}

struct Row {
    const char *what;
    Keys keys;
    const char *batch;
    std::vector<std::string> requests;
    const char *wan, *lte_start;  // left in the store
};

TEST(Controller, Events_RequestsOnTheLteSocketAndTheWanLeft) {
    const std::string D = kDisconnect, C = kConnect;
    const Keys on_lte = {{"current_ifname", "rm_usb0"}, {"lte_start", "1"}};
    const std::vector<Row> rows = {
        {"link down on Ethernet", {{"current_ifname", "eth0"}}, "3:", {D, C}, "rm_usb0", "1"},
        {"two tokens in one read", {{"current_ifname", "eth0"}}, "3:8:", {D, C, D, C}, "rm_usb0", "1"},
        // Only a token's first character counts.
        {"Internet back over Ethernet", on_lte, "7xyz:", {D}, "eth0", "0"},
        {"LTE timed out, Ethernet link up", on_lte, "a:", {D}, "eth0", "0"},
        {"connected LTE with an address is kept",
         {{"current_ifname", "rm_usb0"}, {"wwan_runtime_state", "Connected"}, {"wan1_ipaddr", "10.64.0.2"}},
         "4:9:", {}, "rm_usb0", ""},
        {"connected LTE without an address is restarted",
         {{"current_ifname", "rm_usb0"}, {"wwan_runtime_state", "Connected"}, {"wan1_ipaddr", "0.0.0.0"}},
         "9:", {D, C}, "rm_usb0", "1"},
        {"LTE not connected is restarted", {{"current_ifname", "rm_usb0"}, {"wan1_ipaddr", "10.64.0.2"}},
         "4:", {D, C}, "rm_usb0", "1"},
    };
    for (const Row &row : rows) {
        reset_with(row.keys);
        testroot::LteManager manager;
        handle_failover_batch(row.batch);
        EXPECT_EQ(manager.requests(), row.requests) << row.what;
        EXPECT_EQ(get("current_ifname"), row.wan) << row.what;
        EXPECT_EQ(get("lte_start"), row.lte_start) << row.what;
    }
}

// Switch to Ethernet: the Ethernet client ended, the LTE client ended, LTE disconnected, then
// the Ethernet WAN started, in that order.
TEST(Controller, InternetBackOnEthernet_EndsBothClientsDisconnectsThenStarts) {
    reset_with({{"current_ifname", "rm_usb0"}, {"wan_ifname", "eth0"}});
    testroot::script("ps", "  100 root udhcpc -i eth0 -p /var/run/udhcpc0.pid -s /tmp/udhcpc\n"
                           "  101 root udhcpc -i rm_usb0 -p /var/run/udhcpc1.pid -s /tmp/udhcpc\n");
    // The manager marks its request among the commands, so that one order covers both.
    testroot::LteManager manager(testroot::LteManager::kOkReply,
                                 [](const std::string &) { std::system(": lte-request"); });
    handle_failover_batch("7:");
    const std::vector<std::string> want = {"sh: kill -9 100", "sh: kill -9 101", "sh: : lte-request",
                                           "run: udhcpc -i eth0"};
    std::vector<std::string> steps;
    testroot::wait_for([&] {  // the client starts in the background
        steps.clear();
        for (const std::string &event : testroot::events())
            for (const std::string &step : want)
                if (event.rfind(step, 0) == 0) steps.push_back(step);
        return steps.size() == want.size();
    });
    EXPECT_EQ(steps, want);
}

}  // namespace
