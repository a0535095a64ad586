// The router's OpenVPN server (a tun and a tap instance), restarted when its LAN settings change.
#pragma once

#include <cstddef>

// Size of the tun device name buffer of get_tun_device_name.
inline constexpr std::size_t kTunNameSize = 32;

// Starts both server instances, the client bundle and the DNS forwarder on the tun device. 0.
int start_openvpn();

// Kills the server instances and unhooks the tun device from the LAN side; the kill's status.
int stop_openvpn();

// Writes the tun device name (kTunNameSize bytes) into `out`: "tun0" unless the log names another.
void get_tun_device_name(char *out);
