// Short forms of the configuration-store accessors that the routines use on almost every line.
#pragma once

#include "platform/nvram.h"

namespace store {

// True when `key` holds exactly `value` (an absent key holds "").
inline bool match(const char *key, const char *value) {
    return veskNvramConfig_match(key, value) != 0;
}

// The value of `key`; "" when absent. Valid for the life of the process.
inline const char *get(const char *key) { return veskNvramConfig_get(key); }

// Sets `key`; a failure is reported by the store itself.
inline void set(const char *key, const char *value) { veskNvramConfig_set(key, value); }

}  // namespace store
