#include "dov_common.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

extern "C" {

dbgout_profile_s dbgout_profile = {3, 3, 3, 3, 3, 3, 3, 3, 0, nullptr};
int (*lib_system_hook)(const char* command) = nullptr;

void dov_traceout(int level, const char* format, ...)
{
    // The host may change the level and the sink while other threads log.
    if (__atomic_load_n(&dbgout_profile.para_level, __ATOMIC_RELAXED) < level || !format)
        return;
    char line[4096];
    int off = 0;
    if (dbgout_profile.time_enable) {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        off = snprintf(line, sizeof line, "%ld.%03ld ", (long)now.tv_sec, now.tv_nsec / 1000000);
    }
    va_list ap;
    va_start(ap, format);
    int n = vsnprintf(line + off, sizeof line - off, format, ap);
    va_end(ap);
    if (n < 0)
        return;
    // The line is written as the format made it: its line feeds are the
    // caller's. Only a line cut at the buffer's end gets its feed back.
    if (off + n >= static_cast<int>(sizeof line))
        line[sizeof line - 2] = '\n';
    if (dov_log_cb cb = __atomic_load_n(&dbgout_profile.log_cb, __ATOMIC_ACQUIRE))
        cb(level, line);
    else
        fputs(line, stderr);
}

char* read_file_to_buf_len(const char* path, size_t* len_out)
{
    if (len_out)
        *len_out = 0;
    if (!path)
        return nullptr;
    FILE* f = fopen(path, "rb");
    if (!f)
        return nullptr;
    std::string data;
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, f)) > 0)
        data.append(chunk, n);
    bool bad = ferror(f);
    fclose(f);
    if (bad)
        return nullptr;
    char* out = static_cast<char*>(malloc(data.size() + 1));
    if (!out)
        return nullptr;
    memcpy(out, data.data(), data.size());
    out[data.size()] = '\0';
    if (len_out)
        *len_out = data.size();
    return out;
}

char* read_file_to_buf(const char* path)
{
    return read_file_to_buf_len(path, nullptr);
}

int cat_file_name(char* buf, int size, const char* dir, const char* name)
{
    if (!buf || size <= 0)
        return -1;
    buf[0] = '\0';
    if (!name)
        return -1;
    int n;
    if (!dir || !*dir)
        n = snprintf(buf, size, "%s", name);
    else if (dir[strlen(dir) - 1] == '/')
        n = snprintf(buf, size, "%s%s", dir, name);
    else
        n = snprintf(buf, size, "%s/%s", dir, name);
    if (n < 0 || n >= size) {
        buf[0] = '\0';
        return -1;
    }
    return n;
}

char* lib_strdup(const char* text)
{
    return text ? strdup(text) : nullptr;
}

char* lib_itoa(int value, char* buf)
{
    if (buf)
        snprintf(buf, 12, "%d", value);
    return buf;
}

int lib_system(const char* command)
{
    if (!command)
        return -1;
    if (lib_system_hook)
        return lib_system_hook(command);
    pid_t pid = fork();
    if (pid < 0)
        return -1;
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0)
        if (errno != EINTR)
            return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int64_t lib_common_diff_msec_timespec(const struct timespec* start, const struct timespec* end)
{
    if (!start || !end)
        return 0;
    return (int64_t)(end->tv_sec - start->tv_sec) * 1000 +
           ((int64_t)end->tv_nsec - (int64_t)start->tv_nsec) / 1000000;
}

} // extern "C"

/* ---- deferred-work queue ------------------------------------------------ */

namespace {

struct FifoRecord {
    std::string key;
    std::string value;
    bool has_value;
    fifo_work_handle handle;
    void* argv;
};

struct FifoRun {
    FifoRecord rec;
    std::string value;
    bool has_value;
};

struct FifoQueue {
    std::mutex mu;
    std::condition_variable cv;
    std::condition_variable idle;
    std::vector<FifoRecord> records;
    std::deque<FifoRun> pending;
    int running = 0;
    bool started = false;

    void start_locked()
    {
        if (started)
            return;
        started = true;
        // Detached on purpose: the queue lives as long as the process, like
        // the device library's own worker.
        std::thread([this] { loop(); }).detach();
    }

    void loop()
    {
        std::unique_lock<std::mutex> lk(mu);
        for (;;) {
            cv.wait(lk, [this] { return !pending.empty(); });
            FifoRun run = std::move(pending.front());
            pending.pop_front();
            ++running;
            lk.unlock();
            run.rec.handle(run.has_value ? run.value.c_str() : nullptr, run.rec.argv);
            lk.lock();
            --running;
            if (pending.empty() && running == 0)
                idle.notify_all();
        }
    }

