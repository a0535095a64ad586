#include "shared/generated_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

// What fopen(path, "w") gives a new file: 0666 less the process's umask.
mode_t creation_mode() {
    mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

std::string default_temp(const std::string &path) {
    std::size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    return dir + "." + name + ".XXXXXX";
}

}  // namespace

GeneratedFile::GeneratedFile(const char *path, const char *open_label, const char *temp_path)
    : path_(path ? path : "") {
    if (open_label) label_ = open_label;
    else label_ = path_;
    if (temp_path) {
        temp_ = temp_path;
        fd_ = ::open(temp_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    } else {
        temp_ = default_temp(path_);
        std::vector<char> name(temp_.begin(), temp_.end());
        name.push_back('\0');
        fd_ = mkostemp(name.data(), O_CLOEXEC);
        if (fd_ >= 0) temp_ = name.data();
    }
    if (fd_ < 0) {
        int error = errno;
        std::perror(label_.c_str());
        errno = error;
    }
}

GeneratedFile::~GeneratedFile() {
    if (fd_ < 0) return;
    ::close(fd_);
    ::unlink(temp_.c_str());
}

bool GeneratedFile::keep_existing() {
    if (fd_ < 0) return false;
    std::FILE *f = std::fopen(path_.c_str(), "r");
    if (!f) return errno == ENOENT || fail(errno);
    char buf[4096];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) text_.append(buf, n);
    int error = std::ferror(f) ? errno : 0;
    std::fclose(f);
    return error == 0 || fail(error);
}

void GeneratedFile::put(std::string_view text) { text_.append(text); }

void GeneratedFile::printf(const char *format, ...) {
    char small[256];
    va_list args;
    va_start(args, format);
    int length = std::vsnprintf(small, sizeof small, format, args);
    va_end(args);
    if (length < 0) {
        failed_ = true;
        return;
    }
    if (static_cast<std::size_t>(length) < sizeof small) {
        text_.append(small, static_cast<std::size_t>(length));
        return;
    }
    std::vector<char> big(static_cast<std::size_t>(length) + 1);
    va_start(args, format);
    std::vsnprintf(big.data(), big.size(), format, args);
    va_end(args);
    text_.append(big.data(), static_cast<std::size_t>(length));
}

bool GeneratedFile::fail(int error) {
    std::fprintf(stderr, "%s: %s\n", label_.c_str(), std::strerror(error));
    failed_ = true;
    errno = error;
    return false;
}

int GeneratedFile::commit(mode_t mode) {
    if (fd_ < 0) return errno ? errno : EBADF;
    if (failed_) return errno ? errno : EIO;
    const char *p = text_.data();
    std::size_t left = text_.size();
    while (left > 0) {
        ssize_t n = ::write(fd_, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            fail(n < 0 ? errno : ENOSPC);
            return errno;
        }
        p += n;
        left -= static_cast<std::size_t>(n);
    }
    if (::fchmod(fd_, mode == kCreationMode ? creation_mode() : mode) != 0) {
        fail(errno);
        return errno;
    }
    int fd = fd_;
    fd_ = -1;
    if (::close(fd) != 0) {
        int error = errno;
        ::unlink(temp_.c_str());
        fail(error);
        return error;
    }
    if (std::rename(temp_.c_str(), path_.c_str()) != 0) {
        int error = errno;
        ::unlink(temp_.c_str());
        fail(error);
        return error;
    }
    return 0;
}

int write_generated_file(const char *path, std::string_view text, mode_t mode,
                         const char *open_label) {
    GeneratedFile file(path, open_label);
    if (!file) return errno;
    file.put(text);
    return file.commit(mode);
}
