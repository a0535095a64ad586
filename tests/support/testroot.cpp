#include "testroot.h"

#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <thread>

namespace fs = std::filesystem;

namespace testroot {
namespace {

// Record format of /testlog/events, written by /bin/sh and the stand-ins: fields each followed
// by US, the record closed by RS and a newline.
constexpr char kFieldEnd = '\037';
constexpr std::string_view kRecordEnd = "\036\n";

const char *const kEvents = "/testlog/events";
const char *const kSleeps = "/testlog/sleeps";
const char *const kScripts = "/testlog/script";
const char *const kConsole = "/dev/console";
const char *const kTrace = "/tmp/platform_trace.jsonl";
const char *const kStandin = "/testbin/standin";

// The same defaults tests/testroot/launch lays out.
std::string route_header()
{
    std::string header =
        "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT";
    header.resize(127, ' ');
    return header + "\n";
}

// Everything here deletes and overwrites files by absolute path: on the host that would be
// the host's /tmp and /etc. Refuse loudly rather than fail one test quietly.
void require_inside(const char *routine)
{
    if (!inside()) {
        std::fprintf(stderr,
                     "testroot::%s: not inside the test root (run the test through "
                     "tests/testroot/launch); refusing to touch this machine's files\n",
                     routine);
        std::abort();
    }
}

// Removes `path` but never crosses into another file system: the launcher bind-mounts the
// source and build trees at their own paths, which may lie under /tmp. Returns false when
// something could not be removed for another reason than holding such a mount.
bool remove_on_device(const fs::path &path, dev_t device, bool &holds_mount)
{
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0)
        return true;
    if (st.st_dev != device) {
        holds_mount = true;
        return true;
    }
    bool ok = true;
    bool inner_mount = false;
    if (S_ISDIR(st.st_mode)) {
        std::error_code ec;
        for (fs::directory_iterator it(path, ec), end; !ec && it != end; it.increment(ec))
            ok = remove_on_device(it->path(), device, inner_mount) && ok;
    }
    if (inner_mount) {
        holds_mount = true;
        return ok;
    }
    return ::remove(path.c_str()) == 0 && ok;
}

void empty_directory(const fs::path &dir)
{
    std::error_code ec;
    fs::create_directories(dir, ec);
    struct stat st {};
    if (stat(dir.c_str(), &st) != 0)
        return;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        bool holds_mount = false;
        if (!remove_on_device(it->path(), st.st_dev, holds_mount))
            ADD_FAILURE() << "testroot::reset: cannot remove " << it->path() << ": "
                          << std::strerror(errno);
    }
}

void truncate_file(const char *path)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out)
        ADD_FAILURE() << "testroot: cannot empty " << path;
}

// Path of the scripted output of `program` without the suffix; "" when the name cannot be a
// program's ("", "a/b", anything with "..").
std::string script_base(const std::string &program)
{
    if (program.empty() || program.find("..") != std::string::npos)
        return "";
    if (program.front() == '/')
        return kScripts + program;
    if (program.find('/') != std::string::npos)
        return "";
    return std::string(kScripts) + "/" + program;
}

std::string standin_path(const std::string &program)
{
    return program.front() == '/' ? program : "/testbin/" + program;
}

std::vector<std::vector<std::string>> records()
{
    std::vector<std::vector<std::string>> result;
    const std::string text = read_file(kEvents);
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find(kRecordEnd, start);
        if (end == std::string::npos)
            end = text.size();  // a record still being written
        std::vector<std::string> fields;
        size_t field = start;
        while (field < end) {
            size_t stop = text.find(kFieldEnd, field);
            if (stop == std::string::npos || stop > end)
                stop = end;
            fields.push_back(text.substr(field, stop - field));
            field = stop + 1;
        }
        if (!fields.empty())
            result.push_back(std::move(fields));
        start = end + kRecordEnd.size();
    }
    return result;
}

std::vector<std::string> lines_of(const std::string &path)
{
    std::vector<std::string> lines;
    std::istringstream in(read_file(path));
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// A test binary started by hand, outside the launcher, would run the code under test against
// this machine's /tmp, /etc and processes: stop before the first test.
class RootGuard : public ::testing::Environment {
public:
    void SetUp() override { require_inside("test start"); }
};

[[maybe_unused]] ::testing::Environment *const root_guard =
    ::testing::AddGlobalTestEnvironment(new RootGuard);

}  // namespace

