// paramctl: command-line client of the parameter server (UDP port 6800).
#include "para.h"

#include <arpa/inet.h>
#include <getopt.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Options {
    std::string host = "127.0.0.1";
    int port = PARA_SERVER_PORT;
    int timeout_ms = 1000;
    bool raw_json = false;
};

struct Command {
    const char* name;
    const char* synopsis;
    const char* help;
    int (*run)(const Options&, int argc, char** argv);
};

void main_usage(FILE* out);
const Command* find_command(const char* name);

int fail(const char* fmt, const char* arg = "")
{
    fprintf(stderr, "paramctl: ");
    fprintf(stderr, fmt, arg);
    fputc('\n', stderr);
    return 2;
}

// Sends one datagram and waits for one reply. 0 ok, 3 time-out, 1 error.
int exchange(const Options& o, const std::string& text, std::string* reply)
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        fprintf(stderr, "paramctl: socket: %s\n", strerror(errno));
        return 1;
    }
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(o.port));
    if (inet_pton(AF_INET, o.host.c_str(), &to.sin_addr) != 1) {
        close(fd);
        fprintf(stderr, "paramctl: '%s' is not an IPv4 address\n", o.host.c_str());
        return 1;
    }
    if (sendto(fd, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) < 0) {
        fprintf(stderr, "paramctl: send: %s\n", strerror(errno));
        close(fd);
        return 1;
    }
    pollfd p{fd, POLLIN, 0};
    int r = poll(&p, 1, o.timeout_ms);
    if (r != 1) {
        close(fd);
        fprintf(stderr, "paramctl: no reply from %s:%d within %d ms (is paramd running?)\n", o.host.c_str(),
                o.port, o.timeout_ms);
        return 3;
    }
    std::vector<char> buf(65536);
    ssize_t n = recv(fd, buf.data(), buf.size(), 0);
    close(fd);
    if (n < 0) {
        fprintf(stderr, "paramctl: receive: %s\n", strerror(errno));
        return 1;
    }
    reply->assign(buf.data(), static_cast<size_t>(n));
    return 0;
}

void print_readable(const cJSON* item, const std::string& path)
{
    if (cJSON_IsObject(item) || cJSON_IsArray(item)) {
        int i = 0;
        for (const cJSON* c = item->child; c; c = c->next, ++i) {
            std::string key = cJSON_IsObject(item) ? (c->string ? c->string : "") : "[" + std::to_string(i) + "]";
            print_readable(c, path.empty() ? key : path + (cJSON_IsObject(item) ? "." : "") + key);
        }
        if (!item->child)
            printf("%s = %s\n", path.empty() ? "(reply)" : path.c_str(), cJSON_IsObject(item) ? "{}" : "[]");
        return;
    }
    char* v = cJSON_PrintUnformatted(item);
    printf("%s = %s\n", path.c_str(), v ? v : "?");
    free(v);
}

// Prints the reply; error replies ({"err":...}) make the exit status 1.
int show_reply(const Options& o, const std::string& reply)
{
    cJSON* j = cJSON_Parse(reply.c_str());
    if (!j || o.raw_json) {
        fwrite(reply.data(), 1, reply.size(), stdout);
        if (reply.empty() || reply.back() != '\n')
            fputc('\n', stdout);
    } else {
        print_readable(j, "");
    }
    int status = 0;
    if (j && cJSON_GetObjectItem(j, "err"))
        status = 1;
    cJSON_Delete(j);
    return status;
}

// Sends the request (released here) and waits for the reply; as exchange.
int exchange_json(const Options& o, cJSON* request, std::string* reply)
{
    char* text = cJSON_PrintUnformatted(request);
    cJSON_Delete(request);
    int r = exchange(o, text, reply);
    free(text);
    return r;
}

int send_and_show(const Options& o, cJSON* request)
{
    std::string reply;
    int r = exchange_json(o, request, &reply);
    return r ? r : show_reply(o, reply);
}

cJSON* new_request(const char* type)
{
    static int id = 0;
    cJSON* req = cJSON_CreateObject();
    cJSON_AddStringToObject(req, "msg_type", type);
    cJSON_AddStringToObject(req, "msg_name", "paramctl");
    cJSON_AddNumberToObject(req, "msg_id", (getpid() + id++) % 256);
    return req;
}

