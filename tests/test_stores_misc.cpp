// "misc" in its newer (misc.conf) and older (misc_def.json / misc_cur.json)
// layouts, the older range conversion and the per-member functions.
#include <gtest/gtest.h>

#include "para_internal.h"
#include "support.h"

#include <string>
#include <vector>

namespace {

std::string print(cJSON* json)
{
    para::CharPtr t(cJSON_PrintUnformatted(json));
    return t ? t.get() : "";
}

std::string convert(const char* old_range)
{
    para::JsonPtr old(cJSON_Parse(old_range));
    para::JsonPtr out(fix_old_misc_range_conf(old.get()));
    return print(out.get());
}

const void* g_setter;
std::string g_key;
void member_cb(char*, const void* setter, char* key, int)
{
    g_setter = setter;
    g_key = key;
}

std::string text_of(configure* store, const char* key)
{
    char text[64];
    return store->get(store, key, text, sizeof text) == 0 ? text : "(missing)";
}

void load_misc(test::TempDir& dir)
{
    dir.use_as_profile();
    para_profile.misc_caller = member_cb;
    para_init_misc(const_cast<char*>("json"));
    para_init_misc(const_cast<char*>("misc"));
}

void older_files(test::TempDir& dir)
{
    test::write_file(dir.ro() + "/misc_range.json",
                     R"({"mirror":[0,1],"lock":[0,1],"hdmivideoformat":["1080P60","720P50"],)"
                     R"("ViStrategy":["50","osd"],"ndi_mode":["low","high"]})");
    test::write_file(dir.ro() + "/misc_def.json",
                     R"({"mirror":0,"lock":0,"hdmivideoformat":"1080P60","ViStrategy":"dial","ndi_mode":"low"})");
}

void newer_files(test::TempDir& dir)
{
    // File keys match without case: "Version" selects the newer layout.
    test::write_file(dir.ro() + "/misc_range.json",
                     R"({"Version":1,"mirror":[0,1],"hdmivideoformat":["1080P60","1080P50","4KP30"]})");
    test::write_file(dir.ro() + "/misc.conf", "mirror=0\nhdmivideoformat=1080P50\n");
}

} // namespace

TEST(MiscRange, OlderRunsExpandFromFixedTables)
{
    EXPECT_EQ(convert(R"({"mirror":[0,1],"hdmivideoformat":["1080P60","720P50"],"ViStrategy":["50","osd"]})"),
              R"({"version":0,"mirror":[0,1],)"
              R"("hdmivideoformat":["1080P60","1080P50","1080I60","1080I50","720P60","720P50"],)"
              R"("ViStrategy":["50","60","dial","osd"]})");
    EXPECT_EQ(convert(R"({"ndi_mode":["low","high"]})"), R"({"version":0,"ndi_mode":["low","medium","high"]})");
    // One-element ranges, old numeric versions and non-name ends are dropped.
    EXPECT_EQ(convert(R"({"ViStrategy":["dial"],"version":3,"ndi_mode":[1,2],"lock":[0]})"), R"({"version":0})");
    // Prefix matches: "1080P" starts at 1080P60; a last met before first ends the run.
    EXPECT_EQ(convert(R"({"hdmivideoformat":["1080P","1080P50"]})"),
              R"({"version":0,"hdmivideoformat":["1080P60","1080P50"]})");
    EXPECT_EQ(convert(R"({"ndi_mode":["high","low"]})"), R"({"version":0,"ndi_mode":[]})");
    EXPECT_EQ(convert(R"({"ndi_mode":["265P60","nomatch"]})"), R"({"version":0,"ndi_mode":["265P60"]})");
    // Key names of the tables compare with case.
    EXPECT_EQ(convert(R"({"vistrategy":["50","osd"]})"), R"({"version":0,"vistrategy":["50","osd"]})");
    EXPECT_EQ(convert(nullptr), R"({"version":0})");
}

TEST(MiscLegacy, OlderLayoutLoadsConvertsAndSavesAsJson)
{
    test::TempDir dir;
    older_files(dir);
    test::write_file(dir.rw() + "/misc_cur.json", R"({"mirror":1,"ndi_mode":"high"})");
    load_misc(dir);
    EXPECT_EQ(para_get_misc_mirror_cur(), 1);
    EXPECT_EQ(para_get_misc_mirror_def(), 0);
    EXPECT_EQ(para_get_misc_hdmivideoformat_max(), 5);
    EXPECT_STREQ(para_get_misc_hdmivideoformat_str(4), "720P60");
    EXPECT_EQ(para_get_misc_hdmivideoformat_num("720P60"), 4);
    EXPECT_EQ(para_get_misc_ViStrategy_cur(), 2);
    EXPECT_EQ(para_get_misc_ndi_mode_cur(), 2);
    EXPECT_EQ(para_get_misc_ndi_mode_min(), 0); // index of the first name
    EXPECT_EQ(para_get_misc_flip_cur(), -1);        // not in the files

    EXPECT_EQ(para_set_misc_ViStrategy_cur_bystr("osd"), 1);
    EXPECT_EQ(g_setter, nullptr); // by name: no callback
    EXPECT_EQ(para_set_misc_hdmivideoformat_cur(4), 1);
    EXPECT_EQ(g_setter, reinterpret_cast<const void*>(&para_set_misc_hdmivideoformat_cur));
    EXPECT_EQ(g_key, "hdmivideoformat");
    EXPECT_EQ(para_save_misc(const_cast<char*>("misc")), 0);

    auto saved = test::read_file(dir.rw() + "/misc_cur.json");
    ASSERT_TRUE(saved);
    ASSERT_FALSE(saved->empty());
    EXPECT_EQ(saved->back(), '\0');
    EXPECT_EQ(saved->find('\0'), saved->size() - 1);
    EXPECT_EQ(test::compact(saved->c_str()),
              R"({"mirror":1,"lock":0,"hdmivideoformat":"720P60","ViStrategy":"osd","ndi_mode":"high"})");
    EXPECT_FALSE(test::file_exists(dir.rw() + "/misc.conf"));

    // What was saved loads back through the older value loader.
    configure* back = configure_init();
    ASSERT_EQ(fix_old_misc_def_cur_conf((dir.rw() + "/misc_cur.json").c_str(), back), 0);
    EXPECT_EQ(text_of(back, "hdmivideoformat"), "720P60");
    EXPECT_EQ(text_of(back, "mirror"), "1");
    configure_free(back);
}

