// The data-model store file: parsing, escaping, the parse cache and the
// locked, atomic replacement described in store.h.
#include "store.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <utility>

namespace tavel::dml
{

namespace
{

// Owns one file descriptor.
class Fd
{
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    Fd(Fd &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    Fd &operator=(Fd &&other) noexcept
    {
        if (this != &other) {
            reset();
            fd_ = other.fd_;
            other.fd_ = -1;
        }
        return *this;
    }
    ~Fd() { reset(); }
    int get() const { return fd_; }
    // Closes now so that a failing close() can be reported.
    bool close()
    {
        int fd = fd_;
        fd_ = -1;
        return fd < 0 || ::close(fd) == 0 || errno == EINTR;
    }
    void reset()
    {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = -1;
    }

private:
    int fd_;
};

// Unlinks the temporary file unless the rename made it the store.
class TempFile
{
public:
    explicit TempFile(std::string path) : path_(std::move(path)) {}
    TempFile(const TempFile &) = delete;
    TempFile &operator=(const TempFile &) = delete;
    ~TempFile()
    {
        if (!committed_) {
            unlink(path_.c_str());
        }
    }
    const std::string &path() const { return path_; }
    void commit() { committed_ = true; }

private:
    std::string path_;
    bool committed_ = false;
};

std::string describe(const char *what, const std::string &path, int err)
{
    return std::string(what) + " " + path + ": " + strerror(err);
}

void setError(std::string *error, std::string text)
{
    if (error != nullptr) {
        *error = std::move(text);
    }
}

std::string dirName(const std::string &path)
{
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

// mkdir -p; the store directory may not exist on a fresh device.
bool makeDirs(const std::string &dir, std::string *error)
{
    for (size_t pos = dir.find('/', 1);; pos = dir.find('/', pos + 1)) {
        std::string part = dir.substr(0, pos);
        if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) {
            setError(error, describe("cannot create", part, errno));
            return false;
        }
        if (pos == std::string::npos) {
            return true;
        }
    }
}

bool writeAll(int fd, std::string_view data)
{
    while (!data.empty()) {
        ssize_t n = write(fd, data.data(), data.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            if (n == 0) {
                errno = ENOSPC;
            }
            return false;
        }
        data.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

// Opens the store for reading and checks it is a regular file of a size we
// read.  ENOENT is left to the caller (fd < 0, errno kept): a missing store
// is empty, not an error.
bool openStore(const std::string &path, Fd *fd, struct stat *st, std::string *error)
{
    // O_NONBLOCK: a FIFO planted at the store path must not hang the caller.
    Fd opened(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (opened.get() < 0) {
        if (errno != ENOENT) {
            setError(error, describe("cannot open", path, errno));
            return false;
        }
        return true;
    }
    if (fstat(opened.get(), st) != 0) {
        setError(error, describe("cannot stat", path, errno));
        return false;
    }
    if (!S_ISREG(st->st_mode)) {
        setError(error, describe("cannot read", path, S_ISDIR(st->st_mode) ? EISDIR : EINVAL));
        return false;
    }
    if (static_cast<unsigned long long>(st->st_size) > kMaxStoreSize) {
        setError(error, describe("cannot read", path, EFBIG));
        return false;
    }
    *fd = std::move(opened);
    return true;
}

// pread() that retries on EINTR.
ssize_t readAt(int fd, char *buf, size_t size, size_t offset)
{
    ssize_t n;
    do {
        n = pread(fd, buf, size, static_cast<off_t>(offset));
    } while (n < 0 && errno == EINTR);
    return n;
}

constexpr size_t kPiece = size_t{64} * 1024;

// Reads the whole file from its start; it may have grown since fstat().
// Pieces are appended rather than read into a resized string, whose zero
// fill would cost as much as the parse.
bool readAll(int fd, const std::string &path, size_t expected, std::string *out, std::string *error)
{
    std::unique_ptr<char[]> buf(new char[kPiece]);
    std::string data;
    data.reserve(expected);
    for (;;) {
        ssize_t n = readAt(fd, buf.get(), kPiece, data.size());
        if (n < 0) {
            setError(error, describe("cannot read", path, errno));
            return false;
        }
        if (n == 0) {
            break;
        }
        if (data.size() + static_cast<size_t>(n) > kMaxStoreSize) {
            setError(error, describe("cannot read", path, EFBIG));
            return false;
        }
        data.append(buf.get(), static_cast<size_t>(n));
    }
    *out = std::move(data);
    return true;
}

enum class Compare { Same, Differs, Failed };

// Whether the file still holds exactly text, read in pieces so that no
// second copy of a large store is made.
Compare sameContent(int fd, const std::string &text)
{
    std::unique_ptr<char[]> buf(new char[kPiece]);
    size_t offset = 0;
    for (;;) {
        ssize_t n = readAt(fd, buf.get(), kPiece, offset);
        if (n < 0) {
            return Compare::Failed;
        }
        if (n == 0) {
            return offset == text.size() ? Compare::Same : Compare::Differs;
        }
        size_t got = static_cast<size_t>(n);
        if (got > text.size() - offset || memcmp(buf.get(), text.data() + offset, got) != 0) {
            return Compare::Differs;
        }
        offset += got;
    }
}

// What tells one version of the store file from another.
struct FileId {
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    int64_t mtimeSec = 0;
    long mtimeNsec = 0;

    explicit FileId(const struct stat &st)
        : dev(st.st_dev), ino(st.st_ino), size(st.st_size), mtimeSec(st.st_mtim.tv_sec),
          mtimeNsec(st.st_mtim.tv_nsec)
    {
    }
    FileId() = default;
    bool operator==(const FileId &o) const
    {
        return dev == o.dev && ino == o.ino && size == o.size && mtimeSec == o.mtimeSec &&
               mtimeNsec == o.mtimeNsec;
    }
};

// A file changed later than now gets a modification time of now or later
// (file times come from the coarse real-time clock, cut to the file
// system's granularity), so it can no longer carry the identity of a file
// last modified well before now.  "Well": one second for nanosecond stamps,
// two for stamps in whole seconds (FAT keeps two-second steps).  Until then,
// a same-size rewrite in place within the same tick would keep the identity.
bool settled(const FileId &id)
{
    struct timespec now;
    if (clock_gettime(CLOCK_REALTIME_COARSE, &now) != 0) {
        return false;
    }
    const int64_t margin = id.mtimeNsec == 0 ? 2 : 1;
    const int64_t ageSec = static_cast<int64_t>(now.tv_sec) - id.mtimeSec;
    return ageSec > margin || (ageSec == margin && now.tv_nsec > id.mtimeNsec);
}

// The one parse of the process.  Never destroyed: a thread may still use it
// while the process exits.
struct Cache {
    std::mutex mutex;
    bool valid = false;
    bool exists = false;  // false: the file was missing (empty store)
    bool trusted = false; // identity alone proves the parse current
    std::string path;
    FileId id;
    mode_t mode = 0;
    Store store;

    void drop()
    {
        valid = exists = trusted = false;
        std::string().swap(path);
        store.clear();
    }
};

Cache &cache()
{
    static Cache *instance = new Cache;
    return *instance;
}

// Brings the cache up to date with the file at path.  Caller holds the mutex.
bool refresh(Cache &c, const std::string &path, std::string *error)
{
    Fd fd;
    struct stat st;
    if (!openStore(path, &fd, &st, error)) {
        c.drop();
        return false;
    }
    if (fd.get() < 0) {
        if (!c.valid || c.exists || c.path != path) {
            c.drop();
            c.path = path;
            c.valid = true;
        }
        return true;
    }
    const FileId id(st);
    if (c.valid && c.exists && c.id == id && c.path == path) {
        if (c.trusted) {
            return true;
        }
        switch (sameContent(fd.get(), c.store.contents())) {
        case Compare::Same:
            c.trusted = settled(id);
            return true;
        case Compare::Failed:
            setError(error, describe("cannot read", path, errno));
            c.drop();
            return false;
        case Compare::Differs:
            break;
        }
    }
    std::string text;
    if (!readAll(fd.get(), path, static_cast<size_t>(st.st_size), &text, error)) {
        c.drop();
        return false;
    }
    // A text that does not match the size seen was caught mid-write: it is
    // checked again on the next call.
    const bool whole = text.size() == static_cast<size_t>(st.st_size);
    c.store.parse(std::move(text));
    c.valid = c.exists = true;
    c.path = path;
    c.id = id;
    c.mode = st.st_mode;
    c.trusted = whole && settled(id);
    return true;
}

bool isNameByte(unsigned char c)
{
    return c > ' ' && c < 0x7f && c != '=';
}

} // namespace

std::string storePath()
{
    const char *root = getenv("TAVEL_ROOT");
    std::string path = (root != nullptr) ? root : "";
    return path + "/flash/dml/datamodel.conf";
}

bool isValidName(std::string_view name)
{
    if (name.empty() || name[0] == '#') {
        return false;
    }
    for (char c : name) {
        if (!isNameByte(static_cast<unsigned char>(c))) {
            return false;
        }
    }
    return true;
}

std::string encodeValue(std::string_view value)
{
    std::string out;
    out.reserve(value.size() + 8);
    for (char c : value) {
        switch (c) {
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            out += c;
        }
    }
    return out;
}

std::string decodeValue(std::string_view raw)
{
    std::string out;
    out.reserve(raw.size());
    for (size_t i = 0; i < raw.size(); ++i) {
        char c = raw[i];
        if (c != '\\' || i + 1 == raw.size()) {
            out += c;
            continue;
        }
        switch (raw[i + 1]) {
        case '\\':
            out += '\\';
            break;
        case 'n':
            out += '\n';
            break;
        case 'r':
            out += '\r';
            break;
        case 't':
            out += '\t';
            break;
        default:
            out += c;
            out += raw[i + 1];
        }
        ++i;
    }
    return out;
}

bool Store::load(const std::string &path, std::string *error)
{
    Fd fd;
    struct stat st;
    if (!openStore(path, &fd, &st, error)) {
        return false;
    }
    std::string text;
    if (fd.get() >= 0 && !readAll(fd.get(), path, static_cast<size_t>(st.st_size), &text, error)) {
        return false;
    }
    parse(std::move(text));
    return true;
}

void Store::parse(std::string text)
{
    text_ = std::move(text);
    lines_.clear();
    faults_.clear();
    parseFrom(0);
    buildIndex();
}

void Store::clear()
{
    std::string().swap(text_);
    std::vector<Line>().swap(lines_);
    std::vector<Slot>().swap(index_);
    std::vector<uint32_t>().swap(faults_);
}

namespace
{

// Eight bytes a step, the last step overlapping the one before.  Not keyed:
// a store crafted to collide only brings lookups back to the cost of a scan
// of every line.
uint32_t hashName(std::string_view name)
{
    const char *p = name.data();
    const size_t n = name.size();
    uint64_t h = 0x9e3779b97f4a7c15ULL ^ n;
    uint64_t w = 0;
    if (n < 8) {
        for (size_t i = 0; i < n; ++i) {
            w = (w << 8) | static_cast<unsigned char>(p[i]);
        }
    } else {
        for (size_t i = 0; i + 8 < n; i += 8) {
            memcpy(&w, p + i, 8);
            h = (h ^ w) * 0xff51afd7ed558ccdULL;
            h ^= h >> 32;
        }
        memcpy(&w, p + n - 8, 8);
    }
    h = (h ^ w) * 0xc4ceb9fe1a85ec53ULL;
    h ^= h >> 29;
    return static_cast<uint32_t>(h);
}

} // namespace

// At most three quarters full, so that probes stay short.
void Store::buildIndex()
{
    size_t capacity = 16;
    while (capacity * 3 < lines_.size() * 4) {
        capacity *= 2;
    }
    // Empty slots are not all-zero bytes: a zero fill becomes a memset,
    // which is slower here than the store loop.
    index_.assign(capacity, Slot{0, kEmptySlot});
    for (size_t l = 0; l < lines_.size(); ++l) {
        addToIndex(l);
    }
}

// A name already indexed keeps its earlier line: the first line wins.
void Store::addToIndex(size_t line)
{
    const Line &entry = lines_[line];
    if (entry.nameLength == 0) {
        return;
    }
    const std::string_view name = nameOf(entry);
    const uint32_t hash = hashName(name);
    const size_t mask = index_.size() - 1;
    for (size_t i = hash & mask;; i = (i + 1) & mask) {
        Slot &slot = index_[i];
        if (slot.line == kEmptySlot) {
            slot = Slot{hash, static_cast<uint32_t>(line)};
            return;
        }
        if (slot.hash == hash && nameOf(lines_[slot.line]) == name) {
            return;
        }
    }
}

// Names are checked only when a caller asks for one (find() refuses a name
// that is not valid, and a line can only match a name of the same bytes), so
// the parse itself is two memchr() a line.
void Store::parseFrom(size_t start)
{
    static constexpr std::string_view kFault = "Fault.";
    const char *base = text_.data();
    const size_t size = text_.size();
    while (start < size) {
        const char *nl = static_cast<const char *>(memchr(base + start, '\n', size - start));
        size_t end = nl != nullptr ? static_cast<size_t>(nl - base) : size;
        const char *eq = static_cast<const char *>(memchr(base + start, '=', end - start));
        size_t nameLength = eq != nullptr ? static_cast<size_t>(eq - (base + start)) : 0;
        if (nameLength > kFault.size() && memcmp(base + start, kFault.data(), kFault.size()) == 0) {
            faults_.push_back(static_cast<uint32_t>(lines_.size()));
        }
        lines_.push_back(Line{static_cast<uint32_t>(start), static_cast<uint32_t>(end - start),
                              static_cast<uint32_t>(nameLength)});
        start = end + 1;
    }
}

const Store::Line *Store::find(std::string_view name) const
{
    if (index_.empty() || !isValidName(name)) {
        return nullptr;
    }
    const uint32_t hash = hashName(name);
    const size_t mask = index_.size() - 1;
    for (size_t i = hash & mask;; i = (i + 1) & mask) {
        const Slot &slot = index_[i];
        if (slot.line == kEmptySlot) {
            return nullptr;
        }
        if (slot.hash == hash && nameOf(lines_[slot.line]) == name) {
            return &lines_[slot.line];
        }
    }
}

std::string Store::get(std::string_view name) const
{
    const Line *line = find(name);
    if (line == nullptr) {
        return std::string();
    }
    return decodeValue(text(*line).substr(line->nameLength + 1));
}

bool Store::faultSet(std::string_view operation) const
{
    std::string name = "Fault.";
    name += operation;
    if (!isValidName(name)) {
        return false;
    }
    for (uint32_t index : faults_) {
        const Line &line = lines_[index];
        std::string_view t = text(line);
        if (t.substr(0, line.nameLength) == name) {
            std::string value = decodeValue(t.substr(line.nameLength + 1));
            return !value.empty() && value != "0";
        }
    }
    return false;
}

std::vector<Param> Store::params() const
{
    std::vector<Param> out;
    for (const Line &line : lines_) {
        std::string_view t = text(line);
        if (line.nameLength != 0 && isValidName(t.substr(0, line.nameLength))) {
            out.push_back(Param{t.substr(0, line.nameLength), t.substr(line.nameLength + 1)});
        }
    }
    return out;
}

Store::Plan Store::plan(const std::vector<Change> &changes) const
{
    Plan plan;
    for (size_t i = 0; i < changes.size(); ++i) {
        const Change &change = changes[i];
        bool named = false; // an earlier change named the parameter: it decides
        bool set = false;   // an earlier change set it: the first value wins
        for (size_t j = 0; j < i; ++j) {
            if (changes[j].name == change.name) {
                named = true;
                set = set || !changes[j].remove;
            }
        }
        bool replaced = false;
        if (!named && change.remove) {
            const std::string_view name = change.name;
            for (size_t l = 0; l < lines_.size(); ++l) {
                if (text(lines_[l]).substr(0, lines_[l].nameLength) == name && isValidName(name)) {
                    plan.edits.push_back(Plan::Edit{l, &change});
                    plan.removes = true;
                }
            }
        } else if (!named) {
            const Line *line = find(change.name);
            if (line != nullptr) {
                plan.edits.push_back(Plan::Edit{static_cast<size_t>(line - lines_.data()), &change});
                replaced = true;
            }
        }
        if (!change.remove && !replaced && !set) {
            plan.appends.push_back(&change);
        }
    }
    // In line order.  Edits are few (a line per change, more only for a
    // removed parameter that has duplicates), so an insertion sort does.
    for (size_t i = 1; i < plan.edits.size(); ++i) {
        for (size_t j = i; j > 0 && plan.edits[j - 1].line > plan.edits[j].line; --j) {
            std::swap(plan.edits[j - 1], plan.edits[j]);
        }
    }
    return plan;
}

namespace
{

void appendLine(std::string &out, const Change &change)
{
    out.append(change.name).append(1, '=').append(encodeValue(change.value)).append(1, '\n');
}

} // namespace

// Lines the plan leaves alone are copied in whole runs.
std::string Store::render(const Plan &plan, size_t *appendStart) const
{
    std::string out;
    out.reserve(text_.size() + 256);
    size_t copied = 0;
    for (const Plan::Edit &edit : plan.edits) {
        const Line &line = lines_[edit.line];
        out.append(text_, copied, line.offset - copied);
        if (!edit.change->remove) {
            appendLine(out, *edit.change);
        }
        copied = std::min(static_cast<size_t>(line.offset) + line.length + 1, text_.size());
    }
    out.append(text_, copied, std::string::npos);
    if (!out.empty() && out.back() != '\n') {
        out += '\n';
    }
    if (appendStart != nullptr) {
        *appendStart = out.size();
    }
    for (const Change *change : plan.appends) {
        appendLine(out, *change);
    }
    return out;
}

void Store::adopt(const Plan &plan, std::string next, size_t appendStart)
{
    if (plan.removes) {
        parse(std::move(next)); // line numbers shift: rare (tavelctl unset)
        return;
    }
    int64_t delta = 0;
    auto edit = plan.edits.begin();
    for (size_t l = plan.edits.empty() ? lines_.size() : plan.edits.front().line; l < lines_.size(); ++l) {
        Line &line = lines_[l];
        line.offset = static_cast<uint32_t>(line.offset + delta);
        if (edit != plan.edits.end() && edit->line == l) {
            const size_t end = std::string_view(next).find('\n', line.offset);
            if (end == std::string_view::npos) { // not what render() makes
                parse(std::move(next));
                return;
            }
            const size_t length = end - line.offset;
            delta += static_cast<int64_t>(length) - line.length;
            line.length = static_cast<uint32_t>(length);
            line.nameLength = static_cast<uint32_t>(edit->change->name.size());
            ++edit;
        }
    }
    text_ = std::move(next);
    const size_t before = lines_.size();
    parseFrom(appendStart);
    if (lines_.size() * 4 > index_.size() * 3) {
        buildIndex();
    } else {
        for (size_t l = before; l < lines_.size(); ++l) {
            addToIndex(l);
        }
    }
}

CachedStore::CachedStore(const std::string &path, std::string *error) : lock_(cache().mutex)
{
    if (refresh(cache(), path, error)) {
        store_ = &cache().store;
    }
}

namespace
{

std::atomic<int (*)()> g_waitCancel{nullptr};

// flock(LOCK_EX) polled without blocking, so the wait can end: after
// kLockWaitMs, or as soon as the caller's cancel test says so.
bool lockWithin(int fd, const std::string &lockPath, std::string *error)
{
    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    long pauseNs = 1000000L;
    for (;;) {
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
            return true;
        }
        if (errno != EWOULDBLOCK && errno != EINTR) {
            setError(error, describe("cannot lock", lockPath, errno));
            return false;
        }
        int (*cancelled)() = g_waitCancel.load();
        if (cancelled != nullptr && cancelled() != 0) {
            setError(error, "wait for " + lockPath + " cancelled");
            return false;
        }
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        long long waitedMs = (now.tv_sec - start.tv_sec) * 1000LL + (now.tv_nsec - start.tv_nsec) / 1000000L;
        if (waitedMs >= kLockWaitMs) {
            char waited[16];
            snprintf(waited, sizeof(waited), "%d", kLockWaitMs);
            setError(error, lockPath + " still locked by another after " + waited + " ms");
            return false;
        }
        struct timespec pause = {0, pauseNs};
        nanosleep(&pause, nullptr);
        pauseNs = pauseNs * 2 > 50000000L ? 50000000L : pauseNs * 2;
    }
}

} // namespace

void setWaitCancel(int (*cancelled)())
{
    g_waitCancel.store(cancelled);
}

void releaseCache()
{
    Cache &c = cache();
    std::lock_guard<std::mutex> lock(c.mutex);
    c.drop();
}

UpdateResult update(const std::vector<Change> &changes, const char *faultOperation, std::string *error)
{
    return update(storePath(), changes, faultOperation, error);
}

UpdateResult update(const std::string &path, const std::vector<Change> &changes, const char *faultOperation,
                    std::string *error)
{
    for (const Change &change : changes) {
        if (!isValidName(change.name)) {
            setError(error, "invalid parameter name '" + change.name + "'");
            return UpdateResult::Error;
        }
    }
    const std::string dir = dirName(path);
    if (!makeDirs(dir, error)) {
        return UpdateResult::Error;
    }
    const std::string lockPath = path + ".lock";
    Fd lock(open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (lock.get() < 0) {
        setError(error, describe("cannot open", lockPath, errno));
        return UpdateResult::Error;
    }
    if (!lockWithin(lock.get(), lockPath, error)) {
        return UpdateResult::Error;
    }
    // The lock is released when `lock` closes, after the rename.

    Cache &c = cache();
    std::lock_guard<std::mutex> guard(c.mutex);
    if (!refresh(c, path, error)) {
        return UpdateResult::Error;
    }
    const Store &current = c.store;
    if (faultOperation != nullptr && current.faultSet(faultOperation)) {
        setError(error, std::string("fault injected for ") + faultOperation);
        return UpdateResult::Fault;
    }
    const Store::Plan plan = current.plan(changes);
    size_t appendStart = 0;
    std::string next = current.render(plan, &appendStart);
    if (next == current.contents()) {
        return UpdateResult::Ok; // nothing changes: spare the flash a rewrite
    }

    // The store holds account passwords: a new one is private, an existing
    // one keeps whatever mode the integrator gave it.
    const mode_t mode = c.exists ? (c.mode & 07777) : 0600;
    std::string tmpl = path + ".tmp.XXXXXX";
    Fd out(mkostemp(&tmpl[0], O_CLOEXEC));
    if (out.get() < 0) {
        setError(error, describe("cannot create temporary file in", dir, errno));
        return UpdateResult::Error;
    }
    TempFile tmp(tmpl);
    struct stat written;
    if (fchmod(out.get(), mode) != 0 || !writeAll(out.get(), next) || fsync(out.get()) != 0 ||
        fstat(out.get(), &written) != 0 || !out.close()) {
        setError(error, describe("cannot write", tmp.path(), errno));
        return UpdateResult::Error;
    }
    if (rename(tmp.path().c_str(), path.c_str()) != 0) {
        setError(error, describe("cannot replace", path, errno));
        return UpdateResult::Error;
    }
    tmp.commit();
    // The parse follows the file just written; its identity is the one
    // taken before the rename, so anything that touches the file after it
    // shows as a change.
    if (next.size() > kMaxStoreSize) {
        c.drop(); // the next read refuses it anyway
    } else {
        c.store.adopt(plan, std::move(next), appendStart);
        c.exists = true;
        c.id = FileId(written);
        c.mode = written.st_mode;
        c.trusted = settled(c.id);
    }
    // The new store is in place and visible; a directory that cannot be
    // synced only weakens durability across a power cut, so it is not an error.
    Fd dirFd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dirFd.get() >= 0) {
        fsync(dirFd.get());
    }
    return UpdateResult::Ok;
}

namespace
{

// mkostemp()'s six characters.
bool isTemporaryName(std::string_view name, std::string_view prefix)
{
    if (name.size() != prefix.size() + 6 || name.substr(0, prefix.size()) != prefix) {
        return false;
    }
    return std::all_of(name.begin() + static_cast<std::ptrdiff_t>(prefix.size()), name.end(), [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
    });
}

struct DirCloser {
    void operator()(DIR *d) const { closedir(d); }
};

} // namespace

int removeStaleTemporaries(const std::string &path, std::string *error)
{
    const std::string dir = dirName(path);
    Fd dirFd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dirFd.get() < 0) {
        if (errno == ENOENT) {
            return 0;
        }
        setError(error, describe("cannot open", dir, errno));
        return -1;
    }
    const std::string lockPath = path + ".lock";
    Fd lock(open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (lock.get() < 0) {
        setError(error, describe("cannot open", lockPath, errno));
        return -1;
    }
    // Writers hold the lock for one file write; a holder beyond a second is
    // left alone, and the next start cleans up instead.
    for (int tries = 0; flock(lock.get(), LOCK_EX | LOCK_NB) != 0; ++tries) {
        if ((errno != EWOULDBLOCK && errno != EINTR) || tries == 100) {
            return 0;
        }
        const struct timespec pause = {0, 10000000}; // 10 ms
        nanosleep(&pause, nullptr);
    }
    int listFd = dup(dirFd.get());
    std::unique_ptr<DIR, DirCloser> listing(listFd >= 0 ? fdopendir(listFd) : nullptr);
    if (!listing) {
        setError(error, describe("cannot read", dir, errno));
        if (listFd >= 0) {
            close(listFd);
        }
        return -1;
    }
    const std::string prefix = path.substr(path.rfind('/') + 1) + ".tmp."; // npos + 1 == 0
    int removed = 0;
    while (const struct dirent *entry = readdir(listing.get())) {
        struct stat st;
        if (isTemporaryName(entry->d_name, prefix) &&
            fstatat(dirFd.get(), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode) &&
            unlinkat(dirFd.get(), entry->d_name, 0) == 0) {
            ++removed;
        }
    }
    if (removed > 0) {
        fsync(dirFd.get());
    }
    return removed;
}

} // namespace tavel::dml
