// Client datagrams sent from many host threads at once: every datagram
// leaves whole and the send path stays race-free (run under ThreadSanitizer).
#include "ipc/client/para_client.h"
#include "support.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

TEST(ClientThreads, ConcurrentSendersEachSendWholeDatagrams)
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = inet_addr("127.0.0.1");
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    para_client_set_send_port(ntohs(a.sin_port));
    Send_Initial();

    std::atomic<bool> done{false};
    std::atomic<int> received{0}, broken{0};
    std::thread rx([&] {
        char buf[512];
        for (;;) {
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, 200) != 1) {
                if (done)
                    return;
                continue;
            }
            ssize_t n = recv(fd, buf, sizeof buf, 0);
            st_data d{};
            std::memcpy(&d, buf, sizeof d);
            if (n != static_cast<ssize_t>(sizeof(st_data)) || std::strncmp(d.mod, "isp", sizeof d.mod) != 0)
                ++broken;
            ++received;
        }
    });
    std::vector<std::thread> senders;
    for (int t = 0; t < 4; ++t)
        senders.emplace_back([t] {
            for (int i = 0; i < 300; ++i) {
                if (i % 2)
                    para_set_share_isp_skin_saturation_number(t, i);
                else
                    para_set_share_isp_skin_saturation_string(t, "text");
                if (i % 50 == 0)
                    Send_Initial(); // the application may re-open the socket meanwhile
            }
        });
    for (auto& s : senders)
        s.join();
    done = true;
    rx.join();
    close(fd);
    EXPECT_GT(received.load(), 0);
    EXPECT_EQ(broken.load(), 0);
}
