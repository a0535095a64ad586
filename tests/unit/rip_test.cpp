// The ripd/zebra files byte for byte, the route filters, the daemons, and FRR's own parser
// (vtysh -C) on what we write.
#include "services/rip.h"
#include "platform/nvram.h"
#include "platform/vesk_shared.h"
#include "tests/support/testroot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <initializer_list>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

using Settings = std::initializer_list<std::pair<const char *, const char *>>;
const char *const kRipd = "/tmp/ripd.conf";
const std::string kHead = "redistribute kernel\nredistribute connected\nredistribute static\n";

std::string eval_daemon(const std::string &argv) {
    return R"({"fn":"_eval_daemon","args":[)" + argv + R"(,">/dev/console",0,null,0]})";
}
// The "router rip" block that opens each interface's section.
std::string section(const std::string &ifname, bool on) {
    return "interface " + ifname + (on ? "\nrouter rip\n" : "\nno router rip\n") + kHead +
           "network " + ifname + "\n";
}

class Rip : public testing::Test {
protected:
    void SetUp() override {
        if (!testroot::inside()) GTEST_SKIP() << "needs the test root";
        testroot::reset();
    }
    // LAN br0, DHCP WAN eth0, RIP on in both directions, and static routes: class C, class A,
    // class B with an octet of 1 in its mask (it counts nothing), an inactive one, class D.
    static void set_router(Settings overrides) {
        Settings base = {
            {"lan_ifname", "br0"}, {"wan_proto", "dhcp"}, {"wan_ifname", "eth0"},
            {"rip_enable", "1"}, {"rip_dir", "1"}, {"rip_version", "2"}, {"rip_multicast", "0"},
            {"lan_ipaddr", "192.168.1.1"}, {"lan_netmask", "255.255.255.0"},
            {"static_route",
             "192.168.5.0:255.255.255.0:g:1:br0:1:a 10.1.0.0:255.255.0.0:g:1:br0:1:b "
             "172.20.0.0:255.255.1.0:g:1:br0:1:c 172.16.0.0:255.240.0.0:g:1:br0:0:d "
             "224.1.0.0:255.255.0.0:g:1:br0:1:e"}};
        for (Settings s : {base, overrides})
            for (const auto &[key, value] : s) veskNvramConfig_set(key, value);
    }
    static std::vector<std::string> lines(const std::string &prefix) {
        std::vector<std::string> found;
        std::istringstream in(testroot::read_file(kRipd));
        for (std::string line; std::getline(in, line);)
            if (line.rfind(prefix, 0) == 0) found.push_back(line);
        return found;
    }
};

TEST_F(Rip, StartRip_RewritesFilesAndStartsDaemonsOnlyWhenOn) {
    const std::string v2 = "ip rip send version 2\nip rip receive version 2\nrouter rip\n";
    const std::string off = "no ip rip send version\nip rip receive version 2\nrouter rip\n";
    const struct {
        const char *what;
        Settings settings;  // an aggregate keeps each list alive; a tuple would not
        std::string file;
        bool daemons;
    } cases[] = {
        {"direction 1, LAN netmask empty",
         {{"lan_netmask", ""}, {"static_route", "192.168.5.0:255.255.255.0:g:1:br0:1:a"}},
         section("br0", true) + "interface br0\n" + v2 +
             "distribute-list privatebr0 out br0\naccess-list privatebr0 permit any\n" +
             section("eth0", true) + "interface eth0\n" + v2 +
             "distribute-list privateeth0 out eth0\naccess-list privateeth0 deny 192.168.5.0/24\n"
             "access-list privateeth0 deny 192.168.1.1/24\naccess-list privateeth0 permit any\n",
         true},
        {"direction 0, PPPoE", {{"rip_dir", "0"}, {"wan_proto", "pppoe"}},
         section("br0", false) + section("ppp0", false), true},
        {"RIP off, direction 2, multicast",
         {{"rip_enable", "0"}, {"rip_dir", "2"}, {"rip_multicast", "1"}},
         section("br0", false) + "interface br0\n" + off +
             "distribute-list privatebr0 out br0\naccess-list privatebr0 deny any\n" +
             section("eth0", false) + "interface eth0\n" + off +
             "distribute-list privateeth0 out eth0\naccess-list privateeth0 deny any\n",
         false},
    };
    for (const auto &[what, settings, file, daemons] : cases) {
        testroot::reset();
        for (const char *stale : {kRipd, "/tmp/zebra.conf", "/tmp/M.conf"})
            testroot::write_file(stale, "stale\n");
        set_router(settings);
        EXPECT_EQ(start_rip(), 0) << what;
        EXPECT_EQ(testroot::read_file(kRipd), file) << what;
        EXPECT_TRUE(testroot::exists("/tmp/zebra.conf"));
        EXPECT_EQ(testroot::read_file("/tmp/zebra.conf"), "");
        EXPECT_EQ(testroot::exists("/tmp/M.conf"), veskNvramConfig_match("rip_multicast", "1"));
        std::vector<std::string> started;
        if (daemons)
            started = {R"({"fn":"agApi_setDeviceListenPort","args":[0,520,1]})",
                       eval_daemon(R"(["zebra","-d","-f","/tmp/zebra.conf"])"),
                       eval_daemon(R"(["ripd","-d","-f","/tmp/ripd.conf"])")};
        EXPECT_EQ(testroot::trace(), started) << what;
    }
    testroot::clear_logs();
    EXPECT_EQ(stop_rip(), 0);
    EXPECT_THAT(testroot::trace(), ElementsAre(eval_daemon(R"(["killall","zebra"])"),
                                               eval_daemon(R"(["killall","ripd"])")));
}

