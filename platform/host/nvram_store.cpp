// The configuration store on any Linux: one file shared by every process of the router.
//
// File format: each key and each value is followed by a NUL byte ("key\0value\0key\0value\0"),
// so values may hold any byte but NUL (blanks, "=", newlines) and be of any length.
//
// Writers serialise their read-modify-write with flock on "<store>.lock" and replace the store
// by renaming a complete temporary file over it: a reader sees the old or the new store, never a
// mix, and two processes setting different keys at once both keep their change.
//
// Readers cache the parsed store and re-read it only when the file at the path is no longer the
// one they read (device, inode, size, modification time). The file that was read stays open, so
// its inode cannot be handed to a later replacement while the cache relies on it.
#include "platform/host/nvram_store.h"
#include "platform/host/unique_fd.h"
#include "platform/nvram.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>

namespace {

constexpr const char *default_path = "/var/lib/failover/nvram";

using Fd = host::UniqueFd;
using host::write_all;

struct Entry {
    std::string value;
    // The interned copy handed out by veskNvramConfig_get; found at the first get after loading.
    const std::string *interned = nullptr;
};

using Values = std::map<std::string, Entry, std::less<>>;

struct Store {
    std::mutex lock;
    std::string path;            // the store `values` belong to
    Fd file;                     // the file `values` were read from or written to
    struct stat file_stat {};    // its identity
    Values values;
    int reported_errno = 0;      // last read failure reported by a get, so a loop prints it once
    // Every value text veskNvramConfig_get has returned. Never shrinks: a returned pointer stays
    // valid and unchanged for the life of the process, and equal texts share one copy, so memory
    // grows only with the number of distinct values ever read.
    std::unordered_set<std::string> interned;
};

Store &store() {
    // Never destroyed, so that pointers from veskNvramConfig_get outlive static destructors.
    static Store *const instance = new Store;
    return *instance;
}

const char *current_path() {
    const char *env = std::getenv("NVRAM_FILE");
    return env && *env ? env : default_path;
}

void report(const char *routine, const std::string &what, int err) {
    std::fprintf(stderr, "%s: %s: %s\n", routine, what.c_str(), std::strerror(err));
}

void forget(Store &s) {
    s.file.reset();
    s.file_stat = {};
    s.values.clear();
}

bool same_file(const struct stat &a, const struct stat &b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

// Pairs of a store file. A piece after the last complete pair, empty keys and keys holding "="
// cannot come from a writer of ours and are skipped; a later duplicate wins.
Values parse(std::string_view data) {
    Values values;
    while (!data.empty()) {
        size_t key_end = data.find('\0');
        if (key_end == std::string_view::npos) break;
        size_t value_end = data.find('\0', key_end + 1);
        if (value_end == std::string_view::npos) break;
        std::string_view key = data.substr(0, key_end);
        std::string_view value = data.substr(key_end + 1, value_end - key_end - 1);
        if (!key.empty() && key.find('=') == std::string_view::npos)
            // Our writers store keys sorted, so the end is the right place almost always.
            values.insert_or_assign(values.end(), std::string(key), Entry{std::string(value)});
        data.remove_prefix(value_end + 1);
    }
    return values;
}

std::string serialise(const Values &values) {
    size_t size = 0;
    for (const auto &[key, entry] : values) size += key.size() + entry.value.size() + 2;
    std::string data;
    data.reserve(size);
    for (const auto &[key, entry] : values) {
        data += key;
        data += '\0';
        data += entry.value;
        data += '\0';
    }
    return data;
}

std::optional<std::string> read_all(int fd, size_t size_hint) {
    std::string data;
    data.reserve(size_hint);
    char chunk[65536];
    for (;;) {
        ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return std::nullopt;
        if (n == 0) return data;
        data.append(chunk, static_cast<size_t>(n));
    }
}

std::string parent_dir(const std::string &path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

bool make_dirs(const std::string &dir, const char *routine) {
    for (size_t pos = 1; pos <= dir.size(); ++pos) {
        if (pos < dir.size() && dir[pos] != '/') continue;
        std::string prefix = dir.substr(0, pos);
        if (::mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) {
            report(routine, "mkdir " + prefix, errno);
            return false;
        }
    }
    return true;
}

// How refresh reports a store it cannot read: readers that run in loops report a failure once.
enum class Report { always, once, never };

// Brings `s` up to date with the store file. False when the file exists but cannot be read;
// the cache is then empty. A missing file is an empty store.
bool refresh(Store &s, const char *routine, Report mode) {
    const char *path = current_path();
    if (s.path != path) {
        s.path = path;
        forget(s);
    }

    auto failed = [&](const char *what, int err) {
        forget(s);
        if (mode == Report::always || (mode == Report::once && err != s.reported_errno))
            report(routine, std::string(what) + " " + s.path, err);
        if (mode == Report::once) s.reported_errno = err;
        return false;
    };

    struct stat st;
    if (::stat(path, &st) != 0) {
        if (errno != ENOENT) return failed("stat", errno);
        forget(s);
        s.reported_errno = 0;
        return true;
    }
    if (s.file.valid() && same_file(st, s.file_stat)) return true;

    Fd file(::open(path, O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
        if (errno != ENOENT) return failed("open", errno);
        forget(s);  // replaced and removed between stat and open: empty
        return true;
    }
    if (::fstat(file.get(), &st) != 0) return failed("fstat", errno);
    std::optional<std::string> data = read_all(file.get(), static_cast<size_t>(st.st_size));
    if (!data) return failed("read", errno);

    s.values = parse(*data);
    s.file = std::move(file);
    s.file_stat = st;
    s.reported_errno = 0;
    return true;
}

// Writes `s.values` to a temporary file beside the store and renames it over the store.
// The caller holds the store's lock file. On failure the cache is dropped, as it no longer
// matches the file.
int replace(Store &s, const char *routine) {
    std::string data = serialise(s.values);
    std::string temp = s.path + ".XXXXXX";
    Fd out(::mkostemp(temp.data(), O_CLOEXEC));
    if (!out.valid()) {
        report(routine, "create " + temp, errno);
        forget(s);
        return -1;
    }
    auto failed = [&](const char *what, int err) {
        report(routine, std::string(what) + " " + temp, err);
        ::unlink(temp.c_str());
        forget(s);
        return -1;
    };
    struct stat st;
    if (::fchmod(out.get(), 0644) != 0) return failed("chmod", errno);
    if (!write_all(out.get(), data)) return failed("write", errno);
    if (::fstat(out.get(), &st) != 0) return failed("fstat", errno);
    if (::rename(temp.c_str(), s.path.c_str()) != 0) {
        int err = errno;
        report(routine, "rename " + temp + " to " + s.path, err);
        ::unlink(temp.c_str());
        forget(s);
        return -1;
    }
    s.file = std::move(out);
    s.file_stat = st;
    return 0;
}

// Runs `change` on an up-to-date store while holding the store's lock file, so that no other
// process writes between our read and our replacement.
int locked(const char *routine, const std::function<int(Store &)> &change) {
    Store &s = store();
    std::lock_guard guard(s.lock);
    std::string path = current_path();
    if (!make_dirs(parent_dir(path), routine)) return -1;

    std::string lock_path = path + ".lock";
    Fd lock(::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (!lock.valid()) {
        report(routine, "open " + lock_path, errno);
        return -1;
    }
    while (::flock(lock.get(), LOCK_EX) != 0) {
        if (errno == EINTR) continue;
        report(routine, "flock " + lock_path, errno);
        return -1;
    }
    // A store we cannot read is never overwritten: the keys in it would be lost.
    if (!refresh(s, routine, Report::always)) return -1;
    return change(s);
}

}  // namespace

std::string nvram_store_path() { return current_path(); }

bool nvram_store_valid_key(const char *key) {
    return key && *key && !std::strchr(key, '=');
}

extern "C" char *veskNvramConfig_get(const char *name) {
    static char empty[] = "";
    if (!name) return empty;
    Store &s = store();
    std::lock_guard guard(s.lock);
    refresh(s, "veskNvramConfig_get", Report::once);
    auto it = s.values.find(std::string_view(name));
    if (it == s.values.end()) return empty;
    Entry &entry = it->second;
    if (!entry.interned) entry.interned = &*s.interned.insert(entry.value).first;
    return const_cast<char *>(entry.interned->c_str());
}

extern "C" int veskNvramConfig_set(const char *name, const char *value) {
    const char *routine = "veskNvramConfig_set";
    if (!nvram_store_valid_key(name)) {
        std::fprintf(stderr, "%s: invalid key (null, empty or holding \"=\")\n", routine);
        return -1;
    }
    if (!value) {
        std::fprintf(stderr, "%s: null value\n", routine);
        return -1;
    }
    // The monitor sets its flags at every tick, mostly to the value they hold. When the current
    // store already holds it, skipping the write is the same as writing just before whichever
    // writer comes next, so no lock is needed.
    {
        Store &s = store();
        std::lock_guard guard(s.lock);
        if (refresh(s, routine, Report::never)) {
            auto it = s.values.find(std::string_view(name));
            if (it != s.values.end() && it->second.value == value) return 0;
        }
    }
    return locked(routine, [&](Store &s) {
        auto it = s.values.find(std::string_view(name));
        if (it != s.values.end() && it->second.value == value) return 0;
        s.values.insert_or_assign(std::string(name), Entry{value});
        return replace(s, routine);
    });
}

extern "C" int veskNvramConfig_match(const char *name, const char *match) {
    if (!match) return 0;
    if (!name) return *match == '\0';
    Store &s = store();
    std::lock_guard guard(s.lock);
    refresh(s, "veskNvramConfig_match", Report::once);
    auto it = s.values.find(std::string_view(name));
    return it == s.values.end() ? *match == '\0' : it->second.value == match;
}

extern "C" int veskNvramConfig_invmatch(const char *name, const char *invmatch) {
    return !veskNvramConfig_match(name, invmatch);
}

extern "C" int veskNvramConfig_read(const char *name, char *buf, size_t size) {
    if (!buf || size == 0) return -1;
    buf[0] = '\0';
    if (!name) return 0;
    Store &s = store();
    std::lock_guard guard(s.lock);
    refresh(s, "veskNvramConfig_read", Report::once);
    auto it = s.values.find(std::string_view(name));
    if (it == s.values.end()) return 0;
    size_t n = std::min(it->second.value.size(), size - 1);
    std::memcpy(buf, it->second.value.data(), n);
    buf[n] = '\0';
    return 0;
}

extern "C" int veskNvramConfig_save(void) {
    const char *routine = "veskNvramConfig_save";
    return locked(routine, [&](Store &s) {
        // Nothing set yet: an empty store is what becomes durable.
        if (!s.file.valid() && replace(s, routine) != 0) return -1;
        if (::fsync(s.file.get()) != 0) {
            report(routine, "fsync " + s.path, errno);
            return -1;
        }
        std::string dir = parent_dir(s.path);
        Fd d(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!d.valid() || ::fsync(d.get()) != 0) {
            report(routine, "fsync " + dir, errno);
            return -1;
        }
        return 0;
    });
}

int nvram_store_unset(const char *key) {
    const char *routine = "nvram_store_unset";
    if (!nvram_store_valid_key(key)) {
        std::fprintf(stderr, "%s: invalid key (null, empty or holding \"=\")\n", routine);
        return -1;
    }
    return locked(routine, [&](Store &s) {
        auto it = s.values.find(std::string_view(key));
        if (it == s.values.end()) return 0;
        s.values.erase(it);
        return replace(s, routine);
    });
}

int nvram_store_set_many(const std::vector<std::pair<std::string, std::string>> &pairs) {
    const char *routine = "nvram_store_set_many";
    for (const auto &[key, value] : pairs) {
        if (!nvram_store_valid_key(key.c_str()) || key.size() != std::strlen(key.c_str()) ||
            value.find('\0') != std::string::npos) {
            std::fprintf(stderr, "%s: invalid key or value (empty key, \"=\" in key or NUL)\n",
                         routine);
            return -1;
        }
    }
    return locked(routine, [&](Store &s) {
        for (const auto &[key, value] : pairs) s.values.insert_or_assign(key, Entry{value});
        return replace(s, routine);
    });
}

bool nvram_store_list(std::vector<std::pair<std::string, std::string>> &pairs) {
    pairs.clear();
    Store &s = store();
    std::lock_guard guard(s.lock);
    if (!refresh(s, "nvram_store_list", Report::always)) return false;
    pairs.reserve(s.values.size());
    for (const auto &[key, entry] : s.values) pairs.emplace_back(key, entry.value);
    return true;
}
