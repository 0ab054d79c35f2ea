#include "files.h"

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "main.h"
#include "util.h"

FdGuard::~FdGuard()
{
    if (fd_ >= 0) {
        close(fd_);
    }
}

int tavel_makeDirs(const char *devicePath)
{
    DevicePath full(devicePath);
    char path[sizeof(DevicePath)];
    tavel_copyText(path, sizeof(path), full.c_str(), sizeof(path) - 1);
    size_t len = strlen(path);
    // Every prefix ending before a slash, then the whole path.
    for (size_t i = 1; i <= len; ++i) {
        if (i < len && path[i] != '/') {
            continue;
        }
        char saved = path[i];
        path[i] = '\0';
        if (mkdir(path, 0777) != 0 && errno != EEXIST) {
            return -1;
        }
        path[i] = saved;
    }
    struct stat st;
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode) ? 0 : -1;
}

int tavel_touch(const char *devicePath)
{
    int fd =
        open(DevicePath(devicePath).c_str(), O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666);
    if (fd < 0) {
        return -1;
    }
    FdGuard guard(fd);
    return futimens(fd, nullptr);
}

namespace
{
int removeEntry(const char *path, const struct stat * /*st*/, int type, struct FTW * /*ftw*/)
{
    return type == FTW_DP ? rmdir(path) : unlink(path);
}
} // namespace

int tavel_remove(const char *devicePath, bool recursive)
{
    DevicePath path(devicePath);
    if (unlink(path.c_str()) == 0 || errno == ENOENT) {
        return 0;
    }
    if (!recursive || (errno != EISDIR && errno != EPERM)) {
        return -1;
    }
    // Depth first, never following a link out of the tree.
    return nftw(path.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS) == 0 ? 0 : -1;
}

int tavel_writeFile(const char *devicePath, const void *data, size_t size)
{
    int fd = open(DevicePath(devicePath).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOCTTY | O_CLOEXEC, 0666);
    if (fd < 0) {
        return -1;
    }
    FdGuard guard(fd);
    const char *p = static_cast<const char *>(data);
    while (size > 0) {
        ssize_t n = write(fd, p, size);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        p += n;
        size -= static_cast<size_t>(n);
    }
    return 0;
}

int tavel_openRegular(const char *path, size_t maxSize)
{
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    struct stat st;
    int err = 0;
    if (fstat(fd, &st) != 0) {
        err = errno;
    } else if (!S_ISREG(st.st_mode)) {
        err = EINVAL;
    } else if (static_cast<unsigned long long>(st.st_size) > maxSize) {
        err = EFBIG;
    }
    if (err != 0) {
        close(fd);
        errno = err;
        return -1;
    }
    return fd;
}

int tavel_lockFile(int fd, const char *path, int limitMs)
{
    int err = 0;
    int waited = tavel_waitUntil(
        [&] {
            if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
                return true;
            }
            err = errno == EWOULDBLOCK || errno == EINTR ? 0 : errno;
            return err != 0;
        },
        limitMs);
    if (waited == 0 && err == 0) {
        return 0;
    }
    if (waited == ECANCELED) {
        TAVEL_LOGE("lock of %s given up at the stop\n", path);
        tavel_stopPoint();
    } else if (waited == ETIMEDOUT) {
        TAVEL_LOGE("lock of %s still held by another after %d ms: given up\n", path, limitMs);
    } else {
        TAVEL_LOGE("cannot lock %s: %s\n", path, strerror(err));
    }
    errno = waited != 0 ? waited : err;
    return -1;
}
