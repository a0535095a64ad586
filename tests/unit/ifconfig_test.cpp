// The interface primitive on the test root's real veth pair, read back through the kernel.
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

int flags_of(const char *name) {
    ifreq ifr{};
    return request(name, SIOCGIFFLAGS, ifr) ? ifr.ifr_flags : -1;
}

std::string addresses_of(const char *name) {
    return address(name) + "/" + address(name, SIOCGIFNETMASK) + "/" + address(name, SIOCGIFBRDADDR);
}

// Down and without an address (0.0.0.0 removes it).
void reset_interface(const char *name) {
    ifreq ifr{};
    request(name, SIOCSIFFLAGS, ifr);
    ifr.ifr_addr.sa_family = AF_INET;
    request(name, SIOCSIFADDR, ifr);
}

template <typename F>
std::string stderr_of(F f) {
    testing::internal::CaptureStderr();
    f();
    return testing::internal::GetCapturedStderr();
}

class Ifconfig : public testing::Test {
protected:
    void SetUp() override {
        testroot::reset();
        reset_interface("veth0");
    }
};

TEST_F(Ifconfig, SetsFlagsAsGiven_AddressMaskAndDerivedBroadcast) {
    // IFF_RUNNING is the driver's to report.
    constexpr int kept = IFF_UP | IFF_BROADCAST | IFF_PROMISC | IFF_ALLMULTI | IFF_MULTICAST;
    EXPECT_EQ(ifconfig("veth0", kWanInterfaceFlags, "192.168.1.10", "255.255.255.0"), 0);
    EXPECT_EQ(flags_of("veth0") & kept, kept);
    EXPECT_EQ(addresses_of("veth0"), "192.168.1.10/255.255.255.0/192.168.1.255");
    EXPECT_EQ(ifconfig("veth0", kWanInterfaceFlags, "10.1.2.3", "255.255.240.0"), 0);
    EXPECT_EQ(addresses_of("veth0"), "10.1.2.3/255.255.240.0/10.1.15.255");

    ASSERT_EQ(ifconfig("veth0", IFF_UP | IFF_BROADCAST, nullptr, nullptr), 0);
    EXPECT_EQ(flags_of("veth0") & (IFF_UP | IFF_PROMISC | IFF_ALLMULTI), IFF_UP);
    ASSERT_EQ(ifconfig("veth0", 0, nullptr, nullptr), 0);
    EXPECT_EQ(flags_of("veth0") & IFF_UP, 0);
}

TEST_F(Ifconfig, NetmaskOnlyWithAddress) {
    ASSERT_EQ(ifconfig("veth0", kWanInterfaceFlags, "192.168.1.10", "255.255.0.0"), 0);
    // Same address again: the kernel resets the mask to the address class when it changes.
    EXPECT_EQ(ifconfig("veth0", kWanInterfaceFlags, "192.168.1.10", nullptr), 0);
    EXPECT_EQ(ifconfig("veth0", kWanInterfaceFlags, nullptr, "255.255.255.252"), 0);
    EXPECT_EQ(ifconfig("veth0", kWanInterfaceFlags, nullptr, "no mask"), 0);
    EXPECT_EQ(addresses_of("veth0"), "192.168.1.10/255.255.0.0/192.168.255.255");
}

TEST_F(Ifconfig, UnknownInterface_ReturnsEnodevWithPerrorLine) {
    int result = 0;
    EXPECT_EQ(stderr_of([&] { result = ifconfig("nosuch0", kWanInterfaceFlags, "10.0.0.1", nullptr); }),
              "nosuch0: No such device\n");
    EXPECT_EQ(result, ENODEV);
}

TEST_F(Ifconfig, UnparsableAddressOrMask_EinvalAfterFlagsWereSet) {
    const char *cases[][2] = {{"10.0.0.300", "255.255.255.0"}, {"", "255.0.0.0"},
                              {"10.0.0.1; reboot", nullptr}, {"10.0.0.1", "255.255.255.0.0"}};
    for (auto &c : cases) {
        SCOPED_TRACE(c[0]);
        reset_interface("veth0");
        int result = 0;
        EXPECT_EQ(stderr_of([&] { result = ifconfig("veth0", kWanInterfaceFlags, c[0], c[1]); }),
                  "veth0: Invalid argument\n");
        EXPECT_EQ(result, EINVAL);
        EXPECT_NE(flags_of("veth0") & IFF_UP, 0);
        EXPECT_EQ(address("veth0"), "");
    }
}

TEST_F(Ifconfig, LongName_IsCutByTheKernelLimit) {
    ifreq ifr{};
    std::memcpy(ifr.ifr_newname, "wan012345678901", sizeof "wan012345678901");
    ASSERT_TRUE(request("veth1", SIOCSIFNAME, ifr) || flags_of("wan012345678901") >= 0);
    const std::string long_name = "wan012345678901" + std::string(200, 'x');
    EXPECT_EQ(ifconfig(long_name.c_str(), kWanInterfaceFlags, "10.9.8.7", "255.255.255.0"), 0);
    EXPECT_EQ(address("wan012345678901"), "10.9.8.7");
}

}  // namespace
