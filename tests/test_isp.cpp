// ISP module through its table operations and exported functions. Every
// TEST runs in its own process, so start-up state is fresh.
#include <gtest/gtest.h>

#include "scenario.h"
#include "para_isp_internal.h"
#include "support.h"

#include <sys/stat.h>

#include <string>
#include <vector>

namespace {

// Files of the ISP worked example (tests/data/isp/); an empty text leaves
// that file out.
namespace isp_fixture {
std::string data(const char* name)
{
    return test::read_file(scenario::data_path(std::string("isp/") + name)).value_or("");
}
const std::string k_range = data("range.json"), k_styles = data("styles.json"), k_cur = data("cur.json");

void write(const test::TempDir& dir, const std::string& range = k_range, const std::string& styles = k_styles,
           const std::string& cur = k_cur)
{
    if (!range.empty())
        test::write_file(dir.ro() + "/isp_range.json", range);
    if (!styles.empty())
        test::write_file(dir.ro() + "/isp0_def.json", styles);
    if (!cur.empty())
        test::write_file(dir.rw() + "/isp_cur.json", cur);
}
} // namespace isp_fixture

struct Call {
    void* setter;
    int pipe, value;
};
std::vector<Call> g_calls;
int g_pages = 0;

void on_member(void* setter, int pipe, int value)
{
    g_calls.push_back({setter, pipe, value});
}

void on_page(void*)
{
    ++g_pages;
}

std::string printed(const cJSON* json)
{
    if (!json)
        return "";
    para::CharPtr t(cJSON_PrintUnformatted(json));
    return t.get();
}

// Runs a get with request key req and the request item given as text; ""
// when no reply object was stored.
std::string get(const char* req, const char* items)
{
    para::JsonPtr in(cJSON_Parse(items));
    void* out = nullptr;
    EXPECT_EQ(para_get_isp_opt(const_cast<char*>(req), in.get(), &out, const_cast<char*>("isp0")), 0);
    para::JsonPtr owned(static_cast<cJSON*>(out));
    return printed(owned.get());
}

// Runs a set with {key: members}; the item handed over carries the key.
void set(const char* key, const char* members)
{
    std::string text = std::string("{\"") + key + "\":" + members + "}";
    para::JsonPtr req(cJSON_Parse(text.c_str()));
    ASSERT_TRUE(req);
    EXPECT_EQ(para_set_isp_opt(const_cast<char*>(key), req->child, const_cast<char*>("isp0")), 0);
}

class Isp : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir_.use_as_profile();
        para_profile.isp_caller = on_member;
        para_profile.isp_page_caller = on_page;
    }
    void TearDown() override
    {
        para_profile.isp_caller = nullptr;
        para_profile.isp_page_caller = nullptr;
    }
    void start_example()
    {
        isp_fixture::write(dir_);
        ASSERT_EQ(para_init_isp(nullptr), 0);
    }

    test::TempDir dir_;
};

TEST_F(Isp, WorkedExampleStartUp)
{
    test::LogCapture log(6);
    start_example();
    EXPECT_TRUE(log.contains("check isp num = 1"));
    EXPECT_TRUE(log.contains("parse_ok:1"));
    EXPECT_TRUE(log.contains("isp0 param:"));
    EXPECT_FALSE(log.contains("isp1 param:"));

    EXPECT_EQ(para_isp_cur[0].struct_ver, 156);
    EXPECT_EQ(para_isp_max[1].struct_ver, 156);
    EXPECT_EQ(para_get_isp_shutter_min(0), 0);
    EXPECT_EQ(para_get_isp_shutter_max(0), 16);
    EXPECT_EQ(para_get_isp_shutter_def(0), 6);
    EXPECT_EQ(para_get_isp_shutter_cur(0), 9);
    EXPECT_EQ(para_get_isp_exposure_mode_cur(0), 2);
    EXPECT_EQ(para_get_isp_rgain_cur(0), 130);
    EXPECT_EQ(para_get_isp_rgain_def(0), 128);
    EXPECT_EQ(para_isp_exist[0].rgain_tuning, 0x81);
    EXPECT_EQ(para_isp_exist[0].iris, 0);
    EXPECT_EQ(para_isp_exist[0].hotpixel, 0);
    EXPECT_EQ(memcmp(&para_isp_init[0], &para_isp_cur[0], sizeof(dov_isp_param_s)), 0);
    EXPECT_EQ(para_get_isp_shutter_init(0), 9);

    // No style file for ISP 1 and no "isp1" range: only style, [0, 0].
    EXPECT_EQ(para_isp_exist[1].style, 0x81);
    EXPECT_EQ(para_get_isp_style_cur(1), 0);
    EXPECT_EQ(para_get_isp_style_max(1), 0);
    EXPECT_EQ(para_isp_exist[1].shutter, 0);

    // The saved style is the default one: nothing to save.
    EXPECT_FALSE(isp_change_pending());
    EXPECT_TRUE(g_calls.empty());
    EXPECT_EQ(para_init_isp(nullptr), 0); // started once only
}

