// Web-form requests through the running server: real datagrams to 6800.
#include "para_internal.h"
#include "support.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace {

// Two host modules that keep whatever they are given (worker thread only).
std::map<std::string, para::JsonPtr> g_store;

int store_set(char*, void* in, char* name)
{
    auto& slot = g_store[name];
    if (!slot)
        slot.reset(cJSON_CreateObject());
    for (cJSON* m = static_cast<cJSON*>(in)->child; m; m = m->next) {
        cJSON_DeleteItemFromObjectCaseSensitive(slot.get(), m->string);
        cJSON_AddItemToObject(slot.get(), m->string, cJSON_Duplicate(m, 1));
    }
    return 0;
}

int store_get(char*, void* in, void** out, char* name)
{
    auto& slot = g_store[name];
    cJSON* o = cJSON_CreateObject();
    cJSON* want;
    cJSON_ArrayForEach(want, static_cast<cJSON*>(in))
    {
        cJSON* have = slot ? cJSON_GetObjectItemCaseSensitive(slot.get(), want->valuestring) : nullptr;
        if (have)
            cJSON_AddItemToObject(o, want->valuestring, cJSON_Duplicate(have, 1));
    }
    *out = o;
    return 0;
}

const char* kMapping = R"({
  "cam": ["alpha", "beta"],
  "alpha": {"rate": ["rate", "N", "K"], "shared": ["shared", "N", "Greedy"], "title": ["title", "S"]},
  "beta":  {"level": ["level", "N", "P"], "shared": ["shared", "N"]}
})";

class WebServer : public ::testing::Test {
protected:
    void SetUp() override
    {
        test::write_file(dir_.ro() + "/www2json.json", kMapping);
        dir_.use_as_profile();
        for (const char* name : {"alpha", "beta"}) {
            module_para_handle_s ext{};
            ext.parse_name = const_cast<char*>(name);
            ext.set_buf = store_set;
            ext.get_buf = store_get;
            register_para_handle_extern(&ext);
        }
        platformparam_init();
        ASSERT_NE(para_config, nullptr);
    }
    void TearDown() override { platformparam_stop(1); }

    test::TempDir dir_;
};

} // namespace

TEST_F(WebServer, WriteThenReadAPage)
{
    auto r = test::udp_request(
        R"({"msg_from":"www","msg_type":"set","msg_name":"cam","data":"rate=4.5&level=3&shared=9&title=front"})");
    ASSERT_TRUE(r);
    EXPECT_EQ(*r, "result=success");

    // The greedy field reached both modules; the marks were applied.
    r = test::udp_request(R"({"msg_type":"get","alpha":["rate","shared","title"],"beta":["level","shared"]})");
    ASSERT_TRUE(r);
    EXPECT_EQ(test::compact(*r), R"({"alpha":{"rate":4500,"shared":9,"title":"front"},"beta":{"level":2,"shared":9}})");

    r = test::udp_request(R"({"msg_from":"www","msg_type":"get","msg_name":"cam"})");
    ASSERT_TRUE(r);
    EXPECT_EQ(*r, "rate=4.5&shared=9&title=front&level=3&shared=9");
}

TEST_F(WebServer, ErrorsAndSilentRefusals)
{
    auto r = test::udp_request(R"({"msg_from":"www","msg_type":"get","msg_name":"nopage"})");
    ASSERT_TRUE(r);
    EXPECT_EQ(*r, "nopage=null");
    r = test::udp_request(R"({"msg_from":"www","msg_type":"get"})");
    ASSERT_TRUE(r);
    EXPECT_EQ(*r, "msg_name=null");
    EXPECT_FALSE(test::udp_request(R"({"msg_from":"www","msg_type":"set","msg_name":"cam","data":"ab"})", 300));
    EXPECT_FALSE(test::udp_request(R"({"msg_from":"www","msg_type":"g","msg_name":"cam"})", 300));
    // Still serving.
    r = test::udp_request(R"({"msg_from":"www","msg_type":"set","msg_name":"cam","data":"level=1"})");
    ASSERT_TRUE(r);
    EXPECT_EQ(*r, "result=success");
}
