// Reply headers of the onboarding server, one line at a time, unterminated.
#include "fuzz_inputs.h"

TAVEL_FUZZ_TARGET(runHeaders, true, false)
