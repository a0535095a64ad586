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
#include <utility>

namespace {

// One SIOCGIF*/SIOCSIF* request on `name`; false when the kernel refuses it.
bool request(const char *name, unsigned long what, ifreq &ifr) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    std::memcpy(ifr.ifr_name, name, strnlen(name, IFNAMSIZ - 1));
    bool ok = ioctl(fd, what, &ifr) == 0;
    close(fd);
    return ok;
}

// The address of kind `what` (SIOCGIFADDR, ...); "" when the interface has none.
std::string address(const char *name, unsigned long what) {
    ifreq ifr{};
    if (!request(name, what, ifr)) return "";
    sockaddr_in sin{};
    std::memcpy(&sin, &ifr.ifr_addr, sizeof sin);
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &sin.sin_addr, text, sizeof text);
    return text;
}

int flags_of(const char *name) {
    ifreq ifr{};
    return request(name, SIOCGIFFLAGS, ifr) ? ifr.ifr_flags : -1;
}

// "address/netmask/broadcast" as the kernel holds them.
std::string addresses_of(const char *name) {
    return address(name, SIOCGIFADDR) + "/" + address(name, SIOCGIFNETMASK) + "/" +
           address(name, SIOCGIFBRDADDR);
}

// Down and without an address, as the test root lays it out (tests may share one process).
void reset_interface(const char *name) {
    ifreq ifr{};
    request(name, SIOCSIFFLAGS, ifr);
    ifr.ifr_addr.sa_family = AF_INET;
    request(name, SIOCSIFADDR, ifr);  // 0.0.0.0 removes the address
}

// What a WAN start asks for and the kernel keeps (IFF_RUNNING is the driver's to report).
constexpr int kWanFlagsKept = IFF_UP | IFF_BROADCAST | IFF_PROMISC | IFF_ALLMULTI | IFF_MULTICAST;

// Runs `f` and returns its standard error.
template <typename F>
std::string stderr_of(F f) {
    testing::internal::CaptureStderr();
    f();
    return testing::internal::GetCapturedStderr();
}

class Ifconfig : public testing::Test {
protected:
    void SetUp() override {
        if (!testroot::inside()) GTEST_SKIP() << "needs the test root (veth pair, own namespace)";
        testroot::reset();
        reset_interface("veth0");
        ASSERT_EQ(flags_of("veth0") & IFF_UP, 0);
    }
};

TEST_F(Ifconfig, AddressAndNetmask_SetFlagsAddressMaskAndDerivedBroadcast) {
    EXPECT_EQ(ifconfig("veth0", kWanInterfaceFlags, "192.168.1.10", "255.255.255.0"), 0);
    EXPECT_EQ(flags_of("veth0") & kWanFlagsKept, kWanFlagsKept);
    EXPECT_EQ(addresses_of("veth0"), "192.168.1.10/255.255.255.0/192.168.1.255");

    EXPECT_EQ(ifconfig("veth0", kWanInterfaceFlags, "10.1.2.3", "255.255.240.0"), 0);
    EXPECT_EQ(addresses_of("veth0"), "10.1.2.3/255.255.240.0/10.1.15.255");
}

TEST_F(Ifconfig, Flags_AreSetAsGivenNotOrredIn) {
    ASSERT_EQ(ifconfig("veth0", kWanInterfaceFlags, nullptr, nullptr), 0);
    ASSERT_EQ(ifconfig("veth0", IFF_UP | IFF_BROADCAST, nullptr, nullptr), 0);
    EXPECT_EQ(flags_of("veth0") & (IFF_UP | IFF_PROMISC | IFF_ALLMULTI), IFF_UP);
    ASSERT_EQ(ifconfig("veth0", 0, nullptr, nullptr), 0);
    EXPECT_EQ(flags_of("veth0") & IFF_UP, 0);
}

TEST_F(Ifconfig, OnlyOneOfAddressAndNetmask_LeavesTheMaskAlone) {
    ASSERT_EQ(ifconfig("veth0", kWanInterfaceFlags, "192.168.1.10", "255.255.0.0"), 0);
    // The same address again, since the kernel itself resets the mask to the address class
    // when the address changes.
    EXPECT_EQ(ifconfig("veth0", kWanInterfaceFlags, "192.168.1.10", nullptr), 0);
    EXPECT_EQ(addresses_of("veth0"), "192.168.1.10/255.255.0.0/192.168.255.255");

    // A netmask alone is ignored, even an unparsable one.
    EXPECT_EQ(ifconfig("veth0", kWanInterfaceFlags, nullptr, "255.255.255.252"), 0);
    EXPECT_EQ(ifconfig("veth0", kWanInterfaceFlags, nullptr, "no mask"), 0);
    EXPECT_EQ(addresses_of("veth0"), "192.168.1.10/255.255.0.0/192.168.255.255");
}

TEST_F(Ifconfig, UnknownInterface_ReturnsEnodevWithPerrorLine) {
    int result = 0;
    auto call = [&] { result = ifconfig("nosuch0", kWanInterfaceFlags, "10.0.0.1", nullptr); };
    EXPECT_EQ(stderr_of(call), "nosuch0: No such device\n");
    EXPECT_EQ(result, ENODEV);
}

TEST_F(Ifconfig, UnparsableAddressOrMask_EinvalAfterFlagsWereSet) {
    using Texts = std::pair<const char *, const char *>;
    for (auto [addr, mask] : {Texts{"10.0.0.300", "255.255.255.0"}, Texts{"", "255.0.0.0"},
                              Texts{"10.0.0.1; reboot", nullptr},
                              Texts{"10.0.0.1", "255.255.255.0.0"}}) {
        SCOPED_TRACE(std::string(addr) + " " + (mask ? mask : "NULL"));
        reset_interface("veth0");
        int result = 0;
        EXPECT_EQ(stderr_of([&] { result = ifconfig("veth0", kWanInterfaceFlags, addr, mask); }),
                  "veth0: Invalid argument\n");
        EXPECT_EQ(result, EINVAL);
        EXPECT_NE(flags_of("veth0") & IFF_UP, 0) << "flags come first and stay";
        EXPECT_EQ(address("veth0", SIOCGIFADDR), "") << "nothing of the address is set";
    }
}

TEST_F(Ifconfig, LongName_IsCutByTheKernelLimit) {
    // veth1 renamed to the longest name the kernel holds (15 characters).
    ifreq ifr{};
    std::memcpy(ifr.ifr_newname, "wan012345678901", sizeof "wan012345678901");
    ASSERT_TRUE(request("veth1", SIOCSIFNAME, ifr) || flags_of("wan012345678901") >= 0);

    const std::string long_name = "wan012345678901" + std::string(200, 'x');
    EXPECT_EQ(ifconfig(long_name.c_str(), kWanInterfaceFlags, "10.9.8.7", "255.255.255.0"), 0);
    EXPECT_EQ(address("wan012345678901", SIOCGIFADDR), "10.9.8.7");
}

}  // namespace
