// JSON-described modules ("example" stands for any module of the JSON
// pattern list other than "misc"), "misc" in its newer (misc.conf) and older
// (misc_def.json / misc_cur.json) layouts and the cJSON helpers, as scenarios
// of tests/data/stores_json and stores_misc; the trace of bad trees here.
#include <gtest/gtest.h>

#include "para_internal.h"
#include "scenario.h"
#include "support.h"

#include <climits>
#include <cmath>

SCENARIO_TESTS(StoresJson, "stores_json", false);
SCENARIO_TESTS(StoresMisc, "stores_misc", false);

TEST(JsonUtil, PrintSafeNamesBadTrees)
{
    test::LogCapture log(6);
    cJSON_Print_safe(nullptr);
    EXPECT_TRUE(log.contains("ERROR : json null,return:0x"));
    para::JsonPtr j(cJSON_Parse(R"({"a":1})"));
    cJSON_Print2_safe(j.get(), "here");
    EXPECT_TRUE(log.contains("dbg_msg:here type:0x40,{"));
    log.clear();
    dbgout_profile.para_level = 3;
    cJSON_Print_safe(j.get());
    EXPECT_TRUE(log.lines().empty());
}

// Numbers a file or request may hold become ints without overflow: clamped
// at the ends, truncated toward zero, NaN (only a host can build one) as 0.
TEST(JsonUtil, NumbersClampToInt)
{
    for (auto [d, i] : {std::pair{1e300, INT_MAX}, {-1e300, INT_MIN}, {NAN, 0}, {-2.9, -2}, {2147483646.5, INT_MAX - 1}})
        EXPECT_EQ(para::json_int(para::JsonPtr(cJSON_CreateNumber(d)).get()), i) << d;
}
