#include "platform/host/lte/protocol.h"

#include <cjson/cJSON.h>

#include <cstring>
#include <memory>

namespace lte {

namespace {

struct JsonDeleter {
    void operator()(cJSON *json) const { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

}  // namespace

bool request_complete(const std::string &text) {
    int depth = 0;
    bool in_string = false;
    bool escaped = false;
    for (char c : text) {
        if (in_string) {
            if (escaped)
                escaped = false;
            else if (c == '\\')
                escaped = true;
            else if (c == '"')
                in_string = false;
            continue;
        }
        if (c == '"') {
            in_string = true;
        } else if (c == '{') {
            ++depth;
        } else if (c == '}') {
            // A stray closing brace can never become a valid request: call it complete so that
            // it is answered now rather than at the read time-out.
            if (--depth <= 0) return true;
        } else if (depth == 0 && c != ' ' && c != '\t' && c != '\r' && c != '\n') {
            return true;  // not an object at all
        }
    }
    return false;
}

std::optional<int> requested_mode(const std::string &text) {
    if (text.find('\0') != std::string::npos) return std::nullopt;
    Json root(cJSON_Parse(text.c_str()));
    if (!cJSON_IsObject(root.get())) return std::nullopt;
    const cJSON *action = cJSON_GetObjectItemCaseSensitive(root.get(), "action");
    const cJSON *args = cJSON_GetObjectItemCaseSensitive(root.get(), "args");
    const cJSON *mode = cJSON_GetObjectItemCaseSensitive(args, "manual_mode");
    if (!cJSON_IsString(action) ||
        std::strcmp(action->valuestring, "set_network_connection_mode") != 0)
        return std::nullopt;
    if (!cJSON_IsObject(args) || !cJSON_IsNumber(mode)) return std::nullopt;
    if (mode->valuedouble != 0.0 && mode->valuedouble != 1.0) return std::nullopt;
    return static_cast<int>(mode->valuedouble);
}

std::string reply_text(int err, const std::string &message) {
    Json root(cJSON_CreateObject());
    cJSON *answer = cJSON_AddObjectToObject(root.get(), "set_network_connection_mode");
    cJSON_AddNumberToObject(answer, "errno", err);
    // A reason holding a NUL (never from ModemManager) is cut there.
    cJSON_AddStringToObject(answer, "errmsg", message.c_str());
    std::unique_ptr<char, decltype(&cJSON_free)> printed(cJSON_PrintUnformatted(root.get()),
                                                         cJSON_free);
    if (!printed)
        return "{\"set_network_connection_mode\":{\"errno\":12,\"errmsg\":\"out of memory\"}}";
    return printed.get();
}

}  // namespace lte
