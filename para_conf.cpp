/* .conf modules: plain key = value files with no ranges (network port,
 * overlay, ...). Defaults come from the read-only directory, current values
 * are read over them from the read-write directory and written back whole. */
#include "para_stores.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

namespace {

constexpr int kConfSlots = 64;
constexpr int kSaveDelayMs = 2000;

struct conf_S {
    /* Swapped by reloads on the deferred-work thread while host threads and
     * the worker read them, hence atomic. */
    std::atomic<configure*> def_conf{nullptr};
    std::atomic<configure*> conf{nullptr};
    char file_name[para::kSlotNameSize];
    para::ChangeState change;
    para::CurrentFile file;
};

conf_S conf_list[kConfSlots];
int init_cnt;

/* Serialises loads and reloads (start-up, the deferred work, direct calls). */
std::mutex load_mu;
/* Stores of unloaded modules. Never freed: a reader may still hold one, or a
 * text pointer into one (para_conf_get_member). Unloading is rare. */
std::vector<configure*>* const retired_stores = new std::vector<configure*>; // outlives exit()

int check_conf_list(const char* name)
{
    return para::find_slot_by(kConfSlots, name, [](int i) { return conf_list[i].file_name; });
}

configure* current_store(const char* name, int* slot = nullptr)
{
    int s = check_conf_list(name);
    if (slot)
        *slot = s;
    return s < 0 ? nullptr : conf_list[s].conf.load();
}

void reload_work(const char* value, void* argv)
{
    /* The record names its module in argv; the queue's text is only a
     * fallback for records registered without one. */
    const char* name = argv ? static_cast<const char*>(argv) : value;
    if (name)
        para_conf_need_update(const_cast<char*>(name));
}

/* A key that would not read back as itself from a .conf line (a '=' would
 * split it, a leading '#' or ';' makes a comment, outer blanks are trimmed)
 * could overwrite another key's value at the next start. */
bool key_round_trips(const char* key)
{
    if (!key || !*key || std::strchr(key, '=') || key[0] == '#' || key[0] == ';')
        return false;
    size_t n = std::strlen(key);
    auto blank = [](char c) { return c == ' ' || c == '\t'; };
    return !blank(key[0]) && !blank(key[n - 1]);
}

/* Request-added keys are bounded: every key costs the store an entry of
 * half a KiB for good, and the ["all"] reply must still fit one datagram.
 * Keys from the files always load. */
constexpr uint32_t kMaxEntries = 1024;
constexpr size_t kMaxAllReply = 60000;
/* The reply around the module's entries: its own key, braces, the request's
 * message fields. */
constexpr size_t kReplyFrame = 64;

/* Bytes of one entry in the formatted ["all"] reply ("\t\t"key":\t"value",\n"),
 * quotes and control characters escaped. */
size_t reply_bytes(const char* key, const char* value)
{
    size_t n = 10;
    for (const char* t : {key, value})
        for (const unsigned char* c = reinterpret_cast<const unsigned char*>(t); *c; ++c)
            n += *c == '"' || *c == '\\' || (*c < 0x20 && std::strchr("\b\f\n\r\t", *c)) ? 2
                 : *c < 0x20                                                             ? 6
                                                                                         : 1;
    return n;
}

struct StoreSize {
    size_t bytes = kReplyFrame; // of the ["all"] reply
    uint32_t entries = 0;
};

int add_entry_size(void* argv, const char* key, const char* value)
{
    auto* size = static_cast<StoreSize*>(argv);
    ++size->entries; // counted to the end: the refusal line tells the true number
    if (size->bytes <= kMaxAllReply) // past the bound the exact sum is of no use
        size->bytes += reply_bytes(key, value);
    return 0;
}

/* One request may carry hundreds of keys the store refuses; the worker thread
 * logs the first few of them and then a count, not a line per key. */
struct RefusalBudget {
    unsigned logged = 0;
    unsigned dropped = 0;
};
thread_local RefusalBudget* refusal_budget = nullptr;
constexpr unsigned kRefusalLines = 3;

bool log_refusal()
{
    RefusalBudget* b = refusal_budget;
    if (!b || b->logged < kRefusalLines) {
        if (b)
            ++b->logged;
        return true;
    }
    ++b->dropped;
    return false;
}

struct Layers {
    configure* cur;
    configure* over; // the read-write file
    std::vector<std::string>* stale; // default keys whose current text must follow the file
};

/* First load: the read-only file's keys in its order, each with the
 * read-write file's text where that file sets it. */
int put_layered(void* argv, const char* key, const char* value)
{
    auto* l = static_cast<Layers*>(argv);
    entry* e = l->over->getparameter(l->over, key);
    l->cur->put(l->cur, key, e ? e->value : value);
    return 0;
}

int put_over(void* argv, const char* key, const char* value)
{
    auto* l = static_cast<Layers*>(argv);
    l->cur->put(l->cur, key, value);
    return 0;
}

/* Reload: a default key that the read-write file does not set and whose
 * current text differs from the file's. */
int collect_stale(void* argv, const char* key, const char* value)
{
    auto* l = static_cast<Layers*>(argv);
    if (l->over->getparameter(l->over, key))
        return 0;
    entry* e = l->cur->getparameter(l->cur, key);
    if (!e || std::strcmp(e->value, value) != 0)
        l->stale->emplace_back(key);
    return 0;
}

/* Current values from the defaults (def, already read) and the read-write
 * file. A key the read-write file sets is never put back to its default on
 * the way: on a reload that would mark it changed (and show the default for
 * a moment) although its value stays. A first load marks nothing; a reload
 * marks what it changes, by parsing the texts again, in place. Tells what
 * became of the read-write file. */
para::CurLoad parse_layers(para::Caller fn, configure* cur, configure* def, const char* ro, const char* rw,
                  bool first)
{
    configure* over = configure_init();
    if (!over)
        return para::CurLoad::unreadable; // its values are not in memory: keep the file
    para::FileText rw_text;
    para::CurLoad rw_load = para::parse_conf_file(fn, over, nullptr, rw, true, &rw_text);
    std::vector<std::string> stale;
    Layers l{cur, over, &stale};
    if (first) {
        def->loop(def, put_layered, &l);
        over->loop(over, put_over, &l);
        configure_free(over);
        return rw_load;
    }
    def->loop(def, collect_stale, &l);
    configure_free(over);
    /* The parse filter takes at most 255 keys: read the file once per batch.
     * When most of a large file changed, one whole read is cheaper, at the
     * price of marking keys that the read-write file sets back. */
    constexpr size_t kBatch = UINT8_MAX, kMaxBatches = 4;
    para::FileText ro_text = para::read_file(fn, ro);
    if (!ro_text.text) {
        // The defaults were read a moment ago; the keys keep what they hold.
    } else if (stale.size() > kBatch * kMaxBatches) {
        configure_parse_buf(cur, nullptr, ro_text.text.get(), ro_text.len, nullptr);
    } else {
        for (size_t at = 0; at < stale.size(); at += kBatch) {
            std::vector<const char*> names;
            for (size_t i = at; i < stale.size() && i < at + kBatch; ++i)
                names.push_back(stale[i].c_str());
            std::unique_ptr<config_keys, para::FreeDeleter> list(
                config_keys_format(names.data(), static_cast<uint8_t>(names.size())));
            if (list)
                configure_parse_buf(cur, list.get(), ro_text.text.get(), ro_text.len, nullptr);
        }
    }
    if (rw_text.text)
        configure_parse_buf(cur, nullptr, rw_text.text.get(), rw_text.len, nullptr);
    return rw_load;
}

int get_text(configure* store, const char* key, char* buf, int size)
{
    if (!store)
        return -1;
    return store->get(store, key, buf, size);
}

int add_string_item(void* json, const char* key, const char* value)
{
    cJSON_AddItemToObject(static_cast<cJSON*>(json), key, cJSON_CreateString(value));
    return 0;
}

} // namespace

