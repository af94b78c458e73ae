// The message server end to end: real datagrams to 127.0.0.1:6800.
#include <gtest/gtest.h>

#include "para_internal.h"
#include "support.h"

#include <atomic>
#include <mutex>
#include <string>

namespace {

std::atomic<int> g_set_calls{0};
// Written by the worker, read after the reply arrived. The reply orders
// them in fact, but a socket is no synchronisation a race detector sees.
std::mutex g_mu;
std::string g_last_set_text, g_last_get_key_text;
std::string last(const std::string& s)
{
    std::lock_guard<std::mutex> lk(g_mu);
    return s;
}

int ext_set(char* req, void* in, char*)
{
    para::CharPtr t(cJSON_PrintUnformatted(static_cast<cJSON*>(in)));
    {
        std::lock_guard<std::mutex> lk(g_mu);
        g_last_set_text = std::string(req ? req : "(null)") + "=" + t.get();
    }
    ++g_set_calls;
    return 0;
}

// Answers {"v":<number of children>} for keyed items; a keyless item (the
// reading post hands over the whole request) gets {"post":1}.
int ext_get(char* req, void* in, void** out, char*)
{
    {
        std::lock_guard<std::mutex> lk(g_mu);
        g_last_get_key_text = req ? req : "(null)";
    }
    cJSON* o = cJSON_CreateObject();
    if (req)
        cJSON_AddNumberToObject(o, "v", cJSON_GetArraySize(static_cast<cJSON*>(in)));
    else
        cJSON_AddNumberToObject(o, "post", 1);
    *out = o;
    return 0;
}

int cmd_status_a(int, para_server_message_info*, cJSON** out)
{
    *out = cJSON_CreateObject();
    cJSON_AddStringToObject(*out, "from", "a");
    return 0;
}
int cmd_status_b(int type, para_server_message_info* info, cJSON** out)
{
    *out = cJSON_CreateObject();
    cJSON_AddStringToObject(*out, "from", "b");
    cJSON_AddNumberToObject(*out, "type", type);
    cJSON_AddNumberToObject(*out, "len", static_cast<double>(strlen(info->buffer)));
    return 0;
}
int cmd_fail(int, para_server_message_info*, cJSON** out)
{
    *out = cJSON_CreateObject(); // stored and still released by the server
    return -1;
}

param_handle_t first_cmds[] = {{"status", cmd_status_a, 0}};
param_handle_t second_cmds[] = {{"status", cmd_status_b, 0}, {"broken", cmd_fail, 0}};

class Server : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir_.use_as_profile();
        module_para_handle_s ext{};
        ext.parse_name = const_cast<char*>("ext");
        ext.set_buf = ext_set;
        ext.get_buf = ext_get;
        register_para_handle_extern(&ext);
        ASSERT_EQ(register_param_command(const_cast<char*>("first"), first_cmds, 1), 0);
        ASSERT_EQ(register_param_command(const_cast<char*>("second"), second_cmds, 2), 0);
        platformparam_init();
        ASSERT_EQ(para_server_bound_port(), PARA_SERVER_PORT);
    }
    void TearDown() override { platformparam_stop(1); }

    static std::string printed(const char* json)
    {
        para::JsonPtr j(cJSON_Parse(json));
        para::CharPtr p(cJSON_Print(j.get()));
        return p.get();
    }

    test::TempDir dir_;
};

} // namespace

TEST_F(Server, GetEchoesNameAndIdInRequestOrder)
{
    auto r = test::udp_request(R"({"msg_type":"get","msg_name":"status","msg_id":12,"ext":["a","b"]})");
    ASSERT_TRUE(r);
    // Byte-exact formatted print, sent without a terminating NUL.
    EXPECT_EQ(*r, printed(R"({"msg_name":"status","msg_id":12,"ext":{"v":2}})"));
    EXPECT_EQ(last(g_last_get_key_text), "ext");

    r = test::udp_request(R"({"msg_type":"get","ext_def":[1],"msg_name":"s","msg_id":"12"})");
    ASSERT_TRUE(r);
    EXPECT_EQ(test::compact(*r), R"({"ext_def":{"v":1},"msg_name":"s","msg_id":0})");
    EXPECT_EQ(last(g_last_get_key_text), "ext_def");
}

TEST_F(Server, ShortTypesReadAndBareGetIsEmptyObject)
{
    for (const char* t : {R"({"msg_type":"g"})", R"({"msg_type":""})", R"({"msg_type":"get"})"}) {
        auto r = test::udp_request(t);
        ASSERT_TRUE(r) << t;
        EXPECT_EQ(*r, "{\n}") << t;
    }
    // Keys without a row and module-less rows add nothing.
    auto r = test::udp_request(R"({"msg_type":"get","conf_x":["a"],"nothing":1,"msg_from":"x"})");
    ASSERT_TRUE(r);
    EXPECT_EQ(test::compact(*r), "{}");
}

