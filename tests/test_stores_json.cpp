// JSON-described modules ("example" stands for any module of the JSON
// pattern list other than "misc") and the cJSON helpers.
#include <gtest/gtest.h>

#include "para_internal.h"
#include "support.h"

#include <string>
#include <vector>

namespace {

const char* kRange = R"({"mirror":[0,1],"vi_framerate":[1,60],)"
                     R"("hdmivideoformat":["1080P60","1080P50","720P60"],"odd":[true],"Bright":[0,100]})";
const char* kDefaults = "mirror=0\nvi_framerate=30\nhdmivideoformat=1080P60\n";

struct MiscCall {
    std::string module, key;
    const void* setter;
    int value;
};
std::vector<MiscCall> g_member_calls;
std::vector<std::string> g_page_calls;

void member_cb(char* file, const void* setter, char* key, int value)
{
    g_member_calls.push_back({file, key, setter, value});
}
void page_cb(char* file, void*)
{
    g_page_calls.emplace_back(file);
}

void module_files(test::TempDir& dir, const std::string& name)
{
    test::write_file(dir.ro() + "/" + name + "_range.json", kRange);
    test::write_file(dir.ro() + "/" + name + ".conf", kDefaults);
}

void load(test::TempDir& dir, std::vector<const char*> names)
{
    dir.use_as_profile();
    para_profile.misc_caller = member_cb;
    para_profile.misc_page_caller = page_cb;
    para_init_misc(const_cast<char*>("json"));
    for (const char* n : names)
        para_init_misc(const_cast<char*>(n));
}

std::string print(cJSON* json)
{
    para::CharPtr t(cJSON_PrintUnformatted(json));
    return t ? t.get() : "";
}

std::string request_get(const char* req_key, const char* items, const char* module, int* result = nullptr)
{
    para::JsonPtr req(cJSON_Parse(items));
    req->string = const_cast<char*>(req_key);
    void* out = nullptr;
    int r = para_get_misc_opt(const_cast<char*>(req_key), req.get(), &out, const_cast<char*>(module));
    if (result)
        *result = r;
    req->string = nullptr;
    para::JsonPtr o(static_cast<cJSON*>(out));
    return o ? print(o.get()) : "(none)";
}

void request_set(const char* items, const char* module)
{
    para::JsonPtr req(cJSON_Parse(items));
    para_set_misc_opt(const_cast<char*>(module), req.get(), const_cast<char*>(module));
}

} // namespace

TEST(JsonStore, ExampleModuleRangesDefaultsAndSave)
{
    test::TempDir dir;
    module_files(dir, "example");
    load(dir, {"example"});
    EXPECT_EQ(para_get_json_min("example", "vi_framerate"), 1);
    EXPECT_EQ(para_get_json_max("example", "vi_framerate"), 60);
    EXPECT_EQ(para_get_json_max("example", "hdmivideoformat"), 2);
    EXPECT_EQ(para_get_json_def("example", "hdmivideoformat"), 0);
    EXPECT_EQ(para_get_json_cur("example", "vi_framerate"), 30);

    EXPECT_EQ(_para_set_json_cur("example", "hdmivideoformat", 2), 1);
    EXPECT_EQ(para_get_json_cur("example", "hdmivideoformat"), 2);
    EXPECT_EQ(para_get_json_def("example", "hdmivideoformat"), 0);
    char text[16];
    ASSERT_EQ(para_get_json_string("example", "hdmivideoformat", text, sizeof text), 0);
    EXPECT_STREQ(text, "720P60");

    EXPECT_EQ(para_save_misc(const_cast<char*>("example")), 0);
    EXPECT_EQ(*test::read_file(dir.rw() + "/example.conf"),
              "mirror=0\nvi_framerate=30\nhdmivideoformat=720P60\n");
}

