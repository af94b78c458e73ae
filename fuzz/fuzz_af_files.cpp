// Focus and zoom parameter files: walkers on a parsed input, then reads
// (the module takes no set requests and has no by-name writer).
#include "typed_harness.h"

FUZZ_FLAT_TYPED_TARGET(af, nullptr, nullptr)
