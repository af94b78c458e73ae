// "misc" in its newer (misc.conf) and older (misc_def.json / misc_cur.json)
// layouts, the older range conversion and the per-member functions, as
// scenarios of tests/data/stores_misc.
#include <gtest/gtest.h>

#include "scenario.h"

class StoresMisc : public ::testing::TestWithParam<std::string> {};
TEST_P(StoresMisc, Scenario) { scenario::run("stores_misc", GetParam(), false); }
INSTANTIATE_TEST_SUITE_P(Files, StoresMisc, ::testing::ValuesIn(scenario::list("stores_misc")));