TEST(MiscLegacy, VersionZeroIsTheOlderLayout)
{
    test::TempDir dir;
    test::write_file(dir.ro() + "/misc_range.json", R"({"version":0,"ViStrategy":["60","osd"]})");
    test::write_file(dir.ro() + "/misc_def.json", R"({"ViStrategy":"dial"})");
    load_misc(dir);
    EXPECT_EQ(para_get_misc_ViStrategy_max(), 2);
    EXPECT_EQ(para_get_misc_ViStrategy_cur(), 1);
}

TEST(MiscLegacy, NewerLayoutSavesMiscConfThatLoadsBack)
{
    test::TempDir dir;
    newer_files(dir);
    test::write_file(dir.rw() + "/misc.conf", "mirror=1\n");
    load_misc(dir);
    EXPECT_EQ(para_get_misc_mirror_cur(), 1);
    EXPECT_EQ(para_get_misc_hdmivideoformat_def(), 1);
    EXPECT_EQ(para_get_misc_hdmivideoformat_max(), 2);
    EXPECT_EQ(para_set_misc_mirror_cur(0), 1);
    EXPECT_EQ(g_setter, reinterpret_cast<const void*>(&para_set_misc_mirror_cur));
    EXPECT_EQ(para_set_misc_mirror_cur(0), 0);
    EXPECT_EQ(para_set_misc_hdmivideoformat_cur_bystr("4KP30"), 1);
    EXPECT_EQ(para_save_misc(const_cast<char*>("misc")), 0);
    EXPECT_FALSE(test::file_exists(dir.rw() + "/misc_cur.json"));
    EXPECT_FALSE(test::file_exists(dir.rw() + "/misc.conf.tmp"));

    configure* back = configure_init();
    ASSERT_EQ(configure_parse(back, nullptr, (dir.rw() + "/misc.conf").c_str()), 0);
    EXPECT_EQ(text_of(back, "hdmivideoformat"), "4KP30");
    EXPECT_EQ(text_of(back, "mirror"), "0");
    configure_free(back);
}

TEST(MiscLegacy, NewerLayoutWithoutDefaultsKeepsRangeOnly)
{
    test::TempDir dir;
    newer_files(dir);
    std::remove((dir.ro() + "/misc.conf").c_str());
    configure *cur = nullptr, *def = nullptr;
    cJSON* range = nullptr;
    dir.use_as_profile();
    EXPECT_EQ(para_init_misc_legacy(const_cast<char*>("misc"), &cur, &def, &range), -1);
    ASSERT_NE(range, nullptr);
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(range, "hdmivideoformat")), 3);
    EXPECT_EQ(cur->list.used, 0u);
    configure_free(cur);
    configure_free(def);
    cJSON_Delete(range);
}

TEST(MiscLegacy, UnreadableRangeMeansNoSave)
{
    test::TempDir dir;
    test::write_file(dir.ro() + "/misc_def.json", R"({"mirror":1})");
    test::LogCapture log;
    load_misc(dir);
    EXPECT_TRUE(log.contains("Error range def buf"));
    EXPECT_EQ(para_get_misc_mirror_cur(), -1);
    EXPECT_EQ(para_save_misc(const_cast<char*>("misc")), 0);
    EXPECT_FALSE(test::file_exists(dir.rw() + "/misc_cur.json"));
    EXPECT_FALSE(test::file_exists(dir.rw() + "/misc.conf"));

    test::write_file(dir.ro() + "/misc_range.json", "{\"mirror\":");
    configure *cur = nullptr, *def = nullptr;
    cJSON* range = nullptr;
    EXPECT_EQ(para_init_misc_legacy(const_cast<char*>("misc"), &cur, &def, &range), -1);
    EXPECT_TRUE(log.contains("Error before: ["));
    configure_free(cur);
    configure_free(def);
}

TEST(MiscLegacy, OlderValueFileTypes)
{
    test::TempDir dir;
    test::write_file(dir.path() + "/v.json", R"({"a":"text","b":2.9,"c":true,"d":null})");
    test::write_file(dir.path() + "/bad.json", "{");
    configure* s = configure_init();
    EXPECT_EQ(fix_old_misc_def_cur_conf((dir.path() + "/v.json").c_str(), s), 0);
    EXPECT_EQ(text_of(s, "a"), "text");
    EXPECT_EQ(text_of(s, "b"), "2");
    EXPECT_EQ(text_of(s, "c"), "1");
    EXPECT_EQ(text_of(s, "d"), "0");
    EXPECT_EQ(fix_old_misc_def_cur_conf((dir.path() + "/bad.json").c_str(), s), -1);
    EXPECT_EQ(fix_old_misc_def_cur_conf((dir.path() + "/none.json").c_str(), s), -1);
    configure_free(s);
}
