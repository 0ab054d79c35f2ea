// The data-model store file: parsing, escaping and the locked, atomic
// replacement described in store.h.
#include "store.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

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

// Reads a whole regular file.  A missing file reads as empty.
bool readFile(const std::string &path, std::string *out, std::string *error)
{
    // O_NONBLOCK: a FIFO planted at the store path must not hang the caller.
    Fd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (fd.get() < 0) {
        if (errno == ENOENT) {
            out->clear();
            return true;
        }
        setError(error, describe("cannot open", path, errno));
        return false;
    }
    struct stat st;
    if (fstat(fd.get(), &st) != 0) {
        setError(error, describe("cannot stat", path, errno));
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        setError(error, describe("cannot read", path, S_ISDIR(st.st_mode) ? EISDIR : EINVAL));
        return false;
    }
    if (static_cast<unsigned long long>(st.st_size) > kMaxStoreSize) {
        setError(error, describe("cannot read", path, EFBIG));
        return false;
    }
    std::string data;
    data.resize(static_cast<size_t>(st.st_size) + 1);
    size_t used = 0;
    for (;;) {
        if (used == data.size()) {
            if (data.size() > kMaxStoreSize) {
                setError(error, describe("cannot read", path, EFBIG));
                return false;
            }
            data.resize(data.size() * 2);
        }
        ssize_t n = read(fd.get(), &data[used], data.size() - used);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            setError(error, describe("cannot read", path, errno));
            return false;
        }
        if (n == 0) {
            break;
        }
        used += static_cast<size_t>(n);
    }
    data.resize(used);
    *out = std::move(data);
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
    std::string text;
    if (!readFile(path, &text, error)) {
        return false;
    }
    text_ = std::move(text);
    lines_.clear();
    std::string_view all(text_);
    size_t start = 0;
    while (start < all.size()) {
        size_t end = all.find('\n', start);
        if (end == std::string_view::npos) {
            end = all.size();
        }
        std::string_view line = all.substr(start, end - start);
        size_t eq = line.find('=');
        size_t nameLength = 0;
        if (eq != std::string_view::npos && isValidName(line.substr(0, eq))) {
            nameLength = eq;
        }
        lines_.push_back(Line{start, end - start, nameLength});
        start = end + 1;
    }
    return true;
}

const Store::Line *Store::find(std::string_view name) const
{
    for (const Line &line : lines_) {
        if (line.nameLength != 0 && line.nameLength == name.size() &&
            text(line).substr(0, line.nameLength) == name) {
            return &line;
        }
    }
    return nullptr;
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
    std::string value = get(name);
    return !value.empty() && value != "0";
}

std::vector<Param> Store::params() const
{
    std::vector<Param> out;
    for (const Line &line : lines_) {
        if (line.nameLength != 0) {
            std::string_view t = text(line);
            out.push_back(Param{t.substr(0, line.nameLength), t.substr(line.nameLength + 1)});
        }
    }
    return out;
}

std::string Store::render(const std::vector<Change> &changes) const
{
    std::vector<bool> seen(changes.size(), false);
    std::string out;
    out.reserve(text_.size() + 256);
    for (const Line &line : lines_) {
        std::string_view t = text(line);
        bool keep = true;
        if (line.nameLength != 0) {
            std::string_view name = t.substr(0, line.nameLength);
            for (size_t i = 0; i < changes.size(); ++i) {
                if (changes[i].name != name) {
                    continue;
                }
                if (changes[i].remove) {
                    keep = false;
                } else if (!seen[i]) {
                    seen[i] = true;
                    out.append(name).append("=").append(encodeValue(changes[i].value)).append("\n");
                    keep = false;
                }
                break;
            }
        }
        if (keep) {
            out.append(t).append("\n");
        }
    }
    for (size_t i = 0; i < changes.size(); ++i) {
        if (!changes[i].remove && !seen[i]) {
            // A second change of the same name in one call: the first one wins.
            bool repeated = false;
            for (size_t j = 0; j < i && !repeated; ++j) {
                repeated = !changes[j].remove && changes[j].name == changes[i].name;
            }
            if (!repeated) {
                out.append(changes[i].name).append("=").append(encodeValue(changes[i].value)).append("\n");
            }
        }
    }
    return out;
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
    while (flock(lock.get(), LOCK_EX) != 0) {
        if (errno != EINTR) {
            setError(error, describe("cannot lock", lockPath, errno));
            return UpdateResult::Error;
        }
    }
    // The lock is released when `lock` closes, after the rename.

    Store current;
    if (!current.load(path, error)) {
        return UpdateResult::Error;
    }
    if (faultOperation != nullptr && current.faultSet(faultOperation)) {
        setError(error, std::string("fault injected for ") + faultOperation);
        return UpdateResult::Fault;
    }
    const std::string next = current.render(changes);
    if (next == current.contents()) {
        return UpdateResult::Ok; // nothing changes: spare the flash a rewrite
    }

    // The store holds account passwords: a new one is private, an existing
    // one keeps whatever mode the integrator gave it.
    mode_t mode = 0600;
    struct stat st;
    if (stat(path.c_str(), &st) == 0) {
        mode = st.st_mode & 07777;
    }
    std::string tmpl = path + ".tmp.XXXXXX";
    Fd out(mkostemp(&tmpl[0], O_CLOEXEC));
    if (out.get() < 0) {
        setError(error, describe("cannot create temporary file in", dir, errno));
        return UpdateResult::Error;
    }
    TempFile tmp(tmpl);
    if (fchmod(out.get(), mode) != 0 || !writeAll(out.get(), next) || fsync(out.get()) != 0 || !out.close()) {
        setError(error, describe("cannot write", tmp.path(), errno));
        return UpdateResult::Error;
    }
    if (rename(tmp.path().c_str(), path.c_str()) != 0) {
        setError(error, describe("cannot replace", path, errno));
        return UpdateResult::Error;
    }
    tmp.commit();
    // The new store is in place and visible; a directory that cannot be
    // synced only weakens durability across a power cut, so it is not an error.
    Fd dirFd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dirFd.get() >= 0) {
        fsync(dirFd.get());
    }
    return UpdateResult::Ok;
}

} // namespace tavel::dml
