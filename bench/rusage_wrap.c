/* Runs a command as its child and reports the child's pid and, at its end,
 * its peak RSS (ru_maxrss of wait4, KiB: the largest of the process and its
 * waited-for descendants).
 *
 * The command must be a child of a small process: at exec the kernel carries
 * the peak RSS of the process image being replaced into the new one, so a
 * direct child of the (large) benchmark interpreter would report the
 * interpreter's size instead of its own.
 *
 * usage: rusage_wrap REPORT_FILE COMMAND [ARG...]
 * REPORT_FILE gets "pid N" at once and "maxrss K status S" at the end.
 */
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: rusage_wrap REPORT_FILE COMMAND [ARG...]\n");
        return 2;
    }
    FILE *report = fopen(argv[1], "w");
    if (report == NULL) {
        perror(argv[1]);
        return 2;
    }
    pid_t pid = fork();
    if (pid < 0) {
        perror("fork");
        return 2;
    }
    if (pid == 0) {
        fclose(report);
        execvp(argv[2], argv + 2);
        perror(argv[2]);
        _exit(127);
    }
    fprintf(report, "pid %d\n", (int)pid);
    fflush(report);
    int status = 0;
    struct rusage ru;
    while (wait4(pid, &status, 0, &ru) < 0) {
    }
    fprintf(report, "maxrss %ld status %d\n", ru.ru_maxrss, WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
    fclose(report);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
