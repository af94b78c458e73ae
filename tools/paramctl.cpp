// paramctl: command-line client of the parameter server (UDP port 6800).
// Nothing fails silently: every write is read back, and whatever the server
// left out or refused is named on stderr with a non-zero exit status.
#include "para.h"

#include <arpa/inet.h>
#include <getopt.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <ctime>
#include <map>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

// Exit status, as documented in --help.
enum Exit { kOk = 0, kError = 1, kUsage = 2, kNoReply = 3 };

struct Options {
    std::string host = "127.0.0.1";
    sockaddr_storage to{}; // IPv4, or IPv6 ("[::ffff:a.b.c.d]" reaches an IPv4 server)
    socklen_t to_len = 0;
    int port = PARA_SERVER_PORT;
    int timeout_ms = 1000;
    bool raw_json = false;
};

struct Command {
    const char* name;
    const char* synopsis;
    const char* summary;
    const char* help;
    int (*run)(const Options&, int argc, char** argv);
};

void main_usage(FILE* out);
const Command* find_command(const char* name);
bool parse_int(const char* text, int lo, int hi, int* out);

struct JsonDeleter {
    void operator()(cJSON* j) const { cJSON_Delete(j); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

int fail(const char* fmt, const char* arg = "")
{
    fprintf(stderr, "paramctl: ");
    fprintf(stderr, fmt, arg);
    fputc('\n', stderr);
    return kUsage;
}

// A refusal or a missing module/member: redis-cli style, exit status 1.
int error(const std::string& text)
{
    fprintf(stderr, "(error) %s\n", text.c_str());
    return kError;
}

std::string printed(const cJSON* item, bool bare_strings)
{
    if (bare_strings && cJSON_IsString(item))
        return item->valuestring;
    char* t = cJSON_PrintUnformatted(item);
    std::string s = t ? t : "?";
    free(t);
    return s;
}

// Sends one datagram and waits for one reply: kOk, kError or kNoReply.
int exchange(const Options& o, const std::string& text, std::string* reply)
{
    if (text.size() >= PARA_MESSAGE_BUF) {
        fprintf(stderr, "paramctl: request of %zu bytes; the server takes at most %d\n", text.size(),
                PARA_MESSAGE_BUF - 1);
        return kUsage;
    }
    int fd = socket(o.to.ss_family, SOCK_DGRAM, 0);
    if (fd < 0) {
        fprintf(stderr, "paramctl: socket: %s\n", strerror(errno));
        return kError;
    }
    if (sendto(fd, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&o.to), o.to_len) < 0) {
        fprintf(stderr, "paramctl: send: %s\n", strerror(errno));
        close(fd);
        return kError;
    }
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, o.timeout_ms) != 1) {
        close(fd);
        const bool v6 = o.host.find(':') != std::string::npos;
        fprintf(stderr, "paramctl: no reply from %s%s%s:%d within %d ms (is paramd running?)\n", v6 ? "[" : "",
                o.host.c_str(), v6 ? "]" : "", o.port, o.timeout_ms);
        return kNoReply;
    }
    std::vector<char> buf(65536);
    ssize_t n = recv(fd, buf.data(), buf.size(), 0);
    close(fd);
    if (n < 0) {
        fprintf(stderr, "paramctl: receive: %s\n", strerror(errno));
        return kError;
    }
    reply->assign(buf.data(), static_cast<size_t>(n));
    return kOk;
}

cJSON* new_request(const char* type)
{
    static int id = 0;
    cJSON* req = cJSON_CreateObject();
    cJSON_AddStringToObject(req, "msg_type", type);
    cJSON_AddStringToObject(req, "msg_name", "paramctl");
    cJSON_AddNumberToObject(req, "msg_id", (getpid() + id++) % 256);
    return req;
}

// Sends the request (released here); the parsed reply lands in *reply (null
// when it is no JSON) and its text in *text when asked for.
int call(const Options& o, cJSON* request, Json* reply, std::string* text = nullptr)
{
    char* t = cJSON_PrintUnformatted(request);
    cJSON_Delete(request);
    std::string raw;
    int r = exchange(o, t ? t : "", &raw);
    free(t);
    if (text)
        *text = raw;
    if (r == kOk)
        reply->reset(cJSON_Parse(raw.c_str()));
    return r;
}

const char* err_of(const cJSON* reply)
{
    const cJSON* e = cJSON_GetObjectItem(reply, "err");
    return e ? (cJSON_IsString(e) ? e->valuestring : "error reply") : nullptr;
}

bool is_integer(const char* v)
{
    char* end = nullptr;
    errno = 0;
    strtol(v, &end, 10);
    return *v && !*end && errno == 0;
}

// "123" and "-5" become numbers, anything else (or "quoted") a string.
cJSON* value_item(const char* v)
{
    size_t n = strlen(v);
    if (n >= 2 && v[0] == '"' && v[n - 1] == '"')
        return cJSON_CreateString(std::string(v + 1, n - 2).c_str());
    if (is_integer(v))
        return cJSON_CreateNumber(static_cast<double>(strtol(v, nullptr, 10)));
    return cJSON_CreateString(v);
}

// ---- what the server says about a module ----------------------------------

// The host's describe command answers per module (kind, range, names). A host
// that does not register it leaves paramctl with the current values only.
enum class Described { yes, no_command, no_reply };

Described describe(const Options& o, const char* module, Json* out, int* status)
{
    cJSON* req = cJSON_CreateObject();
    cJSON_AddStringToObject(req, "msg_type", "getInfo");
    cJSON_AddStringToObject(req, "msg_name", "describe");
    if (module)
        cJSON_AddStringToObject(req, "module", module);
    *status = call(o, req, out);
    if (*status != kOk)
        return Described::no_reply;
    const char* e = err_of(out->get());
    if (!*out || (e && strcmp(e, "Invalid API command") == 0))
        return Described::no_command;
    return Described::yes;
}

const cJSON* member_of(const cJSON* desc, const char* member)
{
    const cJSON* m = nullptr;
    cJSON_ArrayForEach(m, cJSON_GetObjectItem(desc, "members"))
    {
        const cJSON* n = cJSON_GetObjectItem(m, "member");
        if (cJSON_IsString(n) && strcmp(n->valuestring, member) == 0)
            return m;
    }
    return nullptr;
}

