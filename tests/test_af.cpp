// The typed modules (video, ISP, audio, focus/zoom) one scenario at a time
// (tests/data/typed/*.txt): exported functions, table operations, files.
#include "scenario.h"

#include <gtest/gtest.h>

class Typed : public ::testing::TestWithParam<std::string> {};

TEST_P(Typed, Scenario)
{
    scenario::run("typed", GetParam(), false);
}

INSTANTIATE_TEST_SUITE_P(Data, Typed, ::testing::ValuesIn(scenario::list("typed")),
                         [](const auto& info) { return info.param; });
