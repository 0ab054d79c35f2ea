#include "process.h"

#include <errno.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <initializer_list>

// Not every C library declares it without _GNU_SOURCE.
extern char **environ; // NOLINT(readability-redundant-declaration)

int tavel_spawn(const char *const argv[])
{
    posix_spawnattr_t attr;
    if (posix_spawnattr_init(&attr) != 0) {
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
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    pid_t pid = -1;
    // posix_spawnp takes char *const[] for historical reasons; it does not
    // write to the strings.
    int rc = posix_spawnp(&pid, argv[0], nullptr, &attr, const_cast<char *const *>(argv), environ);
    posix_spawnattr_destroy(&attr);
    if (rc != 0) {
        errno = rc;
        return -1;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    // Where the C library cannot report a failed exec (older glibc, user-mode
    // emulators), the child exits 127 instead, as POSIX has it.
    if (WIFEXITED(status) && WEXITSTATUS(status) == 127) {
        errno = ENOENT;
        return -1;
    }
    return status;
}
