// Hostile configuration values: every key whose value reaches a shell command line, directly or
// through the options file whose script options (pty, connect, disconnect) pppd gives to a
// shell, and the PPP credentials and addresses that go into a line of a file, set to text meant
// to run a command of its own. No such command may run, no command line may carry the value,
// and each refusal is reported by the routine.
//
// Only "/bin/sh -c" lines count as carrying a value: argument vectors started through
// _eval/_eval_daemon reach their program as one argument with no shell in between, so a hostile
// text there is harmless and is not looked for.
#include "failover/ether_wan.h"
#include "shared/failover_event.h"
#include "failover/probes.h"
#include "ipv6/ipv6_wan.h"
#include "ipv6/spiv6.h"
#include "platform/nvram.h"
#include "services/dns.h"
#include "services/wan_up.h"
#include "tests/support/testroot.h"
#include "tests/unit/ppp_checks.h"
#include "wan/ppp_sessions.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

namespace {

const std::string kLong(4096, 'A');

// What each value tries; a value cut to a buffer's size may be left with "touch /tmp/INJ"
// only, so any file in /tmp whose name starts with "INJ" is proof of a command that ran.
const std::vector<std::string> kHostile = {
    ";touch /tmp/INJECTED",   "$(touch /tmp/INJECTED)", "`touch /tmp/INJECTED`",
    "a\ntouch /tmp/INJECTED", "a\ntouch\t/tmp/INJECTED", "|touch /tmp/INJECTED",
    "&& touch /tmp/INJECTED", "it's \"quoted\"",         kLong,
    "x\" connect \"touch /tmp/INJECTED",  // leaves pppd's quotes for an option of its own
};

// Which of the hostile values a key's routine must refuse (the 4 KiB value aside, which may be
// cut to something harmless).
enum class Refused {
    always,              // the value must be an address or a name
    control_characters,  // the rest is escaped or quoted, so it reaches a shell as one word
    quote_breaking,      // as above, and a double quote in a name written raw between quotes
};

struct Case {
    const char *key;
    const char *routine;  // the name its refusal carries
    std::vector<std::pair<const char *, const char *>> setup;
    std::function<void()> run;
    Refused refused = Refused::always;
    const char *report = "refused";  // what the routine's line says after its name
};

// The tables share one valid setting of every address, so only the key under test is hostile.
const std::vector<std::pair<const char *, const char *>> kBase = {
    {"wwan_wan_type", "0"}, {"wwan_failover_ping_ip", "192.0.2.9"}, {"wan_gateway", "10.0.0.1"},
    {"wan_ipaddr", "10.0.0.2"}, {"wan_netmask", "255.255.255.0"}, {"wan_ifname", "eth0"},
    {"wan1_gateway", "10.1.0.1"}, {"wan1_ifname", "rm_usb0"}, {"wan1_ipaddr", "10.1.0.2"},
    {"lan_ifname", "br0"}, {"pppoe_ifname", "ppp0"}, {"pppoe_dod", "2"}, {"pptp_dod", "2"},
    {"static_pptp_enable", "1"}, {"pptp_user_ip", "10.2.0.2"}, {"pptp_gateway", "10.2.0.1"},
    {"pptp_serv_ip", "vpn.example.net"}, {"static_l2tp_enable", "1"}, {"l2tp_dod", "2"},
    {"l2tp_user_ip", "10.3.0.2"}, {"l2tp_gateway_ip", "10.3.0.1"}, {"l2tp_serv_ip", "192.0.2.1"},
};

void probe_then(int (*step)()) {
    reset_probe_address();
    select_probe_address();
    step();
}

const std::vector<Case> &cases() {
    static const std::vector<Case> table = {
        {"wwan_failover_ping_ip", "get_ping_result", {}, [] { probe_then(get_ping_result); }},
        {"wwan_failover_ping_ip", "test_probing_route", {}, [] { probe_then(test_probing_route); }},
        {"wwan_failover_ping_ip", "del_probing_route", {}, [] { probe_then(del_probing_route); }},
        {"wwan_failover_ping_ip", "add_probing_route", {}, [] { probe_then(add_probing_route); }},
        {"wan_gateway", "add_probing_route", {}, [] { probe_then(add_probing_route); }},
        {"wan_ipaddr", "add_probing_route", {}, [] { probe_then(add_probing_route); }},
        {"pppoe_ifname", "add_probing_route", {{"wan_proto", "pppoe"}},
         [] { probe_then(add_probing_route); }},
        {"wan_gateway", "del_probing_route", {}, [] { probe_then(del_probing_route); }},
        {"wan_gateway", "wan_up", {{"wan_proto", "dhcp"}}, [] { wan_up("eth0"); }},
        {"wan_ifname", "wan_up", {{"wan_proto", "dhcp"}}, [] { wan_up("eth0"); }},
        {"wan1_gateway", "wan_up", {}, [] { wan_up("rm_usb0"); }},
        {"wan1_ifname", "wan_up", {}, [] { wan_up("rm_usb0"); }},
        {"wan_gateway", "stop_ether_wan", {{"wan_proto", "static"}}, stop_ether_wan},
        {"wan_ifname", "stop_ether_wan", {{"wan_proto", "static"}}, stop_ether_wan},
        {"wan_netmask", "stop_ether_wan", {{"wan_proto", "static"}}, stop_ether_wan,
         Refused::always, "no network route to delete"},
        {"lan_ifname", "ipv6_wan_start", {},
         [] { ipv6_wan_start("dhcp", "eth0", "2001:db8::2", "64", "2001:db8:1::", "64"); }},
        {"wan_ifname", "start_pppoe_session", {}, [] { start_pppoe_session("eth0", 0); }},
        {"pppoe_servicename", "start_pppoe_session", {}, [] { start_pppoe_session("eth0", 0); },
         Refused::control_characters},
        {"pppoe2_servicename", "start_pppoe_session", {{"sku_name", "JP"}},
         [] { start_pppoe_session("eth0", 0); }, Refused::control_characters},
        {"pppoe_username", "start_pppoe_session", {}, [] { start_pppoe_session("eth0", 0); },
         Refused::control_characters},
        {"pppoe_passwd", "start_pppoe_session", {}, [] { start_pppoe_session("eth0", 0); },
         Refused::control_characters},
        {"pptp_serv_ip", "start_pptp_session", {}, [] { start_pptp_session("eth0", 0); }},
        {"pptp_user_ip", "start_pptp_session", {}, [] { start_pptp_session("eth0", 0); }},
        {"l2tp_gateway_ip", "start_l2tp_session", {}, [] { start_l2tp_session("eth0", 0); }},
        {"l2tp_user_name", "start_l2tp_session", {}, [] { start_l2tp_session("eth0", 0); },
         Refused::quote_breaking},
        {"l2tp_serv_ip", "start_l2tp_session", {}, [] { start_l2tp_session("eth0", 0); },
         Refused::control_characters},
        {"l2tp_conn_id", "start_l2tp_session", {}, [] { start_l2tp_session("eth0", 0); },
         Refused::control_characters},
    };
    return table;
}

bool has_control_character(const std::string &value) {
    for (unsigned char c : value)
        if (c < 0x20 || c == 0x7f) return true;
    return false;
}

// Files in /tmp that only an injected command makes.
std::vector<std::string> injected_files() {
    std::vector<std::string> found;
    if (DIR *dir = opendir("/tmp")) {
        while (dirent *entry = readdir(dir))
            if (std::string(entry->d_name).rfind("INJ", 0) == 0) found.push_back(entry->d_name);
        closedir(dir);
    }
    return found;
}

// The words of a pppd options file as pppd reads them: quotes group (across lines too), a
// backslash takes the next character as it is, an unquoted blank or '#' ends a word, '#' starts
// a comment. Nothing when a quote is left open: pppd refuses such a file.
std::vector<std::string> pppd_words(const std::string &text) {
    std::vector<std::string> words;
    size_t i = 0;
    while (i < text.size()) {
        char c = text[i];
        if (c == ' ' || c == '\t' || c == '\n') {
            ++i;
        } else if (c == '#') {
            i = text.find('\n', i);
        } else {
            std::string word;
            char quote = 0;
            for (; i < text.size(); ++i) {
                c = text[i];
                if (c == '\\' && i + 1 < text.size()) {
                    word += text[++i];
                } else if (quote) {
                    if (c == quote) quote = 0;
                    else word += c;
                } else if (c == '\'' || c == '"') {
                    quote = c;
                } else if (c == ' ' || c == '\t' || c == '\n' || c == '#') {
                    break;
                } else {
                    word += c;
                }
            }
            if (quote) return {};
            words.push_back(word);
        }
    }
    return words;
}

// The commands pppd would hand to a shell: the values of its script options.
std::vector<std::string> pppd_shell_commands(const std::string &options) {
    std::vector<std::string> words = pppd_words(options);
    std::vector<std::string> commands;
    for (size_t i = 0; i + 1 < words.size(); ++i)
        if (words[i] == "pty" || words[i] == "connect" || words[i] == "disconnect")
            commands.push_back(words[++i]);
    return commands;
}

void run_shell(const std::string &command) {
    pid_t pid = fork();
    if (pid == 0) {
        int null = open("/dev/null", O_RDWR);
        dup2(null, 0);
        dup2(null, 1);
        dup2(null, 2);
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
}

class HostileValues : public testing::Test {
protected:
    void SetUp() override { testroot::reset(); }
};

TEST_F(HostileValues, EveryKeyReachingAShell_NothingInjectedAndEachRefusalReported) {
    for (const Case &c : cases()) {
        for (const std::string &value : kHostile) {
            testroot::reset();
            mkdir("/tmp/ppp", 0777);  // made by the Ethernet WAN start before a session start
            mkdir("/tmp/ppp/peers", 0777);
            for (const auto &[key, setting] : kBase) veskNvramConfig_set(key, setting);
            for (const auto &[key, setting] : c.setup) veskNvramConfig_set(key, setting);
            veskNvramConfig_set(c.key, value.c_str());
            const std::string label = std::string(c.key) + " -> " + c.routine + " with \"" +
                                      value.substr(0, 40) + "\"";

            CaptureStdout();
            CaptureStderr();
            c.run();
            const std::string output = GetCapturedStdout() + GetCapturedStderr();

            for (const std::string &line : testroot::shell_commands()) {
                EXPECT_EQ(line.find("touch"), std::string::npos) << label << ": " << line;
                EXPECT_EQ(line.find("quoted"), std::string::npos) << label << ": " << line;
                EXPECT_EQ(line.find(std::string(200, 'A')), std::string::npos) << label;
            }
            // pppd hands its script options to a shell: run them the same way.
            for (const char *options : {"/tmp/ppp/options", "/tmp/ppp/peers/options"})
                for (const std::string &command : pppd_shell_commands(testroot::read_file(options)))
                    run_shell(command);
            EXPECT_TRUE(injected_files().empty()) << label;

            const bool must_refuse =
                value != kLong &&
                (c.refused == Refused::always || has_control_character(value) ||
                 (c.refused == Refused::quote_breaking && value.find('"') != std::string::npos));
            if (must_refuse) {
                EXPECT_NE(output.find(std::string(c.routine) + ": " + c.report), std::string::npos)
                    << label << "\n" << output;
            }
        }
    }
}

// A requested local address that carries a line of its own into the options file: the
// address line is refused and left out, and Debian's pppd reads no script option from it.
TEST_F(HostileValues, PppLocalAddressWithALineOfItsOwn_LeftOutAndPppdRunsNoConnect) {
    const std::string value = "10.9.9.9:\nconnect \"touch /tmp/INJECTED\" #";
    struct Row {
        const char *key;
        const char *file;
        const char *routine;
        void (*start)(const char *, int);
    };
    for (const Row &row : {Row{"pppoe_localip", "/tmp/ppp/options", "start_pppoe_session",
                               start_pppoe_session},
                           Row{"pppoe2_localip", "/tmp/ppp/peers/options", "start_pppoe_session",
                               start_pppoe_session},
                           Row{"pptp_localip", "/tmp/ppp/options", "start_pptp_session",
                               start_pptp_session},
                           Row{"l2tp_localip", "/tmp/ppp/options", "start_l2tp_session",
                               start_l2tp_session}}) {
        testroot::reset();
        mkdir("/tmp/ppp", 0777);
        mkdir("/tmp/ppp/peers", 0777);
        for (const auto &[key, setting] : kBase) veskNvramConfig_set(key, setting);
        veskNvramConfig_set("sku_name", "JP");
        veskNvramConfig_set("wan_mtu", "1400");
        veskNvramConfig_set("pppoe_localip", "0.0.0.0");
        veskNvramConfig_set("pppoe2_localip", "0.0.0.0");
        veskNvramConfig_set(row.key, value.c_str());

        CaptureStdout();
        CaptureStderr();
        row.start("eth0", 0);
        const std::string output = GetCapturedStdout() + GetCapturedStderr();
        EXPECT_NE(output.find(std::string(row.routine) + ": refused " + row.key +
                              " \"10.9.9.9:\\nconnect \"touch /tmp/INJECTED\" #\": not an "
                              "IPv4 address\n"),
                  std::string::npos)
            << row.key << "\n" << output;
        const std::string options = testroot::read_file(row.file);
        EXPECT_NE(options.find("\nnoipdefault\n"), std::string::npos) << row.key;
        auto [status, dryrun] = ppp_checks::pppd_dryrun(row.file);
        EXPECT_EQ(status, 0) << row.key << "\n" << dryrun;
        EXPECT_EQ(dryrun.find("INJECTED"), std::string::npos) << row.key << "\n" << dryrun;
    }
}

// Files the routines read that are missing, or are directories where a file belongs (root
// reads any file, so a directory stands for an unreadable one). Each routine gives its
// fallback result, says what went wrong where the router would, and returns.
struct BrokenFile {
    const char *path;
    bool directory;
    std::function<int()> run;
    int result;
    const char *report;  // "" when the routine stays silent by design
};

TEST_F(HostileValues, MissingOrUnreadableFiles_RoutinesReportAndGoOn) {
    const auto link = [] { return static_cast<int>(get_wan_link_status()); };
    const auto routed = [] { return dns_routed_via_wan("192.0.2.53"); };
    const auto resolv = [] { return update_resolv_conf("eth0"); };
    const auto spi = [] { return ipv6_spi_lan_hook("br0"); };
    const auto event = [] { return write_failover_event('3') ? 1 : 0; };
    const auto probe = [] {
        reset_probe_address();
        select_probe_address();
        return get_ping_result();
    };
    const std::vector<BrokenFile> files = {
        {"/proc/wan_status", false, link, 0, ""},
        {"/proc/wan_status", true, link, 0, "get_wan_link_status: /proc/wan_status: Is a directory"},
        {"/proc/net/route", false, routed, 0, ""},
        {"/proc/net/route", true, routed, 0, ""},
        {"/tmp/resolv.conf", false, resolv, ENOENT, "/tmp/resolv.conf: No such file or directory"},
        {"/tmp/resolv.conf", true, resolv, EISDIR, "/tmp/resolv.conf: Is a directory"},
        {"/tmp/resolv.conf", false, [] { return remove_wan_dns("eth0"); }, ENOENT,
         "fopen /tmp/resolv.conf: No such file or directory"},
        {"/dev/spiv6", false, spi, -1, "Can't open device file: /dev/spiv6"},
        {"/dev/spiv6", true, spi, -1, "Can't open device file: /dev/spiv6"},
        // A token for a FIFO that is gone is dropped: a plain file made in its place would
        // replay it to the controller at every read.
        {"/tmp/f_fifo", false, event, 0, "Error opening fifo for appending..."},
        {"/var/lib/failover/nvram", true, probe, 0, "Is a directory"},
    };
    for (const BrokenFile &f : files) {
        testroot::reset();
        veskNvramConfig_set("wwan_failover_ping_ip", "192.0.2.9");
        testroot::script("ping", "4 packets transmitted, 4 packets received, 0% packet loss\n");
        std::remove(f.path);
        ASSERT_TRUE(!f.directory || mkdir(f.path, 0755) == 0) << f.path;
        const std::string label = std::string(f.path) + (f.directory ? " as a directory" : " missing");

        CaptureStdout();
        CaptureStderr();
        EXPECT_EQ(f.run(), f.result) << label;
        const std::string output = GetCapturedStdout() + GetCapturedStderr();
        EXPECT_NE(output.find(f.report), std::string::npos) << label << "\n" << output;
        struct stat st {};
        EXPECT_EQ(stat(f.path, &st) == 0 && S_ISDIR(st.st_mode), f.directory)
            << label << ": the routine made something in its place";
    }
}

}  // namespace