// The post form (no key) and a missing item give no reply.
TEST_F(Isp, KeylessAndEmptyRequests)
{
    start_example();
    para::JsonPtr in(cJSON_Parse(R"(["all"])"));
    void* out = nullptr;
    EXPECT_EQ(para_get_isp_opt(nullptr, in.get(), &out, nullptr), 0); // post form
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(para_get_isp_opt(const_cast<char*>("isp0"), nullptr, &out, nullptr), 0);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(para_set_isp_opt(nullptr, nullptr, nullptr), 0);
}

// Present members that the set-by-name path must still refuse, and the
// range [0, 0] of members that only the style names.
TEST_F(Isp, NonSettableAndUnrangedMembers)
{
    isp_fixture::write(dir_, R"({"isp0": {"len_type": [0, 9], "ccm_style": [0, 9], "exposure_mode_priority": [0, 9]}})",
                       R"({"isp0_style_list": ["a"], "a": {"len_type": 1, "ccm_style": 2, "exposure_mode_priority": 3, "shutter": 5}})",
                       "");
    test::write_file(dir_.ro() + "/isp1_def.json",
                     R"({"isp0_style_list": ["b"], "b": {"shutter": 4, "iris": 0}})");
    ASSERT_EQ(para_init_isp(nullptr), 0);
    EXPECT_EQ(para_isp_exist[0].len_type, 0x81);

    for (const char* name : {"len_type", "ccm_style", "exposure_mode_priority", "hotpixel"}) {
        EXPECT_EQ(para_set_member(const_cast<char*>(name), 0, 4, nullptr), 0) << name;
        int v = -7;
        EXPECT_EQ(para_get_isp_cur_member(const_cast<char*>(name), 0, &v, nullptr), 0) << name;
        EXPECT_EQ(v, -7) << name;
    }
    EXPECT_EQ(para_isp_cur[0].len_type, 1);
    para::JsonPtr obj(Create_Json_ISPObject(0, 0));
    EXPECT_EQ(printed(obj.get()), R"({"style":0,"shutter":5,"len_type":1,"ccm_style":2})");

    // shutter has no range: only 0 is accepted.
    EXPECT_EQ(_para_set_isp_shutter_cur(0, 1), 0);
    EXPECT_EQ(_para_set_isp_shutter_cur(0, 0), 1);

    // ISP 1 is not in the range file: no replies, but it can be written.
    EXPECT_EQ(get("isp1", R"(["all"])"), "");
    set("isp1", R"({"shutter": 0, "iris": 0})");
    EXPECT_EQ(para_get_isp_shutter_cur(1), 0);
    EXPECT_EQ(g_pages, 1);
}

