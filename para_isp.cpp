/* ISP module: the record of two image signal processors, its per-member
 * families, start-up from the range/style/current files, the requests of
 * the rows "isp0" and "isp1", the delayed save and the default maintenance.
 *
 * Every per-member function is stamped from PARA_ISP_MEMBERS (para.h). The
 * records, the change state and the per-member getters and setters are those
 * of the typed engine (para_typed.h), under its one concurrency rule; the
 * file walkers, orders and by-name access below are the ISP's own, because
 * its files and objects differ (three key orders, style objects, factory
 * overrides). */
#include "para_isp_internal.h"
#include "para_typed.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <mutex>

#include <unistd.h>

dov_isp_param_s para_isp_min[PARA_ISP_NUM];
dov_isp_param_s para_isp_max[PARA_ISP_NUM];
dov_isp_param_s para_isp_def[PARA_ISP_NUM];
dov_isp_param_s para_isp_cur[PARA_ISP_NUM];
dov_isp_param_s para_isp_init[PARA_ISP_NUM];
dov_isp_param_s para_isp_exist[PARA_ISP_NUM];
struct timespec isp_item_start_time;

namespace {

enum IspMember : int {
#define ISP_ENUM(m, file, set, out) ISP_##m,
    PARA_ISP_MEMBERS(ISP_ENUM)
#undef ISP_ENUM
    ISP_MEMBER_COUNT
};

struct MemberInfo {
    int dov_isp_param_s::*field;
    bool file, set, out;
};

constexpr MemberInfo k_members[] = {
#define ISP_INFO(m, file, set, out) {&dov_isp_param_s::m, file != 0, set != 0, out != 0},
    PARA_ISP_MEMBERS(ISP_INFO)
#undef ISP_INFO
};

const char* const k_names[] = {
#define ISP_NAME(m, file, set, out) #m,
    PARA_ISP_MEMBERS(ISP_NAME)
#undef ISP_NAME
};

static_assert(sizeof(k_members) / sizeof(k_members[0]) == ISP_MEMBER_COUNT, "member table");
static_assert(sizeof(dov_isp_param_s) == ISP_MEMBER_COUNT * sizeof(int), "record is plain ints");

/* The walkers read in this order (a member's reader never touches another
 * member, so it only matters for the log). */
constexpr IspMember k_read_order[] = {
    ISP_exposure_mode_priority, ISP_exposure_mode, ISP_shutter, ISP_iris, ISP_bright,
    ISP_expcomp_mode, ISP_expcomp_level, ISP_backlight, ISP_gain_limit, ISP_manual_gain,
    ISP_antiflicker, ISP_meter, ISP_wdr_strength, ISP_wb_mode, ISP_awb_sens, ISP_rgain,
    ISP_bgain, ISP_rgain_tuning, ISP_bgain_tuning, ISP_ggain_tuning, ISP_rgain_onepush,
    ISP_bgain_onepush, ISP_saturation, ISP_skin_saturation, ISP_hue, ISP_temperature,
    ISP_len_type, ISP_luminance, ISP_contrast, ISP_sharpness, ISP_blackwhite_mode, ISP_gamma,
    ISP_style, ISP_drc, ISP_ccm_style, ISP_nr2d, ISP_nr3d,
};

/* Key order of ISP objects: replies and "isp_cur.json" depend on it. */
constexpr IspMember k_out_order[] = {
    ISP_style, ISP_exposure_mode, ISP_shutter, ISP_iris, ISP_bright, ISP_expcomp_mode,
    ISP_expcomp_level, ISP_backlight, ISP_gain_limit, ISP_manual_gain, ISP_antiflicker,
    ISP_meter, ISP_wdr_strength, ISP_wb_mode, ISP_awb_sens, ISP_rgain, ISP_bgain,
    ISP_rgain_tuning, ISP_bgain_tuning, ISP_ggain_tuning, ISP_rgain_onepush, ISP_bgain_onepush,
    ISP_saturation, ISP_skin_saturation, ISP_hue, ISP_temperature, ISP_len_type, ISP_luminance,
    ISP_contrast, ISP_sharpness, ISP_blackwhite_mode, ISP_gamma, ISP_drc, ISP_ccm_style,
    ISP_nr2d, ISP_nr3d, ISP_hotpixel,
};

/* Line order of the parameter dump. */
constexpr IspMember k_dump_order[] = {
    ISP_style, ISP_exposure_mode, ISP_shutter, ISP_iris, ISP_bright, ISP_expcomp_mode,
    ISP_expcomp_level, ISP_backlight, ISP_gain_limit, ISP_manual_gain, ISP_antiflicker,
    ISP_meter, ISP_wdr_strength, ISP_drc, ISP_wb_mode, ISP_awb_sens, ISP_rgain, ISP_bgain,
    ISP_rgain_tuning, ISP_bgain_tuning, ISP_ggain_tuning, ISP_rgain_onepush, ISP_bgain_onepush,
    ISP_saturation, ISP_skin_saturation, ISP_hue, ISP_temperature, ISP_luminance, ISP_contrast,
    ISP_sharpness, ISP_blackwhite_mode, ISP_gamma, ISP_nr2d, ISP_nr3d,
};

/* An order table must list every member of its column exactly once. */
template <size_t N>
constexpr bool is_column_order(const IspMember (&order)[N], bool MemberInfo::*column)
{
    size_t in_column = 0;
    for (const MemberInfo& info : k_members)
        in_column += (info.*column) ? 1 : 0;
    if (in_column != N)
        return false;
    for (size_t i = 0; i < N; ++i) {
        if (!(k_members[order[i]].*column))
            return false;
        for (size_t j = 0; j < i; ++j)
            if (order[j] == order[i])
                return false;
    }
    return true;
}
static_assert(is_column_order(k_read_order, &MemberInfo::file), "reader order");
static_assert(is_column_order(k_out_order, &MemberInfo::out), "output order");
static_assert(is_column_order(k_dump_order, &MemberInfo::set), "dump order");

constexpr int k_exist_numeric = 0x80;
constexpr int k_save_delay_ms = 2000;
constexpr const char* k_range_file = "isp_range.json";
constexpr const char* k_cur_file = "isp_cur.json";

int g_num_isp = 0;
int init_flag = 0;
/* Its `loaded` is set once the range file loaded: before that the records
 * hold no settings, and a save would only replace the stored ones with an
 * empty object. The concurrency rule is the one on para::typed::State. */
para::typed::State isp_state;
using Lock = para::typed::Lock;

/* Whole words, atomically: the getters and setters read and write the
 * current values without a lock, so every other access to a record word
 * does too (the rule on para::typed::State). */
int load(const int& word)
{
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
}
void store(int& word, int value)
{
    __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}

int& field(dov_isp_param_s& rec, int m)
{
    return rec.*k_members[m].field;
}
int value(const dov_isp_param_s& rec, int m)
{
    return load(rec.*k_members[m].field);
}

#define ISP_SETTER_0(m) nullptr
#define ISP_SETTER_1(m) reinterpret_cast<void*>(&para_set_isp_##m##_cur)
#define ISP_TYPED_ROW(m, file, set, out) \
    {#m, static_cast<int>(offsetof(dov_isp_param_s, m) / sizeof(int32_t)), nullptr, 0, false, ISP_SETTER_##set(m)},
const para::typed::Member k_typed_members[] = {PARA_ISP_MEMBERS(ISP_TYPED_ROW)};
#undef ISP_TYPED_ROW
#undef ISP_SETTER_0
#undef ISP_SETTER_1

void notify_isp(void* setter, int pipe, int value)
{
    if (para_profile.isp_caller)
        para_profile.isp_caller(setter, pipe, value);
}

int isp_records = PARA_ISP_NUM;
const para::typed::Module k_isp = [] {
    para::typed::Module m{};
    m.title = "ISP";
    m.members = k_typed_members;
    m.count = ISP_MEMBER_COUNT;
    m.rec = PARA_TYPED_RECORDS(para_isp);
    m.stride = ISP_MEMBER_COUNT;
    m.records = PARA_ISP_NUM;
    m.streams = &isp_records; // both pipes answer, whatever the range file holds
    m.reads_ignore_exist = true;
    m.st = &isp_state;
    m.stamp = &isp_item_start_time;
    m.notify = notify_isp;
    return m;
}();

enum ReadKind { READ_range, READ_def, READ_cur, READ_style };

void read_member(ReadKind kind, int m, cJSON* json, dov_isp_param_s* p0, dov_isp_param_s* p1)
{
    if (!json || !p0)
        return;
    const cJSON* item = cJSON_GetObjectItem(json, k_names[m]);
    if (!item)
        return;
    Lock lk(isp_state.mu);
    switch (kind) {
    case READ_range:
        if (p1 && cJSON_GetArraySize(item) > 1) {
            store(field(*p0, m), para::json_int(cJSON_GetArrayItem(item, 0)));
            store(field(*p1, m), para::json_int(cJSON_GetArrayItem(item, 1)));
        }
        break;
    case READ_def:
        if (p1) {
            store(field(*p0, m), para::json_int(item));
            store(field(*p1, m), 1 | k_exist_numeric);
        }
        break;
    case READ_cur:
    case READ_style:
        store(field(*p0, m), para::json_int(item));
        break;
    }
}

void walk(ReadKind kind, cJSON* json, dov_isp_param_s* p0, dov_isp_param_s* p1)
{
    for (IspMember m : k_read_order)
        read_member(kind, m, json, p0, p1);
}

int settable_index(const char* name)
{
    int m = para::name_index_exact(name, k_names, ISP_MEMBER_COUNT);
    return (m >= 0 && k_members[m].set) ? m : -1;
}

int get_member_by_name(const dov_isp_param_s* records, const char* name, int chn, int* val)
{
    int m = settable_index(name);
    if (m < 0 || !isp_valid_pipe(chn))
        return 0;
    Lock lk(isp_state.mu);
    if (val)
        *val = value(records[chn], m);
    return field(para_isp_exist[chn], m);
}

/* "isp<N>": the key of ISP N in the range and current-values files. */
std::array<char, 16> isp_key(int n)
{
    std::array<char, 16> key{};
    std::snprintf(key.data(), key.size(), "isp%d", n);
    return key;
}

/* N when key is "isp<N>" + suffix for some N below limit, else -1. */
int request_isp(const char* key, const char* suffix, int limit)
{
    for (int n = 0; key && n < limit; ++n) {
        char name[32];
        std::snprintf(name, sizeof name, "isp%d%s", n, suffix);
        if (para::same(key, name))
            return n;
    }
    return -1;
}

} // namespace

/* ---- stamped per-member families ------------------------------------- */

#define ISP_REC_def para::typed::kDef
#define ISP_REC_min para::typed::kMin
#define ISP_REC_max para::typed::kMax
#define ISP_REC_init para::typed::kInit
#define ISP_REC_cur para::typed::kCur
#define ISP_DEF_GET(m, kind) \
    int para_get_isp_##m##_##kind(int pipe) { return para::typed::get(k_isp, ISP_##m, ISP_REC_##kind, pipe); }
#define ISP_DEF_SET(m)                                                                                      \
    PARA_ISP_GET_KINDS(ISP_DEF_GET, m)                                                                      \
    int _para_set_isp_##m##_cur(int pipe, int v) { return para::typed::set_internal(k_isp, ISP_##m, pipe, v); } \
    int para_set_isp_##m##_cur(int pipe, int v) { return para::typed::set_public(k_isp, ISP_##m, pipe, v); }
#define ISP_DEF_READ(m, kind)                                                             \
    void get_##kind##_param_##m(cJSON* json, dov_isp_param_s* p0, dov_isp_param_s* p1) \
    {                                                                                     \
        read_member(READ_##kind, ISP_##m, json, p0, p1);                                  \
    }
#define ISP_DEF_FILE(m)                                                                        \
    int para_get_isp_##m##_num(char* str) { return para::name_lookup_num(str, null_stream, 1); } \
    PARA_ISP_READ_KINDS(ISP_DEF_READ, m)
#define ISP_DEF(m, file, set, out) PARA_ISP_IF_##file(ISP_DEF_FILE(m)) PARA_ISP_IF_##set(ISP_DEF_SET(m))
PARA_ISP_MEMBERS(ISP_DEF)
#undef ISP_DEF

#define ISP_DEF_WALK(kind)                                                                  \
    void _parse_isp_##kind##_json(cJSON* json, dov_isp_param_s* p0, dov_isp_param_s* p1) \
    {                                                                                       \
        walk(READ_##kind, json, p0, p1);                                                    \
    }
ISP_DEF_WALK(range)
ISP_DEF_WALK(def)
ISP_DEF_WALK(cur)
ISP_DEF_WALK(style)
#undef ISP_DEF_WALK

/* ---- member access by name, ISP objects, dump ------------------------ */

int para_get_isp_cur_member(char* memberName, int chn, int* val, char** valString)
{
    return get_member_by_name(para_isp_cur, memberName, chn, val);
}

int para_get_isp_def_member(char* memberName, int chn, int* val, char** valString)
{
    return get_member_by_name(para_isp_def, memberName, chn, val);
}

int para_set_member(char* memberName, int chn, int val, char* valString)
{
    int m = settable_index(memberName);
    if (m < 0 || !isp_valid_pipe(chn))
        return 0;
    if (!(field(para_isp_exist[chn], m) & k_exist_numeric))
        return 0;
    return para::typed::set_internal(k_isp, m, chn, val);
}

cJSON* Create_Json_ISPObject(int i, int is_def)
{
    if (!isp_valid_pipe(i)) {
        PARA_LOG(PARA_ERR, "bad isp %d\n", i);
        return nullptr;
    }
    dov_isp_param_s& rec = is_def ? para_isp_def[i] : para_isp_cur[i];
    cJSON* obj = cJSON_CreateObject();
    Lock lk(isp_state.mu);
    for (IspMember m : k_out_order)
        if (field(para_isp_exist[i], m))
            cJSON_AddNumberToObject(obj, k_names[m], value(rec, m));
    return obj;
}

void isp_page(void)
{
    if (dbgout_profile.para_level <= 5)
        return;
    Lock lk(isp_state.mu);
    PARA_LOG(PARA_INFO, "----------ISP PARAM-----------\n\n");
    for (int i = 0; i < g_num_isp; ++i) {
        PARA_LOG(PARA_INFO, "isp%d param:\n\n", i);
        for (IspMember m : k_dump_order)
            if (field(para_isp_exist[i], m))
                PARA_LOG(PARA_INFO, "%16s : cur:[%d],\tdef:[%d],\trange:[%d,%d]\n", k_names[m],
                         value(para_isp_cur[i], m), field(para_isp_def[i], m),
                         field(para_isp_min[i], m), field(para_isp_max[i], m));
    }
    PARA_LOG(PARA_INFO, "--------------------------------\n\n");
}

int check_isp_num(cJSON* json)
{
    int num = 0;
    for (const char* key : {"isp0", "isp1"})
        if (cJSON_GetObjectItem(json, key))
            ++num;
    PARA_LOG(PARA_INFO, "check isp num = %d\n", num);
    return num;
}

bool isp_change_pending(void)
{
    return isp_state.change.flag.load() != 0;
}

/* ---- start-up -------------------------------------------------------- */

namespace {

/* Defaults and current values from one style object. */
void load_style(int isp, cJSON* style)
{
    if (!style)
        return;
    _parse_isp_def_json(style, &para_isp_def[isp], &para_isp_exist[isp]);
    _parse_isp_cur_json(style, &para_isp_cur[isp], nullptr);
}

/* Current values saved by an earlier run, over the style they select. */
void load_cur_file(cJSON* tree)
{
    for (int i = 0; i < PARA_ISP_NUM; ++i) {
        cJSON* saved = cJSON_GetObjectItem(tree, isp_key(i).data());
        if (cJSON* style = cJSON_GetObjectItem(saved, "style"))
            para_set_isp_style_cur(i, para::json_int(style));
        load_style(i, get_isp_style_json(i, para_get_isp_style_cur(i)));
        {
            Lock lk(isp_state.mu);
            parse_isp_def_odm(i, &para_isp_def[i]);
        }
        _parse_isp_cur_json(saved, &para_isp_cur[i], nullptr);
    }
}

} // namespace

int para_init_isp(char* parse_name)
{
    if (init_flag)
        return 0;
    for (dov_isp_param_s* set : {para_isp_min, para_isp_max, para_isp_def, para_isp_cur})
        for (int i = 0; i < PARA_ISP_NUM; ++i)
            set[i].struct_ver = sizeof(dov_isp_param_s);
    init_flag = 1;

    char range_path[PARA_PATH_MAX], cur_path[PARA_PATH_MAX];
    if (!para::make_path(range_path, para_profile.param_rofile_dir, k_range_file) ||
        !para::make_path(cur_path, para_profile.param_rwfile_dir, k_cur_file))
        return -1;

    para::JsonPtr range = para::load_json_file(__func__, range_path, nullptr, true);
    if (!range)
        return -1;
    g_num_isp = check_isp_num(range.get());
    for (int i = 0; i < PARA_ISP_NUM; ++i) {
        _parse_isp_range_json(cJSON_GetObjectItem(range.get(), isp_key(i).data()), &para_isp_min[i],
                              &para_isp_max[i]);
    }
    range.reset();

    // A pipe whose style file is there but did not load has no members: its
    // current values would not load either, and a save would drop them.
    bool styles_whole = true;
    for (int i = 0; i < PARA_ISP_NUM; ++i) {
        char style_path[PARA_PATH_MAX];
        if (para_init_isp_style(i) != 0 && !para::isp_style_tree[i] && i < g_num_isp &&
            para::make_path(style_path, para_profile.param_rofile_dir, i ? "isp1_def.json" : "isp0_def.json") &&
            access(style_path, F_OK) == 0)
            styles_whole = false;
        int k = para_get_isp_style_def_index(i);
        load_style(i, get_isp_style_json(i, k));
        Lock lk(isp_state.mu);
        store(para_isp_def[i].style, k);
        store(para_isp_cur[i].style, k);
        store(para_isp_exist[i].style, 1 | k_exist_numeric);
    }

    int parse_ok = 0;
    para::CurLoad how = para::CurLoad::absent;
    if (para::JsonPtr cur = para::load_json_file(__func__, cur_path, nullptr, true, true, &how)) {
        load_cur_file(cur.get());
        parse_ok = 1;
    }
    PARA_LOG(PARA_INFO, "parse_ok:%d\n", parse_ok);
    {
        Lock lk(isp_state.mu);
        for (int i = 0; i < PARA_ISP_NUM; ++i)
            for (int m = 0; m < ISP_MEMBER_COUNT; ++m)
                store(field(para_isp_init[i], m), value(para_isp_cur[i], m));
    }
    isp_state.cur_file.loaded(how);
    isp_state.loaded = styles_whole;
    isp_page();
    return 0;
}

/* ---- requests -------------------------------------------------------- */

int para_set_isp_opt(char* req_name, void* jsonIn, char* parse_name)
{
    PARA_LOG(PARA_INFO, "inter\n");
    cJSON* item = static_cast<cJSON*>(jsonIn);
    int isp = item ? request_isp(item->string, "", PARA_ISP_NUM) : -1;
    if (isp < 0)
        return 0;
    bool changed = false;
    for (cJSON* child = item->child; child; child = child->next)
        if (para_set_member(child->string, isp, para::json_int(child), child->valuestring) == 1)
            changed = true;
    if (changed && para_profile.isp_page_caller)
        para_profile.isp_page_caller(item);
    return 0;
}

int para_get_isp_opt(char* req_name, void* jsonIn, void** jsonOut, char* parse_name)
{
    PARA_LOG(PARA_INFO, "inter %s\n", req_name ? req_name : "(null)");
    static const struct {
        const char* suffix;
        int is_def;
    } k_requests[] = {{"", 0}, {"_def", 1}, {"_cur_all", 0}};

    int isp = -1, is_def = 0;
    for (const auto& r : k_requests) {
        isp = request_isp(req_name, r.suffix, g_num_isp);
        if (isp >= 0) {
            is_def = r.is_def;
            break;
        }
    }
    cJSON* in = static_cast<cJSON*>(jsonIn);
    if (isp < 0 || !in || !jsonOut)
        return 0;

    if (cJSON_GetArraySize(in) == 1 && para::starts_with(cJSON_GetArrayItem(in, 0)->valuestring, "all")) {
        *jsonOut = Create_Json_ISPObject(isp, is_def);
        return 0;
    }
    cJSON* out = cJSON_CreateObject();
    for (cJSON* el = in->child; el; el = el->next) {
        if (!cJSON_IsString(el))
            continue;
        int val = 0;
        int exist = is_def ? para_get_isp_def_member(el->valuestring, isp, &val, nullptr)
                           : para_get_isp_cur_member(el->valuestring, isp, &val, nullptr);
        if (exist)
            cJSON_AddNumberToObject(out, el->valuestring, val);
    }
    *jsonOut = out;
    PARA_LOG(PARA_INFO, "leave\n");
    return 0;
}

/* ---- delayed save ---------------------------------------------------- */

int para_need_save_isp(char* parse_name)
{
    return isp_state.change.due(k_save_delay_ms) ? 1 : 0;
}

int para_save_isp(char* parse_name)
{
    std::lock_guard<std::mutex> saving(para::save_mutex);
    char path[PARA_PATH_MAX];
    bool named = para::make_path(path, para_profile.param_rwfile_dir, k_cur_file);
    return para::save_store({__func__, isp_state.change, &isp_state.cur_file, k_save_delay_ms, isp_state.loaded,
                             k_cur_file, named ? path : nullptr},
                            [](const char* to, bool) {
                                para::JsonPtr root(cJSON_CreateObject());
                                for (int i = 0; i < g_num_isp; ++i)
                                    cJSON_AddItemToObject(root.get(), isp_key(i).data(),
                                                          Create_Json_ISPObject(i, 0));
                                return para::write_json_file(to, root.get(), "para_save_isp");
                            });
}

/* ---- maintenance of defaults ----------------------------------------- */

int para_set_isp_antiflicker_def(int pipe, int value)
{
    if (!isp_valid_pipe(pipe))
        return -1;
    {
        Lock lk(isp_state.mu);
        if (para_isp_exist[pipe].antiflicker == 0 || value < para_isp_min[pipe].antiflicker ||
            value > para_isp_max[pipe].antiflicker || value == para_isp_def[pipe].antiflicker)
            return 0;
    }
    para_set_odm_int(const_cast<char*>("isp0_antiflicker_def"), value);
    Lock lk(isp_state.mu);
    store(para_isp_def[pipe].antiflicker, value);
    return 0;
}

int para_set_isp_style_def(int pipe, int value)
{
    if (!isp_valid_pipe(pipe) || para_set_isp_style_def_index(pipe, value) != 0)
        return -1;
    if (cJSON* style = get_isp_style_json(pipe, value))
        _parse_isp_def_json(style, &para_isp_def[pipe], &para_isp_exist[pipe]);
    para_set_odm_int(const_cast<char*>("isp0_style_def"), value);
    Lock lk(isp_state.mu);
    parse_isp_def_odm(pipe, &para_isp_def[pipe]);
    return 0;
}

int para_isp_cur_restore_isp_def(void)
{
    Lock lk(isp_state.mu);
    for (int i = 0; i < PARA_ISP_NUM; ++i)
        for (int m = 0; m < ISP_MEMBER_COUNT; ++m)
            store(field(para_isp_cur[i], m), value(para_isp_def[i], m));
    // Deliberately keeps the time of the latest member change.
    isp_state.change.flag.store(1);
    return 0;
}
