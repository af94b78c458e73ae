/* JSON-described modules: a range file (name -> [min,max] or a list of
 * names) and key = value stores of defaults and current values. Every
 * module named in the JSON pattern list gets one of 16 slots; "misc" loads
 * and saves through the layouts of legacy/para_legacy.cpp. */
#include "para_stores.h"

#include <sys/file.h>
#include <unistd.h>

namespace {

constexpr int kJsonSlots = 16;
constexpr int kSaveDelayMs = 2000;
constexpr int kKindName = cJSON_String;
constexpr int kKindNumber = cJSON_Number;

struct conf_S {
    char file_name[para::kSlotNameSize];
};

conf_S conf_list[kJsonSlots];
cJSON* misc_range[kJsonSlots];
configure* conf_cur[kJsonSlots];
configure* conf_def[kJsonSlots];
para::ChangeState misc_item_change[kJsonSlots];
/* Set once the module's files loaded: a store that did not load holds no
 * settings and must never be written over the good file. */
bool misc_loaded[kJsonSlots];
para::CurrentFile misc_file[kJsonSlots]; // modules other than "misc"

int check_conf_list(const char* name)
{
    return para::find_slot_by(kJsonSlots, name, [](int i) { return conf_list[i].file_name; });
}

cJSON* range_of(int slot, const char* key)
{
    return key ? cJSON_GetObjectItem(misc_range[slot], key) : nullptr;
}

/* Range array of key when it lists names, else null. */
cJSON* name_range(const char* module, const char* key)
{
    int s = check_conf_list(module);
    if (s < 0 || peek_json_enum_type(module, key) != kKindName)
        return nullptr;
    return range_of(s, key);
}

/* Value of a stored text: a name key answers the name's index. */
int text_value(const char* module, const char* key, configure* store)
{
    char text[para::kValueBuf];
    if (!store || store->get(store, key, text, sizeof text) != 0)
        return -1;
    if (peek_json_enum_type(module, key) == kKindName)
        return para_get_json_enum_index(module, key, text);
    return std::atoi(text);
}

int current_text(int slot, const char* key, char (&text)[para::kValueBuf])
{
    configure* store = conf_cur[slot];
    return store && key ? store->get(store, key, text, sizeof text) : -1;
}

int store_text(int slot, const char* key, const char* text)
{
    configure* store = conf_cur[slot];
    if (store->put(store, key, text) != 1)
        return 0;
    misc_item_change[slot].mark();
    return 1;
}

int loop_2_json(void* argv, const char* key, const char* value)
{
    auto* lj = static_cast<loop_json_s*>(argv);
    cJSON* item = peek_json_enum_type(lj->parse_name, key) == kKindName
                      ? cJSON_CreateString(value)
                      : cJSON_CreateNumber(std::atoi(value));
    cJSON_AddItemToObject(lj->json, key, item);
    return 0;
}

/* argv: the para::Caller the listing belongs to. */
int log_entry(void* argv, const char* key, const char* value)
{
    PARA_LOG_FN(PARA_INFO, *static_cast<const para::Caller*>(argv), "    %s=%s\n", key, value);
    return 0;
}

void log_current(para::Caller fn, int slot)
{
    PARA_LOG_FN(PARA_INFO, fn, "%s cur:\n", conf_list[slot].file_name);
    if (conf_cur[slot] && para::log_level() >= PARA_INFO)
        conf_cur[slot]->loop(conf_cur[slot], log_entry, &fn);
}

/* Loads range file and stores of a JSON module into slot s; false when the
 * module has to give its slot to the next one. */
bool load_module(para::Caller fn, int s, const char* name)
{
    misc_file[s].loaded(para::CurLoad::absent);
    conf_cur[s] = configure_init();
    conf_def[s] = configure_init();
    char path[PARA_PATH_MAX];
    if (!para::make_path(path, para_profile.param_rofile_dir, name, "_range.json"))
        return false;
    para::FileText range = para::read_file(fn, path);
    if (!range.text) {
        PARA_LOG_FN(PARA_INFO, fn, "Error range %s\n", path);
        return false;
    }
    para::JsonPtr tree(cJSON_Parse(range.text.get()));
    if (!tree) {
        const char* at = cJSON_GetErrorPtr();
        PARA_LOG_FN(PARA_INFO, fn, "Error before: [%s]\n", at ? at : "(null)");
        return false;
    }
    misc_range[s] = cJSON_Duplicate(tree.get(), 1);
    cJSON_Print_safe(misc_range[s]);
    // Fits: the range file's path in the same directory was longer.
    static_assert(sizeof(".conf") < sizeof("_range.json"), "the defaults' path is the shorter");
    para::make_path(path, para_profile.param_rofile_dir, name, ".conf");
    if (para::parse_conf_file(fn, conf_def[s], nullptr, path, false) != para::CurLoad::read) {
        PARA_LOG_FN(PARA_INFO, fn, "%s configure_parse fail\n", path);
        return false;
    }
    para::parse_conf_file(fn, conf_cur[s], nullptr, path, false);
    if (para::make_path(path, para_profile.param_rwfile_dir, name, ".conf"))
        misc_file[s].loaded(para::parse_conf_file(fn, conf_cur[s], nullptr, path, true));
    return true;
}

/* A slot handed on after a failed load: drop what the failed module left. */
void clear_slot(int s)
{
    configure_free(conf_cur[s]);
    configure_free(conf_def[s]);
    cJSON_Delete(misc_range[s]);
    conf_cur[s] = conf_def[s] = nullptr;
    misc_range[s] = nullptr;
    misc_item_change[s].take();
    misc_loaded[s] = false;
}

} // namespace