TEST_F(Isp, MemberSettersAndBadIspNumbers)
{
    start_example();
    EXPECT_EQ(para_set_isp_shutter_cur(0, 11), 0);
    ASSERT_EQ(g_calls.size(), 1u);
    EXPECT_EQ(g_calls[0].setter, reinterpret_cast<void*>(&para_set_isp_shutter_cur));
    EXPECT_EQ(g_calls[0].pipe, 0);
    EXPECT_EQ(g_calls[0].value, 11);

    para_set_isp_shutter_cur(0, 11); // equal
    para_set_isp_shutter_cur(0, 17); // above range
    para_set_isp_iris_cur(0, 0);     // absent
    EXPECT_EQ(g_calls.size(), 1u);
    para_set_isp_wb_mode_cur(0, 6);
    ASSERT_EQ(g_calls.size(), 2u);
    EXPECT_EQ(g_calls[1].setter, reinterpret_cast<void*>(&para_set_isp_wb_mode_cur));
    EXPECT_EQ(_para_set_isp_wb_mode_cur(0, 5), 1);
    EXPECT_EQ(_para_set_isp_wb_mode_cur(0, 5), 0);
    EXPECT_EQ(g_calls.size(), 2u);

    for (int bad : {-1, 2, 1000000}) {
        EXPECT_EQ(para_get_isp_style_cur(bad), -1);
        EXPECT_EQ(para_get_isp_shutter_min(bad), -1);
        EXPECT_EQ(_para_set_isp_style_cur(bad, 0), 0);
        EXPECT_EQ(para_set_isp_style_cur(bad, 1), 0);
        EXPECT_EQ(para_set_member(const_cast<char*>("shutter"), bad, 3, nullptr), 0);
        int v = 0;
        EXPECT_EQ(para_get_isp_def_member(const_cast<char*>("shutter"), bad, &v, nullptr), 0);
        EXPECT_EQ(Create_Json_ISPObject(bad, 0), nullptr);
        EXPECT_EQ(para_set_isp_antiflicker_def(bad, 1), -1);
        EXPECT_EQ(para_set_isp_style_def(bad, 1), -1);
    }
    EXPECT_EQ(g_calls.size(), 2u);
}

TEST_F(Isp, TextConversion)
{
    for (auto* fn : {para_get_isp_shutter_num, para_get_isp_len_type_num, para_get_isp_nr3d_num}) {
        EXPECT_EQ(fn(const_cast<char*>("null")), 0);
        EXPECT_EQ(fn(const_cast<char*>("nu")), 0);
        EXPECT_EQ(fn(const_cast<char*>("")), 0);
        EXPECT_EQ(fn(const_cast<char*>("12abc")), 12);
        EXPECT_EQ(fn(const_cast<char*>("-5")), -1000);
        EXPECT_EQ(fn(const_cast<char*>(" 5")), -1000);
        EXPECT_EQ(fn(nullptr), -1000);
    }
}

// Every file member named once: readers fill each field, the ISP object
// follows the output order and never carries exposure_mode_priority.
TEST_F(Isp, AllMembersReadAndOutputOrder)
{
    static const char* record_order[] = {
#define NAME(m, file, set, out) PARA_ISP_IF_##file(#m, )
        PARA_ISP_MEMBERS(NAME)
#undef NAME
    };
    std::string range = "{\"isp0\":{", style = "{\"isp0_style_list\":[\"s\"],\"s\":{", cur = "{\"isp0\":{";
    int v = 1;
    for (const char* m : record_order) {
        std::string sep = v > 1 ? "," : "";
        range += sep + "\"" + m + "\":[0,1000]";
        style += sep + "\"" + m + "\":" + std::to_string(v);
        cur += sep + "\"" + m + "\":" + std::to_string(v + 100);
        ++v;
    }
    isp_fixture::write(dir_, range + "}}", style + "}}", cur + "}}");
    ASSERT_EQ(para_init_isp(nullptr), 0);

    // Record positions 1..38 hold 1..37 (style is index 0 of the list).
    const int* def = reinterpret_cast<const int*>(&para_isp_def[0]);
    const int* cur_rec = reinterpret_cast<const int*>(&para_isp_cur[0]);
    int expect = 1;
    for (int i = 1; i < 39; ++i) {
        if (i == 37) { // hotpixel: no reader
            EXPECT_EQ(def[i], 0);
            continue;
        }
        EXPECT_EQ(def[i], i == 1 ? 0 : expect) << i;
        EXPECT_EQ(cur_rec[i], expect + 100) << i;
        ++expect;
    }
    EXPECT_EQ(para_get_isp_skin_saturation_min(0), 0);
    EXPECT_EQ(para_get_isp_skin_saturation_max(0), 1000);

    para::JsonPtr obj(Create_Json_ISPObject(0, 1));
    std::vector<std::string> keys;
    for (cJSON* c = obj->child; c; c = c->next)
        keys.push_back(c->string);
    const std::vector<std::string> out_order = {
        "style", "exposure_mode", "shutter", "iris", "bright", "expcomp_mode", "expcomp_level",
        "backlight", "gain_limit", "manual_gain", "antiflicker", "meter", "wdr_strength", "wb_mode",
        "awb_sens", "rgain", "bgain", "rgain_tuning", "bgain_tuning", "ggain_tuning", "rgain_onepush",
        "bgain_onepush", "saturation", "skin_saturation", "hue", "temperature", "len_type",
        "luminance", "contrast", "sharpness", "blackwhite_mode", "gamma", "drc", "ccm_style",
        "nr2d", "nr3d"};
    EXPECT_EQ(keys, out_order);
}

