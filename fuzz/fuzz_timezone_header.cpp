// The "timezone" reply header in both of its forms, unterminated.
#include "fuzz_inputs.h"

TAVEL_FUZZ_TARGET(runTimezoneHeader, true, false)
