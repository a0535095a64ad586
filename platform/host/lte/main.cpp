// failover-lte: the router's LTE connection manager on a Linux box with ModemManager. Serves
// "/tmp/cgi-2-sys" for the failover daemon and keeps the modem's store keys true.
//
//     failover-lte [--connect-timeout SECONDS]
//
// Runs in the foreground; lines on stderr. SIGTERM or SIGINT: disconnect and leave.
#include <glib-unix.h>
#include <glib.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/host/lte/control_socket.h"
#include "platform/host/lte/manager.h"

namespace {

constexpr const char *kSocketPath = "/tmp/cgi-2-sys";

int usage(FILE *to, int status) {
    std::fputs(
        "usage: failover-lte [--connect-timeout SECONDS]\n"
        "  Connects and disconnects the LTE modem through ModemManager on request of the\n"
        "  failover daemon (socket /tmp/cgi-2-sys). The system bus is used unless\n"
        "  DBUS_SYSTEM_BUS_ADDRESS names another. --connect-timeout (1 to 3600) overrides\n"
        "  the store key wwan_connect_timeout (default 30).\n",
        to);
    return status;
}

gboolean on_stop_signal(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop *>(loop));
    return G_SOURCE_CONTINUE;
}

}  // namespace

int main(int argc, char **argv) {
    lte::ManagerOptions options;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0) return usage(stdout, 0);
        if (std::strcmp(argv[i], "--connect-timeout") == 0 && i + 1 < argc) {
            char *end = nullptr;
            const unsigned long seconds = std::strtoul(argv[++i], &end, 10);
            if (*argv[i] == '\0' || *end != '\0' || seconds < 1 || seconds > 3600) {
                std::fprintf(stderr, "failover-lte: bad connect time-out \"%s\"\n", argv[i]);
                return 2;
            }
            options.connect_timeout_s = static_cast<unsigned>(seconds);
        } else {
            return usage(stderr, 2);
        }
    }
    signal(SIGPIPE, SIG_IGN);
    GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(SIGTERM, on_stop_signal, loop);
    g_unix_signal_add(SIGINT, on_stop_signal, loop);

    // The keys stand before the socket appears: whoever finds the socket may read them.
    lte::manager_start(options);
    if (!lte::start_listening(kSocketPath, lte::manager_request)) return 1;
    std::fprintf(stderr, "failover-lte: listening on %s\n", kSocketPath);
    g_main_loop_run(loop);

    std::fprintf(stderr, "failover-lte: stopping\n");
    lte::stop_listening();
    lte::manager_stop();
    g_main_loop_unref(loop);
    return 0;
}
