// Steps of a scenario file, one per line ("#" starts a comment):
//   ro SRC [NAME] / rw SRC [NAME]  copy tests/data/SRC into the ro or rw directory
//   ro-example                     copy every file of examples/device into ro
//   write ro|rw NAME TEXT          write TEXT (escapes \n \t \0 \\ \xHH) as a file
//   conf_save N / save_time AUDIO_MS VIDEO_MS / ext
//   start / save / stop            platformparam_init / _save / _stop(1)
//   > REQUEST / >! REQUEST         send a datagram and keep the reply / expect none
//   = JSON / == BYTES / ~ TEXT     the reply, compact / byte-exact / containing TEXT
//   event TEXT / events-none       the next callback the library made / none left
//   wait FILE JSON                 within 5 s the compact form of rw/FILE is JSON
//   has FILE TEXT / bytes FILE TEXT  rw/FILE contains / is exactly TEXT
//   log TEXT                       some log line so far contains TEXT (escapes as write)
//   $ TOOL ARGS / status N OUTPUT  run a built tool; its exit status and output
//   call FUNC ARGS                 call a library function (calls.cpp); its answer is the reply
//   until ANSWER FUNC ARGS         within 3 s the call answers ANSWER
//   rm ro|rw NAME                  remove a file
//   call NAME                      or a host call of host_call()'s table ("skip" skips the test)
//   log-clean FILE                 every log line so far ends in a line feed and none
//                                  names a function listed in tests/data/FILE
//   nolog TEXT / logs N TEXT       no log line so far / N lines contain TEXT
//   setters                        member callbacks name the setter instead:
//                                  "isp para_set_isp_shutter_cur 0 11"
//   mkdir NAME                     a directory in rw
//   rwdir PATH                     the rw directory from now on (relative to
//                                  the fixture directory)
//   expect / eventually FN ARGS... -> RESULT  an exported function of the typed modules
//                                  (table below; words unescaped, "null" is
//                                  a NULL text);
//                                  eventually: repeated for up to 5 s
//   get MOD REQ JSON / set MOD JSON  a typed module's table operation on the
//                                  first item of JSON (REQ "-": no request
//                                  name, "whole": the message itself); the
//                                  reply ("null" for none) is checked by "="
#include "scenario.h"

#include "para_internal.h"
#include "para_isp_internal.h"
#include "support.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <sys/stat.h>

#include <algorithm>
#include <deque>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>

