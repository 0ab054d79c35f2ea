// Payloads of the agent's bus signals and the debug-command interpreter.
#include "fuzz_inputs.h"

TAVEL_FUZZ_TARGET(runSignals, true, true)
