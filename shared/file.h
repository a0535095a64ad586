// RAII for C stdio streams: the files the router reads and writes keep their C-library
// semantics (open modes, buffered writes), and every stream is closed on every path.
#pragma once

#include <cstdio>
#include <memory>

struct FileCloser {
    void operator()(std::FILE *f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

inline File open_file(const char *path, const char *mode) { return File(std::fopen(path, mode)); }