    std::vector<FifoRun> matching(const char* key, const char* value)
    {
        std::vector<FifoRun> out;
        for (const auto& r : records) {
            if (key && r.key != key)
                continue;
            FifoRun run{r, value ? value : r.value, value ? true : r.has_value};
            out.push_back(std::move(run));
        }
        return out;
    }
};

FifoQueue& fifo()
{
    static FifoQueue* q = new FifoQueue; // never destroyed: the thread may outlive exit()
    return *q;
}

} // namespace

extern "C" {

int add_fifo_work(const fifo_worker* records, int count)
{
    if (!records || count <= 0)
        return -1;
    auto& q = fifo();
    std::lock_guard<std::mutex> lk(q.mu);
    for (int i = 0; i < count; ++i) {
        const fifo_worker& w = records[i];
        if (!w.key || !w.key_handle)
            continue;
        q.records.push_back({w.key, w.value ? w.value : "", w.value != nullptr, w.key_handle, w.argv});
    }
    return 0;
}

int fifo_work_trigger(const char* key, const char* value)
{
    auto& q = fifo();
    std::lock_guard<std::mutex> lk(q.mu);
    auto runs = q.matching(key, value);
    if (runs.empty())
        return 0;
    q.start_locked();
    for (auto& r : runs)
        q.pending.push_back(std::move(r));
    q.cv.notify_one();
    return static_cast<int>(runs.size());
}

int fifo_work_run(const char* key, const char* value)
{
    std::vector<FifoRun> runs;
    {
        auto& q = fifo();
        std::lock_guard<std::mutex> lk(q.mu);
        runs = q.matching(key, value);
    }
    for (auto& r : runs)
        r.rec.handle(r.has_value ? r.value.c_str() : nullptr, r.rec.argv);
    return static_cast<int>(runs.size());
}

void fifo_work_drain(void)
{
    auto& q = fifo();
    std::unique_lock<std::mutex> lk(q.mu);
    q.idle.wait(lk, [&q] { return q.pending.empty() && q.running == 0; });
}

} // extern "C"

/* ---- configure store ---------------------------------------------------- */

