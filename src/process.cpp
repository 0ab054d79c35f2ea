#include "process.h"

#include <errno.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <initializer_list>

#include "files.h"
#include "stop.h"
#include "util.h"

// Not every C library declares it without _GNU_SOURCE.
extern char **environ; // NOLINT(readability-redundant-declaration)

namespace
{

// The command as an operator would type it, cut to fit a log line.
class CommandText
{
public:
    explicit CommandText(const char *const argv[])
    {
        size_t used = 0;
        for (size_t i = 0; argv[i] != nullptr && used + 1 < sizeof(buf_); ++i) {
            int n = snprintf(buf_ + used, sizeof(buf_) - used, i == 0 ? "%s" : " %s", argv[i]);
            used = n < 0 ? used : used + static_cast<size_t>(n);
        }
    }
    const char *c_str() const { return buf_; }

private:
    char buf_[200] = {0};
};

// The child and everything it started went in one group: killing the group
// leaves none of them behind.
void killAndReap(pid_t pid)
{
    kill(-pid, SIGKILL);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
}

} // namespace

int tavel_spawn(const char *const argv[], int limitMs)
{
    CommandText text(argv);
    posix_spawnattr_t attr;
    if (posix_spawnattr_init(&attr) != 0) {
        TAVEL_LOGE("cannot run '%s': %s\n", text.c_str(), strerror(errno));
        return -1;
    }
    // The agent keeps its own signals blocked in every thread; a command must
    // not inherit that, or a stop of the service could not end it.
    sigset_t none;
    sigset_t defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGPIPE}) {
        sigaddset(&defaults, sig);
    }
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    pid_t pid = -1;
    // posix_spawnp takes char *const[] for historical reasons; it does not
    // write to the strings.
    int rc = posix_spawnp(&pid, argv[0], nullptr, &attr, const_cast<char *const *>(argv), environ);
    posix_spawnattr_destroy(&attr);
    if (rc != 0) {
        TAVEL_LOGE("cannot run '%s': %s\n", text.c_str(), strerror(rc));
        errno = rc;
        return -1;
    }
    int status = 0;
    int waitErr = 0;
    auto reaped = [&] {
        pid_t got = waitpid(pid, &status, WNOHANG);
        waitErr = got < 0 && errno != EINTR ? errno : 0;
        return got == pid || waitErr != 0;
    };
    // The command's end wakes the wait at once through a pidfd: polling
    // found each of the start-up's firewall commands up to a pause late, and
    // the first request waits for the last of them.  Kernels before 5.3 have
    // no pidfd; the polling wait stays for them.
    int ended;
#ifdef SYS_pidfd_open
    int pidFd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
    int pidFd = -1;
#endif
    if (pidFd >= 0) {
        FdGuard guard(pidFd);
        ended = tavel_waitReadable(pidFd, limitMs);
        if (ended == 0 && !reaped()) {
            ended = tavel_waitUntil(reaped, limitMs);
        }
    } else {
        ended = tavel_waitUntil(reaped, limitMs);
    }
    if (ended != 0) {
        killAndReap(pid);
        if (ended == ECANCELED) {
            TAVEL_LOGE("'%s' still running at the stop: killed\n", text.c_str());
        } else {
            TAVEL_LOGE("'%s' still running after %d ms: killed\n", text.c_str(), limitMs);
        }
        errno = ended;
        return -1;
    }
    if (waitErr != 0) {
        TAVEL_LOGE("cannot wait for '%s': %s\n", text.c_str(), strerror(waitErr));
        errno = waitErr;
        return -1;
    }
    // Where the C library cannot report a failed exec (older glibc, user-mode
    // emulators), the child exits 127 instead, as POSIX has it.
    if (WIFEXITED(status) && WEXITSTATUS(status) == 127) {
        TAVEL_LOGE("cannot run '%s': %s\n", text.c_str(), strerror(ENOENT));
        errno = ENOENT;
        return -1;
    }
    if (WIFSIGNALED(status)) {
        TAVEL_LOGE("'%s' ended by signal %d\n", text.c_str(), WTERMSIG(status));
    } else if (WEXITSTATUS(status) != 0) {
        TAVEL_LOGN("'%s' exited with status %d\n", text.c_str(), WEXITSTATUS(status));
    }
    return status;
}