bool is_kind(const cJSON* mdesc, const char* kind)
{
    const cJSON* k = cJSON_GetObjectItem(mdesc, "kind");
    return cJSON_IsString(k) && strcmp(k->valuestring, kind) == 0;
}

bool flag_of(const cJSON* desc, const char* key)
{
    return cJSON_IsTrue(cJSON_GetObjectItem(desc, key));
}

// A number beyond the member's described min..max.
bool outside(const cJSON* value, const cJSON* mdesc)
{
    const cJSON *lo = cJSON_GetObjectItem(mdesc, "min"), *hi = cJSON_GetObjectItem(mdesc, "max");
    return cJSON_IsNumber(value) && cJSON_IsNumber(lo) && cJSON_IsNumber(hi) &&
           (value->valuedouble < lo->valuedouble || value->valuedouble > hi->valuedouble);
}

bool is_store(const cJSON* desc, const char* store)
{
    const cJSON* s = cJSON_GetObjectItem(desc, "store");
    return cJSON_IsString(s) && strcmp(s->valuestring, store) == 0;
}

// The JSON type a value travels in: .conf stores and named members take
// text only. Without a description the member's current value decides.
cJSON* typed_item(const char* v, const cJSON* desc, const cJSON* mdesc, const cJSON* current)
{
    size_t n = strlen(v);
    if (n >= 2 && v[0] == '"' && v[n - 1] == '"')
        return cJSON_CreateString(std::string(v + 1, n - 2).c_str());
    const cJSON* store = cJSON_GetObjectItem(desc, "store");
    bool text = cJSON_IsString(store) && strcmp(store->valuestring, "conf") == 0;
    if (mdesc)
        text = text || !is_kind(mdesc, "number");
    else if (!desc)
        text = cJSON_IsString(current);
    return text ? cJSON_CreateString(v) : value_item(v);
}

// Did the read-back value take the written one? A typed module takes for a
// named member the first name the text begins, or the name a leading number
// indexes; the JSON store takes whole names only.
bool applied(const cJSON* sent, const cJSON* got, const cJSON* desc, const cJSON* mdesc)
{
    if (cJSON_IsNumber(sent) || !cJSON_IsString(sent))
        return cJSON_IsNumber(sent) && cJSON_IsNumber(got) && sent->valueint == got->valueint;
    if (!cJSON_IsString(got))
        return false;
    const cJSON* store = cJSON_GetObjectItem(desc, "store");
    if (!mdesc || !is_kind(mdesc, "name") || !cJSON_IsString(store) || strcmp(store->valuestring, "typed") != 0)
        return strcmp(sent->valuestring, got->valuestring) == 0;
    const cJSON* names = cJSON_GetObjectItem(mdesc, "names");
    const size_t len = strlen(sent->valuestring);
    const cJSON* n = nullptr;
    cJSON_ArrayForEach(n, names)
    if (cJSON_IsString(n) && strncmp(n->valuestring, sent->valuestring, len) == 0)
        return strcmp(n->valuestring, got->valuestring) == 0;
    if (!isdigit(static_cast<unsigned char>(sent->valuestring[0])))
        return false;
    const cJSON* min = cJSON_GetObjectItem(mdesc, "min");
    n = cJSON_GetArrayItem(names, atoi(sent->valuestring) - (cJSON_IsNumber(min) ? min->valueint : 0));
    return cJSON_IsString(n) && strcmp(n->valuestring, got->valuestring) == 0;
}

// ", range 64..40000" or ", names a b c" when the description knows them.
std::string accepted(const cJSON* mdesc)
{
    if (!mdesc)
        return "";
    const cJSON* names = cJSON_GetObjectItem(mdesc, "names");
    if (cJSON_IsArray(names)) {
        std::string s = "; names:";
        const cJSON* n = nullptr;
        cJSON_ArrayForEach(n, names) s += " " + printed(n, true);
        return s;
    }
    const cJSON* lo = cJSON_GetObjectItem(mdesc, "min");
    const cJSON* hi = cJSON_GetObjectItem(mdesc, "max");
    if (cJSON_IsNumber(lo) && cJSON_IsNumber(hi))
        return "; range " + std::to_string(lo->valueint) + ".." + std::to_string(hi->valueint);
    return "";
}

// Reads MODULE's members (all when none is named) into *values; the module
// object of the reply, or an error status.
int read_module(const Options& o, const std::string& module, const std::vector<std::string>& members,
                Json* reply, const cJSON** values)
{
    cJSON* req = new_request("get");
    cJSON* list = cJSON_AddArrayToObject(req, module.c_str());
    if (members.empty())
        cJSON_AddItemToArray(list, cJSON_CreateString("all"));
    for (const std::string& m : members)
        cJSON_AddItemToArray(list, cJSON_CreateString(m.c_str()));
    int r = call(o, req, reply);
    if (r != kOk)
        return r;
    if (const char* e = err_of(reply->get()))
        return error(e);
    *values = cJSON_GetObjectItem(reply->get(), module.c_str());
    if (!cJSON_IsObject(*values))
        return error(module + ": no such module");
    return kOk;
}

// Names every requested member that the reply left out.
int check_members(const std::string& module, const std::vector<std::string>& members, const cJSON* values)
{
    int status = kOk;
    for (const std::string& m : members)
        if (!cJSON_GetObjectItemCaseSensitive(values, m.c_str()))
            status = error(module + "." + m + ": no such member");
    return status;
}

using Assignments = std::vector<std::pair<std::string, std::string>>;

bool split_assignments(int argc, char** argv, Assignments* out)
{
    for (int i = 0; i < argc; ++i) {
        const char* eq = strchr(argv[i], '=');
        if (!eq || eq == argv[i]) {
            fail("expected member=value, got '%s'", argv[i]);
            return false;
        }
        out->emplace_back(std::string(argv[i], static_cast<size_t>(eq - argv[i])), eq + 1);
    }
    return true;
}