// "123" and "-5" become numbers, anything else (or "quoted") a string.
cJSON* value_item(const char* v)
{
    size_t n = strlen(v);
    if (n >= 2 && v[0] == '"' && v[n - 1] == '"')
        return cJSON_CreateString(std::string(v + 1, n - 2).c_str());
    char* end = nullptr;
    errno = 0;
    long num = strtol(v, &end, 10);
    if (*v && !*end && errno == 0)
        return cJSON_CreateNumber(static_cast<double>(num));
    return cJSON_CreateString(v);
}

bool add_assignments(cJSON* obj, int argc, char** argv)
{
    for (int i = 0; i < argc; ++i) {
        const char* eq = strchr(argv[i], '=');
        if (!eq || eq == argv[i]) {
            fail("expected member=value, got '%s'", argv[i]);
            return false;
        }
        cJSON_AddItemToObject(obj, std::string(argv[i], static_cast<size_t>(eq - argv[i])).c_str(), value_item(eq + 1));
    }
    return true;
}

int cmd_get(const Options& o, int argc, char** argv)
{
    if (argc < 1)
        return fail("get: MODULE missing (try: paramctl help get)");
    cJSON* req = new_request("get");
    cJSON* members = cJSON_AddArrayToObject(req, argv[0]);
    if (argc == 1)
        cJSON_AddItemToArray(members, cJSON_CreateString("all"));
    for (int i = 1; i < argc; ++i)
        cJSON_AddItemToArray(members, cJSON_CreateString(argv[i]));
    return send_and_show(o, req);
}

int cmd_set(const Options& o, int argc, char** argv)
{
    if (argc < 2)
        return fail("set: MODULE and member=value wanted (try: paramctl help set)");
    cJSON* req = new_request("set");
    cJSON* obj = cJSON_AddObjectToObject(req, argv[0]);
    if (!add_assignments(obj, argc - 1, argv + 1)) {
        cJSON_Delete(req);
        return 2;
    }
    return send_and_show(o, req);
}

int cmd_post(const Options& o, int argc, char** argv)
{
    if (argc < 1)
        return fail("post: MODULE missing (try: paramctl help post)");
    cJSON* req = new_request("post");
    cJSON_ReplaceItemInObject(req, "msg_name", cJSON_CreateString(argv[0]));
    if (argc > 1) {
        cJSON_AddStringToObject(req, "msg_send", "set");
        if (!add_assignments(cJSON_AddObjectToObject(req, "data"), argc - 1, argv + 1)) {
            cJSON_Delete(req);
            return 2;
        }
    }
    return send_and_show(o, req);
}

int cmd_api(const Options& o, int argc, char** argv)
{
    if (argc < 2)
        return fail("api: TYPE and NAME wanted (try: paramctl help api)");
    cJSON* req = cJSON_CreateObject();
    cJSON_AddStringToObject(req, "msg_type", argv[0]);
    cJSON_AddStringToObject(req, "msg_name", argv[1]);
    if (!add_assignments(req, argc - 2, argv + 2)) {
        cJSON_Delete(req);
        return 2;
    }
    return send_and_show(o, req);
}

int cmd_raw(const Options& o, int argc, char** argv)
{
    if (argc != 1)
        return fail("raw: exactly one JSON text wanted (try: paramctl help raw)");
    std::string reply;
    int r = exchange(o, argv[0], &reply);
    return r ? r : show_reply(o, reply);
}

// Web pages answer in form text: one pair per line, "X=null" is an error.
int show_form(const Options& o, const std::string& reply)
{
    if (o.raw_json) {
        printf("%s\n", reply.c_str());
    } else {
        size_t pos = 0;
        for (;;) {
            size_t amp = reply.find('&', pos);
            std::string pair = reply.substr(pos, amp == std::string::npos ? std::string::npos : amp - pos);
            size_t eq = pair.find('=');
            if (eq == std::string::npos)
                printf("%s\n", pair.c_str());
            else
                printf("%s = %s\n", pair.substr(0, eq).c_str(), pair.substr(eq + 1).c_str());
            if (amp == std::string::npos)
                break;
            pos = amp + 1;
        }
    }
    const std::string tail = "=null";
    return reply.size() >= tail.size() && reply.compare(reply.size() - tail.size(), tail.size(), tail) == 0;
}

