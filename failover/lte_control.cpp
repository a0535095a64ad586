// The LTE control channel: one JSON request per connection to the LTE connection manager.
#include "failover/lte_control.h"

#include "failover/wan_clients.h"
#include "platform/nvram.h"
#include "services/dns.h"
#include "shared/unique_fd.h"
#include "shared/store.h"

#include <cjson/cJSON.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

namespace {

constexpr const char *kSocketPath = "/tmp/cgi-2-sys";
// A manager that never accepts or never answers must not hold the controller forever: connect
// and send give up after this long, and the whole reply must have come within it.
constexpr int kExchangeTimeoutSeconds = 5;

struct JsonDeleter {
    void operator()(cJSON *json) const { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

bool json_int(const cJSON *item, int &value) {
    if (!cJSON_IsNumber(item)) return false;
    double v = item->valuedouble;
    if (v != std::floor(v) || v < -2147483648.0 || v > 2147483647.0) return false;
    value = static_cast<int>(v);
    return true;
}

}  // namespace

int f_read_write(const char *request, char *reply, std::size_t size) {
    if (!request || !reply || size == 0) {
        std::printf("f_read_write: no request or no reply buffer\n");
        return -1;
    }
    UniqueFd sock(socket(AF_UNIX, SOCK_STREAM, 0));
    // The manager needs a moment between requests; every exchange pays it.
    usleep(500000);
    if (sock.get() < 0) {
        std::puts("can't create unix socket");
        return -1;
    }

    const timeval limit{kExchangeTimeoutSeconds, 0};
    setsockopt(sock.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);

    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", kSocketPath);
    if (connect(sock.get(), reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
        std::printf("Can't bind unix socket to %s: %s", kSocketPath, std::strerror(errno));
        return -1;
    }

    // The write side stays open: the manager knows the request's end from its content.
    const char *next = request;
    std::size_t left = std::strlen(request);
    while (left > 0) {
        ssize_t n = send(sock.get(), next, left, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            std::printf("f_read_write: write to %s failed: %s\n", kSocketPath, std::strerror(errno));
            return -1;
        }
        if (n == 0) {
            errno = ENODATA;
            return -1;
        }
        next += n;
        left -= static_cast<std::size_t>(n);
    }

    // One limit for the whole reply, so that a manager sending a byte now and then cannot
    // stretch it either.
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::seconds(kExchangeTimeoutSeconds);
    std::size_t used = 0;
    for (;;) {
        const auto remaining = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd ready{sock.get(), POLLIN, 0};
        int polled =
            remaining.count() > 0 ? poll(&ready, 1, static_cast<int>(remaining.count())) : 0;
        if (polled < 0) {
            if (errno == EINTR) continue;
            std::printf("f_read_write: wait for %s failed: %s\n", kSocketPath,
                        std::strerror(errno));
            return -1;
        }
        if (polled == 0) {
            std::printf("f_read_write: no reply from %s within %d s\n", kSocketPath,
                        kExchangeTimeoutSeconds);
            return -1;
        }
        ssize_t n = read(sock.get(), reply + used, size - used);
        if (n < 0) {
            if (errno == EINTR) continue;
            std::printf("f_read_write: read from %s failed: %s\n", kSocketPath,
                        std::strerror(errno));
            return -1;
        }
        if (n == 0) break;
        used += static_cast<std::size_t>(n);
        if (used >= size) {
            // No room left for the terminator: the reply is longer than any the manager sends.
            std::printf("f_read_write: reply from %s longer than %zu bytes, dropped\n",
                        kSocketPath, size - 1);
            return -1;
        }
    }
    reply[used] = '\0';
    errno = ENODATA;
    sock.close();
    std::printf("%s read %d (%s)\n\n", "f_read_write", 0, reply);
    return 0;
}

int connect_disconnect(int mode) {
    char request[128];
    std::snprintf(request, sizeof request,
                  "{\"action\":\"set_network_connection_mode\",\"args\":{\"manual_mode\":%d} }",
                  mode);
    char reply[kLteReplySize];
    if (f_read_write(request, reply, sizeof reply) != 0) return -1;
    return parse_lte_reply(reply, mode);
}

int parse_lte_reply(const char *reply, int mode) {
    Json root(cJSON_Parse(reply));
    if (!root) {
        std::printf("connect_disconnect: reply is not JSON\n");
        return -1;
    }
    const cJSON *answer = cJSON_GetObjectItem(root.get(), "set_network_connection_mode");
    if (!cJSON_IsObject(answer)) {
        std::printf("connect_disconnect: reply has no \"set_network_connection_mode\" object\n");
        return -1;
    }
    int err = 0;
    if (!json_int(cJSON_GetObjectItem(answer, "errno"), err)) {
        std::printf("connect_disconnect: reply has no integer \"errno\"\n");
        return -1;
    }
    const cJSON *errmsg = cJSON_GetObjectItem(answer, "errmsg");
    if (!cJSON_IsString(errmsg) || !errmsg->valuestring) {
        std::printf("connect_disconnect: reply has no string \"errmsg\"\n");
        return -1;
    }

    if (err != 0) {
        std::printf("%s:%d %s\n", "connect_disconnect", err, errmsg->valuestring);
        return err;
    }
    std::puts(mode != 0 ? "connect ok" : "disconnect ok");
    return 0;
}

void lte_connect() {
    store::set("wwan_runtime_state", "--");
    store::set("lte_start", "1");
    int ret = connect_disconnect(1);
    if (ret == 0)
        std::puts("connect apply OK!");
    else
        std::printf("connect apply fail! ret=%d\n", ret);
    for (int i = 0; i < 5; ++i) {
        sleep(3);
        if (store::match("wwan_runtime_state", "Connected")) break;
    }
}

void lte_disconnect() {
    int ret = connect_disconnect(0);
    if (ret == 0)
        std::puts("disconnect apply OK!");
    else
        std::printf("disconnect apply fail! ret=%d\n", ret);
}

void stop_lte_dhcp_client() {
    end_dhcp_client("udhcpc1", "/var/run/udhcpc1.pid");
    remove_wan_dns(store::get("wan1_ifname"));
}
