/*
 * The file operations of the agent on device paths (under TAVEL_ROOT) and
 * the scope guards of descriptors and streams.
 */
#ifndef TAVEL_FILES_H
#define TAVEL_FILES_H

#include <stddef.h>
#include <stdio.h>

#include <memory>

/* mkdir -p of a device path: every missing directory created with mode 0777
 * less the umask.  0, or -1 with errno. */
int tavel_makeDirs(const char *devicePath);
/* touch of a device path: created empty when absent, times set to now. */
int tavel_touch(const char *devicePath);
/* rm of a device path (a missing file is not an error); with recursive, a
 * directory goes too, with everything under it, like rm -rf.  0 or -1. */
int tavel_remove(const char *devicePath, bool recursive);
/* Replaces the content of a device path with the bytes given, as a shell's
 * "> file" does: created with mode 0666 less the umask, or emptied.  0/-1. */
int tavel_writeFile(const char *devicePath, const void *data, size_t size);
/* Writes all size bytes to fd, through short writes and EINTR: true, or false
 * with errno set (EIO for a write that took nothing). */
bool tavel_writeAll(int fd, const void *data, size_t size);

/* Opens path read-only without blocking (a FIFO cannot stall the agent) and
 * keeps the descriptor only when it is a regular file of at most maxSize
 * bytes.  Returns the descriptor (close-on-exec), or -1: errno is EINVAL
 * for a file that is not regular and EFBIG for one that is too large. */
int tavel_openRegular(const char *path, size_t maxSize);

/* How long the agent waits for an advisory lock another module holds on
 * one of the shared device files. */
#define TAVEL_FILE_LOCK_LIMIT_MS 10000

/* flock(fd, LOCK_EX), waiting at most limitMs for a holder to let go; a
 * stop pending for the calling thread ends the wait (errno ECANCELED; the
 * caller carries the stop out).  0, or -1 with errno (ETIMEDOUT after the
 * limit), the failure logged with the path given. */
int tavel_lockFile(int fd, const char *path, int limitMs = TAVEL_FILE_LOCK_LIMIT_MS);

/* Closes a descriptor at the end of a scope. */
class FdGuard
{
public:
    explicit FdGuard(int fd) : fd_(fd) {}
    ~FdGuard();
    FdGuard(const FdGuard &) = delete;
    FdGuard &operator=(const FdGuard &) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

/* Closes a stdio stream at the end of a scope. */
struct FileCloser {
    void operator()(FILE *f) const { fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

#endif
