// Client datagrams (caught on a loopback port of the test's own) from one and
// from many host threads, and the shared maps between two processes.
#include "ipc/client/para_client.h"
#include "support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <thread>

namespace {

struct Receiver {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    Receiver()
    {
        sockaddr_in a{AF_INET, 0, {inet_addr("127.0.0.1")}, {}};
        socklen_t len = sizeof a;
        bind(fd, reinterpret_cast<sockaddr*>(&a), len);
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
        para_client_set_send_port(ntohs(a.sin_port));
        Send_Initial();
    }
    ~Receiver() { close(fd); }
    std::string next(int timeout_ms) // "" when none comes in time
    {
        pollfd p{fd, POLLIN, 0};
        char buf[512];
        ssize_t n = poll(&p, 1, timeout_ms) == 1 ? recv(fd, buf, sizeof buf, 0) : 0;
        return std::string(buf, static_cast<size_t>(n > 0 ? n : 0));
    }
};

// The 76 bytes of a record, field by field in native byte order.
std::string record(int32_t type, int32_t chn, int32_t value, std::string mod, std::string member, std::string text)
{
    std::string out;
    for (int32_t v : {type, chn, value})
        out.append(reinterpret_cast<const char*>(&v), 4);
    mod.resize(16), member.resize(16), text.resize(32);
    return out + mod + member + text;
}

} // namespace

TEST(Client, DatagramsAreByteExactAndWhole)
{
    const std::string a31(31, 'a'), c32(32, 'c');
    const std::pair<std::function<int()>, std::string> rows[] = {
        {[] { return para_set_share_isp_skin_saturation_number(1, 50); }, record(0, 1, 50, "isp", "skin_saturation", "")},
        {[&] { return para_set_share_video_profile_string(2, a31.c_str()); }, record(1, 2, 0, "video", "profile", a31)},
        {[&] { return para_set_share_audio_aeFormat_string(0, (c32 + "overflow").c_str()); },
         record(1, 0, 0, "audio", "aeFormat", c32)},
        {[] { return para_set_share_isp_style_string(0, nullptr); }, ""}, // nothing to send
    };
    Receiver rx;
    test::LogCapture log;
    for (const auto& [send, want] : rows) {
        EXPECT_EQ(send(), 0);
        EXPECT_EQ(rx.next(want.empty() ? 100 : 1000), want);
    }
    EXPECT_TRUE(log.contains("no text for isp.style"));
    // Whole datagrams while hosts send from many threads and re-open the
    // socket meanwhile (run under ThreadSanitizer too).
    std::vector<std::thread> senders;
    for (int t = 0; t < 4; ++t)
        senders.emplace_back([t] {
            for (int i = 0; i < 300; ++i) {
                i % 2 ? para_set_share_isp_skin_saturation_number(t, i) : para_set_share_isp_skin_saturation_string(t, "x");
                if (i % 50 == 0)
                    Send_Initial();
            }
        });
    for (auto& s : senders)
        s.join();
    int received = 0; // the socket's buffer may have dropped some
    for (std::string d; !(d = rx.next(200)).empty(); ++received)
        ASSERT_TRUE(d.size() == 76 && d.compare(12, 4, std::string("isp\0", 4)) == 0) << d.size();
    EXPECT_GT(received, 0);
}

