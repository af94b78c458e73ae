// "misc" and "netport" end to end: real datagrams to 127.0.0.1:6800 against
// the example device's files.
#include <gtest/gtest.h>

#include "para_internal.h"
#include "support.h"

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

namespace {

std::mutex g_mu;
std::vector<std::string> g_pages; // written by the worker thread

void misc_page(char* module, void* json)
{
    para::CharPtr t(cJSON_PrintUnformatted(static_cast<cJSON*>(json)));
    std::lock_guard<std::mutex> lk(g_mu);
    g_pages.push_back(std::string(module) + "=" + t.get());
}
void conf_page(char* module)
{
    std::lock_guard<std::mutex> lk(g_mu);
    g_pages.push_back(module);
}
std::vector<std::string> pages()
{
    std::lock_guard<std::mutex> lk(g_mu);
    return g_pages;
}

class NetStores : public ::testing::Test {
protected:
    void SetUp() override
    {
        test::copy_dir_files(test::example_device_dir(), dir_.ro());
        dir_.use_as_profile();
        para_profile.conf_save = 1;
        para_profile.misc_page_caller = misc_page;
        para_profile.conf_caller = conf_page;
        platformparam_init();
        ASSERT_EQ(para_server_bound_port(), PARA_SERVER_PORT);
    }
    void TearDown() override
    {
        if (!stopped_)
            platformparam_stop(1);
    }

    // Compact reply to one request, "" when none came.
    static std::string ask(const std::string& request)
    {
        auto r = test::udp_request(request);
        return r ? test::compact(*r) : "";
    }

    void stop()
    {
        platformparam_stop(1);
        stopped_ = true;
    }

    test::TempDir dir_;
    bool stopped_ = false;
};

} // namespace

TEST_F(NetStores, MiscReadsCurrentAndDefaults)
{
    EXPECT_EQ(ask(R"({"msg_type":"get","msg_name":"n","msg_id":1,"misc":["mirror","hdmivideoformat","nosuch"]})"),
              R"({"msg_name":"n","msg_id":1,"misc":{"mirror":0,"hdmivideoformat":"1080P60"}})");
    std::string all = ask(R"({"msg_type":"get","misc_def":["all"]})");
    EXPECT_NE(all.find(R"("ViStrategy":"dial")"), std::string::npos) << all;
    EXPECT_NE(all.find(R"("ezoom_limit":4)"), std::string::npos) << all;
}

TEST_F(NetStores, MiscWriteIsCheckedStoredAndSavedAsConf)
{
    EXPECT_EQ(ask(R"({"msg_type":"set","msg_id":2,"misc":{"mirror":"1","hdmivideoformat":"8KP60"}})"),
              R"({"msg_id":2})");
    EXPECT_TRUE(pages().empty());
    EXPECT_EQ(para_get_misc_mirror_cur(), 0);

    ask(R"({"msg_type":"set","msg_id":3,"misc":{"mirror":1,"hdmivideoformat":"720P60"}})");
    EXPECT_EQ(pages(), std::vector<std::string>{R"(misc={"mirror":1,"hdmivideoformat":"720P60"})"});
    EXPECT_EQ(ask(R"({"msg_type":"get","misc":["mirror","hdmivideoformat"]})"),
              R"({"misc":{"mirror":1,"hdmivideoformat":"720P60"}})");
    EXPECT_EQ(para_get_misc_hdmivideoformat_cur(), 4);

    stop();
    auto saved = test::read_file(dir_.rw() + "/misc.conf");
    ASSERT_TRUE(saved);
    EXPECT_NE(saved->find("mirror=1\n"), std::string::npos);
    EXPECT_NE(saved->find("hdmivideoformat=720P60\n"), std::string::npos);
    EXPECT_NE(saved->find("ndi_mode=off\n"), std::string::npos);
}

TEST_F(NetStores, NetportReadWriteSaveAndReload)
{
    EXPECT_EQ(ask(R"({"msg_type":"get","netport":["ipaddr","dns","nosuch"]})"),
              R"({"netport":{"ipaddr":"192.168.1.188","dns":"192.168.1.1"}})");

    ask(R"({"msg_type":"set","netport":{"http_port":8080,"ipaddr":"10.0.0.2","somekey":"sometext"}})");
    EXPECT_EQ(pages(), std::vector<std::string>{"netport"});
    std::string def = ask(R"({"msg_type":"get","netport_def":["all"]})");
    EXPECT_NE(def.find(R"("ipaddr":"192.168.1.188")"), std::string::npos) << def;
    EXPECT_EQ(def.find("somekey"), std::string::npos) << def;
    EXPECT_EQ(ask(R"({"msg_type":"get","netport":["ipaddr","somekey","http_port"]})"),
              R"({"netport":{"ipaddr":"10.0.0.2","somekey":"sometext","http_port":"80"}})");

    ASSERT_EQ(platformparam_save(), 0);
    auto saved = test::read_file(dir_.rw() + "/netport.conf");
    ASSERT_TRUE(saved);
    EXPECT_NE(saved->find("ipaddr=10.0.0.2\n"), std::string::npos);
    EXPECT_NE(saved->find("somekey=sometext\n"), std::string::npos);
    EXPECT_NE(saved->find("dns=192.168.1.1\n"), std::string::npos);

    // Another process edits the file; the deferred work reloads it.
    const char* keys[] = {"dns", "ipaddr"};
    while (para_key_IsChanged_netport(keys, 2) == 1) {
    } // marks of the first load
    test::write_file(dir_.rw() + "/netport.conf", *saved + "ipaddr=10.0.0.9\n");
    ASSERT_EQ(fifo_work_trigger("netport", nullptr), 1);
    fifo_work_drain();
    EXPECT_EQ(ask(R"({"msg_type":"get","netport":["ipaddr"]})"), R"({"netport":{"ipaddr":"10.0.0.9"}})");
    test::LogCapture log;
    EXPECT_EQ(para_key_IsChanged_netport(keys, 2), 1);
    EXPECT_TRUE(log.contains("key id 1 changed"));
}
