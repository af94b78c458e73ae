// Audio module: loading, member access by function and by name, requests,
// saved key order and the settable save delay.
#include "scenario.h"
#include "support.h"
#include "typed_support.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

const std::string kRange = *test::read_file(scenario::data_path("audio/range.json"));
const std::string kDef = *test::read_file(scenario::data_path("audio/def.json"));

std::vector<std::pair<void*, int>> member_calls;
std::vector<std::string> page_calls;

void on_member(void* setter, int value)
{
    member_calls.emplace_back(setter, value);
}

void on_page(void* json)
{
    page_calls.push_back(typed_test::printed(json));
}

class Audio : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir.use_as_profile();
        para_profile.audio_caller = on_member;
        para_profile.audio_page_caller = on_page;
    }
    void load(const std::string& range = kRange, const std::string& def = kDef)
    {
        test::write_file(dir.ro() + "/audio_range.json", range);
        test::write_file(dir.ro() + "/audio_def.json", def);
        ASSERT_EQ(para_init_audio(nullptr), 0);
    }
    static std::string get(const char* request) { return typed_test::get(para_get_audio_opt, request); }
    static void set(const char* request) { typed_test::set(para_set_audio_opt, request); }
    std::string saved() { return test::read_file(dir.rw() + "/audio_cur.json").value_or(""); }

    test::TempDir dir;
};

TEST_F(Audio, LoadsExampleAndChecksWrites)
{
    test::LogCapture log;
    load();
    EXPECT_TRUE(log.contains("parse_ok:0"));
    EXPECT_EQ(para_get_audio_volLeftIn_cur(), 80);
    EXPECT_EQ(para_get_audio_volLeftIn_max(), 100);
    EXPECT_EQ(para_get_audio_audioInput_max(), 1);
    EXPECT_EQ(para_audio_exist.aeFormat, 0x101);
    EXPECT_EQ(para_audio_exist.mute, 0x81);
    EXPECT_EQ(para_get_audio_denoise_cur(), -1);
    EXPECT_EQ(para_get_audio_denoise_init(), -1);
    EXPECT_EQ(para_get_audio_denoise_def(), 0);
    // The dump lists absent members too, with cur -1.
    EXPECT_TRUE(log.contains("         denoise : cur:[-1],\tdef:[0],\trange:[0,0]"));
    EXPECT_TRUE(log.contains("----------AUDIO PARAM-----------"));

    EXPECT_EQ(_para_set_audio_volLeftIn_cur(101), 0);
    EXPECT_EQ(_para_set_audio_volLeftIn_cur(-1), 0);
    EXPECT_EQ(_para_set_audio_volLeftIn_cur(80), 0);
    EXPECT_EQ(_para_set_audio_denoise_cur(0), 0);
    EXPECT_EQ(para_need_save_audio(nullptr), 0);
    EXPECT_EQ(_para_set_audio_volLeftIn_cur(100), 1);
    EXPECT_EQ(para_set_audio_mute_cur(1), 0);
    EXPECT_EQ(para_set_audio_mute_cur(1), 0);
    ASSERT_EQ(member_calls.size(), 1u);
    EXPECT_EQ(member_calls[0].first, reinterpret_cast<void*>(&para_set_audio_mute_cur));
    EXPECT_EQ(member_calls[0].second, 1);
    EXPECT_EQ(para_get_audio_mute_init(), 0);

    EXPECT_STREQ(para_get_audio_audioOut_str(1), "hdmi");
    EXPECT_EQ(para_get_audio_audioOut_str(2), nullptr);
    EXPECT_EQ(para_get_audio_aeFormat_num(const_cast<char*>("G7")), 1);
    EXPECT_EQ(para_get_audio_mute_num(const_cast<char*>("x")), -1000);
}

