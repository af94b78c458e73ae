/* Factory (ODM) overrides: a flat JSON object of integer and text values kept
 * in "persist/odm.json" under the read-write directory, apart from the
 * ordinary current values so that a reset of those leaves it alone. */
#include "para_internal.h"

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>

cJSON* json_odm_file = nullptr;
struct timespec odm_item_start_time;

namespace {

constexpr int kOdmSaveDelayMs = 2000;
constexpr int kOdmVersion = 1;

/* Guards json_odm_file and odm_item_start_time: host threads write the
 * store while the worker prints it for saving. Never held across a
 * callback into the application. */
std::mutex odm_mutex;
/* Flag, first unsaved change and retry back-off. The time of the latest
 * change is the exported odm_item_start_time. */
para::ChangeState odm_change;
pthread_once_t set_odm_inited = PTHREAD_ONCE_INIT;

/* ---- paths ---------------------------------------------------------- */

struct OdmPaths {
    char dir[PARA_PATH_MAX];
    char file[PARA_PATH_MAX];
    char old_file[PARA_PATH_MAX];
};

/* Without a read-write directory the names would fall back to the working
 * directory of whatever process runs us: refuse instead. */
bool odm_paths(para::Caller fn, OdmPaths& p)
{
    const char* rw = para_profile.param_rwfile_dir;
    if (!rw || !*rw) {
        PARA_LOG_FN(PARA_ERR, fn, "no read-write directory, factory store not kept on disk\n");
        return false;
    }
    return para::make_path(p.dir, rw, "persist/", nullptr, fn) &&
           para::make_path(p.file, rw, "persist/", "odm.json", fn) &&
           para::make_path(p.old_file, rw, "isp_odm.json", nullptr, fn);
}

void ensure_persist_dir(para::Caller fn, const OdmPaths& p)
{
    if (access(p.dir, F_OK) == 0)
        return;
    para::durable_mkdir(fn, p.dir, 0775); // logs a failure itself
}

/* ---- value kinds ---------------------------------------------------- */

struct OdmKind;

struct OdmValue {
    const OdmKind* kind;
    int number;
    const char* text;
};

struct OdmTarget {
    const OdmKind* kind;
    int* number;
    char* buf;
    int size;
    para::Caller fn; /* the accessor that reads, for its log lines */
};

struct OdmKind {
    const char* name;
    bool (*valid)(const OdmValue& v);
    cJSON* (*create)(const OdmValue& v);
    bool (*same)(const cJSON* item, const OdmValue& v);
    /* Only the item's own kind of value changes: a number written over a
     * text keeps the text on disk, a text written over a number keeps the
     * number. The change is reported all the same. */
    void (*assign)(cJSON* item, const OdmValue& v);
    int (*read)(const cJSON* item, const OdmTarget& t);
};

int read_text(const cJSON* item, const OdmTarget& t)
{
    if (!cJSON_IsString(item) || !item->valuestring) {
        PARA_LOG_FN(PARA_INFO, t.fn, "%s holds no text\n", item->string);
        return -2;
    }
    size_t len = std::strlen(item->valuestring);
    if (len < static_cast<size_t>(t.size)) {
        std::memcpy(t.buf, item->valuestring, len + 1);
        return 0;
    }
    std::memcpy(t.buf, item->valuestring, static_cast<size_t>(t.size) - 1);
    t.buf[t.size - 1] = '\0';
    PARA_LOG_FN(PARA_ERR, t.fn, "%s: text of %zu bytes cut to %d\n", item->string, len, t.size - 1);
    return -4;
}

const OdmKind odm_int_kind = {
    "int",
    [](const OdmValue&) { return true; },
    [](const OdmValue& v) { return cJSON_CreateNumber(v.number); },
    [](const cJSON* item, const OdmValue& v) { return para::json_int(item) == v.number; },
    [](cJSON* item, const OdmValue& v) { cJSON_SetNumberHelper(item, v.number); },
    [](const cJSON* item, const OdmTarget& t) {
        *t.number = para::json_int(item);
        return 0;
    },
};

const OdmKind odm_string_kind = {
    "string",
    [](const OdmValue& v) { return v.text != nullptr; },
    [](const OdmValue& v) { return cJSON_CreateString(v.text); },
    [](const cJSON* item, const OdmValue& v) {
        return cJSON_IsString(item) && item->valuestring &&
               std::strcmp(item->valuestring, v.text) == 0;
    },
    [](cJSON* item, const OdmValue& v) { cJSON_SetValuestring(item, v.text); },
    read_text,
};

OdmValue odm_value(int v) { return {&odm_int_kind, v, nullptr}; }
OdmValue odm_value(const char* v) { return {&odm_string_kind, 0, v}; }
OdmTarget odm_target(int* out) { return {&odm_int_kind, out, nullptr, 0, nullptr}; }
OdmTarget odm_target(char* out, int size = PARA_ODM_STRING_MAX)
{
    return {&odm_string_kind, nullptr, out, size, nullptr};
}

/* ---- store ---------------------------------------------------------- */

para::CurrentFile odm_file;

/* Runs once per process: a loaded store is kept as it is, a missing one
 * starts with the current format version. */
void check_json_odm_file()
{
    std::lock_guard<std::mutex> lock(odm_mutex);
    if (!json_odm_file) {
        json_odm_file = cJSON_CreateObject();
        cJSON_AddNumberToObject(json_odm_file, "version", kOdmVersion);
    }
}

int odm_store(para::Caller fn, const char* key, const OdmValue& v)
{
    if (!key || !v.kind->valid(v)) {
        PARA_LOG_FN(PARA_ERR, fn, "refused %s write: key %s, value %s\n", v.kind->name,
                 key ? key : "(null)", v.kind->valid(v) ? "given" : "(null)");
        return 0;
    }
    pthread_once(&set_odm_inited, check_json_odm_file);
    std::lock_guard<std::mutex> lock(odm_mutex);
    if (!cJSON_IsObject(json_odm_file))
        return 0;
    cJSON* item = cJSON_GetObjectItem(json_odm_file, key);
    if (!item) {
        cJSON_AddItemToObject(json_odm_file, key, v.kind->create(v));
        return 1;
    }
    if (v.kind->same(item, v))
        return 0;
    v.kind->assign(item, v);
    return 1;
}

void odm_mark_changed()
{
    std::lock_guard<std::mutex> lock(odm_mutex);
    odm_change.mark();
    para::stamp_to_timespec(odm_change.stamp_ns.load(), &odm_item_start_time);
}

void odm_set(para::Caller fn, char* key, const OdmValue& v)
{
    if (odm_store(fn, key, v) != 1)
        return;
    if (para_profile.odm_caller)
        para_profile.odm_caller(key);
    odm_mark_changed();
}

int odm_get(para::Caller fn, const char* key, OdmTarget t)
{
    if (!key || (!t.number && !t.buf) || (t.buf && t.size < 1)) {
        PARA_LOG_FN(PARA_ERR, fn, "refused %s read: key %s\n", t.kind->name, key ? key : "(null)");
        return -3;
    }
    std::lock_guard<std::mutex> lock(odm_mutex);
    if (!json_odm_file)
        return -1;
    const cJSON* item = cJSON_GetObjectItem(json_odm_file, key);
    if (!item)
        return -2;
    t.fn = fn;
    return t.kind->read(item, t);
}

} // namespace