// Writes one module by set (or post) and reads every member back.
int write_module(const Options& o, const std::string& module, const Assignments& values, bool post)
{
    Json desc, current;
    const cJSON* cur = nullptr;
    int st = kOk;
    switch (describe(o, module.c_str(), &desc, &st)) {
    case Described::no_reply: return st;
    case Described::yes:
        if (err_of(desc.get()))
            return error(module + ": no such module");
        if (!flag_of(desc.get(), "set"))
            return error(module + ": takes no request writes");
        if (post && !flag_of(desc.get(), "post"))
            return error(module + ": takes no post writes (use set)");
        // A request key that begins with a member's name writes that member,
        // so a misspelt name would change a value and then be reported
        // missing: names are checked first. A .conf store takes new keys.
        if (!is_store(desc.get(), "conf")) {
            for (const auto& v : values)
                if (!member_of(desc.get(), v.first.c_str()))
                    st = error(module + "." + v.first + ": no such member (nothing written)");
            if (st != kOk)
                return st;
        }
        break;
    case Described::no_command:
        desc.reset();
        if ((st = read_module(o, module, {}, &current, &cur)) != kOk)
            return st;
        break;
    }
    // A request keeps within one datagram: long imports go in several.
    std::vector<Json> sent;
    size_t i = 0;
    while (i < values.size()) {
        cJSON* req = post ? new_request("post") : new_request("set");
        cJSON* obj;
        if (post) {
            cJSON_ReplaceItemInObject(req, "msg_name", cJSON_CreateString(module.c_str()));
            cJSON_AddStringToObject(req, "msg_send", "set");
            obj = cJSON_AddObjectToObject(req, "data");
        } else {
            obj = cJSON_AddObjectToObject(req, module.c_str());
        }
        size_t first = i;
        for (; i < values.size(); ++i) {
            const char* name = values[i].first.c_str();
            cJSON_AddItemToObject(obj, name, typed_item(values[i].second.c_str(), desc.get(),
                                                        member_of(desc.get(), name),
                                                        cJSON_GetObjectItemCaseSensitive(cur, name)));
            char* t = cJSON_PrintUnformatted(req);
            size_t len = t ? strlen(t) : 0;
            free(t);
            if (len >= PARA_MESSAGE_BUF - 64 && i > first) {
                cJSON_DeleteItemFromArray(obj, cJSON_GetArraySize(obj) - 1);
                break;
            }
        }
        sent.emplace_back(cJSON_Duplicate(obj, 1));
        Json reply;
        std::string text;
        if ((st = call(o, req, &reply, &text)) != kOk)
            return st;
        if (o.raw_json)
            printf("%s\n", text.c_str());
        if (const char* e = err_of(reply.get()))
            return error(e);
    }
    std::vector<std::string> names;
    for (const auto& v : values)
        names.push_back(v.first);
    Json back;
    const cJSON* got = nullptr;
    if ((st = read_module(o, module, names, &back, &got)) != kOk)
        return st;
    int status = kOk;
    for (const Json& chunk : sent)
        for (const cJSON* s = chunk->child; s; s = s->next) {
            const cJSON* g = cJSON_GetObjectItemCaseSensitive(got, s->string);
            const cJSON* mdesc = member_of(desc.get(), s->string);
            if (!g)
                status = error(module + "." + s->string + ": no such member");
            else if (!applied(s, g, desc.get(), mdesc))
                status = error(module + "." + s->string + "=" + printed(s, true) + " not applied (value " +
                               printed(g, true) + ")" + accepted(mdesc));
            else if (is_store(desc.get(), "json") && outside(s, mdesc))
                status = error(module + "." + s->string + "=" + printed(s, true) +
                               " stored, but it is outside the member's range" + accepted(mdesc));
        }
    return status;
}

// ---- commands ----------------------------------------------------------------

void print_readable(const cJSON* item, const std::string& path)
{
    if (cJSON_IsObject(item) || cJSON_IsArray(item)) {
        int i = 0;
        for (const cJSON* c = item->child; c; c = c->next, ++i) {
            std::string key = cJSON_IsObject(item) ? (c->string ? c->string : "") : "[" + std::to_string(i) + "]";
            print_readable(c, path.empty() ? key : path + (cJSON_IsObject(item) ? "." : "") + key);
        }
        if (!item->child)
            printf("%s = %s\n", path.empty() ? "(reply)" : path.c_str(), cJSON_IsObject(item) ? "{}" : "[]");
        return;
    }
    printf("%s = %s\n", path.c_str(), printed(item, false).c_str());
}

// Prints a reply as it came (--json, or no JSON at all) or as key = value
// lines; an error reply is also said on stderr and gives exit status 1.
int show_reply(const Options& o, const std::string& text, const cJSON* reply)
{
    if (!reply || o.raw_json) {
        fwrite(text.data(), 1, text.size(), stdout);
        if (text.empty() || text.back() != '\n')
            fputc('\n', stdout);
    } else if (!err_of(reply)) {
        print_readable(reply, "");
    }
    if (const char* e = err_of(reply))
        return error(e);
    return kOk;
}

/* "module.member ..." (all of one module) as "module member ...": the dotted
 * form of show and import also works for get and set. Converts argv in
 * place; false (said) when the modules differ. */
bool undot(int argc, char** argv, std::vector<std::string>& keep, std::vector<char*>& out, bool values)
{
    const char* dot = argc > 0 ? strchr(argv[0], '.') : nullptr;
    const char* eq = argc > 0 ? strchr(argv[0], '=') : nullptr;
    if (!dot || (eq && eq < dot) || (values && !eq)) {
        out.assign(argv, argv + argc);
        return true;
    }
    const std::string module(argv[0], static_cast<size_t>(dot - argv[0]));
    keep.reserve(argc + 1);
    keep.push_back(module);
    for (int i = 0; i < argc; ++i) {
        if (strncmp(argv[i], (module + ".").c_str(), module.size() + 1) != 0) {
            fail("'%s' is not of the first argument's module: one module per command", argv[i]);
            return false;
        }
        keep.push_back(argv[i] + module.size() + 1);
    }
    for (std::string& k : keep)
        out.push_back(k.data());
    return true;
}