namespace para {

int json_set_cur_as(const char* module, const char* key, int value, const void* setter)
{
    int r = _para_set_json_cur(module, key, value);
    if (r == 1 && para_profile.misc_caller)
        para_profile.misc_caller(const_cast<char*>(module), setter, const_cast<char*>(key), value);
    return r;
}

} // namespace para

extern "C" {

int peek_array_enum_type(cJSON* array)
{
    if (!array || !array->child) {
        PARA_LOG(PARA_INFO, "error cJSON null\n");
        return 0;
    }
    if (cJSON_IsString(array->child))
        return kKindName;
    if (cJSON_IsNumber(array->child))
        return kKindNumber;
    PARA_LOG(PARA_INFO, "error type cJSON_Invalid\n");
    return 0;
}

int peek_json_enum_type(const char* file_name, const char* key)
{
    int s = check_conf_list(file_name);
    if (s < 0)
        return -1;
    cJSON* range = range_of(s, key);
    /* An object or scalar under the key has no elements to tell the kind. */
    return peek_array_enum_type(cJSON_IsArray(range) ? range : nullptr);
}

char* para_get_json_emum_str(const char* file_name, const char* key, int index)
{
    int s = check_conf_list(file_name);
    if (s < 0 || index < 0)
        return nullptr;
    cJSON* range = range_of(s, key);
    cJSON* item = cJSON_IsArray(range) ? cJSON_GetArrayItem(range, index) : nullptr;
    return cJSON_IsString(item) ? item->valuestring : nullptr;
}

int para_get_json_enum_index(const char* file_name, const char* key, const char* name)
{
    if (!key || !name)
        return -1;
    cJSON* range = name_range(file_name, key);
    int i = 0;
    for (cJSON* e = range ? range->child : nullptr; e; e = e->next, ++i)
        if (cJSON_IsString(e) && std::strcmp(e->valuestring, name) == 0)
            return i;
    return -1;
}

int para_get_json_item_number(const char* file_name, cJSON* item, const char* key)
{
    if (cJSON_IsNumber(item))
        return para::json_int(item);
    if (cJSON_IsString(item))
        return para_get_json_enum_index(file_name, key, item->valuestring);
    return -1;
}

char* para_get_item_str(cJSON* item)
{
    return cJSON_IsString(item) ? item->valuestring : nullptr;
}

int para_get_json_min(const char* file_name, const char* key)
{
    int s = check_conf_list(file_name);
    if (s < 0)
        return -1;
    cJSON* range = range_of(s, key);
    return para_get_json_item_number(file_name, range ? range->child : nullptr, key);
}

int para_get_json_max(const char* file_name, const char* key)
{
    int s = check_conf_list(file_name);
    if (s < 0)
        return -1;
    int n = cJSON_GetArraySize(range_of(s, key));
    return para_get_json_item_number(file_name, cJSON_GetArrayItem(range_of(s, key), n - 1), key);
}

int para_get_json_def(const char* file_name, const char* key)
{
    int s = check_conf_list(file_name);
    return s < 0 ? -1 : text_value(file_name, key, conf_def[s]);
}

int para_get_json_cur(const char* file_name, const char* key)
{
    int s = check_conf_list(file_name);
    return s < 0 ? -1 : text_value(file_name, key, conf_cur[s]);
}

int para_get_json_string(const char* file_name, const char* key, char* buf, int size)
{
    int s = check_conf_list(file_name);
    if (s < 0 || !conf_cur[s])
        return -1;
    return conf_cur[s]->get(conf_cur[s], key, buf, size);
}

int para_set_json_cur_str(const char* file_name, const char* key, const char* name)
{
    int s = check_conf_list(file_name);
    if (s < 0 || !name || para_get_json_enum_index(file_name, key, name) < 0)
        return 0;
    char text[para::kValueBuf];
    if (current_text(s, key, text) != 0 || std::strcmp(text, name) == 0)
        return 0;
    return store_text(s, key, name);
}

int para_set_json_cur_number(const char* file_name, const char* key, int number)
{
    int s = check_conf_list(file_name);
    if (s < 0 || peek_json_enum_type(file_name, key) != kKindNumber)
        return 0;
    char text[para::kValueBuf];
    if (current_text(s, key, text) != 0 || std::atoi(text) == number)
        return 0;
    char num[16];
    return store_text(s, key, lib_itoa(number, num));
}

int _para_set_json_cur(const char* file_name, const char* key, int value)
{
    if (check_conf_list(file_name) < 0)
        return -1;
    if (peek_json_enum_type(file_name, key) == kKindName)
        return para_set_json_cur_str(file_name, key, para_get_json_emum_str(file_name, key, value));
    return para_set_json_cur_number(file_name, key, value);
}

int para_set_json_cur(const char* file_name, const char* key, int value)
{
    return para::json_set_cur_as(file_name, key, value,
                                 reinterpret_cast<const void*>(&para_set_json_cur));
}

int para_init_misc(char* parse_name)
{
    static int init_flag;
    if (init_flag == 0) { // the first call only opens the slots; they start empty
        init_flag = 1;
        return 0;
    }
    int s = init_flag - 1;
    if (s >= kJsonSlots) {
        PARA_LOG(PARA_ERR, "err no free json slot for %s\n", parse_name ? parse_name : "(null)");
        return 0;
    }
    clear_slot(s);
    para::copy_slot_name(conf_list[s].file_name, parse_name);
    if (para::same(parse_name, "misc")) {
        misc_loaded[s] =
            para_init_misc_legacy(parse_name, &conf_cur[s], &conf_def[s], &misc_range[s]) == 0;
    } else if (!load_module(__func__, s, conf_list[s].file_name)) {
        return 0;
    } else {
        misc_loaded[s] = true;
    }
    log_current(__func__, s);
    ++init_flag;
    return 0;
}

int para_need_save_misc(char* parse_name)
{
    int s = check_conf_list(parse_name);
    if (s < 0)
        return -1;
    return misc_item_change[s].due(kSaveDelayMs) ? 1 : 0;
}

int para_save_misc(char* parse_name)
{
    int s = check_conf_list(parse_name);
    if (s < 0)
        return -1;
    // The older layout of "misc" writes without a file lock.
    std::lock_guard<std::mutex> saving(para::save_mutex);
    char path[PARA_PATH_MAX];
    if (para::same(parse_name, "misc")) // its layout picks the file, its loader the guard
        return para::save_store({__func__, misc_item_change[s], nullptr, kSaveDelayMs, misc_loaded[s],
                                 conf_list[s].file_name, conf_list[s].file_name},
                                [&](const char*, bool changed) {
                                    return para::save_misc_legacy(parse_name, conf_cur[s],
                                                                  "para_save_misc", changed);
                                });
    bool named = para::make_path(path, para_profile.param_rwfile_dir, conf_list[s].file_name, ".conf");
    return para::save_store({__func__, misc_item_change[s], &misc_file[s], kSaveDelayMs,
                             misc_loaded[s] && conf_cur[s], conf_list[s].file_name,
                             named ? path : nullptr},
                            [s](const char* to, bool) {
                                return para::write_conf_file(to, conf_cur[s], true, "para_save_misc");
                            });
}

int para_save_misc_conf_2_buf(const char* file_name, char* buf, int size)
{
    int s = check_conf_list(file_name);
    if (s < 0 || !conf_cur[s])
        return -1;
    return para::store_to_buf(__func__, file_name, conf_cur[s], buf, size);
}

void Create_Json_Misc_Object(const char* file_name, cJSON* json, int is_def)
{
    int s = check_conf_list(file_name);
    configure* store = s < 0 ? nullptr : (is_def ? conf_def[s] : conf_cur[s]);
    if (!store || !json)
        return;
    loop_json_s lj{json, file_name};
    store->loop(store, loop_2_json, &lj);
}

int para_get_misc_opt(char* req_name, void* jsonIn, void** jsonOut, char* parse_name)
{
    auto* in = static_cast<cJSON*>(jsonIn);
    int is_def = para::request_is_def(in);
    PARA_LOG(PARA_DETAIL, "inter %s def:%d\n", req_name ? req_name : "(null)", is_def);
    int s = check_conf_list(parse_name);
    if (s < 0 || !jsonOut)
        return -1;
    cJSON* out = cJSON_CreateObject();
    *jsonOut = out;
    if (para::request_is_all(in)) {
        Create_Json_Misc_Object(parse_name, out, is_def);
        return 0;
    }
    configure* store = is_def ? conf_def[s] : conf_cur[s];
    for (cJSON* e = in ? in->child : nullptr; store && e; e = e->next) {
        char text[para::kValueBuf];
        if (!cJSON_IsString(e) || store->get(store, e->valuestring, text, sizeof text) != 0)
            continue;
        int kind = peek_json_enum_type(parse_name, e->valuestring);
        if (kind == kKindName)
            cJSON_AddItemToObject(out, e->valuestring, cJSON_CreateString(text));
        else if (kind == kKindNumber)
            cJSON_AddItemToObject(out, e->valuestring, cJSON_CreateNumber(std::atoi(text)));
    }
    PARA_LOG(PARA_DETAIL, "leave\n");
    return 0;
}

int para_set_misc_opt(char* req_name, void* jsonIn, char* parse_name)
{
    auto* in = static_cast<cJSON*>(jsonIn);
    bool changed = false;
    for (cJSON* item = in ? in->child : nullptr; item; item = item->next) {
        int type = item->type & 0xFF;
        int kind = peek_json_enum_type(parse_name, item->string);
        if (kind != type) {
            PARA_LOG(PARA_INFO, "%s type wrong,set:%d,def:%d\n", item->string ? item->string : "",
                     type, kind);
            continue;
        }
        int r;
        if (type == cJSON_String) {
            PARA_LOG(PARA_INFO, "111111111\n");
            r = para_set_json_cur_str(parse_name, item->string, item->valuestring);
        } else {
            PARA_LOG(PARA_INFO, "222222222\n");
            r = para_set_json_cur_number(parse_name, item->string, para::json_int(item));
        }
        changed = changed || r == 1;
    }
    if (changed) {
        PARA_LOG(PARA_INFO, "need_to_notify\n");
        if (para_profile.misc_page_caller)
            para_profile.misc_page_caller(parse_name, jsonIn);
    }
    return 0;
}

} // extern "C"
