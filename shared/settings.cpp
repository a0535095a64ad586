#include "shared/settings.h"

#include "shared/store.h"

bool in_japan_region() {
    return store::match("sku_name", "JP") ||
           (store::match("sku_name", "WW") && store::match("gui_region", "Japanese"));
}

bool wan_proto_is_ppp() {
    return store::match("wan_proto", "pppoe") || store::match("wan_proto", "pptp") ||
           store::match("wan_proto", "l2tp");
}