TEST_F(Server, SetRoutesAndEchoesOnlyNumericId)
{
    auto r = test::udp_request(R"({"msg_type":"set","msg_name":"status","msg_id":13,"ext":{"x":5}})");
    ASSERT_TRUE(r);
    EXPECT_EQ(*r, printed(R"({"msg_name":"status","msg_id":13})"));
    EXPECT_EQ(g_set_calls.load(), 1);
    EXPECT_EQ(last(g_last_set_text), R"(ext={"x":5})");

    r = test::udp_request(R"({"msg_type":"s","msg_id":"12"})");
    ASSERT_TRUE(r);
    EXPECT_EQ(test::compact(*r), "{}");
}

TEST_F(Server, PostWritesOrReads)
{
    auto r = test::udp_request(R"({"msg_type":"post","msg_name":"ext","msg_send":"s","data":{"k":1}})");
    ASSERT_TRUE(r);
    EXPECT_EQ(test::compact(*r), R"({"msg_type":"post","msg_name":"ext","msg_send":"s","data":{"k":1}})");
    EXPECT_EQ(last(g_last_set_text), R"(data={"k":1})");

    r = test::udp_request(R"({"msg_type":"p","msg_name":"ext"})");
    ASSERT_TRUE(r);
    EXPECT_EQ(test::compact(*r), R"({"msg_type":"p","msg_name":"ext","data":{"post":1}})");
    EXPECT_EQ(last(g_last_get_key_text), "(null)");

    // No module of that name: the request comes back unchanged.
    r = test::udp_request(R"({"msg_type":"post","msg_name":"zzz","data":{"k":1}})");
    ASSERT_TRUE(r);
    EXPECT_EQ(test::compact(*r), R"({"msg_type":"post","msg_name":"zzz","data":{"k":1}})");
}

TEST_F(Server, ApiCommandsLatestRegistrationWins)
{
    const char* req = R"({"msg_type":"getStatus","msg_name":"status"})";
    auto r = test::udp_request(req);
    ASSERT_TRUE(r);
    EXPECT_EQ(test::compact(*r), R"({"from":"b","type":0,"len":)" + std::to_string(strlen(req)) + "}");

    r = test::udp_request(R"({"msg_type":"reset","msg_name":"sta"})");
    ASSERT_TRUE(r);
    EXPECT_EQ(test::compact(*r), R"({"from":"b","type":1,"len":37})");

    for (const char* bad : {R"({"msg_type":"getStatus","msg_name":"net"})", R"({"msg_type":"forget"})",
                            R"({"msg_type":"target","msg_name":"broken"})"}) {
        r = test::udp_request(bad);
        ASSERT_TRUE(r) << bad;
        EXPECT_EQ(*r, R"({"err":"Invalid API command"})") << bad;
        EXPECT_EQ(r->size(), 29u);
    }
}

TEST_F(Server, RequestsWithoutReplyAndBadDatagramsKeepServerAlive)
{
    test::LogCapture log(6);
    EXPECT_FALSE(test::udp_request(R"({"msg_type":"put"})", 300));
    EXPECT_FALSE(test::udp_request(R"({"msg_name":"x"})", 300));
    EXPECT_FALSE(test::udp_request("not json at all", 300));
    EXPECT_FALSE(test::udp_request("", 300));
    EXPECT_FALSE(test::udp_request(R"(["msg_type","get"])", 300));
    EXPECT_TRUE(log.contains("cJSON_Parse err,Rec buffer: not json at all"));
    EXPECT_TRUE(log.contains("get msg_type err"));

    // A datagram that fills the whole 4096-byte buffer is refused...
    std::string head = R"({"msg_type":"get","msg_id":1,"pad":")";
    std::string full = head + std::string(4096 - head.size() - 2, 'x') + "\"}";
    ASSERT_EQ(full.size(), 4096u);
    EXPECT_FALSE(test::udp_request(full, 300));
    EXPECT_TRUE(log.contains("datagram of 4096 bytes dropped"));
    // ...one byte less is served.
    std::string fits = head + std::string(4095 - head.size() - 2, 'x') + "\"}";
    auto r = test::udp_request(fits);
    ASSERT_TRUE(r);
    EXPECT_EQ(test::compact(*r), R"({"msg_id":1})");

    // A short request after a long one sees only its own bytes.
    r = test::udp_request(R"({"msg_type":"g","msg_id":2})");
    ASSERT_TRUE(r);
    EXPECT_EQ(test::compact(*r), R"({"msg_id":2})");
}
