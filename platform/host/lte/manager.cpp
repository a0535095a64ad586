#include "platform/host/lte/manager.h"

#include <libmm-glib.h>
#include <signal.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "platform/host/lte/data_path.h"
#include "platform/host/lte/modem_keys.h"
#include "shared/store.h"

namespace lte {

namespace {

// Reply codes besides 0 and the socket's 22.
constexpr int kModemManagerError = EIO;  // ModemManager refused; its reason is the errmsg
constexpr int kNoModem = ENODEV;         // no usable modem; module_ready_reason is the errmsg
constexpr int kBadSetting = EINVAL;      // a store key we cannot use
constexpr int kTimedOut = ETIMEDOUT;     // the connect did not complete in time
constexpr int kCancelled = ECANCELED;    // a disconnect came first
constexpr unsigned kDefaultConnectTimeout = 30;
constexpr unsigned kBusRetrySeconds = 2;

struct Handler {
    gpointer instance;
    gulong id;
};

struct State {
    ManagerOptions options;
    GDBusConnection *bus = nullptr;
    MMManager *mm = nullptr;
    MMObject *modem = nullptr;  // the first modem, referenced
    std::vector<Handler> modem_handlers;

    Phase phase = Phase::idle;
    bool want_connected = false;  // the last request was a connect
    bool disconnected = false;    // the last request was a disconnect
    bool resume = false;          // reconnect once a returning modem is ready
    GCancellable *op = nullptr;   // the connect or disconnect under way
    Reply connect_reply;
    Reply disconnect_reply;
    guint connect_timer = 0;
    MMBearer *bearer = nullptr;
    gulong bearer_handler = 0;
    pid_t helper = -1;  // udhcpc as started, or the static lease handling
    guint bus_retry = 0;
};

State g;

void say(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void say(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    std::fputs("failover-lte: ", stderr);
    std::vfprintf(stderr, fmt, args);
    std::fputc('\n', stderr);
    va_end(args);
}

// ModemManager's own text of a D-Bus error, without GDBus's "GDBus.Error:NAME: " prefix.
std::string reason_of(GError *error) {
    if (!error) return "unknown error";
    g_dbus_error_strip_remote_error(error);
    return error->message ? error->message : "unknown error";
}

void answer(Reply &reply, int err, const std::string &message) {
    if (reply) reply->answer(err, message);
    reply.reset();
}

MMModem *modem() { return g.modem ? mm_object_peek_modem(g.modem) : nullptr; }

ModemView view() {
    ModemView v;
    gchar *owner =
        g.mm ? g_dbus_object_manager_client_get_name_owner(G_DBUS_OBJECT_MANAGER_CLIENT(g.mm))
             : nullptr;
    v.mm_running = owner != nullptr;
    g_free(owner);
    MMModem *m = modem();
    if (!v.mm_running || !m) return v;
    v.present = true;
    v.state = mm_modem_get_state(m);
    v.failed_reason = mm_modem_get_state_failed_reason(m);
    const char *sim = mm_modem_get_sim_path(m);
    v.has_sim = sim && *sim && std::strcmp(sim, "/") != 0;
    v.lock = mm_modem_get_unlock_required(m);
    return v;
}

void begin_connect();

// Every key from ModemManager's current view; called on every change it signals.
void refresh_keys() {
    const ModemView v = view();
    const Readiness ready = readiness(v);
    store::set("module_ready", ready.ready ? "1" : "0");
    store::set("module_ready_reason", ready.reason.c_str());
    store::set("wwan_runtime_state", runtime_state(v, g.phase, g.disconnected).c_str());
    store::set("wan1_ifname", kDataInterface);
    // While connected the address is the lease's (or the static bearer's), set where it is put
    // on the interface.
    if (g.phase != Phase::connected) store::set("wan1_ipaddr", "0.0.0.0");

    std::string quality, tech, operator_name;
    if (MMModem *m = modem(); m && v.present) {
        gboolean recent = FALSE;
        const guint percent = mm_modem_get_signal_quality(m, &recent);
        if (v.state >= MM_MODEM_STATE_ENABLED) quality = std::to_string(percent);
        gchar *text =
            mm_modem_access_technology_build_string_from_mask(mm_modem_get_access_technologies(m));
        if (text && std::strcmp(text, "unknown") != 0) tech = text;
        g_free(text);
        if (MMModem3gpp *gpp = mm_object_peek_modem_3gpp(g.modem)) {
            const char *name = mm_modem_3gpp_get_operator_name(gpp);
            if (name) operator_name = name;
        }
    }
    store::set("wwan_signal_quality", quality.c_str());
    store::set("wwan_access_tech", tech.c_str());
    store::set("wwan_operator", operator_name.c_str());

    if (g.resume && ready.ready && g.phase == Phase::idle && g.want_connected) {
        g.resume = false;
        say("modem back, connecting again");
        begin_connect();
    }
}

void set_last_error(const std::string &reason) { store::set("wwan_last_error", reason.c_str()); }

void drop_op() {
    if (g.op) {
        g_cancellable_cancel(g.op);
        g_object_unref(g.op);
        g.op = nullptr;
    }
}

// A fresh cancellable for the next call; the callback gets its own reference and ignores the
// result once it was cancelled.
GCancellable *new_op() {
    drop_op();
    g.op = g_cancellable_new();
    return g.op;
}

// True (and the reference dropped, and `error` freed) when the call this callback belongs to
// was abandoned.
bool abandoned(gpointer op, GError *error = nullptr) {
    auto *cancellable = static_cast<GCancellable *>(op);
    const bool gone = g_cancellable_is_cancelled(cancellable);
    g_object_unref(cancellable);
    if (gone && error) g_error_free(error);  // nobody is left to report it to
    return gone;
}

void stop_timer() {
    if (g.connect_timer) g_source_remove(g.connect_timer);
    g.connect_timer = 0;
}

void on_helper_exit(GPid pid, gint status, gpointer) {
    if (!g_spawn_check_wait_status(status, nullptr))
        say("child %d ended with status %d", static_cast<int>(pid), status);
    g_spawn_close_pid(pid);
    if (pid == g.helper) g.helper = -1;
}

void watch_helper(pid_t pid) {
    // Each watch reaps its child, also one ended by a disconnect meanwhile: no zombies.
    g.helper = pid;
    if (pid > 0) g_child_watch_add(pid, on_helper_exit, nullptr);
}

void release_bearer() {
    if (!g.bearer) return;
    if (g.bearer_handler) g_signal_handler_disconnect(g.bearer, g.bearer_handler);
    g.bearer_handler = 0;
    g_object_unref(g.bearer);
    g.bearer = nullptr;
}

// The data path goes; the bearer (if any) is forgotten. Keys follow.
void tear_down() {
    take_down(g.helper);
    g.helper = -1;
    release_bearer();
}

void connect_failed(int err, const std::string &reason) {
    say("connect failed: %s", reason.c_str());
    stop_timer();
    drop_op();
    tear_down();
    g.phase = Phase::idle;
    set_last_error(reason);
    answer(g.connect_reply, err, reason);
    refresh_keys();
}

// A connect step that ModemManager refused: its own message is the reason.
void connect_refused(GError *error) {
    const std::string reason = reason_of(error);
    g_error_free(error);
    connect_failed(kModemManagerError, reason);
}

void on_stray_disconnect(GObject *source, GAsyncResult *result, gpointer) {
    GError *error = nullptr;
    if (!mm_modem_simple_disconnect_finish(MM_MODEM_SIMPLE(source), result, &error)) {
        say("disconnect after a failed connect: %s", reason_of(error).c_str());
        g_error_free(error);
    }
}

// Asks ModemManager to drop `bearer_path` (nullptr: every bearer) and forgets the outcome.
void disconnect_quietly(const char *bearer_path) {
    if (!g.modem) return;
    if (MMModemSimple *simple = mm_object_peek_modem_simple(g.modem))
        mm_modem_simple_disconnect(simple, bearer_path, nullptr, on_stray_disconnect, nullptr);
}

void on_bearer_notify(GObject *, GParamSpec *, gpointer) {
    if (g.phase != Phase::connected || !g.bearer || mm_bearer_get_connected(g.bearer)) return;
    say("bearer disconnected by the network");
    tear_down();
    g.phase = Phase::idle;
    set_last_error("bearer disconnected");
    refresh_keys();
}

void bring_up(MMBearer *bearer) {
    const char *ifname = mm_bearer_get_interface(bearer);
    if (!ifname || std::strcmp(ifname, kDataInterface) != 0) {
        const std::string reason = std::string("bearer interface is \"") + (ifname ? ifname : "") +
                                   "\", not " + kDataInterface + " (udev rule missing?)";
        disconnect_quietly(mm_bearer_get_path(bearer));
        g_object_unref(bearer);
        connect_failed(kModemManagerError, reason);
        return;
    }
    g.bearer = bearer;
    g.bearer_handler =
        g_signal_connect(bearer, "notify::connected", G_CALLBACK(on_bearer_notify), nullptr);
    MMBearerIpConfig *ip4 = mm_bearer_peek_ipv4_config(bearer);
    const MMBearerIpMethod method =
        ip4 ? mm_bearer_ip_config_get_method(ip4) : MM_BEARER_IP_METHOD_UNKNOWN;
    pid_t helper = -1;
    if (method == MM_BEARER_IP_METHOD_STATIC) {
        StaticConfig config;
        const char *address = mm_bearer_ip_config_get_address(ip4);
        const char *gateway = mm_bearer_ip_config_get_gateway(ip4);
        config.address = address ? address : "";
        config.gateway = gateway ? gateway : "";
        config.prefix = mm_bearer_ip_config_get_prefix(ip4);
        config.mtu = mm_bearer_ip_config_get_mtu(ip4);
        if (const gchar **dns = mm_bearer_ip_config_get_dns(ip4))
            for (; *dns; ++dns) config.dns.emplace_back(*dns);
        say("connected, static %s/%u gateway %s", config.address.c_str(), config.prefix,
            config.gateway.c_str());
        helper = apply_static(config);
    } else if (method == MM_BEARER_IP_METHOD_DHCP) {
        say("connected, DHCP on %s", kDataInterface);
        helper = start_dhcp_client();
    } else {
        connect_failed(kModemManagerError,
                       std::string("bearer IPv4 method not supported: ") +
                           (method == MM_BEARER_IP_METHOD_PPP ? "ppp" : "none"));
        disconnect_quietly(nullptr);
        return;
    }
    if (helper < 0) {
        connect_failed(kModemManagerError, "data interface not configured");
        disconnect_quietly(nullptr);
        return;
    }
    watch_helper(helper);
    stop_timer();
    drop_op();
    g.phase = Phase::connected;
    set_last_error("");
    answer(g.connect_reply, 0, "");
    refresh_keys();
}

void on_connected(GObject *source, GAsyncResult *result, gpointer op) {
    GError *error = nullptr;
    MMBearer *bearer = mm_modem_simple_connect_finish(MM_MODEM_SIMPLE(source), result, &error);
    if (abandoned(op)) {
        // Timed out, cancelled by a disconnect or the modem went: whoever abandoned it has
        // answered already. A bearer that came anyway must not stay up unseen.
        if (bearer) {
            disconnect_quietly(mm_bearer_get_path(bearer));
            g_object_unref(bearer);
        }
        if (error) g_error_free(error);
        return;
    }
    if (!bearer) {
        connect_refused(error);
        return;
    }
    bring_up(bearer);
}

bool ip_family(MMBearerIpFamily &family) {
    const char *type = store::get("wwan_ip_type");
    if (!*type || std::strcmp(type, "ipv4") == 0)
        family = MM_BEARER_IP_FAMILY_IPV4;
    else if (std::strcmp(type, "ipv6") == 0)
        family = MM_BEARER_IP_FAMILY_IPV6;
    else if (std::strcmp(type, "ipv4v6") == 0)
        family = MM_BEARER_IP_FAMILY_IPV4V6;
    else
        return false;
    return true;
}

void simple_connect() {
    MMModemSimple *simple = g.modem ? mm_object_peek_modem_simple(g.modem) : nullptr;
    if (!simple) {
        connect_failed(kNoModem, "no modem");
        return;
    }
    MMBearerIpFamily family = MM_BEARER_IP_FAMILY_IPV4;
    if (!ip_family(family)) {
        connect_failed(kBadSetting, std::string("wwan_ip_type \"") + store::get("wwan_ip_type") +
                                        "\" is none of ipv4, ipv6, ipv4v6");
        return;
    }
    MMSimpleConnectProperties *props = mm_simple_connect_properties_new();
    // No APN lets the network choose.
    if (const char *apn = store::get("wwan_apn"); *apn)
        mm_simple_connect_properties_set_apn(props, apn);
    if (const char *user = store::get("wwan_username"); *user)
        mm_simple_connect_properties_set_user(props, user);
    if (const char *password = store::get("wwan_password"); *password)
        mm_simple_connect_properties_set_password(props, password);
    mm_simple_connect_properties_set_ip_type(props, family);
    mm_modem_simple_connect(simple, props, g.op, on_connected, g_object_ref(g.op));
    g_object_unref(props);
}

void on_enabled(GObject *source, GAsyncResult *result, gpointer op) {
    GError *error = nullptr;
    const bool ok = mm_modem_enable_finish(MM_MODEM(source), result, &error);
    if (abandoned(op, error)) return;
    if (!ok) {
        connect_refused(error);
        return;
    }
    simple_connect();
}

unsigned connect_timeout() {
    if (g.options.connect_timeout_s > 0) return g.options.connect_timeout_s;
    const char *text = store::get("wwan_connect_timeout");
    char *end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (*text && *end == '\0' && errno == 0 && value >= 1 && value <= 3600)
        return static_cast<unsigned>(value);
    if (*text) say("wwan_connect_timeout \"%s\" unusable, %u s", text, kDefaultConnectTimeout);
    return kDefaultConnectTimeout;
}

gboolean on_connect_timeout(gpointer seconds) {
    g.connect_timer = 0;
    const unsigned s = GPOINTER_TO_UINT(seconds);
    // ModemManager may still be connecting: ask it to stop, and keep nothing it brings.
    disconnect_quietly(nullptr);
    connect_failed(kTimedOut, "connect not completed within " + std::to_string(s) + " s");
    return G_SOURCE_REMOVE;
}

void begin_connect() {
    g.phase = Phase::connecting;
    g.disconnected = false;
    new_op();
    const unsigned seconds = connect_timeout();
    g.connect_timer = g_timeout_add_seconds(seconds, on_connect_timeout, GUINT_TO_POINTER(seconds));
    refresh_keys();
    MMModem *m = modem();
    if (mm_modem_get_state(m) < MM_MODEM_STATE_ENABLED) {
        say("enabling the modem");
        mm_modem_enable(m, g.op, on_enabled, g_object_ref(g.op));
    } else {
        simple_connect();
    }
    say("connecting");
}

void on_disconnected(GObject *source, GAsyncResult *result, gpointer op) {
    GError *error = nullptr;
    const bool ok = mm_modem_simple_disconnect_finish(MM_MODEM_SIMPLE(source), result, &error);
    if (abandoned(op, error)) return;
    g.phase = Phase::idle;
    g_clear_object(&g.op);
    if (ok) {
        say("disconnected");
        answer(g.disconnect_reply, 0, "");
    } else {
        const std::string reason = reason_of(error);
        g_error_free(error);
        say("disconnect failed: %s", reason.c_str());
        set_last_error(reason);
        answer(g.disconnect_reply, kModemManagerError, reason);
    }
    refresh_keys();
    if (g.want_connected && readiness(view()).ready) begin_connect();
}

void request_connect(Reply reply) {
    g.want_connected = true;
    g.resume = false;
    if (g.phase == Phase::connected || g.phase == Phase::connecting) {
        reply->answer(0, "");  // connected, or already on its way
        return;
    }
    if (g.phase == Phase::disconnecting) {
        // Starts when the disconnect is through; its outcome shows in the keys.
        reply->answer(0, "");
        return;
    }
    const Readiness ready = readiness(view());
    if (!ready.ready) {
        set_last_error(ready.reason);
        reply->answer(kNoModem, ready.reason);
        return;
    }
    g.connect_reply = std::move(reply);
    begin_connect();
}

void request_disconnect(Reply reply) {
    g.want_connected = false;
    g.resume = false;
    g.disconnected = true;
    if (g.phase == Phase::disconnecting) {
        reply->answer(0, "");
        return;
    }
    const bool had_connection = g.phase != Phase::idle;
    const std::string bearer_path = g.bearer ? mm_bearer_get_path(g.bearer) : "";
    if (g.phase == Phase::connecting) {
        stop_timer();
        answer(g.connect_reply, kCancelled, "connect cancelled by a disconnect");
    }
    tear_down();
    MMModemSimple *simple = g.modem ? mm_object_peek_modem_simple(g.modem) : nullptr;
    if (!had_connection || !simple) {
        drop_op();
        g.phase = Phase::idle;
        reply->answer(0, "");
        refresh_keys();
        return;
    }
    g.phase = Phase::disconnecting;
    g.disconnect_reply = std::move(reply);
    new_op();
    refresh_keys();
    // A connect still under way has no bearer of ours yet: all bearers go.
    mm_modem_simple_disconnect(simple, bearer_path.empty() ? nullptr : bearer_path.c_str(), g.op,
                               on_disconnected, g_object_ref(g.op));
}

// --- Following ModemManager ---

void on_modem_changed() { refresh_keys(); }
void on_notify(GObject *, GParamSpec *, gpointer) { on_modem_changed(); }
void on_state_changed(MMModem *, gint, gint, guint, gpointer) { on_modem_changed(); }

void unhook_modem() {
    for (const Handler &h : g.modem_handlers) g_signal_handler_disconnect(h.instance, h.id);
    g.modem_handlers.clear();
}

void hook_modem() {
    unhook_modem();
    if (MMModem *m = modem()) {
        g.modem_handlers.push_back(
            {m, g_signal_connect(m, "notify", G_CALLBACK(on_notify), nullptr)});
        g.modem_handlers.push_back(
            {m, g_signal_connect(m, "state-changed", G_CALLBACK(on_state_changed), nullptr)});
    }
    if (MMModem3gpp *gpp = mm_object_peek_modem_3gpp(g.modem))
        g.modem_handlers.push_back(
            {gpp, g_signal_connect(gpp, "notify", G_CALLBACK(on_notify), nullptr)});
}

void on_interfaces_changed(GDBusObject *, GDBusInterface *, gpointer) {
    hook_modem();
    refresh_keys();
}

// The modem is gone (unplugged, or ModemManager went away): whatever was under way ends.
void lose_modem() {
    if (!g.modem) return;
    say("modem %s gone", g_dbus_object_get_object_path(G_DBUS_OBJECT(g.modem)));
    unhook_modem();
    g_signal_handlers_disconnect_by_func(g.modem, reinterpret_cast<gpointer>(on_interfaces_changed),
                                         nullptr);
    g_clear_object(&g.modem);
    if (g.phase != Phase::idle) {
        stop_timer();
        drop_op();
        tear_down();
        if (g.phase != Phase::disconnecting) set_last_error("no modem");
        answer(g.connect_reply, kNoModem, "no modem");
        answer(g.disconnect_reply, 0, "");
        g.phase = Phase::idle;
    }
    // A connection the router asked for comes back with the modem.
    g.resume = g.want_connected;
}

void adopt_modem(GDBusObject *object) {
    if (g.modem || !MM_IS_OBJECT(object) || !mm_object_peek_modem(MM_OBJECT(object))) return;
    g.modem = MM_OBJECT(g_object_ref(object));
    say("modem %s", g_dbus_object_get_object_path(object));
    g_signal_connect(g.modem, "interface-added", G_CALLBACK(on_interfaces_changed), nullptr);
    g_signal_connect(g.modem, "interface-removed", G_CALLBACK(on_interfaces_changed), nullptr);
    hook_modem();
}

void adopt_first_modem() {
    if (!g.mm) return;
    GList *objects = g_dbus_object_manager_get_objects(G_DBUS_OBJECT_MANAGER(g.mm));
    for (GList *l = objects; l && !g.modem; l = l->next) adopt_modem(G_DBUS_OBJECT(l->data));
    g_list_free_full(objects, g_object_unref);
}

void on_object_added(GDBusObjectManager *, GDBusObject *object, gpointer) {
    adopt_modem(object);
    refresh_keys();
}

void on_object_removed(GDBusObjectManager *, GDBusObject *object, gpointer) {
    if (g.modem && G_DBUS_OBJECT(g.modem) == object) {
        lose_modem();
        adopt_first_modem();
    }
    refresh_keys();
}

void on_name_owner(GObject *, GParamSpec *, gpointer) {
    gchar *owner = g_dbus_object_manager_client_get_name_owner(G_DBUS_OBJECT_MANAGER_CLIENT(g.mm));
    say(owner ? "ModemManager on the bus" : "ModemManager left the bus");
    if (!owner) lose_modem();
    g_free(owner);
    adopt_first_modem();
    refresh_keys();
}

void connect_bus();

gboolean on_bus_retry(gpointer) {
    g.bus_retry = 0;
    connect_bus();
    return G_SOURCE_REMOVE;
}

void drop_bus() {
    lose_modem();
    if (g.mm) {
        g_signal_handlers_disconnect_matched(g.mm, G_SIGNAL_MATCH_DATA, 0, 0, nullptr, nullptr, &g);
        g_clear_object(&g.mm);
    }
    if (g.bus) {
        g_signal_handlers_disconnect_matched(g.bus, G_SIGNAL_MATCH_DATA, 0, 0, nullptr, nullptr,
                                             &g);
        g_clear_object(&g.bus);
    }
}

void on_bus_closed(GDBusConnection *, gboolean, GError *, gpointer) {
    say("system bus connection lost");
    drop_bus();
    refresh_keys();
    if (!g.bus_retry) g.bus_retry = g_timeout_add_seconds(kBusRetrySeconds, on_bus_retry, nullptr);
}

void connect_bus() {
    GError *error = nullptr;
    g.bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (g.bus) {
        g_dbus_connection_set_exit_on_close(g.bus, FALSE);
        g_signal_connect(g.bus, "closed", G_CALLBACK(on_bus_closed), &g);
        g.mm = mm_manager_new_sync(g.bus, G_DBUS_OBJECT_MANAGER_CLIENT_FLAGS_DO_NOT_AUTO_START,
                                   nullptr, &error);
    }
    if (!g.mm) {
        say("ModemManager not reachable: %s", reason_of(error).c_str());
        if (error) g_error_free(error);
        drop_bus();
        refresh_keys();
        if (!g.bus_retry)
            g.bus_retry = g_timeout_add_seconds(kBusRetrySeconds, on_bus_retry, nullptr);
        return;
    }
    g_signal_connect(g.mm, "notify::name-owner", G_CALLBACK(on_name_owner), &g);
    g_signal_connect(g.mm, "object-added", G_CALLBACK(on_object_added), &g);
    g_signal_connect(g.mm, "object-removed", G_CALLBACK(on_object_removed), &g);
    adopt_first_modem();
    refresh_keys();
}

gboolean quit_loop(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop *>(loop));
    return G_SOURCE_REMOVE;
}

}  // namespace

void manager_start(const ManagerOptions &options) {
    g.options = options;
    store::set("wwan_last_error", "");
    connect_bus();
}

void manager_request(int mode, Reply reply) {
    say("%s requested", mode ? "connect" : "disconnect");
    if (mode)
        request_connect(std::move(reply));
    else
        request_disconnect(std::move(reply));
}

void manager_stop() {
    g.want_connected = false;
    if (g.phase != Phase::idle) {
        // Ours to take down; ModemManager gets up to 3 s to disconnect the bearer.
        struct Done : PendingReply {
            GMainLoop *loop;
            bool done = false;
            explicit Done(GMainLoop *l) : loop(l) {}
            void answer(int, const std::string &) override {
                done = true;
                g_main_loop_quit(loop);
            }
            bool answered() const override { return done; }
        };
        GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
        auto done = std::make_shared<Done>(loop);
        request_disconnect(done);
        if (!done->done) {
            GSource *limit = g_timeout_source_new_seconds(3);
            g_source_set_callback(limit, quit_loop, loop, nullptr);
            g_source_attach(limit, nullptr);
            g_main_loop_run(loop);
            g_source_destroy(limit);
            g_source_unref(limit);
        }
        g_main_loop_unref(loop);
    }
    stop_timer();
    drop_op();
    tear_down();
    store::set("wwan_runtime_state", "Disconnected");
    store::set("wan1_ipaddr", "0.0.0.0");
}

}  // namespace lte
