// Client datagrams (caught by a receiver of the test's own on a loopback
// port) and the shared maps between two processes.
#include "ipc/client/para_client.h"
#include "support.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

class Receiver {
public:
    Receiver()
    {
        fd_ = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = inet_addr("127.0.0.1");
        bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
        socklen_t len = sizeof a;
        getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
        para_client_set_send_port(ntohs(a.sin_port));
        Send_Initial();
    }
    ~Receiver() { close(fd_); }
    // One datagram, or "" when none arrives in time.
    std::string next(int timeout_ms = 1000)
    {
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, timeout_ms) != 1)
            return "";
        char buf[512];
        ssize_t n = recv(fd_, buf, sizeof buf, 0);
        return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
    }

private:
    int fd_;
};

st_data as_record(const std::string& bytes)
{
    st_data d{};
    std::memcpy(&d, bytes.data(), std::min(bytes.size(), sizeof d));
    return d;
}

std::string padded(const std::string& s, size_t n)
{
    return s + std::string(n - s.size(), '\0');
}

} // namespace

TEST(Client, NumberDatagramIsByteExact)
{
    Receiver rx;
    EXPECT_EQ(para_set_share_isp_skin_saturation_number(1, 50), 0);
    const std::string got = rx.next();
    const std::string want = std::string("\0\0\0\0" "\1\0\0\0" "\x32\0\0\0", 12) + padded("isp", 16) +
                             padded("skin_saturation", 16) + std::string(32, '\0');
    ASSERT_EQ(want.size(), 76u);
    EXPECT_EQ(got, want);
}

TEST(Client, TextDatagramsAreCutTo32Bytes)
{
    Receiver rx;
    para_set_share_video_profile_string(2, std::string(31, 'a').c_str());
    st_data d = as_record(rx.next());
    EXPECT_EQ(d.type, 1);
    EXPECT_EQ(d.chn, 2);
    EXPECT_EQ(d.value, 0);
    EXPECT_EQ(std::string(d.string, sizeof d.string), padded(std::string(31, 'a'), 32));

    para_set_share_audio_aeFormat_string(0, (std::string(32, 'c') + "overflow").c_str());
    std::string cut = rx.next();
    ASSERT_EQ(cut.size(), 76u);
    EXPECT_EQ(cut.substr(44), std::string(32, 'c'));

    test::LogCapture log;
    EXPECT_EQ(para_set_share_isp_style_string(0, nullptr), 0);
    EXPECT_EQ(rx.next(100), "");
    EXPECT_TRUE(log.contains("no text for isp.style"));
}

TEST(Client, BadModuleAndMapNumbers)
{
    para_share_set_name_prefix(("/para_share_t" + std::to_string(getpid()) + "_").c_str());
    test::LogCapture log;
    EXPECT_EQ(para_share_register(-1), -1);
    EXPECT_EQ(para_share_register(4), -1);
    EXPECT_EQ(log.count("ERROR: This mod is not exist!"), 2);
    EXPECT_EQ(para_get_share_map(4, 1), nullptr);
    EXPECT_EQ(para_share_publish(-1, 1, 1), nullptr);

    // Nothing published yet.
    EXPECT_EQ(para_share_register(0), -1);
    EXPECT_TRUE(log.contains("ERROR: main program don't register this share module"));
    EXPECT_EQ(para_get_share_map(0, 1), nullptr);
    EXPECT_EQ(para_client_send_socket(), -1);

    EXPECT_EQ(para_share_publish(1, 0, 8), nullptr);
    EXPECT_EQ(para_share_publish(1, 3, -1), nullptr);
    EXPECT_EQ(para_share_publish(1, 1 << 20, 1 << 20), nullptr);

    auto* base = static_cast<char*>(para_share_publish(1, 3, 8));
    ASSERT_NE(base, nullptr);
    EXPECT_EQ(para_share_publish(1, 3, 8), base);
    EXPECT_EQ(para_share_publish(1, 4, 8), nullptr);
    log.clear();
    EXPECT_EQ(para_get_share_map(1, 0), nullptr);
    EXPECT_EQ(para_get_share_map(1, 4), nullptr);
    EXPECT_EQ(log.count("ERROR: This share map is not exist!"), 2);
    EXPECT_EQ(para_get_share_map(1, 3), base + 12 + 16);

    // A header that claims more than the object holds is not believed.
    reinterpret_cast<dov_share_head_s*>(base)->num = 1000;
    EXPECT_EQ(para_get_share_map(1, 4), nullptr);
    reinterpret_cast<dov_share_head_s*>(base)->num = 3;

    EXPECT_EQ(para_share_unpublish(1), 0);
    EXPECT_EQ(para_share_unpublish(1), -1);
    EXPECT_EQ(para_share_register(1), -1);
}

TEST(Client, SharedMapAcrossProcesses)
{
    para_share_set_name_prefix(("/para_share_f" + std::to_string(getpid()) + "_").c_str());
    int go[2], done[2];
    ASSERT_EQ(pipe(go), 0);
    ASSERT_EQ(pipe(done), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        // Client: registers once the main side has published, reads map 2
        // and answers in map 3.
        char c;
        if (read(go[0], &c, 1) != 1)
            _exit(10);
        if (para_share_register(2) != 0)
            _exit(11);
        int sock = para_client_send_socket();
        if (sock < 0 || para_share_register(2) != 0 || para_client_send_socket() != sock)
            _exit(12);
        auto* two = static_cast<char*>(para_get_share_map(2, 2));
        auto* three = static_cast<char*>(para_get_share_map(2, 3));
        if (!two || !three || std::strcmp(two, "second map") != 0)
            _exit(13);
        std::strcpy(three, "client was here");
        if (write(done[1], "x", 1) != 1)
            _exit(14);
        _exit(0);
    }
    close(done[1]); // a child that dies early ends the wait below
    auto* base = static_cast<char*>(para_share_publish(2, 3, 32));
    ASSERT_NE(base, nullptr);
    std::strcpy(static_cast<char*>(para_get_share_map(2, 2)), "second map");
    ASSERT_EQ(write(go[1], "x", 1), 1);
    char c;
    EXPECT_EQ(read(done[0], &c, 1), 1);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_STREQ(base + 12 + 2 * 32, "client was here");
    EXPECT_EQ(para_share_unpublish(2), 0);
}