// The style example: indexes rewritten in memory, styles without a
// "style" key, and lookups that refuse anything out of bounds.
TEST_F(Isp, StyleListAndLookups)
{
    isp_fixture::write(dir_);
    test::write_file(dir_.ro() + "/isp1_def.json",
                     R"({"isp0_style_def": 2, "isp0_style_list": ["natural", "outdoor", "indoor"],
                        "natural": {"shutter": 1}, "INDOOR": {"shutter": 3}})");
    ASSERT_EQ(para_init_isp(nullptr), 0);

    EXPECT_EQ(para_isp_style_excute_by_arm(0), 1);
    EXPECT_EQ(para_get_isp_style_index(0, const_cast<char*>("vivid")), 1);
    EXPECT_EQ(para_get_isp_style_index(0, const_cast<char*>("Vivid")), -1);
    EXPECT_EQ(para_get_isp_style_index(0, const_cast<char*>("viv")), -1);
    EXPECT_EQ(cJSON_GetObjectItem(get_isp_style_json(0, 1), "style")->valueint, 1);
    EXPECT_EQ(isp0_para_in_style[1].style, 1);
    EXPECT_EQ(isp0_para_in_style[1].saturation, 70);
    EXPECT_STREQ(para_get_isp_style_string(0, 2), "indoor");

    // A missing style keeps its index; the object lookup ignores case.
    EXPECT_EQ(get_isp_style_json(1, 1), nullptr);
    // The style's name is its own key in the file.
    EXPECT_STREQ(para_get_isp_style_string(1, 2), "INDOOR");
    EXPECT_EQ(para_get_isp_style_index(1, const_cast<char*>("INDOOR")), 2);
    EXPECT_EQ(para_get_isp_style_index(1, const_cast<char*>("indoor")), -1);
    EXPECT_EQ(para_set_isp_style_def_index(1, 1), -1);
    EXPECT_EQ(para_get_isp_shutter_def(1), 3); // default style 2 loaded

    for (int bad : {-1, 3, 1000}) {
        EXPECT_EQ(get_isp_style_json(0, bad), nullptr);
        EXPECT_EQ(para_get_isp_style_param(0, bad), nullptr);
        EXPECT_EQ(para_get_isp_style_string(0, bad), nullptr);
        EXPECT_EQ(para_set_isp_style_def_index(0, bad), -1);
    }
    EXPECT_EQ(get_isp_style_json(2, 0), nullptr);
    EXPECT_EQ(para_get_isp_style_index(-1, const_cast<char*>("vivid")), -1);
    EXPECT_EQ(para_get_isp_style_index(0, nullptr), -1);
    EXPECT_EQ(para_get_isp_style_def_index(5), -1);
    EXPECT_EQ(para_init_isp_style(2), -1);

    // The application gets the current anti-flicker, never the style's own.
    dov_isp_param_s* indoor = para_get_isp_style_param(0, 2);
    ASSERT_NE(indoor, nullptr);
    EXPECT_EQ(indoor->antiflicker, 1);
    EXPECT_EQ(indoor->wb_mode, 2);
}

