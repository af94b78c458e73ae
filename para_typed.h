/* Engine of the typed modules (video, audio, focus/zoom, and the ISP's
 * records, change state and per-member access).
 *
 * A module describes its members once (key, place in the record, name
 * table, kind) and points at its six record arrays; everything below works
 * on those descriptions and plain int32 records, so the modules only stamp
 * one-line wrappers. Private to the library. */
#ifndef PARA_TYPED_H
#define PARA_TYPED_H

#include "para_internal.h"

#include <unistd.h>

#include <array>
#include <cstddef>
#include <mutex>

/* Kind tokens of the member tables as booleans. */
#define PARA_TYPED_IS_NAMED_named true
#define PARA_TYPED_IS_NAMED_num false
#define PARA_TYPED_IS_NAMED(kind) PARA_TYPED_IS_NAMED_##kind

/* One descriptor row for member M of record type T. */
#define PARA_TYPED_ROW_N(T, M, names, count, named, setter)                           \
    {#M, static_cast<int>(offsetof(T, M) / sizeof(int32_t)), names, count, named,     \
     reinterpret_cast<void*>(&setter)}
#define PARA_TYPED_ROW(T, M, kind, table, setter)                                     \
    PARA_TYPED_ROW_N(T, M, table, static_cast<int>(sizeof(table) / sizeof(table[0])), \
                     PARA_TYPED_IS_NAMED(kind), setter)

/* Member indexes k_<member> of a module (each in its own translation unit)
 * and the six record arrays of its parameter set. */
