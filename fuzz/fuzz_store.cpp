// The data-model store file: parser, decoding, rendering and the dml_ getters.
#include "fuzz_inputs.h"

TAVEL_FUZZ_TARGET(runStore, false, false)
