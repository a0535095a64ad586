// The NAT library on the host: every call is traced and reports success; nothing is changed in
// the kernel yet. The WAN interfaces hooked so far are remembered per process, so that
// agApi_natWanIfCnt answers as the engine would.
#include "platform/nat.h"

#include "platform/host/trace.h"

#include <cstdio>
#include <set>
#include <string>

namespace {

// Names hooked with agApi_natHook and not unhooked since, in this process.
std::set<std::string> &hooked_wans() {
    static std::set<std::string> names;
    return names;
}

bool named(const char *routine, const char *ifname) {
    if (ifname != nullptr && *ifname != '\0') return true;
    std::fprintf(stderr, "%s: no interface name\n", routine);
    return false;
}

}  // namespace

int agApi_feature_set(unsigned int mask) {
    trace::call("agApi_feature_set", {trace::number(mask)});
    return 0;
}

int agApi_natHook(const char *ifname) {
    trace::call("agApi_natHook", {trace::text(ifname)});
    if (!named("agApi_natHook", ifname)) return -1;
    hooked_wans().insert(ifname);
    return 0;
}

int agApi_natUnhook(const char *ifname) {
    trace::call("agApi_natUnhook", {trace::text(ifname)});
    if (ifname == nullptr) hooked_wans().clear();
    else hooked_wans().erase(ifname);
    return 0;
}

int agApi_natLanHook(const char *ifname) {
    trace::call("agApi_natLanHook", {trace::text(ifname)});
    return named("agApi_natLanHook", ifname) ? 0 : -1;
}

int agApi_natLanUnhook(const char *ifname) {
    trace::call("agApi_natLanUnhook", {trace::text(ifname)});
    return named("agApi_natLanUnhook", ifname) ? 0 : -1;
}

int agApi_natPptpWanHook(const char *ifname) {
    trace::call("agApi_natPptpWanHook", {trace::text(ifname)});
    return named("agApi_natPptpWanHook", ifname) ? 0 : -1;
}

int agApi_natProbeHook(const char *ifname) {
    trace::call("agApi_natProbeHook", {trace::text(ifname)});
    return named("agApi_natProbeHook", ifname) ? 0 : -1;
}

int agApi_natWanIfCnt(int *count) {
    trace::call("agApi_natWanIfCnt", {trace::out_ptr(count, "count")});
    if (count == nullptr) return -1;
    *count = static_cast<int>(hooked_wans().size());
    return 0;
}

int agApi_natSetRegion(const char *region) {
    trace::call("agApi_natSetRegion", {trace::text(region)});
    return region != nullptr ? 0 : -1;
}

int agApi_fwDMZRuleSet(int index, int enable, uint32_t host) {
    trace::call("agApi_fwDMZRuleSet",
                {trace::number(index), trace::number(enable), trace::ipv4(host)});
    return 1;
}

int agApi_natSetInboundFilter(int on) {
    trace::call("agApi_natSetInboundFilter", {trace::number(on)});
    return 0;
}

int agApi_natEnable(void) {
    trace::call("agApi_natEnable", {});
    return 0;
}

int agApi_setDeviceListenPort(int service, int port, int enable) {
    trace::call("agApi_setDeviceListenPort",
                {trace::number(service), trace::number(port), trace::number(enable)});
    return 0;
}

int agApi_fwEchoRespSet(int on) {
    trace::call("agApi_fwEchoRespSet", {trace::number(on)});
    return 1;
}

int veskNat_DoConnRecovery(void) {
    trace::call("veskNat_DoConnRecovery", {});
    return 0;
}
