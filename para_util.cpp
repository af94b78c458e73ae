#include "para_internal.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <string>

namespace para {

bool make_path(char (&out)[PARA_PATH_MAX], const char* dir, const char* name, const char* suffix)
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
        PARA_LOG(PARA_ERR, "path too long: %s/%s%s\n", dir ? dir : "", name ? name : "",
                 suffix ? suffix : "");
        return false;
    }
    return true;
}

JsonPtr load_json_file(const char* fn, const char* path, bool* unreadable, bool blank_line)
{
    if (unreadable)
        *unreadable = false;
    CharPtr text(read_file_to_buf(path));
    if (!text) {
        if (unreadable)
            *unreadable = true;
        return nullptr;
    }
    JsonPtr json(cJSON_Parse(text.get()));
    if (!json) {
        // The position points into text: print it before text is freed.
        const char* at = cJSON_GetErrorPtr();
        if (blank_line)
            PARA_LOG_FN(PARA_INFO, fn, "Error before: [%s]\n\n", at ? at : "(null)");
        else
            PARA_LOG_FN(PARA_INFO, fn, "Error before: [%s]\n", at ? at : "(null)");
    }
    return json;
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

int write_json_file(const char* path, const cJSON* json)
{
    CharPtr text(print_json(json));
    if (!text)
        return -1;
    FILE* f = std::fopen(path, "wb");
    if (!f) {
        PARA_LOG(PARA_ERR, "open %s for writing: %s\n", path, strerror(errno));
        return 0;
    }
    std::fwrite(text.get(), 1, std::strlen(text.get()) + 1, f);
    int r = std::fflush(f);
    if (std::ferror(f))
        r = -1;
    int err = errno;
    if (std::fclose(f) != 0 && r == 0) {
        err = errno;
        r = -1;
    }
    if (r != 0)
        PARA_LOG(PARA_ERR, "writing %s failed: %s\n", path, strerror(err));
    return r;
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

namespace {

// The coarse clock costs a few nanoseconds instead of a few dozen, which
// matters on every setter call; its tick is far below any save delay.
int64_t coarse_tick_ms()
{
    static const int64_t tick = [] {
        timespec res{};
        if (clock_getres(CLOCK_MONOTONIC_COARSE, &res) != 0)
            return static_cast<int64_t>(10);
        return static_cast<int64_t>(res.tv_sec) * 1000 + (res.tv_nsec + 999999) / 1000000;
    }();
    return tick;
}

} // namespace

int64_t ChangeState::now_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void ChangeState::mark()
{
    stamp_ms.store(now_ms(), std::memory_order_relaxed);
    flag.store(1, std::memory_order_release);
}

bool ChangeState::due(int delay_ms) const
{
    if (flag.load(std::memory_order_acquire) != 1)
        return false;
    if (delay_ms <= 0)
        return true;
    // Both readings may lag the true time by up to one tick (and the
    // millisecond rounding); waiting that much longer keeps a save from ever
    // coming before the delay is over.
    return now_ms() - stamp_ms.load(std::memory_order_relaxed) >= delay_ms + coarse_tick_ms() + 1;
}

void stamp_to_timespec(int64_t ms, struct timespec* ts)
{
    if (!ts)
        return;
    // Setters on several threads may stamp at once; each field stays whole.
    __atomic_store_n(&ts->tv_sec, static_cast<time_t>(ms / 1000), __ATOMIC_RELAXED);
    __atomic_store_n(&ts->tv_nsec, static_cast<long>((ms % 1000) * 1000000), __ATOMIC_RELAXED);
}

} // namespace para
