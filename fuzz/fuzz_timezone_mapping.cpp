// The time-zone mapping file: the line split and the search for code and city.
#include "fuzz_inputs.h"

TAVEL_FUZZ_TARGET(runTimezoneMapping, true, false)
