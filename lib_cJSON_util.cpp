/* Small cJSON helpers shared by the modules: guarded dumps of a tree to the
 * log and typed reads of object members. */
#include "para_internal.h"

#include <cstdint>

namespace {

/* The dumps name their caller by return address, so a bad tree in the log
 * can be traced to the call site that passed it. */
void print_tree(para::Caller fn, cJSON* json, const char* dbg_msg, const void* caller)
{
    if (para::log_level() < PARA_INFO)
        return; // every line below is level 6: skip the printing too
    auto where = static_cast<unsigned>(reinterpret_cast<uintptr_t>(caller));
    if (!json) {
        PARA_LOG_FN(PARA_INFO, fn, "ERROR : json null,return:0x%x\n", where);
        return;
    }
    para::CharPtr text(cJSON_Print(json));
    if (!text) {
        PARA_LOG_FN(PARA_INFO, fn, "ERROR : json format,return:0x%x\n", where);
        return;
    }
    if (dbg_msg)
        PARA_LOG_FN(PARA_INFO, fn, "dbg_msg:%s type:0x%x,%s\n", dbg_msg, json->type, text.get());
    else
        PARA_LOG_FN(PARA_INFO, fn, "type:0x%x,%s\n", json->type, text.get());
}

} // namespace

extern "C" {

void cJSON_Print_safe(cJSON* json)
{
    print_tree(__func__, json, nullptr, __builtin_return_address(0));
}

void cJSON_Print2_safe(cJSON* json, const char* dbg_msg)
{
    print_tree(__func__, json, dbg_msg, __builtin_return_address(0));
}

int json_object_get_int(cJSON* item)
{
    return cJSON_IsNumber(item) ? para::json_int(item) : -1;
}

char* json_object_get_string(cJSON* item)
{
    if (!item) {
        PARA_LOG(PARA_INFO, "null\n");
        return nullptr;
    }
    return cJSON_IsString(item) ? item->valuestring : nullptr;
}

int json_object_load_number(cJSON* obj, const char* key, int* value)
{
    cJSON* item = obj && key ? cJSON_GetObjectItem(obj, key) : nullptr;
    if (!cJSON_IsNumber(item) || !value)
        return -1;
    *value = para::json_int(item);
    return 0;
}

int json_object_load_u8_array(cJSON* obj, const char* key, uint8_t* buf, int size)
{
    if (!obj)
        return 0;
    cJSON* array = key ? cJSON_GetObjectItem(obj, key) : nullptr;
    if (!cJSON_IsArray(array))
        return -1;
    int n = 0;
    for (cJSON* e = array->child; e && buf && n < size; e = e->next)
        buf[n++] = static_cast<uint8_t>(para::json_int(e) & 0xFF);
    return n;
}

int json_object_load_string(cJSON* obj, const char* key, char** buf, const char* def)
{
    if (!buf)
        return -1;
    if (!*buf)
        *buf = lib_strdup(def);
    cJSON* item = obj && key ? cJSON_GetObjectItem(obj, key) : nullptr;
    if (!item)
        return 0;
    if (!cJSON_IsString(item)) {
        /* Keep what the caller had (or the default) rather than invent a text. */
        PARA_LOG(PARA_INFO, "%s not a string\n", key);
        return -1;
    }
    free(*buf);
    *buf = lib_strdup(item->valuestring);
    return 0;
}

} // extern "C"
