// A real DHCP lease through the service program: busybox udhcpd serves one end of the veth pair
// from a network namespace of its own, busybox udhcpc runs on the other end as the Ethernet WAN
// "eth0" with the built vesk_service as its event script, reached the way the Ethernet WAN
// start links it: /tmp/udhcpc -> /sbin/vesk_service.
#include <unistd.h>

#include <cstdlib>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/nvram.h"
#include "tests/support/testroot.h"

namespace {

std::string get(const char *key) { return veskNvramConfig_get(key); }

constexpr const char *kServerConfig =
    "start 10.9.0.100\nend 10.9.0.110\ninterface veth1\n"
    "lease_file /tmp/udhcpd.leases\npidfile /tmp/udhcpd.pid\n"
    "option subnet 255.255.255.0\noption router 10.9.0.1\noption dns 10.9.0.53 10.9.0.54\n";

// In a network namespace of its own: waits for veth1 to be moved in, addresses it and serves.
// It dies with the test's PID namespace at the latest.
constexpr const char *kServerScript =
    "echo $$ >/tmp/server.pid.new && mv /tmp/server.pid.new /tmp/server.pid\n"
    "until /bin/busybox ip link show veth1 >/dev/null 2>&1; do /bin/busybox usleep 10000; done\n"
    "/bin/busybox ip link set lo up\n"
    "/bin/busybox ip addr add 10.9.0.1/24 dev veth1\n"
    "/bin/busybox ip link set veth1 up\n"
    "exec /bin/busybox udhcpd -f /tmp/udhcpd.conf\n";

TEST(DhcpLeaseProgram, LeaseOnEthernetWan_GivesKeysDefaultRouteAndResolver) {
    testroot::reset();
    veskNvramConfig_set("wan_ifname", "eth0");
    veskNvramConfig_set("wan_proto", "dhcp");
    testroot::write_file("/tmp/resolv.conf", "");
    testroot::write_file("/tmp/udhcpd.conf", kServerConfig);
    testroot::write_file("/tmp/udhcpd.leases", "");
    // The router's own program behind the script link, and real routes from busybox's route.
    ASSERT_EQ(unlink("/sbin/vesk_service"), 0);
    ASSERT_EQ(symlink(VESK_SERVICE_BINARY, "/sbin/vesk_service"), 0);
    ASSERT_EQ(symlink("/sbin/vesk_service", "/tmp/udhcpc"), 0);
    ASSERT_EQ(unlink("/testbin/route"), 0);
    ASSERT_EQ(std::system("/host/usr/bin/ip link set veth0 name eth0"), 0);

    testroot::write_file("/tmp/server.sh", kServerScript);
    ASSERT_EQ(std::system("/bin/busybox unshare -n /bin/busybox sh /tmp/server.sh &"), 0);
    ASSERT_TRUE(testroot::wait_for([] { return testroot::exists("/tmp/server.pid"); }));
    ASSERT_EQ(std::system("/host/usr/bin/ip link set veth1 netns $(cat /tmp/server.pid)"), 0);

    // -q: leave once bound; -n: fail rather than wait for ever.
    EXPECT_EQ(std::system("/bin/busybox udhcpc -i eth0 -p /var/run/udhcpc0.pid -s /tmp/udhcpc "
                          "-f -q -n -t 10 -T 1"),
              0);

    const std::string address = get("wan_ipaddr");
    EXPECT_THAT(address, testing::MatchesRegex("10\\.9\\.0\\.1[01][0-9]"));
    EXPECT_EQ(get("wan_netmask") + " " + get("wan_gateway") + " " + get("wan_dns"),
              "255.255.255.0 10.9.0.1 10.9.0.53 10.9.0.54");
    EXPECT_EQ(testroot::read_file("/tmp/resolv.conf"),
              "nameserver 10.9.0.53\nnameserver 10.9.0.54\noptions single-request\n");
    ASSERT_EQ(std::system("/bin/busybox ip -4 addr show dev eth0 >/tmp/ip.out && "
                          "/bin/busybox ip route show default >>/tmp/ip.out"),
              0);
    const std::string kernel = testroot::read_file("/tmp/ip.out");
    EXPECT_THAT(kernel, testing::HasSubstr("inet " + address + "/24"));
    EXPECT_THAT(kernel, testing::HasSubstr("default via 10.9.0.1 dev eth0"));
}

}  // namespace
