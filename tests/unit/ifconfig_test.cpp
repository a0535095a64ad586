// The interface primitive on the test root's real veth pair, read back through the kernel; and
// its callers' addresses there: the Ethernet WAN start's, and the DHCP client's event script
// putting a lease's address on and taking it off again. Their keys and commands are cases
// (tests/cases/ether_wan, service_events); a real lease is DhcpLeaseProgram.
#include "failover/ether_wan.h"
#include "platform/nvram.h"
#include "services/dhcp_event.h"
#include "shared/ifconfig.h"
#include "tests/support/testroot.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace {

bool request(const char *name, unsigned long what, ifreq &ifr) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    std::memcpy(ifr.ifr_name, name, strnlen(name, IFNAMSIZ - 1));
    bool ok = ioctl(fd, what, &ifr) == 0;
    close(fd);
    return ok;
}

std::string address(const char *name, unsigned long what = SIOCGIFADDR) {
    ifreq ifr{};
    if (!request(name, what, ifr)) return "";
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in *>(&ifr.ifr_addr)->sin_addr, text, sizeof text);
    return text;
}

// The flags ifconfig sets, without IFF_RUNNING, which is the driver's to report.
constexpr int kSettable = IFF_UP | IFF_BROADCAST | IFF_PROMISC | IFF_ALLMULTI | IFF_MULTICAST;

int flags_of(const char *name) {
    ifreq ifr{};
    request(name, SIOCGIFFLAGS, ifr);
    return ifr.ifr_flags & kSettable;
}

// Steps in turn on veth0: flags as given, the address with its mask and the derived broadcast;
// a mask only with an address; a bad address or mask refused after the flags were set.
TEST(Ifconfig, Steps_FlagsAddressMaskAndBroadcastAsTheKernelHoldsThem) {
    testroot::reset();
    const int wan = kWanInterfaceFlags, up = IFF_UP | IFF_BROADCAST;
    const struct {
        int flags;
        const char *addr, *mask;
        int result;
        std::string addresses;  // address/netmask/broadcast
    } steps[] = {
        {wan, "192.168.1.10", "255.255.0.0", 0, "192.168.1.10/255.255.0.0/192.168.255.255"},
        {wan, "10.1.2.3", "255.255.240.0", 0, "10.1.2.3/255.255.240.0/10.1.15.255"},
        // The same address again: the kernel would reset the mask if the address changed.
        {wan, "10.1.2.3", nullptr, 0, "10.1.2.3/255.255.240.0/10.1.15.255"},
        {wan, nullptr, "255.255.255.252", 0, "10.1.2.3/255.255.240.0/10.1.15.255"},
        {up, "10.0.0.300", "255.255.255.0", EINVAL, "10.1.2.3/255.255.240.0/10.1.15.255"},
        {wan, "10.0.0.1; reboot", nullptr, EINVAL, "10.1.2.3/255.255.240.0/10.1.15.255"},
        {wan, "", "255.0.0.0", EINVAL, "10.1.2.3/255.255.240.0/10.1.15.255"},
        {wan, "10.0.0.1", "255.255.255.0.0", EINVAL, "10.1.2.3/255.255.240.0/10.1.15.255"},
        {up, nullptr, nullptr, 0, "10.1.2.3/255.255.240.0/10.1.15.255"},
        {IFF_BROADCAST, nullptr, nullptr, 0, "10.1.2.3/255.255.240.0/10.1.15.255"},  // down
    };
    for (const auto &s : steps) {
        const std::string what = std::string(s.addr ? s.addr : "-") + " " + (s.mask ? s.mask : "-");
        EXPECT_EQ(ifconfig("veth0", s.flags, s.addr, s.mask), s.result) << what;
        EXPECT_EQ(flags_of("veth0"), s.flags & kSettable) << what;
        EXPECT_EQ(address("veth0") + "/" + address("veth0", SIOCGIFNETMASK) + "/" +
                      address("veth0", SIOCGIFBRDADDR), s.addresses) << what;
    }
    EXPECT_EQ(ifconfig("nosuch0", wan, "10.0.0.1", nullptr), ENODEV);
}

TEST(Ifconfig, LongName_IsCutByTheKernelLimit) {
    testroot::reset();
    ifreq ifr{};
    std::memcpy(ifr.ifr_newname, "wan012345678901", sizeof "wan012345678901");
    ASSERT_TRUE(request("veth1", SIOCSIFNAME, ifr));
    const std::string long_name = "wan012345678901" + std::string(200, 'x');
    EXPECT_EQ(ifconfig(long_name.c_str(), kWanInterfaceFlags, "10.9.8.7", "255.255.255.0"), 0);
    EXPECT_EQ(address("wan012345678901"), "10.9.8.7");
}

// A static start, and a PPPoE start with its fixed address beside the session.
TEST(EtherWan, Start_StaticOrPppoeFixedAddress_PutsItOnTheInterfaceUp) {
    for (auto [proto, want] : {std::pair{"static", "10.0.0.2"}, {"pppoe", "100.64.0.9"}}) {
        SCOPED_TRACE(proto);
        testroot::reset();
        for (auto [key, value] :
             {std::pair{"wwan_wan_type", "2"}, {"current_ifname", "rm_usb0"}, {"wan_ifname", "veth0"},
              {"wan_static_ipaddr", "10.0.0.2"}, {"wan_static_netmask", "255.255.255.0"},
              {"static_pppoe_enable", "1"}, {"pppoe_user_ip", "100.64.0.9"},
              {"pppoe_localnetmask", "255.255.255.255"}, {"wan_proto", proto}})
            veskNvramConfig_set(key, value);
        Ether_connection_start();
        EXPECT_EQ(address("veth0"), want);
        EXPECT_TRUE(flags_of("veth0") & IFF_UP);
    }
}

TEST(ServiceEvents, BoundThenDeconfig_PutsTheAddressOnThenTakesItOff) {
    testroot::reset();
    veskNvramConfig_set("wan_ifname", "veth0");
    veskNvramConfig_set("wan_proto", "dhcp");
    const DhcpLease lease{"veth0", "10.1.0.5", "255.255.255.0", "10.1.0.1", "10.1.0.53"};
    ASSERT_EQ(dhcp_client_event("bound", lease), 0);
    EXPECT_EQ(address("veth0"), "10.1.0.5");
    ASSERT_EQ(dhcp_client_event("deconfig", lease), 0);
    EXPECT_EQ(address("veth0"), "");
}

}  // namespace
