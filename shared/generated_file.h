// The one writer of the files the router generates (pppd options and secrets, the helper files,
// the resolver file, radvd, dhcp6s and ripd configuration, the pid file).
//
// The whole text goes to a temporary file beside the target; only when every write and the
// close succeeded is it renamed over the target, so a reader such as dnsmasq or pppd sees the
// old file or the new one, never half of one. A failure is reported where it happens, with
// the path and the system error, and the target is left as it was.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

class GeneratedFile {
public:
    // The mode the target ends with when the routine gives none: what fopen(path, "w") makes.
    static constexpr mode_t kCreationMode = 0;

    // Starts the file. `open_label` is what perror prints when the file cannot be started (the
    // router's own message; the path when null). `temp_path` names the temporary file where a
    // routine has a fixed one; by default ".<name>.XXXXXX" in the target's directory.
    GeneratedFile(const char *path, const char *open_label = nullptr,
                  const char *temp_path = nullptr);
    ~GeneratedFile();
    GeneratedFile(const GeneratedFile &) = delete;
    GeneratedFile &operator=(const GeneratedFile &) = delete;

    // False when the file could not be started (already reported).
    explicit operator bool() const { return fd_ >= 0; }

    // Starts with the target's present content, for a file that grows by appending; a missing
    // target starts empty. False, after a report, when it cannot be read.
    bool keep_existing();

    void put(std::string_view text);
    void printf(const char *format, ...) __attribute__((format(printf, 2, 3)));

    // Writes, closes and renames over the target with `mode` (kCreationMode: the default of a
    // new file). 0, or the error number after the report "<open_label>: <system error>".
    int commit(mode_t mode = kCreationMode);

    const std::string &path() const { return path_; }

private:
    bool fail(int error);

    std::string path_;
    std::string label_;
    std::string temp_;
    std::string text_;
    int fd_ = -1;
    bool failed_ = false;
};

// Writes `text` as the whole of `path` (see GeneratedFile). 0, or the error number.
int write_generated_file(const char *path, std::string_view text, mode_t mode,
                         const char *open_label = nullptr);
