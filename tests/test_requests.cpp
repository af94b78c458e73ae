// Scenarios of every module (tests/data/requests/*.txt), each on a free port
// of its own, so they run side by side.
#include "scenario.h"

#include <gtest/gtest.h>

class Requests : public ::testing::TestWithParam<std::string> {};

TEST_P(Requests, Scenario)
{
    scenario::run("requests", GetParam(), false);
}

INSTANTIATE_TEST_SUITE_P(Data, Requests, ::testing::ValuesIn(scenario::list("requests")),
                         [](const auto& info) { return info.param; });
