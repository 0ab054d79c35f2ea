/*
 * Seed of the generator that draws the retry delays.  The delays keep their
 * documented ranges; only the seed carries a per-device value, so that devices
 * whose failures fall in the same second do not draw the same delays and
 * retry in lockstep for ever (docs/fleet.md).
 */
#ifndef TAVEL_RETRY_SEED_H
#define TAVEL_RETRY_SEED_H

#include <stdint.h>

/* time(NULL) with the per-device value mixed in: four bytes of the kernel's
 * random pool, or, where the pool cannot answer without blocking (early boot
 * on an older kernel, or no getrandom at all), tavel_deviceSeedMix() of the
 * serial number, the boot id and both clocks. */
unsigned tavel_retrySeed(void);

/* The fallback's value: a hash of every input, so devices with different
 * serial numbers, or one device at two instants, get different seeds. */
uint32_t tavel_deviceSeedMix(const char *serial, const char *bootId, uint64_t monotonicNs,
                             uint64_t realtimeNs);

#endif