TEST_F(Rip, Direction3WanSection_ByteForByte) {
    set_router({{"rip_dir", "3"}, {"rip_version", "1"}, {"rip_multicast", "1"},
                {"lan_netmask", "255.255.0.0"},
                {"static_route", "10.1.0.0:255.255.0.0:g:1:br0:1:b"}});
    EXPECT_EQ(write_rip_conf("eth0", 0), 0);
    EXPECT_EQ(testroot::read_file(kRipd),
              section("eth0", true) + "interface eth0\nip rip send version 1\nrouter rip\n"
              "distribute-list activeeth0 in eth0\naccess-list activeeth0 deny any\nrouter rip\n"
              "distribute-list privateeth0 out eth0\naccess-list privateeth0 deny 10.1.0.0/8\n"
              "access-list privateeth0 deny 192.168.1.1/16\naccess-list privateeth0 permit any\n");
}

// Directions 1 and 3 choose between the classless and the classful form differently.
TEST_F(Rip, WanFilter_ClassfulOrClasslessByDirectionAndVersion) {
    const std::string deny = "access-list privateeth0 deny ";
    const std::vector<std::string> classless = {deny + "192.168.5.0/24", deny + "10.1.0.0/16",
        deny + "172.20.0.0/16", deny + "224.1.0.0/16", deny + "192.168.1.1/24"};
    const std::vector<std::string> classful = {deny + "192.168.5.0/24", deny + "10.1.0.0/8",
        deny + "172.20.0.0/16", deny + "192.168.1.1/24"};
    for (auto [direction, version, expected] :
         {std::tuple{"1", "2", &classless}, {"1", "1", &classful}, {"1", "3", &classful},
          {"3", "2", &classless}, {"3", "3", &classless}, {"3", "0", &classful}}) {
        testroot::reset();
        set_router({{"rip_dir", direction}, {"rip_version", version}});
        EXPECT_EQ(write_rip_conf("eth0", 0), 0);
        EXPECT_EQ(lines(deny), *expected) << "direction " << direction << ", version " << version;
    }
}

TEST_F(Rip, NetmaskToPrefixLength_LeadingOnesOr24WhenUnparsable) {
    for (auto [netmask, length] :
         {std::pair{static_cast<const char *>(nullptr), 24}, {"", 24}, {"255.255.255", 24},
          {"mask", 24}, {"255.255.0.0", 16}, {"255.255.255.255", 32}, {"255.0.255.0", 8},
          {"0.255.255.255", 0}})
        EXPECT_EQ(netmask_to_prefix_length(netmask), length) << (netmask ? netmask : "null");
}

// A name no interface can have refuses its own section only.
TEST_F(Rip, BadValues_NoInterfaceNameLineBreaksRefusedOpenFailureGivesErrno) {
    const std::string long_name(150, 'i');
    set_router({{"rip_dir", "0"}, {"lan_ifname", long_name.c_str()}});
    testing::internal::CaptureStderr();
    EXPECT_EQ(start_rip(), 0);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("write_rip_conf: refused the interface name"));
    EXPECT_THAT(lines("interface "), ElementsAre("interface eth0"));

    testroot::reset();
    set_router({{"rip_version", "2\nrouter bgp 1"}});
    testroot::write_file("/tmp/M.conf/x", "");  // a directory where the file goes
    testing::internal::CaptureStderr();
    EXPECT_EQ(write_rip_conf("eth0", 0), EINVAL);
    set_router({{"rip_multicast", "1"},
                {"static_route", "10.1.0.0\n:255.0.0.0:g:1:x:1:a 10.2.0.0:255.0.0.0:g:1:x:1:b"}});
    EXPECT_EQ(write_rip_conf("eth0", 0), EISDIR);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("/tmp/M.conf: Is a directory"));
    veskNvramConfig_set("rip_multicast", "0");
    EXPECT_EQ(write_rip_conf("eth0", 0), 0);
    EXPECT_THAT(lines("access-list privateeth0 deny 10."),
                ElementsAre("access-list privateeth0 deny 10.2.0.0/8"));
}

// With RIP off, the lines after "no router rip" stand outside any router block, where FRR has
// no such commands (the router's ripd takes them).
TEST_F(Rip, Files_RipOnAcceptedByFrr_RipOffRejected) {
    if (!testroot::exists("/host/usr/bin/vtysh")) GTEST_SKIP() << "frr missing: tools/install-deps";
    std::string output;
    auto vtysh_check = [&output] {
        char vtysh[] = "/host/usr/bin/vtysh", c[] = "-C", f[] = "-f", file[] = "/tmp/ripd.conf";
        char *const argv[] = {vtysh, c, f, file, nullptr};
        int status = _eval(argv, ">/tmp/vtysh.out", 60, nullptr);
        output = testroot::read_file("/tmp/vtysh.out");
        return status;
    };
    for (const char *direction : {"1", "2", "3"})
        for (const char *version : {"1", "2"})
            for (const char *multicast : {"0", "1"}) {
                testroot::reset();
                set_router({{"rip_dir", direction}, {"rip_version", version},
                            {"rip_multicast", multicast}});
                ASSERT_EQ(start_rip(), 0);
                EXPECT_EQ(vtysh_check(), 0) << direction << "/" << version << "/" << multicast
                                            << "\n" << output << testroot::read_file(kRipd);
            }
    set_router({{"rip_enable", "0"}});
    ASSERT_EQ(start_rip(), 0);
    EXPECT_NE(vtysh_check(), 0);
    EXPECT_THAT(output, HasSubstr("line 3: % Unknown command[4]: redistribute kernel"));
}

}  // namespace
