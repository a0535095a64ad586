/* The router's NAT library (libnat): NAT hooks per interface, firewall switches, DMZ.
 * Interface names are copied; nothing is kept beyond the call. */
#ifndef FAILOVER_PLATFORM_NAT_H
#define FAILOVER_PLATFORM_NAT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Feature bits of agApi_feature_set. */
#define NAT_FEATURE_FASTPATH 0x1u     /* the NAT fast path may be used */
#define NAT_FEATURE_LAN_ONLY 0x2u     /* NAT is applied to LAN traffic only */
#define NAT_FEATURE_NO_IQOS 0x8u      /* iQoS is not running */

/* Hands the feature bits above to the NAT engine. 0 on success. */
int agApi_feature_set(unsigned int mask);

/* Masquerades traffic leaving through WAN interface `ifname`. 0 on success. */
int agApi_natHook(const char *ifname);

/* Removes NAT from `ifname`, or from every interface when `ifname` is null. 0 on success. */
int agApi_natUnhook(const char *ifname);

/* Marks `ifname` as LAN side / undoes it. 0 on success. */
int agApi_natLanHook(const char *ifname);
int agApi_natLanUnhook(const char *ifname);

/* Hooks the physical carrier `ifname` under a tunnelled (PPTP/L2TP/PPPoE) session as WAN. */
int agApi_natPptpWanHook(const char *ifname);

/* Lets a probe through `ifname` pass while another WAN is hooked. 0 on success. */
int agApi_natProbeHook(const char *ifname);

/* Stores the number of hooked WAN interfaces in `count`. 0 on success. */
int agApi_natWanIfCnt(int *count);

/* Sets the NAT region text (for example "Japanese"). 0 on success. */
int agApi_natSetRegion(const char *region);

/* DMZ rule `index`: `enable` 1 forwards unsolicited inbound traffic to `host` (IPv4, network
 * byte order), 0 switches the rule off. Returns 1 on success. */
int agApi_fwDMZRuleSet(int index, int enable, uint32_t host);

/* `on` 1 drops unsolicited inbound traffic, 0 lets it through. 0 on success. */
int agApi_natSetInboundFilter(int on);

/* Switches forwarding and NAT on. 0 on success. */
int agApi_natEnable(void);

/* `enable` 1 lets the router itself receive `port` for service number `service`. 0 on success. */
int agApi_setDeviceListenPort(int service, int port, int enable);

/* `on` 1 answers echo requests from the WAN. Returns 1 on success. */
int agApi_fwEchoRespSet(int on);

/* Moves existing connections off WAN interfaces that are no longer hooked. 0 on success. */
int veskNat_DoConnRecovery(void);

#ifdef __cplusplus
}
#endif

#endif
