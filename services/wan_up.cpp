// The WAN-up sequence arrives with the WAN-services work; until then a WAN-up does nothing.
#include "services/wan_up.h"

void wan_up(const char *) {}

int second_wan_up(const char *) { return 0; }