int cmd_get(const Options& o, int argc, char** argv)
{
    std::vector<std::string> keep;
    std::vector<char*> args;
    if (argc > 0 && strcmp(argv[0], "-v") != 0) {
        if (!undot(argc, argv, keep, args, false))
            return kUsage;
        argc = static_cast<int>(args.size()), argv = args.data();
    }
    const bool bare = argc > 0 && strcmp(argv[0], "-v") == 0;
    if (bare) {
        --argc;
        ++argv;
        if (argc != 2)
            return fail("get -v: exactly one MODULE and one MEMBER wanted");
    }
    if (argc < 1)
        return fail("get: MODULE missing (try: paramctl help get)");
    std::vector<std::string> members(argv + 1, argv + argc);
    // A single member beginning with "all" asks for every member.
    if (members.size() == 1 && members[0].rfind("all", 0) == 0 && !bare)
        members.clear();
    Json reply;
    const cJSON* values = nullptr;
    int st = read_module(o, argv[0], members, &reply, &values);
    if (st != kOk)
        return st;
    st = check_members(argv[0], members, values);
    if (bare) {
        if (const cJSON* v = cJSON_GetObjectItemCaseSensitive(values, argv[1]))
            printf("%s\n", printed(v, true).c_str());
    } else if (o.raw_json) {
        printf("%s\n", printed(reply.get(), false).c_str());
    } else if (values->child) {
        print_readable(values, argv[0]);
    }
    return st;
}

int cmd_set(const Options& o, int argc, char** argv)
{
    std::vector<std::string> keep;
    std::vector<char*> args;
    if (!undot(argc, argv, keep, args, true))
        return kUsage;
    argc = static_cast<int>(args.size()), argv = args.data();
    Assignments values;
    if (argc < 2)
        return fail("set: MODULE and member=value wanted (try: paramctl help set)");
    if (!split_assignments(argc - 1, argv + 1, &values))
        return kUsage;
    return write_module(o, argv[0], values, false);
}

int cmd_post(const Options& o, int argc, char** argv)
{
    if (argc < 1)
        return fail("post: MODULE missing (try: paramctl help post)");
    Assignments values;
    if (!split_assignments(argc - 1, argv + 1, &values))
        return kUsage;
    if (!values.empty())
        return write_module(o, argv[0], values, true);
    cJSON* req = new_request("post");
    cJSON_ReplaceItemInObject(req, "msg_name", cJSON_CreateString(argv[0]));
    Json reply;
    std::string text;
    int st = call(o, req, &reply, &text);
    if (st != kOk)
        return st;
    st = show_reply(o, text, reply.get());
    if (st == kOk && !cJSON_GetObjectItem(reply.get(), "data"))
        return error(std::string(argv[0]) + ": the post read was answered without data");
    return st;
}

// The server answers a msg_type only when it routes it: get, set, post or a
// command type (one containing get or set). Anything else would end in a
// time-out that blames the server.
bool routed(const char* t)
{
    const size_t n = strlen(t);
    return !strncmp(t, "get", n) || !strncmp(t, "set", n) || !strncmp(t, "post", n) || strstr(t, "get") || strstr(t, "set");
}

int cmd_api(const Options& o, int argc, char** argv)
{
    if (argc < 2)
        return fail("api: TYPE and NAME wanted (try: paramctl help api)");
    if (!routed(argv[0]))
        return fail("api: TYPE '%s' is no command type (one containing get or set, e.g. getInfo); "
                    "the server would not answer", argv[0]);
    cJSON* req = cJSON_CreateObject();
    cJSON_AddStringToObject(req, "msg_type", argv[0]);
    cJSON_AddStringToObject(req, "msg_name", argv[1]);
    for (int i = 2; i < argc; ++i) {
        const char* eq = strchr(argv[i], '=');
        if (!eq || eq == argv[i]) {
            cJSON_Delete(req);
            return fail("expected key=value, got '%s'", argv[i]);
        }
        cJSON_AddItemToObject(req, std::string(argv[i], static_cast<size_t>(eq - argv[i])).c_str(),
                              value_item(eq + 1));
    }
    Json reply;
    std::string text;
    int st = call(o, req, &reply, &text);
    return st != kOk ? st : show_reply(o, text, reply.get());
}

// The server answers only what parses and has a string msg_type it routes;
// anything else would only end in a time-out, so it is refused here.
int cmd_raw(const Options& o, int argc, char** argv)
{
    if (argc != 1)
        return fail("raw: exactly one JSON text (or - for standard input) wanted (try: paramctl help raw)");
    std::string text = argv[0];
    if (text == "-")
        text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    const char* end = nullptr;
    Json req(cJSON_ParseWithOpts(text.c_str(), &end, 1));
    if (!req) {
        const char* at = cJSON_GetErrorPtr();
        size_t pos = at && at >= text.c_str() && at <= text.c_str() + text.size() ? at - text.c_str() : text.size();
        const std::string near = text.substr(pos, std::min<size_t>(20, text.find('\n', pos) - pos));
        fprintf(stderr, "paramctl: raw: not JSON: error at byte %zu of %zu%s%s%s\n", pos, text.size(),
                near.empty() ? "" : " near '", near.c_str(), near.empty() ? "" : "'");
        return kUsage;
    }
    const cJSON* mt = cJSON_GetObjectItem(req.get(), "msg_type");
    if (!cJSON_IsString(mt))
        return fail("raw: the request has no string msg_type; the server would not answer");
    const char* t = mt->valuestring;
    if (!routed(t))
        return fail("raw: msg_type '%s' is none of get, set, post or a command type (containing get or set); "
                    "the server would not answer", t);
    std::string reply;
    int st = exchange(o, text, &reply);
    if (st != kOk)
        return st;
    Json parsed(cJSON_Parse(reply.c_str()));
    st = show_reply(o, reply, parsed.get());
    // A get answers only the modules it knows: name the others.
    if (st == kOk && strcmp(t, "get") == 0)
        for (const cJSON* item = req->child; item; item = item->next)
            if (item->string && strncmp(item->string, "msg_", 4) && !cJSON_GetObjectItem(parsed.get(), item->string))
                st = error(std::string(item->string) + ": no such module (not in the reply)");
    return st;
}

int needs_command(const std::string& what, const char* command)
{
    return error(what + " needs the " + command + " command, which paramd registers; this host has none");
}

