/* Protocol converter "www": the web server's form requests to ordinary
 * get/set requests and the replies back to form text, both driven by the
 * mapping file in para_config. Runs only on the worker thread. */
#include "www2json.h"

#include <algorithm>
#include <climits>
#include <cmath>

namespace {

/* 8 bits on purpose: the web server matches replies by this id and expects
 * it to wrap from 255 to 0. */
uint8_t msg_id;

/* Module entry where the latest search by form field stopped; a greedy
 * search goes on after it. Points into para_config, which never changes
 * once the worker runs. */
cJSON* child;

void put_err(char* err, int size, const char* fmt, const char* arg)
{
    if (err && size >= 2)
        std::snprintf(err, static_cast<size_t>(size) - 1, fmt, arg);
}

char* string_at(const cJSON* array, int index)
{
    cJSON* item = cJSON_GetArrayItem(array, index);
    return cJSON_IsString(item) ? item->valuestring : nullptr;
}

bool is_mark(const char* mark, std::string_view want)
{
    return para::same(mark, want);
}

/* Thousands typed in the form: integer part of value x 1000, saturated the
 * way every number read from a request is. */
int form_thousands(const char* value)
{
    cJSON number{};
    number.type = cJSON_Number;
    number.valuedouble = std::strtod(value, nullptr) * 1000.0;
    return para::json_int(&number);
}

/* Leading decimal integer, 0 when there is none (the web server sends
 * numbers as typed; anything else stays the module's problem). */
long long leading_int(const char* text)
{
    return std::strtoll(text, nullptr, 10);
}

int form_number(const char* value, const char* mark)
{
    if (is_mark(mark, "K"))
        return form_thousands(value);
    long long v = leading_int(value);
    if (is_mark(mark, "P"))
        v -= 1;
    return static_cast<int>(std::clamp<long long>(v, INT_MIN, INT_MAX));
}

cJSON* new_request(const char* type, const char* name)
{
    ++msg_id;
    cJSON* req = cJSON_CreateObject();
    cJSON_AddStringToObject(req, "msg_from", "www");
    cJSON_AddStringToObject(req, "msg_type", type);
    cJSON_AddStringToObject(req, "msg_name", name);
    cJSON_AddNumberToObject(req, "msg_id", msg_id);
    return req;
}

/* Fixed-room copy of one form token; overlong tokens are refused. */
bool take_token(char (&out)[WWW_FIELD_MAX], std::string_view token)
{
    if (token.size() >= WWW_FIELD_MAX)
        return false;
    std::memcpy(out, token.data(), token.size());
    out[token.size()] = '\0';
    return true;
}

void store_value(para::Caller fn, cJSON* req, const json_char_p& hit, const char* mark, const char* value)
{
    cJSON* module = cJSON_GetObjectItemCaseSensitive(req, hit.item_name);
    if (!module) {
        module = cJSON_CreateObject();
        cJSON_AddItemToObject(req, hit.item_name, module);
    } else if (!cJSON_IsObject(module)) {
        PARA_LOG_FN(PARA_ERR, fn, "mapping entry %s clashes with a request key\n", hit.item_name);
        return;
    }
    cJSON* item = para::same(hit.is_string, "S") ? cJSON_CreateString(value)
                                                 : cJSON_CreateNumber(form_number(value, mark));
    /* A field given twice adds a second member: each value reaches the
     * module's write in the order typed. */
    cJSON_AddItemToObject(module, hit.json_name, item);
}

void add_form_pair(para::Caller fn, cJSON* req, std::string_view field, std::string_view value)
{
    char name[WWW_FIELD_MAX];
    char text[WWW_FIELD_MAX];
    if (!take_token(name, field) || !take_token(text, value)) {
        PARA_LOG_FN(PARA_ERR, fn, "form pair too long, ignored: %.*s\n",
                 static_cast<int>(std::min<size_t>(field.size(), WWW_FIELD_MAX - 1)), field.data());
        return;
    }
    char* mark = nullptr;
    json_char_p hit = get_json_name(name, &mark, 0);
    const bool greedy = is_mark(mark, "Greedy");
    while (hit.item_name) {
        store_value(fn, req, hit, mark, text);
        if (!greedy)
            break;
        hit = get_json_name(name, &mark, 1);
    }
}

} // namespace

/* "%.1f" of the single-precision thousands, as printf prints it. Ten times a
 * float is exact in double, so rounding it half to even (the default
 * rounding mode, which printf follows too) gives printf's digit. */
void www_format_thousands(int v, char (&out)[48])
{
    const float f = static_cast<float>(v) / 1000;
    const double tenths = std::nearbyint(std::fabs(static_cast<double>(f) * 10.0));
    const long long r = static_cast<long long>(tenths);
    char whole[24];
    int n = para::format_decimal(r / 10, whole);
    size_t at = 0;
    if (std::signbit(f))
        out[at++] = '-';
    std::memcpy(out + at, whole, static_cast<size_t>(n));
    at += static_cast<size_t>(n);
    out[at++] = '.';
    out[at++] = static_cast<char>('0' + r % 10);
    out[at] = '\0';
}

