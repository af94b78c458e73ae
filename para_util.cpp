#include "para_internal.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>

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
        PARA_LOG(PARA_ERR, "path too long: %s/%s%s", dir ? dir : "", name ? name : "",
                 suffix ? suffix : "");
        return false;
    }
    return true;
}

JsonPtr load_json_file(const char* path, bool* unreadable, const char* err_tail)
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
        const char* at = cJSON_GetErrorPtr();
        PARA_LOG(PARA_INFO, "Error before: [%s]%s", at ? at : "", err_tail ? err_tail : "");
    }
    return json;
}

int write_json_file(const char* path, const cJSON* json, bool* stored)
{
    if (stored)
        *stored = false;
    CharPtr text(cJSON_Print(json));
    if (!text)
        return -1;
    FILE* f = std::fopen(path, "wb");
    if (!f) {
        PARA_LOG(PARA_ERR, "open %s for writing: %s", path, strerror(errno));
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
        PARA_LOG(PARA_ERR, "writing %s failed: %s", path, strerror(err));
    else if (stored)
        *stored = true;
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

int64_t ChangeState::now_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void ChangeState::mark()
{
    stamp_ms.store(now_ms());
    flag.store(1);
}

bool ChangeState::due(int delay_ms) const
{
    if (flag.load(std::memory_order_relaxed) != 1)
        return false;
    return now_ms() - stamp_ms.load() >= delay_ms;
}

void stamp_to_timespec(int64_t ms, struct timespec* ts)
{
    if (!ts)
        return;
    ts->tv_sec = static_cast<time_t>(ms / 1000);
    ts->tv_nsec = static_cast<long>((ms % 1000) * 1000000);
}

} // namespace para