int cmd_web(const Options& o, int argc, char** argv)
{
    bool get = argc == 2 && strcmp(argv[0], "get") == 0;
    bool set = argc == 3 && strcmp(argv[0], "set") == 0;
    if (!get && !set)
        return fail("web: 'get PAGE' or 'set PAGE FORM' wanted (try: paramctl help web)");
    // The server answers nothing to a form without any pair.
    if (set && !strchr(argv[2], '='))
        return fail("web set: FORM needs name=value pairs, got '%s'", argv[2]);
    cJSON* req = cJSON_CreateObject();
    cJSON_AddStringToObject(req, "msg_from", "www");
    cJSON_AddStringToObject(req, "msg_type", argv[0]);
    cJSON_AddStringToObject(req, "msg_name", argv[1]);
    if (set)
        cJSON_AddStringToObject(req, "data", argv[2]);
    std::string reply;
    int r = exchange_json(o, req, &reply);
    return r ? r : show_form(o, reply);
}

// The client role's senders, one row per module member they know.
struct ShareRow {
    const char* mod;
    const char* member;
    int (*number)(int chn, int val);
    int (*text)(int chn, const char* str);
};
#define PARAMCTL_SHARE_ROW(mod, member)                                                    \
    {#mod, #member, para_set_share_##mod##_##member##_number, para_set_share_##mod##_##member##_string},
const ShareRow kShareRows[] = {PARA_SHARE_MEMBERS(PARAMCTL_SHARE_ROW)};
#undef PARAMCTL_SHARE_ROW

int cmd_share(const Options& o, int argc, char** argv)
{
    if (argc != 4)
        return fail("share: MODULE MEMBER CHN VALUE wanted (try: paramctl help share)");
    if (o.host != "127.0.0.1" || o.port != PARA_SERVER_PORT)
        return fail("share: client datagrams always go to 127.0.0.1:6800; --host/--port do not apply");
    const ShareRow* row = nullptr;
    for (const ShareRow& r : kShareRows)
        if (strcmp(r.mod, argv[0]) == 0 && strcmp(r.member, argv[1]) == 0)
            row = &r;
    if (!row) {
        fprintf(stderr, "paramctl: share: no member %s.%s; known:\n", argv[0], argv[1]);
        for (const ShareRow& r : kShareRows)
            fprintf(stderr, "  %s %s\n", r.mod, r.member);
        return 2;
    }
    cJSON* chn = value_item(argv[2]);
    cJSON* value = value_item(argv[3]);
    const bool chn_ok = cJSON_IsNumber(chn);
    const int channel = chn->valueint;
    cJSON_Delete(chn);
    if (!chn_ok) {
        cJSON_Delete(value);
        return fail("share: CHN must be an integer, got '%s'", argv[2]);
    }
    Send_Initial();
    if (cJSON_IsNumber(value)) {
        row->number(channel, value->valueint);
    } else {
        if (strlen(value->valuestring) > sizeof(st_data::string))
            fprintf(stderr, "paramctl: share: text cut to %zu bytes\n", sizeof(st_data::string));
        row->text(channel, value->valuestring);
    }
    cJSON_Delete(value);
    printf("sent %s.%s chn %d = %s\n", row->mod, row->member, channel, argv[3]);
    return 0;
}

int cmd_help(const Options&, int argc, char** argv)
{
    if (argc == 0) {
        main_usage(stdout);
        return 0;
    }
    const Command* c = find_command(argv[0]);
    if (!c)
        return fail("unknown command '%s'", argv[0]);
    printf("usage: paramctl [options] %s\n\n%s", c->synopsis, c->help);
    return 0;
}

const Command kCommands[] = {
    {"get", "get MODULE [MEMBER...]",
     "Reads members of a module (all of them when none is named). MODULE is a\n"
     "request key such as video0, video1_def, isp0, isp0_def, audio, af, misc,\n"
     "misc_def, netport.\n"
     "  paramctl get video0 bitRate gop\n",
     cmd_get},
    {"set", "set MODULE MEMBER=VALUE...",
     "Writes members. Integers are sent as numbers, anything else (or a value\n"
     "in double quotes) as text. The reply only echoes the request's name and\n"
     "id: the module's range checks decide what is stored; read back to see.\n"
     "  paramctl set video0 bitRate=6000 size=PIC_HD720\n",
     cmd_set},
    {"post", "post MODULE [MEMBER=VALUE...]",
     "Sends a post request: with assignments it writes them as \"data\", without\n"
     "it reads. The reply is the request itself.\n",
     cmd_post},
    {"api", "api TYPE NAME [KEY=VALUE...]",
     "Calls a command that the host application registered, e.g.\n"
     "  paramctl api getStatus net\n",
     cmd_api},
    {"raw", "raw JSON",
     "Sends the JSON text as it is and prints the reply.\n"
     "  paramctl raw '{\"msg_type\":\"get\",\"video0\":[\"all\"]}'\n",
     cmd_raw},
    {"web", "web get PAGE | web set PAGE FORM",
     "Talks like the web server: reads a page of the mapping file, or writes a\n"
     "form (name=value pairs joined by &). A write is answered result=success.\n"
     "  paramctl web get encode\n"
     "  paramctl web set encode 'enc_bitrate=6&enc_gop=30'\n",
     cmd_web},
    {"share", "share MODULE MEMBER CHN VALUE",
     "Sends one client datagram (76 bytes, no reply) to 127.0.0.1:6800, as any\n"
     "process in the client role does. MODULE is video, audio or isp; an integer\n"
     "VALUE travels as a number, anything else (or \"quoted\") as text of at\n"
     "most 32 bytes.\n"
     "  paramctl share isp skin_saturation 1 50\n",
     cmd_share},
    {"help", "help [COMMAND]", "Shows the help of a command.\n", cmd_help},
};

const Command* find_command(const char* name)
{
    for (const Command& c : kCommands)
        if (strcmp(c.name, name) == 0)
            return &c;
    return nullptr;
}

void main_usage(FILE* out)
{
    fprintf(out,
            "usage: paramctl [--host ADDR] [--port N] [--timeout MS] [--json] COMMAND ...\n\n"
            "Talks to the camera's parameter server.\n\n"
            "  --host ADDR     server address (default 127.0.0.1)\n"
            "  --port N        server port (default 6800)\n"
            "  --timeout MS    how long to wait for the reply (default 1000)\n"
            "  --json          print replies as raw JSON\n\n"
            "commands:\n");
    for (const Command& c : kCommands)
        fprintf(out, "  %s\n", c.synopsis);
    fprintf(out, "\n'paramctl help COMMAND' or 'paramctl COMMAND --help' explains one.\n"
                 "Exit status: 0 ok, 1 error reply, 2 usage, 3 no reply.\n");
}

} // namespace

