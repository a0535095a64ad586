/* The router's platform library (libvesk_shared): what the program expects of each call.
 * The vendor's closed library provides these on the router; platform/host/ provides them on
 * any Linux. Nothing here keeps a pointer it was given beyond the call. */
#ifndef FAILOVER_PLATFORM_VESK_SHARED_H
#define FAILOVER_PLATFORM_VESK_SHARED_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Programs ---------------------------------------------------------------------------- */

/* Runs argv[0] (looked up on PATH) with argv, no shell. `path` null: output inherited; else a
 * redirection such as ">/dev/console" or ">>/tmp/log". `ppid` null: waits (at most `timeout`
 * seconds when above 0) and returns the exit status; non-null: stores the child's pid there and
 * returns 0 at once. Negative when the program could not be started. */
int _eval(char *const argv[], const char *path, int timeout, int *ppid);

/* Starts argv like _eval, detached in the background, never waited for; `path` as for _eval.
 * `timeout`, `ppid` and `flags` are accepted for the vendor's signature; the program passes 0.
 * 0 when started, negative when it could not be. */
int _eval_daemon(char *const argv[], const char *path, int timeout, int *ppid, int flags);

/* ---- Text helpers ------------------------------------------------------------------------ */

/* Size of one getTokens entry. */
#define VESK_TOKEN_SIZE 128

/* Splits `text` at any character of `separators` into `tokens` (each cut to 127 characters and
 * terminated), skipping empty tokens, at most `max` of them. Returns the count. */
int getTokens(const char *text, const char *separators, char tokens[][VESK_TOKEN_SIZE], int max);

/* Writes `value` in decimal into `buf` (at least 12 bytes) and returns `buf`. */
char *itoa(int value, char *buf);

/* Parses a MAC text "xx:xx:xx:xx:xx:xx" into 6 bytes. Non-zero on success, 0 when unparsable
 * (then `mac` is left as it was). */
int ether_atoe(const char *text, unsigned char *mac);

/* Non-zero when `text` is a usable unicast IPv4 address in dotted-quad form. */
int isValidIpAddr(const char *text);

/* ---- Interfaces and routes --------------------------------------------------------------- */

/* Sets the hardware address of `ifname` to the 6 bytes at `mac`. 0, or an errno value. */
int set_eth_mac(const char *ifname, const unsigned char *mac);

/* Installs the static routes configured for `ifname`. 0, or -1 when a route failed. */
int add_routes(const char *ifname);

/* ---- Region and features ----------------------------------------------------------------- */

/* Non-zero when IPv4 and IPv6 share one PPPoE session. */
int is_single_session_pppoe(void);

/* Non-zero for the Russian region (PPPoE dual access). */
int is_ru_region(void);

/* Runs an iQoS service action such as "restart_iqos". 0 on success. */
int iqos_service(const char *action);

/* ---- OpenVPN ----------------------------------------------------------------------------- */

/* Non-zero when the OpenVPN server's LAN address settings changed and it must be restarted. */
int openvpn_set_lan_ip(void);

/* Writes /tmp/server_tap.conf, /tmp/server_tun.conf, /tmp/client1.ovpn and /tmp/client2.conf. */
int openvpn_make_config_file(void);

/* ---- IPv6 -------------------------------------------------------------------------------- */

/* Size of the interface-identifier and address output buffers below. */
#define VESK_IPV6_TEXT_SIZE 64

/* Writes the EUI-64 interface identifier of MAC text `mac` ("xxxx:xxxx:xxxx:xxxx") into `out`
 * (VESK_IPV6_TEXT_SIZE bytes) and returns `out`; "" when the MAC is unparsable. */
char *mac_addr_to_interface_id(const char *mac, char *out);

/* Writes the address made of the first `prefix_len` bits of `prefix` followed by the interface
 * identifier `ifid` into `out` (VESK_IPV6_TEXT_SIZE bytes) and returns `out`; "" when unparsable. */
char *create_ipv6_addr(const char *prefix, int prefix_len, const char *ifid, char *out);

/* One 6rd rule: the four fields the program reads. */
typedef struct ipv6rd_rule {
    int enable;             /* 1 = in use */
    char prefix[64];        /* "address/length" */
    int ipv4_mask_length;   /* leading WAN-address bits left out */
    char relay[16];         /* border relay, dotted quad */
} ipv6rd_rule_t;

/* Fills `rule` from what the WAN DHCP client learnt. 0 when filled, non-zero when none. */
int get_6rd_auto_params(ipv6rd_rule_t *rule);

/* With `rule` null: the number of configured rules. Otherwise fills rule `index` (from 1) and
 * returns 0, non-zero on failure. */
int getinst_ipv6rd_rules_shared(ipv6rd_rule_t *rule, int index);

/* ---- LAN ports and debug capture --------------------------------------------------------- */

/* Take all LAN Ethernet ports down / bring them up. 0 on success. */
int abDisableLanEthernetPort(void);
int abEnableLanEthernetPort(void);

/* Creates FIFO `fifo` and a background reader appending what it receives to `file`, bounded by
 * `size` (the library's unit). 0 on success. */
int initial_abfifo(const char *fifo, const char *file, int size);

/* Non-zero while a reader started by initial_abfifo is attached to `fifo`. */
int abfifo_is_running_or_not(const char *fifo);

/* ---- Event log --------------------------------------------------------------------------- */

/* Appends `length` bytes of `text` to the router's event log under category `code`. 0 on success. */
int zerinWriteLog(const char *text, int length, unsigned int code);

#ifdef __cplusplus
}
#endif

#endif
