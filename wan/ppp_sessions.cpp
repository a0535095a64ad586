// The PPP session starts arrive with the PPP-WAN work; until then they do nothing.
#include "wan/ppp_sessions.h"

void start_pppoe_session(const char *, int) {}

void start_pptp_session(const char *, int) {}

void start_l2tp_session(const char *, int) {}
