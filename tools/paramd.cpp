// paramd: the host application around the parameter library. Fills the
// start-up profile from its flags, serves UDP port 6800, logs every callback
// and stops with a forced save on SIGINT/SIGTERM.
#include "para.h"

#include <arpa/inet.h>
#include <getopt.h>
#include <sys/socket.h>
#include <signal.h>
#include <sys/stat.h>
#include <netdb.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>

namespace {

const char kVersion[] = PARA_TOOLS_VERSION;

void usage(FILE* out)
{
    fprintf(out,
            "paramd - parameter server of the network camera\n"
            "\n"
            "Usage: paramd --ro DIR [--rw DIR] [--map FILE] [--bind ADDR] [--log-level N] [--conf-save]\n"
            "\n"
            "Loads the parameter files, answers JSON requests on UDP port 6800, logs every\n"
            "change callback on standard output and saves changed values to the read-write\n"
            "directory. Besides get, set and post requests it answers these commands\n"
            "(paramctl calls them; any client may):\n"
            "  getInfo describe [module=M]  modules, or one module's members with kind,\n"
            "                               range, default, current value and names\n"
            "  getInfo status               version, directories, bind address, uptime\n"
            "  getInfo commands             these commands\n"
            "  setCommand save              save every module now\n"
            "\n"
            "Options:\n"
            "  -r, --ro DIR         read-only parameter directory: ranges, defaults, styles,\n"
            "                       the mapping file (required; must exist)\n"
            "  -w, --rw DIR         read-write directory for current values (default /data;\n"
            "                       created when missing)\n"
            "  -m, --map FILE       mapping file name inside the read-only directory\n"
            "                       (default www2json.json)\n"
            "  -b, --bind ADDR      serve on this IPv4 address or host name only (default:\n"
            "                       every local address)\n"
            "  -l, --log-level N    library log level: 3 errors (default: a set is one\n"
            "                       line, paramd's own), 6 information (about a hundred\n"
            "                       lines per request), 7 detail\n"
            "  -c, --conf-save      write .conf modules back (off by default, as on the device)\n"
            "  -h, --help           print this help and exit\n"
            "  -V, --version        print the version and exit\n"
            "\n"
            "Signals:\n"
            "  SIGINT, SIGTERM  stop with a forced save of every module\n"
            "  SIGUSR1          write the video name and size tables to the log\n"
            "  SIGHUP           reload the \"netport\" .conf module\n"
            "\n"
            "Exit status:\n"
            "  0  stopped by a signal after saving\n"
            "  1  cannot start: missing directory, port 6800 in use, bad bind address\n"
            "  2  usage error\n"
            "\n"
            "Examples:\n"
            "  paramd --ro /home --rw /data\n"
            "  paramd --ro examples/device --rw /tmp/paramd-rw --bind 127.0.0.1\n");
}

void say(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void say(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    fputs("paramd: ", stdout);
    vfprintf(stdout, fmt, ap);
    fputc('\n', stdout);
    fflush(stdout);
    va_end(ap);
}

std::string json_text(void* json)
{
    char* t = json ? cJSON_PrintUnformatted(static_cast<cJSON*>(json)) : nullptr;
    std::string s = t ? t : "null";
    free(t);
    return s;
}

void install_callbacks()
{
    dov_para_profile& p = para_profile;
    p.para_version_conflict = [](char* f, int o, int n) { say("version conflict %s: %d -> %d", f, o, n); };
    p.isp_caller = [](void* s, int pipe, int v) { say("isp member changed: setter %p isp %d value %d", s, pipe, v); };
    p.video_caller = [](void* s, int st, int v) { say("video member changed: setter %p stream %d value %d", s, st, v); };
    p.audio_caller = [](void* s, int v) { say("audio member changed: setter %p value %d", s, v); };
    p.af_caller = [](void* s, int v) { say("af member changed: setter %p value %d", s, v); };
    p.misc_caller = [](char* f, const void* s, char* k, int v) {
        say("%s key changed: %s = %d (setter %p)", f, k, v, s);
    };
    p.odm_caller = [](void* k) { say("factory key changed: %s", static_cast<char*>(k)); };
    p.conf_caller_in = [](char* f, const char* k) { say("%s.conf key changed: %s", f, k); };
    p.isp_page_caller = [](void* j) { say("isp page: %s", json_text(j).c_str()); };
    p.video_page_caller = [](void* j) { say("video page: %s", json_text(j).c_str()); };
    p.audio_page_caller = [](void* j) { say("audio page: %s", json_text(j).c_str()); };
    p.af_page_caller = [](void* j) { say("af page: %s", json_text(j).c_str()); };
    p.misc_page_caller = [](char* n, void* j) { say("%s page: %s", n, json_text(j).c_str()); };
    p.conf_caller = [](char* f) { say("%s.conf page changed or reloaded", f); };
}

// ---- API commands ---------------------------------------------------------
// Everything describe reports is read from the library at the time of the
// request: its exported records and name tables for the typed modules, its
// store accessors for the JSON and .conf modules.

struct Served {
    std::string ro, rw, bind;
    time_t started = 0;
};
Served served;

// One member of a typed record: where it sits and, for a named member, the
// name table its value indexes.
struct Field {
    const char* name;
    size_t offset;
    const char* const* names;
    int name_count;
};
#define PARAMD_NAMES_named(t) t, static_cast<int>(sizeof t / sizeof *t)
#define PARAMD_NAMES_num(t) nullptr, 0
#define PARAMD_VIDEO_FIELD(M, kind, table) {#M, offsetof(dov_video_param_s, M), PARAMD_NAMES_##kind(table)},
#define PARAMD_AUDIO_FIELD(M, kind, table) {#M, offsetof(dov_audio_param_s, M), PARAMD_NAMES_##kind(table)},
#define PARAMD_AF_FIELD(M) {#M, offsetof(dov_af_param_s, M), nullptr, 0},
#define PARAMD_ISP_FIELD(m, file, set, out) PARA_ISP_IF_##out({#m, offsetof(dov_isp_param_s, m), nullptr, 0},)
const Field kVideoFields[] = {PARA_VIDEO_MEMBERS(PARAMD_VIDEO_FIELD)};
const Field kAudioFields[] = {PARA_AUDIO_MEMBERS(PARAMD_AUDIO_FIELD)};
const Field kAfFields[] = {PARA_AF_MEMBERS(PARAMD_AF_FIELD)};
const Field kIspFields[] = {PARA_ISP_MEMBERS(PARAMD_ISP_FIELD)};

// The records of one module instance: min, max, def, cur, exist.
struct Records {
    const void* rec[5];
};

int field_of(const void* rec, const Field& f)
{
    int32_t v;
    memcpy(&v, static_cast<const char*>(rec) + f.offset, sizeof v);
    return v;
}

cJSON* typed_value(const Field& f, int v)
{
    if (f.names && v >= 0 && v < f.name_count && f.names[v])
        return cJSON_CreateString(f.names[v]);
    return cJSON_CreateNumber(v);
}

template <size_t N>
void describe_typed(cJSON* members, const Field (&fields)[N], const Records& r)
{
    for (const Field& f : fields) {
        if (field_of(r.rec[4], f) == 0) // absent from the files: not served either
            continue;
        cJSON* m = cJSON_CreateObject();
        cJSON_AddStringToObject(m, "member", f.name);
        cJSON_AddStringToObject(m, "kind", f.names ? "name" : "number");
        const int lo = field_of(r.rec[0], f), hi = field_of(r.rec[1], f);
        cJSON_AddNumberToObject(m, "min", lo);
        cJSON_AddNumberToObject(m, "max", hi);
        cJSON_AddItemToObject(m, "def", typed_value(f, field_of(r.rec[2], f)));
        cJSON_AddItemToObject(m, "cur", typed_value(f, field_of(r.rec[3], f)));
        if (f.names) {
            cJSON* names = cJSON_AddArrayToObject(m, "names");
            for (int i = lo < 0 ? 0 : lo; i <= hi && i < f.name_count; ++i)
                cJSON_AddItemToArray(names, cJSON_CreateString(f.names[i] ? f.names[i] : ""));
        }
        cJSON_AddItemToArray(members, m);
    }
}

void describe_json_store(cJSON* members, const char* module)
{
    cJSON* cur = cJSON_CreateObject();
    cJSON* def = cJSON_CreateObject();
    Create_Json_Misc_Object(module, cur, 0);
    Create_Json_Misc_Object(module, def, 1);
    for (cJSON* c = cur->child; c; c = c->next) {
        cJSON* m = cJSON_CreateObject();
        cJSON_AddStringToObject(m, "member", c->string);
        const int kind = peek_json_enum_type(module, c->string);
        if (kind == cJSON_String) {
            cJSON_AddStringToObject(m, "kind", "name");
        } else if (kind == cJSON_Number) {
            cJSON_AddStringToObject(m, "kind", "number");
            cJSON_AddNumberToObject(m, "min", para_get_json_min(module, c->string));
            cJSON_AddNumberToObject(m, "max", para_get_json_max(module, c->string));
        } else {
            cJSON_AddStringToObject(m, "kind", "text");
        }
        if (cJSON* d = cJSON_GetObjectItem(def, c->string))
            cJSON_AddItemToObject(m, "def", cJSON_Duplicate(d, 1));
        cJSON_AddItemToObject(m, "cur", cJSON_Duplicate(c, 1));
        if (kind == cJSON_String) {
            cJSON* names = cJSON_AddArrayToObject(m, "names");
            // A range list of names is short; the bound only guards a broken file.
            for (int i = 0; i < 1024; ++i) {
                const char* n = para_get_json_emum_str(module, c->string, i);
                if (!n)
                    break;
                cJSON_AddItemToArray(names, cJSON_CreateString(n));
            }
        }
        cJSON_AddItemToArray(members, m);
    }
    cJSON_Delete(cur);
    cJSON_Delete(def);
}

void describe_conf_store(cJSON* members, const char* module)
{
    cJSON* cur = cJSON_CreateObject();
    cJSON* def = cJSON_CreateObject();
    Create_Json_4_conf_Object(cur, 0, module);
    Create_Json_4_conf_Object(def, 1, module);
    for (cJSON* c = cur->child; c; c = c->next) {
        cJSON* m = cJSON_CreateObject();
        cJSON_AddStringToObject(m, "member", c->string);
        cJSON_AddStringToObject(m, "kind", "text");
        if (cJSON* d = cJSON_GetObjectItem(def, c->string))
            cJSON_AddItemToObject(m, "def", cJSON_Duplicate(d, 1));
        cJSON_AddItemToObject(m, "cur", cJSON_Duplicate(c, 1));
        cJSON_AddItemToArray(members, m);
    }
    cJSON_Delete(cur);
    cJSON_Delete(def);
}

// What a served module is, told by the operations of its table row.
enum class Store { none, video, isp, audio, af, json, conf };

Store store_of(const module_para_handle_s& row)
{
    using Getter = decltype(row.get_buf);
    static const std::pair<Getter, Store> kStores[] = {
        {para_get_video_opt, Store::video}, {para_get_isp_opt, Store::isp},
        {para_get_audio_opt, Store::audio}, {para_get_af_opt, Store::af},
        {para_get_misc_opt, Store::json},   {para_get_conf_opt, Store::conf},
    };
    for (const auto& [get, store] : kStores)
        if (row.get_buf == get)
            return store;
    return Store::none;
}

// The instance number at the end of a row name ("video1", "isp0").
int instance_of(const char* name)
{
    size_t n = strlen(name);
    return n && name[n - 1] >= '0' && name[n - 1] <= '9' ? name[n - 1] - '0' : 0;
}

bool served_row(const module_para_handle_s& row)
{
    Store st = store_of(row);
    if (st == Store::none)
        return false;
    if (st == Store::video)
        return instance_of(row.parse_name) < para_get_video_streamNum();
    if (st == Store::isp)
        return instance_of(row.parse_name) < PARA_ISP_NUM;
    return true;
}

const char* store_name(Store st)
{
    switch (st) {
    case Store::json: return "json";
    case Store::conf: return "conf";
    default: return "typed";
    }
}

void add_module_header(cJSON* obj, const module_para_handle_s& row)
{
    Store st = store_of(row);
    cJSON_AddStringToObject(obj, "module", row.parse_name);
    cJSON_AddStringToObject(obj, "store", store_name(st));
    cJSON_AddBoolToObject(obj, "set", row.set_buf != nullptr);
    // Only the stores take the keyless "data" item of a post write.
    cJSON_AddBoolToObject(obj, "post", st == Store::json || st == Store::conf);
}

cJSON* describe_module(const module_para_handle_s& row)
{
    cJSON* out = cJSON_CreateObject();
    add_module_header(out, row);
    cJSON* members = cJSON_AddArrayToObject(out, "members");
    const int i = instance_of(row.parse_name);
    switch (store_of(row)) {
    case Store::video:
        describe_typed(members, kVideoFields,
                       {{&para_video_min[i], &para_video_max[i], &para_video_def[i], &para_video_cur[i],
                         &para_video_exist[i]}});
        break;
    case Store::isp:
        describe_typed(members, kIspFields,
                       {{&para_isp_min[i], &para_isp_max[i], &para_isp_def[i], &para_isp_cur[i], &para_isp_exist[i]}});
        break;
    case Store::audio:
        describe_typed(members, kAudioFields,
                       {{&para_audio_min, &para_audio_max, &para_audio_def, &para_audio_cur, &para_audio_exist}});
        break;
    case Store::af:
        describe_typed(members, kAfFields, {{&para_af_min, &para_af_max, &para_af_def, &para_af_cur, &para_af_exist}});
        break;
    case Store::json: describe_json_store(members, row.parse_name); break;
    case Store::conf: describe_conf_store(members, row.parse_name); break;
    case Store::none: break;
    }
    return out;
}

// The request's own text: commands read their arguments from it.
/* A string of the request, or (id) its numeric msg_id as text. */
std::string request_string(const para_server_message_info* info, const char* key, bool id = false)
{
    char text[PARA_MESSAGE_BUF + 1];
    memcpy(text, info->buffer, PARA_MESSAGE_BUF);
    text[PARA_MESSAGE_BUF] = '\0';
    cJSON* req = cJSON_Parse(text);
    const cJSON* it = cJSON_GetObjectItem(req, key);
    std::string s = cJSON_IsString(it) ? it->valuestring : id && cJSON_IsNumber(it) ? std::to_string(it->valueint) : "";
    cJSON_Delete(req);
    return s;
}

/* Command replies carry the request's msg_id, as the library's get and set
 * replies do, so a client can tell a late reply from the one it waits for. */
template <int (*Command)(int, para_server_message_info*, cJSON**)>
int with_id(int type, para_server_message_info* info, cJSON** out)
{
    int r = Command(type, info, out);
    std::string id = request_string(info, "msg_id", true);
    if (*out && !id.empty())
        cJSON_AddNumberToObject(*out, "msg_id", std::stoi(id));
    return r;
}

cJSON* error_reply(const std::string& text)
{
    cJSON* out = cJSON_CreateObject();
    cJSON_AddStringToObject(out, "err", text.c_str());
    return out;
}

// describe: without "module" the served modules, with it one module (one
// module per reply keeps every reply to a few kilobytes).
int cmd_describe(int, para_server_message_info* info, cJSON** out)
{
    const std::string want = request_string(info, "module");
    cJSON* list = want.empty() ? cJSON_CreateArray() : nullptr;
    for (int r = 0; r < module_para_handle_num; ++r) {
        const module_para_handle_s& row = module_para_handle[r];
        if (!row.parse_name || !served_row(row))
            continue;
        if (list) {
            cJSON* m = cJSON_CreateObject();
            add_module_header(m, row);
            cJSON_AddItemToArray(list, m);
        } else if (want == row.parse_name) {
            *out = describe_module(row);
            return 0;
        }
    }
    if (list) {
        *out = cJSON_CreateObject();
        cJSON_AddItemToObject(*out, "modules", list);
    } else {
        *out = error_reply("no module " + want);
    }
    return 0;
}

int cmd_save(int, para_server_message_info*, cJSON** out)
{
    say("saving every module (save command)");
    platformparam_save();
    *out = cJSON_CreateObject();
    cJSON_AddStringToObject(*out, "save", "done");
    return 0;
}

int cmd_status(int, para_server_message_info*, cJSON** out)
{
    *out = cJSON_CreateObject();
    cJSON_AddStringToObject(*out, "version", kVersion);
    cJSON_AddStringToObject(*out, "ro", served.ro.c_str());
    cJSON_AddStringToObject(*out, "rw", served.rw.c_str());
    cJSON_AddStringToObject(*out, "bind", served.bind.empty() ? "0.0.0.0" : served.bind.c_str());
    cJSON_AddNumberToObject(*out, "uptime_s", static_cast<double>(time(nullptr) - served.started));
    cJSON_AddNumberToObject(*out, "video_streams", para_get_video_streamNum());
    return 0;
}

int cmd_commands(int, para_server_message_info*, cJSON** out);

// Registered before the library starts, so the first request finds them.
param_handle_t kCommands[] = {
    {"describe", with_id<cmd_describe>, 0},
    {"status", with_id<cmd_status>, 0},
    {"commands", with_id<cmd_commands>, 0},
    {"save", with_id<cmd_save>, 0},
};
const char* const kCommandUse[] = {
    "getInfo describe [module=M]", "getInfo status", "getInfo commands", "setCommand save",
};

int cmd_commands(int, para_server_message_info*, cJSON** out)
{
    *out = cJSON_CreateObject();
    cJSON* list = cJSON_AddArrayToObject(*out, "commands");
    for (const char* use : kCommandUse)
        cJSON_AddItemToArray(list, cJSON_CreateString(use));
    return 0;
}

// The library keeps running without its port (and only logs it); a user who
// starts a second paramd wants to be told instead.
// 0 when the port can be bound at addr, else the errno of the attempt.
int port_free(in_addr_t addr, int port)
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0)
        return 0;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = addr;
    int err = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 ? 0 : errno;
    close(fd);
    return err;
}

