// The management-account journal (account_journal.h): a fixed, checksummed
// record made durable before the account is emptied, and the start-up step
// that finishes an account write a power cut left half done.
#include "account_journal.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "files.h"
#include "main.h"
#include "util.h"

namespace
{

const char kMagic[8] = {'T', 'V', 'A', 'C', 'C', 'J', 'N', 'L'};
constexpr uint32_t kVersion = 1;
constexpr size_t kHeaderSize = 16;
constexpr size_t kPayloadSize = 2 * sizeof(ManagementServerInfo);
constexpr size_t kCrcOffset = kHeaderSize + kPayloadSize;
#define TAVEL_ACCOUNT_JOURNAL_TMP TAVEL_ACCOUNT_JOURNAL_FILE ".tmp"

// CRC-32 (reflected, polynomial 0xEDB88320) four bits at a time: the record
// is 3 KiB and encoded on every account write, where the bitwise loop alone
// cost about 220 K instructions; a 16-entry table takes a sixth of that and
// 64 bytes of flash, against 1 KiB for a byte-wide one.
struct CrcTable {
    uint32_t entry[16];
};

constexpr CrcTable makeCrcTable()
{
    CrcTable t{};
    for (uint32_t i = 0; i < 16; ++i) {
        uint32_t c = i;
        for (int bit = 0; bit < 4; ++bit) {
            c = (c >> 1) ^ (0xEDB88320u & (0u - (c & 1u)));
        }
        t.entry[i] = c;
    }
    return t;
}

constexpr CrcTable kCrcTable = makeCrcTable();
static_assert(kCrcTable.entry[1] == 0x1DB71064u && kCrcTable.entry[15] == 0xBDBDF21Cu, "CRC-32 nibble table");

uint32_t crc32(const uint8_t *p, size_t n)
{
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < n; ++i) {
        crc ^= p[i];
        crc = (crc >> 4) ^ kCrcTable.entry[crc & 0xFu];
        crc = (crc >> 4) ^ kCrcTable.entry[crc & 0xFu];
    }
    return ~crc;
}

void putLe32(uint8_t *p, uint32_t v)
{
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<uint8_t>(v >> (8 * i));
    }
}

uint32_t getLe32(const uint8_t *p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

template <size_t N> bool terminated(const char (&field)[N])
{
    return memchr(field, '\0', N) != nullptr;
}

bool terminated(const ManagementServerInfo &a)
{
    return terminated(a.URL) && terminated(a.Username) && terminated(a.Password);
}

bool sameAccount(const ManagementServerInfo &a, const ManagementServerInfo &b)
{
    return strncmp(a.URL, b.URL, sizeof(a.URL)) == 0 &&
           strncmp(a.Username, b.Username, sizeof(a.Username)) == 0 &&
           strncmp(a.Password, b.Password, sizeof(a.Password)) == 0;
}

// A rename or unlink survives a power cut only once its directory is synced.
int syncMarkerDir()
{
    int fd = open(DevicePath(TAVEL_MARKER_DIR).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    FdGuard guard(fd);
    return fsync(fd);
}

// 1 removed, 0 absent, -1 failed.
int unlinkDevicePath(const char *devicePath)
{
    if (unlink(DevicePath(devicePath).c_str()) == 0) {
        return 1;
    }
    return errno == ENOENT ? 0 : -1;
}

// The journal as found on flash: 1 read into buf (*size bytes), 0 absent,
// -1 unreadable with *why set.  Reads at most one byte past a whole record,
// enough to tell a longer file.
int readJournal(uint8_t *buf, size_t cap, size_t *size, const char **why)
{
    int fd = tavel_openRegular(DevicePath(TAVEL_ACCOUNT_JOURNAL_FILE).c_str(), kAccountJournalSize);
    if (fd < 0) {
        if (errno == ENOENT) {
            return 0;
        }
        *why = errno == EFBIG    ? "larger than a journal"
               : errno == EINVAL ? "not a regular file"
                                 : "cannot be opened";
        return -1;
    }
    FdGuard guard(fd);
    *size = 0;
    while (*size < cap) {
        ssize_t n = read(fd, buf + *size, cap - *size);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            *why = "read failed";
            return -1;
        }
        if (n == 0) {
            break;
        }
        *size += static_cast<size_t>(n);
    }
    return 1;
}

} // namespace

void tavel_journalEncode(const AccountJournal &journal, uint8_t *buf)
{
    memcpy(buf, kMagic, sizeof(kMagic));
    putLe32(buf + 8, kVersion);
    putLe32(buf + 12, static_cast<uint32_t>(kPayloadSize));
    memcpy(buf + kHeaderSize, &journal.next, sizeof(journal.next));
    memcpy(buf + kHeaderSize + sizeof(journal.next), &journal.before, sizeof(journal.before));
    putLe32(buf + kCrcOffset, crc32(buf, kCrcOffset));
}

