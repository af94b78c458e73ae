// The client datagram that paramctl sends, caught on port 6800 where the
// server would be (the web-form scenarios are in tests/data/net/).
#include "support.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>

namespace {

test::CommandResult paramctl(const std::string& args)
{
    return test::run_command(test::tools_prefix() + "paramctl " + args);
}

} // namespace

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
