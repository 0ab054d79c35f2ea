// The time-zone mapping file: the line split and the search for code and city.
// The input layout and the rules checked are described in fuzz_inputs.h.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include "fuzz_common.h"
#include "fuzz_inputs.h"
#include "main.h"

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/)
{
    tavel_fuzz::initRoot();
    initAgentState();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    tavel_fuzz::boundLogs();
    if (!tavel_fuzz::runTimezoneMapping(data, size)) {
        abort();
    }
    return 0;
}
