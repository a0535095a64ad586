// RAII for C stdio streams: the files the router reads and writes keep their C-library
// semantics (open modes, buffered writes), and every stream is closed on every path.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <memory>

struct FileCloser {
    void operator()(std::FILE *f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

inline File open_file(const char *path, const char *mode) { return File(std::fopen(path, mode)); }

// Makes the symbolic link `path` to `target`. The starts ignore a failure: the link usually
// exists from an earlier start already.
inline void make_symlink(const char *target, const char *path) {
    if (symlink(target, path) != 0) return;
}
