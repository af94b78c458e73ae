// JSON-described modules ("example" stands for any module of the JSON
// pattern list other than "misc"), "misc" in its newer (misc.conf) and older
// (misc_def.json / misc_cur.json) layouts and the cJSON helpers, as scenarios
// of tests/data/stores_json and stores_misc; the trace of bad trees here.
#include <gtest/gtest.h>

#include "para_internal.h"
#include "scenario.h"
#include "support.h"

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