const char *tavel_journalDecode(const uint8_t *buf, size_t size, AccountJournal *journal)
{
    if (size != kAccountJournalSize) {
        return "wrong size";
    }
    if (memcmp(buf, kMagic, sizeof(kMagic)) != 0) {
        return "not a journal";
    }
    if (getLe32(buf + 8) != kVersion || getLe32(buf + 12) != kPayloadSize) {
        return "unknown version";
    }
    if (getLe32(buf + kCrcOffset) != crc32(buf, kCrcOffset)) {
        return "checksum mismatch";
    }
    AccountJournal j;
    memcpy(&j.next, buf + kHeaderSize, sizeof(j.next));
    memcpy(&j.before, buf + kHeaderSize + sizeof(j.next), sizeof(j.before));
    if (!terminated(j.next) || !terminated(j.before)) {
        return "unterminated field";
    }
    // The onboarding run only ever writes a complete account.
    if (strstr(j.next.URL, "http") == nullptr || j.next.Username[0] == '\0' || j.next.Password[0] == '\0') {
        return "incomplete new account";
    }
    *journal = j;
    return nullptr;
}

int tavel_journalWrite(const AccountJournal &journal)
{
    // On the heap, like the caller's record: this is the deepest stack of the
    // run, and stack pages stay dirty while the agent waits afterwards.
    const auto record = std::make_unique<uint8_t[]>(kAccountJournalSize);
    uint8_t *buf = record.get();
    tavel_journalEncode(journal, buf);
    DevicePath tmp(TAVEL_ACCOUNT_JOURNAL_TMP);
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC, 0600);
    if (fd < 0) {
        TAVEL_LOGE("cannot create %s: %s\n", tmp.c_str(), strerror(errno));
        explicit_bzero(buf, kAccountJournalSize);
        return -1;
    }
    bool ok;
    {
        FdGuard guard(fd);
        // An older temporary file keeps its mode through O_TRUNC.
        ok = fchmod(fd, 0600) == 0 && tavel_writeAll(fd, buf, kAccountJournalSize) && fsync(fd) == 0;
    }
    explicit_bzero(buf, kAccountJournalSize);
    if (!ok || rename(tmp.c_str(), DevicePath(TAVEL_ACCOUNT_JOURNAL_FILE).c_str()) != 0) {
        TAVEL_LOGE("cannot write %s: %s\n", tmp.c_str(), strerror(errno));
        unlinkDevicePath(TAVEL_ACCOUNT_JOURNAL_TMP);
        return -1;
    }
    if (syncMarkerDir() != 0) {
        TAVEL_LOGE("cannot sync the directory of %s: %s\n", TAVEL_ACCOUNT_JOURNAL_FILE, strerror(errno));
        return -1;
    }
    return 0;
}

int tavel_journalRemove(void)
{
    int removed = unlinkDevicePath(TAVEL_ACCOUNT_JOURNAL_FILE);
    if (removed < 0 || (removed > 0 && syncMarkerDir() != 0)) {
        TAVEL_LOGE("cannot remove %s: %s\n", TAVEL_ACCOUNT_JOURNAL_FILE, strerror(errno));
        return -1;
    }
    return 0;
}

void tavel_journalRecover(void)
{
    // Never renamed into place, so the account had not been emptied yet.
    if (unlinkDevicePath(TAVEL_ACCOUNT_JOURNAL_TMP) > 0) {
        syncMarkerDir();
    }
    uint8_t buf[kAccountJournalSize + 1];
    size_t size = 0;
    const char *why = nullptr;
    int found = readJournal(buf, sizeof(buf), &size, &why);
    if (found == 0) {
        return;
    }
    AccountJournal journal;
    if (found > 0) {
        why = tavel_journalDecode(buf, size, &journal);
    }
    explicit_bzero(buf, sizeof(buf));
    if (why != nullptr) {
        TAVEL_LOGE("management account journal %s is not whole (%s): removed, data model left as it is\n",
                   TAVEL_ACCOUNT_JOURNAL_FILE, why);
        tavel_journalRemove();
        return;
    }
    ManagementServerInfo current;
    memset(&current, 0, sizeof(current));
    if (dml_getManagementServerInfo(&current) != 0) {
        TAVEL_LOGE("management account journal %s kept: get of OID_MANAGEMENTSERVER failed\n",
                   TAVEL_ACCOUNT_JOURNAL_FILE);
    } else if (sameAccount(current, journal.next)) {
        TAVEL_LOGN("management account journal %s: new account already in place, journal removed\n",
                   TAVEL_ACCOUNT_JOURNAL_FILE);
        tavel_journalRemove();
    } else if (dml_setManagementServerInfo(&journal.next) != 0) {
        TAVEL_LOGE("management account journal %s kept: set of OID_MANAGEMENTSERVER failed\n",
                   TAVEL_ACCOUNT_JOURNAL_FILE);
    } else {
        TAVEL_LOGN("management account write interrupted by a restart: completed from %s with the new "
                   "account (URL %s, user %s), journal removed\n",
                   TAVEL_ACCOUNT_JOURNAL_FILE, journal.next.URL, journal.next.Username);
        tavel_journalRemove();
    }
    explicit_bzero(&journal, sizeof(journal));
    explicit_bzero(&current, sizeof(current));
}
