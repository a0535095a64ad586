// Host-only access to the configuration store beyond the contract of platform/nvram.h: what the
// `nvram` tool, the tests and the benchmarks need (removal, listing, bulk load, location).
// Program code uses platform/nvram.h only.
#pragma once

#include <string>
#include <utility>
#include <vector>

// Where the store lives: $NVRAM_FILE when set and not empty, else "/var/lib/failover/nvram".
std::string nvram_store_path();

// True when `key` can be stored: not empty, no "=" (a NUL cannot occur in a C string).
bool nvram_store_valid_key(const char *key);

// Removes `key`; removing an absent key succeeds. 0, or -1 after a line on stderr.
int nvram_store_unset(const char *key);

// Sets every pair in one atomic replacement of the store (none is set when a key is invalid).
// 0, or -1 after a line on stderr.
int nvram_store_set_many(const std::vector<std::pair<std::string, std::string>> &pairs);

// Every pair, sorted by key, into `pairs`. False (after a line on stderr) when the store exists
// but cannot be read; a missing store lists nothing.
bool nvram_store_list(std::vector<std::pair<std::string, std::string>> &pairs);
