#include "para_internal.h"
#include "para_sys.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <string>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace para {

bool make_path(char (&out)[PARA_PATH_MAX], const char* dir, const char* name, const char* suffix, Caller who)
{
    out[0] = '\0';
    int n = cat_file_name(out, PARA_PATH_MAX, dir, name);
    if (n >= 0 && suffix) {
        size_t sl = std::strlen(suffix);
        if (static_cast<size_t>(n) + sl < PARA_PATH_MAX)
            std::memcpy(out + n, suffix, sl + 1);
        else
            n = -1;
    }
    if (n < 0) {
        out[0] = '\0';
        PARA_LOG_FN(PARA_ERR, who, "path too long: %s/%s%s\n", dir ? dir : "", name ? name : "",
                    suffix ? suffix : "");
        return false;
    }
    return true;
}

/* ---- guarded reads ------------------------------------------------------ */

namespace {

bool passing(int err)
{
    return err == EINTR || err == EAGAIN || err == EWOULDBLOCK || err == EMFILE || err == ENFILE ||
           err == ENOMEM;
}

/* One attempt. A size that changed under the reader (a writer rewriting in
 * place) counts as passing: EAGAIN. */
FileText read_once(const char* path)
{
    FileText f;
    auto fail = [&f](ReadFault why, int err) {
        f.text.reset();
        f.fault = why;
        f.err = err;
        return std::move(f);
    };
    int fd = sys::calls.open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC, 0);
    if (fd < 0)
        // ENOTDIR: a directory on the way is a file, so this one cannot exist.
        return fail(errno == ENOENT || errno == ENOTDIR ? ReadFault::missing : ReadFault::unreadable,
                    errno);
    struct Closer {
        int fd;
        ~Closer() { sys::calls.close(fd); }
    } closer{fd};
    struct stat st{};
    if (sys::calls.fstat(fd, &st) != 0)
        return fail(ReadFault::unreadable, errno);
    if (!S_ISREG(st.st_mode))
        return fail(ReadFault::not_regular, 0);
    if (static_cast<unsigned long long>(st.st_size) > kReadCap)
        return fail(ReadFault::too_big, 0);
    // One byte more than fstat told lets a file that grew while read show.
    size_t want = static_cast<size_t>(st.st_size);
    f.text.reset(static_cast<char*>(malloc(want + 2)));
    if (!f.text)
        return fail(ReadFault::unreadable, ENOMEM);
    size_t got = 0;
    for (;;) {
        ssize_t n = sys::calls.read(fd, f.text.get() + got, want + 1 - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return fail(ReadFault::unreadable, errno);
        if (n == 0 || (got += static_cast<size_t>(n)) > want)
            break;
    }
    if (got != want)
        return fail(ReadFault::unreadable, EAGAIN);
    f.text.get()[got] = '\0';
    f.len = got;
    return f;
}

} // namespace

FileText read_guarded(const char* path)
{
    constexpr int kAttempts = 5;
    FileText f;
    if (!path || !*path) {
        f.fault = ReadFault::missing;
        f.err = ENOENT;
        return f;
    }
    int retries = 0;
    for (int attempt = 1;; ++attempt) {
        f = read_once(path);
        if (f.fault != ReadFault::unreadable || !passing(f.err) || attempt == kAttempts)
            break;
        ++retries;
        if (f.err != EINTR)
            usleep(1000u << attempt); // 2, 4, 8, 16 ms: time for descriptors or memory to free up
    }
    f.retries = retries;
    return f;
}

std::string read_cause(const FileText& f)
{
    switch (f.fault) {
    case ReadFault::none: return "read";
    case ReadFault::missing: return "missing";
    case ReadFault::not_regular: return "not a regular file";
    case ReadFault::too_big: return "larger than " + std::to_string(kReadCap) + " bytes";
    case ReadFault::unreadable:
        return f.err == EAGAIN ? "it kept changing while read" : strerror(f.err);
    }
    return "?";
}

FileText read_file(para::Caller func, const char* path)
{
    FileText f = read_guarded(path);
    if (f.fault != ReadFault::none && f.fault != ReadFault::missing)
        PARA_LOG_FN(PARA_ERR, func, "%s cannot be read: %s\n", path, read_cause(f).c_str());
    else if (f.retries)
        PARA_LOG_FN(PARA_ERR, func, "%s read after %d failed attempts\n", path, f.retries);
    return f;
}

