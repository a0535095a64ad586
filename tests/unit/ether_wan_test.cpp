// What the Ethernet WAN start does that its cases (tests/cases/ether_wan) cannot see: the real
// interface's address, the tunnel start's child, and the address wait inside one process.
#include "failover/ether_wan.h"
#include "platform/nvram.h"
#include "tests/support/testroot.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

void set(const char *key, const char *value) { veskNvramConfig_set(key, value); }

// "ADDRESS up|down" of `name` (ADDRESS empty when none).
std::string interface_state(const char *name) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, name, IFNAMSIZ - 1);
    char text[INET_ADDRSTRLEN] = "";
    if (ioctl(fd, SIOCGIFADDR, &ifr) == 0)
        inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in *>(&ifr.ifr_addr)->sin_addr, text, sizeof text);
    bool up = ioctl(fd, SIOCGIFFLAGS, &ifr) == 0 && (ifr.ifr_flags & IFF_UP);
    close(fd);
    return std::string(text) + (up ? " up" : " down");
}

TEST(EtherWan, Start_ConfiguresTheInterfaceOrTheTunnelChildPerProtocol) {
    struct Row {
        const char *proto;
        const char *child_file;  // written by the tunnel start's child; null: no child
        const char *state;       // of veth0 afterwards; null: not looked at
    } rows[] = {
        {"pptp", "/tmp/ppp/pptpIp", nullptr},
        {"l2tp", "/tmp/ppp/l2tpIp", nullptr},
        {"static", nullptr, "10.0.0.2 up"},
        {"pppoe", nullptr, "100.64.0.9 up"},  // the fixed address beside the session
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.proto);
        testroot::reset();
        for (auto [key, value] :
             {std::pair{"wwan_wan_type", "2"}, {"current_ifname", "rm_usb0"}, {"wan_ifname", "veth0"},
              {"wan_static_ipaddr", "10.0.0.2"}, {"wan_static_netmask", "255.255.255.0"},
              {"static_pppoe_enable", "1"}, {"pppoe_user_ip", "100.64.0.9"},
              {"pppoe_localnetmask", "255.255.255.255"}, {"static_pptp_enable", "1"},
              {"static_l2tp_enable", "1"}, {"pptp_serv_ip", "192.0.2.1"}, {"l2tp_serv_ip", "192.0.2.1"},
              {"wan_proto", row.proto}})
            set(key, value);
        Ether_connection_start();
        if (row.child_file) {
            int status = -1;
            ASSERT_GT(waitpid(-1, &status, 0), 0);
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
            EXPECT_TRUE(testroot::exists(row.child_file));
        }
        if (row.state) {
            EXPECT_EQ(interface_state("veth0"), row.state);
        }
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
