// The ISP rows end to end: real datagrams to 127.0.0.1:6800 and the
// worker's save sweep.
#include <gtest/gtest.h>

#include "isp_fixture.h"
#include "para_internal.h"
#include "support.h"

#include <atomic>
#include <string>
#include <thread>

namespace {

std::atomic<int> g_pages{0};
std::atomic<int> g_style_calls{0};

void on_page(void*)
{
    ++g_pages;
}

void on_member(void* setter, int, int)
{
    if (setter == reinterpret_cast<void*>(&para_set_isp_style_cur))
        ++g_style_calls;
}

class NetIsp : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir_.use_as_profile();
        para_profile.isp_page_caller = on_page;
        para_profile.isp_caller = on_member;
    }
    void TearDown() override { platformparam_stop(1); }

    void start(const std::string& cur = isp_fixture::k_cur)
    {
        isp_fixture::write(dir_, isp_fixture::k_range, isp_fixture::k_styles, cur);
        platformparam_init();
    }

    // Sends a request, returns the compact reply ("" when none came).
    static std::string ask(const std::string& text)
    {
        auto reply = test::udp_request(text);
        return reply ? test::compact(*reply) : "";
    }

    std::string saved() const
    {
        auto text = test::read_file(dir_.rw() + "/isp_cur.json");
        return text ? *text : "";
    }

    test::TempDir dir_;
};

TEST_F(NetIsp, WorkedExampleRequestTable)
{
    start();
    EXPECT_EQ(ask(R"({"msg_type":"set","msg_name":"status","msg_id":1,"isp0":{"shutter":9}})"),
              R"({"msg_name":"status","msg_id":1})");
    EXPECT_EQ(g_pages, 0);

    EXPECT_EQ(ask(R"({"msg_type":"get","msg_name":"status","msg_id":2,"isp0":["shutter","iris"]})"),
              R"({"msg_name":"status","msg_id":2,"isp0":{"shutter":9}})");
    EXPECT_EQ(ask(R"({"msg_type":"get","msg_id":3,"isp0_def":["all"]})"),
              std::string(R"({"msg_id":3,"isp0_def":)") + isp_fixture::k_def_all + "}");
    EXPECT_EQ(ask(R"({"msg_type":"get","msg_id":4,"isp0":["all"]})"),
              std::string(R"({"msg_id":4,"isp0":)") + isp_fixture::k_cur_all + "}");

    EXPECT_EQ(ask(R"({"msg_type":"set","msg_id":5,"isp0":{"shutter":12,"rgain":300}})"),
              R"({"msg_id":5})");
    EXPECT_EQ(g_pages, 1);
    EXPECT_EQ(ask(R"({"msg_type":"get","msg_id":6,"isp0":["shutter","rgain"],"isp1":["all"]})"),
              R"({"msg_id":6,"isp0":{"shutter":12,"rgain":130}})");
    EXPECT_EQ(g_style_calls, 0);
}

TEST_F(NetIsp, PostFormNeitherReadsNorWrites)
{
    start();
    std::string reply =
        ask(R"({"msg_type":"post","msg_name":"isp0","msg_send":"set","data":{"shutter":3}})");
    EXPECT_EQ(reply, R"({"msg_type":"post","msg_name":"isp0","msg_send":"set","data":{"shutter":3}})");
    EXPECT_EQ(ask(R"({"msg_type":"post","msg_name":"isp0","msg_send":"get"})"),
              R"({"msg_type":"post","msg_name":"isp0","msg_send":"get"})");
    EXPECT_EQ(para_get_isp_shutter_cur(0), 9);
    EXPECT_EQ(g_pages, 0);
}

// A saved style other than the default one is itself an unsaved change:
// the file is rewritten about two seconds after start-up.
TEST_F(NetIsp, NonDefaultSavedStyleIsRewrittenAfterStartUp)
{
    const std::string cur = R"({"isp0":{"style":1,"shutter":9}})";
    start(cur);
    EXPECT_EQ(g_style_calls, 1);
    EXPECT_EQ(saved(), cur); // not written at once
    ASSERT_TRUE(test::wait_until([&] { return saved() != cur; }, 4000));
    EXPECT_EQ(test::compact(saved().c_str()),
              R"({"isp0":{"style":1,"exposure_mode":0,"shutter":9,"antiflicker":1,"wb_mode":0,"rgain":128,"rgain_tuning":50,"saturation":70,"contrast":60,"sharpness":55}})");
    EXPECT_EQ(ask(R"({"msg_type":"get","isp0_def":["style","shutter"]})"),
              R"({"isp0_def":{"style":1,"shutter":6}})");
}

// Host threads write members directly while the worker serves requests.
TEST_F(NetIsp, DirectWritesBesideRequests)
{
    start();
    std::atomic<bool> stop{false};
    std::thread host([&] {
        for (int v = 0; !stop; v = (v + 1) % 17)
            para_set_isp_shutter_cur(0, v);
    });
    for (int i = 0; i < 20; ++i) {
        std::string wb = std::to_string(i % 7);
        ask(R"({"msg_type":"set","isp0":{"wb_mode":)" + wb + "}}");
        EXPECT_EQ(ask(R"({"msg_type":"get","isp0":["wb_mode"]})"), R"({"isp0":{"wb_mode":)" + wb + "}}");
    }
    stop = true;
    host.join();
    EXPECT_GE(para_get_isp_shutter_cur(0), 0);
    EXPECT_LE(para_get_isp_shutter_cur(0), 16);
}

} // namespace