TEST(Client, MapNumbersAndARepublishedMap)
{
    auto open_fds = [] { // a map once made keeps no descriptor (the client's one socket aside)
        int n = 0;
        for (auto& fd : std::filesystem::directory_iterator("/proc/self/fd"))
            n += std::filesystem::read_symlink(fd.path()).string().compare(0, 7, "socket:") != 0;
        return n;
    };
    const auto fds = open_fds();
    para_share_set_name_prefix(("/para_share_t" + std::to_string(getpid()) + "_").c_str());
    test::LogCapture log;
    EXPECT_EQ(para_share_register(-1) + para_share_register(4), -2);
    EXPECT_EQ(log.count("ERROR: This mod is not exist!"), 2);
    EXPECT_EQ(para_get_share_map(4, 1), nullptr);
    EXPECT_EQ(para_share_register(0), -1); // nothing published yet
    EXPECT_TRUE(log.contains("ERROR: main program don't register this share module"));
    EXPECT_EQ(para_get_share_map(0, 1), nullptr);
    EXPECT_EQ(para_client_send_socket(), -1);
    for (auto [mod, num, size] : {std::tuple{-1, 1, 1}, {1, 0, 8}, {1, 3, -1}, {1, 1 << 20, 1 << 20}})
        EXPECT_EQ(para_share_publish(mod, num, size), nullptr) << mod << " " << num << " " << size;
    auto* base = static_cast<char*>(para_share_publish(1, 3, 8));
    ASSERT_NE(base, nullptr);
    EXPECT_EQ(para_share_publish(1, 3, 8), base);
    EXPECT_EQ(para_share_publish(1, 4, 8), nullptr);
    log.clear();
    for (int map : {0, 4})
        EXPECT_EQ(para_get_share_map(1, map), nullptr) << map;
    EXPECT_EQ(log.count("ERROR: This share map is not exist!"), 2);
    EXPECT_EQ(para_get_share_map(1, 3), base + 12 + 16);
    reinterpret_cast<dov_share_head_s*>(base)->num = 1000; // more than the object holds: not believed
    EXPECT_EQ(para_get_share_map(1, 4), nullptr);
    EXPECT_EQ(para_share_unpublish(1), 0);
    EXPECT_EQ(para_share_unpublish(1), -1);
    EXPECT_EQ(para_share_register(1), -1);

    // Another application takes its map away and publishes a new one under
    // the same name; a client that registered before follows.
    const std::string name = "/para_share_t" + std::to_string(getpid()) + "_2";
    auto publish = [&](const char* text) {
        int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
        EXPECT_EQ(ftruncate(fd, 12 + 16), 0);
        auto* head = static_cast<dov_share_head_s*>(mmap(nullptr, 28, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        std::snprintf(reinterpret_cast<char*>(head + 1), 16, "%s", text);
        *head = {1, 1, 16};
        return close(fd), head;
    };
    dov_share_head_s* first = publish("first");
    ASSERT_EQ(para_share_register(2), 0);
    EXPECT_STREQ(static_cast<char*>(para_get_share_map(2, 1)), "first");
    first->flag = 0; // how the application takes a map away
    shm_unlink(name.c_str());
    publish("second");
    EXPECT_STREQ(static_cast<char*>(para_get_share_map(2, 1)), "second");
    EXPECT_EQ(para_share_register(2), 0);
    shm_unlink(name.c_str());
    EXPECT_EQ(open_fds(), fds);
}

// Once the main side has published, the client registers, reads map 2 and answers in map 3.
TEST(Client, SharedMapAcrossProcesses)
{
    para_share_set_name_prefix(("/para_share_f" + std::to_string(getpid()) + "_").c_str());
    int go[2], done[2];
    char c;
    ASSERT_EQ(pipe(go) | pipe(done), 0);
    pid_t pid = fork();
    if (pid == 0) { // the client
        int sock = read(go[0], &c, 1) == 1 && para_share_register(2) == 0 ? para_client_send_socket() : -1;
        auto* two = static_cast<char*>(para_get_share_map(2, 2));
        auto* three = static_cast<char*>(para_get_share_map(2, 3));
        if (sock < 0 || para_share_register(2) != 0 || para_client_send_socket() != sock || !two || !three ||
            std::strcmp(two, "second map") != 0)
            _exit(13);
        std::strcpy(three, "client was here");
        _exit(write(done[1], "x", 1) == 1 ? 0 : 14);
    }
    close(done[1]); // a child that dies early ends the wait below
    auto* base = static_cast<char*>(para_share_publish(2, 3, 32));
    ASSERT_NE(base, nullptr);
    std::strcpy(static_cast<char*>(para_get_share_map(2, 2)), "second map");
    ASSERT_EQ(write(go[1], "x", 1), 1);
    EXPECT_EQ(read(done[0], &c, 1), 1);
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_STREQ(base + 12 + 2 * 32, "client was here");
    EXPECT_EQ(para_share_unpublish(2), 0);
}
