// One request datagram through the message server of a running library
// (example device, current values in a temporary directory). Replies go to
// a local socket of our own and are drained.
#include "harness.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

int reply_from = -1, reply_to = -1; // the socket replies leave through, and where they arrive
sockaddr_in reply_addr{};

int local_socket(sockaddr_in* a)
{
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    *a = sockaddr_in{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof *a;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(a), sizeof *a) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(a), &len) != 0)
        std::abort();
    return fd;
}

// API commands, so the command path has something to find: one answers
// with a tree, one fails, one answers nothing.
int cmd_status(int type, para_server_message_info* info, cJSON** out)
{
    *out = cJSON_CreateObject();
    cJSON_AddNumberToObject(*out, "type", type);
    cJSON_AddNumberToObject(*out, "len", static_cast<double>(std::strlen(info->buffer)));
    return 0;
}
int cmd_fail(int, para_server_message_info*, cJSON**) { return -1; }
int cmd_silent(int, para_server_message_info*, cJSON**) { return 0; }
param_handle_t commands[] = {{"getStatus", cmd_status, 0}, {"setReboot", cmd_fail, 0}, {"netInfo", cmd_silent, 0}};

void init()
{
    fuzz::use_example_device();
    para_profile.conf_save = 1;
    // Nobody sends to the server's own socket, so its worker only runs the
    // save sweep; long delays keep that sweep from writing on every turn.
    para_server_port = 0;
    platformparam_set_save_param_time(3600 * 1000, 3600 * 1000);
    register_param_command(const_cast<char*>("fuzz"), commands, 3);
    platformparam_init();
    sockaddr_in unused;
    reply_from = local_socket(&unused);
    reply_to = local_socket(&reply_addr);
}

void one(const uint8_t* data, size_t size)
{
    static para_server_message_info info;
    static char drained[70000];
    const size_t n = std::min(size, sizeof info.buffer - 1);
    std::memcpy(info.buffer, data, n);
    info.buffer[n] = '\0';
    info.fd = reply_from;
    info.addressRec = reply_addr;
    para_server_message_Process(&info);
    while (recv(reply_to, drained, sizeof drained, MSG_DONTWAIT) >= 0) {
    }
}

} // namespace

FUZZ_TARGET(init, one)
