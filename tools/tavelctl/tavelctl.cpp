// Entry of tavelctl: picks the command group and prints one usage text.
#include <stdio.h>
#include <string.h>

#include "tavelctl.h"

namespace
{
void usage()
{
    fprintf(stderr, "usage: tavelctl COMMAND ...\n");
    tavelctlDmlUsage();
    tavelctlBusUsage();
}
} // namespace

int main(int argc, char **argv)
{
    if (argc < 2 || strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0) {
        usage();
        return argc < 2 ? 2 : 0;
    }
    if (strcmp(argv[1], "dml") == 0) {
        return tavelctlDml(argc - 2, argv + 2);
    }
    if (tavelctlIsBusCommand(argv[1])) {
        return tavelctlBus(argc - 1, argv + 1);
    }
    fprintf(stderr, "tavelctl: unknown command '%s' (try --help)\n", argv[1]);
    return 2;
}
