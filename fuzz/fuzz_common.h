// Shared set-up of the fuzz targets: a private device root, bounded logs and
// exactly-sized copies of the input, so that ASan reports any read past the
// bytes a caller was really given.
#ifndef TAVEL_FUZZ_COMMON_H
#define TAVEL_FUZZ_COMMON_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace tavel_fuzz
{

inline std::string &rootDir()
{
    static std::string root;
    return root;
}

inline void removeRoot()
{
    std::error_code ignored;
    if (!rootDir().empty()) {
        std::filesystem::remove_all(rootDir(), ignored);
    }
}

// util.cpp reads TAVEL_ROOT once per process, so the root must be in place
// before any agent code runs; never fall back to the real device paths.
inline void initRoot()
{
    // libFuzzer may end the process without running atexit handlers (a
    // finding, -runs=0): the script points this at a directory it wipes.
    const char *base = getenv("TAVEL_FUZZ_TMPDIR");
    std::string tmpl = std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/tavel-fuzz-XXXXXX";
    const char *dir = mkdtemp(&tmpl[0]);
    if (dir == nullptr) {
        abort();
    }
    rootDir() = dir;
    setenv("TAVEL_ROOT", dir, 1);
    setenv("TAVEL_TIME_SCALE", "1000", 0);
    atexit(removeRoot);
}

inline std::string rootPath(const char *devicePath)
{
    return rootDir() + devicePath;
}

// Every agent step appends to the platform logs; cut them now and then so a
// long run cannot fill the disk.  A log not there yet needs no cutting.
inline void boundLogs()
{
    static unsigned runs;
    if (++runs % 1000 == 0) {
        for (const char *log : {"/var/log/tavel.log", "/var/log/history.log"}) {
            if (truncate(rootPath(log).c_str(), 0) != 0) {
                continue;
            }
        }
    }
}

// Debug commands print to standard output; the fuzzer's own report goes to
// standard error and stays visible.
inline void silenceStdout()
{
    if (freopen("/dev/null", "w", stdout) == nullptr) {
        abort();
    }
}

// A heap block of exactly the given bytes, not terminated.
class ExactBuffer
{
public:
    // ASan hands out a distinct block with no usable byte for size 0.
    ExactBuffer(const void *data, size_t size) : size_(size), data_(static_cast<char *>(malloc(size)))
    {
        if (data_ == nullptr && size > 0) {
            abort();
        }
        if (size > 0) {
            memcpy(data_, data, size);
        }
    }
    ExactBuffer(const ExactBuffer &) = delete;
    ExactBuffer &operator=(const ExactBuffer &) = delete;
    ~ExactBuffer() { free(data_); }
    char *data() { return data_; }
    size_t size() const { return size_; }

private:
    size_t size_;
    char *data_;
};

// Writes a whole file; false when it could not be written completely.
inline bool writeFile(const std::string &path, const uint8_t *data, size_t size)
{
    FILE *f = fopen(path.c_str(), "wb");
    if (f == nullptr) {
        return false;
    }
    bool ok = fwrite(data, 1, size, f) == size;
    return fclose(f) == 0 && ok;
}

} // namespace tavel_fuzz

#endif