namespace scenario {
std::string call(const std::string& line, const std::string& dir);
namespace {

std::mutex events_mu;
std::deque<std::string> events; // callbacks come from the worker thread

void event(const std::string& text)
{
    std::lock_guard<std::mutex> lk(events_mu);
    events.push_back(text);
}

std::string printed(void* json)
{
    para::CharPtr p(cJSON_PrintUnformatted(static_cast<cJSON*>(json)));
    return p ? p.get() : "null";
}

void record_callbacks()
{
    auto& p = para_profile;
    p.video_page_caller = [](void* j) { event("video page " + printed(j)); };
    p.isp_page_caller = [](void* j) { event("isp page " + printed(j)); };
    p.audio_page_caller = [](void* j) { event("audio page " + printed(j)); };
    p.af_page_caller = [](void* j) { event("af page " + printed(j)); };
    p.misc_page_caller = [](char* m, void* j) { event(std::string("misc page ") + m + " " + printed(j)); };
    p.conf_caller = [](char* f) { event(std::string("conf page ") + f); };
    p.video_caller = [](void*, int s, int v) { event("video member " + std::to_string(s) + " " + std::to_string(v)); };
    p.isp_caller = [](void*, int s, int v) { event("isp member " + std::to_string(s) + " " + std::to_string(v)); };
    p.audio_caller = [](void*, int v) { event("audio member " + std::to_string(v)); };
    p.af_caller = [](void*, int v) { event("af member " + std::to_string(v)); };
    p.misc_caller = [](char* f, const void*, char* k, int v) {
        event(std::string("misc member ") + f + " " + k + " " + std::to_string(v));
    };
    p.conf_caller_in = [](char* f, const char* k) { event(std::string("conf member ") + f + " " + k); };
    p.odm_caller = [](void* k) { event(std::string("odm member ") + static_cast<char*>(k)); };
    p.para_version_conflict = [](char* f, int from, int to) {
        event(std::string("conflict ") + f + " " + std::to_string(from) + "->" + std::to_string(to));
    };
}

// A module and commands of the host application for the server scenarios:
// "ext" answers {"v":<items>} (a keyless post {"post":1}) and reports what it
// was given as events; "status" is registered twice, the later one wins.
int ext_set(char* req, void* in, char*)
{
    event(std::string("ext set ") + (req ? req : "(null)") + "=" + printed(in));
    return 0;
}
int ext_get(char* req, void* in, void** out, char*)
{
    event(std::string("ext get ") + (req ? req : "(null)"));
    cJSON* o = cJSON_CreateObject();
    cJSON_AddNumberToObject(o, req ? "v" : "post", req ? cJSON_GetArraySize(static_cast<cJSON*>(in)) : 1);
    *out = o;
    return 0;
}
int cmd_from(const char* from, int type, para_server_message_info* info, cJSON** out)
{
    *out = cJSON_CreateObject();
    cJSON_AddStringToObject(*out, "from", from);
    if (info) {
        cJSON_AddNumberToObject(*out, "type", type);
        cJSON_AddNumberToObject(*out, "len", static_cast<double>(strlen(info->buffer)));
    }
    return 0;
}
param_handle_t first_cmds[] = {{"status", [](int t, para_server_message_info*, cJSON** o) { return cmd_from("a", t, nullptr, o); }, 0}};
param_handle_t second_cmds[] = {
    {"status", [](int t, para_server_message_info* i, cJSON** o) { return cmd_from("b", t, i, o); }, 0},
    {"broken", [](int, para_server_message_info*, cJSON** o) { *o = cJSON_CreateObject(); return -1; }, 0}};

void register_ext()
{
    module_para_handle_s ext{};
    ext.parse_name = const_cast<char*>("ext");
    ext.set_buf = ext_set;
    ext.get_buf = ext_get;
    register_para_handle_extern(&ext);
    ASSERT_EQ(register_param_command(const_cast<char*>("first"), first_cmds, 1), 0);
    ASSERT_EQ(register_param_command(const_cast<char*>("second"), second_cmds, 2), 0);
}

std::string unescape(const std::string& s)
{
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] != '\\' || i + 1 == s.size()) {
            out += s[i];
            continue;
        }
        char c = s[++i];
        if (c == 'x' && i + 2 < s.size() + 1) {
            out += static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else
            out += c == 'n' ? '\n' : c == 't' ? '\t' : c == '0' ? '\0' : c;
    }
    return out;
}

// "word rest": splits off the first word.
std::string word(std::string& rest)
{
    size_t sp = rest.find(' ');
    std::string w = rest.substr(0, sp);
    rest = sp == std::string::npos ? "" : rest.substr(sp + 1);
    return w;
}

