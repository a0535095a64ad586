// The resolver file "/tmp/resolv.conf" that dnsmasq reads its upstream servers from.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

// Merges the DNS list of WAN `ifname` into the resolver file and tells dnsmasq to re-read it.
// 0, or the error number when a file cannot be opened.
int update_resolv_conf(const char *ifname);

// Rewrites the resolver file: mode 1 with no servers, any other mode with the current PPP
// protocol's learnt list.
void write_ppp_resolv(int mode);

// Drops the servers of WAN `ifname` from the resolver file and tells dnsmasq to re-read it.
// 0, or the error number when a file cannot be opened.
int remove_wan_dns(const char *ifname);

// 1 when a route on the WAN interface covers dotted-quad `address`, else 0.
int dns_routed_via_wan(const char *address);

// ---- The text handling behind them, on open files -----------------------------------------

// One token of a DNS list: a longer address is cut to kDnsTokenSize - 1 characters.
inline constexpr std::size_t kDnsTokenSize = 100;

// Walks a DNS list: skips leading blanks, copies the token up to the next blank into `token`
// (cut to fit) and leaves `pos` on the blank after it, or on the end. False at the first empty
// token, which ends the walk.
bool next_dns_token(const char *&pos, char (&token)[kDnsTokenSize]);

// Merges the DNS list into the text of the resolver file `resolv` as the router's in-place
// edit does: a server line is appended for each usable token not listed yet, then the options
// line is written at the position the last search left (over what stood there). `session2`,
// when not null, gets a server line for every token.
void merge_dns_servers(std::string &resolv, const char *list, std::string *session2);

// Adds a "nameserver ADDRESS" line to /tmp/resolv.conf for every address of the blank-separated
// `servers` that has none yet (no options line): the DNS servers of a PPTP or L2TP tunnel over
// a static link. Addresses and lines are read in pieces of `line_size` - 1 characters. False,
// after a report, when the file cannot be read or written.
bool merge_resolv_nameservers(const char *servers, std::size_t line_size);

// The same on the text of the resolver file.
void add_missing_nameservers(std::string &resolv, const char *servers, std::size_t line_size);

// The server lines of the resolver file `resolv`, less the servers of the DNS list `list` of the
// WAN that goes down, then the options line. Outside the Japan region the last server of the
// list stays.
std::string remove_dns_servers(std::string_view resolv, const char *list, bool japan);

// 1 when a line of the kernel's route table `table` (the /proc/net/route format) on interface
// `wan_ifname` covers dotted-quad `address`, else 0.
int route_table_covers(std::FILE *table, const char *wan_ifname, const char *address);
