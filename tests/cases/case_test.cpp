// Runs the case files under tests/cases: each sets up the test root, runs routines through
// failover-run and checks what the router would see. The format is in tests/README.md.
#include "platform/nvram.h"
#include "tests/support/testroot.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

struct Step {
    int line;
    std::string verb, rest;
    std::vector<std::string> block;  // the "|" lines that follow
};

std::vector<Step> parse(const fs::path &file) {
    std::ifstream in(file);
    std::vector<Step> steps;
    std::string text;
    for (int n = 1; std::getline(in, text); ++n) {
        if (text.empty() || text[0] == '#') continue;
        if (text[0] == '|') {
            if (steps.empty()) throw std::runtime_error("line " + std::to_string(n) + ": block without a step");
            steps.back().block.push_back(text.size() > 1 ? text.substr(text[1] == ' ' ? 2 : 1) : "");
            continue;
        }
        size_t blank = text.find(' ');
        steps.push_back({n, text.substr(0, blank), blank == std::string::npos ? "" : text.substr(blank + 1), {}});
    }
    return steps;
}

// \n, \t, \\ and \xHH; every other character stands for itself.
std::string unescape(const std::string &s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] != '\\' || i + 1 == s.size()) { out += s[i]; continue; }
        char c = s[++i];
        if (c == 'n') out += '\n';
        else if (c == 't') out += '\t';
        else if (c == 'x' && i + 2 < s.size()) { out += char(std::stoi(s.substr(i + 1, 2), nullptr, 16)); i += 2; }
        else out += c;
    }
    return out;
}

// Words split on blanks; "..." keeps blanks; escapes as above.
std::vector<std::string> words(const std::string &s) {
    std::vector<std::string> out;
    std::string word;
    bool quoted = false, any = false;
    for (size_t i = 0; i < s.size(); ++i) {
        char c = s[i];
        if (c == '"') { quoted = !quoted; any = true; }
        else if (c == ' ' && !quoted) { if (any) out.push_back(unescape(word)); word.clear(); any = false; }
        else { word += c; any = true; if (c == '\\' && i + 1 < s.size()) word += s[++i]; }
    }
    if (any) out.push_back(unescape(word));
    return out;
}

std::string joined(const std::vector<std::string> &lines, bool eol = true) {
    std::string out;
    for (const std::string &l : lines) out += l + "\n";
    if (!eol && !out.empty()) out.pop_back();
    return out;
}

std::vector<std::string> split_lines(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) lines.push_back(l);
    return lines;
}

// The first line of `want` that is missing from `have` in order, or "" when all are there.
std::string missing_in_order(const std::vector<std::string> &want, const std::vector<std::string> &have) {
    auto at = have.begin();
    for (const std::string &w : want) {
        at = std::find(at, have.end(), w);
        if (at == have.end()) return w;
        ++at;
    }
    return "";
}

struct Outcome {
    int status = 0;
    std::string out, err, result;
    std::vector<std::string> outs;
};

Outcome run_tool(const std::vector<std::string> &args) {
    pid_t pid = fork();
    if (pid == 0) {
        std::freopen("/testlog/case.stdout", "w", stdout);
        std::freopen("/testlog/case.stderr", "w", stderr);
        std::vector<char *> argv{const_cast<char *>(FAILOVER_RUN_BINARY)};
        for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    Outcome r;
    waitpid(pid, &r.status, 0);
    for (const std::string &line : split_lines(testroot::read_file("/testlog/case.stdout"))) {
        if (line.rfind("out=", 0) == 0) r.outs.push_back(line.substr(4));
        else if (line.rfind("result=", 0) == 0) r.result = line.substr(7);
        else r.out += line + "\n";
    }
    r.err = testroot::read_file("/testlog/case.stderr");
    return r;
}

// Exit status of Debian's `checker` reading the generated file `path`, with its output.
std::pair<int, std::string> consumer_check(const std::string &checker, const std::string &path) {
    std::string command;
    if (checker == "pppd") {
        testroot::write_file("/dev/ppp", "");  // no PPP in this kernel; pppd only opens it
        bool ipv6 = testroot::read_file(path).find("+ipv6\n") != std::string::npos;
        command = "/host/usr/sbin/pppd file " + path + (ipv6 ? "" : " noipv6") + " dryrun";
    } else if (checker == "radvd") {
        command = "/host/usr/sbin/radvd --configtest -C " + path;
    } else if (checker == "vtysh") {
        command = "/host/usr/bin/vtysh -C -f " + path;
    } else {
        ADD_FAILURE() << "unknown checker " << checker;
        return {-1, ""};
    }
    int status = std::system((command + " >/tmp/check.out 2>&1").c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, testroot::read_file("/tmp/check.out")};
}

std::string file_node(const std::string &path) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) return "missing";
    char text[48];
    std::snprintf(text, sizeof text, "%s %u %u %o", S_ISCHR(st.st_mode) ? "c" : "-",
                  major(st.st_rdev), minor(st.st_rdev), st.st_mode & 07777);
    return text;
}

std::vector<std::string> joined_calls(const std::string &program) {
    std::vector<std::string> out;
    for (const auto &call : testroot::calls_of(program)) {
        std::string line;
        for (const std::string &a : call) line += (line.empty() ? "" : " ") + a;
        out.push_back(line);
    }
    return out;
}

unsigned long microseconds(const std::string &word) {
    double value = std::stod(word);
    if (word.ends_with("ms")) return value * 1000;
    if (word.ends_with("us")) return value;
    return value * 1000000;
}

