// Requests to the kernel module behind "/dev/spiv6", the IPv6 stateful packet inspection. The
// device is opened for each request and closed right after; failures are printed and ignored.
#include "ipv6/spiv6.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "shared/unique_fd.h"

namespace {

constexpr const char *kDevice = "/dev/spiv6";

// _IOR('e', n, int): direction read, size 4, type 'e'.
constexpr unsigned long kSetMode = 0x80046501;
constexpr unsigned long kSetLanHook = 0x80046502;
constexpr unsigned long kSetWanHook = 0x80046503;
constexpr unsigned long kDropAll = 0x80046504;
constexpr unsigned long kWanPing = 0x80046505;

constexpr std::size_t kLengthOffset = 4;
constexpr std::size_t kNameOffset = 132;
static_assert(sizeof(Spiv6Record) == 136, "the module reads a 136-byte record");


void put_le32(Spiv6Record &record, std::size_t offset, std::uint32_t value) {
    for (std::size_t i = 0; i < 4; ++i)
        record[offset + i] = static_cast<unsigned char>(value >> (8 * i));
}

// Sends one request with `arg` as the ioctl's third argument (a number by value or the record's
// address). False when the device could not be opened.
template <typename Arg>
bool send_request(const char *operation, unsigned long request, Arg arg) {
    UniqueFd device(::open(kDevice, O_RDWR));
    if (!device.is_open()) {
        std::printf("Can't open device file: %s\n", kDevice);
        return false;
    }
    int rc = ::ioctl(device.get(), request, arg);
    if (rc < 0) std::printf("[%s]:ioctl_set_msg failed:%d\n", operation, rc);
    return true;
}

int hook(const char *operation, unsigned long request, const char *ifname) {
    if (ifname == nullptr) ifname = "";
    Spiv6Record record = make_spiv6_record(ifname);
    return send_request(operation, request, record.data()) ? 0 : -1;
}

}  // namespace

Spiv6Record make_spiv6_record(const char *ifname) {
    Spiv6Record record{};
    std::size_t length = ifname ? std::strlen(ifname) : 0;
    put_le32(record, kLengthOffset, static_cast<std::uint32_t>(length));
    // The router's user space is 32-bit, so the address fills the field. A 64-bit host build
    // stores the low 32 bits of it: no host kernel has the module, so nothing ever follows it.
    put_le32(record, kNameOffset,
             static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(ifname)));
    return record;
}

int ipv6_spi_mode(int mode) {
    send_request("ipv6_spi_mode", kSetMode, static_cast<long>(mode));
    return 0;
}

int ipv6_spi_lan_hook(const char *ifname) { return hook("ipv6_spi_lan_hook", kSetLanHook, ifname); }

int ipv6_spi_wan_hook(const char *ifname) { return hook("ipv6_spi_wan_hook", kSetWanHook, ifname); }

int ipv6_drop_all_packet(int flag) {
    send_request("ipv6_drop_all_packet", kDropAll, static_cast<long>(flag));
    return 0;
}

int ipv6_enable_wan_ping(int flag) {
    send_request("ipv6_enable_wan_ping", kWanPing, static_cast<long>(flag));
    return 0;
}
