// The IPv6 subsystem arrives with the IPv6 work; until then every step reports success.
#include "ipv6/dhcp6s.h"
#include "ipv6/ipv6_wan.h"
#include "ipv6/radvd.h"
#include "ipv6/spiv6.h"
#include "ipv6/tunnels.h"

int ipv6_spi_mode(int) { return 0; }
int ipv6_spi_lan_hook(const char *) { return 0; }
int ipv6_spi_wan_hook(const char *) { return 0; }
int ipv6_drop_all_packet(int) { return 0; }
int ipv6_enable_wan_ping(int) { return 0; }
int write_radvd_conf() { return 0; }
int rdnss_from_link_local() { return 0; }
int start_dhcp6s() { return 0; }
int ipv6_wan_start(const char *, const char *, const char *, const char *, const char *,
                   const char *) {
    return 0;
}
int radvd_update_lan_prefix(const char *, const char *) { return 0; }
int get_ipv6_prefix(const char *, int, char *) { return -1; }
int start_6to4_tunnel() { return 0; }
int make_6to4_address(char *) { return -1; }
int start_6rd_tunnel() { return 0; }
int make_6rd_prefix(char *, const char *, int, uint32_t) { return -1; }
