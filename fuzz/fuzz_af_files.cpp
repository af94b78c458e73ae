// Focus and zoom files (the module takes no set requests, has no by-name writer).
#include "harness.h"

FUZZ_FLAT_TYPED_TARGET(af, nullptr, nullptr)
