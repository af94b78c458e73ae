// Web-form requests through the running server: real datagrams to 6800.
#include "para_internal.h"
#include "support.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

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

test::CommandResult paramctl(const std::string& args)
{
    return test::run_command(std::string(PARA_BINARY_DIR) + "/tools/paramctl " + args);
}

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

TEST_F(WebServer, ParamctlSpeaksForTheWebServer)
{
    auto w = paramctl("web set cam 'rate=1.25&title=back'");
    EXPECT_EQ(w.status, 0) << w.out;
    EXPECT_EQ(w.out, "result = success\n");
    w = paramctl("web get cam");
    EXPECT_EQ(w.status, 0) << w.out;
    EXPECT_EQ(w.out, "rate = 1.2\ntitle = back\n");
    w = paramctl("--json web get cam");
    EXPECT_EQ(w.out, "rate=1.2&title=back\n");
    w = paramctl("web get nopage");
    EXPECT_EQ(w.status, 1);
    EXPECT_EQ(w.out, "nopage = null\n");
}

// What a client process puts on the wire, caught where the server would be.
TEST(ParamctlShare, SendsOneClientDatagram)
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(PARA_SERVER_PORT);
    a.sin_addr.s_addr = inet_addr("127.0.0.1");
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    auto next = [fd] {
        pollfd p{fd, POLLIN, 0};
        char buf[256];
        ssize_t n = poll(&p, 1, 2000) == 1 ? recv(fd, buf, sizeof buf, 0) : -1;
        return n < 0 ? std::string() : std::string(buf, static_cast<size_t>(n));
    };

    auto r = paramctl("share isp skin_saturation 1 50");
    EXPECT_EQ(r.status, 0) << r.out;
    std::string want = std::string("\0\0\0\0\1\0\0\0\x32\0\0\0isp", 15) + std::string(13, '\0') +
                       "skin_saturation" + std::string(33, '\0');
    EXPECT_EQ(next(), want);

    r = paramctl("share video profile 0 '\"high\"'");
    EXPECT_EQ(r.status, 0) << r.out;
    std::string text = next();
    ASSERT_EQ(text.size(), 76u);
    EXPECT_EQ(text[0], 1);
    EXPECT_EQ(text.substr(44, 5), std::string("high\0", 5));

    EXPECT_EQ(paramctl("share isp nosuch 0 1").status, 2);
    EXPECT_EQ(paramctl("share isp gamma x 1").status, 2);
    close(fd);
}

// The web server's view of stream 0: a page read and a page write.
TEST(WebVideo, EncodePageReadAndWrite)
{
    test::TempDir dir;
    test::write_file(dir.ro() + "/www2json.json",
                     R"({"encode":["video0"],"video0":{"bitRate":["enc_bitrate","N","K"],"gop":["enc_gop","N"]}})");
    test::write_file(dir.ro() + "/video_range.json", R"({"video0":{"bitRate":[100,20000],"gop":[1,200]}})");
    test::write_file(dir.ro() + "/video_def.json", R"({"video0":{"bitRate":4500,"gop":60}})");
    dir.use_as_profile();
    platformparam_init();

    auto r = test::udp_request(R"({"msg_from":"www","msg_type":"get","msg_name":"encode"})");
    ASSERT_TRUE(r);
    EXPECT_EQ(*r, "enc_bitrate=4.5&enc_gop=60");

    r = test::udp_request(R"({"msg_from":"www","msg_type":"set","msg_name":"encode","data":"enc_bitrate=6&enc_gop=30"})");
    ASSERT_TRUE(r);
    EXPECT_EQ(*r, "result=success");
    EXPECT_EQ(para_video_cur[0].bitRate, 6000);
    EXPECT_EQ(para_video_cur[0].gop, 30);

    // Out of range: still answered with success, nothing stored.
    r = test::udp_request(R"({"msg_from":"www","msg_type":"set","msg_name":"encode","data":"enc_bitrate=25"})");
    ASSERT_TRUE(r);
    EXPECT_EQ(*r, "result=success");
    EXPECT_EQ(para_video_cur[0].bitRate, 6000);
    r = test::udp_request(R"({"msg_from":"www","msg_type":"get","msg_name":"encode"})");
    ASSERT_TRUE(r);
    EXPECT_EQ(*r, "enc_bitrate=6&enc_gop=30");
    platformparam_stop(1);
}
