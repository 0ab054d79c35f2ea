#include "files.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "stop.h"
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
            TAVEL_LOGE("cannot create directory %s: %s\n", path, strerror(errno));
            return -1;
        }
        path[i] = saved;
    }
    struct stat st;
    int err = stat(path, &st) != 0 ? errno : S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
    if (err != 0) {
        TAVEL_LOGE("cannot create directory %s: %s\n", path, strerror(err));
        errno = err;
        return -1;
    }
    return 0;
}

int tavel_touch(const char *devicePath)
{
    DevicePath path(devicePath);
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666);
    FdGuard guard(fd);
    if (fd < 0 || futimens(fd, nullptr) != 0) {
        TAVEL_LOGE("cannot create marker %s: %s\n", path.c_str(), strerror(errno));
        return -1;
    }
    return 0;
}

namespace
{

// Deeper trees than any device directory holds are refused rather than
// walked with a descriptor per level.
constexpr int kRemoveDepthMax = 32;
// An entry that keeps changing between a file and a directory under the
// walk (someone racing it) is given up after this many tries.
constexpr int kRemoveTries = 4;

int removeAt(int parentFd, const char *name, int depth);

// Empties the directory open at dirFd.  Every step is relative to a
// descriptor and no link is followed, so the walk never leaves the
// directory, whatever is renamed or swapped for a link meanwhile.
int clearDir(int dirFd, int depth)
{
    int listFd = openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR *dir = listFd >= 0 ? fdopendir(listFd) : nullptr;
    if (dir == nullptr) {
        if (listFd >= 0) {
            close(listFd);
        }
        return -1;
    }
    std::unique_ptr<DIR, int (*)(DIR *)> guard(dir, closedir);
    int rc = 0;
    int err = 0;
    while (const struct dirent *entry = readdir(dir)) {
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) {
            continue;
        }
        if (removeAt(dirFd, entry->d_name, depth) != 0 && rc == 0) {
            rc = -1;
            err = errno;
        }
    }
    errno = err;
    return rc;
}

// Removes the entry name of the directory open at parentFd, a directory
// with everything under it.
int removeAt(int parentFd, const char *name, int depth)
{
    for (int attempt = 0; attempt < kRemoveTries; ++attempt) {
        if (unlinkat(parentFd, name, 0) == 0 || errno == ENOENT) {
            return 0;
        }
        if (errno != EISDIR && errno != EPERM) {
            return -1;
        }
        int fd = openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            if (errno == ENOTDIR || errno == ELOOP || errno == ENOENT) {
                continue; // no longer a directory: unlinked on the next try
            }
            return -1;
        }
        FdGuard guard(fd);
        if (depth >= kRemoveDepthMax) {
            errno = ELOOP;
            return -1;
        }
        int cleared = clearDir(fd, depth + 1);
        int clearErr = errno;
        if (unlinkat(parentFd, name, AT_REMOVEDIR) == 0 || errno == ENOENT) {
            return 0;
        }
        if (cleared != 0) {
            // Say why the directory could not be emptied, not that it is not empty.
            errno = clearErr;
            return -1;
        }
        if (errno != ENOTDIR) {
            return -1;
        }
    }
    errno = EAGAIN;
    return -1;
}

} // namespace

int tavel_remove(const char *devicePath, bool recursive)
{
    DevicePath path(devicePath);
    if (unlink(path.c_str()) == 0 || errno == ENOENT) {
        return 0;
    }
    if (!recursive || (errno != EISDIR && errno != EPERM)) {
        TAVEL_LOGE("cannot remove %s: %s\n", path.c_str(), strerror(errno));
        return -1;
    }
    // The walk starts from the parent's descriptor, so the directory named
    // is the one cleared even if its path changes under the walk.
    char parent[sizeof(DevicePath)];
    tavel_copyText(parent, sizeof(parent), path.c_str(), sizeof(parent) - 1);
    char *slash = strrchr(parent, '/');
    const char *name = slash != nullptr ? slash + 1 : parent;
    int rc = -1;
    if (slash == nullptr || name[0] == '\0' || strcmp(name, ".") == 0 || strcmp(name, "..") == 0) {
        errno = EINVAL;
    } else {
        *slash = '\0';
        int parentFd = open(slash == parent ? "/" : parent, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (parentFd >= 0) {
            FdGuard guard(parentFd);
            rc = removeAt(parentFd, name, 0);
        }
    }
    if (rc != 0) {
        TAVEL_LOGE("cannot remove %s: %s\n", path.c_str(), strerror(errno));
    }
    return rc;
}

bool tavel_writeAll(int fd, const void *data, size_t size)
{
    const char *p = static_cast<const char *>(data);
    while (size > 0) {
        ssize_t n = write(fd, p, size);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            errno = n == 0 ? EIO : errno;
            return false;
        }
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

int tavel_writeFile(const char *devicePath, const void *data, size_t size)
{
    DevicePath path(devicePath);
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOCTTY | O_CLOEXEC, 0666);
    FdGuard guard(fd);
    if (fd < 0 || !tavel_writeAll(fd, data, size)) {
        TAVEL_LOGE("cannot write %s: %s\n", path.c_str(), strerror(errno));
        return -1;
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
    } else if (waited == ETIMEDOUT) {
        TAVEL_LOGE("lock of %s still held by another after %d ms: given up\n", path, limitMs);
    } else {
        TAVEL_LOGE("cannot lock %s: %s\n", path, strerror(err));
    }
    errno = waited != 0 ? waited : err;
    return -1;
}