/* "%.2f" of a double: whole numbers (what modules answer) without printf. */
void www_format_hundredths(double d, char (&out)[48])
{
    char whole[24];
    int n = para::format_whole(d, whole);
    if (n >= 0) {
        std::memcpy(out, whole, static_cast<size_t>(n));
        std::memcpy(out + n, ".00", 4);
        return;
    }
    std::snprintf(out, sizeof out, "%.2f", d);
}

namespace {

/* One pair of a read reply, cut to WWW_PAIR_MAX - 1 characters; 0 when the
 * member's type has no form. */
int format_pair(para::Caller fn, char (&out)[WWW_PAIR_MAX], const char* field, const cJSON* member,
                const char* mark, bool first)
{
    char number[48];
    char digits[24];
    const char* shown = number;
    if (cJSON_IsString(member)) {
        shown = member->valuestring;
    } else if (cJSON_IsNumber(member)) {
        // Integers are most of a page; printf only where decimals are shown.
        const int v = para::json_int(member);
        shown = digits;
        if (is_mark(mark, "K") && v % 1000 != 0) {
            www_format_thousands(v, number);
            shown = number;
        } else if (is_mark(mark, "K")) {
            para::format_decimal(v / 1000, digits);
        } else if (is_mark(mark, "P")) {
            para::format_decimal(static_cast<long long>(v) + 1, digits);
        } else if (is_mark(mark, "F")) {
            www_format_hundredths(member->valuedouble, number);
            shown = number;
        } else {
            para::format_decimal(v, digits);
        }
    } else {
        PARA_LOG_FN(PARA_INFO, fn, "%s has no form value\n", field);
        return 0;
    }
    size_t n = 0;
    auto put = [&](const char* text) {
        size_t len = std::min(std::strlen(text), static_cast<size_t>(WWW_PAIR_MAX - 1) - n);
        std::memcpy(out + n, text, len);
        n += len;
    };
    if (!first)
        put("&");
    put(field);
    put("=");
    put(shown ? shown : "");
    out[n] = '\0';
    return static_cast<int>(n);
}

} // namespace

struct json_char_p get_json_name(char* http_name, char** sub_describe, int greedy)
{
    json_char_p found{};
    cJSON* start = greedy ? (child ? child->next : nullptr) : (para_config ? para_config->child : nullptr);
    PARA_LOG(PARA_INFO, "search %s in %s\n", http_name ? http_name : "(null)",
             start && start->string ? start->string : "null");
    child = nullptr;
    if (!http_name)
        return found;
    for (cJSON* entry = start; entry; entry = entry->next) {
        if (!cJSON_IsObject(entry))
            continue;
        for (cJSON* m = entry->child; m; m = m->next) {
            const char* field = cJSON_IsArray(m) ? string_at(m, 0) : nullptr;
            if (!field || std::strcmp(field, http_name) != 0)
                continue;
            child = entry;
            found = {entry->string, m->string, string_at(m, 1)};
            if (char* mark = string_at(m, 2); mark && sub_describe)
                *sub_describe = mark;
            return found;
        }
    }
    return found;
}

namespace {

/* get_http_name inside an entry already looked up (entry may be null). */
char* http_name_in(para::Caller fn, cJSON* entry, const char* item_name, const char* json_name,
                   char** value_type, char** sub_describe)
{
    if (cJSON_IsObject(entry) && json_name) {
        for (cJSON* m = entry->child; m; m = m->next) {
            if (!cJSON_IsArray(m) || !m->child || !para::same(m->string, json_name))
                continue;
            char* field = string_at(m, 0);
            if (!field)
                break;
            if (char* kind = string_at(m, 1); kind && value_type)
                *value_type = kind;
            if (char* mark = string_at(m, 2); mark && sub_describe)
                *sub_describe = mark;
            return field;
        }
    }
    PARA_LOG_FN(PARA_INFO, fn, "can not find %s.%s\n", item_name ? item_name : "(null)",
                json_name ? json_name : "(null)");
    return nullptr;
}

} // namespace

char* get_http_name(char* item_name, char* json_name, char** value_type, char** sub_describe)
{
    cJSON* entry = item_name ? cJSON_GetObjectItem(para_config, item_name) : nullptr;
    return http_name_in(__func__, entry, item_name, json_name, value_type, sub_describe);
}

