// Focus/zoom module: plain numbers, setter without existence test, get-only
// requests under the key "af", fixed save delay.
#include "support.h"
#include "typed_support.h"

#include <gtest/gtest.h>

namespace {

std::vector<std::pair<void*, int>> member_calls;

void on_member(void* setter, int value)
{
    member_calls.emplace_back(setter, value);
}

class Af : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir.use_as_profile();
        para_profile.af_caller = on_member;
        test::write_file(dir.ro() + "/af_range.json",
                         R"({"focus_mode": [0, 2], "focus_value": [0, 500], "zoom_value": [0, 300],)"
                         R"( "focus_zone": [0, 5], "focus_sens": 9, "focus_lock": {"a": 1, "b": 4}})");
        test::write_file(dir.ro() + "/af_def.json",
                         R"({"focus_mode": 0, "focus_value": 100, "zoom_value": 0, "focus_lock": "on",)"
                         R"( "struct_ver": 5})");
        test::write_file(dir.rw() + "/af_cur.json",
                         R"({"focus_mode": 1, "focus_value": 240, "zoom_value": 30, "struct_ver": 6})");
    }
    static std::string get(const char* request) { return typed_test::get(para_get_af_opt, request); }

    test::TempDir dir;
};

TEST_F(Af, LoadsPlainNumbers)
{
    test::LogCapture log;
    ASSERT_EQ(para_init_af(nullptr), 0);
    EXPECT_TRUE(log.contains("parse_ok:1"));
    EXPECT_TRUE(log.contains("----------AF PARAM-----------"));
    EXPECT_EQ(para_get_af_focus_value_cur(), 240);
    EXPECT_EQ(para_get_af_focus_value_def(), 100);
    EXPECT_EQ(para_get_af_zoom_value_init(), 30);
    EXPECT_EQ(para_get_af_focus_sens_max(), 0);  // a single number is no range
    EXPECT_EQ(para_get_af_focus_lock_max(), 4);  // any container of two counts
    EXPECT_EQ(para_af_exist.focus_lock, 1);      // a text default exists as 0
    EXPECT_EQ(para_get_af_focus_lock_def(), 0);
    EXPECT_EQ(para_af_exist.focus_zone, 0);
    EXPECT_EQ(para_get_af_focus_zone_cur(), 0);  // no existence test
    for (const dov_af_param_s* r : {&para_af_min, &para_af_max, &para_af_def, &para_af_cur,
                                    &para_af_init, &para_af_exist})
        EXPECT_EQ(r->struct_ver, 0);

    int val = -5;
    EXPECT_EQ(para_get_af_member_json(const_cast<char*>("zoom_value"), &val, nullptr), 1);
    EXPECT_EQ(val, 30);
    EXPECT_EQ(para_get_af_member_json(const_cast<char*>("focus_zone"), &val, nullptr), 0);
    EXPECT_EQ(para_get_af_member_json(const_cast<char*>("struct_ver"), &val, nullptr), 0);
}

TEST_F(Af, SetterAndGetRequests)
{
    ASSERT_EQ(para_init_af(nullptr), 0);
    EXPECT_EQ(get(R"({"af": ["zoom_value"]})"), R"({"zoom_value":30})");
    EXPECT_EQ(get(R"({"af": ["all"]})"),
              R"({"focus_mode":1,"focus_value":240,"focus_lock":0,"zoom_value":30})");
    EXPECT_EQ(get(R"({"a": ["zoom_value", "focus_zone", "struct_ver", 1]})"), R"({"zoom_value":30})");
    EXPECT_EQ(get(R"({"afx": ["all"]})"), "");
    EXPECT_EQ(get(R"({"af": {"zoom_value": 1}})"), "");
    EXPECT_FALSE(typed_test::answers_whole_message(para_get_af_opt, R"({"msg_type": "post", "msg_name": "af"})"));

    EXPECT_EQ(para_set_af_zoom_value_cur(301), 0);
    EXPECT_EQ(para_set_af_zoom_value_cur(30), 0);
    EXPECT_TRUE(member_calls.empty());
    EXPECT_EQ(para_need_save_af(nullptr), 0);
    EXPECT_EQ(para_set_af_focus_zone_cur(5), 0); // stored though it has no default
    EXPECT_EQ(para_get_af_focus_zone_cur(), 5);
    ASSERT_EQ(member_calls.size(), 1u);
    EXPECT_EQ(member_calls[0].first, reinterpret_cast<void*>(&para_set_af_focus_zone_cur));
    EXPECT_EQ(member_calls[0].second, 5);
    EXPECT_EQ(get(R"({"af": ["focus_zone"]})"), "{}");
}

TEST_F(Af, SavesAfterTwoSecondsAndLoadsBack)
{
    ASSERT_EQ(para_init_af(nullptr), 0);
    para_set_af_zoom_value_cur(120);
    para_set_af_focus_zone_cur(2);
    auto changed = std::chrono::steady_clock::now();
    ASSERT_TRUE(test::wait_until([] { return para_need_save_af(nullptr) == 1; }, 3000));
    EXPECT_GE(std::chrono::steady_clock::now() - changed, std::chrono::milliseconds(1990));
    EXPECT_EQ(para_save_af(nullptr), 0);
    EXPECT_EQ(para_need_save_af(nullptr), 0);
    std::string text = test::read_file(dir.rw() + "/af_cur.json").value_or("");
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text.back(), '\0');
    EXPECT_EQ(test::compact(text.c_str()),
              R"({"focus_mode":1,"focus_value":240,"focus_lock":0,"zoom_value":120})");

    para_af_cur.zoom_value = 0;
    ASSERT_EQ(para_init_af(nullptr), 0);
    EXPECT_EQ(para_get_af_zoom_value_cur(), 120);
}

TEST_F(Af, FailuresAreQuietButParseErrorsLogged)
{
    test::LogCapture log;
    test::write_file(dir.rw() + "/af_cur.json", "{");
    EXPECT_EQ(para_init_af(nullptr), 0);
    EXPECT_TRUE(log.contains("Error before: ["));
    EXPECT_TRUE(log.contains("parse_ok:0"));
    EXPECT_EQ(para_get_af_focus_value_cur(), 100);

    log.clear();
    test::TempDir empty;
    empty.use_as_profile();
    EXPECT_EQ(para_init_af(nullptr), -1);
    EXPECT_FALSE(log.contains("Error"));
}

} // namespace
