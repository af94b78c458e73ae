// Video module behind the message server: real datagrams to port 6800.
#include "support.h"
#include "typed_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

namespace {

std::atomic<int> page_calls{0};
std::atomic<int> member_calls{0};
std::mutex page_mu;
std::string last_page;

void on_page(void* json)
{
    char* p = cJSON_PrintUnformatted(static_cast<cJSON*>(json));
    std::lock_guard<std::mutex> lk(page_mu);
    last_page = p;
    free(p);
    ++page_calls;
}

void on_member(void*, int, int)
{
    ++member_calls;
}

class NetVideo : public ::testing::Test {
protected:
    void SetUp() override
    {
        test::write_file(dir.ro() + "/video_range.json",
                         R"({"video0": {"protocol": ["H264", "MJPEG"], "size": ["PIC_QCIF", "PIC_720_576"],)"
                         R"( "frameRate": [1, 60], "rcMode": ["CBR", "AVBR"], "gop": [1, 200]}})");
        test::write_file(dir.ro() + "/video_def.json",
                         R"({"video0": {"protocol": "H264", "size": "PIC_HD1080", "frameRate": 30,)"
                         R"( "rcMode": "CBR", "gop": 60}})");
        test::write_file(dir.rw() + "/video_cur.json",
                         R"({"video0": {"protocol": "H265", "size": "PIC_HD1080", "frameRate": 25,)"
                         R"( "rcMode": "CBR", "gop": 50}})");
        dir.use_as_profile();
        para_profile.video_page_caller = on_page;
        para_profile.video_caller = on_member;
        platformparam_set_save_param_time(2000, 300);
        typed_test::start_server();
    }
    void TearDown() override { platformparam_stop(1); }

    static std::string ask(const std::string& request) { return typed_test::ask(request); }

    test::TempDir dir;
};

TEST_F(NetVideo, GetAndSetThroughThePort)
{
    EXPECT_EQ(ask(R"({"msg_type":"get","msg_id":1,"video0":["frameRate","size"]})"),
              R"({"msg_id":1,"video0":{"frameRate":25,"size":"PIC_HD1080"}})");
    EXPECT_EQ(ask(R"({"msg_type":"get","video0":["all"],"video1":["all"],"video0_def":["all"]})"),
              R"({"video0":{"protocol":"H265","size":"PIC_HD1080","frameRate":25,"rcMode":"CBR","gop":50}})");

    EXPECT_EQ(ask(R"({"msg_type":"set","msg_name":"status","msg_id":13,)"
                  R"("video0":{"frameRate":30,"size":"PIC_HD720"}})"),
              R"({"msg_name":"status","msg_id":13})");
    EXPECT_EQ(page_calls.load(), 1);
    {
        std::lock_guard<std::mutex> lk(page_mu);
        EXPECT_EQ(last_page, R"({"frameRate":30,"size":"PIC_HD720"})");
    }
    EXPECT_EQ(member_calls.load(), 0);
    EXPECT_EQ(para_get_video_frameRate_cur(0), 30);
    EXPECT_EQ(para_get_video_size_cur(0), 16);

    // Repeated, out of range, for a missing stream, or by a post: no change.
    ask(R"({"msg_type":"set","video0":{"frameRate":30,"size":"PIC_HD720"}})");
    ask(R"({"msg_type":"set","video0":{"frameRate":61},"video6":{"gop":7},"video1":{"gop":7}})");
    ask(R"({"msg_type":"post","msg_name":"video0","msg_send":"s","data":{"gop":7}})");
    EXPECT_EQ(page_calls.load(), 1);
    EXPECT_EQ(para_get_video_gop_cur(0), 50);

    // A reading post hands over the whole message: no "data" comes back.
    EXPECT_EQ(ask(R"({"msg_type":"post","msg_name":"video0"})"),
              R"({"msg_type":"post","msg_name":"video0"})");

    // The worker's sweep writes the file once the delay has passed.
    std::string path = dir.rw() + "/video_cur.json";
    ASSERT_TRUE(test::wait_until(
        [&] { return test::compact(test::read_file(path).value_or("").c_str()).find("\"frameRate\":30") != std::string::npos; },
        3000));
    std::string text = *test::read_file(path);
    EXPECT_EQ(text.back(), '\0');
    EXPECT_EQ(para_need_save_video(nullptr), 0);
}

} // namespace
