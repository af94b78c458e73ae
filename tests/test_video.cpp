// Video module: loading, member access, requests, delayed save, name and
// size tables. Each TEST runs in its own process, so the module loads fresh.
#include "scenario.h"
#include "support.h"
#include "typed_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <thread>

namespace {

std::string data(const char* name)
{
    return *test::read_file(scenario::data_path(std::string("video/") + name));
}
const std::string kRange = data("range.json"), kDef = data("def.json"), kCur = data("cur.json");

struct Calls {
    std::vector<std::tuple<void*, int, int>> member;
    std::vector<std::string> page;
};
Calls calls;

void on_member(void* setter, int stream, int value)
{
    calls.member.emplace_back(setter, stream, value);
}

void on_page(void* json)
{
    calls.page.push_back(typed_test::printed(json));
}

class Video : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir.use_as_profile();
        para_profile.video_caller = on_member;
        para_profile.video_page_caller = on_page;
    }
    void files(const std::string& range, const std::string& def, const std::string& cur = "")
    {
        test::write_file(dir.ro() + "/video_range.json", range);
        test::write_file(dir.ro() + "/video_def.json", def);
        if (!cur.empty())
            test::write_file(dir.rw() + "/video_cur.json", cur);
    }
    void example()
    {
        files(kRange, kDef, kCur);
        ASSERT_EQ(para_init_video(nullptr), 0);
    }
    static std::string get(const char* request) { return typed_test::get(para_get_video_opt, request); }
    static void set(const char* request) { typed_test::set(para_set_video_opt, request); }
    std::string saved() { return test::read_file(dir.rw() + "/video_cur.json").value_or(""); }

    test::TempDir dir;
};

TEST_F(Video, LoadsWorkedExample)
{
    test::LogCapture log;
    example();
    EXPECT_TRUE(log.contains("parse_ok:1"));
    EXPECT_TRUE(log.contains("check video num = 1"));
    EXPECT_EQ(g_num_stream, 1);
    EXPECT_EQ(para_get_video_streamNum(), 1);

    EXPECT_EQ(para_get_video_protocol_min(0), 0);
    EXPECT_EQ(para_get_video_protocol_max(0), 2);
    EXPECT_EQ(para_get_video_size_max(0), 45);
    EXPECT_EQ(para_get_video_size_def(0), 17);
    EXPECT_EQ(para_get_video_rcMode_max(0), 4);
    EXPECT_EQ(para_get_video_gop_max(0), 200);
    EXPECT_EQ(para_video_exist[0].protocol, 0x101);
    EXPECT_EQ(para_video_exist[0].frameRate, 0x81);
    EXPECT_EQ(para_video_exist[0].bitRate, 0);

    const int cur[] = {para_get_video_protocol_cur(0), para_get_video_size_cur(0),
                       para_get_video_frameRate_cur(0), para_get_video_rcMode_cur(0),
                       para_get_video_gop_cur(0)};
    EXPECT_EQ(std::vector<int>(cur, cur + 5), (std::vector<int>{1, 17, 25, 0, 50}));
    EXPECT_EQ(para_get_video_protocol_init(0), 1);
    EXPECT_EQ(para_get_video_frameRate_def(0), 30);

    // Absent members and invalid streams read -1 where existence matters.
    EXPECT_EQ(para_get_video_bitRate_cur(0), -1);
    EXPECT_EQ(para_get_video_bitRate_init(0), -1);
    EXPECT_EQ(para_get_video_bitRate_max(0), 0);
    for (int s : {-1, 1, 6, 1000}) {
        EXPECT_EQ(para_get_video_gop_cur(s), -1);
        EXPECT_EQ(para_get_video_gop_min(s), -1);
        EXPECT_EQ(para_get_video_gop_def(s), -1);
    }

    // Only the first of the seven rows loads.
    EXPECT_EQ(para_init_video(nullptr), 0);
    EXPECT_EQ(log.count("parse_ok"), 1);
}

