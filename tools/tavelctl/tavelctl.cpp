// Entry of tavelctl: the command groups, the help text and the checks of the
// environment that every store command relies on.
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <stdlib.h>

#include "tavelctl.h"

namespace
{

void usage(FILE *out)
{
    fputs("usage: tavelctl COMMAND [ARGS...]\n"
          "       tavelctl --help | --version\n"
          "Operator and lab tool for tavelAgent, the gateway's onboarding agent.\n\n",
          out);
    tavelctlBusUsage(out);
    fputc('\n', out);
    tavelctlDmlUsage(out);
    fputs("\nEnvironment:\n"
          "  DBUS_SYSTEM_BUS_ADDRESS    the bus of the bus commands (default: the system bus)\n"
          "  TAVEL_ROOT                 prefix of every device path of the store commands; unset on a\n"
          "                             device.  Refused unless an existing directory named by an\n"
          "                             absolute path of at most 256 characters of A-Za-z0-9/._-\n\n"
          "Exit status: 0 done; 1 failed (one line on standard error); 2 bad command line or\n"
          "environment; 3 tavelAgent is not running (status, dbg).\n"
          "See tavelctl(1).\n",
          out);
}

// The agent takes only such a root, so a store command must not work on
// another one; a relative root would follow the working directory, and a
// missing one would answer every get with an empty value.
bool rootUsable()
{
    const char *root = getenv("TAVEL_ROOT");
    if (root == nullptr || root[0] == '\0') {
        return true;
    }
    size_t n = strlen(root);
    bool plain = root[0] == '/' && n <= 256 &&
                 strspn(root, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                              "0123456789/._-") == n;
    if (!plain) {
        fprintf(stderr,
                "tavelctl: TAVEL_ROOT must be an absolute path of at most 256 characters of "
                "A-Za-z0-9/._-: '%.300s'\n",
                root);
        return false;
    }
    struct stat st;
    if (stat(root, &st) != 0 || !S_ISDIR(st.st_mode)) {
        fprintf(stderr, "tavelctl: TAVEL_ROOT %s is not an existing directory\n", root);
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        usage(stderr);
        return 2;
    }
    const char *command = argv[1];
    if (strcmp(command, "-h") == 0 || strcmp(command, "--help") == 0 || strcmp(command, "help") == 0) {
        usage(stdout);
        return fflush(stdout) == 0 ? 0 : 1;
    }
    if (strcmp(command, "--version") == 0) {
        printf("tavelctl %s\n", TAVEL_VERSION);
        return fflush(stdout) == 0 ? 0 : 1;
    }
    if (strcmp(command, "dml") == 0 || strcmp(command, "factory-reset") == 0) {
        if (!rootUsable()) {
            return 2;
        }
        return command[0] == 'd' ? tavelctlDml(argc - 2, argv + 2) : tavelctlFactoryReset(argc - 2, argv + 2);
    }
    if (tavelctlIsBusCommand(command)) {
        return tavelctlBus(argc - 1, argv + 1);
    }
    fprintf(stderr, "tavelctl: unknown command '%.100s' (try --help)\n", command);
    return 2;
}