TEST_F(Isp, StyleDefaultMaintenance)
{
    start_example();
    // "indoor" has no "style" key: the default style stays.
    EXPECT_EQ(para_set_isp_style_def(0, 2), 0);
    EXPECT_EQ(para_get_isp_style_def(0), 0);
    EXPECT_EQ(para_get_isp_wb_mode_def(0), 2);
    EXPECT_EQ(para_get_isp_style_def_index(0), 2);

    EXPECT_EQ(para_set_isp_style_def(0, 1), 0);
    EXPECT_EQ(para_get_isp_style_def(0), 1);
    EXPECT_EQ(para_get_isp_saturation_def(0), 70);
    EXPECT_EQ(para_isp_exist[0].saturation, 0x81);
    EXPECT_EQ(para_set_isp_style_def(0, 3), -1);
    EXPECT_EQ(para_get_isp_shutter_cur(0), 9); // current values untouched
    EXPECT_FALSE(isp_change_pending());

    EXPECT_EQ(para_set_isp_antiflicker_def(0, 3), 0); // out of range
    EXPECT_EQ(para_get_isp_antiflicker_def(0), 2);
    EXPECT_EQ(para_set_isp_antiflicker_def(0, 0), 0);
    EXPECT_EQ(para_get_isp_antiflicker_def(0), 0);
    EXPECT_EQ(para_get_isp_antiflicker_cur(0), 1);
    EXPECT_FALSE(isp_change_pending());

    EXPECT_EQ(para_isp_cur_restore_isp_def(), 0);
    EXPECT_EQ(memcmp(&para_isp_cur[0], &para_isp_def[0], sizeof(dov_isp_param_s)), 0);
    EXPECT_TRUE(g_calls.empty());
    EXPECT_EQ(para_need_save_isp(nullptr), 1); // no change for ages
}

// Factory defaults: the style index applies to both ISPs, the anti-flicker
// default only when a current file was read.
TEST_F(Isp, FactoryOverridesAtStartUp)
{
    isp_fixture::write(dir_);
    test::write_file(dir_.ro() + "/isp1_def.json", isp_fixture::k_styles);
    mkdir((dir_.rw() + "/persist").c_str(), 0775);
    test::write_file(dir_.rw() + "/persist/odm.json",
                     R"({"version": 1, "isp0_style_def": 1, "isp0_antiflicker_def": 2})");
    ASSERT_EQ(para_init_odm(nullptr), 0);
    ASSERT_EQ(para_init_isp(nullptr), 0);

    EXPECT_EQ(para_get_isp_style_def_index(0), 1);
    EXPECT_EQ(para_get_isp_style_def_index(1), 1);
    // ISP 1 has no saved values: the factory style, unchanged.
    EXPECT_EQ(para_get_isp_style_cur(1), 1);
    EXPECT_EQ(para_get_isp_saturation_cur(1), 70);
    EXPECT_EQ(para_get_isp_antiflicker_def(1), 2);
    // ISP 0 saved style 0: a change against the factory default.
    ASSERT_EQ(g_calls.size(), 1u);
    EXPECT_EQ(g_calls[0].pipe, 0);
    EXPECT_EQ(para_get_isp_style_def(0), 0);
    EXPECT_EQ(para_get_isp_antiflicker_def(0), 2);
    EXPECT_EQ(para_get_isp_antiflicker_cur(0), 1);
    EXPECT_TRUE(isp_change_pending());

    // Maintenance writes the factory store (one key for both ISPs).
    EXPECT_EQ(para_set_isp_antiflicker_def(1, 0), 0); // absent on ISP 1
    int v = -1;
    EXPECT_EQ(para_get_odm_int(const_cast<char*>("isp0_antiflicker_def"), &v), 0);
    EXPECT_EQ(v, 2);
    EXPECT_EQ(para_set_isp_antiflicker_def(0, 0), 0);
    EXPECT_EQ(para_get_isp_antiflicker_def(0), 0);
    EXPECT_EQ(para_set_isp_style_def(0, 1), 0);
    EXPECT_EQ(para_get_odm_int(const_cast<char*>("isp0_antiflicker_def"), &v), 0);
    EXPECT_EQ(v, 0);
    EXPECT_EQ(para_get_odm_int(const_cast<char*>("isp0_style_def"), &v), 0);
    EXPECT_EQ(v, 1);
    // "vivid" names no anti-flicker; the start-up copy of the factory value
    // is applied again, not the one just stored.
    EXPECT_EQ(para_get_isp_antiflicker_def(0), 2);
    EXPECT_EQ(para_get_isp_saturation_def(0), 70);
}