namespace {

class ReadLock {
public:
    explicit ReadLock(configure* s) : s_(s) { pthread_rwlock_rdlock(&s_->lock); }
    ~ReadLock() { pthread_rwlock_unlock(&s_->lock); }
private:
    configure* s_;
};

class WriteLock {
public:
    explicit WriteLock(configure* s) : s_(s) { pthread_rwlock_wrlock(&s_->lock); }
    ~WriteLock() { pthread_rwlock_unlock(&s_->lock); }
private:
    configure* s_;
};

bool text_ok(const char* t, bool is_key)
{
    if (!t)
        return false;
    size_t n = strnlen(t, CONFIGURE_TEXT_MAX);
    if (n >= CONFIGURE_TEXT_MAX || (is_key && n == 0))
        return false;
    if (strpbrk(t, "\r\n"))
        return false;
    // A key must come back from its own line: no "=", no blanks at its
    // ends (trimmed away) and no comment mark in front.
    return !is_key || (!strchr(t, '=') && !strchr(" \t#;", t[0]) && t[n - 1] != ' ' && t[n - 1] != '\t');
}

/* Entries live in one reserved address range that is committed as the
 * store grows, so the array never moves: an entry handed out by
 * getparameter keeps following later puts until configure_free. The index
 * maps each key (a view into its own entry) to its position, so lookups do
 * not walk the store and loading a file is linear. */
using KeyIndex = std::unordered_map<std::string_view, uint32_t>;

struct StoreImpl {
    configure pub; // first: a configure* is a StoreImpl*
    KeyIndex* index;
    size_t reserved; // entries the address range can hold
};

StoreImpl* impl_of(configure* s)
{
    return reinterpret_cast<StoreImpl*>(s);
}

size_t page_round(size_t bytes)
{
    size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return (bytes + page - 1) / page * page;
}

/* Far more than any .conf file holds; only address space is taken until
 * entries are added. A smaller range is tried where this much is refused. */
constexpr size_t kReserveEntries = size_t(1) << 20;

bool reserve_entries(StoreImpl* impl)
{
    for (size_t n = kReserveEntries; n >= 1024; n /= 2) {
        size_t bytes = page_round(n * sizeof(entry));
        void* p = mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (p != MAP_FAILED) {
            impl->pub.list.ptr = static_cast<entry*>(p);
            impl->reserved = bytes / sizeof(entry);
            return true;
        }
    }
    return false;
}

bool grow_entries(configure* s)
{
    StoreImpl* impl = impl_of(s);
    if (s->list.sized >= impl->reserved)
        return false;
    size_t want = s->list.sized ? size_t(s->list.sized) * 2 : 16;
    size_t bytes = page_round(std::min(want, impl->reserved) * sizeof(entry));
    if (mprotect(s->list.ptr, bytes, PROT_READ | PROT_WRITE) != 0)
        return false;
#ifdef MADV_POPULATE_WRITE
    // One call instead of a fault per page while a large file loads; a
    // kernel without it faults the pages in as they are touched.
    size_t had = page_round(size_t(s->list.sized) * sizeof(entry));
    madvise(reinterpret_cast<char*>(s->list.ptr) + had, bytes - had, MADV_POPULATE_WRITE);
#endif
    s->list.sized = static_cast<uint32_t>(std::min(bytes / sizeof(entry), impl->reserved));
    return true;
}

entry* find_locked(configure* s, const char* key)
{
    const KeyIndex& index = *impl_of(s)->index;
    auto it = index.find(std::string_view(key));
    return it == index.end() ? nullptr : &s->list.ptr[it->second];
}

/* Caller holds the write lock. mark: note the change for IsChanged. */
int put_locked(configure* s, const char* key, const char* value, bool mark)
{
    if (!text_ok(key, true) || !text_ok(value, false))
        return -1;
    size_t vlen = strlen(value);
    entry* e = find_locked(s, key);
    if (e) {
        if (e->value_len == vlen && memcmp(e->value, value, vlen) == 0)
            return 0;
    } else {
        if (s->list.used == s->list.sized && !grow_entries(s)) {
            dov_traceout(3, "[configure %s] store full, key %s dropped\n", __func__, key);
            return -1;
        }
        e = &s->list.ptr[s->list.used];
        memset(e, 0, sizeof *e);
        size_t klen = strlen(key);
        memcpy(e->key, key, klen);
        e->key_len = static_cast<uint8_t>(klen);
        try {
            impl_of(s)->index->emplace(std::string_view(e->key, klen), s->list.used);
        } catch (const std::bad_alloc&) {
            return -1;
        }
        ++s->list.used;
    }
    memcpy(e->value, value, vlen);
    e->value[vlen] = '\0';
    e->value_len = static_cast<uint8_t>(vlen);
    if (mark)
        e->status = CONFIGURE_CHANGED;
    return 1;
}

int store_get(configure* s, const char* key, char* buf, int size)
{
    if (!s || !key || !buf || size <= 0)
        return -1;
    ReadLock lk(s);
    entry* e = find_locked(s, key);
    if (!e)
        return -1;
    if (e->value_len >= size) {
        memcpy(buf, e->value, size - 1);
        buf[size - 1] = '\0';
        return -1;
    }
    memcpy(buf, e->value, e->value_len + 1);
    return 0;
}

int store_loop(configure* s, configure_loop_cb cb, void* argv)
{
    if (!s || !cb)
        return -1;
    ReadLock lk(s);
    for (uint32_t i = 0; i < s->list.used; ++i) {
        // Loops of several readers share the read lock; the position is
        // only informative then, but must not be a torn write.
        __atomic_store_n(&s->list.curIdx, i, __ATOMIC_RELAXED);
        if (cb(argv, s->list.ptr[i].key, s->list.ptr[i].value))
            break;
    }
    return 0;
}

int store_put(configure* s, const char* key, const char* value)
{
    if (!s)
        return -1;
    WriteLock lk(s);
    return put_locked(s, key, value, false);
}

entry* store_getparameter(configure* s, const char* key)
{
    if (!s || !key)
        return nullptr;
    ReadLock lk(s);
    return find_locked(s, key);
}

std::string_view trim(std::string_view v)
{
    while (!v.empty() && (v.front() == ' ' || v.front() == '\t'))
        v.remove_prefix(1);
    while (!v.empty() && (v.back() == ' ' || v.back() == '\t' || v.back() == '\r' || v.back() == '\n'))
        v.remove_suffix(1);
    return v;
}

bool key_wanted(const config_keys* keys, std::string_view k)
{
    if (!keys)
        return true;
    for (; keys->k; ++keys)
        if (k == std::string_view(keys->k, keys->klen))
            return true;
    return false;
}

} // namespace

