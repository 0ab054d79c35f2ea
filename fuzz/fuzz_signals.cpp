// Payloads of the agent's bus signals and the debug-command interpreter.
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
    tavel_fuzz::silenceStdout();
    initAgentState();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    tavel_fuzz::boundLogs();
    if (!tavel_fuzz::runSignals(data, size)) {
        abort();
    }
    return 0;
}
