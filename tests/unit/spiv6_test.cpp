// The IPv6 firewall device's interface record: the name's length and its address, as the kernel
// module reads them. What each request does without the module is in tests/cases/spiv6.
#include "ipv6/spiv6.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

TEST(Spiv6Record, FifteenCharacterName_HoldsLengthAtFourAndNameAddressAt132) {
    static const char name[] = "abcdefghijklmno";
    Spiv6Record expected{};
    expected[4] = 15;
    auto address = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(name));
    for (int i = 0; i < 4; ++i) expected[132 + i] = static_cast<unsigned char>(address >> (8 * i));
    EXPECT_EQ(make_spiv6_record(name), expected);
}

}  // namespace
