// Per-device seed of the retry delays (see retry_seed.h).
#include "retry_seed.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/random.h>
#include <time.h>
#include <unistd.h>

#include "dml.h"
#include "files.h"
#include "util.h"

namespace
{

// Set by the kernel at boot; a different text on every boot of every device.
constexpr const char *kBootIdPath = "/proc/sys/kernel/random/boot_id";
constexpr size_t kBootIdMax = 40;

uint64_t fnv1a(uint64_t hash, const void *data, size_t size)
{
    const auto *bytes = static_cast<const unsigned char *>(data);
    for (size_t i = 0; i < size; ++i) {
        hash = (hash ^ bytes[i]) * 0x100000001b3ULL;
    }
    return hash;
}

uint64_t clockNs(clockid_t clock)
{
    struct timespec ts = {0, 0};
    clock_gettime(clock, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<uint64_t>(ts.tv_nsec);
}

// Never waits for the pool: a device that boots with a fleet must not stall
// its first retry on entropy, it takes the fallback instead.
bool kernelRandom(uint32_t *value)
{
    return getrandom(value, sizeof(*value), GRND_NONBLOCK) == static_cast<ssize_t>(sizeof(*value));
}

uint32_t fallbackValue()
{
    NodeInfo node;
    memset(&node, 0, sizeof(node));
    if (dml_getNodeInfo(&node) != 0) {
        node.serialNumber[0] = '\0';
    }
    node.serialNumber[sizeof(node.serialNumber) - 1] = '\0';

    char bootId[kBootIdMax + 1] = {};
    FdGuard fd(open(kBootIdPath, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (fd.get() >= 0) {
        ssize_t n = read(fd.get(), bootId, kBootIdMax);
        bootId[n > 0 ? n : 0] = '\0';
    }
    return tavel_deviceSeedMix(node.serialNumber, bootId, clockNs(CLOCK_MONOTONIC), clockNs(CLOCK_REALTIME));
}

} // namespace

uint32_t tavel_deviceSeedMix(const char *serial, const char *bootId, uint64_t monotonicNs,
                             uint64_t realtimeNs)
{
    // FNV-1a over every input (the texts with their terminators, so that
    // "ab"+"c" and "a"+"bc" differ), then a finaliser that spreads every
    // input bit over all output bits.
    uint64_t h = 0xcbf29ce484222325ULL;
    h = fnv1a(h, tavel_text(serial), strlen(tavel_text(serial)) + 1);
    h = fnv1a(h, tavel_text(bootId), strlen(tavel_text(bootId)) + 1);
    h = fnv1a(h, &monotonicNs, sizeof(monotonicNs));
    h = fnv1a(h, &realtimeNs, sizeof(realtimeNs));
    h = (h ^ (h >> 30)) * 0xbf58476d1ce4e5b9ULL;
    h = (h ^ (h >> 27)) * 0x94d049bb133111ebULL;
    h ^= h >> 31;
    return static_cast<uint32_t>(h ^ (h >> 32));
}

unsigned tavel_retrySeed(void)
{
    uint32_t value = 0;
    if (!kernelRandom(&value)) {
        static bool s_fallbackLogged = false;
        if (!s_fallbackLogged) {
            s_fallbackLogged = true;
            TAVEL_LOGD("retry seed: no random bytes from the kernel (%s), using the device's own values\n",
                       strerror(errno));
        }
        value = fallbackValue();
    }
    return static_cast<unsigned>(time(nullptr)) ^ value;
}