TEST(JsonStore, SavedFileLoadsBackAsCurrentValues)
{
    test::TempDir dir;
    module_files(dir, "first");
    module_files(dir, "second");
    load(dir, {"first"});
    _para_set_json_cur("first", "vi_framerate", 25);
    _para_set_json_cur("first", "hdmivideoformat", 1);
    ASSERT_EQ(para_save_misc(const_cast<char*>("first")), 0);
    // The saved file becomes the read-write layer of another module.
    test::write_file(dir.rw() + "/second.conf", *test::read_file(dir.rw() + "/first.conf"));
    para_init_misc(const_cast<char*>("second"));
    EXPECT_EQ(para_get_json_cur("second", "vi_framerate"), 25);
    EXPECT_EQ(para_get_json_cur("second", "hdmivideoformat"), 1);
    EXPECT_EQ(para_get_json_def("second", "vi_framerate"), 30);
}

TEST(JsonStore, SetRulesByKind)
{
    test::TempDir dir;
    module_files(dir, "example");
    test::write_file(dir.ro() + "/example.conf", std::string(kDefaults) + "odd=1\n");
    load(dir, {"example"});
    // Numbers: any integer other than the current one, range not enforced.
    EXPECT_EQ(para_set_json_cur_number("example", "vi_framerate", 30), 0);
    EXPECT_EQ(para_need_save_misc(const_cast<char*>("example")), 0);
    EXPECT_EQ(para_set_json_cur_number("example", "vi_framerate", 500), 1);
    EXPECT_EQ(para_set_json_cur_number("example", "hdmivideoformat", 1), 0); // a name key
    EXPECT_EQ(para_set_json_cur_number("example", "odd", 2), 0);             // kind 0
    // Names: exact members of the list only.
    EXPECT_EQ(para_set_json_cur_str("example", "hdmivideoformat", "720P"), 0);
    EXPECT_EQ(para_set_json_cur_str("example", "hdmivideoformat", "1080P60"), 0); // current
    EXPECT_EQ(para_set_json_cur_str("example", "hdmivideoformat", nullptr), 0);
    EXPECT_EQ(_para_set_json_cur("example", "hdmivideoformat", 3), 0);
    EXPECT_EQ(_para_set_json_cur("example", "hdmivideoformat", -1), 0);
    // In the range file but in neither .conf: never enters the store.
    EXPECT_EQ(_para_set_json_cur("example", "Bright", 5), 0);
    EXPECT_EQ(para_get_json_cur("example", "Bright"), -1);
    EXPECT_EQ(_para_set_json_cur("nosuch", "mirror", 1), -1);
    EXPECT_EQ(para_get_json_min("nosuch", "mirror"), -1);
}

TEST(JsonStore, FileKeysMatchWithoutCase)
{
    test::TempDir dir;
    module_files(dir, "example");
    load(dir, {"example"});
    EXPECT_EQ(peek_json_enum_type("example", "BRIGHT"), cJSON_Number);
    EXPECT_EQ(para_get_json_max("example", "bright"), 100);
    EXPECT_EQ(peek_json_enum_type("example", "HdmiVideoFormat"), cJSON_String);
    EXPECT_EQ(peek_json_enum_type("example", "missing"), 0);
    EXPECT_EQ(peek_json_enum_type("nosuch", "mirror"), -1);
}

TEST(JsonStore, CurrentNameOutsideListReadsAsMinusOne)
{
    test::TempDir dir;
    module_files(dir, "example");
    test::write_file(dir.rw() + "/example.conf", "hdmivideoformat=4KP60\n");
    load(dir, {"example"});
    EXPECT_EQ(para_get_json_cur("example", "hdmivideoformat"), -1);
    EXPECT_EQ(para_get_json_def("example", "hdmivideoformat"), 0);
    EXPECT_STREQ(para_get_json_emum_str("example", "hdmivideoformat", 1), "1080P50");
    EXPECT_EQ(para_get_json_emum_str("example", "hdmivideoformat", 3), nullptr);
    EXPECT_EQ(para_get_json_emum_str("example", "vi_framerate", 0), nullptr);
    EXPECT_EQ(para_get_json_enum_index("example", "vi_framerate", "1"), -1);
}