CurLoad read_current(para::Caller func, const char* path, FileText& out)
{
    if (!journal_replay(func, path)) {
        PARA_LOG_FN(PARA_ERR, func, "%s: an interrupted rewrite could not be finished; "
                    "the file is left as it is and not written\n", path);
        out = FileText{};
        out.fault = ReadFault::unreadable;
        return CurLoad::blocked;
    }
    out = read_guarded(path);
    if (out.fault == ReadFault::none) {
        if (out.retries)
            PARA_LOG_FN(PARA_ERR, func, "%s read after %d failed attempts\n", path, out.retries);
        return CurLoad::read;
    }
    if (out.fault == ReadFault::missing)
        return CurLoad::absent;
    PARA_LOG_FN(PARA_ERR, func, "%s cannot be read (%s): defaults apply, the file is kept "
                "until a value changes\n", path, read_cause(out).c_str());
    return CurLoad::unreadable;
}

int CurrentFile::writable(para::Caller func, const char* path, bool changed)
{
    int st = state_.load();
    if (st == kFree)
        return 1;
    if (st == kNever || !changed) {
        PARA_LOG_FN(changed ? PARA_ERR : PARA_INFO, func, "%s was not read, left as it is\n", path);
        return changed ? -1 : 0;
    }
    std::string bad = std::string(path) + ".bad";
    if (durable_rename(func, path, bad.c_str()) != 0 && errno != ENOENT) {
        PARA_LOG_FN(PARA_ERR, func, "%s could not be moved aside: not written\n", path);
        return -1;
    }
    PARA_LOG_FN(PARA_INFO, func, "%s moved aside to %s\n", path, bad.c_str());
    state_ = kFree;
    return 1;
}

CurLoad parse_conf_file(para::Caller func, configure* store, const config_keys* keys,
                        const char* path, bool current, FileText* text)
{
    FileText f;
    CurLoad r;
    if (current) {
        r = read_current(func, path, f);
    } else {
        f = read_file(func, path); // its callers only ask whether it was read
        r = f.fault == ReadFault::none ? CurLoad::read : CurLoad::absent;
    }
    if (r != CurLoad::read)
        return r;
    int dropped = 0;
    configure_parse_buf(store, keys, f.text.get(), f.len, &dropped);
    if (dropped > 0) {
        PARA_LOG_FN(PARA_ERR, func, "%s: %d line(s) too long or malformed to keep\n", path, dropped);
        if (current)
            keep_bad_copy(func, path, f.text.get(), f.len);
    }
    if (text)
        *text = std::move(f);
    return r;
}

JsonPtr load_json_file(para::Caller fn, const char* path, bool* unreadable, bool blank_line,
                       bool keep_bad, CurLoad* how)
{
    if (unreadable)
        *unreadable = false;
    FileText f;
    if (keep_bad) {
        CurLoad r = read_current(fn, path, f);
        if (how)
            *how = r;
    } else {
        f = read_file(fn, path);
    }
    if (!f.text) {
        if (unreadable)
            *unreadable = true;
        return nullptr;
    }
    JsonPtr json(cJSON_Parse(f.text.get()));
    if (!json) {
        // The position points into the text: print it before the text is freed.
        const char* at = cJSON_GetErrorPtr();
        if (blank_line)
            PARA_LOG_FN(PARA_INFO, fn, "Error before: [%s]\n\n", at ? at : "(null)");
        else
            PARA_LOG_FN(PARA_INFO, fn, "Error before: [%s]\n", at ? at : "(null)");
        if (keep_bad)
            keep_bad_copy(fn, path, f.text.get(), f.len);
    }
    return json;
}

void keep_bad_copy(para::Caller func, const char* path, const char* bytes, size_t len)
{
    std::string bad = std::string(path) + ".bad";
    if (!bytes || durable_write(func, bad.c_str(), bytes, len) != 0) {
        PARA_LOG_FN(PARA_ERR, func, "%s cannot be read as settings and could not be kept aside\n",
                    path);
        return;
    }
    PARA_LOG_FN(PARA_ERR, func, "%s cannot be read as settings, kept as %s\n", path, bad.c_str());
}

void keep_bad_copy(para::Caller func, const char* path)
{
    FileText f = read_guarded(path);
    keep_bad_copy(func, path, f.text.get(), f.len);
}

