// The LTE manager's reply: any text gives 0, -1 or the reply's errno, never a crash.
#include "failover/lte_control.h"
#include "fuzz_support.h"

int fuzz::one(std::string_view input) {
    // The reply as f_read_write leaves it: at most 1023 bytes, terminated.
    if (input.size() >= kLteReplySize) return -1;
    std::string reply(input);
    int mode = input.size() % 2;
    int result = parse_lte_reply(reply.c_str(), mode);
    // cJSON looks members up without regard to case.
    if (!strcasestr(reply.c_str(), "set_network_connection_mode"))
        fuzz::check(result == -1, "a reply without the answer object counted");
    return 0;
}