int cmd_describe(const Options& o, int argc, char** argv)
{
    if (argc > 1)
        return fail("describe: at most one MODULE (try: paramctl help describe)");
    Json desc;
    int st = kOk;
    Described d = describe(o, argc ? argv[0] : nullptr, &desc, &st);
    if (d == Described::no_reply)
        return st;
    if (d == Described::no_command)
        return needs_command("describe", "describe");
    if (const char* e = err_of(desc.get()))
        return error(strncmp(e, "no module ", 10) == 0 ? std::string(argv[0]) + ": no such module" : e);
    if (o.raw_json) {
        printf("%s\n", printed(desc.get(), false).c_str());
        return kOk;
    }
    auto module_line = [](const cJSON* item) {
        const bool set = flag_of(item, "set"), post = flag_of(item, "post");
        printf("%-12s %-6s %s\n", printed(cJSON_GetObjectItem(item, "module"), true).c_str(),
               printed(cJSON_GetObjectItem(item, "store"), true).c_str(),
               set ? (post ? "set post" : "set") : "read-only");
    };
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, cJSON_GetObjectItem(desc.get(), "modules")) module_line(item);
    if (cJSON_GetObjectItem(desc.get(), "members"))
        module_line(desc.get());
    cJSON_ArrayForEach(item, cJSON_GetObjectItem(desc.get(), "members"))
    {
        std::string line = printed(cJSON_GetObjectItem(item, "member"), true);
        line.resize(std::max<size_t>(line.size(), 22), ' ');
        std::string kind = printed(cJSON_GetObjectItem(item, "kind"), true);
        line += " " + kind + std::string(kind.size() < 6 ? 6 - kind.size() : 0, ' ');
        line += " cur=" + printed(cJSON_GetObjectItem(item, "cur"), true);
        if (const cJSON* def = cJSON_GetObjectItem(item, "def"))
            line += " def=" + printed(def, true);
        std::string acc = accepted(item);
        if (!acc.empty())
            line += " " + acc.substr(2);
        printf("%s\n", line.c_str());
    }
    return kOk;
}

// show: MODULE.member=value lines, the form import reads back in.
int cmd_show(const Options& o, int argc, char** argv)
{
    std::vector<std::string> modules(argv, argv + argc);
    int st = kOk;
    if (modules.empty()) {
        Json desc;
        Described d = describe(o, nullptr, &desc, &st);
        if (d == Described::no_reply)
            return st;
        if (d == Described::no_command)
            return needs_command("show without MODULE", "describe");
        const cJSON* item = nullptr;
        cJSON_ArrayForEach(item, cJSON_GetObjectItem(desc.get(), "modules"))
        modules.push_back(printed(cJSON_GetObjectItem(item, "module"), true));
    }
    int status = kOk;
    for (const std::string& m : modules) {
        Json reply, desc;
        const cJSON* values = nullptr;
        if ((st = read_module(o, m, {}, &reply, &values)) != kOk) {
            if (st == kNoReply)
                return st;
            status = st;
            continue;
        }
        // What import could not write back is shown as a comment, so that
        // "show > file; import file" restores every value without an error.
        bool described = describe(o, m.c_str(), &desc, &st) == Described::yes && !err_of(desc.get());
        bool read_only = described && !flag_of(desc.get(), "set");
        std::vector<std::string> names;
        for (const cJSON* v = values->child; v; v = v->next)
            names.push_back(v->string);
        Json by_name_reply;
        const cJSON* by_name = nullptr;
        if (read_module(o, m, names, &by_name_reply, &by_name) == kNoReply)
            return kNoReply;
        for (const cJSON* v = values->child; v; v = v->next) {
            const char* why = read_only ? "  (read only: the module takes no request writes)"
                              : !cJSON_GetObjectItemCaseSensitive(by_name, v->string)
                                  ? "  (in reads of all members only; not writable by name)" : nullptr;
            printf("%s%s.%s=%s%s\n", why ? "# " : "", m.c_str(), v->string, printed(v, true).c_str(), why ? why : "");
        }
    }
    return status;
}

// import: MODULE.member=value lines (blank lines and # comments skipped),
// checked whole before anything is written, then written module by module.
int cmd_watch(const Options& o, int argc, char** argv)
{
    int interval = 1000, left = -1;
    for (; argc >= 2 && (!strcmp(argv[0], "-i") || !strcmp(argv[0], "-n")); argc -= 2, argv += 2)
        if (!parse_int(argv[1], 1, 86400000, argv[0][1] == 'i' ? &interval : &left))
            return fail("watch: -i and -n want a positive number, got '%s'", argv[1]);
    if (argc < 1)
        return fail("watch: MODULE missing (try: paramctl help watch)");
    std::vector<std::string> members(argv + 1, argv + argc);
    std::map<std::string, std::string> last;
    bool first = true, silent = false;
    for (;;) {
        Json reply;
        const cJSON* values = nullptr;
        int st = read_module(o, argv[0], members, &reply, &values);
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        char stamp[40];
        tm local{};
        strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", localtime_r(&now.tv_sec, &local));
        snprintf(stamp + strlen(stamp), 8, ".%03d", static_cast<int>(now.tv_nsec / 1000000) % 1000);
        if (st == kNoReply) {
            if (!silent)
                printf("%s (no reply from the server)\n", stamp);
            silent = true;
        } else if (st != kOk) {
            return st;
        } else {
            silent = false;
            for (const cJSON* v = values->child; v; v = v->next) {
                std::string text = printed(v, true), &was = last[v->string];
                if (!first && text != was) {
                    printf("%s %s.%s %s -> %s\n", stamp, argv[0], v->string, was.c_str(), text.c_str());
                    if (left > 0 && --left == 0)
                        return fflush(stdout), kOk;
                }
                was = text;
            }
            first = false;
        }
        fflush(stdout);
        usleep(static_cast<useconds_t>(interval) * 1000);
    }
}

