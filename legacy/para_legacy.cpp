/* The "misc" module in both of its file layouts, its per-member functions,
 * and the named accessors of the .conf modules the application calls.
 *
 * Newer layout: misc_range.json with a nonzero "version", misc.conf for
 * defaults and current values. Older layout: misc_range.json without a
 * version whose name ranges are [first, last] runs of fixed tables,
 * misc_def.json and misc_cur.json for the values. Files are saved back in
 * the layout found at start, never converted on disk. */
#include "../para_stores.h"

#include <array>
#include <unistd.h>
#include <string_view>

namespace {

constexpr const char* kMisc = "misc";

/* Fixed name tables of the older range layout, one per name member. */
constexpr const char* names_hdmivideoformat[] = {
    "1080P60", "1080P50",    "1080I60",    "1080I50",  "720P60",   "720P50",
    "1080P30", "1080P25",    "720P30",     "720P25",   "1080P59.94", "1080I59.94",
    "4KP30",   "4KP25",      "4KP50",      "4KP60",    "4KP29.97", "4KP59.94",
    "480P59.94", "480I59.94", "480P60",    "576P50",   "576I50"};
constexpr const char* names_ViStrategy[] = {"50", "60", "dial", "osd"};
constexpr const char* names_ndi_mode[] = {"off",    "low",    "medium", "high",
                                          "264P50", "264P60", "265P50", "265P60"};

struct NameTable {
    const char* key;
    const char* const* names;
    int count;
};

#define LEGACY_NAME_TABLE_name(m) \
    {#m, names_##m, static_cast<int>(sizeof names_##m / sizeof names_##m[0])},
#define LEGACY_NAME_TABLE_number(m)
#define LEGACY_NAME_TABLE(m, kind) LEGACY_NAME_TABLE_##kind(m)
constexpr NameTable kNameTables[] = {PARA_MISC_MEMBERS(LEGACY_NAME_TABLE)};

/* "version" inside the range tree in use; null until a range file was read. */
cJSON* ver_item;

bool newer_layout()
{
    return ver_item && para::json_int(ver_item) != 0;
}

const NameTable* name_table(const char* key)
{
    for (const auto& t : kNameTables)
        if (para::same(key, t.key))
            return &t;
    return nullptr;
}

bool begins_with(const char* name, const char* prefix)
{
    return std::strncmp(name, prefix, std::strlen(prefix)) == 0;
}

/* The run of table names from the one beginning with first to the one
 * beginning with last (a last met before first ends the run early). */
cJSON* expand_run(const NameTable& t, const char* first, const char* last)
{
    cJSON* out = cJSON_CreateArray();
    bool started = false;
    for (int i = 0; i < t.count; ++i) {
        if (begins_with(t.names[i], first))
            started = true;
        if (started)
            cJSON_AddItemToArray(out, cJSON_CreateString(t.names[i]));
        if (begins_with(t.names[i], last))
            break;
    }
    return out;
}

/* The helpers below log for the exported function that called them. */
bool rw_path(char (&path)[PARA_PATH_MAX], const char* name, para::Caller fn = {__builtin_FUNCTION(), __builtin_LINE()})
{
    return para::make_path(path, para_profile.param_rwfile_dir, name, nullptr, fn);
}

bool ro_path(char (&path)[PARA_PATH_MAX], const char* name, para::Caller fn = {__builtin_FUNCTION(), __builtin_LINE()})
{
    return para::make_path(path, para_profile.param_rofile_dir, name, nullptr, fn);
}

int fill_old_values(const cJSON* json, configure* store)
{
    if (!json || !store)
        return -1;
    for (cJSON* item = json->child; item; item = item->next) {
        if (!item->string)
            continue;
        char num[16];
        const char* text =
            cJSON_IsString(item) ? item->valuestring : lib_itoa(para::json_int(item), num);
        store->put(store, item->string, text);
    }
    return 0;
}

para::CurrentFile cur_file;

int parse_conf(configure* store, const char* file, bool read_only, para::Caller fn = {__builtin_FUNCTION(), __builtin_LINE()})
{
    char path[PARA_PATH_MAX];
    if (!(read_only ? ro_path(path, file, fn) : rw_path(path, file, fn)))
        return -1;
    para::CurLoad r = para::parse_conf_file(fn, store, nullptr, path, !read_only);
    if (!read_only)
        cur_file.loaded(r);
    return r == para::CurLoad::read ? 0 : -1;
}

int load_old_values(configure* store, const char* file, bool read_only, para::Caller fn = {__builtin_FUNCTION(), __builtin_LINE()})
{
    char path[PARA_PATH_MAX];
    if (!(read_only ? ro_path(path, file, fn) : rw_path(path, file, fn)))
        return -1;
    para::CurLoad how = para::CurLoad::read;
    // A current file is read guarded, and kept aside when damaged before the
    // next save replaces it.
    para::JsonPtr json = para::load_json_file(fn, path, nullptr, false, !read_only, &how);
    if (!read_only)
        cur_file.loaded(how);
    return fill_old_values(json.get(), store);
}

} // namespace

namespace para {

int save_misc_legacy(char* file_name, configure* cur, para::Caller func, bool changed)
{
    if (!ver_item || !cur)
        return 0;
    char path[PARA_PATH_MAX];
    if (!rw_path(path, newer_layout() ? "misc.conf" : "misc_cur.json", func))
        return kNotOpened; // 0 to the host, but the change stays pending
    if (int w = cur_file.writable(func, path, changed); w <= 0)
        return w;
    if (newer_layout())
        return write_conf_file(path, cur, false, func);
    JsonPtr values(cJSON_CreateObject());
    Create_Json_Misc_Object(file_name, values.get(), 0);
    return write_json_file(path, values.get(), func);
}

} // namespace para

extern "C" {

cJSON* fix_old_misc_range_conf(cJSON* old_range)
{
    cJSON* out = cJSON_CreateObject();
    ver_item = cJSON_CreateNumber(0);
    cJSON_AddItemToObject(out, "version", ver_item);
    for (cJSON* item = old_range ? old_range->child : nullptr; item; item = item->next) {
        if (!item->string)
            continue;
        PARA_LOG(PARA_INFO, "element is %s,size:%d\n", item->string, cJSON_GetArraySize(item));
        cJSON* first = cJSON_GetArrayItem(item, 0);
        cJSON* last = cJSON_GetArrayItem(item, 1);
        if (!first || !last)
            continue;
        if (const NameTable* t = name_table(item->string)) {
            if (!cJSON_IsString(first) || !cJSON_IsString(last)) {
                PARA_LOG(PARA_ERR, "%s: range ends are not names\n", item->string);
                continue;
            }
            cJSON_AddItemToObject(out, item->string,
                                  expand_run(*t, first->valuestring, last->valuestring));
        } else {
            cJSON_AddItemToObject(out, item->string, cJSON_Duplicate(item, 1));
        }
    }
    return out;
}

int fix_old_misc_def_cur_conf(const char* path, configure* store)
{
    return fill_old_values(para::load_json_file(__func__, path, nullptr, false).get(), store);
}

void para_init_misc_legacy_test(void) {}

int para_init_misc_legacy(char* file_name, configure** cur, configure** def, cJSON** range)
{
    if (!cur || !def || !range)
        return -1;
    *cur = configure_init();
    *def = configure_init();
    PARA_LOG(PARA_INFO, "enter\n");
    char path[PARA_PATH_MAX];
    para::FileText range_file;
    if (ro_path(path, "misc_range.json"))
        range_file = para::read_file(__func__, path);
    const para::CharPtr& text = range_file.text;
    if (!text) {
        PARA_LOG(PARA_INFO, "Error range def buf\n");
        return -1;
    }
    para::JsonPtr parsed(cJSON_Parse(text.get()));
    if (!parsed) {
        const char* at = cJSON_GetErrorPtr();
        PARA_LOG(PARA_INFO, "Error before: [%s]\n", at ? at : "(null)");
        return -1;
    }
    cJSON* version = cJSON_GetObjectItem(parsed.get(), "version");
    cJSON* tree;
    if (version && para::json_int(version) != 0) {
        tree = cJSON_Duplicate(parsed.get(), 1);
        ver_item = cJSON_GetObjectItem(tree, "version");
    } else {
        tree = fix_old_misc_range_conf(parsed.get());
    }
    cJSON_Print_safe(tree);
    *range = tree;
    PARA_LOG(PARA_INFO, "enter misc version:%d\n", para::json_int(ver_item));
    if (newer_layout()) {
        if (parse_conf(*def, "misc.conf", true) != 0)
            return -1;
        parse_conf(*cur, "misc.conf", true);
        parse_conf(*cur, "misc.conf", false);
    } else {
        // The older layout's defaults are optional: without them the current
        // file alone still gives the device its settings.
        load_old_values(*def, "misc_def.json", true);
        load_old_values(*cur, "misc_def.json", true);
        load_old_values(*cur, "misc_cur.json", false);
    }
    para_init_misc_legacy_test();
    return 0;
}

int para_save_misc_legacy(char* file_name, configure* cur)
{
    return para::module_result(para::save_misc_legacy(file_name, cur, __func__));
}

/* Per-member functions of "misc", stamped from PARA_MISC_MEMBERS. */
#define LEGACY_MISC_name(m)                                                     \
    char* para_get_misc_##m##_str(int index)                                    \
    {                                                                           \
        return para_get_json_emum_str(kMisc, #m, index);                        \
    }                                                                           \
    int para_get_misc_##m##_num(const char* name)                               \
    {                                                                           \
        return para_get_json_enum_index(kMisc, #m, name);                       \
    }                                                                           \
    int para_set_misc_##m##_cur_bystr(const char* name)                         \
    {                                                                           \
        return para_set_json_cur_str(kMisc, #m, name);                          \
    }
#define LEGACY_MISC_number(m)
#define LEGACY_MISC(m, kind)                                                               \
    int para_get_misc_##m##_min(void) { return para_get_json_min(kMisc, #m); }             \
    int para_get_misc_##m##_max(void) { return para_get_json_max(kMisc, #m); }             \
    int para_get_misc_##m##_def(void) { return para_get_json_def(kMisc, #m); }             \
    int para_get_misc_##m##_cur(void) { return para_get_json_cur(kMisc, #m); }             \
    int para_set_misc_##m##_cur(int value)                                                 \
    {                                                                                      \
        return para::json_set_cur_as(kMisc, #m, value,                                     \
                                     reinterpret_cast<const void*>(&para_set_misc_##m##_cur)); \
    }                                                                                      \
    LEGACY_MISC_##kind(m)
PARA_MISC_MEMBERS(LEGACY_MISC)

/* Named accessors of the .conf modules. */
#define LEGACY_CONF_GETTER(f, module) \
    char* para_get_##f##_member(const char* key) { return para_conf_get_member(module, key); }
#define LEGACY_CONF_QUERY(f, module)                                 \
    int para_key_IsChanged_##f(const char** keys, uint8_t count)     \
    {                                                                \
        return para_conf_key_IsChanged(module, keys, count);         \
    }
PARA_CONF_MEMBER_GETTERS(LEGACY_CONF_GETTER)
PARA_CONF_CHANGE_QUERIES(LEGACY_CONF_QUERY)

int para_need_update_netport(void)
{
    return para_conf_need_update(const_cast<char*>("netport"));
}

} // extern "C"
