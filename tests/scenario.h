// The one host harness of every test that runs the library: a scenario file
// under tests/data/ names the parameter files, starts the library, sends
// requests and checks replies, callbacks, saved files and log lines.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace scenario {

// Path of a file or directory under tests/data/.
std::string data_path(const std::string& name);
// Names of the scenario files in tests/data/<dir> (without ".txt"), sorted.
std::vector<std::string> list(const std::string& dir);
// Runs tests/data/<dir>/<name>.txt; every failed step is a test failure.
// With fixed_port the server binds 6800, otherwise any free port.
void run(const std::string& dir, const std::string& name, bool fixed_port);

} // namespace scenario

// One test per scenario file of tests/data/DIR, named Data/SUITE.Scenario/<file>.
#define SCENARIO_TESTS(SUITE, DIR, FIXED_PORT)                                                                    \
    class SUITE : public ::testing::TestWithParam<std::string> {};                                               \
    TEST_P(SUITE, Scenario) { scenario::run(DIR, GetParam(), FIXED_PORT); }                                      \
    INSTANTIATE_TEST_SUITE_P(Data, SUITE, ::testing::ValuesIn(scenario::list(DIR)),                              \
                             [](const auto& info) { return info.param; })