bool inside()
{
    const char *flag = std::getenv("TESTROOT");
    std::error_code ec;
    // The root's /proc is a plain directory (at most with a link "self" into a procfs
    // elsewhere, for a sanitizer build); a real /proc is a procfs.
    struct statfs proc {};
    return flag != nullptr && std::string(flag) == "1" && fs::is_directory("/testlog", ec) &&
           statfs("/proc", &proc) == 0 && proc.f_type != PROC_SUPER_MAGIC;
}

void reset()
{
    require_inside("reset");
    empty_directory("/tmp");
    empty_directory("/var/run");
    empty_directory("/var/lib/failover");
    empty_directory("/testlog");
    empty_directory(kScripts);
    truncate_file(kEvents);
    truncate_file(kSleeps);

    // A sanitizer build's root links /proc/self to a real one (the sanitizers read it); it stays.
    std::error_code ec;
    fs::path self = fs::read_symlink("/proc/self", ec);
    empty_directory("/proc");
    if (!ec) fs::create_directory_symlink(self, "/proc/self", ec);
    write_file("/proc/wan_status", "Link Up\n");
    write_file("/proc/net/route", route_header());
    write_file("/proc/sys/net/ipv6/conf/all/forwarding", "0\n");
    truncate_file(kConsole);
}

void write_file(const std::string &path, const std::string &content)
{
    require_inside("write_file");
    std::error_code ec;
    fs::path target(path);
    if (target.has_parent_path())
        fs::create_directories(target.parent_path(), ec);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    if (!out)
        ADD_FAILURE() << "testroot::write_file: cannot write " << path;
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return "";
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

bool exists(const std::string &path)
{
    std::error_code ec;
    return fs::exists(fs::symlink_status(path, ec));
}

void script(const std::string &program, const std::string &output, int exit_status)
{
    require_inside("script");
    const std::string base = script_base(program);
    if (base.empty()) {
        ADD_FAILURE() << "testroot::script: '" << program
                      << "' is neither a program name nor an absolute path";
        return;
    }
    if (!exists(standin_path(program))) {
        ADD_FAILURE() << "testroot::script: no stand-in at " << standin_path(program)
                      << " (add it with install_standin)";
        return;
    }
    write_file(base + ".out", output);
    write_file(base + ".rc", std::to_string(exit_status & 0xff) + "\n");
}

void install_standin(const std::string &path)
{
    require_inside("install_standin");
    if (script_base(path).empty()) {
        ADD_FAILURE() << "testroot::install_standin: '" << path << "' is not a usable path";
        return;
    }
    const fs::path target = standin_path(path);
    std::error_code ec;
    fs::create_directories(target.parent_path(), ec);
    fs::remove(target, ec);
    fs::create_symlink(kStandin, target, ec);
    if (ec)
        ADD_FAILURE() << "testroot::install_standin: cannot link " << target << ": "
                      << ec.message();
}

std::vector<std::string> shell_commands()
{
    std::vector<std::string> commands;
    for (auto &record : records())
        if (record.size() == 2 && record[0] == "sh")
            commands.push_back(std::move(record[1]));
    return commands;
}

std::vector<std::vector<std::string>> calls()
{
    std::vector<std::vector<std::string>> result;
    for (auto &record : records())
        if (record.size() >= 2 && record[0] == "run")
            result.emplace_back(std::make_move_iterator(record.begin() + 1),
                                std::make_move_iterator(record.end()));
    return result;
}

std::vector<std::vector<std::string>> calls_of(const std::string &program)
{
    std::vector<std::vector<std::string>> result;
    for (auto &call : calls())
        if (call.front() == program)
            result.push_back(std::move(call));
    return result;
}

std::vector<std::string> events()
{
    std::vector<std::string> result;
    for (const auto &record : records()) {
        if (record.size() < 2)
            continue;
        std::string line = record[0] + ":";
        for (size_t i = 1; i < record.size(); ++i)
            line += " " + record[i];
        result.push_back(std::move(line));
    }
    return result;
}

std::vector<unsigned long> sleeps_us()
{
    std::vector<unsigned long> result;
    for (const auto &line : lines_of(kSleeps)) {
        char *end = nullptr;
        unsigned long value = std::strtoul(line.c_str(), &end, 10);
        if (!line.empty() && *end == '\0')
            result.push_back(value);
    }
    return result;
}

std::vector<std::string> trace()
{
    return lines_of(kTrace);
}

void clear_logs()
{
    require_inside("clear_logs");
    truncate_file(kEvents);
    truncate_file(kSleeps);
    truncate_file(kConsole);
    if (exists(kTrace))
        truncate_file(kTrace);
}

bool wait_for(const std::function<bool()> &condition, std::chrono::milliseconds deadline)
{
    const auto until = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= until)
            return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace testroot