#define PARA_TYPED_INDEX(M, ...) k_##M,
#define PARA_TYPED_RECORDS(prefix)                                                          \
    {reinterpret_cast<int32_t*>(&prefix##_min), reinterpret_cast<int32_t*>(&prefix##_max),   \
     reinterpret_cast<int32_t*>(&prefix##_def), reinterpret_cast<int32_t*>(&prefix##_cur),   \
     reinterpret_cast<int32_t*>(&prefix##_init), reinterpret_cast<int32_t*>(&prefix##_exist)}

/* Per-member function families, one line each. tag names the family
 * (video, audio, af), mod is the module's Module, idx the member's index,
 * GP the getter parameters ("int stream" or "void"), SP what comes before the
 * setter's value (PARA_TYPED_STREAM_PARAM or nothing) and S the record. */
#define PARA_TYPED_GETTERS(tag, mod, M, idx, GP, S)                                                   \
    int para_get_##tag##_##M##_min(GP) { return para::typed::get(mod, idx, para::typed::kMin, S); }   \
    int para_get_##tag##_##M##_max(GP) { return para::typed::get(mod, idx, para::typed::kMax, S); }   \
    int para_get_##tag##_##M##_def(GP) { return para::typed::get(mod, idx, para::typed::kDef, S); }   \
    int para_get_##tag##_##M##_init(GP) { return para::typed::get(mod, idx, para::typed::kInit, S); } \
    int para_get_##tag##_##M##_cur(GP) { return para::typed::get(mod, idx, para::typed::kCur, S); }
#define PARA_TYPED_SETTERS(tag, mod, M, idx, SP, S)                                                     \
    int _para_set_##tag##_##M##_cur(SP int v) { return para::typed::set_internal(mod, idx, S, v); }     \
    int para_set_##tag##_##M##_cur(SP int v) { return para::typed::set_public(mod, idx, S, v); }        \
    int para_get_##tag##_##M##_num(char* str) { return para::typed::lookup_num(mod.members[idx], str); }
#define PARA_TYPED_NAME_OF(tag, mod, M, idx) \
    const char* para_get_##tag##_##M##_str(int i) { return para::typed::name_of(mod.members[idx], i); }
#define PARA_TYPED_LOADERS(mod, M, idx)                                                                    \
    int get_range_param_##M(cJSON* j) { return para::typed::load_member(mod, idx, para::typed::kRange, j); } \
    int get_def_param_##M(cJSON* j) { return para::typed::load_member(mod, idx, para::typed::kDefault, j); } \
    int get_cur_param_##M(cJSON* j) { return para::typed::load_member(mod, idx, para::typed::kCurrent, j); }
/* The operations every typed module has, and those of a settable delay
 * (delay: the module's std::atomic<int> of milliseconds). */
#define PARA_TYPED_MODULE_OPS(tag, mod)                                                          \
    void _parse_##tag##_range_json(cJSON* j) { para::typed::load_all(mod, para::typed::kRange, j); } \
    void _parse_##tag##_def_json(cJSON* j) { para::typed::load_all(mod, para::typed::kDefault, j); } \
    void _parse_##tag##_cur_json(cJSON* j) { para::typed::load_all(mod, para::typed::kCurrent, j); } \
    int para_need_save_##tag(char*) { return para::typed::need_save(mod); }                       \
    int para_save_##tag(char*) { return para::typed::save(mod, __func__); }                       \
    void tag##_page(void) { para::typed::dump(mod, __func__); }
#define PARA_TYPED_DELAY_OPS(tag, mod, delay)                                              \
    int save_cur_##tag##_param_delay(int msec) { return para::typed::save_delay(mod, msec, __func__); } \
    void para_set_##tag##_save_param_time(int ms) { delay.store(ms); }

namespace para::typed {

constexpr int kExistNumber = 0x81;
constexpr int kExistName = 0x101;
constexpr int kBitNumber = 0x80;
constexpr int kBitName = 0x100;
constexpr int kNoName = -1000;

struct Member {
    const char* key;
    int field;                /* int32 index inside the record */
    const char* const* names; /* null: names are not understood */
    int name_count;
    bool named;
    void* setter; /* the public setter, handed to the member callback */
};

/* What a module changes at run time.
 *
 * The one concurrency rule of the typed modules (video, audio, focus/zoom and
 * ISP): every record word is a single 32-bit word, read and written
 * atomically. A current value is written by anyone without a lock (the
 * per-member getters and setters run on the host's hot paths). Everything
 * else in the records (ranges, defaults, exist words, records in use) is
 * written only under `mu`: while loading, and for the ISP's defaults by its
 * default maintenance; the walks over several members (requests by name,
 * file objects, the log dump) take `mu` too, so they never see a module half
 * loaded. Callbacks run without it. */
struct State {
    ChangeState change;
    std::mutex mu; /* loading against multi-member walks; see above */
    /* Set once the range and default files loaded: until then the records
     * hold no settings, and saving would only overwrite the stored ones. */
    std::atomic<bool> loaded{false};
    CurrentFile cur_file;
};

enum Rec { kMin, kMax, kDef, kCur, kInit, kExist, kRecKinds };
enum FileKind { kRange, kDefault, kCurrent };

struct Module {
    const char* title; /* names the module in the first line of the log dump */
    const Member* members;
    int count;
    const int* order = nullptr; /* key order of objects and files; null: record order */
    std::array<int32_t*, kRecKinds> rec;
    int stride;         /* int32 per record */
    int records = 1;    /* records per kind */
    int* streams;       /* records in use */
    const char* stream_key = nullptr; /* "video%d": files and objects keyed per stream; null: flat */
    std::array<const char*, 3> files; /* range, default (read-only dir), current (read-write dir) */
    /* Focus/zoom flavour: numbers only, exist 0/1, getters and setter skip
     * the existence test, range containers not type-tested, file failures
     * not logged. */
    bool plain = false;
    bool reads_ignore_exist = false; /* ISP: getters answer what the record holds, present or not */
    bool write_by_prefix = false;   /* by-name writes: name begins with key (else exact) */
    int missing_kind_result = 0;    /* by-name write to a member without its kind bit */
    State* st;
    struct timespec* stamp;
    std::atomic<int>* delay_ms = nullptr; /* null: the fixed delay */
    void (*notify)(void* setter, int stream, int value);
    void (**page)(void* json) = nullptr; /* the profile's page callback slot; null: no set requests */
};

using Lock = std::lock_guard<std::mutex>;

inline bool valid(const Module& m, int s)
{
    return s >= 0 && s < m.records && s < *m.streams;
}

inline int32_t& at(const Module& m, Rec r, int s, const Member& mb)
{
    return m.rec[r][s * m.stride + mb.field];
}

inline const char* name_of(const Member& mb, int index)
{
    return mb.names && index >= 0 && index < mb.name_count ? mb.names[index] : nullptr;
}

inline int lookup_num(const Member& mb, const char* str)
{
    return name_lookup_num(str, mb.names, mb.name_count);
}

inline int find_member(const Module& m, const char* name, bool by_prefix)
{
    if (!name)
        return -1;
    for (int i = 0; i < m.count; ++i)
        if (by_prefix ? starts_with(name, m.members[i].key) : same(name, m.members[i].key))
            return i;
    return -1;
}

/* Lock-free by the rule on State. */
inline int32_t cur_of(const Module& m, int s, const Member& mb)
{
    return __atomic_load_n(&at(m, kCur, s, mb), __ATOMIC_RELAXED);
}

inline int read_value(const Module& m, const Member& mb, Rec r, int s)
{
    if (!valid(m, s))
        return -1;
    if ((r == kCur || r == kInit) && !m.plain && !m.reads_ignore_exist && at(m, kExist, s, mb) == 0)
        return -1;
    return __atomic_load_n(&at(m, r, s, mb), __ATOMIC_RELAXED);
}

inline int get(const Module& m, int idx, Rec r, int s)
{
    return read_value(m, m.members[idx], r, s);
}

/* Range-checked store of a new current value; 1 when it changed. Needs no
 * lock (the rule on State). Two threads writing the same member at once
 * both store (the later value stays, as with any setter) and both mark the
 * change, so nothing accepted is ever left unsaved. */
inline int store_value(const Module& m, const Member& mb, int s, int val)
{
    if (!valid(m, s) || (!m.plain && at(m, kExist, s, mb) == 0))
        return 0;
    if (val < at(m, kMin, s, mb) || val > at(m, kMax, s, mb))
        return 0;
    int32_t* cur = &at(m, kCur, s, mb);
    if (__atomic_load_n(cur, __ATOMIC_RELAXED) == val)
        return 0;
    __atomic_store_n(cur, val, __ATOMIC_RELAXED);
    // The flag is published after the value, so a save that sees the flag
    // also sees the value.
    m.st->change.mark();
    stamp_to_timespec(m.st->change.stamp_ns.load(std::memory_order_relaxed), m.stamp);
    return 1;
}

inline int set_internal(const Module& m, int idx, int s, int val)
{
    return store_value(m, m.members[idx], s, val);
}

/* Stores through the internal setter and tells the application. */
inline int set_public(const Module& m, int idx, int s, int val)
{
    if (set_internal(m, idx, s, val) == 1 && m.notify)
        m.notify(m.members[idx].setter, s, val);
    return 0;
}

/* The whole name must fit; the public setter decides the rest. */
inline int set_by_exact_name(const Module& m, int idx, int s, const char* str)
{
    const Member& mb = m.members[idx];
    int i = name_index_exact(str, mb.names, mb.name_count);
    if (i < 0)
        return -1;
    set_public(m, idx, s, i);
    return 0;
}

/* ---- loading ------------------------------------------------------------ */

/* The object holding record s of a parsed file, or null. */
inline const cJSON* record_object(const Module& m, const cJSON* json, int s)
{
    if (!cJSON_IsObject(json))
        return nullptr;
    if (!m.stream_key)
        return json;
    char key[32];
    std::snprintf(key, sizeof key, m.stream_key, s);
    const cJSON* obj = cJSON_GetObjectItem(json, key);
    return cJSON_IsObject(obj) ? obj : nullptr;
}

/* A file value: texts by the last matching name (false when none fits),
 * anything else by its integer form. */
inline bool item_value(const Module& m, const Member& mb, const cJSON* item, int* out,
                       bool* by_name)
{
    *by_name = false;
    if (!m.plain && cJSON_IsString(item)) {
        int i = name_match_last(item->valuestring, mb.names, mb.name_count);
        if (i < 0)
            return false;
        *out = i;
        *by_name = true;
        return true;
    }
    *out = json_int(item);
    return true;
}

inline void load_item(const Module& m, const Member& mb, FileKind fk, const cJSON* item, int s)
{
    int v = 0;
    bool by_name = false;
    switch (fk) {
    case kRange:
        if ((m.plain || cJSON_IsArray(item)) && cJSON_GetArraySize(item) > 1) {
            if (item_value(m, mb, cJSON_GetArrayItem(item, 0), &v, &by_name))
                at(m, kMin, s, mb) = v;
            if (item_value(m, mb, cJSON_GetArrayItem(item, 1), &v, &by_name))
                at(m, kMax, s, mb) = v;
        }
        break;
    case kDefault:
        if (item_value(m, mb, item, &v, &by_name)) {
            at(m, kDef, s, mb) = v;
            at(m, kExist, s, mb) = m.plain ? 1 : by_name ? kExistName : kExistNumber;
        }
        break;
    case kCurrent:
        if (item_value(m, mb, item, &v, &by_name))
            __atomic_store_n(&at(m, kCur, s, mb), v, __ATOMIC_RELAXED);
        break;
    }
}

/* One member from a parsed file, for every record in use. */
inline int load_member(const Module& m, int idx, FileKind fk, const cJSON* json)
{
    Lock lk(m.st->mu);
    const Member& mb = m.members[idx];
    for (int s = 0; valid(m, s); ++s) {
        const cJSON* obj = record_object(m, json, s);
        if (const cJSON* item = obj ? cJSON_GetObjectItem(obj, mb.key) : nullptr)
            load_item(m, mb, fk, item, s);
    }
    return 0;
}

inline void load_all(const Module& m, FileKind fk, const cJSON* json)
{
    for (int i = 0; i < m.count; ++i)
        load_member(m, i, fk, json);
}

/* Range, default and current file. count_records, when given, sets the
 * number of records in use from the parsed range file. 0, or -1 when the
 * range or default file cannot be read or parsed (what was loaded stays). */
inline int load_files(const Module& m, int (*count_records)(cJSON*), para::Caller fn)
{
    char range[PARA_PATH_MAX], def[PARA_PATH_MAX], cur[PARA_PATH_MAX];
    make_path(range, para_profile.param_rofile_dir, m.files[0], nullptr, fn);
    make_path(def, para_profile.param_rofile_dir, m.files[1], nullptr, fn);
    make_path(cur, para_profile.param_rwfile_dir, m.files[2], nullptr, fn);
    {
        Lock lk(m.st->mu);
        std::memset(m.rec[kExist], 0, sizeof(int32_t) * m.stride * m.records);
    }

    bool unreadable = false;
    JsonPtr json = load_json_file(fn, range, &unreadable, true);
    if (!json) {
        if (unreadable && !m.plain)
            PARA_LOG_FN(PARA_INFO, fn, "Error range def buf\n\n");
        return -1;
    }
    if (count_records) {
        Lock lk(m.st->mu);
        *m.streams = count_records(json.get());
    }
    load_all(m, kRange, json.get());

    json = load_json_file(fn, def, &unreadable, true);
    if (!json) {
        if (unreadable && !m.plain)
            PARA_LOG_FN(PARA_INFO, fn, "Error read def buf\n\n");
        return -1;
    }
    load_all(m, kDefault, json.get());
    load_all(m, kCurrent, json.get());

    bool applied = false;
    CurLoad how = CurLoad::absent;
    if (cur[0]) {
        json = load_json_file(fn, cur, &unreadable, true, true, &how);
        if (json) {
            load_all(m, kCurrent, json.get());
            applied = true;
        } else if (how != CurLoad::read && how != CurLoad::absent && !m.plain) {
            PARA_LOG_FN(PARA_INFO, fn, "Error read cur buf\n\n");
        }
    }
    PARA_LOG_FN(PARA_INFO, fn, "parse_ok:%d\n", applied ? 1 : 0);

    Lock lk(m.st->mu);
    std::memcpy(m.rec[kInit], m.rec[kCur], sizeof(int32_t) * m.stride * m.records);
    m.st->cur_file.loaded(how);
    m.st->loaded = true;
    return 0;
}

/* ---- members as JSON ------------------------------------------------------ */

inline const Member& ordered(const Module& m, int k)
{
    return m.members[m.order ? m.order[k] : k];
}

/* Existing members of record s as in the current file: named members by
 * name (left out when the value has none), numeric members as numbers. */
inline void add_members_locked(const Module& m, int s, cJSON* obj)
{
    for (int k = 0; k < m.count; ++k) {
        const Member& mb = ordered(m, k);
        if (!valid(m, s) || at(m, kExist, s, mb) == 0)
            continue;
        int v = cur_of(m, s, mb);
        if (mb.named) {
            if (const char* name = name_of(mb, v))
                cJSON_AddStringToObject(obj, mb.key, name);
        } else {
            cJSON_AddNumberToObject(obj, mb.key, v);
        }
    }
}

inline void add_members(const Module& m, int s, cJSON* obj)
{
    Lock lk(m.st->mu);
    add_members_locked(m, s, obj);
}

inline cJSON* members_object(const Module& m, int s)
{
    cJSON* obj = cJSON_CreateObject();
    add_members(m, s, obj);
    return obj;
}

/* Whole current file: one object per record in use, or the flat object. */
inline cJSON* file_object(const Module& m)
{
    cJSON* root = cJSON_CreateObject();
    Lock lk(m.st->mu);
    if (!m.stream_key) {
        add_members_locked(m, 0, root);
        return root;
    }
    for (int s = 0; valid(m, s); ++s) {
        char key[32];
        std::snprintf(key, sizeof key, m.stream_key, s);
        cJSON* obj = cJSON_CreateObject();
        add_members_locked(m, s, obj);
        cJSON_AddItemToObject(root, key, obj);
    }
    return root;
}

/* Reads one member by its exact key: the exist word (0 unknown, absent or
 * invalid record), *val the current value (-1 absent or invalid record),
 * *valString the name of a named member given by name, else null. */
inline int get_member(const Module& m, const char* name, int s, int* val, char** valString)
{
    int idx = find_member(m, name, false);
    if (idx < 0)
        return 0;
    const Member& mb = m.members[idx];
    Lock lk(m.st->mu);
    if (val)
        *val = read_value(m, mb, kCur, s);
    if (!valid(m, s))
        return 0;
    int exist = at(m, kExist, s, mb);
    if (mb.named && valString)
        *valString = const_cast<char*>(exist & kBitName ? name_of(mb, cur_of(m, s, mb)) : nullptr);
    return exist;
}

/* Writes one member by name: 1 stored, 0 refused or unknown name, and the
 * module's missing-kind result when the member lacks the bit of its kind. */
inline int set_member(const Module& m, const char* name, int s, int val, const char* valString)
{
    int idx = find_member(m, name, m.write_by_prefix);
    if (idx < 0)
        return 0;
    const Member& mb = m.members[idx];
    Lock lk(m.st->mu);
    if (!valid(m, s) || !(at(m, kExist, s, mb) & (mb.named ? kBitName : kBitNumber)))
        return m.missing_kind_result;
    // A name that fits nothing gives -1000, which the range check decides on.
    if (mb.named)
        val = valString ? lookup_num(mb, valString) : kNoName;
    return store_value(m, mb, s, val);
}

/* ---- requests ----------------------------------------------------------- */

/* Get request on record s: ["all"] (or one text beginning with "all") for
 * every existing member, else the listed members. Anything but an array of
 * names (the whole message of a reading post, say) gets no reply. */
inline void get_request(const Module& m, const cJSON* item, int s, void** jsonOut, int level,
                        para::Caller fn)
{
    if (!jsonOut)
        return;
    if (!cJSON_IsArray(item)) {
        PARA_LOG_FN(level, fn, "leave\n");
        return;
    }
    const cJSON* first = item->child;
    if (first && !first->next && cJSON_IsString(first) && starts_with(first->valuestring, "all")) {
        *jsonOut = members_object(m, s);
        return;
    }
    cJSON* reply = cJSON_CreateObject();
    for (const cJSON* c = item->child; c; c = c->next) {
        if (!cJSON_IsString(c))
            continue;
        int idx = find_member(m, c->valuestring, false);
        if (idx < 0)
            continue;
        const Member& mb = m.members[idx];
        Lock lk(m.st->mu);
        int exist = valid(m, s) ? at(m, kExist, s, mb) : 0;
        if (!exist)
            continue;
        int v = cur_of(m, s, mb);
        if (mb.named && (exist & kBitName)) {
            if (const char* name = name_of(mb, v))
                cJSON_AddStringToObject(reply, mb.key, name);
        } else {
            cJSON_AddNumberToObject(reply, mb.key, v);
        }
    }
    *jsonOut = reply;
    PARA_LOG_FN(level, fn, "leave\n");
}

/* Set request on record s: every child through the by-name write; one page
 * callback when anything was stored. */
inline bool set_request(const Module& m, const cJSON* item, int s)
{
    bool stored = false;
    for (const cJSON* c = item ? item->child : nullptr; c; c = c->next) {
        const char* text = cJSON_IsString(c) ? c->valuestring : nullptr;
        if (set_member(m, c->string, s, json_int(c), text) == 1)
            stored = true;
    }
    if (stored && m.page && *m.page)
        (*m.page)(const_cast<cJSON*>(item));
    return stored;
}

/* ---- saving ----------------------------------------------------------- */

inline int delay_of(const Module& m)
{
    return m.delay_ms ? m.delay_ms->load() : 2000;
}

inline int need_save(const Module& m)
{
    return m.st->change.due(delay_of(m)) ? 1 : 0;
}

/* Writes the current file. The flag is cleared before the snapshot, so a
 * change that lands while writing is saved by the next sweep; a failed
 * write leaves the change pending for a later try. */
inline int save(const Module& m, para::Caller fn)
{
    std::lock_guard<std::mutex> saving(save_mutex);
    char path[PARA_PATH_MAX];
    bool named = make_path(path, para_profile.param_rwfile_dir, m.files[2], nullptr, fn);
    return save_store({fn, m.st->change, &m.st->cur_file, delay_of(m), m.st->loaded, m.files[2],
                       named ? path : nullptr},
                      [&](const char* to, bool) {
                          JsonPtr tree(file_object(m));
                          return write_json_file(to, tree.get(), fn);
                      });
}

inline int save_delay(const Module& m, int msec, para::Caller fn)
{
    if (msec < 0)
        msec = delay_of(m);
    if (m.st->change.due(msec))
        save(m, fn);
    return 0;
}

/* ---- log dump --------------------------------------------------------- */

/* Per-stream modules list their existing members per stream; flat modules
 * list every member (an absent one with its getter's value). */
inline void dump(const Module& m, para::Caller fn)
{
    PARA_LOG_FN(PARA_INFO, fn, "----------%s PARAM-----------\n\n", m.title);
    Lock lk(m.st->mu);
    for (int s = 0; valid(m, s); ++s) {
        if (m.stream_key)
            PARA_LOG_FN(PARA_INFO, fn, "stream_%d param:\n", s + 1);
        for (int i = 0; i < m.count; ++i) {
            const Member& mb = m.members[i];
            if (m.stream_key && at(m, kExist, s, mb) == 0)
                continue;
            PARA_LOG_FN(PARA_INFO, fn, "%16s : cur:[%d],\tdef:[%d],\trange:[%d,%d]\n", mb.key,
                     read_value(m, mb, kCur, s), at(m, kDef, s, mb), at(m, kMin, s, mb),
                     at(m, kMax, s, mb));
        }
    }
    PARA_LOG_FN(PARA_INFO, fn, "--------------------------------\n\n");
}

} // namespace para::typed

#endif