int format_decimal(long long v, char (&buf)[24])
{
    char tmp[24];
    char* p = tmp + sizeof tmp;
    unsigned long long u = v < 0 ? 0ULL - static_cast<unsigned long long>(v) : static_cast<unsigned long long>(v);
    do {
        *--p = static_cast<char>('0' + u % 10);
        u /= 10;
    } while (u);
    if (v < 0)
        *--p = '-';
    int n = static_cast<int>(tmp + sizeof tmp - p);
    std::memcpy(buf, p, static_cast<size_t>(n));
    buf[n] = '\0';
    return n;
}

int format_whole(double d, char (&buf)[24])
{
    if (!(d == std::trunc(d) && std::fabs(d) < 1e15))
        return -1;
    if (d == 0 && std::signbit(d)) {
        std::memcpy(buf, "-0", 3);
        return 2;
    }
    return format_decimal(static_cast<long long>(d), buf);
}

namespace {

struct Printer {
    std::string out;
    bool ok = true;

    void tabs(int n) { out.append(static_cast<size_t>(n), '\t'); }

    void string(const char* s)
    {
        out += '"';
        if (s) {
            for (const unsigned char* p = reinterpret_cast<const unsigned char*>(s); *p; ++p) {
                unsigned char c = *p;
                switch (c) {
                case '"': out += "\\\""; break;
                case '\\': out += "\\\\"; break;
                case '\b': out += "\\b"; break;
                case '\f': out += "\\f"; break;
                case '\n': out += "\\n"; break;
                case '\r': out += "\\r"; break;
                case '\t': out += "\\t"; break;
                default:
                    if (c < 32) {
                        char esc[8];
                        snprintf(esc, sizeof esc, "\\u%04x", c);
                        out += esc;
                    } else {
                        out += static_cast<char>(c);
                    }
                }
            }
        }
        out += '"';
    }

    void number(const cJSON* item)
    {
        double d = item->valuedouble;
        if (std::isnan(d) || std::isinf(d)) {
            out += "null";
            return;
        }
        // Whole values print as their digits under "%1.15g": the common
        // case, done without printf.
        char digits[24];
        int n = format_whole(d, digits);
        if (n >= 0) {
            out.append(digits, static_cast<size_t>(n));
        } else {
            // Rare: leave the exact digits to the JSON library's own rule.
            char* text = cJSON_PrintUnformatted(item);
            if (!text) {
                ok = false;
                return;
            }
            out += text;
            free(text);
        }
    }

    void value(const cJSON* item, int depth)
    {
        switch (item->type & 0xFF) {
        case cJSON_NULL: out += "null"; break;
        case cJSON_False: out += "false"; break;
        case cJSON_True: out += "true"; break;
        case cJSON_Number: number(item); break;
        case cJSON_String: string(item->valuestring); break;
        case cJSON_Raw:
            if (!item->valuestring)
                ok = false;
            else
                out += item->valuestring;
            break;
        case cJSON_Array:
            out += '[';
            for (const cJSON* c = item->child; c && ok; c = c->next) {
                value(c, depth + 1);
                if (c->next)
                    out += ", ";
            }
            out += ']';
            break;
        case cJSON_Object:
            out += "{\n";
            for (const cJSON* c = item->child; c && ok; c = c->next) {
                tabs(depth + 1);
                string(c->string);
                out += ":\t";
                value(c, depth + 1);
                if (c->next)
                    out += ',';
                out += '\n';
            }
            tabs(depth);
            out += '}';
            break;
        default: ok = false;
        }
    }
};

} // namespace

char* print_json(const cJSON* json)
{
    if (!json)
        return nullptr;
    Printer p;
    p.out.reserve(256);
    p.value(json, 0);
    if (!p.ok)
        return nullptr;
    char* text = static_cast<char*>(malloc(p.out.size() + 1));
    if (text)
        memcpy(text, p.out.c_str(), p.out.size() + 1);
    return text;
}

int write_json_file(const char* path, const cJSON* json, para::Caller func)
{
    CharPtr text(print_json(json));
    if (!text) {
        PARA_LOG_FN(PARA_ERR, func, "%s not written: the values cannot be printed\n", path);
        return kWriteFailed;
    }
    return durable_write(func, path, text.get(), std::strlen(text.get()) + 1);
}