int cmd_import(const Options& o, int argc, char** argv)
{
    if (argc != 1)
        return fail("import: one FILE (or - for standard input) wanted (try: paramctl help import)");
    std::ifstream file;
    const bool stdin_ = strcmp(argv[0], "-") == 0;
    if (!stdin_) {
        file.open(argv[0]);
        if (!file)
            return fail("import: cannot read '%s'", argv[0]);
    }
    std::istream& in = stdin_ ? std::cin : file;
    std::vector<std::pair<std::string, Assignments>> modules;
    std::string line;
    for (int n = 1; std::getline(in, line); ++n) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        size_t first = line.find_first_not_of(" \t");
        if (first == std::string::npos || line[first] == '#')
            continue;
        const size_t eq = line.find('=');
        const size_t dot = line.find('.');
        if (eq == std::string::npos || dot == std::string::npos || dot == 0 || dot + 1 >= eq) {
            fprintf(stderr, "paramctl: import: %s:%d: expected module.member=value, got '%s'\n", argv[0], n,
                    line.c_str());
            return kUsage;
        }
        std::string module = line.substr(0, dot);
        if (modules.empty() || modules.back().first != module)
            modules.emplace_back(module, Assignments{});
        modules.back().second.emplace_back(line.substr(dot + 1, eq - dot - 1), line.substr(eq + 1));
    }
    int status = kOk;
    for (const auto& m : modules) {
        int st = write_module(o, m.first, m.second, false);
        if (st == kNoReply)
            return st;
        if (st != kOk)
            status = st;
    }
    return status;
}

int cmd_save(const Options& o, int argc, char**)
{
    if (argc != 0)
        return fail("save: no arguments wanted");
    cJSON* req = cJSON_CreateObject();
    cJSON_AddStringToObject(req, "msg_type", "setCommand");
    cJSON_AddStringToObject(req, "msg_name", "save");
    Json reply;
    std::string text;
    int st = call(o, req, &reply, &text);
    if (st != kOk)
        return st;
    const char* e = err_of(reply.get());
    if (e && strcmp(e, "Invalid API command") == 0)
        return needs_command("save", "save");
    return show_reply(o, text, reply.get());
}

// Web pages answer in form text: one pair per line, "X=null" is an error.
int show_form(const Options& o, const std::string& reply)
{
    if (o.raw_json) {
        printf("%s\n", reply.c_str());
    } else {
        size_t pos = 0;
        for (;;) {
            size_t amp = reply.find('&', pos);
            std::string pair = reply.substr(pos, amp == std::string::npos ? std::string::npos : amp - pos);
            size_t eq = pair.find('=');
            if (eq == std::string::npos)
                printf("%s\n", pair.c_str());
            else
                printf("%s = %s\n", pair.substr(0, eq).c_str(), pair.substr(eq + 1).c_str());
            if (amp == std::string::npos)
                break;
            pos = amp + 1;
        }
    }
    const std::string tail = "=null";
    return reply.size() >= tail.size() && reply.compare(reply.size() - tail.size(), tail.size(), tail) == 0;
}

int cmd_web(const Options& o, int argc, char** argv)
{
    bool get = argc == 2 && strcmp(argv[0], "get") == 0;
    bool set = argc == 3 && strcmp(argv[0], "set") == 0;
    if (!get && !set)
        return fail("web: 'get PAGE' or 'set PAGE FORM' wanted (try: paramctl help web)");
    // The server answers nothing to a form without any pair.
    if (set && !strchr(argv[2], '='))
        return fail("web set: FORM needs name=value pairs, got '%s'", argv[2]);
    cJSON* req = cJSON_CreateObject();
    cJSON_AddStringToObject(req, "msg_from", "www");
    cJSON_AddStringToObject(req, "msg_type", argv[0]);
    cJSON_AddStringToObject(req, "msg_name", argv[1]);
    if (set)
        cJSON_AddStringToObject(req, "data", argv[2]);
    char* text = cJSON_PrintUnformatted(req);
    cJSON_Delete(req);
    std::string reply;
    int r = exchange(o, text ? text : "", &reply);
    free(text);
    if (!r && reply == std::string(argv[1]) + "=null")
        return error(std::string(argv[1]) + ": no such page in the server's mapping file");
    return r ? r : show_form(o, reply);
}

