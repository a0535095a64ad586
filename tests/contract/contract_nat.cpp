// Every function of the NAT library contract (platform/nat.h), with an empty body, inside
// extern "C" for the same reason as in contract_platform.cpp.
#include "platform/nat.h"

extern "C" {

int agApi_feature_set(unsigned int) { return 0; }
int agApi_natHook(const char *) { return 0; }
int agApi_natUnhook(const char *) { return 0; }
int agApi_natLanHook(const char *) { return 0; }
int agApi_natLanUnhook(const char *) { return 0; }
int agApi_natPptpWanHook(const char *) { return 0; }
int agApi_natProbeHook(const char *) { return 0; }
int agApi_natWanIfCnt(int *) { return 0; }
int agApi_natSetRegion(const char *) { return 0; }
int agApi_fwDMZRuleSet(int, int, uint32_t) { return 1; }
int agApi_natSetInboundFilter(int) { return 0; }
int agApi_natEnable(void) { return 0; }
int agApi_setDeviceListenPort(int, int, int) { return 0; }
int agApi_fwEchoRespSet(int) { return 1; }
int veskNat_DoConnRecovery(void) { return 0; }

}  // extern "C"