TEST_F(Video, SettersCheckRangeExistenceAndStream)
{
    example();
    timespec before = video_item_start_time;
    EXPECT_EQ(_para_set_video_frameRate_cur(0, 0), 0);
    EXPECT_EQ(_para_set_video_frameRate_cur(0, 61), 0);
    EXPECT_EQ(_para_set_video_frameRate_cur(0, 25), 0); // equal
    EXPECT_EQ(_para_set_video_bitRate_cur(0, 0), 0);    // absent
    EXPECT_EQ(_para_set_video_frameRate_cur(1, 30), 0); // no stream 1
    EXPECT_EQ(_para_set_video_frameRate_cur(-1, 30), 0);
    EXPECT_EQ(para_need_save_video(nullptr), 0);
    EXPECT_EQ(std::memcmp(&before, &video_item_start_time, sizeof before), 0);

    EXPECT_EQ(_para_set_video_frameRate_cur(0, 1), 1);
    EXPECT_EQ(_para_set_video_frameRate_cur(0, 60), 1);
    EXPECT_EQ(para_get_video_frameRate_cur(0), 60);
    EXPECT_TRUE(calls.member.empty());

    // The public setter reports with its own address, and only on a change.
    EXPECT_EQ(para_set_video_gop_cur(0, 100), 0);
    EXPECT_EQ(para_set_video_gop_cur(0, 100), 0);
    EXPECT_EQ(para_set_video_gop_cur(0, 201), 0);
    ASSERT_EQ(calls.member.size(), 1u);
    EXPECT_EQ(std::get<0>(calls.member[0]), reinterpret_cast<void*>(&para_set_video_gop_cur));
    EXPECT_EQ(std::get<1>(calls.member[0]), 0);
    EXPECT_EQ(std::get<2>(calls.member[0]), 100);
    EXPECT_EQ(para_get_video_frameRate_init(0), 25);
}

TEST_F(Video, SettersByName)
{
    example();
    EXPECT_EQ(para_set_video_rcMode_cur_bystr(0, const_cast<char*>("VBR")), 0);
    EXPECT_EQ(para_get_video_rcMode_cur(0), 1);
    EXPECT_EQ(para_set_video_rcMode_cur_bystr(0, const_cast<char*>("VB")), -1);
    EXPECT_EQ(para_set_video_rcMode_cur_bystr(0, nullptr), -1);
    EXPECT_EQ(para_get_video_rcMode_cur(0), 1);
    // A whole name outside the range is found but refused by the setter.
    EXPECT_EQ(para_set_video_size_cur_bystr(0, const_cast<char*>("PIC_BUTT")), 0);
    EXPECT_EQ(para_get_video_size_cur(0), 17);
    ASSERT_EQ(calls.member.size(), 1u);
    EXPECT_EQ(std::get<0>(calls.member[0]), reinterpret_cast<void*>(&para_set_video_rcMode_cur));
}

TEST_F(Video, FileNameMatchingAndKinds)
{
    files(R"({"video0": {"size": ["PIC_QCIF", 100], "profile": [0, 3], "gop": [0, 9],
                         "qfactor": [0, 99], "bitRate": [0, 8000], "sliceEn": 7},
              "video1": {}, "VIDEO3": {}, "video7": {}})",
          R"({"video0": {"size": "PIC_HD1", "profile": "", "gop": "null", "FRAMERATE": 20,
                         "rcMode": "nothing", "qfactor": 5, "sliceEn": 1},
              "video1": {"protocol": 2}})",
          R"({"video0": {"qfactor": "PIC_HD1", "bitRate": 500}, "video1": {"protocol": 99}})");
    ASSERT_EQ(para_init_video(nullptr), 0);
    EXPECT_EQ(g_num_stream, 3); // keys are found whatever their case; video7 is no stream
    EXPECT_EQ(para_get_video_size_def(0), 17);      // last prefix match wins in files
    EXPECT_EQ(para_get_video_profile_def(0), 3);    // empty text: last name
    EXPECT_EQ(para_video_exist[0].gop, 0x101);      // "null" for a number
    EXPECT_EQ(para_get_video_gop_def(0), 0);
    EXPECT_EQ(para_get_video_frameRate_def(0), 20);
    EXPECT_EQ(para_video_exist[0].rcMode, 0);       // no name fits: nothing
    EXPECT_EQ(para_get_video_qfactor_cur(0), 5);    // unknown name leaves the value
    EXPECT_EQ(para_get_video_bitRate_cur(0), -1);   // current file does not make members exist
    EXPECT_EQ(para_video_cur[0].bitRate, 500);
    EXPECT_EQ(para_get_video_sliceEn_max(0), 0);    // a range must be an array
    EXPECT_EQ(para_get_video_size_max(0), 100);

    // A numeric member given by name has no kind bit for writes by number.
    EXPECT_EQ(para_set_video_member(const_cast<char*>("gop"), 0, 5, nullptr), -1);
    // A named member given by number: by name refused, read back as a number,
    // but written and listed by name; an index past the table has no name.
    EXPECT_EQ(para_video_exist[1].protocol, 0x81);
    EXPECT_EQ(para_set_video_member(const_cast<char*>("protocol"), 1, 0, const_cast<char*>("H264")), -1);
    EXPECT_EQ(get(R"({"video1": ["protocol"]})"), R"({"protocol":99})");
    EXPECT_EQ(get(R"({"video1": ["all"]})"), "{}");
    EXPECT_EQ(para_get_video_protocol_str(99), nullptr);
    EXPECT_EQ(para_get_video_protocol_str(-1), nullptr);
    char* name = const_cast<char*>("untouched");
    int val = 0;
    EXPECT_EQ(para_get_video_member(const_cast<char*>("protocol"), 1, &val, &name), 0x81);
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(val, 99);
    // An index outside the table read from a file is left out by name.
    ASSERT_EQ(para_set_video_size_cur(0, 99), 0);
    EXPECT_EQ(para_get_video_size_cur(0), 99);
    EXPECT_EQ(get(R"({"video0": ["size", "gop"]})"), R"({"gop":0})");
    EXPECT_EQ(para_save_video(nullptr), 0);
    EXPECT_EQ(saved().find("size"), std::string::npos);
    // By name: no such member, no name, a name-kind member given a number.
    EXPECT_EQ(para_set_video_member(const_cast<char*>("nosuch"), 0, 1, nullptr), 0);
    EXPECT_EQ(para_set_video_member(nullptr, 0, 1, nullptr), 0);
    EXPECT_EQ(para_set_video_member(const_cast<char*>("size"), 0, 1, nullptr), 0);
}

