// Scenarios on UDP port 6800 itself (tests/data/net/*.txt): the port the
// device's clients and web server use.
#include "scenario.h"

#include <gtest/gtest.h>

class Net : public ::testing::TestWithParam<std::string> {};

TEST_P(Net, Scenario)
{
    scenario::run("net", GetParam(), true);
}

INSTANTIATE_TEST_SUITE_P(Data, Net, ::testing::ValuesIn(scenario::list("net")),
                         [](const auto& info) { return info.param; });
