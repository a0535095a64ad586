// The NAT state file. Lines, one setting each:
//
//     features 11
//     wan eth0 10.0.1.2        (address "-" when the interface had none)
//     carrier eth0 -
//     lan br0
//     gone rm_usb0 10.0.2.2
//     inbound 1
//     echo 0
//     dmz 192.168.1.50
//     listen 9 1194            (service, port)
//
// Every change locks "<state>.lock" (flock) for its read-modify-write and renames a complete
// temporary file over the state, so processes calling the library at once lose nothing and a
// reader never sees half a state.
#include "platform/host/nat_state.h"

#include "platform/host/unique_fd.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace nat {
namespace {

using host::UniqueFd;
using host::write_all;

std::string address_field(const std::string &address) { return address.empty() ? "-" : address; }

bool valid_address(const std::string &text) {
    in_addr a;
    return inet_pton(AF_INET, text.c_str(), &a) == 1;
}

// A decimal number in [low, high], nothing else on the text. 64 bits wide, so that ten digits
// neither overflow nor lose the upper half of the feature mask on a 32-bit router.
std::optional<uint64_t> number_in(const std::string &text, uint64_t low, uint64_t high) {
    if (text.empty() || text.size() > 10) return std::nullopt;
    uint64_t v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        v = v * 10 + (c - '0');
    }
    if (v < low || v > high) return std::nullopt;
    return v;
}

std::optional<Wan> parse_wan(const std::vector<std::string> &f) {
    if (f.size() != 3 || !valid_ifname(f[1].c_str())) return std::nullopt;
    if (f[2] == "-") return Wan{f[1], ""};
    if (!valid_address(f[2])) return std::nullopt;
    return Wan{f[1], f[2]};
}

void report(const char *routine, const std::string &what, int err) {
    std::fprintf(stderr, "%s: %s: %s\n", routine, what.c_str(), std::strerror(err));
}

std::optional<std::string> read_file(const char *path, int &err) {
    UniqueFd fd(::open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
        err = errno;
        if (err == ENOENT) return std::string();
        return std::nullopt;
    }
    std::string data;
    char chunk[4096];
    for (;;) {
        ssize_t n = ::read(fd.get(), chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            err = errno;
            return std::nullopt;
        }
        if (n == 0) return data;
        data.append(chunk, static_cast<size_t>(n));
    }
}

}  // namespace

std::vector<std::string> split_words(std::string_view text) {
    std::vector<std::string> words;
    constexpr std::string_view blanks = " \t\r\n\v\f";
    for (size_t at = text.find_first_not_of(blanks); at != std::string_view::npos;) {
        size_t end = text.find_first_of(blanks, at);
        words.emplace_back(text.substr(at, end == std::string_view::npos ? end : end - at));
        at = end == std::string_view::npos ? end : text.find_first_not_of(blanks, end);
    }
    return words;
}

bool valid_ifname(const char *name) {
    if (name == nullptr) return false;
    size_t n = std::strlen(name);
    if (n == 0 || n > 15) return false;
    for (size_t i = 0; i < n; ++i) {
        char c = name[i];
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '.' || c == '_' || c == '-' || c == '+';
        if (!ok) return false;
    }
    return true;
}

std::string serialise(const State &s) {
    std::string out = "features " + std::to_string(s.features) + "\n";
    for (const Wan &w : s.wans) out += "wan " + w.ifname + " " + address_field(w.address) + "\n";
    for (const Wan &w : s.carriers)
        out += "carrier " + w.ifname + " " + address_field(w.address) + "\n";
    for (const std::string &l : s.lans) out += "lan " + l + "\n";
    for (const Wan &w : s.gone) out += "gone " + w.ifname + " " + address_field(w.address) + "\n";
    out += std::string("inbound ") + (s.inbound_filter ? "1" : "0") + "\n";
    out += std::string("echo ") + (s.echo ? "1" : "0") + "\n";
    if (s.dmz != 0) {
        char text[INET_ADDRSTRLEN];
        in_addr a{s.dmz};
        out += std::string("dmz ") + inet_ntop(AF_INET, &a, text, sizeof text) + "\n";
    }
    for (const auto &[service, port] : s.listen)
        out += "listen " + std::to_string(service) + " " + std::to_string(port) + "\n";
    return out;
}

