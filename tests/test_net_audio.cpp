// Audio and focus/zoom behind the message server: real datagrams to 6800.
#include "support.h"
#include "typed_support.h"

#include <gtest/gtest.h>

#include <atomic>

namespace {

std::atomic<int> audio_pages{0};
std::atomic<int> af_pages{0};

void on_audio_page(void*)
{
    ++audio_pages;
}

void on_af_page(void*)
{
    ++af_pages;
}

class NetAudio : public ::testing::Test {
protected:
    void SetUp() override
    {
        test::write_file(dir.ro() + "/audio_range.json",
                         R"({"audioEnable": [0, 1], "aeFormat": ["AAC", "G711A"], "audioInput": ["linein", "micin"],)"
                         R"( "volLeftIn": [0, 100], "mute": [0, 1]})");
        test::write_file(dir.ro() + "/audio_def.json",
                         R"({"audioEnable": 1, "aeFormat": "AAC", "audioInput": "linein", "volLeftIn": 80, "mute": 0})");
        test::write_file(dir.ro() + "/af_range.json",
                         R"({"focus_mode": [0, 2], "focus_value": [0, 500], "zoom_value": [0, 300]})");
        test::write_file(dir.ro() + "/af_def.json", R"({"focus_mode": 0, "focus_value": 100, "zoom_value": 0})");
        test::write_file(dir.rw() + "/af_cur.json", R"({"focus_mode": 1, "focus_value": 240, "zoom_value": 30})");
        dir.use_as_profile();
        para_profile.audio_page_caller = on_audio_page;
        para_profile.af_page_caller = on_af_page;
        platformparam_set_save_param_time(200, 2000);
        typed_test::start_server();
    }
    void TearDown() override { platformparam_stop(1); }

    static std::string ask(const std::string& request) { return typed_test::ask(request); }
    // The saved file once it holds `text`; "" after the timeout.
    std::string saved_with(const std::string& file, const std::string& text, int timeout_ms)
    {
        std::string path = dir.rw() + "/" + file, got;
        test::wait_until(
            [&] {
                got = test::read_file(path).value_or("");
                return test::compact(got.c_str()).find(text) != std::string::npos;
            },
            timeout_ms);
        return test::compact(got.c_str()).find(text) != std::string::npos ? got : "";
    }

    test::TempDir dir;
};

TEST_F(NetAudio, GetRequests)
{
    EXPECT_EQ(ask(R"({"msg_type":"get","msg_id":4,"audio":["mute","aeFormat"],"af":["zoom_value"]})"),
              R"({"msg_id":4,"audio":{"mute":0,"aeFormat":"AAC"},"af":{"zoom_value":30}})");
    EXPECT_EQ(ask(R"({"msg_type":"get","af_x":["all"],"af":["all"]})"),
              R"({"af":{"focus_mode":1,"focus_value":240,"zoom_value":30}})");
    // A reading post hands over the whole message: no "data" comes back.
    EXPECT_EQ(ask(R"({"msg_type":"post","msg_name":"audio"})"), R"({"msg_type":"post","msg_name":"audio"})");
}

TEST_F(NetAudio, WritesReachAudioButNotFocus)
{
    EXPECT_EQ(ask(R"({"msg_type":"set","msg_id":5,"af":{"zoom_value":100}})"), R"({"msg_id":5})");
    EXPECT_EQ(para_get_af_zoom_value_cur(), 30);
    EXPECT_EQ(para_need_save_af(nullptr), 0);

    ask(R"({"msg_type":"set","audio":{"mute":1,"aeFormat":"G711A"}})");
    EXPECT_EQ(audio_pages.load(), 1);
    ask(R"({"msg_type":"post","msg_name":"audio","msg_send":"s","data":{"volLeftIn":42}})");
    EXPECT_EQ(audio_pages.load(), 2);
    EXPECT_EQ(para_get_audio_volLeftIn_cur(), 42);
    EXPECT_EQ(af_pages.load(), 0);

    // The sweep saves audio after its short delay, focus/zoom after 2 s.
    std::string audio = saved_with("audio_cur.json", R"("aeFormat":"G711A")", 2000);
    ASSERT_FALSE(audio.empty());
    EXPECT_EQ(audio.back(), '\0');
    EXPECT_EQ(test::compact(audio.c_str()),
              R"({"audioEnable":1,"aeFormat":"G711A","audioInput":"linein","volLeftIn":42,"mute":1})");
    para_set_af_focus_mode_cur(2);
    std::string af = saved_with("af_cur.json", R"("focus_mode":2)", 3500);
    ASSERT_FALSE(af.empty());
    EXPECT_EQ(af.back(), '\0');

    // Both files load back.
    para_set_audio_mute_cur(0);
    para_set_af_focus_mode_cur(0);
    ASSERT_EQ(para_init_audio(nullptr), 0);
    ASSERT_EQ(para_init_af(nullptr), 0);
    EXPECT_EQ(para_get_audio_mute_cur(), 1);
    EXPECT_EQ(para_get_audio_aeFormat_cur(), 1);
    EXPECT_EQ(para_get_af_focus_mode_cur(), 2);
}

} // namespace
