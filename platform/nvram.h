/* Configuration store (NVRAM): the router's key/value store of strings.
 * Keys and values are NUL-terminated; an absent key reads as "". */
#ifndef FAILOVER_PLATFORM_NVRAM_H
#define FAILOVER_PLATFORM_NVRAM_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Value of `name`, "" when absent or when `name` is null. Never null. The text is owned by
 * the store and stays valid, unchanged, for the life of the process (see docs/DESIGN.md). */
char *veskNvramConfig_get(const char *name);

/* Sets `name` to `value` atomically (readers see the old or the new value). 0, or -1 on failure. */
int veskNvramConfig_set(const char *name, const char *value);

/* Non-zero when the value of `name` equals `match` exactly (an absent key equals ""). */
int veskNvramConfig_match(const char *name, const char *match);

/* Negation of veskNvramConfig_match. */
int veskNvramConfig_invmatch(const char *name, const char *invmatch);

/* Copies the value of `name` into `buf`, at most size-1 bytes, always terminated.
 * 0 on success, -1 when `buf` is null or `size` is 0. */
int veskNvramConfig_read(const char *name, char *buf, size_t size);

/* Makes every value set so far durable. 0, or -1 on failure. */
int veskNvramConfig_save(void);

#ifdef __cplusplus
}
#endif

#endif
