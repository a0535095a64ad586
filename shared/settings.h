// Tests of the router's settings that several subsystems make the same way.
#pragma once

// The Japan region: `sku_name` "JP", or "WW" with `gui_region` "Japanese".
bool in_japan_region();

// `wan_proto` is one of the PPP protocols: "pppoe", "pptp" or "l2tp".
bool wan_proto_is_ppp();