// The module itself takes a beginning of "video0" as its key; a reading
// post (the whole message, no key) gets no reply.
TEST_F(Video, KeyPrefixAndKeylessRequests)
{
    example();
    EXPECT_EQ(get(R"({"video": ["all"]})"),
              R"({"protocol":"H265","size":"PIC_HD1080","frameRate":25,"rcMode":"CBR","gop":50})");
    EXPECT_FALSE(typed_test::answers_whole_message(para_get_video_opt, R"({"msg_type": "post", "msg_name": "video0"})"));
    void* out = nullptr;
    EXPECT_EQ(para_get_video_opt(nullptr, nullptr, &out, nullptr), 0);
    EXPECT_EQ(out, nullptr);
}

TEST_F(Video, SavedFileEndsInNulAndLoadsBack)
{
    example();
    para_set_video_frameRate_cur(0, 24);
    para_set_video_rcMode_cur(0, 3);
    EXPECT_EQ(para_save_video(nullptr), 0);
    EXPECT_EQ(para_need_save_video(nullptr), 0);
    std::string text = saved();
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text.back(), '\0');
    EXPECT_EQ(std::count(text.begin(), text.end(), '\0'), 1);
    EXPECT_EQ(test::compact(text.c_str()),
              R"({"video0":{"protocol":"H265","size":"PIC_HD1080","frameRate":24,"rcMode":"FIXQP","gop":50}})");

    // Written back over other values, the file restores what was saved.
    cJSON* json = cJSON_Parse(text.c_str());
    para_video_cur[0].frameRate = 1;
    para_video_cur[0].rcMode = 0;
    _parse_video_cur_json(json);
    cJSON_Delete(json);
    EXPECT_EQ(para_get_video_frameRate_cur(0), 24);
    EXPECT_EQ(para_get_video_rcMode_cur(0), 3);
}