std::optional<State> parse(const std::string &text) {
    State s;
    for (size_t start = 0; start < text.size();) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        const std::vector<std::string> f =
            split_words(std::string_view(text).substr(start, end - start));
        start = end + 1;
        if (f.empty()) return std::nullopt;
        const std::string &key = f[0];
        if (key == "features" && f.size() == 2) {
            auto v = number_in(f[1], 0, 0xffffffffu);
            if (!v) return std::nullopt;
            s.features = static_cast<unsigned>(*v);
        } else if (key == "wan" || key == "carrier" || key == "gone") {
            auto w = parse_wan(f);
            if (!w) return std::nullopt;
            (key == "wan" ? s.wans : key == "carrier" ? s.carriers : s.gone).push_back(*w);
        } else if (key == "lan" && f.size() == 2 && valid_ifname(f[1].c_str())) {
            s.lans.insert(f[1]);
        } else if ((key == "inbound" || key == "echo") && f.size() == 2 &&
                   (f[1] == "0" || f[1] == "1")) {
            (key == "inbound" ? s.inbound_filter : s.echo) = f[1] == "1";
        } else if (key == "dmz" && f.size() == 2) {
            in_addr a;
            if (inet_pton(AF_INET, f[1].c_str(), &a) != 1 || a.s_addr == 0) return std::nullopt;
            s.dmz = a.s_addr;
        } else if (key == "listen" && f.size() == 3) {
            auto service = number_in(f[1], 0, 0x7fffffffu);
            auto port = number_in(f[2], 1, 65535);
            if (!service || !port) return std::nullopt;
            s.listen[static_cast<int>(*service)] = static_cast<int>(*port);
        } else {
            return std::nullopt;
        }
    }
    return s;
}

int update(const char *routine, int failure, const std::function<int(State &)> &change,
           const Apply &apply, bool always_apply) {
    const std::string path = STATE_PATH;
    const std::string lock_path = path + ".lock";
    UniqueFd lock(::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (!lock.valid()) {
        report(routine, "open " + lock_path, errno);
        return failure;
    }
    while (::flock(lock.get(), LOCK_EX) != 0) {
        if (errno == EINTR) continue;
        report(routine, "flock " + lock_path, errno);
        return failure;
    }

    int err = 0;
    std::optional<std::string> text = read_file(path.c_str(), err);
    if (!text) {
        report(routine, "read " + path, err);
        return failure;
    }
    std::optional<State> old_state = parse(*text);
    if (!old_state) {
        std::fprintf(stderr, "%s: %s: unreadable NAT state\n", routine, path.c_str());
        return failure;
    }

    State new_state = *old_state;
    int result = change(new_state);
    if (result == failure) return failure;
    if (new_state == *old_state && !always_apply) return result;
    if (new_state == *old_state) return apply(*old_state, new_state) ? result : failure;

    // The new state is written before the kernel is touched, so that a state that cannot be
    // stored never leaves the kernel ahead of the file.
    std::string temp = path + ".XXXXXX";
    UniqueFd out(::mkostemp(temp.data(), O_CLOEXEC));
    if (!out.valid()) {
        report(routine, "create " + temp, errno);
        return failure;
    }
    if (::fchmod(out.get(), 0644) != 0 || !write_all(out.get(), serialise(new_state))) {
        report(routine, "write " + temp, errno);
        ::unlink(temp.c_str());
        return failure;
    }
    out.reset();
    if (!apply(*old_state, new_state)) {
        ::unlink(temp.c_str());
        return failure;
    }
    if (::rename(temp.c_str(), path.c_str()) != 0) {
        report(routine, "rename " + temp + " to " + path, errno);
        ::unlink(temp.c_str());
        apply(new_state, *old_state);  // back to what the file still says
        return failure;
    }
    return result;
}

}  // namespace nat