TEST(JsonStore, SaveBecomesDueTwoSecondsAfterLatestChange)
{
    test::TempDir dir;
    module_files(dir, "example");
    load(dir, {"example"});
    para_set_json_cur("example", "mirror", 1);
    EXPECT_EQ(para_need_save_misc(const_cast<char*>("example")), 0);
    ASSERT_TRUE(test::wait_until([] { return para_need_save_misc(const_cast<char*>("example")) == 1; }, 3000));
    para_set_json_cur("example", "mirror", 0); // restarts the wait
    EXPECT_EQ(para_need_save_misc(const_cast<char*>("example")), 0);
    EXPECT_EQ(para_save_misc(const_cast<char*>("example")), 0);
    EXPECT_EQ(para_need_save_misc(const_cast<char*>("example")), 0);
}

TEST(JsonStore, MemberCallbackNamesTheGenericSetter)
{
    test::TempDir dir;
    module_files(dir, "example");
    load(dir, {"example"});
    EXPECT_EQ(para_set_json_cur("example", "mirror", 0), 0);
    EXPECT_TRUE(g_member_calls.empty());
    EXPECT_EQ(para_set_json_cur("example", "hdmivideoformat", 1), 1);
    ASSERT_EQ(g_member_calls.size(), 1u);
    EXPECT_EQ(g_member_calls[0].module, "example");
    EXPECT_EQ(g_member_calls[0].key, "hdmivideoformat");
    EXPECT_EQ(g_member_calls[0].setter, reinterpret_cast<const void*>(&para_set_json_cur));
    EXPECT_EQ(g_member_calls[0].value, 1);
}

TEST(JsonStore, GetRequests)
{
    test::TempDir dir;
    module_files(dir, "example");
    test::write_file(dir.rw() + "/example.conf", "mirror=1\nextra=7\n");
    load(dir, {"example"});
    EXPECT_EQ(request_get("example", R"(["mirror","hdmivideoformat","extra","nosuch",4])", "example"),
              R"({"mirror":1,"hdmivideoformat":"1080P60"})");
    EXPECT_EQ(request_get("example_def", R"(["mirror"])", "example"), R"({"mirror":0})");
    EXPECT_EQ(request_get("example_def", R"(["all"])", "example"),
              R"({"mirror":0,"vi_framerate":30,"hdmivideoformat":"1080P60"})");
    // Everything current; a key missing from the range file comes out as a number.
    EXPECT_EQ(request_get("example", R"(["allx"])", "example"),
              R"({"mirror":1,"vi_framerate":30,"hdmivideoformat":"1080P60","extra":7})");
    EXPECT_EQ(request_get("example", "[1]", "example"), "{}");
    int r = 0;
    EXPECT_EQ(request_get("nosuch", R"(["all"])", "nosuch", &r), "(none)");
    EXPECT_EQ(r, -1);
}

TEST(JsonStore, SetRequestsCheckKindAndCallPageOnce)
{
    test::TempDir dir;
    module_files(dir, "example");
    load(dir, {"example"});
    {
        test::LogCapture log;
        request_set(R"({"mirror":"1","hdmivideoformat":2,"flag":true})", "example");
        EXPECT_TRUE(log.contains("mirror type wrong,set:16,def:8"));
        EXPECT_TRUE(log.contains("hdmivideoformat type wrong,set:8,def:16"));
        EXPECT_TRUE(log.contains("flag type wrong,set:2,def:0"));
        EXPECT_TRUE(g_page_calls.empty());
    }
    request_set(R"({"mirror":1,"hdmivideoformat":"720P60","vi_framerate":30})", "example");
    EXPECT_EQ(para_get_json_cur("example", "mirror"), 1);
    EXPECT_EQ(para_get_json_cur("example", "hdmivideoformat"), 2);
    EXPECT_EQ(g_page_calls, std::vector<std::string>{"example"});
    EXPECT_TRUE(g_member_calls.empty());
}

