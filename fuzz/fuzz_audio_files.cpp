// Audio parameter files.
#include "harness.h"

FUZZ_FLAT_TYPED_TARGET(audio, para_set_audio_opt,
                       [](char* n, int, int v, char* t) { return para_set_audio_member_json(n, v, t); })
