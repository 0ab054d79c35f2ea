// "tavelctl dml ..." and "tavelctl factory-reset" in a build against an
// external platform: both edit the stand-in's store file, which such a device
// does not read, so they refuse rather than show or change a file nobody uses.
#include <stdio.h>

#include "tavelctl.h"

namespace
{

int refuse(const char *command)
{
    fprintf(stderr,
            "tavelctl: %s: this build uses the device's own data-model layer (TAVEL_PLATFORM=external), "
            "not the stand-in's store; use the platform's tools to read or change the data model\n",
            command);
    return 2;
}

} // namespace

int tavelctlDml(int /*argc*/, char ** /*argv*/)
{
    return refuse("dml");
}

int tavelctlFactoryReset(int /*argc*/, char ** /*argv*/)
{
    return refuse("factory-reset");
}

void tavelctlDmlUsage(FILE *out)
{
    fprintf(out, "  tavelctl dml ...               (the stand-in's store only; refused in this build)\n"
                 "  tavelctl factory-reset ...     (the stand-in's store only; refused in this build)\n");
}