TEST(JsonStore, SaveToBufferAndObject)
{
    test::TempDir dir;
    module_files(dir, "example");
    load(dir, {"example"});
    char buf[128];
    const int need = static_cast<int>(std::strlen(kDefaults)) + 1;
    EXPECT_EQ(para_save_misc_conf_2_buf("example", buf, need), need);
    EXPECT_STREQ(buf, kDefaults);
    test::LogCapture log;
    EXPECT_EQ(para_save_misc_conf_2_buf("example", buf, need - 1), 0);
    EXPECT_TRUE(log.contains("example buf is not enough"));
    EXPECT_EQ(para_save_misc_conf_2_buf("nosuch", buf, sizeof buf), -1);

    para::JsonPtr obj(cJSON_CreateObject());
    Create_Json_Misc_Object("nosuch", obj.get(), 0);
    EXPECT_EQ(print(obj.get()), "{}");
}

TEST(JsonStore, FailedModuleGivesItsSlotToTheNext)
{
    test::TempDir dir;
    module_files(dir, "example");
    test::LogCapture log;
    load(dir, {"broken", "example"});
    EXPECT_TRUE(log.contains("Error range "));
    EXPECT_EQ(para_need_save_misc(const_cast<char*>("broken")), -1);
    EXPECT_EQ(para_save_misc(const_cast<char*>("broken")), -1);
    EXPECT_EQ(para_get_json_cur("example", "vi_framerate"), 30);

    test::write_file(dir.ro() + "/bad_range.json", "{\"mirror\":[0,");
    para_init_misc(const_cast<char*>("bad"));
    EXPECT_TRUE(log.contains("Error before: ["));
}

TEST(JsonStore, SixteenthModuleIsTheLast)
{
    test::TempDir dir;
    load(dir, {});
    test::LogCapture log;
    for (int i = 0; i < 17; ++i) {
        std::string n = "m" + std::to_string(i);
        module_files(dir, n);
        para_init_misc(n.data());
    }
    EXPECT_EQ(para_get_json_cur("m15", "vi_framerate"), 30);
    EXPECT_EQ(para_get_json_cur("m16", "vi_framerate"), -1);
    EXPECT_TRUE(log.contains("err no free json slot for m16"));
}

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

TEST(JsonUtil, TypedReads)
{
    para::JsonPtr j(cJSON_Parse(R"({"n":300,"s":"txt","a":[1,258,-1,4],"o":{}})"));
    cJSON* o = j.get();
    EXPECT_EQ(json_object_get_int(cJSON_GetObjectItem(o, "n")), 300);
    EXPECT_EQ(json_object_get_int(cJSON_GetObjectItem(o, "s")), -1);
    EXPECT_STREQ(json_object_get_string(cJSON_GetObjectItem(o, "s")), "txt");
    EXPECT_EQ(json_object_get_string(nullptr), nullptr);

    int v = 0;
    EXPECT_EQ(json_object_load_number(o, "N", &v), 0);
    EXPECT_EQ(v, 300);
    EXPECT_EQ(json_object_load_number(o, "s", &v), -1);
    EXPECT_EQ(json_object_load_number(nullptr, "n", &v), -1);

    uint8_t buf[3] = {9, 9, 9};
    EXPECT_EQ(json_object_load_u8_array(o, "a", buf, 3), 3);
    EXPECT_EQ(buf[0], 1);
    EXPECT_EQ(buf[1], 2);
    EXPECT_EQ(buf[2], 255);
    EXPECT_EQ(json_object_load_u8_array(o, "o", buf, 3), -1);
    EXPECT_EQ(json_object_load_u8_array(o, "x", buf, 3), -1);
    EXPECT_EQ(json_object_load_u8_array(nullptr, "a", buf, 3), 0);
    EXPECT_EQ(json_object_load_u8_array(o, "a", buf, 0), 0);

    char* text = nullptr;
    EXPECT_EQ(json_object_load_string(o, "missing", &text, "def"), 0);
    EXPECT_STREQ(text, "def");
    EXPECT_EQ(json_object_load_string(o, "s", &text, "def"), 0);
    EXPECT_STREQ(text, "txt");
    EXPECT_EQ(json_object_load_string(o, "n", &text, "def"), -1);
    EXPECT_STREQ(text, "txt");
    free(text);
}
