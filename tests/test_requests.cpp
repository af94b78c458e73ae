// Scenarios of every module (tests/data/requests/*.txt), each on a free port
// of its own, so they run side by side.
#include "scenario.h"

SCENARIO_TESTS(Requests, "requests", false);