namespace para {

void copy_slot_name(char (&dst)[kSlotNameSize], const char* name)
{
    size_t n = name ? strnlen(name, kSlotNameMax) : 0;
    std::memcpy(dst, name ? name : "", n);
    dst[n] = '\0';
}

int write_conf_file(const char* path, configure* store, bool lock, para::Caller func)
{
    /* The lines are gathered first, so the file is replaced in one step. */
    char* text = nullptr;
    size_t len = 0;
    FILE* f = open_memstream(&text, &len);
    if (!f) {
        PARA_LOG_FN(PARA_ERR, func, "%s not written: %s\n", path, strerror(errno));
        return -1;
    }
    store->loop(store, loop_2_conf, f);
    bool bad = std::ferror(f) != 0;
    std::fclose(f);
    CharPtr owned(text);
    if (bad || !text) {
        PARA_LOG_FN(PARA_ERR, func, "%s not written: out of memory\n", path);
        return -1;
    }
    /* With lock, writers in other processes cooperate through the lock on
     * this file: it is held while the file is replaced. */
    return durable_write(func, path, text, len, lock);
}

int store_to_buf(para::Caller fn, const char* module, configure* store, char* buf, int size)
{
    if (!buf || size <= 0) {
        PARA_LOG_FN(PARA_ERR, fn, "%s buf is not enough\n", module);
        return 0;
    }
    std::memset(buf, 0, static_cast<size_t>(size));
    loop_buf_s lb{buf, size, 0, 0};
    store->loop(store, loop_2_buf, &lb);
    if (lb.ret) {
        PARA_LOG_FN(PARA_ERR, fn, "%s buf is not enough\n", module);
        return 0;
    }
    return lb.used + 1;
}

int request_is_def(const cJSON* item)
{
    return item && item->string && std::strstr(item->string, "def") ? 1 : 0;
}

bool request_is_all(const cJSON* item)
{
    if (cJSON_GetArraySize(item) != 1)
        return false;
    const cJSON* first = item->child;
    return cJSON_IsString(first) && starts_with(first->valuestring, "all");
}

} // namespace para