void perform(const Step &s, Outcome &last) {
    const std::vector<std::string> w = words(s.rest);
    const std::string first = w.empty() ? "" : w[0];
    const std::string second = w.size() > 1 ? w[1] : "";
    if (s.verb == "store") {
        size_t eq = s.rest.find('=');
        veskNvramConfig_set(s.rest.substr(0, eq).c_str(), unescape(s.rest.substr(eq + 1)).c_str());
    } else if (s.verb == "file") {
        testroot::write_file(first, joined(s.block, second != "noeol"));
    } else if (s.verb == "remove") {
        fs::remove_all(first);
    } else if (s.verb == "mkdir") {
        fs::create_directories(first);
    } else if (s.verb == "script") {
        testroot::script(first, joined(s.block), second.empty() ? 0 : std::stoi(second));
    } else if (s.verb == "standin") {
        testroot::install_standin(first);
    } else if (s.verb == "clear") {
        testroot::clear_logs();
    } else if (s.verb == "run") {
        last = run_tool(w);
        ASSERT_FALSE(WIFSIGNALED(last.status)) << "failover-run " << s.rest << " died of signal "
                                               << WTERMSIG(last.status) << "\n" << last.err;
    } else if (s.verb == "exit") {
        EXPECT_EQ(WEXITSTATUS(last.status), std::stoi(first)) << last.err;
    } else if (s.verb == "result") {
        EXPECT_EQ(last.result, unescape(s.rest));
    } else if (s.verb == "outs") {
        EXPECT_EQ(last.outs, std::vector<std::string>(w.begin(), w.end()));
    } else if (s.verb == "stdout") {
        EXPECT_EQ(last.out, joined(s.block));
    } else if (s.verb == "stderr") {
        EXPECT_EQ(last.err, joined(s.block));
    } else if (s.verb == "stderr-lines") {
        EXPECT_EQ(missing_in_order(s.block, split_lines(last.err)), "") << "stderr:\n" << last.err;
    } else if (s.verb == "console") {
        EXPECT_EQ(missing_in_order(s.block, split_lines(testroot::read_file("/dev/console"))), "")
            << "console:\n" << testroot::read_file("/dev/console");
    } else if (s.verb == "expect-file") {
        EXPECT_TRUE(testroot::exists(first)) << first;
        EXPECT_EQ(testroot::read_file(first), joined(s.block, second != "noeol")) << first;
    } else if (s.verb == "expect-lines") {
        EXPECT_EQ(missing_in_order(s.block, split_lines(testroot::read_file(first))), "")
            << first << ":\n" << testroot::read_file(first);
    } else if (s.verb == "no-lines") {
        for (const std::string &l : split_lines(testroot::read_file(first)))
            EXPECT_TRUE(std::find(s.block.begin(), s.block.end(), l) == s.block.end()) << first << ": " << l;
    } else if (s.verb == "absent") {
        EXPECT_FALSE(testroot::exists(first)) << first;
    } else if (s.verb == "key") {
        size_t eq = s.rest.find('=');
        EXPECT_EQ(veskNvramConfig_get(s.rest.substr(0, eq).c_str()), unescape(s.rest.substr(eq + 1)))
            << s.rest.substr(0, eq);
    } else if (s.verb == "calls") {
        EXPECT_EQ(joined_calls(first), s.block) << first;
    } else if (s.verb == "commands") {
        std::vector<std::string> events = testroot::events();
        EXPECT_EQ(missing_in_order(s.block, events), "") << "ran:\n" << joined(events);
    } else if (s.verb == "no-command") {
        for (const std::string &e : testroot::events())
            EXPECT_EQ(e.find(s.rest), std::string::npos) << e;
    } else if (s.verb == "sleeps") {
        std::vector<unsigned long> want;
        for (const std::string &word : w) want.push_back(microseconds(word));
        EXPECT_EQ(testroot::sleeps_us(), want);
    } else if (s.verb == "trace") {
        EXPECT_EQ(missing_in_order(s.block, testroot::trace()), "") << "trace:\n" << joined(testroot::trace());
    } else if (s.verb == "node") {
        EXPECT_EQ(file_node(first), s.rest.substr(first.size() + 1)) << first;
    } else if (s.verb == "accepted-by" || s.verb == "rejected-by") {
        auto [status, output] = consumer_check(first, second);
        EXPECT_EQ(status == 0, s.verb == "accepted-by") << first << " " << second << ":\n" << output;
        for (const std::string &l : s.block) EXPECT_NE(output.find(l), std::string::npos) << output;
    } else if (s.verb == "routes") {
        std::system("/host/usr/bin/ip -4 route show proto static | sed 's/ *$//' >/tmp/routes.out 2>&1");
        EXPECT_EQ(testroot::read_file("/tmp/routes.out"), joined(s.block));
    } else {
        FAIL() << "unknown step \"" << s.verb << "\"";
    }
}

class Case : public testing::Test {
public:
    explicit Case(fs::path file) : file_(std::move(file)) {}
    void TestBody() override {
        testroot::reset();
        Outcome last;
        for (const Step &s : parse(file_)) {
            SCOPED_TRACE(file_.filename().string() + ":" + std::to_string(s.line) + " " + s.verb + " " + s.rest);
            perform(s, last);
            if (HasFatalFailure()) return;
        }
    }

private:
    fs::path file_;
};

}  // namespace

// case_tests FILE.case...: each file a test, named FOLDER_NAME (CTest runs one file a test).
int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    if (argc < 2) {
        std::fprintf(stderr, "usage: case_tests FILE.case...\n");
        return 2;
    }
    for (int i = 1; i < argc; ++i) {
        fs::path file = argv[i];
        std::string name = file.parent_path().filename().string() + "_" + file.stem().string();
        testing::RegisterTest("Cases", name.c_str(), nullptr, nullptr, file.c_str(), 1,
                              [file]() -> testing::Test * { return new Case(file); });
    }
    return RUN_ALL_TESTS();
}
