// Web-form requests through the running server, and the client datagram
// that paramctl sends: real datagrams on port 6800.
#include "para_internal.h"
#include "support.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>

namespace {

// gop of stream 0 is greedy: the same form field also feeds stream 1.
const char* kMapping = R"({"encode":["video0"],"both":["video0","video1"],
  "video0":{"bitRate":["enc_bitrate","N","K"],"gop":["enc_gop","N","Greedy"]},
  "video1":{"gop":["enc_gop","N"]}})";

class WebVideo : public ::testing::Test {
protected:
    void SetUp() override
    {
        test::write_file(dir_.ro() + "/www2json.json", kMapping);
        test::write_file(dir_.ro() + "/video_range.json",
                         R"({"video0":{"bitRate":[100,20000],"gop":[1,200]},"video1":{"gop":[1,200]}})");
        test::write_file(dir_.ro() + "/video_def.json", R"({"video0":{"bitRate":4500,"gop":60},"video1":{"gop":25}})");
        dir_.use_as_profile();
        platformparam_init();
    }
    void TearDown() override { platformparam_stop(1); }

    static std::string web(const std::string& type, const std::string& page, const std::string& form = "")
    {
        std::string req = R"({"msg_from":"www","msg_type":")" + type + R"(","msg_name":")" + page + "\"";
        auto r = test::udp_request(req + (form.empty() ? "" : R"(,"data":")" + form + "\"") + "}", 500);
        return r ? *r : "<no reply>";
    }

    test::TempDir dir_;
};

test::CommandResult paramctl(const std::string& args)
{
    return test::run_command(test::tools_prefix() + "paramctl " + args);
}

} // namespace

TEST_F(WebVideo, PageReadAndWrite)
{
    EXPECT_EQ(web("get", "encode"), "enc_bitrate=4.5&enc_gop=60");
    EXPECT_EQ(web("set", "encode", "enc_bitrate=6&enc_gop=30"), "result=success");
    EXPECT_EQ(para_video_cur[0].bitRate, 6000);
    EXPECT_EQ(para_video_cur[0].gop, 30);
    EXPECT_EQ(para_video_cur[1].gop, 30);

    // Refused by the range, still answered with success.
    EXPECT_EQ(web("set", "encode", "enc_bitrate=25"), "result=success");
    EXPECT_EQ(web("get", "both"), "enc_bitrate=6&enc_gop=30&enc_gop=30");
}

TEST_F(WebVideo, ErrorsAndSilentRefusals)
{
    EXPECT_EQ(web("get", "nopage"), "nopage=null");
    EXPECT_EQ(test::udp_request(R"({"msg_from":"www","msg_type":"get"})").value_or(""), "msg_name=null");
    EXPECT_EQ(web("set", "encode", "ab"), "<no reply>");
    EXPECT_EQ(web("g", "encode"), "<no reply>");
    EXPECT_EQ(web("set", "encode", "enc_gop=7"), "result=success");
}

TEST_F(WebVideo, ParamctlSpeaksForTheWebServer)
{
    auto w = paramctl("web set encode 'enc_bitrate=1.25'");
    EXPECT_EQ(w.status, 0) << w.out;
    EXPECT_EQ(w.out, "result = success\n");
    w = paramctl("web get encode");
    EXPECT_EQ(w.status, 0) << w.out;
    EXPECT_EQ(w.out, "enc_bitrate = 1.2\nenc_gop = 60\n");
    EXPECT_EQ(paramctl("--json web get encode").out, "enc_bitrate=1.2&enc_gop=60\n");
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
    EXPECT_EQ(next(), std::string("\0\0\0\0\1\0\0\0\x32\0\0\0isp", 15) + std::string(13, '\0') + "skin_saturation" +
                          std::string(33, '\0'));

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
