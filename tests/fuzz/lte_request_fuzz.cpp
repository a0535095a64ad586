// failover-lte's side of the control socket: any bytes are a request or not, never a crash; a
// mode is only ever 0 or 1; any reason survives the reply's escaping.
#include <cjson/cJSON.h>

#include "fuzz_support.h"
#include "platform/host/lte/protocol.h"

int fuzz::one(std::string_view input) {
    const std::string text(input);
    lte::request_complete(text);
    const auto mode = lte::requested_mode(text);
    if (mode) {
        fuzz::check(*mode == 0 || *mode == 1, "a mode other than 0 or 1");
        fuzz::check(text.find("set_network_connection_mode") != std::string::npos,
                    "a request without its action accepted");
    }

    // The reply carries the reason up to its first NUL, unchanged.
    const std::string reason = text.substr(0, text.find('\0'));
    const std::string reply = lte::reply_text(static_cast<int>(input.size()), reason);
    cJSON *root = cJSON_Parse(reply.c_str());
    const cJSON *answer = cJSON_GetObjectItemCaseSensitive(root, "set_network_connection_mode");
    const cJSON *errmsg = cJSON_GetObjectItemCaseSensitive(answer, "errmsg");
    fuzz::check(cJSON_IsString(errmsg) && reason == errmsg->valuestring,
                "the reason changed on its way through the reply");
    cJSON_Delete(root);
    return 0;
}
