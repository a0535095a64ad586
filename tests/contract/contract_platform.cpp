// Every function of the store and platform library contracts (platform/nvram.h,
// platform/vesk_shared.h), with an empty body; contract_nat.cpp has the NAT library's. Defined
// inside extern "C" so that a definition whose signature differs from its header's declaration
// does not compile.
#include "platform/nvram.h"
#include "platform/vesk_shared.h"

namespace {
char empty_value[] = "";
}

extern "C" {

char *veskNvramConfig_get(const char *) { return empty_value; }
int veskNvramConfig_set(const char *, const char *) { return 0; }
int veskNvramConfig_match(const char *, const char *) { return 0; }
int veskNvramConfig_invmatch(const char *, const char *) { return 0; }
int veskNvramConfig_read(const char *, char *, size_t) { return 0; }
int veskNvramConfig_save(void) { return 0; }

int _eval(char *const[], const char *, int, int *) { return 0; }
int _eval_daemon(char *const[], const char *, int, int *, int) { return 0; }
int getTokens(const char *, const char *, char[][VESK_TOKEN_SIZE], int) { return 0; }
char *itoa(int, char *buf) { return buf; }
int ether_atoe(const char *, unsigned char *) { return 0; }
int isValidIpAddr(const char *) { return 0; }
int set_eth_mac(const char *, const unsigned char *) { return 0; }
int add_routes(const char *) { return 0; }
int is_single_session_pppoe(void) { return 0; }
int is_ru_region(void) { return 0; }
int iqos_service(const char *) { return 0; }
int openvpn_set_lan_ip(void) { return 0; }
int openvpn_make_config_file(void) { return 0; }
char *mac_addr_to_interface_id(const char *, char *out) { return out; }
char *create_ipv6_addr(const char *, int, const char *, char *out) { return out; }
int get_6rd_auto_params(ipv6rd_rule_t *) { return 1; }
int getinst_ipv6rd_rules_shared(ipv6rd_rule_t *, int) { return 0; }
int abDisableLanEthernetPort(void) { return 0; }
int abEnableLanEthernetPort(void) { return 0; }
int initial_abfifo(const char *, const char *, int) { return 0; }
int abfifo_is_running_or_not(const char *) { return 0; }
int zerinWriteLog(const char *, int, unsigned int) { return 0; }

}  // extern "C"