TEST_F(Audio, MembersByName)
{
    load(kRange, R"({"audioEnable": "null", "aeFormat": 1, "audioInput": "mic", "mute": 0, "volLeftIn": 3})");
    char* name = nullptr;
    int val = 0;
    EXPECT_EQ(para_get_audio_member_json(const_cast<char*>("audioInput"), &val, &name), 0x101);
    EXPECT_STREQ(name, "micin");
    EXPECT_EQ(val, 1);
    EXPECT_EQ(para_get_audio_member_json(const_cast<char*>("aeFormat"), &val, &name), 0x81);
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(para_get_audio_member_json(const_cast<char*>("mutex"), &val, &name), 0);
    EXPECT_EQ(para_get_audio_member_json(nullptr, &val, &name), 0);

    auto put = [](const char* key, int v, const char* text) {
        return para_set_audio_member_json(const_cast<char*>(key), v, const_cast<char*>(text));
    };
    EXPECT_EQ(put("muteX", 1, nullptr), 0);      // the key must be whole
    EXPECT_EQ(put("audioInput", 0, nullptr), 0); // a named member needs its text
    EXPECT_EQ(put("aeFormat", 0, "AAC"), 0);     // default was a number: no name writes
    EXPECT_EQ(put("audioEnable", 0, nullptr), 0);
    EXPECT_EQ(put("audioEnable", 1, nullptr), 0); // default was a name: no number writes
    EXPECT_EQ(put("denoise", 1, nullptr), 0);
    EXPECT_EQ(put("audioInput", 0, "zzz"), 0);
    EXPECT_EQ(put("audioInput", 0, "line"), 1);
    EXPECT_EQ(put("mute", 1, "ignored"), 1);
    EXPECT_EQ(para_get_audio_audioInput_cur(), 0);
    EXPECT_EQ(para_get_audio_mute_cur(), 1);
    EXPECT_TRUE(member_calls.empty());
}

// The module itself answers "data" (a writing post's key) and no keyless
// message; the request tables are in tests/data/requests/audio_get_set.txt.
TEST_F(Audio, DataKeyAndKeylessRequests)
{
    load();
    EXPECT_EQ(get(R"({"data": ["alles"]})"), get(R"({"audio": ["all"]})"));
    EXPECT_FALSE(typed_test::answers_whole_message(para_get_audio_opt, R"({"msg_type": "post", "msg_name": "mute", "msg_id": 3})"));
    set(R"({"data": {"volLeftIn": 5}})");
    EXPECT_EQ(para_get_audio_volLeftIn_cur(), 5);
    EXPECT_EQ(page_calls.size(), 1u);
}

TEST_F(Audio, SavesInItsKeyOrderAndLoadsBack)
{
    std::string range = "{", def = "{";
    const char* keys[] = {"audioEnable", "aeFormat", "adtsFlag", "sampleRate", "streamRate",
                          "audioInput", "volLeftIn", "volRightIn", "audioInputVol", "audioOut",
                          "audioOutVol", "mute", "denoise", "agcEnable"};
    for (const char* k : keys) {
        range += std::string(range.size() > 1 ? "," : "") + "\"" + k + "\": [0, 100]";
        def += std::string(def.size() > 1 ? "," : "") + "\"" + k + "\": 1";
    }
    load(range + "}", def + "}");
    para_set_audio_audioOut_cur(0);
    para_set_audio_agcEnable_cur(7);
    EXPECT_EQ(para_save_audio(nullptr), 0);
    std::string text = saved();
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text.back(), '\0');
    EXPECT_EQ(test::compact(text.c_str()),
              R"({"audioEnable":1,"adtsFlag":1,"aeFormat":"G711A","sampleRate":1,"streamRate":1,)"
              R"("audioInput":"micin","volLeftIn":1,"volRightIn":1,"audioOut":"lineout",)"
              R"("audioInputVol":1,"audioOutVol":1,"mute":1,"denoise":1,"agcEnable":7})");

    // Loading again takes the saved file over the defaults.
    test::LogCapture log;
    ASSERT_EQ(para_init_audio(nullptr), 0);
    EXPECT_TRUE(log.contains("parse_ok:1"));
    EXPECT_EQ(para_get_audio_agcEnable_cur(), 7);
    EXPECT_EQ(para_get_audio_audioOut_cur(), 0);
}

TEST_F(Audio, SettableDelay)
{
    load();
    para_set_audio_save_param_time(200);
    para_set_audio_mute_cur(1);
    EXPECT_EQ(save_cur_audio_param_delay(-1), 0);
    EXPECT_TRUE(saved().empty());
    EXPECT_TRUE(test::wait_until([] { return para_need_save_audio(nullptr) == 1; }, 1000));
    EXPECT_EQ(save_cur_audio_param_delay(-1), 0);
    EXPECT_EQ(test::compact(saved().c_str()).find("\"mute\":1") != std::string::npos, true);
    EXPECT_EQ(para_need_save_audio(nullptr), 0);

    para_set_audio_save_param_time(60000);
    para_set_audio_mute_cur(0);
    EXPECT_EQ(para_need_save_audio(nullptr), 0);
    EXPECT_EQ(save_cur_audio_param_delay(0), 0);
    EXPECT_NE(test::compact(saved().c_str()).find("\"mute\":0"), std::string::npos);
}

} // namespace
