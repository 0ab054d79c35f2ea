// "tavelctl dml ..." in a build against an external platform: the command
// edits the stand-in's store file, which such a device does not read, so it
// refuses rather than show or change a file nobody uses.
#include <stdio.h>

#include "tavelctl.h"

int tavelctlDml(int /*argc*/, char ** /*argv*/)
{
    fprintf(stderr,
            "tavelctl: dml: this build uses the device's own data-model layer (TAVEL_PLATFORM=external), "
            "not the stand-in's store; use the platform's tools to read or change the data model\n");
    return 2;
}

void tavelctlDmlUsage()
{
    fprintf(stderr, "  tavelctl dml ...               (the stand-in's store only; refused in this build)\n");
}