extern "C" {

int para_init_conf(char* parse_name)
{
    static fifo_worker work[1] = {
        {"netport", nullptr, reload_work, const_cast<char*>("netport")}};
    if (init_cnt == 0) {
        for (auto& slot : conf_list) {
            slot.def_conf = nullptr;
            slot.conf = nullptr;
            slot.file_name[0] = '\0';
            slot.change.take();
        }
        add_fifo_work(work, 1);
    } else if (init_cnt - 1 >= kConfSlots) {
        PARA_LOG(PARA_ERR, "err no free conf slot for %s\n", parse_name ? parse_name : "(null)");
        return 0;
    } else {
        para::copy_slot_name(conf_list[init_cnt - 1].file_name, parse_name);
        para_init_single_conf(parse_name);
    }
    ++init_cnt;
    return 0;
}

int para_init_single_conf(char* parse_name)
{
    int s = check_conf_list(parse_name);
    if (s < 0)
        return -1;
    std::lock_guard<std::mutex> lk(load_mu);
    conf_S& slot = conf_list[s];
    configure* def = slot.def_conf.load();
    configure* cur = slot.conf.load();
    bool fresh = !cur || !def;
    if (fresh) {
        def = configure_init();
        cur = configure_init();
    }
    char ro[PARA_PATH_MAX], rw[PARA_PATH_MAX];
    bool paths = para::make_path(ro, para_profile.param_rofile_dir, slot.file_name, ".conf") &&
                 para::make_path(rw, para_profile.param_rwfile_dir, slot.file_name, ".conf");
    if (!paths || para::parse_conf_file(__func__, def, nullptr, ro, false) != para::CurLoad::read) {
        PARA_LOG(PARA_INFO, "%s unloaded: %s unreadable\n", slot.file_name, ro);
        slot.conf = nullptr;
        slot.def_conf = nullptr;
        if (fresh) {
            configure_free(def);
            configure_free(cur);
        } else {
            retired_stores->push_back(def);
            retired_stores->push_back(cur);
        }
        return -1;
    }
    slot.file.loaded(parse_layers(__func__, cur, def, ro, rw, fresh));
    if (fresh) {
        slot.def_conf = def;
        slot.conf = cur;
    }
    return 0;
}

char* para_conf_get_member(const char* file_name, const char* key)
{
    configure* store = current_store(file_name);
    if (!store || !key)
        return nullptr;
    entry* e = store->getparameter(store, key);
    return e ? e->value : nullptr;
}

int para_conf_get_member_safe(const char* file_name, const char* key, char* buf, int size)
{
    configure* store = current_store(file_name);
    return store ? get_text(store, key, buf, size) : -1;
}

int para_conf_get_def_member_safe(const char* file_name, const char* key, char* buf, int size)
{
    int s = check_conf_list(file_name);
    if (s < 0 || !conf_list[s].conf.load())
        return -1;
    return get_text(conf_list[s].def_conf.load(), key, buf, size);
}

int _para_conf_set_member(const char* file_name, const char* key, const char* text)
{
    int s;
    configure* store = current_store(file_name, &s);
    if (!store)
        return -1;
    if (!key_round_trips(key)) {
        if (log_refusal())
            PARA_LOG(PARA_ERR, "%s refuse key [%s]\n", file_name, key ? key : "(null)");
        return -1;
    }
    /* Serialises the bound check with the put it allows; only growing
     * texts take it, so plain value changes do not wait on each other. */
    static std::mutex grow_mu;
    std::unique_lock<std::mutex> grow;
    char old[para::kValueBuf];
    bool had = key && store->get(store, key, old, sizeof old) == 0;
    size_t old_bytes = had ? reply_bytes(key, old) : 0;
    if (text && reply_bytes(key, text) > old_bytes) {
        grow = std::unique_lock<std::mutex>(grow_mu);
        StoreSize size;
        store->loop(store, add_entry_size, &size);
        if (!had && size.entries >= kMaxEntries) {
            if (log_refusal())
                PARA_LOG(PARA_ERR, "%s refuse new key [%s]: %u keys already\n", file_name, key,
                         size.entries);
            return -1;
        }
        /* A store that its files already made larger keeps taking changes
         * of the keys it has; no request may push it past the bound. */
        size_t after = size.bytes - old_bytes + reply_bytes(key, text);
        if (after > kMaxAllReply && (!had || size.bytes <= kMaxAllReply)) {
            if (log_refusal())
                PARA_LOG(PARA_ERR, "%s refuse [%s]: the all reply would pass %zu bytes\n",
                         file_name, key, kMaxAllReply);
            return -1;
        }
    }
    int r = store->put(store, key, text);
    if (r > 0)
        conf_list[s].change.mark();
    else if (r < 0 && log_refusal())
        PARA_LOG(PARA_ERR, "%s refuse [%s]: %s\n", file_name, key,
                 !text                                ? "no value"
                 : strlen(text) >= size_t(para::kValueBuf) ? "value longer than 255 bytes"
                                                      : "value holds a line break");
    return r;
}

int para_conf_set_member(const char* file_name, const char* key, const char* text)
{
    int r = _para_conf_set_member(file_name, key, text);
    if (r == 1 && para_profile.conf_caller_in)
        para_profile.conf_caller_in(const_cast<char*>(file_name), key);
    return r;
}

int para_conf_need_update(char* file_name)
{
    PARA_LOG(PARA_INFO, "enter\n");
    int r = para_init_single_conf(file_name);
    if (para_profile.conf_caller)
        para_profile.conf_caller(file_name);
    PARA_LOG(PARA_INFO, "leave\n");
    return r;
}

int para_conf_key_IsChanged(const char* file_name, const char** keys, uint8_t count)
{
    configure* store = current_store(file_name);
    if (!store)
        return -1;
    std::unique_ptr<config_keys, para::FreeDeleter> list(config_keys_format(keys, count));
    if (!list)
        return 0;
    int idx = configure_key_IsChanged(store, list.get());
    if (idx >= 0)
        PARA_LOG(PARA_INFO, "key id %d changed\n", idx);
    return idx >= 0 ? 1 : 0;
}

int para_need_save_conf(char* parse_name)
{
    int s = check_conf_list(parse_name);
    if (s < 0)
        return -1;
    /* An unloaded module has nothing left to write; answering 1 would have
     * the sweep call a save that can only fail, ten times a second. */
    if (!conf_list[s].conf.load())
        return 0;
    return conf_list[s].change.due(kSaveDelayMs) ? 1 : 0;
}

int para_save_conf(char* parse_name)
{
    if (!para_profile.conf_save)
        return 0;
    int s;
    configure* store = current_store(parse_name, &s);
    if (!store)
        return -1;
    char path[PARA_PATH_MAX];
    bool named = para::make_path(path, para_profile.param_rwfile_dir, conf_list[s].file_name, ".conf");
    /* The sweep hears nothing of a failure (logged by the writer); the
     * change stays pending and is tried again. */
    para::save_store({__func__, conf_list[s].change, &conf_list[s].file, kSaveDelayMs, true,
                      conf_list[s].file_name, named ? path : nullptr},
                     [store](const char* to, bool) {
                         return para::write_conf_file(to, store, true, "para_save_conf");
                     });
    return 0;
}

int para_save_conf_2_buf(const char* file_name, char* buf, int size)
{
    configure* store = current_store(file_name);
    return store ? para::store_to_buf(__func__, file_name, store, buf, size) : -1;
}

void Create_Json_4_conf_Object(cJSON* json, int is_def, const char* file_name)
{
    int s = check_conf_list(file_name);
    if (s < 0 || !json)
        return;
    configure* store = conf_list[s].conf.load();
    configure* def = conf_list[s].def_conf.load();
    if (!store)
        return;
    if (is_def && def)
        store = def;
    store->loop(store, add_string_item, json);
}

int para_get_conf_opt(char* req_name, void* jsonIn, void** jsonOut, char* parse_name)
{
    PARA_LOG(PARA_DETAIL, "inter\n");
    auto* in = static_cast<cJSON*>(jsonIn);
    if (!jsonOut)
        return 0;
    cJSON* out = cJSON_CreateObject();
    if (para::request_is_all(in)) {
        Create_Json_4_conf_Object(out, para::request_is_def(in), parse_name);
    } else {
        for (cJSON* e = in ? in->child : nullptr; e; e = e->next) {
            char text[para::kValueBuf];
            if (cJSON_IsString(e) &&
                para_conf_get_member_safe(parse_name, e->valuestring, text, sizeof text) == 0)
                cJSON_AddItemToObject(out, e->valuestring, cJSON_CreateString(text));
        }
    }
    *jsonOut = out;
    PARA_LOG(PARA_DETAIL, "leave\n");
    return 0;
}

int para_set_conf_opt(char* req_name, void* jsonIn, char* parse_name)
{
    auto* in = static_cast<cJSON*>(jsonIn);
    bool changed = false;
    RefusalBudget budget;
    refusal_budget = &budget;
    for (cJSON* item = in ? in->child : nullptr; item; item = item->next)
        if (cJSON_IsString(item) && item->string &&
            _para_conf_set_member(parse_name, item->string, item->valuestring) == 1)
            changed = true;
    refusal_budget = nullptr;
    if (budget.dropped)
        PARA_LOG(PARA_ERR, "%s: further refusals of this request not logged: %u\n", parse_name,
                 budget.dropped);
    if (changed) {
        PARA_LOG(PARA_INFO, "need_to_notify\n");
        if (para_profile.conf_caller)
            para_profile.conf_caller(parse_name);
    }
    return 0;
}

} // extern "C"