// The client role's senders, one row per module member they know.
struct ShareRow {
    const char* mod;
    const char* member;
    int (*number)(int chn, int val);
    int (*text)(int chn, const char* str);
};
#define PARAMCTL_SHARE_ROW(mod, member)                                                    \
    {#mod, #member, para_set_share_##mod##_##member##_number, para_set_share_##mod##_##member##_string},
const ShareRow kShareRows[] = {PARA_SHARE_MEMBERS(PARAMCTL_SHARE_ROW)};
#undef PARAMCTL_SHARE_ROW

int cmd_share(const Options& o, int argc, char** argv)
{
    if (argc != 4)
        return fail("share: MODULE MEMBER CHN VALUE wanted (try: paramctl help share)");
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(&o.to);
    if (o.to.ss_family != AF_INET || v4->sin_addr.s_addr != htonl(INADDR_LOOPBACK) || o.port != PARA_SERVER_PORT)
        return fail("share: client datagrams always go to 127.0.0.1:6800; --host/--port do not apply");
    const ShareRow* row = nullptr;
    for (const ShareRow& r : kShareRows)
        if (strcmp(r.mod, argv[0]) == 0 && strcmp(r.member, argv[1]) == 0)
            row = &r;
    if (!row) {
        fprintf(stderr, "paramctl: share: no member %s.%s; known:\n", argv[0], argv[1]);
        for (const ShareRow& r : kShareRows)
            fprintf(stderr, "  %s %s\n", r.mod, r.member);
        return kUsage;
    }
    cJSON* chn = value_item(argv[2]);
    cJSON* value = value_item(argv[3]);
    const bool chn_ok = cJSON_IsNumber(chn);
    const int channel = chn->valueint;
    cJSON_Delete(chn);
    if (!chn_ok) {
        cJSON_Delete(value);
        return fail("share: CHN must be an integer, got '%s'", argv[2]);
    }
    Send_Initial();
    if (cJSON_IsNumber(value)) {
        row->number(channel, value->valueint);
    } else {
        if (strlen(value->valuestring) > sizeof(st_data::string))
            fprintf(stderr, "paramctl: share: text cut to %zu bytes\n", sizeof(st_data::string));
        row->text(channel, value->valuestring);
    }
    cJSON_Delete(value);
    printf("sent %s.%s chn %d = %s\n", row->mod, row->member, channel, argv[3]);
    return 0;
}

int cmd_help(const Options&, int argc, char** argv)
{
    if (argc == 0) {
        main_usage(stdout);
        return kOk;
    }
    const Command* c = find_command(argv[0]);
    if (!c)
        return fail("unknown command '%s'", argv[0]);
    printf("usage: paramctl [options] %s\n\n%s", c->synopsis, c->help);
    return kOk;
}

const Command kCommands[] = {
    {"get", "get [-v] MODULE [MEMBER...]",
     "read members (all when none is named)",
     "Reads members of a module (all of them when none is named) and prints\n"
     "them as MODULE.MEMBER = VALUE lines. MODULE is a request key such as\n"
     "video0, isp0, isp0_def, audio, af, misc, misc_def, netport.\n"
     "A module or member that the reply leaves out is an error (exit 1).\n"
     "-v prints the bare value of one member, for scripts.\n"
     "  paramctl get video0 bitRate gop\n"
     "  paramctl get -v netport http_port\n",
     cmd_get},
    {"set", "set MODULE MEMBER=VALUE...",
     "write members, then read them back",
     "Writes members, then reads them back: every member that was not\n"
     "applied is named on stderr with its range or accepted names (exit 1).\n"
     "Values go out in the type the member takes (text for .conf modules,\n"
     "a name or its index for named members); \"quoted\" forces text.\n"
     "  paramctl set video0 bitRate=6000 size=PIC_HD720\n"
     "  paramctl set netport http_port=8080\n",
     cmd_set},
    {"post", "post MODULE [MEMBER=VALUE...]",
     "post request: write (read back) or read",
     "Sends a post request: with assignments it writes them as \"data\" and\n"
     "reads them back as set does (only the misc and .conf modules take post\n"
     "writes); without assignments it reads, and the reply is the request\n"
     "with the module's \"data\".\n"
     "  paramctl post misc mirror=1\n",
     cmd_post},
    {"describe", "describe [MODULE]",
     "modules; or members: kind, range, default, names",
     "Without MODULE lists the modules with their store (typed, json, conf)\n"
     "and the writes they take. With MODULE lists each member: kind (number,\n"
     "name, text), current value, default, range and accepted names. Needs\n"
     "the host's describe command (paramd registers it).\n"
     "  paramctl describe\n"
     "  paramctl describe video0\n",
     cmd_describe},
    {"show", "show [MODULE...]",
     "every value as MODULE.MEMBER=VALUE lines",
     "Prints every value as MODULE.MEMBER=VALUE lines (all modules when none\n"
     "is named; that needs describe), ready for import.\n"
     "  paramctl show video0 netport > settings.txt\n",
     cmd_show},
    {"watch", "watch [-i MS] [-n N] MODULE [MEMBER...]",
     "print each change of members as it happens",
     "Reads the members (all when none is named) every MS milliseconds\n"
     "(default 1000) and prints each change with the local time, like\n"
     "redis-cli monitor, until Ctrl-C or N changes (-n). A server that stops\n"
     "answering is said once; watching goes on.\n"
     "  paramctl watch video0 gop bitRate\n"
     "  2026-11-24T20:01:02.345 video0.gop 60 -> 25\n",
     cmd_watch},
    {"import", "import FILE|-",
     "apply MODULE.MEMBER=VALUE lines",
     "Applies MODULE.MEMBER=VALUE lines (as show prints them; blank lines and\n"
     "lines starting with # are skipped) module by module, reading each back\n"
     "as set does. A malformed line stops before anything is written (exit 2).\n"
     "  paramctl show video0 | sed s/bitRate=.*/bitRate=6000/ | paramctl import -\n",
     cmd_import},
    {"save", "save",
     "ask the host to save every module now",
     "Asks the host to save every module now (paramd's save command).\n",
     cmd_save},
    {"api", "api TYPE NAME [KEY=VALUE...]",
     "call a command the host registered",
     "Calls a command that the host application registered: TYPE is the\n"
     "request's msg_type (one containing \"get\" or \"set\", other than get and\n"
     "set themselves), NAME its msg_name, KEY=VALUE further request keys.\n"
     "paramd registers describe, status, commands and save:\n"
     "  paramctl api getInfo commands\n"
     "  paramctl api getInfo status\n"
     "  paramctl api getInfo describe module=audio\n"
     "  paramctl api setCommand save\n",
     cmd_api},
    {"raw", "raw JSON|-",
     "send a JSON request as it is",
     "Sends a JSON request text as it is (- reads it from standard input) and\n"
     "prints the reply. Text that is not JSON, or that the server would not\n"
     "answer (no string msg_type, or one it does not route), is refused\n"
     "before sending (exit 2).\n"
     "  paramctl raw '{\"msg_type\":\"get\",\"video0\":[\"all\"]}'\n",
     cmd_raw},
    {"web", "web get PAGE | web set PAGE FORM",
     "talk like the web server",
     "Talks like the web server: reads a page of the mapping file, or writes a\n"
     "form (name=value pairs joined by &). A write is answered result=success.\n"
     "  paramctl web get encode\n"
     "  paramctl web set encode 'enc_bitrate=6&enc_gop=30'\n",
     cmd_web},
    {"share", "share MODULE MEMBER CHN VALUE",
     "send one 76-byte client datagram",
     "Sends one client datagram (76 bytes, no reply) to 127.0.0.1:6800, as any\n"
     "process in the client role does. MODULE is video, audio or isp; an integer\n"
     "VALUE travels as a number, anything else (or \"quoted\") as text of at\n"
     "most 32 bytes. The library's message server on that port answers JSON\n"
     "only: paramd logs the datagram as unparsable and applies nothing. It is\n"
     "meant for a main application that reads client datagrams itself; use set\n"
     "to change paramd's values.\n"
     "  paramctl share isp skin_saturation 1 50\n",
     cmd_share},
    {"help", "help [COMMAND]", "explain a command", "Shows the help of a command.\n", cmd_help},
};

const Command* find_command(const char* name)
{
    for (const Command& c : kCommands)
        if (strcmp(c.name, name) == 0)
            return &c;
    return nullptr;
}

void main_usage(FILE* out)
{
    fprintf(out,
            "paramctl - command-line client of the camera's parameter server\n\n"
            "Usage: paramctl [--host HOST] [--port N] [--timeout MS] [--json] COMMAND ...\n\n"
            "Reads and writes the settings that paramd (or any host of the parameter\n"
            "library) serves on UDP port 6800. Writes are read back; anything refused or\n"
            "missing is reported on stderr.\n\n"
            "Options:\n"
            "  -H, --host HOST   server address or host name (default 127.0.0.1)\n"
            "  -p, --port N      server port (default 6800)\n"
            "  -t, --timeout MS  how long to wait for each reply (default 1000)\n"
            "  -j, --json        print replies as the server's JSON\n"
            "  -h, --help        print this help and exit\n"
            "  -V, --version     print the version and exit\n\n"
            "Commands:\n");
    for (const Command& c : kCommands)
        fprintf(out, "  %-34s %s\n", c.synopsis, c.summary);
    fprintf(out, "\n'paramctl help COMMAND' or 'paramctl COMMAND --help' explains one.\n\n"
                 "Exit status:\n"
                 "  0  success\n"
                 "  1  error reply, or a module or member missing or not applied\n"
                 "  2  usage error, or a raw request that is not JSON\n"
                 "  3  no reply within the time-out\n\n"
                 "Examples:\n"
                 "  paramctl describe video0\n"
                 "  paramctl set video0 bitRate=6000 gop=30\n"
                 "  paramctl get -v video0 bitRate\n"
                 "  paramctl show > settings.txt; paramctl import settings.txt\n"
                 "  paramctl --host camera.local save\n");
}

bool parse_int(const char* text, int lo, int hi, int* out)
{
    char* end = nullptr;
    errno = 0;
    long v = strtol(text, &end, 10);
    if (!*text || *end || errno || v < lo || v > hi)
        return false;
    *out = static_cast<int>(v);
    return true;
}

/* HOST, HOST:PORT, an IPv6 address, or [IPv6]:PORT. A name resolves to its
 * IPv4 address first: the library's server serves IPv4. */
bool resolve(Options* o)
{
    std::string& h = o->host;
    size_t colon = h.rfind(':');
    if (!h.empty() && h[0] == '[') {
        size_t close = h.find(']');
        if (close == std::string::npos || (close + 1 < h.size() && (h[close + 1] != ':' ||
                                                                    !parse_int(h.c_str() + close + 2, 1, 65535, &o->port))))
            return false;
        h = h.substr(1, close - 1);
    } else if (colon != std::string::npos && h.find(':') == colon) {
        if (!parse_int(h.c_str() + colon + 1, 1, 65535, &o->port))
            return false;
        h.resize(colon);
    }
    addrinfo* res = nullptr;
    for (int family : {AF_INET, AF_INET6}) {
        addrinfo hints{};
        hints.ai_family = family;
        hints.ai_socktype = SOCK_DGRAM;
        if (getaddrinfo(h.c_str(), nullptr, &hints, &res) == 0 && res)
            break;
        res = nullptr;
    }
    if (!res)
        return false;
    memcpy(&o->to, res->ai_addr, res->ai_addrlen);
    o->to_len = res->ai_addrlen;
    if (res->ai_family == AF_INET)
        reinterpret_cast<sockaddr_in*>(&o->to)->sin_port = htons(static_cast<uint16_t>(o->port));
    else
        reinterpret_cast<sockaddr_in6*>(&o->to)->sin6_port = htons(static_cast<uint16_t>(o->port));
    freeaddrinfo(res);
    return true;
}


} // namespace

