// The OpenVPN server start, the tun device name, and the once-a-day time-sync restart.
#include "services/openvpn.h"
#include "services/timesync.h"
#include "platform/nvram.h"
#include "tests/support/testroot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;
using Lines = std::vector<std::string>;

namespace {

const std::string kTunNameCommand =
    "cat /tmp/openvpn_log_tun | grep 'TUN/TAP device' | tail -1 | cut -b 25- | "
    "cut -d ' ' -f 5 > /tmp/_tundevname";
// After the 24-character time stamp the device name is the fifth blank-separated word.
std::string tun_line(const std::string &name) {
    return "Thu Oct 12 10:00:00 2017 us=1 TUN/TAP device " + name + " opened\n";
}
std::string copy(const std::string &file) {
    return "cp -f /usr/local/share/tarnwel_ca/" + file + " /tmp/openvpn/" + file;
}
std::string call(const std::string &fn, const std::string &args) {
    return R"({"fn":")" + fn + R"(","args":[)" + args + "]}";
}
void certificates(std::initializer_list<const char *> files) {
    for (const char *f : files) testroot::write_file(std::string("/tmp/openvpn/") + f, "x");
}

class OpenVpn : public testing::Test {
protected:
    void SetUp() override {
        testroot::reset();
    }
};

TEST_F(OpenVpn, Start_NotEnabledOrCertificatesPresent_RunsNoCopy) {
    veskNvramConfig_set("openvpnActive", "Enable");
    EXPECT_EQ(start_openvpn(), 0);
    EXPECT_THAT(testroot::events(), IsEmpty());
    EXPECT_THAT(testroot::trace(), IsEmpty());
    veskNvramConfig_set("openvpnActive", "enable");
    certificates({"ca.crt", "client.crt", "client.key", "dh1024.pem", "server.crt", "server.key"});
    EXPECT_EQ(start_openvpn(), 0);
    for (const std::string &command : testroot::shell_commands())
        EXPECT_NE(command.rfind("cp -f", 0), 0u) << command;
}

TEST_F(OpenVpn, Start_TwoCertificatesMissingClockNotSynced_RunsWholeSequenceInOrder) {
    veskNvramConfig_set("openvpnActive", "enable");
    veskNvramConfig_set("openvpn_service_port_tun", "1194");
    veskNvramConfig_set("openvpn_service_port", "1195");
    certificates({"client.crt", "client.key", "dh1024.pem", "server.crt"});
    testroot::write_file("/tmp/openvpn_log_tun", tun_line("tun1"));
    EXPECT_EQ(start_openvpn(), 0);
    EXPECT_THAT(testroot::shell_commands(),
                ElementsAre(copy("ca.crt"), copy("server.key"), "mkdir /dev/net",
                            "mknod -m0600 /dev/net/tun c 10 200",
                            "/usr/local/sbin/openvpn /tmp/server_tap.conf &",
                            "/usr/local/sbin/openvpn /tmp/server_tun.conf &",
                            "brctl addif br0 tap0", "ifconfig tap0 0.0.0.0 promisc up",
                            "rm -rf /tmp/openvpn_zip", "mkdir /tmp/openvpn_zip",
                            "cp /tmp/client1.ovpn /tmp/openvpn/ca.crt /tmp/openvpn/client.crt "
                            "/tmp/openvpn/client.key /tmp/client2.conf /tmp/openvpn_zip",
                            kTunNameCommand));
    const std::string message =
        "[OPENVPN] NTP sync time failed. Get correct system time then reconnect.";
    EXPECT_THAT(testroot::trace(),
                ElementsAre(call("zerinWriteLog", "\"" + message + "\"," +
                                                      std::to_string(message.size()) + ",524318"),
                            call("openvpn_make_config_file", ""),
                            call("agApi_setDeviceListenPort", "9,1194,1"),
                            call("agApi_setDeviceListenPort", "10,1195,1"),
                            call("agApi_fwEchoRespSet", "1"),
                            call("initial_abfifo", R"("/tmp/openvpn_log_tap","/tmp/openvpn_log_tap2",10)"),
                            call("agApi_natLanHook", R"("tun1")"),
                            call("_eval_daemon", R"(["dnsmasq","-h","-n","-c","0","-N","-i","tun1",)"
                                                 R"("-r","/tmp/resolv.conf","-u","root"],)"
                                                 R"(">/dev/console",0,null,0)")));
    EXPECT_THAT(testroot::sleeps_us(), ElementsAre(4000000u));
}

TEST_F(OpenVpn, TunDeviceName_LastDeviceLineOfLogElseTun0) {
    const std::string long_name(40, 'v');
    const std::pair<std::string, std::string> cases[] = {
        {"", "tun0"},
        {tun_line("tun3") + tun_line("tun1"), "tun1"},
        {tun_line("t"), "tun0"},  // "t\n" is only two bytes
        {tun_line(long_name), long_name.substr(0, kTunNameSize - 1)},
    };
    for (const auto &[log, name] : cases) {
        testroot::reset();
        if (!log.empty()) testroot::write_file("/tmp/openvpn_log_tun", log);
        char out[kTunNameSize + 1] = {};
        out[kTunNameSize] = 'Z';
        get_tun_device_name(out);
        EXPECT_EQ(std::string(out), name);
        EXPECT_EQ(out[kTunNameSize], 'Z');
        EXPECT_THAT(testroot::shell_commands(), ElementsAre(kTunNameCommand));
    }
}

const Lines kRestart = {"killall -9 timesync", "rm -rf /var/run/timesync.pid",
                        "/usr/sbin/timesync /sbin/ntpclient &"};

class TimeSync : public OpenVpn {
protected:
    // Runs restart_timesync with first_sync made from the current second, again if the clock
    // ticked meanwhile; `now` is the second the call ran in.
    static Lines run(const std::function<std::string(uint32_t)> &first_sync, uint32_t &now) {
        for (int attempt = 0;; ++attempt) {
            testroot::clear_logs();
            now = static_cast<uint32_t>(std::time(nullptr));
            veskNvramConfig_set("first_sync", first_sync(now).c_str());
            EXPECT_EQ(restart_timesync(), 0);
            if (now == static_cast<uint32_t>(std::time(nullptr)) || attempt == 5)
                return testroot::shell_commands();
        }
    }
};

TEST_F(TimeSync, SyncedInLteMode_RestartsAtMostOncePerDay) {
    veskNvramConfig_set("ntp_is_synced", "1");
    veskNvramConfig_set("wwan_wan_type", "0");
    auto ago = [](int64_t s) { return [s](uint32_t now) { return std::to_string(now - s); }; };
    struct Case {
        const char *what;
        std::function<std::string(uint32_t)> first_sync;
        bool restarts;
    } cases[] = {
        {"an hour ago", ago(3600), false},
        {"boundary second", ago(86400), false},
        {"a day and a second ago", ago(86401), true},
        {"empty", [](uint32_t) { return std::string(); }, true},
        {"clock set back", ago(-600), true},
        // The router's 32-bit strtoul gives 4294967295 here; the low 32 bits would be "now".
        {"beyond 32 bits", [](uint32_t now) { return std::to_string((1ULL << 32) + now); }, true},
    };
    for (const Case &c : cases) {
        uint32_t now = 0;
        Lines commands = run(c.first_sync, now);
        EXPECT_EQ(commands, c.restarts ? kRestart : Lines{}) << c.what;
        EXPECT_EQ(std::string(veskNvramConfig_get("first_sync")),
                  c.restarts ? std::to_string(now) : c.first_sync(now)) << c.what;
    }
}

TEST_F(TimeSync, NotSyncedOrOtherWanMode_RestartsEveryTimeKeepingFirstSync) {
    for (auto [synced, type] : {std::pair{"0", "0"}, {"1", "2"}}) {
        veskNvramConfig_set("ntp_is_synced", synced);
        veskNvramConfig_set("wwan_wan_type", type);
        uint32_t now = 0;
        EXPECT_EQ(run([](uint32_t) { return std::string("12345"); }, now), kRestart);
        EXPECT_EQ(std::string(veskNvramConfig_get("first_sync")), "12345");
    }
}

}  // namespace