TEST_F(Video, SaveWaitsForTheLastChange)
{
    example();
    para_set_video_save_param_time(600);
    auto first = std::chrono::steady_clock::now();
    para_set_video_gop_cur(0, 10);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    auto second = std::chrono::steady_clock::now();
    para_set_video_gop_cur(0, 11);
    if (second - first >= std::chrono::milliseconds(600))
        GTEST_SKIP() << "the machine stalled longer than the delay";
    int saves = 0;
    std::chrono::steady_clock::time_point first_save;
    // A sweep of seven rows every 10 ms, as the worker does.
    while (std::chrono::steady_clock::now() - second < std::chrono::milliseconds(1500)) {
        for (int row = 0; row < 7; ++row)
            if (para_need_save_video(nullptr)) {
                if (saves++ == 0)
                    first_save = std::chrono::steady_clock::now();
                para_save_video(nullptr);
            }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(saves, 1);
    // Change times are kept in whole milliseconds.
    EXPECT_GE(first_save - second, std::chrono::milliseconds(599));
    EXPECT_NE(test::compact(saved().c_str()).find("\"gop\":11"), std::string::npos);
}

TEST_F(Video, LoadFailures)
{
    test::LogCapture log;
    EXPECT_EQ(para_init_video(nullptr), -1);
    EXPECT_TRUE(log.contains("Error range def buf"));
    EXPECT_EQ(para_init_video(nullptr), 0); // the other rows do not retry
}

TEST_F(Video, OverlongDirectoryIsRefused)
{
    test::LogCapture log;
    example();
    std::string longdir(200, 'd');
    para_profile.param_rwfile_dir = const_cast<char*>(longdir.c_str());
    para_set_video_gop_cur(0, 9);
    EXPECT_EQ(para_save_video(nullptr), 0);
    EXPECT_TRUE(log.contains("path too long"));
    EXPECT_EQ(para_need_save_video(nullptr), 0);
}

TEST(VideoTables, NameLookups)
{
    EXPECT_EQ(para_get_video_size_num(const_cast<char*>("PIC_HD1")), 3);
    EXPECT_EQ(para_get_video_size_num(const_cast<char*>("PIC_HD")), 3);
    EXPECT_EQ(para_get_video_size_num(const_cast<char*>("PIC_")), 0);
    EXPECT_EQ(para_get_video_size_num(const_cast<char*>("PIC_HD1080")), 17);
    EXPECT_EQ(para_get_video_size_num(const_cast<char*>("17")), 17);
    EXPECT_EQ(para_get_video_protocol_num(const_cast<char*>("H26")), 0);
    EXPECT_EQ(para_get_video_protocol_num(const_cast<char*>("MJ")), 2);
    EXPECT_EQ(para_get_video_protocol_num(const_cast<char*>("h264")), -1000);
    EXPECT_EQ(para_get_video_gop_num(const_cast<char*>("nu")), 0);
    EXPECT_EQ(para_get_video_gop_num(const_cast<char*>("")), 0);
    EXPECT_EQ(para_get_video_gop_num(const_cast<char*>("60fps")), 60);
    EXPECT_EQ(para_get_video_gop_num(const_cast<char*>("-5")), -1000);
    EXPECT_EQ(para_get_video_gop_num(nullptr), -1000);
    EXPECT_STREQ(para_get_video_size_str(46), "PIC_BUTT");
    EXPECT_EQ(para_get_video_size_str(47), nullptr);
    EXPECT_STREQ(para_get_video_profile_str(3), "svc-t");
}

TEST(VideoTables, SizesByName)
{
    test::LogCapture log;
    int w = 0, h = 0;
    EXPECT_EQ(para_get_video_size_byname("PIC_D1", 1, &w, &h), 0);
    EXPECT_EQ(w * 10000 + h, 720 * 10000 + 576);
    EXPECT_EQ(para_get_video_size_byname("PIC_D1", 0, &w, &h), 0);
    EXPECT_EQ(h, 480);
    EXPECT_EQ(para_get_video_size_byname("PIC_UXGA", 0, &w, &h), 0);
    EXPECT_EQ(w * 10000 + h, 1600 * 10000 + 1400);
    w = h = 7;
    EXPECT_EQ(para_get_video_size_byname("PIC_D1", 2, &w, &h), -1);
    EXPECT_EQ(para_get_video_size_byname("PIC_USER", 0, &w, &h), -1);
    EXPECT_EQ(para_get_video_size_byname("PIC_HD1", -1, &w, &h), -1);
    EXPECT_EQ(w + h, 14);
    EXPECT_TRUE(log.contains("unsupport PIC_HD1"));
    EXPECT_EQ(para_get_video_size_byname(nullptr, 0, &w, &h), -1);
    EXPECT_TRUE(log.contains("name is null"));
}

TEST_F(Video, LogDumpsAndDeferredTableDumps)
{
    test::LogCapture log;
    example();
    EXPECT_TRUE(log.contains("stream_1 param:"));
    EXPECT_TRUE(log.contains("       frameRate : cur:[25],\tdef:[30],\trange:[1,60]"));
    EXPECT_FALSE(log.contains("bitRate"));
    EXPECT_EQ(fifo_work_run("para_video", nullptr), 1);
    EXPECT_TRUE(log.contains("--------46:PIC_BUTT"));
    EXPECT_TRUE(log.contains("--------3:svc-t"));
    EXPECT_EQ(fifo_work_run("para_video_size", nullptr), 1);
    EXPECT_TRUE(log.contains("--------PIC_D1 50HZ:1 720x576"));
    EXPECT_TRUE(log.contains("--------PIC_480_270 480x272"));
}

} // namespace