TEST_F(Isp, FactoryAntiflickerNeedsCurrentFile)
{
    isp_fixture::write(dir_, isp_fixture::k_range, isp_fixture::k_styles, "");
    mkdir((dir_.rw() + "/persist").c_str(), 0775);
    test::write_file(dir_.rw() + "/persist/odm.json", R"({"isp0_antiflicker_def": 2})");
    ASSERT_EQ(para_init_odm(nullptr), 0);
    ASSERT_EQ(para_init_isp(nullptr), 0);
    EXPECT_EQ(para_get_isp_antiflicker_def(0), 1);
    dov_isp_param_s def = para_isp_def[0];
    EXPECT_EQ(parse_isp_def_odm(0, &def), 0);
    EXPECT_EQ(def.antiflicker, 2);
    EXPECT_EQ(parse_isp_def_odm(0, nullptr), -1);
}

// The current file selects "vivid": its values become the defaults and the
// style change calls back during start-up (the network test sees the save).
TEST_F(Isp, NonDefaultSavedStyleBecomesTheDefaults)
{
    isp_fixture::write(dir_, R"({"isp0": {"style": [0, 3], "shutter": [0, 16]}})",
                       isp_fixture::k_styles, R"({"isp0": {"style": 1, "shutter": 9}})");
    ASSERT_EQ(para_init_isp(nullptr), 0);
    ASSERT_EQ(g_calls.size(), 1u);
    EXPECT_EQ(g_calls[0].setter, reinterpret_cast<void*>(&para_set_isp_style_cur));
    EXPECT_EQ(g_calls[0].value, 1);
    EXPECT_EQ(para_get_isp_style_def(0), 1);
    EXPECT_EQ(para_get_isp_saturation_def(0), 70);
    EXPECT_EQ(para_get_isp_saturation_cur(0), 70);
    EXPECT_EQ(para_get_isp_shutter_def(0), 6); // from the default style first
    EXPECT_EQ(para_get_isp_shutter_cur(0), 9);
    EXPECT_TRUE(isp_change_pending());
    EXPECT_EQ(para_need_save_isp(nullptr), 0);
}

TEST_F(Isp, OutOfRangeSavedStyleKeepsDefaultStyleValues)
{
    isp_fixture::write(dir_, isp_fixture::k_range, isp_fixture::k_styles,
                       R"({"isp0": {"style": 9, "shutter": 20}})");
    ASSERT_EQ(para_init_isp(nullptr), 0);
    EXPECT_TRUE(g_calls.empty());
    EXPECT_EQ(para_get_isp_style_cur(0), 9); // stored unchecked
    EXPECT_EQ(para_get_isp_style_def(0), 0);
    EXPECT_EQ(para_get_isp_shutter_def(0), 6);
    EXPECT_EQ(para_get_isp_shutter_cur(0), 20);
    EXPECT_FALSE(isp_change_pending());
}