int main(int argc, char** argv)
{
    Options o;
    static const option opts[] = {
        {"host", required_argument, nullptr, 'H'}, {"port", required_argument, nullptr, 'p'},
        {"timeout", required_argument, nullptr, 't'}, {"json", no_argument, nullptr, 'j'},
        {"help", no_argument, nullptr, 'h'}, {nullptr, 0, nullptr, 0},
    };
    int c;
    // '+': options end at the command, so member=value arguments stay as they are.
    while ((c = getopt_long(argc, argv, "+H:p:t:jh", opts, nullptr)) != -1) {
        switch (c) {
        case 'H': o.host = optarg; break;
        case 'p': o.port = atoi(optarg); break;
        case 't': o.timeout_ms = atoi(optarg); break;
        case 'j': o.raw_json = true; break;
        case 'h': main_usage(stdout); return 0;
        default: main_usage(stderr); return 2;
        }
    }
    if (o.port <= 0 || o.port > 65535 || o.timeout_ms <= 0)
        return fail("--port wants 1..65535 and --timeout a positive number of milliseconds");
    if (optind >= argc) {
        main_usage(stderr);
        return 2;
    }
    const Command* cmd = find_command(argv[optind]);
    if (!cmd)
        return fail("unknown command '%s' (try: paramctl --help)", argv[optind]);
    int sub_argc = argc - optind - 1;
    char** sub_argv = argv + optind + 1;
    for (int i = 0; i < sub_argc; ++i)
        if (strcmp(sub_argv[i], "--help") == 0 || strcmp(sub_argv[i], "-h") == 0) {
            char* name = argv[optind];
            return cmd_help(o, 1, &name);
        }
    return cmd->run(o, sub_argc, sub_argv);
}