// A bind address by number or by name, as dotted text ("" for none).
bool resolve_ipv4(const char* name, std::string* dotted, in_addr_t* addr)
{
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* res = nullptr;
    if (getaddrinfo(name, nullptr, &hints, &res) != 0 || !res)
        return false;
    const auto* sin = reinterpret_cast<const sockaddr_in*>(res->ai_addr);
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &sin->sin_addr, text, sizeof text);
    *addr = sin->sin_addr.s_addr;
    *dotted = text;
    freeaddrinfo(res);
    return true;
}

bool is_dir(const char* path)
{
    struct stat st{};
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

} // namespace

int main(int argc, char** argv)
{
    static std::string ro, rw = "/data", map, bind_name;
    int level = 3;
    int conf_save = 0;
    static const option opts[] = {
        {"ro", required_argument, nullptr, 'r'},        {"rw", required_argument, nullptr, 'w'},
        {"map", required_argument, nullptr, 'm'},       {"log-level", required_argument, nullptr, 'l'},
        {"conf-save", no_argument, nullptr, 'c'},       {"help", no_argument, nullptr, 'h'},
        {"bind", required_argument, nullptr, 'b'},      {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    int c;
    while ((c = getopt_long(argc, argv, "r:w:m:l:chb:V", opts, nullptr)) != -1) {
        switch (c) {
        case 'r': ro = optarg; break;
        case 'w': rw = optarg; break;
        case 'm': map = optarg; break;
        case 'l': {
            char* end = nullptr;
            long v = strtol(optarg, &end, 10);
            if (!*optarg || *end || v < 0 || v > 7) {
                fprintf(stderr, "paramd: --log-level wants a number from 0 to 7, got '%s'\n", optarg);
                return 2;
            }
            level = static_cast<int>(v);
            break;
        }
        case 'c': conf_save = 1; break;
        case 'b': bind_name = optarg; break;
        case 'V': printf("paramd %s\n", kVersion); return 0;
        case 'h': usage(stdout); return 0;
        default: usage(stderr); return 2;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "paramd: unexpected argument '%s'\n", argv[optind]);
        usage(stderr);
        return 2;
    }
    if (ro.empty()) {
        fprintf(stderr, "paramd: --ro DIR is required\n");
        usage(stderr);
        return 2;
    }
    if (!is_dir(ro.c_str())) {
        fprintf(stderr, "paramd: read-only directory '%s' does not exist or is not a directory\n", ro.c_str());
        return 1;
    }
    if (!is_dir(rw.c_str()) && mkdir(rw.c_str(), 0755) != 0) {
        fprintf(stderr, "paramd: cannot create read-write directory '%s': %s\n", rw.c_str(), strerror(errno));
        return 1;
    }
    // The library builds paths in 128-byte buffers.
    if (ro.size() > 100 || rw.size() > 100) {
        fprintf(stderr, "paramd: directory names longer than 100 characters are not supported\n");
        return 1;
    }

    in_addr_t bind_addr = htonl(INADDR_ANY);
    if (!bind_name.empty() && !resolve_ipv4(bind_name.c_str(), &served.bind, &bind_addr)) {
        fprintf(stderr, "paramd: --bind: '%s' is no IPv4 address or known host name\n", bind_name.c_str());
        return 1;
    }
    if (int err = port_free(bind_addr, PARA_SERVER_PORT); err == EADDRINUSE) {
        fprintf(stderr, "paramd: UDP port %d is in use (is another paramd running?)\n", PARA_SERVER_PORT);
        return 1;
    } else if (err) {
        fprintf(stderr, "paramd: cannot serve UDP port %d on %s: %s%s\n", PARA_SERVER_PORT,
                served.bind.empty() ? "every address" : served.bind.c_str(), strerror(err),
                err == EADDRNOTAVAIL ? " (no interface of this machine has that address)" : "");
        return 1;
    }
    if (para_server_bind_address(served.bind.c_str()) != 0) {
        fprintf(stderr, "paramd: the library refused bind address '%s'\n", served.bind.c_str());
        return 1;
    }
    served.ro = ro;
    served.rw = rw;
    served.started = time(nullptr);
    if (register_param_command(const_cast<char*>("paramd"), kCommands,
                               static_cast<int>(sizeof kCommands / sizeof *kCommands)) != 0) {
        fprintf(stderr, "paramd: cannot register the API commands\n");
        return 1;
    }

    dbgout_profile.para_level = level;
    para_profile.param_rofile_dir = ro.data();
    para_profile.param_rwfile_dir = rw.data();
    para_profile.config_file_name = map.empty() ? nullptr : map.data();
    para_profile.conf_save = conf_save;
    install_callbacks();

    // A reader of standard output that goes away (paramd | head) must not end
    // paramd before its stop saves: its writes fail instead.
    signal(SIGPIPE, SIG_IGN);
    // Block the signals before the worker starts so only sigwait sees them.
    sigset_t set;
    sigemptyset(&set);
    for (int s : {SIGINT, SIGTERM, SIGUSR1, SIGHUP})
        sigaddset(&set, s);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);

    platformparam_init();
    say("serving %s (current values in %s) on %s UDP port %d", ro.c_str(), rw.c_str(),
        served.bind.empty() ? "every local address," : served.bind.c_str(), PARA_SERVER_PORT);

    for (;;) {
        int sig = 0;
        if (sigwait(&set, &sig) != 0)
            continue;
        if (sig == SIGUSR1) {
            fifo_work_trigger("para_video", nullptr);
            fifo_work_trigger("para_video_size", nullptr);
        } else if (sig == SIGHUP) {
            fifo_work_trigger("netport", nullptr);
        } else {
            say("stopping (signal %d): saving every module", sig);
            platformparam_stop(1);
            say("stopped");
            return 0;
        }
    }
}
