// The OpenVPN server: certificate working copies, the two instances (tap bridged into the LAN,
// tun routed), the client download bundle and a DNS forwarder for the VPN clients.
#include "services/openvpn.h"

#include "platform/nat.h"
#include "platform/nvram.h"
#include "platform/vesk_shared.h"
#include "shared/c_numbers.h"
#include "shared/command.h"
#include "shared/unique_fd.h"
#include "shared/store.h"

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char *kTunNameFile = "/tmp/_tundevname";

struct Certificate {
    const char *working_copy;
    const char *copy_command;
};

// In this order: a missing working copy is restored from the factory copy.
constexpr Certificate kCertificates[] = {
    {"/tmp/openvpn/ca.crt", "cp -f /usr/local/share/tarnwel_ca/ca.crt /tmp/openvpn/ca.crt"},
    {"/tmp/openvpn/client.crt",
     "cp -f /usr/local/share/tarnwel_ca/client.crt /tmp/openvpn/client.crt"},
    {"/tmp/openvpn/client.key",
     "cp -f /usr/local/share/tarnwel_ca/client.key /tmp/openvpn/client.key"},
    {"/tmp/openvpn/dh1024.pem",
     "cp -f /usr/local/share/tarnwel_ca/dh1024.pem /tmp/openvpn/dh1024.pem"},
    {"/tmp/openvpn/server.crt",
     "cp -f /usr/local/share/tarnwel_ca/server.crt /tmp/openvpn/server.crt"},
    {"/tmp/openvpn/server.key",
     "cp -f /usr/local/share/tarnwel_ca/server.key /tmp/openvpn/server.key"},
};

void restore_certificates() {
    for (const Certificate &c : kCertificates)
        if (::access(c.working_copy, F_OK) != 0) shell::run("start_openvpn", c.copy_command);
}

// dnsmasq answering the VPN clients on the tun device from the WAN's resolver file.
void start_vpn_dns_forwarder(char *tun_name) {
    char dnsmasq[] = "dnsmasq", h[] = "-h", n[] = "-n", c[] = "-c", zero[] = "0", upper_n[] = "-N",
         i[] = "-i", r[] = "-r", resolv[] = "/tmp/resolv.conf", u[] = "-u", root[] = "root";
    char *const argv[] = {dnsmasq, h, n, c, zero, upper_n, i,
                          tun_name, r, resolv, u, root, nullptr};
    _eval_daemon(argv, ">/dev/console", 0, nullptr, 0);
}

}  // namespace

int start_openvpn() {
    if (!store::match("openvpnActive", "enable")) return 0;

    // The certificates are only as good as the clock: say so, but start anyway.
    if (atoi32(store::get("ntp_is_synced")) == 0) {
        const char message[] =
            "[OPENVPN] NTP sync time failed. Get correct system time then reconnect.";
        zerinWriteLog(message, static_cast<int>(std::strlen(message)), 0x8001E);
    }

    restore_certificates();
    openvpn_make_config_file();

    agApi_setDeviceListenPort(9, atoi32(store::get("openvpn_service_port_tun")), 1);
    agApi_setDeviceListenPort(10, atoi32(store::get("openvpn_service_port")), 1);
    if (agApi_fwEchoRespSet(1) != 1)
        std::printf("%s: Error setting echo response\n", "start_openvpn");

    // Both fail harmlessly when the node is already there.
    shell::run("start_openvpn", "mkdir /dev/net");
    shell::run("start_openvpn", "mknod -m0600 /dev/net/tun c 10 200");

    if (abfifo_is_running_or_not("/tmp/openvpn_log_tap") == 0)
        initial_abfifo("/tmp/openvpn_log_tap", "/tmp/openvpn_log_tap2", 10);

    shell::run("start_openvpn", "/usr/local/sbin/openvpn /tmp/server_tap.conf &");
    shell::run("start_openvpn", "/usr/local/sbin/openvpn /tmp/server_tun.conf &");
    sleep(4);  // the tap device must exist before it joins the bridge

    shell::run("start_openvpn", "brctl addif br0 tap0");
    shell::run("start_openvpn", "ifconfig tap0 0.0.0.0 promisc up");

    shell::run("start_openvpn", "rm -rf /tmp/openvpn_zip");
    shell::run("start_openvpn", "mkdir /tmp/openvpn_zip");
    shell::run("start_openvpn",
               "cp /tmp/client1.ovpn /tmp/openvpn/ca.crt /tmp/openvpn/client.crt "
               "/tmp/openvpn/client.key /tmp/client2.conf /tmp/openvpn_zip");

    char tun_name[kTunNameSize];
    get_tun_device_name(tun_name);
    agApi_natLanHook(tun_name);
    start_vpn_dns_forwarder(tun_name);
    return 0;
}

int stop_openvpn() {
    int status = shell::run("stop_openvpn",
                            "ps | grep openvpn | grep server | cut -d ' ' -f 1 | xargs kill -9 ");
    char tun_name[kTunNameSize];
    get_tun_device_name(tun_name);
    agApi_natLanUnhook(tun_name);
    return status;  // the VPN clients' dnsmasq stays
}

void get_tun_device_name(char *out) {
    std::snprintf(out, kTunNameSize, "%s", "tun0");
    // The device name is the fifth word after the log line's 24-character time stamp.
    shell::run("get_tun_device_name",
               "cat /tmp/openvpn_log_tun | grep 'TUN/TAP device' | tail -1 | cut -b 25- | "
               "cut -d ' ' -f 5 > /tmp/_tundevname");
    UniqueFd file(::open(kTunNameFile, O_RDONLY | O_NONBLOCK));
    if (!file.is_open()) return;

    // A name longer than the buffer is cut at kTunNameSize - 1 bytes; two bytes or fewer is
    // no name (an empty line).
    char name[kTunNameSize] = {};
    ssize_t got = ::read(file.get(), name, kTunNameSize - 1);
    if (got <= 2) return;
    name[got] = '\0';
    name[std::strcspn(name, "\n")] = '\0';
    std::snprintf(out, kTunNameSize, "%s", name);
}
