// The WAN-up sequence arrives with the WAN-services work; until then a WAN-up does nothing.
#include "services/wan_up.h"

void wan_up(const char *) {}

int start_wan_nat(int) { return 0; }

int mp_start_nat(const char *) { return 0; }

int dmz_init() { return 0; }

int second_wan_up(const char *) { return 0; }

int start_tc_qos() { return 0; }