// Calls of the host application that no request makes, by name; the text
// each gives is checked like a reply.
std::optional<std::string> host_call(const std::string& name, const std::string& ro)
{
    if (name == "para_get_isp_opt") {
        void* out = nullptr;
        para_get_isp_opt(nullptr, nullptr, &out, nullptr);
        std::string text = printed(out);
        cJSON_Delete(static_cast<cJSON*>(out));
        return text;
    }
    if (name == "para_video_enum")
        para_video_enum(nullptr, nullptr);
    else if (name == "host_parse_error") // its error position must not leak into the library's lines
        cJSON_Delete(cJSON_Parse("{host"));
    else if (name == "fill_fds") { // a host with many files open: the server's socket lands past FD_SETSIZE
        rlimit lim{};
        getrlimit(RLIMIT_NOFILE, &lim);
        lim.rlim_cur = lim.rlim_max;
        if (lim.rlim_max < 1200 || setrlimit(RLIMIT_NOFILE, &lim) != 0)
            return "skip"; // the hard limit of open files is too low
        while (open("/dev/null", O_RDONLY) < 1100) {
        }
    } else if (name == "json_style_file")
        return json_style_file ? "set" : "null";
    else if (name == "big_mapping") // 156 KB, a syntax error near its end
        test::write_file(ro + "/www2json.json", "{\"k\":\"" + std::string(156 * 1024, 'a') + "\",\"b\":@}");
    else
        return std::nullopt; // a library call of calls.cpp
    return "";
}
// Exported functions of the typed modules by name, each reading its
// arguments from the step's words; results print as numbers or texts.
using Args = std::vector<std::string>;
std::string out(long v) { return std::to_string(v); }
std::string out(const std::string& t) { return t; }
std::string out(const char* t) { return t ? t : "null"; }
const std::string null_arg("\0null", 5); // the word null; "nu\x6cl" is the text
char* text(const Args& a, size_t i) { return a.at(i) == null_arg ? nullptr : const_cast<char*>(a[i].c_str()); }
// By-name readers: "result value name".
std::string af_member(const Args& a)
{
    int v = -5, r = para_get_af_member_json(text(a, 0), &v, nullptr);
    return out(r) + " " + out(v);
}
std::string audio_member(const Args& a)
{
    int v = -5;
    char* n = nullptr;
    int r = para_get_audio_member_json(text(a, 0), &v, &n);
    return out(r) + " " + out(v) + " " + out(n);
}
std::string video_member(const Args& a)
{
    int v = -5;
    char* n = const_cast<char*>("untouched");
    int r = para_get_video_member(text(a, 0), std::stoi(a.at(1)), &v, &n);
    return out(r) + " " + out(v) + " " + out(n);
}
std::string size_by_name(const Args& a)
{
    int w = 7, h = 7, r = para_get_video_size_byname(text(a, 0), std::stoi(a.at(1)), &w, &h);
    return out(r) + " " + out(w) + "x" + out(h);
}
// The ISP's by-name readers, objects, styles and factory values.
std::string isp_member(const Args& a, int (*fn)(char*, int, int*, char**))
{
    int v = -7, r = fn(text(a, 0), std::stoi(a.at(1)), &v, nullptr);
    return out(r) + " " + out(v);
}
std::string isp_object(int isp, int is_def)
{
    cJSON* o = Create_Json_ISPObject(isp, is_def);
    std::string t = printed(o);
    cJSON_Delete(o);
    return t;
}
std::string style_param(const Args& a)
{
    const dov_isp_param_s* p = para_get_isp_style_param(std::stoi(a.at(0)), std::stoi(a.at(1)));
    if (!p)
        return "null";
    return out(p->style) + " " + out(p->saturation) + " " + out(p->antiflicker) + " " + out(p->wb_mode) + " " +
           out(p->shutter);
}
std::string odm_def(const Args& a)
{
    dov_isp_param_s def = para_isp_def[0];
    int r = parse_isp_def_odm(std::stoi(a.at(0)), text(a, 1) ? &def : nullptr);
    return out(r) + " " + out(def.antiflicker);
}
std::string odm_int(const Args& a)
{
    int v = -1, r = para_get_odm_int(text(a, 0), &v);
    return out(r) + " " + out(v);
}
#define E(name, expr) {name, [](const Args& a) { (void)a; return out(expr); }},
#define C(fn, ...) E(#fn, fn(__VA_ARGS__))
#define I(i) std::stoi(a.at(i))
#define IF_named(...) __VA_ARGS__
#define IF_num(...)
#define GETTERS(tag, M, ...) C(para_get_##tag##_##M##_min, __VA_ARGS__) C(para_get_##tag##_##M##_max, __VA_ARGS__) \
    C(para_get_##tag##_##M##_def, __VA_ARGS__) C(para_get_##tag##_##M##_init, __VA_ARGS__) C(para_get_##tag##_##M##_cur, __VA_ARGS__)
#define VIDEO_CALLS(M, kind, table) GETTERS(video, M, I(0)) C(_para_set_video_##M##_cur, I(0), I(1)) C(para_set_video_##M##_cur, I(0), I(1)) \
    C(para_get_video_##M##_num, text(a, 0)) E("exist.video." #M, para_video_exist[I(0)].M) \
    E("cur.video." #M, para_video_cur[I(0)].M) \
    IF_##kind(C(para_get_video_##M##_str, I(0)) C(para_set_video_##M##_cur_bystr, I(0), text(a, 1)))
#define AUDIO_CALLS(M, kind, table) GETTERS(audio, M) C(_para_set_audio_##M##_cur, I(0)) C(para_set_audio_##M##_cur, I(0)) \
    C(para_get_audio_##M##_num, text(a, 0)) E("exist.audio." #M, para_audio_exist.M) \
    IF_##kind(C(para_get_audio_##M##_str, I(0)))
#define AF_CALLS(M) GETTERS(af, M) C(para_set_af_##M##_cur, I(0)) E("exist.af." #M, para_af_exist.M)
#define ISP_CALLS(M, file, set, o) E("exist.isp." #M, para_isp_exist[I(0)].M) E("cur.isp." #M, para_isp_cur[I(0)].M) \
    E("def.isp." #M, para_isp_def[I(0)].M) E("max.isp." #M, para_isp_max[I(0)].M) \
    PARA_ISP_IF_##file(C(para_get_isp_##M##_num, text(a, 0))) \
    PARA_ISP_IF_##set(GETTERS(isp, M, I(0)) C(_para_set_isp_##M##_cur, I(0), I(1)) \
    C(para_set_isp_##M##_cur, I(0), I(1)))
using GetOp = int (*)(char*, void*, void**, char*);
using SetOp = int (*)(char*, void*, char*);
const std::map<std::string, std::pair<GetOp, SetOp>> table_ops = {{"video", {para_get_video_opt, para_set_video_opt}},
    {"isp", {para_get_isp_opt, para_set_isp_opt}}, {"audio", {para_get_audio_opt, para_set_audio_opt}},
    {"af", {para_get_af_opt, nullptr}}};
const std::map<std::string, std::string (*)(const Args&)> calls = {
    PARA_VIDEO_MEMBERS(VIDEO_CALLS) PARA_AUDIO_MEMBERS(AUDIO_CALLS) PARA_AF_MEMBERS(AF_CALLS) PARA_ISP_MEMBERS(ISP_CALLS)
    C(para_init_video, nullptr) C(para_init_audio, nullptr) C(para_init_af, nullptr) C(para_init_isp, nullptr)
    C(para_save_video, nullptr) C(para_save_audio, nullptr) C(para_save_af, nullptr) C(para_save_isp, nullptr)
    C(para_need_save_video, nullptr) C(para_need_save_audio, nullptr) C(para_need_save_af, nullptr)
    E("af.struct_ver", para_af_min.struct_ver | para_af_max.struct_ver | para_af_def.struct_ver |
        para_af_cur.struct_ver | para_af_init.struct_ver | para_af_exist.struct_ver)
    C(para_set_member, text(a, 0), I(1), I(2), text(a, 3)) C(isp_change_pending)
    E("para_get_isp_cur_member", isp_member(a, para_get_isp_cur_member))
    E("para_get_isp_def_member", isp_member(a, para_get_isp_def_member))
    E("Create_Json_ISPObject", isp_object(I(0), I(1))) E("get_isp_style_json", printed(get_isp_style_json(I(0), I(1))))
    E("para_get_isp_style_param", style_param(a)) E("parse_isp_def_odm", odm_def(a)) E("para_get_odm_int", odm_int(a))
    E("same.isp.init", !memcmp(&para_isp_init[I(0)], &para_isp_cur[I(0)], sizeof(dov_isp_param_s)))
    E("same.isp.def", !memcmp(&para_isp_def[I(0)], &para_isp_cur[I(0)], sizeof(dov_isp_param_s)))
    C(para_set_isp_antiflicker_def, I(0), I(1)) C(para_set_isp_style_def, I(0), I(1)) C(para_isp_cur_restore_isp_def)
    C(para_isp_style_excute_by_arm, I(0)) C(para_get_isp_style_index, I(0), text(a, 1))
    C(para_get_isp_style_string, I(0), I(1)) C(para_set_isp_style_def_index, I(0), I(1))
    C(para_get_isp_style_def_index, I(0)) C(para_init_isp_style, I(0)) C(para_init_odm, nullptr)
    E("para_get_video_member", video_member(a)) E("para_get_video_size_byname", size_by_name(a))
    C(fifo_work_run, text(a, 0), nullptr) C(save_cur_audio_param_delay, I(0)) C(save_cur_video_param_delay, I(0))
    C(para_need_save_isp, nullptr) C(para_get_video_streamNum) E("g_num_stream", g_num_stream)
    E("para_get_af_member_json", af_member(a)) E("para_get_audio_member_json", audio_member(a))
    C(para_set_audio_member_json, text(a, 0), I(1), text(a, 2)) C(para_set_video_member, text(a, 0), I(1), I(2), text(a, 3))
};
// Public setters by address, for callbacks that name the setter they came from.
#define S(fn) {reinterpret_cast<void*>(&fn), #fn},
#define VIDEO_SETTER(M, kind, table) S(para_set_video_##M##_cur)
#define AUDIO_SETTER(M, kind, table) S(para_set_audio_##M##_cur)
#define AF_SETTER(M) S(para_set_af_##M##_cur)
#define ISP_SETTER(M, file, set, o) PARA_ISP_IF_##set(S(para_set_isp_##M##_cur))
const std::map<void*, std::string> setters = {PARA_VIDEO_MEMBERS(VIDEO_SETTER) PARA_AUDIO_MEMBERS(AUDIO_SETTER)
    PARA_AF_MEMBERS(AF_SETTER) PARA_ISP_MEMBERS(ISP_SETTER)};
std::string setter(void* fn)
{
    auto it = setters.find(fn);
    return it == setters.end() ? "?" : it->second;
}
void name_setters()
{
    auto& p = para_profile;
    p.video_caller = [](void* f, int s, int v) { event("video " + setter(f) + " " + out(s) + " " + out(v)); };
    p.isp_caller = [](void* f, int s, int v) { event("isp " + setter(f) + " " + out(s) + " " + out(v)); };
    p.audio_caller = [](void* f, int v) { event("audio " + setter(f) + " " + out(v)); };
    p.af_caller = [](void* f, int v) { event("af " + setter(f) + " " + out(v)); };
}
#undef S
#undef E
#undef C
#undef I
#undef GETTERS
#undef IF_named
#undef IF_num

} // namespace

std::string data_path(const std::string& name)
{
    return std::string(PARA_SOURCE_DIR) + "/tests/data/" + name;
}

std::vector<std::string> list(const std::string& dir)
{
    std::vector<std::string> out;
    if (DIR* d = opendir(data_path(dir).c_str())) {
        while (dirent* e = readdir(d)) {
            std::string n = e->d_name;
            if (n.size() > 4 && n.compare(n.size() - 4, 4, ".txt") == 0)
                out.push_back(n.substr(0, n.size() - 4));
        }
        closedir(d);
    }
    std::sort(out.begin(), out.end());
    return out;
}

void run(const std::string& dir, const std::string& name, bool fixed_port)
{
    std::ifstream in(data_path(dir + "/" + name + ".txt"));
    ASSERT_TRUE(in) << "no scenario " << dir << "/" << name;
    test::TempDir tmp;
    tmp.use_as_profile();
    record_callbacks();
    if (!fixed_port)
        para_server_port = 0;
    test::LogCapture log;
    std::optional<std::string> reply;
    test::CommandResult ran{-1, ""};
    bool running = false;
    std::string line;
    for (int no = 1; std::getline(in, line); ++no) {
        if (line.empty() || line[0] == '#')
            continue;
        SCOPED_TRACE(dir + "/" + name + ".txt:" + std::to_string(no) + ": " + line);
        std::string rest = line, op = word(rest);
        auto rw = [&](const std::string& f) { return test::read_file(tmp.rw() + "/" + f).value_or(""); };
        if (op == "ro" || op == "rw") {
            std::string src = word(rest), dst = rest.empty() ? src.substr(src.rfind('/') + 1) : rest;
            auto text = test::read_file(data_path(src));
            ASSERT_TRUE(text) << "no data file " << src;
            test::write_file((op == "ro" ? tmp.ro() : tmp.rw()) + "/" + dst, *text);
        } else if (op == "ro-example") {
            test::copy_dir_files(test::example_device_dir(), tmp.ro());
        } else if (op == "write") {
            std::string where = word(rest), file = word(rest);
            test::write_file((where == "ro" ? tmp.ro() : tmp.rw()) + "/" + file, unescape(rest));
        } else if (op == "conf_save") {
            para_profile.conf_save = std::stoi(rest);
        } else if (op == "save_time") {
            int audio = std::stoi(word(rest));
            platformparam_set_save_param_time(audio, std::stoi(rest));
        } else if (op == "ext") {
            register_ext();
        } else if (op == "start") {
            platformparam_init();
            running = true;
            if (fixed_port) {
                ASSERT_EQ(para_server_bound_port(), PARA_SERVER_PORT);
            }
        } else if (op == "save") {
            EXPECT_EQ(platformparam_save(), 0);
        } else if (op == "stop") {
            platformparam_stop(1);
            running = false;
        } else if (op == ">" || op == ">!") {
            reply = test::udp_request(unescape(rest), op == ">" ? 2000 : 300, para_server_bound_port());
            if (op == ">!")
                EXPECT_FALSE(reply) << *reply;
            else
                ASSERT_TRUE(reply) << "no reply";
        } else if (op == "=") {
            EXPECT_EQ(test::compact(reply.value_or("")), rest);
        } else if (op == "==") {
            EXPECT_EQ(reply.value_or(""), unescape(rest));
        } else if (op == "~") {
            EXPECT_NE(test::compact(reply.value_or("")).find(rest), std::string::npos) << *reply;
        } else if (op == "event" || op == "events-none") {
            std::lock_guard<std::mutex> lk(events_mu);
            if (op == "events-none") {
                EXPECT_TRUE(events.empty()) << events.front();
            } else if (events.empty()) {
                ADD_FAILURE() << "no callback came";
            } else {
                EXPECT_EQ(events.front(), rest);
                events.pop_front();
            }
        } else if (op == "wait") {
            std::string file = word(rest);
            EXPECT_TRUE(test::wait_until([&] { return test::compact(rw(file).c_str()) == rest; }, 5000))
                << rw(file);
        } else if (op == "has") {
            std::string file = word(rest);
            EXPECT_NE(rw(file).find(unescape(rest)), std::string::npos) << rw(file);
        } else if (op == "bytes") {
            std::string file = word(rest);
            EXPECT_EQ(rw(file), unescape(rest));
        } else if (op == "$") {
            ran = test::run_command(test::tools_prefix() + rest);
        } else if (op == "status") {
            EXPECT_EQ(ran.status, std::stoi(word(rest))) << ran.out;
            EXPECT_EQ(ran.out, unescape(rest));
        } else if (op == "logs") {
            int n = std::stoi(word(rest));
            EXPECT_EQ(log.count(rest), n) << log.dump();
        } else if (op == "setters") {
            name_setters();
        } else if (op == "mkdir") {
            EXPECT_EQ(mkdir((tmp.rw() + "/" + rest).c_str(), 0775), 0);
        } else if (op == "rwdir") {
            static std::string dir;
            dir = tmp.path() + "/" + rest;
            para_profile.param_rwfile_dir = const_cast<char*>(dir.c_str());
        } else if (op == "nolog") {
            EXPECT_FALSE(log.contains(rest)) << log.dump();
        } else if (op == "expect" || op == "eventually") {
            Args args;
            std::string fn = word(rest);
            while (!rest.empty() && rest.compare(0, 3, "-> ") != 0)
                args.push_back(rest.compare(0, 5, "null ") == 0 ? (word(rest), null_arg) : unescape(word(rest)));
            auto it = calls.find(fn);
            ASSERT_NE(it, calls.end()) << "no such call";
            std::string want = rest.substr(std::min<size_t>(3, rest.size()));
            if (op == "eventually")
                test::wait_until([&] { return it->second(args) == want; }, 5000);
            EXPECT_EQ(it->second(args), want);
        } else if (op == "get" || op == "set") {
            auto ops = table_ops.at(word(rest));
            std::string req = op == "get" ? word(rest) : "-";
            cJSON* msg = cJSON_Parse(rest.c_str());
            cJSON* item = req == "whole" ? msg : msg ? msg->child : nullptr;
            char* name = req == "-" || req == "whole" ? nullptr : const_cast<char*>(req.c_str());
            void* got = nullptr;
            EXPECT_EQ(op == "get" ? ops.first(name, item, &got, nullptr) : ops.second(nullptr, item, nullptr), 0);
            reply = printed(got);
            cJSON_Delete(static_cast<cJSON*>(got));
            cJSON_Delete(msg);
        } else if (op == "log") {
            EXPECT_TRUE(log.contains(unescape(rest))) << log.dump();
        } else if (op == "until") {
            std::string want = word(rest);
            EXPECT_TRUE(test::wait_until([&] { return call(rest, tmp.path()) == want; }, 3000)) << call(rest, tmp.path());
        } else if (op == "rm") {
            std::string where = word(rest);
            unlink(((where == "ro" ? tmp.ro() : tmp.rw()) + "/" + rest).c_str());
        } else if (op == "call") {
            auto host = host_call(rest, tmp.ro());
            reply = host ? *host : call(rest, tmp.path());
            if (*reply == "skip")
                GTEST_SKIP() << rest << " cannot be done here";
        } else if (op == "log-clean") {
            std::string names = test::read_file(data_path(rest)).value_or("");
            std::replace(names.begin(), names.end(), '\n', ' ');
            for (const std::string& l : log.lines()) {
                EXPECT_TRUE(!l.empty() && l.back() == '\n') << l;
                if (l.compare(0, 6, "[para ") == 0) {
                    EXPECT_EQ((" " + names + " ").find(" " + l.substr(6, l.find(" +") - 6) + " "), std::string::npos) << l;
                }
            }
        } else {
            FAIL() << "unknown step";
        }
    }
    if (running)
        platformparam_stop(1);
}

} // namespace scenario
