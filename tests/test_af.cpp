// The typed modules (video, ISP, audio, focus/zoom) one scenario at a time
// (tests/data/typed/*.txt): exported functions, table operations, files.
#include "scenario.h"

#include <gtest/gtest.h>

SCENARIO_TESTS(Typed, "typed", false);
