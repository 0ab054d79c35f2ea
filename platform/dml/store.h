// The data-model store: one text file of "Name=value" lines that the dml_
// stand-in and tavelctl share.
//
// File rules:
// - The value is everything after the first '='.  Empty lines and lines
//   starting with '#' are comments.  A line whose name is empty or holds a
//   byte outside printable ASCII (blank and control bytes included) is
//   malformed: readers skip it, writers keep it as it is.
// - When a name appears more than once, the first line wins; writers change
//   that line and leave the later ones alone.
// - Values escape "\\", "\n", "\r" and "\t".  A backslash followed by any
//   other byte, or ending the value, is kept as it is, so hand-written values
//   such as Windows paths survive a read.
// - A missing store (or store directory) holds no parameters: reads succeed
//   with empty values.  A store that exists but cannot be read (no
//   permission, a directory, larger than kMaxStoreSize) fails the operation,
//   so a broken device is never mistaken for an unconfigured one.
//
// Readers take no lock: writers replace the file by rename(), so a reader
// sees either the old or the new file.
//
// The dml_ calls reach the file through one parse per process (CachedStore),
// kept against the identity of the file it was read from: device, inode,
// size and modification time in nanoseconds, all from fstat() on the
// descriptor the text was read from.  A call opens and fstat()s the file
// again and reuses the parse while the identity is unchanged; an update
// changes the parse it made the file from and adopts the identity of the
// file it wrote (fstat() before the rename).  Identity alone can miss a
// same-size rewrite in place within one tick of the file-time clock, so a
// parse is trusted on identity alone only once the clock has moved well past
// the file's modification time (see settled()); until then a call reads the
// file again and compares it with the parse's text, which costs a read and a
// memcmp instead of a parse.  releaseCache() frees the parse.
#ifndef TAVEL_DML_STORE_H
#define TAVEL_DML_STORE_H

#include <stddef.h>
#include <stdint.h>

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace tavel::dml
{

// A store beyond this size is refused rather than read into memory.
constexpr size_t kMaxStoreSize = size_t{16} * 1024 * 1024;

// $TAVEL_ROOT/flash/dml/datamodel.conf, TAVEL_ROOT taken at the time of the call.
std::string storePath();

bool isValidName(std::string_view name);
std::string encodeValue(std::string_view value);
std::string decodeValue(std::string_view raw);

// One parameter line as stored: the value still escaped.
struct Param {
    std::string_view name;
    std::string_view raw;
};

// One change set names each parameter once: a set and a remove of the same
// name in one set are not ordered against each other.
struct Change {
    std::string name;
    std::string value;
    bool remove = false; // drop every line of the parameter instead
};

// A snapshot of the store file.
class Store
{
public:
    // Reads the file; on failure returns false and describes why in *error.
    bool load(std::string *error) { return load(storePath(), error); }
    bool load(const std::string &path, std::string *error);

    // Takes text as the file's contents.
    void parse(std::string text);
    // Empty, with its memory returned.
    void clear();

    // The decoded value of the first line naming the parameter; "" when absent.
    std::string get(std::string_view name) const;
    bool has(std::string_view name) const { return find(name) != nullptr; }

    // True while a line "Fault.<operation>=" holds a value other than "" or "0".
    bool faultSet(std::string_view operation) const;

    // The file as read.
    const std::string &contents() const { return text_; }

    // Every parameter line in file order, duplicates included.
    std::vector<Param> params() const;

    // The edits a change set makes to this text: the first change naming a
    // parameter decides what happens to its lines.
    struct Plan {
        struct Edit {
            size_t line;
            const Change *change;
        };
        std::vector<Edit> edits;             // in line order
        std::vector<const Change *> appends; // new parameters, in change order
        bool removes = false;
    };
    Plan plan(const std::vector<Change> &changes) const;

    // The file text with the changes applied (see update()).  *appendStart
    // receives where the appended lines begin.
    std::string render(const Plan &plan, size_t *appendStart = nullptr) const;
    std::string render(const std::vector<Change> &changes) const { return render(plan(changes)); }

    // Becomes the parse of next == render(plan, &appendStart) without parsing
    // the lines the plan left alone again.
    void adopt(const Plan &plan, std::string next, size_t appendStart);

private:
    // Offsets fit in 32 bits: a store beyond kMaxStoreSize is never parsed.
    struct Line {
        uint32_t offset;
        uint32_t length;
        uint32_t nameLength; // 0: no '=' or nothing before it
    };
    // One slot of the name index: open addressing, linear probing.
    struct Slot {
        uint32_t hash;
        uint32_t line; // kEmptySlot: empty
    };
    static constexpr uint32_t kEmptySlot = UINT32_MAX;
    const Line *find(std::string_view name) const;
    std::string_view text(const Line &line) const
    {
        return std::string_view(text_).substr(line.offset, line.length);
    }
    std::string_view nameOf(const Line &line) const
    {
        return std::string_view(text_).substr(line.offset, line.nameLength);
    }
    void parseFrom(size_t start);
    void buildIndex();
    void addToIndex(size_t line);

    std::string text_;
    std::vector<Line> lines_;
    // The first line of each name, so that a lookup costs the same in a store
    // of ten lines and of a hundred thousand.
    std::vector<Slot> index_;
    // Lines whose name starts with "Fault.", so that the fault check of every
    // call does not scan the whole store.
    std::vector<uint32_t> faults_;
};

// The process-wide parse of the store, locked for as long as this lives:
// it brings the parse up to date with the file (see the top of this file).
// Other threads' dml_ calls wait meanwhile, so keep it short.
class CachedStore
{
public:
    explicit CachedStore(std::string *error) : CachedStore(storePath(), error) {}
    CachedStore(const std::string &path, std::string *error);
    // False when the file cannot be read (*error says why).
    bool ok() const { return store_ != nullptr; }
    const Store &operator*() const { return *store_; }
    const Store *operator->() const { return store_; }

private:
    std::unique_lock<std::mutex> lock_;
    const Store *store_ = nullptr;
};

// Frees the cached parse; the next call parses the file again.
void releaseCache();

// Removes the temporary files ("<path>.tmp.XXXXXX", regular files only) that
// writers killed before their rename left beside the store.  Runs only under
// the writers' flock, so a live writer's file is never taken from under it;
// waits at most about a second for it.  Returns how many were removed; -1
// with *error set when the directory or the lock cannot be opened, 0 when
// the directory is missing or the lock stayed taken.
int removeStaleTemporaries(const std::string &path, std::string *error);

enum class UpdateResult { Ok, Fault, Error };

// How long update() waits for the store's lock before it fails: a writer
// that holds it longer is stuck, and the caller must not be stuck with it.
constexpr int kLockWaitMs = 5000;
// cancelled() (null: none) ends a wait for the lock early, failing the update.
void setWaitCancel(int (*cancelled)());

// Applies all changes as one replacement of the file, under an exclusive
// flock on "<path>.lock": brings the cached parse up to date with the file
// (the lock keeps cooperating writers out meanwhile), keeps every other line as
// it is, changes the first line of each named parameter, appends new ones at
// the end, writes a temporary file beside the store, fsyncs it and renames it
// over the store.  Any failure leaves the old file untouched.
//
// With faultOperation set, a fault line for it in the file read under the
// lock fails the update (UpdateResult::Fault) before anything is written.
// Changes are meant to be few: each one looks its parameter up in the parse.
UpdateResult update(const std::vector<Change> &changes, const char *faultOperation, std::string *error);
UpdateResult update(const std::string &path, const std::vector<Change> &changes, const char *faultOperation,
                    std::string *error);

} // namespace tavel::dml

#endif
