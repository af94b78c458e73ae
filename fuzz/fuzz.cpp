// The libFuzzer targets. Every target executable links this file and names
// itself in para_fuzz_target (a one-line file CMake writes beside it); the
// table at the end gives each name its set-up and its per-input function.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ipc/server/www2json.h"
#include "para_internal.h"
#include "para_isp_internal.h"
#include "para_stores.h"

extern "C" const char para_fuzz_target[];

namespace {

using para::JsonPtr;
using Input = std::string_view;

// A fresh directory (memory-backed when the machine has one: some targets
// write files for every input), removed at exit; the read-write files in rw.
std::string tmp, rw;
const std::string example = PARA_SOURCE_DIR "/examples/device";
char kFuzz[] = "fuzz", kMisc[] = "misc", kOdm[] = "odmInter";

void check(bool ok, const char* what, const char* shown = "")
{
    if (!ok) {
        std::fprintf(stderr, "fuzz check failed: %s\n%s\n", what, shown);
        std::abort();
    }
}
void touch(const char* text) { (void)(text && std::strlen(text)); } // a text handed out is read whole
JsonPtr parse(Input in) { return JsonPtr(cJSON_ParseWithLength(in.data(), in.size())); }
template <void (*one)(cJSON* json, Input in)> void on_json(Input in) // inputs that parse
{
    if (JsonPtr json = parse(in))
        one(json.get(), in);
}
JsonPtr load_example(const char* name)
{
    JsonPtr json = para::load_json_file("fuzz", (example + "/" + name).c_str(), nullptr, false);
    check(json != nullptr, name);
    return json;
}
void write(const std::string& path, Input data)
{
    check(para::durable_write("fuzz", path.c_str(), data.data(), data.size()) == 0, path.c_str());
}
// Prints a tree (the printer runs on everything handed out), frees it.
void print_and_free(cJSON* json)
{
    std::free(json ? cJSON_PrintUnformatted(json) : nullptr);
    cJSON_Delete(json);
}
template <class F> void each_item(cJSON* json, F f) // every top-level item with a key
{
    for (cJSON* item = json ? json->child : nullptr; item; item = item->next)
        if (item->string)
            f(item);
}
// The item as a request under its own key (by default also the module's
// name): the answer printed, then the write.
void request(int (*get)(char*, void*, void**, char*), int (*set)(char*, void*, char*), cJSON* item,
             char* module = nullptr)
{
    void* out = nullptr;
    module = module ? module : item->string;
    get(item->string, item, &out, module);
    print_and_free(static_cast<cJSON*>(out));
    if (set)
        set(item->string, item, module);
}

// The typed modules (video, audio, focus/zoom): the walkers on a parsed
// input, the records as JSON, requests and by-name access on what they stored.
struct Typed {
    const char* read_all; // the request that reads all of record %d
    int records;
    bool (*load)(); // from the example device
    void (*walkers[3])(cJSON* json); // range, default, current
    int (*get_opt)(char* req_name, void* jsonIn, void** jsonOut, char* parse_name);
    int (*set_opt)(char* req_name, void* jsonIn, char* parse_name); // or null
    int (*get_member)(char* name, int r, int* val, char** text);    // of record r
    int (*set_member)(char* name, int r, int val, char* text);      // or null
    cJSON* (*object)(int r);                                        // or null
    void (*page)(void);
};
// A flat module: one record, by-name access through para_get_<tag>_member_json.
#define FLAT_TYPED(tag, set_opt, set_member)                                                             \
    {"{\"" #tag "\": [\"all\"]}", 1, [] { return para_init_##tag(kFuzz) == 0; },                           \
     {_parse_##tag##_range_json, _parse_##tag##_def_json, _parse_##tag##_cur_json}, para_get_##tag##_opt, \
     set_opt, [](char* n, int, int* v, char** t) { return para_get_##tag##_member_json(n, v, t); },        \
     set_member, nullptr, tag##_page}
const Typed af = FLAT_TYPED(af, nullptr, nullptr);
const Typed audio = FLAT_TYPED(audio, para_set_audio_opt,
                               [](char* n, int, int v, char* t) { return para_set_audio_member_json(n, v, t); });

// The example's first stream repeated up to every record, so the walkers
// visit all of them.
bool load_video()
{
    static const std::string ro = tmp + "/ro";
    mkdir(ro.c_str(), 0755);
    for (const char* name : {"video_range.json", "video_def.json"}) {
        JsonPtr json = load_example(name);
        const cJSON* first = cJSON_GetObjectItem(json.get(), "video0");
        for (int s = 1; s < PARA_VIDEO_STREAMS; ++s)
            if (const std::string key = "video" + std::to_string(s); !cJSON_GetObjectItem(json.get(), key.c_str()))
                cJSON_AddItemToObject(json.get(), key.c_str(), cJSON_Duplicate(first, 1));
        check(para::write_json_file((ro + "/" + name).c_str(), json.get()) == 0, name);
    }
    para_profile.param_rofile_dir = const_cast<char*>(ro.c_str());
    return para_init_video(kFuzz) == 0 && para_get_video_streamNum() == PARA_VIDEO_STREAMS;
}
const Typed video = {"{\"video%d\": [\"all\"]}", PARA_VIDEO_STREAMS, load_video,
                     {_parse_video_range_json, _parse_video_def_json, _parse_video_cur_json},
                     para_get_video_opt, para_set_video_opt, para_get_video_member, para_set_video_member,
                     Create_Json_Video_Object, video_page};

template <const Typed& t> void typed_one(cJSON* json, Input)
{
    for (auto walk : t.walkers)
        walk(json);
    for (int r = -1; t.object && r <= t.records; ++r)
        print_and_free(t.object(r));
    // Every item as a request, and by-name reads and writes of every name
    // it mentions on the first and last record and one past each end.
    each_item(json, [&](cJSON* item) {
        request(t.get_opt, t.set_opt, item);
        for (const cJSON* m = item->child; m; m = m->next) {
            char* given = cJSON_IsString(m) ? m->valuestring : nullptr;
            char* name = given ? given : m->string;
            for (int r : {-1, 0, t.records - 1, t.records}) {
                int val = 0;
                char* got = nullptr;
                if (name)
                    t.get_member(name, r, &val, &got);
                touch(got);
                if (name && t.set_member)
                    t.set_member(name, r, para::json_int(m), given);
            }
        }
    });
    for (int r = 0; r < t.records; ++r) { // then a read of everything each record holds now
        char all[48];
        std::snprintf(all, sizeof all, t.read_all, r);
        request(t.get_opt, nullptr, JsonPtr(cJSON_Parse(all)).get()->child);
    }
    t.page();
}

// ISP files: the range/default/current/style walkers (the "isp0"/"isp1"
// objects into the module's records, the whole input into scratch records),
// then ISP objects, requests, by-name access and the style lookups.
bool isp_init() { return para_init_isp(const_cast<char*>("isp0")) == 0 && para_get_isp_style_string(1, 0); }
void isp_one(cJSON* json, Input in)
{
    dov_isp_param_s a{}, b{};
    _parse_isp_range_json(json, &a, &b);
    _parse_isp_def_json(json, &a, &b);
    _parse_isp_cur_json(json, &a, nullptr);
    _parse_isp_style_json(json, &b, nullptr);
    _parse_isp_style_json(nullptr, &b, nullptr);
    for (int i = 0; i < PARA_ISP_NUM; ++i)
        if (cJSON* obj = cJSON_GetObjectItem(json, ("isp" + std::to_string(i)).c_str())) {
            _parse_isp_range_json(obj, &para_isp_min[i], &para_isp_max[i]);
            _parse_isp_def_json(obj, &para_isp_def[i], &para_isp_exist[i]);
            _parse_isp_cur_json(obj, &para_isp_cur[i], nullptr);
        }
    each_item(json, [&](cJSON* item) {
        request(para_get_isp_opt, para_set_isp_opt, item);
        const int index = para::json_int(item);
        for (int isp = -1; isp <= PARA_ISP_NUM; ++isp) {
            for (const cJSON* m = item->child; m; m = m->next) {
                int val = 0;
                if (char* name = cJSON_IsString(m) ? m->valuestring : m->string) {
                    para_get_isp_cur_member(name, isp, &val, nullptr);
                    para_get_isp_def_member(name, isp, &val, nullptr);
                    para_set_member(name, isp, para::json_int(m), nullptr);
                    para_get_isp_style_index(isp, name);
                }
            }
            touch(para_get_isp_style_string(isp, index));
            if (const cJSON* style = get_isp_style_json(isp, index))
                (void)cJSON_GetArraySize(style);
            if (dov_isp_param_s* rec = para_get_isp_style_param(isp, index))
                (void)rec->style;
            para_get_isp_style_def_index(isp);
            para_isp_style_excute_by_arm(isp);
            parse_isp_def_odm(isp, &a);
            para_set_isp_style_def_index(isp, index);
        }
        para_set_isp_antiflicker_def(index & 3, index);
        para_set_isp_style_def(index & 3, index);
    });
    for (int isp = -1; isp <= PARA_ISP_NUM; ++isp)
        for (int def : {0, 1})
            print_and_free(Create_Json_ISPObject(isp, def));
    if (in.size() % 7 == 0)
        para_isp_cur_restore_isp_def();
}

// "misc" files: the older range layout converted, an older value file
// loaded into a store, and the JSON module's readers and requests.
bool misc_init()
{
    return para_init_misc(const_cast<char*>("json")) == 0 && para_init_misc(kMisc) == 0 &&
           para_get_json_max(kMisc, "mirror") == 1;
}
// The typed readers of one object member, and the by-key functions of the
// loaded module for the member's key.
void misc_member(cJSON* obj, cJSON* item)
{
    const char* key = item->string;
    int number = 0;
    uint8_t bytes[4];
    char *got = nullptr, buf[8];
    json_object_load_number(obj, key, &number);
    json_object_load_u8_array(obj, key, bytes, sizeof bytes);
    json_object_load_string(obj, key, &got, "def");
    std::free(got);
    json_object_get_int(item);
    json_object_get_string(item);
    peek_array_enum_type(item);
    para_get_item_str(item);
    para_get_json_item_number(kMisc, item, key);
    for (auto get : {peek_json_enum_type, para_get_json_min, para_get_json_max, para_get_json_def, para_get_json_cur})
        get(kMisc, key);
    para_get_json_string(kMisc, key, buf, sizeof buf);
    touch(para_get_json_emum_str(kMisc, key, para::json_int(item)));
    if (cJSON_IsString(item)) {
        para_get_json_enum_index(kMisc, key, item->valuestring);
        para_set_json_cur_str(kMisc, key, item->valuestring);
    } else {
        para_set_json_cur_number(kMisc, key, para::json_int(item));
    }
}
void misc_one(cJSON* json, Input in)
{
    // The converted range tree stays in use until the next input: the
    // conversion points the module's layout version at it.
    static JsonPtr range_in_use;
    range_in_use.reset(fix_old_misc_range_conf(json));
    std::free(cJSON_PrintUnformatted(range_in_use.get()));
    static const std::string values_file = tmp + "/misc-values";
    write(values_file, in);
    configure* values = configure_init();
    fix_old_misc_def_cur_conf(values_file.c_str(), values);
    configure_free(values);
    each_item(json, [&](cJSON* item) {
        misc_member(json, item);
        request(para_get_misc_opt, para_set_misc_opt, item, kMisc);
    });
    cJSON* all = cJSON_CreateObject();
    for (int def : {0, 1})
        Create_Json_Misc_Object(kMisc, all, def);
    print_and_free(all);
    char saved[512];
    para_save_misc_conf_2_buf(kMisc, saved, sizeof saved);
}

// Factory store: the input as "persist/odm.json" (or as the older
// "isp_odm.json" that start-up moves there), loaded, read and written by
// key, saved and loaded again, which must give back what was saved.
std::string odm_printed() { return json_odm_file ? para::CharPtr(cJSON_PrintUnformatted(json_odm_file)).get() : ""; }
void odm_one(Input in)
{
    write(rw + (in.size() % 2 ? "/isp_odm.json" : "/persist/odm.json"), in);
    para_init_odm(kOdm);
    para_init_stage2_odm(kOdm);
    each_item(parse(in).get(), [](cJSON* item) {
        char* key = item->string;
        int number = 0;
        char got[PARA_ODM_STRING_MAX], small[4];
        para_get_odm_int(key, &number);
        para_get_odm_string(key, got);
        para_get_odm_string_safe(key, small, sizeof small);
        if (cJSON_IsString(item)) {
            _para_set_odm_string(key, item->valuestring);
            para_set_odm_int(key, static_cast<int>(static_cast<unsigned>(number) + 1u));
        } else {
            _para_set_odm_int(key, para::json_int(item));
            para_set_odm_string(key, const_cast<char*>("text"));
        }
    });
    const std::string saved = odm_printed();
    para_save_odm(kOdm);
    para_init_odm(kOdm);
    check(odm_printed() == saved, "the factory store saved and loaded again gives back what was saved", saved.c_str());
}

// The .conf reader of the key/value store, and the two writers that must
// produce text it reads back to the same entries.
using Entries = std::vector<std::pair<std::string, std::string>>;
Entries entries_of(configure* s)
{
    Entries out;
    s->loop(s, [](void* o, const char* k, const char* v) { return static_cast<Entries*>(o)->emplace_back(k, v), 0; },
            &out);
    return out;
}
void configure_one(Input in)
{
    static const std::string path = tmp + "/in.conf";
    write(path, in);
    configure *s = configure_init(), *again = configure_init();
    check(configure_parse(s, nullptr, path.c_str()) == 0, "the file just written is read");
    // Keys also come from requests: every value read is offered back as a
    // key. Whatever the store takes, its file must carry.
    for (const auto& [k, v] : entries_of(s))
        s->put(s, v.c_str(), k.c_str());
    const Entries want = entries_of(s);
    char value[CONFIGURE_TEXT_MAX];
    for (const auto& [k, v] : want)
        check(s->get(s, k.c_str(), value, sizeof value) == 0 && v == value && s->put(s, k.c_str(), v.c_str()) == 0,
              "every value is reachable by its key; the same text again is no change");
    check(para::write_conf_file(path.c_str(), s, false, "fuzz") == 0, "the file writer writes");
    para::CharPtr conf(read_file_to_buf(path.c_str()));
    configure_parse(again, nullptr, path.c_str());
    check(conf && entries_of(again) == want, "the file writer's text reads back to the same entries",
          conf ? conf.get() : "");
    // The buffer writer writes the same text when it has room for it and
    // its terminator, and reports a shortage when it has not. The buffers
    // are exactly that long, so a write past them is caught.
    const int size = static_cast<int>(std::strlen(conf.get())) + 1;
    std::vector<char> fits(size), shy(size - 1);
    check(para::store_to_buf("fuzz", "conf", s, fits.data(), size) == size && std::strcmp(fits.data(), conf.get()) == 0,
          "the buffer writer writes the file's text", fits.data());
    check(para::store_to_buf("fuzz", "conf", s, shy.data(), size - 1) == 0, "the buffer writer reports a shortage");
    configure_free(s);
    configure_free(again);
}

// Web-form converter with the example device's mapping file: raw requests,
// form texts of a write, and reply trees turned back into form text.
void www_reverse(const cJSON* reply)
{
    para::CharPtr form(para_reverse_convert_www_opt(const_cast<cJSON*>(reply)));
    check(!form || std::strlen(form.get()) <= WWW_TEXT_LIMIT, "reverse form text within its limit");
}
// The converter reads the receive buffer of the server: 4096 bytes holding
// at most 4095 characters and a NUL. The error buffer has exactly err_size
// bytes (none for 0), so a write past it is caught.
void www_convert(Input input, int err_size)
{
    std::vector<char> buffer(PARA_MESSAGE_BUF, '\0'), err(static_cast<size_t>(err_size), 'x');
    std::memcpy(buffer.data(), input.data(), std::min(input.size(), buffer.size() - 1));
    if (err_size > 0)
        err[0] = '\0';
    JsonPtr req(static_cast<cJSON*>(para_convert_www_opt(buffer.data(), err.data(), err_size)));
    check(err_size < 2 || std::memchr(err.data(), '\0', static_cast<size_t>(err_size) - 1),
          "the error text leaves room for the server's own terminator");
    if (req) {
        std::free(cJSON_Print(req.get()));
        www_reverse(req.get()); // a module answer has the shape of the request's module objects
    }
}
void www_one(Input in)
{
    if (!in.empty() && in[0] == '{') { // a datagram of the web server, and a reply tree to turn back
        www_convert(in, 1024);
        www_convert(in, static_cast<int>(in.size() % 8));
        if (JsonPtr reply = parse(in))
            www_reverse(reply.get());
        return;
    }
    // The form text of a write; the walker itself has no length limit.
    JsonPtr set(cJSON_CreateObject());
    cJSON_AddStringToObject(set.get(), "msg_name", "encode");
    cJSON_AddStringToObject(set.get(), "data", std::string(in).c_str());
    if (JsonPtr req{set_http2json(set.get())})
        www_reverse(req.get());
}

// One request datagram through the message server of a running library
// (example device, current values in rw). Replies go from a local socket of
// our own to itself and are drained.
int reply_fd = -1;
sockaddr_in reply_addr{};
// API commands, so the command path has something to find: one answers
// with a tree, one fails, one answers nothing.
int cmd_status(int type, para_server_message_info* info, cJSON** out)
{
    *out = cJSON_CreateObject();
    cJSON_AddNumberToObject(*out, "type", type);
    cJSON_AddNumberToObject(*out, "len", static_cast<double>(std::strlen(info->buffer)));
    return 0;
}
param_handle_t commands[] = {{"getStatus", cmd_status, 0},
                             {"setReboot", [](int, para_server_message_info*, cJSON**) { return -1; }, 0},
                             {"netInfo", [](int, para_server_message_info*, cJSON**) { return 0; }, 0}};
bool datagram_init()
{
    para_profile.conf_save = 1;
    // Nobody sends to the server's own socket, so its worker only runs the
    // save sweep; long delays keep that sweep from writing on every turn.
    para_server_port = 0;
    platformparam_set_save_param_time(3600 * 1000, 3600 * 1000);
    register_param_command(kFuzz, commands, 3);
    platformparam_init();
    reply_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    reply_addr = sockaddr_in{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof reply_addr;
    return reply_fd >= 0 && bind(reply_fd, reinterpret_cast<sockaddr*>(&reply_addr), len) == 0 &&
           getsockname(reply_fd, reinterpret_cast<sockaddr*>(&reply_addr), &len) == 0;
}
void datagram_one(Input in)
{
    static para_server_message_info info;
    static char drained[70000];
    const size_t n = std::min(in.size(), sizeof info.buffer - 1);
    std::memcpy(info.buffer, in.data(), n);
    info.buffer[n] = '\0';
    info.fd = reply_fd;
    info.addressRec = reply_addr;
    para_server_message_Process(&info);
    while (recv(reply_fd, drained, sizeof drained, MSG_DONTWAIT) >= 0) {}
}

struct Target { const char* name; bool (*init)(); void (*one)(Input in); };
const Target targets[] = {
    {"fuzz_datagram", datagram_init, datagram_one},
    {"fuzz_www", [] { return (para_config = load_example("www2json.json").release()) != nullptr; }, www_one},
    {"fuzz_configure", [] { return true; }, configure_one},
    {"fuzz_video_files", video.load, on_json<typed_one<video>>},
    {"fuzz_audio_files", audio.load, on_json<typed_one<audio>>},
    {"fuzz_af_files", af.load, on_json<typed_one<af>>},
    {"fuzz_isp_files", isp_init, on_json<isp_one>},
    {"fuzz_misc_files", misc_init, on_json<misc_one>},
    {"fuzz_odm_files", [] { return mkdir((rw + "/persist").c_str(), 0755) == 0; }, odm_one},
};
const Target* target;

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    for (const Target& t : targets)
        target = std::strcmp(t.name, para_fuzz_target) == 0 ? &t : target;
    check(target != nullptr, para_fuzz_target);
    const char* base = std::getenv("TMPDIR");
    tmp = std::string(base && *base ? base : access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + "/para-fuzz-XXXXXX";
    check(mkdtemp(tmp.data()) != nullptr, "mkdtemp");
    std::atexit([] { std::error_code ec; std::filesystem::remove_all(tmp, ec); });
    // Log lines off, so the fuzzer's output stays readable and formatting is
    // free; the example device read-only, a fresh read-write directory.
    dbgout_profile.para_level = dbgout_profile.lib_level = 0;
    rw = tmp + "/rw";
    mkdir(rw.c_str(), 0755);
    para_profile.param_rofile_dir = const_cast<char*>(example.c_str());
    para_profile.param_rwfile_dir = rw.data();
    check(target->init(), "the target's set-up (from the example device)");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    target->one({reinterpret_cast<const char*>(data), size});
    return 0;
}