int main(int argc, char** argv)
{
    Options o;
    static const option opts[] = {
        {"host", required_argument, nullptr, 'H'}, {"port", required_argument, nullptr, 'p'},
        {"timeout", required_argument, nullptr, 't'}, {"json", no_argument, nullptr, 'j'},
        {"help", no_argument, nullptr, 'h'},         {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    int c;
    // '+': options end at the command, so member=value arguments stay as they are.
    while ((c = getopt_long(argc, argv, "+H:p:t:jhV", opts, nullptr)) != -1) {
        switch (c) {
        case 'H': o.host = optarg; break;
        case 'p':
            if (!parse_int(optarg, 1, 65535, &o.port))
                return fail("--port wants a number from 1 to 65535, got '%s'", optarg);
            break;
        case 't':
            if (!parse_int(optarg, 1, 3600000, &o.timeout_ms))
                return fail("--timeout wants a positive number of milliseconds, got '%s'", optarg);
            break;
        case 'j': o.raw_json = true; break;
        case 'h': main_usage(stdout); return kOk;
        case 'V': printf("paramctl %s\n", PARA_TOOLS_VERSION); return kOk;
        default: main_usage(stderr); return kUsage;
        }
    }
    if (optind >= argc) {
        main_usage(stderr);
        return kUsage;
    }
    const Command* cmd = find_command(argv[optind]);
    if (!cmd)
        return fail("unknown command '%s' (try: paramctl --help)", argv[optind]);
    // Options after the command are taken too (paramctl get video0 --json);
    // only the long forms and -j, so that values like -5 stay values.
    std::vector<char*> rest;
    for (int i = optind + 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](const char* name) -> const char* {
            std::string n = std::string("--") + name;
            if (a == n)
                return i + 1 < argc ? argv[++i] : "";
            return a.compare(0, n.size() + 1, n + "=") == 0 ? argv[i] + n.size() + 1 : nullptr;
        };
        if (a == "--") {
            rest.insert(rest.end(), argv + i + 1, argv + argc);
            break;
        } else if (a == "--json" || a == "-j") {
            o.raw_json = true;
        } else if (const char* h = value("host")) {
            o.host = h;
        } else if (const char* p = value("port")) {
            if (!parse_int(p, 1, 65535, &o.port))
                return fail("--port wants a number from 1 to 65535, got '%s'", p);
        } else if (const char* t = value("timeout")) {
            if (!parse_int(t, 1, 3600000, &o.timeout_ms))
                return fail("--timeout wants a positive number of milliseconds, got '%s'", t);
        } else {
            rest.push_back(argv[i]);
        }
    }
    int sub_argc = static_cast<int>(rest.size());
    char** sub_argv = rest.data();
    for (int i = 0; i < sub_argc; ++i)
        if (strcmp(sub_argv[i], "--help") == 0 || strcmp(sub_argv[i], "-h") == 0) {
            char* name = argv[optind];
            return cmd_help(o, 1, &name);
        }
    if (!resolve(&o))
        return fail("unknown host '%s'", o.host.c_str());
    return cmd->run(o, sub_argc, sub_argv);
}
