// Audio parameter files: walkers on a parsed input, then requests.
#include "typed_harness.h"

FUZZ_FLAT_TYPED_TARGET(audio, para_set_audio_opt, para_set_audio_member_json)