int json_int(const cJSON* item)
{
    if (!item)
        return 0;
    if (cJSON_IsNumber(item)) {
        double d = item->valuedouble;
        if (std::isnan(d))
            return 0;
        if (d >= static_cast<double>(INT_MAX))
            return INT_MAX;
        if (d <= static_cast<double>(INT_MIN))
            return INT_MIN;
        return static_cast<int>(d);
    }
    if (cJSON_IsTrue(item))
        return 1;
    return 0;
}

int name_match_last(const char* text, const char* const* names, int count)
{
    if (!text || !names)
        return -1;
    size_t len = std::strlen(text);
    int found = -1;
    for (int i = 0; i < count; ++i)
        if (names[i] && std::strncmp(text, names[i], len) == 0 && std::strlen(names[i]) >= len)
            found = i;
    return found;
}

int name_lookup_num(const char* text, const char* const* names, int count)
{
    if (!text)
        return -1000;
    size_t len = std::strlen(text);
    for (int i = 0; i < count; ++i)
        if (names[i] && std::strncmp(text, names[i], len) == 0 && std::strlen(names[i]) >= len)
            return i;
    if (text[0] >= '0' && text[0] <= '9') {
        // Saturate like the integer form of file values instead of overflowing.
        long v = std::strtol(text, nullptr, 10);
        return v > INT_MAX ? INT_MAX : static_cast<int>(v);
    }
    return -1000;
}

int name_index_exact(const char* text, const char* const* names, int count)
{
    if (!text)
        return -1;
    for (int i = 0; i < count; ++i)
        if (names[i] && std::strcmp(text, names[i]) == 0)
            return i;
    return -1;
}

std::atomic<int64_t> clock_offset_ns{0};
std::atomic<int64_t> clock_frozen_ns{0};

int64_t ChangeState::now_ns()
{
    int64_t frozen = clock_frozen_ns.load(std::memory_order_relaxed);
    timespec ts{};
    if (!frozen)
        clock_gettime(CLOCK_MONOTONIC, &ts);
    return (frozen ? frozen : static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec) +
           clock_offset_ns.load(std::memory_order_relaxed);
}

void ChangeState::mark()
{
    int64_t now = now_ns();
    stamp_ns.store(now, std::memory_order_relaxed);
    if (flag.load(std::memory_order_relaxed) == 0)
        first_ns.store(now, std::memory_order_relaxed);
    flag.store(1, std::memory_order_release);
}

bool ChangeState::due(int delay_ms) const
{
    if (flag.load(std::memory_order_acquire) != 1)
        return false;
    int64_t retry = retry_ns.load(std::memory_order_relaxed);
    if (retry)
        return now_ns() >= retry;
    if (delay_ms <= 0)
        return true;
    int64_t delay = static_cast<int64_t>(delay_ms) * 1000000;
    int64_t stamp = stamp_ns.load(std::memory_order_relaxed);
    int64_t first = first_ns.load(std::memory_order_relaxed);
    int64_t now = now_ns();
    return now - stamp >= delay || now - first >= 10 * delay;
}

void ChangeState::saved(int result, int delay_ms)
{
    if (result == 0) {
        backoff_ms.store(0, std::memory_order_relaxed);
        retry_ns.store(0, std::memory_order_relaxed);
        return;
    }
    constexpr int kMaxBackoffMs = 60000;
    int b = backoff_ms.load(std::memory_order_relaxed);
    b = b <= 0 ? std::max(delay_ms, 1) : std::min(b * 2, kMaxBackoffMs);
    b = std::min(b, kMaxBackoffMs);
    backoff_ms.store(b, std::memory_order_relaxed);
    retry_ns.store(now_ns() + static_cast<int64_t>(b) * 1000000, std::memory_order_relaxed);
    // The first unsaved change keeps its time: it is still not on storage.
    flag.store(1, std::memory_order_release);
}

void stamp_to_timespec(int64_t ns, struct timespec* ts)
{
    if (!ts)
        return;
    // Setters on several threads may stamp at once; each field stays whole.
    __atomic_store_n(&ts->tv_sec, static_cast<time_t>(ns / 1000000000), __ATOMIC_RELAXED);
    __atomic_store_n(&ts->tv_nsec, static_cast<long>(ns % 1000000000), __ATOMIC_RELAXED);
}

} // namespace para
