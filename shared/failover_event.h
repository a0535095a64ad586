// FailoverEvent tokens: an event code character followed by ":", appended to "/tmp/f_fifo".
// The monitor and the WAN-up sequence write them; the controller reads and acts on them.
#pragma once

inline constexpr const char *kFailoverFifo = "/tmp/f_fifo";

// The event codes, named by what the writer saw.
namespace event {
inline constexpr char kLinkUpOnEthernet = '1';
inline constexpr char kLinkUpOnLte = '2';
inline constexpr char kLinkDownOnEthernet = '3';
inline constexpr char kLinkDownOnLte = '4';
inline constexpr char kLteUp = '5';
inline constexpr char kLteDown = '6';
inline constexpr char kInternetUpOnLte = '7';
inline constexpr char kInternetDownOnEthernet = '8';
inline constexpr char kInternetDownOnLte = '9';
inline constexpr char kLteConnectTimedOut = 'a';
}  // namespace event

// Appends the two-byte token for `code` to the FIFO by open, write, close, so a token is never
// split. False (after the perror line) when the FIFO could not be opened.
bool write_failover_event(char code);
