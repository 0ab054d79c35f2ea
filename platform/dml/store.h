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
// sees either the old or the new file.  Every call reads the file afresh;
// nothing is cached between calls.
#ifndef TAVEL_DML_STORE_H
#define TAVEL_DML_STORE_H

#include <stddef.h>

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

    // The decoded value of the first line naming the parameter; "" when absent.
    std::string get(std::string_view name) const;
    bool has(std::string_view name) const { return find(name) != nullptr; }

    // True while a line "Fault.<operation>=" holds a value other than "" or "0".
    bool faultSet(std::string_view operation) const;

    // The file as read.
    const std::string &contents() const { return text_; }

    // Every parameter line in file order, duplicates included.
    std::vector<Param> params() const;

    // The file text with the changes applied (see update()).
    std::string render(const std::vector<Change> &changes) const;

private:
    struct Line {
        size_t offset;
        size_t length;
        size_t nameLength; // 0: comment or malformed line
    };
    const Line *find(std::string_view name) const;
    std::string_view text(const Line &line) const
    {
        return std::string_view(text_).substr(line.offset, line.length);
    }

    std::string text_;
    std::vector<Line> lines_;
};

enum class UpdateResult { Ok, Fault, Error };

// Applies all changes as one replacement of the file, under an exclusive
// flock on "<path>.lock": reads the current file, keeps every other line as
// it is, changes the first line of each named parameter, appends new ones at
// the end, writes a temporary file beside the store, fsyncs it and renames it
// over the store.  Any failure leaves the old file untouched.
//
// With faultOperation set, a fault line for it in the file read under the
// lock fails the update (UpdateResult::Fault) before anything is written.
// Changes are meant to be few: every line is matched against each of them.
UpdateResult update(const std::vector<Change> &changes, const char *faultOperation, std::string *error);
UpdateResult update(const std::string &path, const std::vector<Change> &changes, const char *faultOperation,
                    std::string *error);

} // namespace tavel::dml

#endif
