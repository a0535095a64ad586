// The interface primitive: IPv4 flags, address, netmask and derived broadcast by ioctl.
#pragma once

// Flags for a WAN interface: up, broadcast, running, promiscuous, all-multicast, multicast.
inline constexpr int kWanInterfaceFlags = 4931;

// Sets the flags of `name` (as given, not or-ed), then the address when `address` is given,
// then the netmask and the broadcast address derived from both when `netmask` is given too.
// 0, or the system error number after a perror line naming the interface.
int ifconfig(const char *name, int flags, const char *address, const char *netmask);

// IPv6 preparation of the WAN before it starts: nothing to do on this platform. Always 0.
int ipv6_prepare_wan();
