// The IPv6 firewall device requests: the interface record's bytes, and what each operation
// reports without the kernel module (no device, or a file where the device belongs).
#include "ipv6/spiv6.h"
#include "tests/support/testroot.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace {

struct Operation {
    const char *name;
    std::function<int()> call;
    int result_without_device;
};

const std::vector<Operation> &operations() {
    static const std::vector<Operation> list = {
        {"ipv6_spi_mode", [] { return ipv6_spi_mode(1); }, 0},
        {"ipv6_spi_lan_hook", [] { return ipv6_spi_lan_hook("br0"); }, -1},
        {"ipv6_spi_wan_hook", [] { return ipv6_spi_wan_hook("sit0"); }, -1},
        {"ipv6_drop_all_packet", [] { return ipv6_drop_all_packet(0); }, 0},
        {"ipv6_enable_wan_ping", [] { return ipv6_enable_wan_ping(1); }, 0},
    };
    return list;
}

class Spiv6 : public testing::Test {
protected:
    void SetUp() override {
        testroot::reset();
    }
};

TEST(Spiv6Record, FifteenCharacterName_HoldsLengthAtFourAndNameAddressAt132) {
    static const char name[] = "abcdefghijklmno";
    Spiv6Record expected{};
    expected[4] = 15;
    auto address = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(name));
    for (int i = 0; i < 4; ++i) expected[132 + i] = static_cast<unsigned char>(address >> (8 * i));
    EXPECT_EQ(make_spiv6_record(name), expected);
}

TEST_F(Spiv6, NoDevice_EachOperationPrintsOpenFailure_OnlyHooksReportIt) {
    for (const Operation &op : operations()) {
        testing::internal::CaptureStdout();
        int result = op.call();
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "Can't open device file: /dev/spiv6\n")
            << op.name;
        EXPECT_EQ(result, op.result_without_device) << op.name;
    }
}

TEST_F(Spiv6, FileInsteadOfDevice_EachRequestFails_PrintsOperationNameAndResult) {
    testroot::write_file("/dev/spiv6", "");
    for (const Operation &op : operations()) {
        testing::internal::CaptureStdout();
        int result = op.call();
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "[" + std::string(op.name) + "]:ioctl_set_msg failed:-1\n");
        EXPECT_EQ(result, 0) << op.name;
    }
}

}  // namespace