/* ---- table operations ----------------------------------------------- */

int para_init_odm(char* parse_name)
{
    OdmPaths p;
    if (!odm_paths(__func__, p))
        return 0;
    if (access(p.old_file, F_OK) == 0) {
        ensure_persist_dir(__func__, p);
        // Both directories are flushed: a power cut must not lose the store
        // between its old and its new name.
        if (para::durable_rename(__func__, p.old_file, p.file) != 0)
            PARA_LOG(PARA_ERR, "moving %s to %s failed\n", p.old_file, p.file);
    }
    bool unreadable = false;
    para::CurLoad how = para::CurLoad::absent;
    para::JsonPtr json = para::load_json_file(__func__, p.file, &unreadable, true, true, &how);
    odm_file.loaded(how);
    if (unreadable)
        return 0;
    if (json && !cJSON_IsObject(json.get())) {
        PARA_LOG(PARA_ERR, "%s is not a JSON object, ignored\n", p.file);
        para::keep_bad_copy(__func__, p.file);
        json.reset();
    }
    if (!json)
        return -1;
    std::lock_guard<std::mutex> lock(odm_mutex);
    cJSON_Delete(json_odm_file);
    json_odm_file = json.release();
    return 0;
}

void para_init_stage2_odm(char* parse_name)
{
    int version = 0;
    if (para_get_odm_int(const_cast<char*>("version"), &version) == -1)
        return;
    if (version != kOdmVersion) {
        para_conflict_callback(const_cast<char*>("odm"), version, kOdmVersion);
        para_set_odm_int(const_cast<char*>("version"), kOdmVersion);
    }
}

int para_need_save_odm(char* parse_name)
{
    if (odm_change.flag.load() != 1)
        return 0;
    std::lock_guard<std::mutex> lock(odm_mutex);
    odm_change.stamp_ns.store(static_cast<int64_t>(odm_item_start_time.tv_sec) * 1000000000 +
                              odm_item_start_time.tv_nsec);
    return odm_change.due(kOdmSaveDelayMs) ? 1 : 0;
}

int para_save_odm(char* parse_name)
{
    OdmPaths p;
    bool named = odm_paths(__func__, p);
    if (named)
        ensure_persist_dir(__func__, p);
    std::lock_guard<std::mutex> lock(odm_mutex);
    return para::save_store({__func__, odm_change, &odm_file, kOdmSaveDelayMs, json_odm_file != nullptr,
                             "odm.json", named ? p.file : nullptr},
                            [](const char* to, bool) {
                                return para::write_json_file(to, json_odm_file, "para_save_odm");
                            });
}

/* ---- accessors ------------------------------------------------------ */

#define ODM_DEFINE(kind, type, out_type)                                              \
    int _para_set_odm_##kind(char* key, type value)                                   \
    {                                                                                 \
        return odm_store(__func__, key, odm_value(value));                            \
    }                                                                                 \
    void para_set_odm_##kind(char* key, type value) { odm_set(__func__, key, odm_value(value)); } \
    int para_get_odm_##kind(char* key, out_type value)                                \
    {                                                                                 \
        return odm_get(__func__, key, odm_target(value));                             \
    }
PARA_ODM_KINDS(ODM_DEFINE)
#undef ODM_DEFINE

int para_get_odm_string_safe(char* key, char* buf, int size)
{
    return odm_get(__func__, key, odm_target(buf, size));
}