cJSON* get_http2json(cJSON* jsonIn)
{
    const char* name = cJSON_GetStringValue(cJSON_GetObjectItem(jsonIn, "msg_name"));
    if (!name)
        return nullptr;
    para::JsonPtr req(new_request("get", name));
    cJSON* page = cJSON_GetObjectItem(para_config, name);
    if (!cJSON_IsArray(page)) {
        PARA_LOG(PARA_INFO, "could not find %s in json\n", name);
        return nullptr;
    }
    cJSON* module;
    cJSON_ArrayForEach(module, page)
    {
        cJSON* entry = cJSON_IsString(module) ? cJSON_GetObjectItem(para_config, module->valuestring)
                                              : nullptr;
        if (!cJSON_IsObject(entry))
            continue;
        cJSON* members = cJSON_CreateArray();
        for (cJSON* m = entry->child; m; m = m->next)
            cJSON_AddItemToArray(members, cJSON_CreateString(m->string));
        if (!entry->child)
            cJSON_AddItemToArray(members, cJSON_CreateString("all"));
        cJSON_AddItemToObject(req.get(), module->valuestring, members);
    }
    return req.release();
}

cJSON* set_http2json(cJSON* jsonIn)
{
    const char* data = cJSON_GetStringValue(cJSON_GetObjectItem(jsonIn, "data"));
    const char* name = cJSON_GetStringValue(cJSON_GetObjectItem(jsonIn, "msg_name"));
    if (!data || !name)
        return nullptr;
    para::JsonPtr req(new_request("set", name));
    const std::string_view text(data);
    if (text.find('=') == std::string_view::npos)
        return nullptr;
    /* A pair without "=" glues onto the next field name; a trailing one
     * (or a trailing "&") ends the walk. The web server relies on both. */
    size_t pos = 0;
    for (;;) {
        const size_t eq = text.find('=', pos);
        const size_t amp = text.find('&', eq + 1);
        const size_t value_len = amp == std::string_view::npos ? std::string_view::npos : amp - eq - 1;
        add_form_pair(__func__, req.get(), text.substr(pos, eq - pos), text.substr(eq + 1, value_len));
        if (amp == std::string_view::npos)
            break;
        pos = amp + 1;
        if (text.find('=', pos) == std::string_view::npos)
            break;
    }
    return req.release();
}

char* get_json2http(cJSON* json)
{
    size_t size = WWW_TEXT_START;
    para::CharPtr text(static_cast<char*>(std::malloc(size)));
    if (!text)
        return nullptr;
    size_t len = 0;
    text.get()[0] = '\0';
    for (cJSON* module = json ? json->child : nullptr; module; module = module->next) {
        if (!cJSON_IsObject(module))
            continue;
        // One mapping lookup per module, not per member.
        cJSON* entry = module->string ? cJSON_GetObjectItem(para_config, module->string) : nullptr;
        for (cJSON* m = module->child; m; m = m->next) {
            char* kind = nullptr;
            char* mark = nullptr;
            const char* field = http_name_in("get_http_name", entry, module->string, m->string, &kind,
                                             &mark);
            char pair[WWW_PAIR_MAX];
            const int n = field ? format_pair(__func__, pair, field, m, mark, len == 0) : 0;
            if (n == 0)
                continue;
            if (len + WWW_PAIR_MAX > size - 1) {
                const size_t grown = size + static_cast<size_t>(n) + 512;
                char* bigger = grown <= WWW_TEXT_LIMIT ? static_cast<char*>(std::realloc(text.get(), grown))
                                                       : nullptr;
                if (!bigger) {
                    PARA_LOG(PARA_ERR, "form text cannot grow past %zu bytes\n", size);
                    return nullptr;
                }
                (void)text.release();
                text.reset(bigger);
                size = grown;
            }
            std::memcpy(text.get() + len, pair, static_cast<size_t>(n) + 1);
            len += static_cast<size_t>(n);
        }
    }
    if (len == 0)
        std::snprintf(text.get(), size, "%s=%s", "result", "success");
    return text.release();
}

extern "C" {

int para_init_www(void)
{
    return 0;
}

void para_exit_www(void) {}

void* para_convert_www_opt(char* in, char* err_msg, int err_msg_buf_size)
{
    if (!para_config) {
        put_err(err_msg, err_msg_buf_size, "%s", "para_config=null");
        return nullptr;
    }
    /* in is the receive buffer: never read past it, terminated or not. */
    para::JsonPtr req(in ? cJSON_ParseWithLength(in, strnlen(in, PARA_MESSAGE_BUF)) : nullptr);
    if (!req) {
        put_err(err_msg, err_msg_buf_size, "%s", "cJSON_Parse=null");
        return nullptr;
    }
    const char* type = cJSON_GetStringValue(cJSON_GetObjectItem(req.get(), "msg_type"));
    if (para::same(type, "set"))
        return set_http2json(req.get());
    if (!para::same(type, "get"))
        return nullptr;
    cJSON* out = get_http2json(req.get());
    if (!out) {
        const char* name = cJSON_GetStringValue(cJSON_GetObjectItem(req.get(), "msg_name"));
        put_err(err_msg, err_msg_buf_size, "%s=null", name ? name : "msg_name");
    }
    return out;
}

char* para_reverse_convert_www_opt(void* json)
{
    return json ? get_json2http(static_cast<cJSON*>(json)) : nullptr;
}

} // extern "C"
