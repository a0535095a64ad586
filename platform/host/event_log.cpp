// The router's event log: one line per event in a text file, and the same text to syslog.
#include "platform/vesk_shared.h"

#include "platform/host/trace.h"
#include "platform/host/unique_fd.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

namespace {

constexpr const char *EVENT_LOG_DIR = "/var/log";
constexpr const char *EVENT_LOG_PATH = "/var/log/failover-events.log";

}  // namespace

int zerinWriteLog(const char *text, int length, unsigned int code) {
    size_t len = 0;
    if (text != nullptr && length > 0) len = strnlen(text, static_cast<size_t>(length));
    trace::call("zerinWriteLog",
                {trace::text(text, len), trace::number(length), trace::number(code)});
    if (text == nullptr || length < 0) {
        std::fprintf(stderr, "zerinWriteLog: no text to log\n");
        return -1;
    }

    // One event, one line: line ends inside the text become blanks.
    std::string event(text, len);
    for (char &c : event)
        if (c == '\n' || c == '\r') c = ' ';

    char stamp[32];
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    char category[32];
    std::snprintf(category, sizeof category, "[code 0x%x]", code);
    std::string line = std::string(stamp) + ' ' + category + ' ' + event + '\n';

    openlog(nullptr, LOG_NOWAIT, LOG_USER);
    syslog(LOG_NOTICE, "%s %s", category, event.c_str());

    ::mkdir(EVENT_LOG_DIR, 0755);
    host::UniqueFd fd(::open(EVENT_LOG_PATH, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
    if (!fd.valid()) {
        std::fprintf(stderr, "zerinWriteLog: %s: %s\n", EVENT_LOG_PATH, std::strerror(errno));
        return -1;
    }
    if (::write(fd.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        std::fprintf(stderr, "zerinWriteLog: %s: %s\n", EVENT_LOG_PATH, std::strerror(errno));
        return -1;
    }
    return 0;
}