extern "C" {

configure* configure_init(void)
{
    auto* impl = static_cast<StoreImpl*>(calloc(1, sizeof(StoreImpl)));
    if (!impl)
        return nullptr;
    impl->index = new (std::nothrow) KeyIndex;
    if (!impl->index || !reserve_entries(impl)) {
        delete impl->index;
        free(impl);
        return nullptr;
    }
    configure* s = &impl->pub;
    pthread_rwlock_init(&s->lock, nullptr);
    s->get = store_get;
    s->loop = store_loop;
    s->put = store_put;
    s->getparameter = store_getparameter;
    return s;
}

int configure_parse_buf(configure* store, const config_keys* keys, const char* text, size_t len,
                        int* dropped)
{
    if (dropped)
        *dropped = 0;
    if (!store || !text)
        return -1;
    WriteLock lk(store);
    // A first load (empty store) changes nothing anyone has seen yet.
    bool mark = store->list.used != 0;
    std::string_view rest(text, len);
    while (!rest.empty()) {
        size_t end = rest.find('\n');
        std::string_view l = rest.substr(0, end);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        // Entries are C texts: a NUL byte ends the line, as it would end
        // the key or value copied out of it.
        size_t nul = l.find('\0');
        l = trim(l.substr(0, nul));
        if (l.empty() || l.front() == '#' || l.front() == ';')
            continue;
        size_t eq = l.find('=');
        if (eq == std::string_view::npos)
            continue;
        std::string_view k = trim(l.substr(0, eq));
        std::string_view v = trim(l.substr(eq + 1));
        if (v.size() >= 2 && v.front() == '"' && v.back() == '"')
            v = v.substr(1, v.size() - 2);
        if (k.empty() || !key_wanted(keys, k))
            continue;
        std::string ks(k), vs(v);
        if (put_locked(store, ks.c_str(), vs.c_str(), mark) < 0 || nul != std::string_view::npos) {
            if (dropped)
                ++*dropped;
        }
    }
    return 0;
}

int configure_parse(configure* store, const config_keys* keys, const char* path)
{
    if (!store || !path)
        return -1;
    size_t len = 0;
    char* text = read_file_to_buf_len(path, &len);
    if (!text)
        return -1;
    configure_parse_buf(store, keys, text, len, nullptr);
    free(text);
    return 0;
}

void configure_free(configure* store)
{
    if (!store)
        return;
    pthread_rwlock_destroy(&store->lock);
    StoreImpl* impl = impl_of(store);
    munmap(store->list.ptr, page_round(impl->reserved * sizeof(entry)));
    delete impl->index;
    free(impl);
}

config_keys* config_keys_format(const char** keys, uint8_t count)
{
    auto* out = static_cast<config_keys*>(calloc(static_cast<size_t>(count) + 1, sizeof(config_keys)));
    if (!out)
        return nullptr;
    int j = 0;
    for (int i = 0; keys && i < count; ++i) {
        if (!keys[i])
            continue;
        size_t len = strlen(keys[i]);
        out[j].k = keys[i];
        out[j].klen = static_cast<uint8_t>(len > 255 ? 255 : len);
        out[j].ktype = 0;
        ++j;
    }
    return out;
}

int configure_key_IsChanged(configure* store, const config_keys* keys)
{
    if (!store || !keys)
        return -1;
    WriteLock lk(store);
    for (int i = 0; keys[i].k; ++i) {
        std::string k(keys[i].k, keys[i].klen);
        entry* e = find_locked(store, k.c_str());
        if (e && e->status == CONFIGURE_CHANGED) {
            e->status = 0;
            return i;
        }
    }
    return -1;
}

/* Writes the bare form unless the value would not read back that way. */
static int format_line(char* out, size_t size, const char* key, const char* value)
{
    size_t vlen = strlen(value);
    bool quote = vlen && (value[0] == ' ' || value[0] == '\t' || value[0] == '"' ||
                          value[vlen - 1] == ' ' || value[vlen - 1] == '\t');
    return snprintf(out, size, quote ? "%s = \"%s\"\n" : "%s=%s\n", key, value);
}

int loop_2_conf(void* file, const char* key, const char* value)
{
    if (!file || !key || !value)
        return 0;
    char line[2 * CONFIGURE_TEXT_MAX + 8];
    format_line(line, sizeof line, key, value);
    fputs(line, static_cast<FILE*>(file));
    return 0;
}

int loop_2_buf(void* loop_buf, const char* key, const char* value)
{
    auto* lb = static_cast<loop_buf_s*>(loop_buf);
    if (!lb || !lb->buf || !key || !value)
        return 0;
    char line[2 * CONFIGURE_TEXT_MAX + 8];
    int n = format_line(line, sizeof line, key, value);
    if (n < 0 || lb->used < 0 || lb->used + n + 1 > lb->buf_size) {
        lb->ret = 1;
        return 1;
    }
    memcpy(lb->buf + lb->used, line, static_cast<size_t>(n) + 1);
    lb->used += n;
    return 0;
}

} // extern "C"
