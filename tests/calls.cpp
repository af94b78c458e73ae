// The "call" steps of the scenario files: exported functions, and a few
// actions of the host application around them, by name. Each answers one
// line of text ("ret", "ret value", a printed tree) that the step checks.
#include <gtest/gtest.h>

#include "para_internal.h"
#include "para_isp_internal.h"
#include "support.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <map>

namespace scenario {
namespace {
using Args = std::vector<std::string>;
char* a(Args& v, size_t i) { return v.at(i) == "(null)" ? nullptr : v[i].data(); }
int n(Args& v, size_t i) { return std::stoi(v.at(i)); }
std::string s(const char* p) { return p ? p : "(null)"; }
std::string out(long v) { return std::to_string(v); }
std::string out(const char* t) { return s(t); }
std::string out(const std::string& t) { return t; }
std::string js(cJSON* j) { return j ? para::CharPtr(cJSON_PrintUnformatted(j)).get() : "(none)"; }
std::string owned(void* j) { return js(para::JsonPtr(static_cast<cJSON*>(j)).get()); }
template <class F> std::string buf(size_t size, F f) // "ret text" of a call filling a buffer
{
    std::string b(size + 1, '\0');
    int r = f(b.data());
    return std::to_string(r) + " " + b.c_str();
}
template <class F> std::string req(Args& v, F f) // a request item list under its matched key
{
    para::JsonPtr j(cJSON_Parse(v.at(1).c_str()));
    j->string = a(v, 0);
    void* o = nullptr;
    int r = f(a(v, 0), j.get(), &o, a(v, 2));
    j->string = nullptr;
    return std::to_string(r) + " " + owned(o);
}
std::string keys(Args& v, int (*f)(const char*, const char**, uint8_t))
{
    std::vector<const char*> k;
    for (size_t i = 1; i < v.size(); ++i)
        k.push_back(v[i].c_str());
    return std::to_string(f(v[0].c_str(), k.data(), static_cast<uint8_t>(k.size())));
}
para::JsonPtr g_json; // the tree of the latest call, kept while the call runs
cJSON* pj(Args& v)
{
    g_json.reset(a(v, 0) ? cJSON_Parse(a(v, 0)) : nullptr);
    return g_json.get();
}
configure* g_cfg;
config_keys* g_keys;
entry* g_entry;
const char* g_held;
std::string dump(configure* c)
{
    std::string o(1 << 16, '\0');
    loop_buf_s lb{o.data(), static_cast<int>(o.size()), 0, 0};
    c->loop(c, loop_2_buf, &lb);
    return o.c_str();
}
std::map<std::string, ino_t> g_inodes;
ino_t inode(const char* p)
{
    struct stat st{};
    return stat(p, &st) == 0 ? st.st_ino : 0;
}
// By-name readers of the typed modules: "result value [name]".
std::string af_member(Args& v)
{
    int x = -5, r = para_get_af_member_json(a(v, 0), &x, nullptr);
    return out(r) + " " + out(x);
}
std::string audio_member(Args& v)
{
    int x = -5;
    char* t = nullptr;
    int r = para_get_audio_member_json(a(v, 0), &x, &t);
    return out(r) + " " + out(x) + " " + s(t);
}
std::string video_member(Args& v)
{
    int x = -5;
    char* t = const_cast<char*>("untouched");
    int r = para_get_video_member(a(v, 0), n(v, 1), &x, &t);
    return out(r) + " " + out(x) + " " + s(t);
}
std::string size_by_name(Args& v)
{
    int w = 7, h = 7, r = para_get_video_size_byname(a(v, 0), n(v, 1), &w, &h);
    return out(r) + " " + out(w) + "x" + out(h);
}
std::string isp_member(Args& v, int (*fn)(char*, int, int*, char**))
{
    int x = -7, r = fn(a(v, 0), n(v, 1), &x, nullptr);
    return out(r) + " " + out(x);
}
std::string isp_object(int isp, int is_def) { return owned(Create_Json_ISPObject(isp, is_def)); }
std::string style_param(Args& v)
{
    const dov_isp_param_s* p = para_get_isp_style_param(n(v, 0), n(v, 1));
    return !p ? "(null)" : out(p->style) + " " + out(p->saturation) + " " + out(p->antiflicker) + " " +
        out(p->wb_mode) + " " + out(p->shutter);
}
std::string odm_def(Args& v)
{
    dov_isp_param_s def = para_isp_def[0];
    int r = parse_isp_def_odm(n(v, 0), a(v, 1) ? &def : nullptr);
    return out(r) + " " + out(def.antiflicker);
}
// A host with many files open: the server's socket lands past FD_SETSIZE.
std::string fill_fds()
{
    rlimit lim{};
    getrlimit(RLIMIT_NOFILE, &lim);
    lim.rlim_cur = lim.rlim_max;
    if (lim.rlim_max < 1200 || setrlimit(RLIMIT_NOFILE, &lim) != 0)
        return "skip"; // the hard limit of open files is too low
    while (open("/dev/null", O_RDONLY) < 1100) {
    }
    return "";
}
// Command lists without a name or a function, and a whole one.
int no_cmd(int, para_server_message_info*, cJSON**) { return -1; }
param_handle_t no_name[] = {{nullptr, no_cmd, 0}}, no_func[] = {{"x", nullptr, 0}}, whole[] = {{"x", no_cmd, 0}};
#define R(e) [](Args & v) { (void)v; return out(e); }
#define V(...) [](Args & v) { (void)v; __VA_ARGS__; return std::string(); }
#define E(name, e) {name, R(e)},
#define C(fn, ...) E(#fn, fn(__VA_ARGS__))
#define GETTERS(tag, M, ...) C(para_get_##tag##_##M##_min, __VA_ARGS__) C(para_get_##tag##_##M##_max, __VA_ARGS__) \
    C(para_get_##tag##_##M##_def, __VA_ARGS__) C(para_get_##tag##_##M##_init, __VA_ARGS__) C(para_get_##tag##_##M##_cur, __VA_ARGS__)
#define IF_named(...) __VA_ARGS__
#define IF_num(...)
#define VIDEO_CALLS(M, kind, table) GETTERS(video, M, n(v, 0)) C(_para_set_video_##M##_cur, n(v, 0), n(v, 1)) \
    C(para_set_video_##M##_cur, n(v, 0), n(v, 1)) C(para_get_video_##M##_num, a(v, 0)) \
    E("exist.video." #M, para_video_exist[n(v, 0)].M) E("cur.video." #M, para_video_cur[n(v, 0)].M) \
    IF_##kind(C(para_get_video_##M##_str, n(v, 0)) C(para_set_video_##M##_cur_bystr, n(v, 0), a(v, 1)))
#define AUDIO_CALLS(M, kind, table) GETTERS(audio, M) C(_para_set_audio_##M##_cur, n(v, 0)) C(para_set_audio_##M##_cur, n(v, 0)) \
    C(para_get_audio_##M##_num, a(v, 0)) E("exist.audio." #M, para_audio_exist.M) IF_##kind(C(para_get_audio_##M##_str, n(v, 0)))
#define AF_CALLS(M) GETTERS(af, M) C(para_set_af_##M##_cur, n(v, 0)) E("exist.af." #M, para_af_exist.M)
#define ISP_CALLS(M, file, set, o) E("exist.isp." #M, para_isp_exist[n(v, 0)].M) E("cur.isp." #M, para_isp_cur[n(v, 0)].M) \
    E("def.isp." #M, para_isp_def[n(v, 0)].M) E("max.isp." #M, para_isp_max[n(v, 0)].M) \
    PARA_ISP_IF_##file(C(para_get_isp_##M##_num, a(v, 0))) \
    PARA_ISP_IF_##set(GETTERS(isp, M, n(v, 0)) C(_para_set_isp_##M##_cur, n(v, 0), n(v, 1)) C(para_set_isp_##M##_cur, n(v, 0), n(v, 1)))
const std::map<std::string, std::function<std::string(Args&)>> kCalls = {
    PARA_VIDEO_MEMBERS(VIDEO_CALLS) PARA_AUDIO_MEMBERS(AUDIO_CALLS) PARA_AF_MEMBERS(AF_CALLS) PARA_ISP_MEMBERS(ISP_CALLS)
    C(para_init_video, nullptr) C(para_init_audio, nullptr) C(para_init_af, nullptr) C(para_init_isp, nullptr)
    C(para_save_video, nullptr) C(para_save_audio, nullptr) C(para_save_af, nullptr) C(para_save_isp, nullptr)
    C(para_need_save_video, nullptr) C(para_need_save_audio, nullptr) C(para_need_save_af, nullptr) C(para_need_save_isp, nullptr)
    E("af.struct_ver", para_af_min.struct_ver | para_af_max.struct_ver | para_af_def.struct_ver |
        para_af_cur.struct_ver | para_af_init.struct_ver | para_af_exist.struct_ver)
    C(para_set_member, a(v, 0), n(v, 1), n(v, 2), a(v, 3)) C(isp_change_pending)
    E("para_get_isp_cur_member", isp_member(v, para_get_isp_cur_member))
    E("para_get_isp_def_member", isp_member(v, para_get_isp_def_member))
    E("Create_Json_ISPObject", isp_object(n(v, 0), n(v, 1))) E("get_isp_style_json", js(get_isp_style_json(n(v, 0), n(v, 1))))
    E("para_get_isp_style_param", style_param(v)) E("parse_isp_def_odm", odm_def(v))
    E("same.isp.init", !memcmp(&para_isp_init[n(v, 0)], &para_isp_cur[n(v, 0)], sizeof(dov_isp_param_s)))
    E("same.isp.def", !memcmp(&para_isp_def[n(v, 0)], &para_isp_cur[n(v, 0)], sizeof(dov_isp_param_s)))
    C(para_set_isp_antiflicker_def, n(v, 0), n(v, 1)) C(para_set_isp_style_def, n(v, 0), n(v, 1)) C(para_isp_cur_restore_isp_def)
    C(para_isp_style_excute_by_arm, n(v, 0)) C(para_get_isp_style_index, n(v, 0), a(v, 1))
    C(para_get_isp_style_string, n(v, 0), n(v, 1)) C(para_set_isp_style_def_index, n(v, 0), n(v, 1))
    C(para_get_isp_style_def_index, n(v, 0)) C(para_init_isp_style, n(v, 0))
    E("para_get_video_member", video_member(v)) E("para_get_video_size_byname", size_by_name(v))
    C(fifo_work_run, a(v, 0), nullptr) C(save_cur_audio_param_delay, n(v, 0)) C(save_cur_video_param_delay, n(v, 0))
    C(para_get_video_streamNum) E("g_num_stream", g_num_stream)
    E("para_get_af_member_json", af_member(v)) E("para_get_audio_member_json", audio_member(v))
    C(para_set_audio_member_json, a(v, 0), n(v, 1), a(v, 2)) C(para_set_video_member, a(v, 0), n(v, 1), n(v, 2), a(v, 3))
    {"para_get_isp_opt", [](Args&) { void* o = nullptr; para_get_isp_opt(nullptr, nullptr, &o, nullptr); return owned(o); }},
    {"para_video_enum", V(para_video_enum(nullptr, nullptr))},
    {"host_parse_error", V(cJSON_Delete(cJSON_Parse("{host")))}, // its error position must not leak into the library's lines
    {"fill_fds", [](Args&) { return fill_fds(); }},
    E("json_style_file", json_style_file ? "set" : "(null)")
    C(para_init_conf, a(v, 0))
    C(para_init_misc, a(v, 0))
    {"para_conf_get_member", [](Args& v) { return s(para_conf_get_member(a(v, 0), a(v, 1))); }},
    {"para_get_netport_member", [](Args& v) { return s(para_get_netport_member(a(v, 0))); }},
    {"para_get_overlay_member", [](Args& v) { return s(para_get_overlay_member(a(v, 0))); }},
    {"para_conf_get_member_safe", [](Args& v) { return buf(n(v, 2), [&](char* b) { return para_conf_get_member_safe(a(v, 0), a(v, 1), b, n(v, 2)); }); }},
    {"para_conf_get_def_member_safe", [](Args& v) { return buf(n(v, 2), [&](char* b) { return para_conf_get_def_member_safe(a(v, 0), a(v, 1), b, n(v, 2)); }); }},
    {"para_save_conf_2_buf", [](Args& v) { return buf(n(v, 1), [&](char* b) { return para_save_conf_2_buf(a(v, 0), b, n(v, 1)); }); }},
    {"para_save_misc_conf_2_buf", [](Args& v) { return buf(n(v, 1), [&](char* b) { return para_save_misc_conf_2_buf(a(v, 0), b, n(v, 1)); }); }},
    C(para_need_save_conf, a(v, 0))
    C(para_save_conf, a(v, 0))
    C(para_conf_set_member, a(v, 0), a(v, 1), a(v, 2))
    C(_para_conf_set_member, a(v, 0), a(v, 1), a(v, 2))
    {"para_conf_key_IsChanged", [](Args& v) { return keys(v, para_conf_key_IsChanged); }},
    C(para_key_IsChanged_devinfo, nullptr, 0)
    C(para_need_update_netport)
    {"para_get_conf_opt", [](Args& v) { return req(v, para_get_conf_opt); }},
    {"para_get_misc_opt", [](Args& v) { return req(v, para_get_misc_opt); }},
    {"para_set_conf_opt", V(para_set_conf_opt(a(v, 0), para::JsonPtr(cJSON_Parse(a(v, 1))).get(), a(v, 0)))},
    {"para_set_misc_opt", V(para_set_misc_opt(a(v, 0), para::JsonPtr(cJSON_Parse(a(v, 1))).get(), a(v, 0)))},
    C(fifo_work_trigger, a(v, 0), nullptr)
    {"fifo_work_drain", V(fifo_work_drain())},
    C(para_get_json_min, a(v, 0), a(v, 1))
    C(para_get_json_max, a(v, 0), a(v, 1))
    C(para_get_json_def, a(v, 0), a(v, 1))
    C(para_get_json_cur, a(v, 0), a(v, 1))
    C(para_set_json_cur, a(v, 0), a(v, 1), n(v, 2))
    C(_para_set_json_cur, a(v, 0), a(v, 1), n(v, 2))
    C(para_set_json_cur_number, a(v, 0), a(v, 1), n(v, 2))
    C(para_set_json_cur_str, a(v, 0), a(v, 1), a(v, 2))
    {"para_get_json_string", [](Args& v) { return buf(n(v, 2), [&](char* b) { return para_get_json_string(a(v, 0), a(v, 1), b, n(v, 2)); }); }},
    C(peek_json_enum_type, a(v, 0), a(v, 1))
    {"para_get_json_emum_str", [](Args& v) { return s(para_get_json_emum_str(a(v, 0), a(v, 1), n(v, 2))); }},
    C(para_get_json_enum_index, a(v, 0), a(v, 1), a(v, 2))
    C(para_need_save_misc, a(v, 0))
    C(para_save_misc, a(v, 0))
    {"Create_Json_Misc_Object", [](Args& v) { para::JsonPtr o(cJSON_CreateObject()); Create_Json_Misc_Object(a(v, 0), o.get(), n(v, 1)); return js(o.get()); }},
    {"fix_old_misc_range_conf", [](Args& v) { para::JsonPtr in(cJSON_Parse(a(v, 0) ? a(v, 0) : "")); return js(para::JsonPtr(fix_old_misc_range_conf(in.get())).get()); }},
    {"fix_old_misc_def_cur_conf", [](Args& v) { configure* c = configure_init(); int r = fix_old_misc_def_cur_conf(a(v, 0), c); std::string d = dump(c); configure_free(c); return std::to_string(r) + " " + d; }},
    {"para_init_misc_legacy", [](Args& v) { configure *cur = nullptr, *def = nullptr; cJSON* range = nullptr; int r = para_init_misc_legacy(a(v, 0), &cur, &def, &range);
         std::string out = std::to_string(r) + " " + js(range) + " " + (cur ? dump(cur) : "(none)");
         return configure_free(cur), configure_free(def), cJSON_Delete(range), out; }},
    C(para_get_misc_mirror_cur)
    C(para_get_misc_mirror_def)
    C(para_get_misc_flip_cur)
    C(para_get_misc_hdmivideoformat_max)
    C(para_get_misc_hdmivideoformat_def)
    {"para_get_misc_hdmivideoformat_str", [](Args& v) { return s(para_get_misc_hdmivideoformat_str(n(v, 0))); }},
    C(para_get_misc_hdmivideoformat_num, a(v, 0))
    C(para_get_misc_ViStrategy_cur)
    C(para_get_misc_ViStrategy_max)
    C(para_get_misc_ndi_mode_cur)
    C(para_get_misc_ndi_mode_min)
    C(para_set_misc_mirror_cur, n(v, 0))
    C(para_set_misc_hdmivideoformat_cur, n(v, 0))
    C(para_set_misc_hdmivideoformat_cur_bystr, a(v, 0))
    C(para_set_misc_ViStrategy_cur_bystr, a(v, 0))
    C(para_init_odm, a(v, 0))
    {"para_init_stage2_odm", V(para_init_stage2_odm(a(v, 0)))},
    C(para_need_save_odm, a(v, 0))
    C(para_save_odm, a(v, 0))
    {"para_set_odm_int", V(para_set_odm_int(a(v, 0), n(v, 1)))},
    C(_para_set_odm_int, a(v, 0), n(v, 1))
    {"para_set_odm_string", V(para_set_odm_string(a(v, 0), a(v, 1)))},
    C(_para_set_odm_string, a(v, 0), a(v, 1))
    {"para_get_odm_int", [](Args& v) { int x = -99; int r = para_get_odm_int(a(v, 0), v.size() > 1 ? nullptr : &x); return std::to_string(r) + " " + std::to_string(x); }},
    {"para_get_odm_string", [](Args& v) { return buf(PARA_ODM_STRING_MAX + 64, [&](char* b) { return para_get_odm_string(a(v, 0), v.size() > 1 ? nullptr : b); }); }},
    {"para_get_odm_string_safe", [](Args& v) { return buf(n(v, 1), [&](char* b) { return para_get_odm_string_safe(a(v, 0), b, n(v, 1)); }); }},
    {"odm_store", [](Args&) { return js(json_odm_file); }},
    {"clock", V(para::clock_offset_ns += int64_t(n(v, 0)) * 1000000)}, // the library's clock moved on by MS
    {"odm_age", V(odm_item_start_time.tv_sec -= 3)}, // the latest change older than the save delay
    C(update_conf, a(v, 0), a(v, 1), a(v, 2))
    C(update_line_conf, a(v, 0), a(v, 1), a(v, 2))
    C(update_line_conf_int, a(v, 0), a(v, 1), n(v, 2), a(v, 3))
    C(update_line_conf_str, a(v, 0), a(v, 1), a(v, 2), a(v, 3))
    C(para_conf_need_update, a(v, 0))
    {"conf_grow", V(for (int i = 0; i < n(v, 1); ++i) _para_conf_set_member(a(v, 0), ("k" + std::to_string(i)).c_str(), "v"))},
    {"hold", V(g_held = para_conf_get_member(a(v, 0), a(v, 1)))},
    {"held", [](Args&) { return s(g_held); }},
    E("rm", std::remove(v.at(0).c_str()))
    {"age", [](Args& v) { timespec t[2] = {{0, UTIME_OMIT}, {time(nullptr) - 3600, 0}}; return out(utimensat(AT_FDCWD, a(v, 0), t, 0)); }},
    C(json_object_get_int, cJSON_GetObjectItem(pj(v), a(v, 1)))
    {"json_object_get_string", [](Args& v) { return s(json_object_get_string(cJSON_GetObjectItem(pj(v), a(v, 1)))); }},
    {"json_object_load_number", [](Args& v) { int x = 0; int r = json_object_load_number(pj(v), a(v, 1), &x); return std::to_string(r) + " " + std::to_string(x); }},
    {"json_object_load_u8_array", [](Args& v) { uint8_t b[8] = {}; std::string out = std::to_string(json_object_load_u8_array(pj(v), a(v, 1), b, n(v, 2)));
         for (int i = 0; i < n(v, 2); ++i) out += " " + std::to_string(b[i]);
         return out; }},
    {"json_object_load_string", [](Args& v) { char* t = v.size() > 3 ? strdup(a(v, 3)) : nullptr; int r = json_object_load_string(pj(v), a(v, 1), &t, a(v, 2)); std::string out = std::to_string(r) + " " + s(t); free(t); return out; }},
    C(mkdir, v.at(0).c_str(), 0775)
    E("exists", test::file_exists(v.at(0)))
    {"put", V(test::write_file(v.at(0), v.at(1)))},
    {"stamp", V(g_inodes[v.at(0)] = inode(v[0].c_str()))}, // "same" then tells whether the file was replaced
    E("same", g_inodes[v.at(0)] == inode(v[0].c_str()))
    E("cfg_parse", configure_parse(g_cfg ? g_cfg : (g_cfg = configure_init()), v.size() > 1 ? g_keys + n(v, 1) : nullptr, a(v, 0)))
    {"cfg_free", V(configure_free(g_cfg), g_cfg = nullptr)},
    {"cfg_keys", [](Args& v) { static std::vector<std::string> names; names = v; std::vector<const char*> k; for (auto& x : names) k.push_back(x.c_str()); g_keys = config_keys_format(k.data(), static_cast<uint8_t>(k.size())); return std::string(); }},
    E("cfg_changed", configure_key_IsChanged(g_cfg, g_keys))
    {"cfg_hold", V(g_entry = g_cfg->getparameter(g_cfg, a(v, 0)))},
    {"cfg_held", [](Args&) { return s(g_entry->value); }},
    {"cfg_grow", V(for (int i = 0; i < n(v, 0); ++i) g_cfg->put(g_cfg, ("k" + std::to_string(i)).c_str(), "v"))}, // reallocates the entries
    {"cat_file_name", [](Args& v) { return buf(n(v, 2), [&](char* b) { return cat_file_name(b, n(v, 2), a(v, 0), a(v, 1)); }); }},
    {"make_path", [](Args& v) { char b[PARA_PATH_MAX]; int r = para::make_path(b, a(v, 0), a(v, 1), a(v, 2)); return std::to_string(r) + " " + b; }},
    {"read_file_to_buf_len", [](Args& v) { size_t len = 0; para::CharPtr t(read_file_to_buf_len(a(v, 0), &len)); return t ? std::to_string(len) + " " + t.get() : "(none)"; }},
    {"lib_itoa", [](Args& v) { char b[12]; return s(lib_itoa(n(v, 0), b)); }},
    {"lib_common_diff_msec_timespec", [](Args& v) { timespec x{n(v, 0), n(v, 1)}, y{n(v, 2), n(v, 3)}; return std::to_string(lib_common_diff_msec_timespec(&x, &y)); }},
    C(lib_system, a(v, 0))
    E("cfg_put", g_cfg->put(g_cfg, a(v, 0), a(v, 1)))
    {"cfg_get", [](Args& v) { return buf(n(v, 1), [&](char* b) { return g_cfg->get(g_cfg, a(v, 0), b, n(v, 1)); }); }},
    {"cfg_dump", [](Args&) { return std::to_string(g_cfg->list.used) + " " + dump(g_cfg); }},
    {"cfg_save", [](Args& v) { FILE* f = fopen(a(v, 0), "w"); g_cfg->loop(g_cfg, loop_2_conf, f); return std::to_string(fclose(f)); }},
    {"cfg_loop_buf", [](Args& v) { std::string b(n(v, 0), '\0'); loop_buf_s lb{b.data(), n(v, 0), 0, 0}; g_cfg->loop(g_cfg, loop_2_buf, &lb); return std::to_string(lb.ret) + " " + std::to_string(lb.used) + " " + (lb.ret ? "" : b.c_str()); }},
    {"register_para_handle_extern", V(module_para_handle_s h{}; h.parse_name = a(v, 0); register_para_handle_extern(&h))},
    {"register_param_command", [](Args& v) {
        std::map<std::string, param_handle_t*> lists{{"none", nullptr}, {"no_name", no_name}, {"no_func", no_func}, {"whole", whole}};
        return out(register_param_command(a(v, 0), lists.at(v.at(1)), n(v, 2))); }},
    C(para_server_bind_address, a(v, 0))
    C(para_share_unpublish, n(v, 0))
    {"reply_fits", [](Args& v) { auto r = test::udp_request(v.at(0), 2000, para_server_bound_port()); para::JsonPtr j(cJSON_Parse(r.value_or("").c_str())); return std::to_string(r && r->size() <= size_t(n(v, 1)) && cJSON_GetArraySize(cJSON_GetObjectItem(j.get(), a(v, 2))) <= n(v, 3)); }},
    {"no_rw_dir", V(para_profile.param_rwfile_dir = const_cast<char*>(""))},
    C(platformparam_stop, n(v, 0))
    {"para_get_msg_id_opt", [](Args& v) { return req(v, para_get_msg_id_opt); }},
    {"para_get_msg_name_opt", [](Args& v) { return req(v, para_get_msg_name_opt); }},
    C(symlink, a(v, 0), a(v, 1))
    C(chmod, a(v, 0), std::stoi(v.at(1), nullptr, 8))
    {"lstat", [](Args& v) { struct stat st{}; char b[32]; lstat(a(v, 0), &st); snprintf(b, sizeof b, "%s %o", S_ISLNK(st.st_mode) ? "link" : "file", st.st_mode & 07777); return std::string(b); }},
    {"entries", [](Args& v) { int k = 0; DIR* d = opendir(a(v, 0)); while (dirent* e = d ? readdir(d) : nullptr) k += e->d_name[0] != '.'; return d && closedir(d), std::to_string(k); }},
};
#undef R
#undef V
#undef E
#undef C
#undef GETTERS
#undef IF_named
#undef IF_num
} // namespace

// \n \r \t \s (space) \0 \\ and \xHH; "<N:c>" stands for N times the character c.
std::string unescape(const std::string& s)
{
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        size_t colon = s[i] == '<' ? s.find_first_not_of("0123456789", i + 1) : std::string::npos;
        if (colon != std::string::npos && colon > i + 1 && colon + 2 < s.size() && s[colon] == ':' && s[colon + 2] == '>') {
            out.append(std::stoul(s.substr(i + 1, colon - i - 1)), s[colon + 1]);
            i = colon + 2;
            continue;
        }
        if (s[i] != '\\' || i + 1 == s.size()) {
            out += s[i];
            continue;
        }
        char c = s[++i];
        if (c == 'x' && i + 2 < s.size() + 1) {
            out += static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else
            out += c == 'n' ? '\n' : c == 'r' ? '\r' : c == 't' ? '\t' : c == 's' ? ' ' : c == '0' ? '\0' : c;
    }
    return out;
}

// Words are split at single spaces, then unescaped. "(null)" is a NULL text;
// "@ro/", "@rw/" and "@dir/" begin paths inside the scenario's directories.
std::string call(const std::string& line, const std::string& dir)
{
    Args v;
    for (size_t i = 0, e; i <= line.size(); i = e + 1) {
        e = std::min(line.find(' ', i), line.size());
        std::string o = unescape(line.substr(i, e - i));
        for (const char* at : {"@ro/", "@rw/", "@dir/"})
            if (o.rfind(at, 0) == 0)
                o = dir + (at[1] == 'd' ? "" : std::string("/") + at[1] + at[2]) + o.substr(strlen(at) - 1);
        v.push_back(o);
    }
    std::string name = v.front();
    v.erase(v.begin());
    auto f = kCalls.find(name);
    if (f != kCalls.end())
        return f->second(v);
    ADD_FAILURE() << "no such call " << name; // a misspelt step must not pass unchecked
    return {};
}

} // namespace scenario
