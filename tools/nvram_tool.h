// The nvram program's pieces shared by its contract verbs (nvram.cpp: get, set, commit) and the
// host store's extra verbs (nvram_host.cpp: unset, show, load), which only the host build links.
#pragma once

#include <string_view>

namespace nvram_tool {

// Exit status: 0 done, 1 the store or the file failed, 2 misuse.
constexpr int exit_failed = 1;
constexpr int exit_misuse = 2;

// The problem (when not null) and the usage on stderr; exit_misuse.
int usage(const char *problem);

// Writes `text` to standard output.
void put(std::string_view text);

// Flushes standard output: 0, or exit_failed after a line on stderr, so that a full disk or a
// closed pipe is not silent.
int finish_output();

// The host store's verbs; each returns the exit status.
int unset(const char *key);
int show();
int load(const char *path);

}  // namespace nvram_tool