// A saved file reads back into a fresh start-up with the same values: a
// forked child starts, changes and saves; this process then starts from
// the child's file.
TEST_F(Isp, SavedFileLoadsBack)
{
    isp_fixture::write(dir_);
    EXPECT_EXIT(
        {
            bool ok = para_init_isp(nullptr) == 0;
            ok = ok && para_set_member(const_cast<char*>("shutter"), 0, 3, nullptr) == 1;
            ok = ok && para_set_member(const_cast<char*>("wb_mode"), 0, 5, nullptr) == 1;
            ok = ok && para_set_member(const_cast<char*>("style"), 0, 2, nullptr) == 1;
            ok = ok && para_save_isp(nullptr) == 0;
            std::exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");

    ASSERT_EQ(para_init_isp(nullptr), 0);
    EXPECT_EQ(get("isp0", R"(["all"])"),
              R"({"style":2,"exposure_mode":2,"shutter":3,"antiflicker":1,"wb_mode":5,"rgain":130,"rgain_tuning":50})");
    // Style 2 ("indoor") was loaded over the defaults before the saved values.
    EXPECT_EQ(para_get_isp_wb_mode_def(0), 2);
    EXPECT_EQ(para_get_isp_antiflicker_def(0), 2);
    EXPECT_TRUE(isp_change_pending()); // the style differs from the default
}

TEST_F(Isp, BadRangeFile)
{
    isp_fixture::write(dir_, "{\"isp0\": [", isp_fixture::k_styles, isp_fixture::k_cur);
    test::LogCapture log(6);
    EXPECT_EQ(para_init_isp(nullptr), -1);
    EXPECT_TRUE(log.contains("Error before: ["));
    EXPECT_EQ(para_init_isp(nullptr), 0); // never retried
    EXPECT_FALSE(log.contains("find style"));
    EXPECT_EQ(para_isp_exist[0].style, 0);
    EXPECT_EQ(get("isp0", R"(["all"])"), "");
    // A forced save must not replace the stored settings with nothing.
    EXPECT_EQ(para_save_isp(nullptr), 0);
    EXPECT_EQ(test::read_file(dir_.rw() + "/isp_cur.json").value_or(""), isp_fixture::k_cur);
}

TEST_F(Isp, BadCurrentFileFallsBackToStyle)
{
    isp_fixture::write(dir_, isp_fixture::k_range, isp_fixture::k_styles, "{\"isp0\": {");
    test::LogCapture log(6);
    ASSERT_EQ(para_init_isp(nullptr), 0);
    EXPECT_TRUE(log.contains("Error before: ["));
    EXPECT_TRUE(log.contains("parse_ok:0"));
    EXPECT_EQ(get("isp0", R"(["all"])"), R"({"style":0,"exposure_mode":0,"shutter":6,"antiflicker":1,"wb_mode":0,"rgain":128,"rgain_tuning":50})");
}

TEST_F(Isp, StyleFileWithoutListOrWithBadStyleKey)
{
    isp_fixture::write(dir_, isp_fixture::k_range,
                       R"({"isp0_style_def": 1, "style_excute_by_arm": 4, "list": ["a"], "a": {}})", "");
    test::write_file(dir_.ro() + "/isp1_def.json",
                     R"({"isp0_style_list": ["a", 3, "b"], "a": {"style": "x", "shutter": 2}, "b": {"style": 0}})");
    test::LogCapture log(6);
    ASSERT_EQ(para_init_isp(nullptr), 0);
    EXPECT_TRUE(log.contains("error\n"));
    EXPECT_EQ(para_get_isp_style_def_index(0), 1);
    EXPECT_EQ(para_isp_style_excute_by_arm(0), 4);
    EXPECT_EQ(get_isp_style_json(0, 0), nullptr);
    EXPECT_EQ(para_get_isp_style_def(0), 1); // index kept although no style

    EXPECT_EQ(isp1_para_in_style[0].style, 0);
    EXPECT_EQ(isp1_para_in_style[2].style, 2);
    EXPECT_EQ(get_isp_style_json(1, 1), nullptr);
    EXPECT_EQ(para_get_isp_shutter_def(1), 2);
}

// An unwritable file still clears the flag.
TEST_F(Isp, UnwritableSaveKeepsTheChangePending)
{
    start_example();
    para_set_isp_shutter_cur(0, 1);
    std::string bad = dir_.path() + "/missing";
    para_profile.param_rwfile_dir = const_cast<char*>(bad.c_str());
    EXPECT_EQ(para_save_isp(nullptr), 0);
    EXPECT_TRUE(isp_change_pending());
}

} // namespace
