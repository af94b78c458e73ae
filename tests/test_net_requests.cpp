// Scenarios on UDP port 6800 itself (tests/data/net/*.txt): the port the
// device's clients and web server use.
#include "scenario.h"

SCENARIO_TESTS(Net, "net", true);
