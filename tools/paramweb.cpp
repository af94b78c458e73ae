// paramweb: a settings web page in the role of the camera's web server. The
// pages come from the mapping file's page entries; every read and write goes
// to the library's port as the same form-field request ("msg_from":"www")
// that the device's web server sends, and the form text of the reply fills
// the form. Access: an admin password (a yescrypt hash in a file, as
// /etc/shadow keeps them) and a session cookie; every state-changing request
// carries the session's token from a page of the same origin, and the Host
// header must name this server. Without a password file only a loopback
// address is served. HTTPS when given a certificate and key.
#include "para.h"

#include <httplib.h>

#include <crypt.h>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <chrono>
#include <map>
#include <mutex>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

// HTML, CSS and JavaScript, embedded at build time from tools/paramweb/.
struct Asset {
    const char* name;
    const char* text;
};
#include "paramweb_assets.inc"

// Room of a form field name and of a value in the library's form reader.
constexpr size_t form_token_max = 31;
// The library's receive buffer keeps one byte for the terminator.
constexpr size_t request_max = 4095;
// Form text of a read reply is at most 65535 bytes (16-bit size).
constexpr size_t reply_max = 65536;

struct Field {
    std::string name, module, member, kind, mark;
    std::string also; // further members the field writes ("isp0.hue, ...")
};
struct Page {
    std::string name;
    std::vector<std::string> modules;
    std::vector<Field> fields;
};

using Form = std::map<std::string, std::string>;

std::string asset(const std::string& name)
{
    for (const Asset& a : assets)
        if (name == a.name)
            return a.text;
    return {};
}

std::string mapping_string(const cJSON* array, int i)
{
    const char* s = cJSON_GetStringValue(cJSON_GetArrayItem(array, i));
    return s ? s : "";
}

// Page entries in file order, each with the fields its module entries map
// (a field shared by several entries appears once, as the form carries it).
std::optional<std::vector<Page>> load_pages(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    std::unique_ptr<cJSON, void (*)(cJSON*)> map(cJSON_Parse(text.str().c_str()), cJSON_Delete);
    if (!in || !cJSON_IsObject(map.get()))
        return std::nullopt;
    std::vector<Page> pages;
    const cJSON* entry;
    cJSON_ArrayForEach(entry, map.get())
    {
        const std::string key = entry->string;
        if (!cJSON_IsArray(entry) || key.find("_pattern_list") != std::string::npos)
            continue;
        Page page{key, {}, {}};
        const cJSON* module;
        cJSON_ArrayForEach(module, entry)
        {
            if (!cJSON_IsString(module))
                continue;
            page.modules.push_back(module->valuestring);
            const cJSON* member;
            cJSON_ArrayForEach(member, cJSON_GetObjectItem(map.get(), module->valuestring))
            {
                Field f{mapping_string(member, 0), module->valuestring, member->string,
                        mapping_string(member, 1), mapping_string(member, 2), {}};
                bool seen = f.name.empty();
                for (Field& g : page.fields)
                    if (g.name == f.name && !seen) // one field, several members
                        g.also += (g.also.empty() ? "" : ", ") + f.module + "." + f.member, seen = true;
                if (!seen)
                    page.fields.push_back(f);
            }
        }
        pages.push_back(page);
    }
    return pages;
}

// One request to the library's port and its reply, on a socket of its own so
// that concurrent browser requests never take each other's replies.
std::optional<std::string> ask(const std::string& request)
{
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return std::nullopt;
    timeval wait{2, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(PARA_SERVER_PORT);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string reply(reply_max, '\0');
    ssize_t n = -1;
    if (connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0 &&
        send(fd, request.data(), request.size(), 0) == static_cast<ssize_t>(request.size()))
        n = recv(fd, reply.data(), reply.size(), 0);
    close(fd);
    if (n < 0)
        return std::nullopt;
    reply.resize(static_cast<size_t>(n));
    return reply;
}

std::string www_request(const char* type, const std::string& page, const std::string* data)
{
    std::unique_ptr<cJSON, void (*)(cJSON*)> req(cJSON_CreateObject(), cJSON_Delete);
    cJSON_AddStringToObject(req.get(), "msg_from", "www");
    cJSON_AddStringToObject(req.get(), "msg_type", type);
    cJSON_AddStringToObject(req.get(), "msg_name", page.c_str());
    if (data)
        cJSON_AddStringToObject(req.get(), "data", data->c_str());
    std::unique_ptr<char, void (*)(void*)> text(cJSON_PrintUnformatted(req.get()), std::free);
    return text ? text.get() : "";
}

Form split_form(const std::string& text)
{
    Form form;
    std::istringstream pairs(text);
    for (std::string pair; std::getline(pairs, pair, '&');) {
        const size_t eq = pair.find('=');
        if (eq != std::string::npos)
            form[pair.substr(0, eq)] = pair.substr(eq + 1);
    }
    return form;
}

// The web read of a page: its form text, or the error text to show.
bool read_page(const Page& page, Form& values, std::string& error)
{
    const auto reply = ask(www_request("get", page.name, nullptr));
    if (!reply) {
        error = "no reply from the parameter server on port " + std::to_string(PARA_SERVER_PORT);
        fprintf(stderr, "paramweb: page %s: %s\n", page.name.c_str(), error.c_str());
        return false;
    }
    if (*reply == page.name + "=null") {
        error = "the parameter server does not know this page: " + *reply;
        return false;
    }
    values = split_form(*reply);
    return true;
}

// Why the form text cannot carry this value of the field, or "" when it can.
std::string refusal(const Field& f, const std::string& value)
{
    if (f.name.size() > form_token_max)
        return "field name longer than 31 characters: the form text cannot carry it";
    if (value.size() > form_token_max)
        return "longer than 31 characters: the form text cannot carry it";
    if (value.find_first_of("&=") != std::string::npos)
        return "contains \"&\" or \"=\": the form text cannot carry it";
    if (f.kind == "S")
        return "";
    const bool decimals = f.mark == "K" || f.mark == "F";
    char* end = nullptr;
    if (decimals)
        std::strtod(value.c_str(), &end);
    else
        std::strtoll(value.c_str(), &end, 10);
    if (value.empty() || *end != '\0' || std::isspace(static_cast<unsigned char>(value[0])))
        return decimals ? "not a number" : "not a whole number";
    return "";
}

std::string html(const std::string& s)
{
    std::string out;
    for (char c : s) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        case '\'': out += "&#39;"; break;
        default: out += c;
        }
    }
    return out;
}

std::string layout(const std::string& title, const std::string& body)
{
    std::string page = asset("layout.html");
    for (auto [key, value] : {std::pair{"{{title}}", html(title)}, std::pair{"{{body}}", body}})
        if (size_t at = page.find(key); at != std::string::npos)
            page.replace(at, std::strlen(key), value);
    return page;
}

std::string hint(const Field& f)
{
    std::string h = f.module + "." + f.member;
    if (f.mark == "K")
        return h + ", in thousands (4.5 = 4500)";
    if (f.mark == "P")
        return h + ", counted from 1";
    if (f.mark == "F")
        return h + ", two decimals shown, whole numbers stored";
    return h + (f.kind == "S" ? ", text" : "");
}

// A number of thousands as text, exact ("4.5", "0.512", "4").
std::string thousands(double v)
{
    char t[48];
    std::snprintf(t, sizeof t, "%.3f", v / 1000);
    std::string out = t;
    while (out.back() == '0')
        out.pop_back();
    if (out.back() == '.')
        out.pop_back();
    return out;
}

// A plain label from the member's name ("bitRate" -> "Bit rate").
std::string label(const Field& f)
{
    std::string out;
    for (char c : f.member) {
        if (c == '_' || (std::isupper(static_cast<unsigned char>(c)) && !out.empty() && out.back() != ' '))
            out += ' ';
        if (c != '_')
            out += static_cast<char>(out.empty() ? std::toupper(static_cast<unsigned char>(c)) : std::tolower(static_cast<unsigned char>(c)));
    }
    return out + " (" + f.name + ")";
}

/* ---- what the camera says of its members (paramd's describe) ----------- */

using Json = std::unique_ptr<cJSON, void (*)(cJSON*)>;

// A module's describe entry, or null where the host has no describe command.
Json describe(const std::string& module)
{
    Json req(cJSON_CreateObject(), cJSON_Delete);
    cJSON_AddStringToObject(req.get(), "msg_type", "getInfo");
    cJSON_AddStringToObject(req.get(), "msg_name", "describe");
    cJSON_AddStringToObject(req.get(), "module", module.c_str());
    std::unique_ptr<char, void (*)(void*)> text(cJSON_PrintUnformatted(req.get()), std::free);
    auto reply = ask(text.get());
    Json out(reply ? cJSON_Parse(reply->c_str()) : nullptr, cJSON_Delete);
    const char* named = cJSON_GetStringValue(cJSON_GetObjectItem(out.get(), "module"));
    return named && module == named ? std::move(out) : Json(nullptr, cJSON_Delete);
}

struct Described {
    std::map<std::string, Json> modules;
    const cJSON* module(const std::string& name)
    {
        auto it = modules.find(name);
        if (it == modules.end())
            it = modules.emplace(name, describe(name)).first;
        return it->second.get();
    }
    bool read_only(const std::string& name) { return cJSON_IsFalse(cJSON_GetObjectItem(module(name), "set")); }
    const cJSON* member(const Field& f)
    {
        const cJSON* m;
        cJSON_ArrayForEach(m, cJSON_GetObjectItem(module(f.module), "members"))
        if (f.member == cJSON_GetStringValue(cJSON_GetObjectItem(m, "member")))
            return m;
        return nullptr;
    }
    // ", 1 to 300" in the units the form shows, for numbers the camera describes.
    std::string range(const Field& f)
    {
        const cJSON* m = member(f);
        const cJSON *lo = cJSON_GetObjectItem(m, "min"), *hi = cJSON_GetObjectItem(m, "max");
        if (cJSON_GetObjectItem(m, "names") || !cJSON_IsNumber(lo) || !cJSON_IsNumber(hi))
            return "";
        auto shown = [&](double v) {
            return f.mark == "K" ? thousands(v) : std::to_string(static_cast<long long>(v) + (f.mark == "P" ? 1 : 0));
        };
        return ", " + shown(lo->valuedouble) + " to " + shown(hi->valuedouble);
    }
    // What the member accepts, as the camera describes it.
    std::string accepted(const Field& f)
    {
        const cJSON* m = member(f);
        const cJSON* names = cJSON_GetObjectItem(m, "names");
        std::string out;
        const cJSON* n;
        cJSON_ArrayForEach(n, names)
        out += (out.empty() ? "one of " : ", ") + std::string(cJSON_GetStringValue(n) ? n->valuestring : "?");
        const cJSON *lo = cJSON_GetObjectItem(m, "min"), *hi = cJSON_GetObjectItem(m, "max");
        if (out.empty() && cJSON_IsNumber(lo) && cJSON_IsNumber(hi))
            out = std::to_string(static_cast<long long>(lo->valuedouble)) + " to " +
                  std::to_string(static_cast<long long>(hi->valuedouble)) +
                  (f.mark == "K" ? " (shown in thousands)" : f.mark == "P" ? " (shown from 1)" : "");
        return out.empty() ? "refused by the camera" : "refused by the camera; it accepts " + out;
    }
};

/* ---- what a page shows ------------------------------------------------------ */

/* The page's values as the form shows them: the web read's form text, put
 * right where that text cannot carry the camera's value faithfully (read
 * through a JSON get): a "K" value the text rounds (512 shows as 0.5) is
 * shown exactly (0.512), and a text holding "&" or "=", which the form text
 * splits into other fields, is shown whole and kept read-only (locked says
 * why). */
bool displayed(const Page& page, Form& values, Form& locked, std::string& error)
{
    if (!read_page(page, values, error))
        return false;
    Json req(cJSON_CreateObject(), cJSON_Delete);
    cJSON_AddStringToObject(req.get(), "msg_type", "get");
    for (const Field& f : page.fields) {
        cJSON* list = cJSON_GetObjectItem(req.get(), f.module.c_str());
        if (!list)
            list = cJSON_AddArrayToObject(req.get(), f.module.c_str());
        cJSON_AddItemToArray(list, cJSON_CreateString(f.member.c_str()));
    }
    std::unique_ptr<char, void (*)(void*)> text(cJSON_PrintUnformatted(req.get()), std::free);
    auto reply = text && std::strlen(text.get()) <= request_max ? ask(text.get()) : std::nullopt;
    Json exact(reply ? cJSON_Parse(reply->c_str()) : nullptr, cJSON_Delete);
    for (const Field& f : page.fields) {
        const cJSON* v = cJSON_GetObjectItem(cJSON_GetObjectItem(exact.get(), f.module.c_str()), f.member.c_str());
        if (f.mark == "K" && cJSON_IsNumber(v) && values.count(f.name))
            values[f.name] = thousands(v->valuedouble);
        if (cJSON_IsString(v) && values.count(f.name)) // a text the form text split shows whole
            values[f.name] = v->valuestring;
        if (cJSON_IsString(v) && std::strpbrk(v->valuestring, "&=")) {
            locked[f.name] = "the camera holds a text with \"&\" or \"=\", which the form cannot carry: shown as held, read only here";
        }
    }
    return true;
}

/* ---- access: password, sessions, origin --------------------------------- */

std::string random_hex(size_t bytes)
{
    std::string raw(bytes, '\0'), out;
    for (size_t got = 0; got < bytes;) {
        ssize_t n = getrandom(raw.data() + got, bytes - got, 0);
        if (n > 0)
            got += static_cast<size_t>(n);
    }
    static const char digits[] = "0123456789abcdef";
    for (unsigned char c : raw)
        out += digits[c >> 4], out += digits[c & 15];
    return out;
}

// Compares without an early exit, so the time taken tells nothing.
bool same_secret(const std::string& a, const std::string& b)
{
    unsigned char diff = a.size() != b.size();
    for (size_t i = 0; i < a.size() && i < b.size(); ++i)
        diff |= static_cast<unsigned char>(a[i] ^ b[i]);
    return diff == 0;
}

bool password_matches(const std::string& hash, const std::string& password)
{
    crypt_data data{};
    const char* got = crypt_r(password.c_str(), hash.c_str(), &data);
    return got && got[0] != '*' && same_secret(got, hash);
}

// "paramweb passwd FILE": the admin password from the terminal (asked twice)
// or the first line of standard input, stored as a yescrypt hash.
int set_password(const char* file)
{
    bool tty = isatty(STDIN_FILENO);
    termios saved{};
    auto ask_line = [&](const char* prompt) {
        std::string line;
        if (tty) {
            fprintf(stderr, "%s", prompt);
            termios quiet = saved;
            quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
            tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
        }
        std::getline(std::cin, line);
        if (tty)
            tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved), fprintf(stderr, "\n");
        return line;
    };
    if (tty)
        tcgetattr(STDIN_FILENO, &saved);
    std::string pw = ask_line("new admin password: ");
    if (tty && ask_line("again: ") != pw)
        return fprintf(stderr, "paramweb passwd: the two passwords differ\n"), 1;
    if (pw.size() < 8)
        return fprintf(stderr, "paramweb passwd: use at least 8 characters\n"), 1;
    char salt[CRYPT_GENSALT_OUTPUT_SIZE];
    crypt_data data{};
    const char* hash = crypt_gensalt_rn("$y$", 0, nullptr, 0, salt, sizeof salt) ? crypt_r(pw.c_str(), salt, &data) : nullptr;
    if (!hash || hash[0] == '*')
        return fprintf(stderr, "paramweb passwd: hashing failed\n"), 1;
    // The old password stays until the new one is whole on disk: a power cut in
    // between must not leave an empty file (and a server that will not start).
    // The temporary is never a link someone planted for root to write through.
    const std::string tmp = std::string(file) + ".tmp", text = "admin:" + std::string(hash) + "\n";
    const int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    bool ok = fd >= 0 && fchmod(fd, 0600) == 0 && write(fd, text.data(), text.size()) == ssize_t(text.size()) &&
              fsync(fd) == 0;
    ok = fd >= 0 && close(fd) == 0 && ok && rename(tmp.c_str(), file) == 0;
    if (!ok) {
        const int err = errno;
        if (fd >= 0)
            unlink(tmp.c_str());
        return fprintf(stderr, "paramweb passwd: cannot write %s: %s\n", file, strerror(err)), 1;
    }
    const std::string path = file;
    const size_t slash = path.rfind('/');
    const int dir = open(slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash).c_str(),
                         O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0)
        fsync(dir), close(dir);
    fprintf(stderr, "paramweb passwd: %s written\n", file);
    return 0;
}

struct Session {
    std::string token; // goes with every state-changing request
    bool admin = false;
    std::chrono::steady_clock::time_point used;
};

/* Sessions, failed logins and the names this server answers to. */
struct Guard {
    std::string hash;                  // empty: no password (loopback only)
    std::vector<std::string> names;    // --host-name values
    bool tls = false;
    std::mutex mu;
    std::map<std::string, Session> sessions;
    struct Failures { int count = 0; std::chrono::steady_clock::time_point until; };
    std::map<std::string, Failures> failures; // by client address

    static constexpr size_t kMaxSessions = 256;
    static constexpr auto kIdle = std::chrono::minutes(30);

    // The session of the request's cookie, made (and the cookie set) when it
    // has none; a copy, taken under the lock.
    Session session(const httplib::Request& req, httplib::Response& res, std::string* id_out = nullptr)
    {
        std::string id = cookie(req);
        auto now = std::chrono::steady_clock::now();
        std::lock_guard<std::mutex> lock(mu);
        auto it = sessions.find(id);
        if (it == sessions.end() || now - it->second.used > kIdle) {
            if (it != sessions.end())
                sessions.erase(it);
            if (sessions.size() >= kMaxSessions) { // the least recently used goes
                auto oldest = sessions.begin();
                for (auto s = sessions.begin(); s != sessions.end(); ++s)
                    oldest = s->second.used < oldest->second.used ? s : oldest;
                sessions.erase(oldest);
            }
            id = random_hex(32);
            it = sessions.emplace(id, Session{random_hex(32), false, now}).first;
            res.set_header("Set-Cookie", "paramweb=" + id + "; Path=/; HttpOnly; SameSite=Strict" +
                                             (tls ? "; Secure" : ""));
        }
        it->second.used = now;
        if (id_out)
            *id_out = id;
        return it->second;
    }
    static std::string cookie(const httplib::Request& req)
    {
        std::string c = req.get_header_value("Cookie");
        size_t at = c.find("paramweb=");
        while (at != std::string::npos && at > 0 && c[at - 1] != ' ' && c[at - 1] != ';')
            at = c.find("paramweb=", at + 1);
        return at == std::string::npos ? "" : c.substr(at + 9, c.find(';', at) - at - 9);
    }
    void set_admin(const std::string& id, bool admin)
    {
        std::lock_guard<std::mutex> lock(mu);
        if (auto it = sessions.find(id); it != sessions.end())
            it->second.admin = admin, it->second.token = random_hex(32); // a new token at each change
    }
    bool logged_in(const Session& s) const { return hash.empty() || s.admin; }

    // Why this request may not go on, or "" when it may. Host: this server by
    // an address or a configured name (a DNS-rebinding page carries its own
    // name). Writes: Origin, else Referer, of this very server.
    std::string refuse(const httplib::Request& req) const
    {
        std::string host = req.get_header_value("Host");
        std::string name = host[0] == '[' ? host.substr(1, host.find(']') - 1) : host.substr(0, host.rfind(':'));
        if (host.find(':') == std::string::npos || (host[0] == '[' && host.back() == ']'))
            name = host[0] == '[' ? host.substr(1, host.size() - 2) : host;
        in6_addr any{};
        bool address = inet_pton(AF_INET, name.c_str(), &any) == 1 || inet_pton(AF_INET6, name.c_str(), &any) == 1;
        bool named = name == "localhost";
        for (const std::string& n : names)
            named = named || n == name;
        if (host.empty() || !(address || named))
            return "Host '" + host + "' is not a name of this server (see --host-name)";
        if (req.method != "POST")
            return "";
        std::string self = std::string(tls ? "https://" : "http://") + host;
        std::string origin = req.get_header_value("Origin"), referer = req.get_header_value("Referer");
        if (!origin.empty() && origin != "null")
            return origin == self ? "" : "a form from another site (Origin " + origin + ")";
        if (referer.empty())
            return "a form without Origin or Referer";
        return referer.compare(0, self.size() + 1, self + "/") == 0 ? "" : "a form from another site (Referer " + referer + ")";
    }

    // Failed logins from one address wait longer each time: none for the
    // first three, then 5 s doubling up to 5 min. Seconds still to wait.
    long wait_s(const std::string& addr)
    {
        std::lock_guard<std::mutex> lock(mu);
        auto left = failures[addr].until - std::chrono::steady_clock::now();
        return left.count() > 0 ? static_cast<long>(std::chrono::duration_cast<std::chrono::seconds>(left).count()) + 1 : 0;
    }
    void failed(const std::string& addr)
    {
        std::lock_guard<std::mutex> lock(mu);
        if (failures.size() > 4096)
            failures.clear();
        Failures& f = failures[addr];
        if (++f.count > 3)
            f.until = std::chrono::steady_clock::now() + std::chrono::seconds(std::min(300, 5 << std::min(f.count - 4, 6)));
    }
    void succeeded(const std::string& addr)
    {
        std::lock_guard<std::mutex> lock(mu);
        failures.erase(addr);
    }
};

/* ---- pages --------------------------------------------------------------- */

const char kHtml[] = "text/html; charset=utf-8";

std::string token_input(const Session& s)
{
    return "<input type=\"hidden\" name=\"_token\" value=\"" + s.token + "\">";
}

std::string logout_form(const Guard& g, const Session& s)
{
    return g.hash.empty() ? "" : "<form class=\"logout\" method=\"post\" action=\"/logout\">" + token_input(s) +
                                     "<button type=\"submit\">Log out</button></form>\n";
}

std::string index_page(const std::vector<Page>& pages, const Guard& g, const Session& s)
{
    std::string body = logout_form(g, s) + "<h1>Camera settings</h1>\n<p><a href=\"/status\">status</a></p>\n"
                       "<ul class=\"pages\">\n";
    for (const Page& p : pages) {
        std::string modules;
        for (const std::string& m : p.modules)
            modules += (modules.empty() ? "" : ", ") + m;
        body += "<li><a href=\"/page/" + html(p.name) + "\">" + html(p.name) + "</a> <small>" +
                html(modules) + "</small></li>\n";
    }
    return layout("Camera settings", body + "</ul>\n");
}

std::string login_page(const Session& s, const std::string& status)
{
    return layout("Log in", "<h1>Log in</h1>\n" +
                                (status.empty() ? "" : "<p id=\"status\" class=\"error\">" + html(status) + "</p>\n") +
                                "<form method=\"post\" action=\"/login\">" + token_input(s) +
                                "<label><span>admin password</span><input type=\"password\" name=\"password\" "
                                "autocomplete=\"current-password\" autofocus></label>\n"
                                "<button type=\"submit\">Log in</button></form>\n");
}

/* What a form shows: per field the text in the input, the camera's value when
 * the page was shown (a hidden twin, so that a save writes only what the user
 * changed and notices what the camera changed meanwhile), and a note. */
struct Shown {
    Form typed, device, notes, locked; // locked: fields shown read-only, with why
};

std::string form_page(const Page& page, const Shown& v, const std::string& status, bool failed,
                      Described& d, const Guard& g, const Session& s)
{
    std::string body = logout_form(g, s) + "<p><a href=\"/\">all pages</a></p>\n<h1>" + html(page.name) + "</h1>\n";
    if (!status.empty())
        body += std::string("<p id=\"status\" class=\"") + (failed ? "error" : "ok") + "\">" + html(status) +
                "</p>\n";
    body += "<form method=\"post\" action=\"/page/" + html(page.name) + "\">" + token_input(s) + "\n";
    for (const Field& f : page.fields) {
        const auto typed = v.typed.find(f.name), device = v.device.find(f.name);
        const auto note = v.notes.find(f.name);
        bool known = typed != v.typed.end(), read_only = d.read_only(f.module) || v.locked.count(f.name);
        const cJSON* m = d.member(f);
        const cJSON* names = cJSON_GetObjectItem(m, "names");
        std::string list;
        if (cJSON_IsArray(names)) { // suggestions, not a limit: the camera decides
            list = "<datalist id=\"names-" + html(f.name) + "\">";
            const cJSON* n;
            cJSON_ArrayForEach(n, names)
            if (cJSON_IsString(n))
                list += "<option value=\"" + html(n->valuestring) + "\">";
            list += "</datalist>";
        }
        const char* mode = f.kind == "S" || list.size() ? "" : f.mark == "K" || f.mark == "F" ? " inputmode=\"decimal\"" : " inputmode=\"numeric\"";
        body += "<label><span>" + html(label(f)) + "</span><input name=\"" + html(f.name) + "\" value=\"" +
                html(known ? typed->second : "") + "\"" + mode + (list.empty() ? "" : " list=\"names-" + html(f.name) + "\"") +
                (known && !read_only ? "" : " disabled") + ">" + list;
        if (device != v.device.end())
            body += "<input type=\"hidden\" name=\"shown:" + html(f.name) + "\" value=\"" + html(device->second) + "\">";
        body += "<small>" + html(hint(f) + d.range(f)) + (d.read_only(f.module) ? "; read only: the camera takes no writes to " + html(f.module) : "") +
                (f.also.empty() ? "" : "; this field also writes " + html(f.also)) + "</small>";
        if (v.locked.count(f.name) && !v.notes.count(f.name))
            body += "<em class=\"error\">" + html(v.locked.at(f.name)) + "</em>";
        if (note != v.notes.end())
            body += "<em class=\"error\">" + html(note->second) + "</em>";
        body += "</label>\n";
    }
    body += "<button type=\"submit\">Save</button> <a href=\"/page/" + html(page.name) + "\">reload</a>\n</form>\n";
    body += "<form class=\"reset\" method=\"post\" action=\"/page/" + html(page.name) + "/reset\">" + token_input(s) +
            "<button type=\"submit\">Reset this page to defaults</button></form>\n";
    return layout(page.name, body);
}

// The page with the values just read (and what v carries: typed values kept
// where they were refused, notes, locked fields).
void show_values(const Page& page, httplib::Response& res, const Guard& g, const Session& s, Described& d,
                 const Form& values, Shown v, const std::string& status, bool failed)
{
    for (auto& [name, value] : values) // what the user typed stays where it was refused
        v.typed.emplace(name, value), v.device[name] = value;
    res.set_content(form_page(page, v, status, failed, d, g, s), kHtml);
}

void show_page(const Page& page, httplib::Response& res, const Guard& g, const Session& s,
               const std::string& status = "", bool failed = false)
{
    Described d;
    Form values;
    Shown v;
    std::string error;
    if (!displayed(page, values, v.locked, error)) {
        res.status = 502;
        res.set_content(form_page(page, {}, error, true, d, g, s), kHtml);
        return;
    }
    show_values(page, res, g, s, d, values, v, status, failed);
}

// Whether the camera's form text now says what was sent ("3.50" and "3.5"
// are the same number).
bool holds(const Field& f, const std::string& now, const std::string& sent)
{
    if (now == sent || f.kind == "S")
        return now == sent;
    char *a = nullptr, *b = nullptr;
    double x = std::strtod(now.c_str(), &a), y = std::strtod(sent.c_str(), &b);
    return *a == '\0' && *b == '\0' && x == y;
}

/* A save writes only the fields the user changed (the typed text differs from
 * the camera's value when the page was shown): the form text is lossy ("K"
 * shows 512 as 0.5), so an untouched field written back would store something
 * else. A field the camera changed since the page was shown is not written
 * over. After the write the page is read back: a field whose value did not
 * take is marked with what the camera accepts, and the status says so. */
void save_page(const Page& page, const httplib::Request& req, httplib::Response& res, const Guard& g,
               const Session& s)
{
    Form now, locked;
    std::string error, data;
    if (!displayed(page, now, locked, error))
        return show_page(page, res, g, s);
    Described d;
    Shown v;
    std::vector<std::pair<const Field*, std::string>> sent;
    for (const Field& f : page.fields) {
        if (!req.has_param(f.name.c_str()) || !now.count(f.name))
            continue;
        const std::string value = req.get_param_value(f.name.c_str());
        const std::string shown = req.has_param(("shown:" + f.name).c_str())
                                      ? req.get_param_value(("shown:" + f.name).c_str()) : now[f.name];
        if (value == shown)
            continue;
        v.typed[f.name] = value, v.device[f.name] = shown;
        std::string why = d.read_only(f.module) ? "read only: the camera takes no writes to " + f.module
                          : locked.count(f.name) ? locked[f.name]
                          : now[f.name] != shown ? "changed on the camera since the page was shown (now " + now[f.name] +
                                                       "): not written; reload to see it"
                                                 : refusal(f, value);
        if (!why.empty()) {
            fprintf(stderr, "paramweb: page %s: %s refused, nothing sent: %s\n", page.name.c_str(),
                    f.name.c_str(), why.c_str());
            v.notes[f.name] = why;
        } else {
            data += (data.empty() ? "" : "&") + f.name + "=" + value;
            sent.emplace_back(&f, value);
        }
    }
    if (!v.notes.empty()) {
        res.status = 400;
        v.device = now; // the page now shows what the camera holds as its starting point
        for (auto& [name, value] : now)
            v.typed.emplace(name, value);
        res.set_content(form_page(page, v, "nothing saved: correct the marked fields", true, d, g, s), kHtml);
        return;
    }
    if (data.empty())
        return show_page(page, res, g, s, "nothing changed, nothing sent");
    const std::string request = www_request("set", page.name, &data);
    if (request.size() > request_max)
        return show_page(page, res, g, s, "nothing saved: the changes do not fit in one request", true);
    if (!ask(request)) {
        fprintf(stderr, "paramweb: page %s: no reply to the write\n", page.name.c_str());
        return show_page(page, res, g, s, "no reply from the parameter server", true);
    }
    Form after, after_locked;
    if (!displayed(page, after, after_locked, error))
        return show_page(page, res, g, s, "written, but the page cannot be read back: " + error, true);
    std::string saved, refused;
    Shown back; // the read-back values are what the page now shows
    back.locked = after_locked;
    for (auto& [f, value] : sent) {
        if (holds(*f, after[f->name], value)) {
            saved += (saved.empty() ? "" : ", ") + f->name;
            continue;
        }
        refused += (refused.empty() ? "" : ", ") + f->name;
        back.typed[f->name] = value; // kept as a change, for the user to correct
        back.notes[f->name] = d.accepted(*f) + " (it holds " + after[f->name] + ")";
    }
    if (refused.empty())
        return show_values(page, res, g, s, d, after, back, "saved: " + saved, false);
    fprintf(stderr, "paramweb: page %s: the camera refused %s\n", page.name.c_str(), refused.c_str());
    res.status = 422;
    show_values(page, res, g, s, d, after, back, "not saved: " + refused + (saved.empty() ? "" : "; saved: " + saved), true);
}

/* "Reset this page to defaults": every writable member of the page gets the
 * default the camera describes, in one JSON write per module; the page then
 * shows what the camera holds. */
void reset_page(const Page& page, httplib::Response& res, const Guard& g, const Session& s)
{
    Described d;
    Json req(cJSON_CreateObject(), cJSON_Delete);
    cJSON_AddStringToObject(req.get(), "msg_type", "set");
    std::string names;
    for (const Field& f : page.fields) {
        const cJSON* def = cJSON_GetObjectItem(d.member(f), "def");
        if (!def || d.read_only(f.module))
            continue;
        cJSON* module = cJSON_GetObjectItem(req.get(), f.module.c_str());
        if (!module)
            module = cJSON_AddObjectToObject(req.get(), f.module.c_str());
        if (!cJSON_GetObjectItem(module, f.member.c_str()))
            cJSON_AddItemToObject(module, f.member.c_str(), cJSON_Duplicate(def, 1));
        names += (names.empty() ? "" : ", ") + f.name;
    }
    if (names.empty())
        return show_page(page, res, g, s, "nothing to reset: the camera describes no defaults for this page", true);
    std::unique_ptr<char, void (*)(void*)> text(cJSON_PrintUnformatted(req.get()), std::free);
    if (std::strlen(text.get()) > request_max || !ask(text.get()))
        return show_page(page, res, g, s, "not reset: no reply from the parameter server", true);
    fprintf(stderr, "paramweb: page %s reset to defaults\n", page.name.c_str());
    show_page(page, res, g, s, "reset to the camera's defaults: " + names);
}

// Version, uptime and directories of the server (paramd's status command).
std::string status_page(const Guard& g, const Session& s)
{
    auto reply = ask(R"({"msg_type":"getInfo","msg_name":"status"})");
    Json st(reply ? cJSON_Parse(reply->c_str()) : nullptr, cJSON_Delete);
    std::string body = logout_form(g, s) + "<p><a href=\"/\">all pages</a></p>\n<h1>Status</h1>\n";
    if (!cJSON_GetObjectItem(st.get(), "version"))
        return layout("Status", body + "<p id=\"status\" class=\"error\">the parameter server gives no status "
                                        "(paramd's status command): " + html(reply ? *reply : "no reply") + "</p>\n");
    body += "<table class=\"status\">\n";
    for (const cJSON* item = st->child; item; item = item->next) {
        std::unique_ptr<char, void (*)(void*)> v(cJSON_PrintUnformatted(item), std::free);
        std::string text = cJSON_IsString(item) ? item->valuestring : v ? v.get() : "";
        body += "<tr><th>" + html(item->string ? item->string : "") + "</th><td>" + html(text) + "</td></tr>\n";
    }
    return layout("Status", body + "</table>\n");
}

void usage(FILE* out)
{
    fprintf(out,
            "usage: paramweb [--listen ADDR:PORT] [--map FILE] [--password-file FILE]\n"
            "                [--cert FILE --key FILE] [--host-name NAME]...\n"
            "       paramweb passwd FILE\n"
            "\n"
            "Serves the settings pages of the mapping file and reads and writes them through\n"
            "the library's web-form requests on UDP 127.0.0.1:%d.\n"
            "\n"
            "  -l, --listen ADDR:PORT   HTTP address (default 127.0.0.1:8080; IPv6 as [::]:8080)\n"
            "  -m, --map FILE           mapping file (default examples/device/www2json.json)\n"
            "  -P, --password-file FILE the admin password (made by 'paramweb passwd FILE');\n"
            "                           required unless ADDR is a loopback address\n"
            "  -c, --cert FILE          serve HTTPS with this certificate (PEM) ...\n"
            "  -k, --key FILE           ... and this private key (PEM)\n"
            "  -n, --host-name NAME     a name the browser may use for this server besides\n"
            "                           its addresses and localhost (repeatable)\n"
            "  -h, --help               this text\n"
            "  -V, --version            print the version and exit\n"
            "\n"
            "  passwd FILE              set the admin password: asked twice on a terminal,\n"
            "                           else the first line of standard input\n",
            PARA_SERVER_PORT);
}

bool loopback(const std::string& host)
{
    in_addr a4{};
    return host == "localhost" || host == "::1" ||
           (inet_pton(AF_INET, host.c_str(), &a4) == 1 && (ntohl(a4.s_addr) >> 24) == 127);
}

// Connections one client may hold at once. A browser opens up to six to a
// server; a client holding more is trickling requests to starve the workers.
constexpr size_t client_connections_max = 8;

// The live connections of each client. cpp-httplib closes its sockets itself;
// close() below tells when.
class Clients {
public:
    // Whether a connection just accepted from `peer` may be served.
    bool admit(int fd, const sockaddr_storage& peer)
    {
        const std::string who = client_of(peer);
        std::lock_guard<std::mutex> lock(mu_);
        size_t& held = held_[who];
        if (held >= client_connections_max) {
            auto now = std::chrono::steady_clock::now();
            if (auto& last = told_[who]; now - last > std::chrono::seconds(10)) {
                last = now;
                fprintf(stderr, "paramweb: %s holds %zu connections: further ones are closed\n", who.c_str(), held);
            }
            return false;
        }
        ++held;
        owner_[fd] = who;
        return true;
    }
    // Called before the descriptor is closed, so that its number cannot be
    // accepted again and counted while it is still on the books.
    void closing(int fd)
    {
        std::lock_guard<std::mutex> lock(mu_);
        auto it = owner_.find(fd);
        if (it == owner_.end())
            return;
        if (--held_[it->second] == 0)
            held_.erase(it->second), told_.erase(it->second);
        owner_.erase(it);
    }

private:
    // An IPv6 client is its /64: one host owns the whole prefix.
    static std::string client_of(const sockaddr_storage& peer)
    {
        char text[INET6_ADDRSTRLEN] = "?";
        if (peer.ss_family == AF_INET) {
            inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in&>(peer).sin_addr, text, sizeof text);
        } else if (peer.ss_family == AF_INET6) {
            in6_addr a = reinterpret_cast<const sockaddr_in6&>(peer).sin6_addr;
            if (IN6_IS_ADDR_V4MAPPED(&a)) {
                inet_ntop(AF_INET, &a.s6_addr[12], text, sizeof text);
            } else {
                std::fill(std::begin(a.s6_addr) + 8, std::end(a.s6_addr), 0);
                inet_ntop(AF_INET6, &a, text, sizeof text);
                return std::string(text) + "/64";
            }
        }
        return text;
    }

    std::mutex mu_;
    std::map<int, std::string> owner_;
    std::map<std::string, size_t> held_;
    std::map<std::string, std::chrono::steady_clock::time_point> told_;
};

// Made at the first use, never destroyed: libraries close files before
// main runs, and sockets are still closed while the program exits.
Clients& clients()
{
    static Clients* made = new Clients;
    return *made;
}

} // namespace

// cpp-httplib gives a socket to a worker as soon as it is accepted, with no
// hook before the worker starts reading, so a worker is held for as long as a
// client trickles its request. The per-client bound therefore sits in
// accept() itself, which the library calls from its listening thread: this
// definition takes the place of the C library's for the whole program
// (nothing else in paramweb accepts connections). A connection over the
// bound is closed before any worker sees it.
extern "C" __attribute__((visibility("default"))) int accept(int fd, sockaddr* addr, socklen_t* len)
{
    for (;;) {
        sockaddr_storage peer{};
        socklen_t peer_len = sizeof peer;
        const int conn = accept4(fd, reinterpret_cast<sockaddr*>(&peer), &peer_len, 0);
        if (conn < 0)
            return conn;
        if (clients().admit(conn, peer)) {
            if (addr && len) {
                memcpy(addr, &peer, std::min<size_t>(*len, peer_len));
                *len = peer_len;
            }
            return conn;
        }
        close(conn);
    }
}

// Every close of the program passes here (cpp-httplib's included), so a
// client's connection count drops exactly when one of its sockets closes.
extern "C" __attribute__((visibility("default"))) int close(int fd)
{
    static const auto next = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "close"));
    clients().closing(fd);
    return next(fd);
}

int main(int argc, char** argv)
{
    if (argc == 3 && std::string(argv[1]) == "passwd")
        return set_password(argv[2]);
    std::string listen = "127.0.0.1:8080", map = "examples/device/www2json.json", password_file, cert, key;
    Guard guard;
    static const option opts[] = {{"listen", required_argument, nullptr, 'l'},
                                  {"map", required_argument, nullptr, 'm'},
                                  {"password-file", required_argument, nullptr, 'P'},
                                  {"cert", required_argument, nullptr, 'c'},
                                  {"key", required_argument, nullptr, 'k'},
                                  {"host-name", required_argument, nullptr, 'n'},
                                  {"help", no_argument, nullptr, 'h'},
                                  {"version", no_argument, nullptr, 'V'},
                                  {nullptr, 0, nullptr, 0}};
    for (int c; (c = getopt_long(argc, argv, "l:m:P:c:k:n:hV", opts, nullptr)) != -1;) {
        switch (c) {
        case 'l': listen = optarg; break;
        case 'm': map = optarg; break;
        case 'P': password_file = optarg; break;
        case 'c': cert = optarg; break;
        case 'k': key = optarg; break;
        case 'n': guard.names.push_back(optarg); break;
        case 'V': printf("paramweb %s\n", PARA_TOOLS_VERSION); return 0;
        default: return usage(c == 'h' ? stdout : stderr), c == 'h' ? 0 : 2;
        }
    }
    const size_t colon = listen.rfind(':');
    const int port = colon == std::string::npos ? 0 : std::atoi(listen.c_str() + colon + 1);
    std::string host = colon == std::string::npos ? "" : listen.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    if (optind != argc || port <= 0 || port > 65535 || host.empty() || cert.empty() != key.empty()) {
        usage(stderr);
        return 2;
    }
    if (!password_file.empty()) {
        std::ifstream in(password_file);
        std::string line;
        std::getline(in, line);
        if (line.compare(0, 6, "admin:") == 0)
            guard.hash = line.substr(6);
        if (guard.hash.empty() || guard.hash[0] != '$') {
            fprintf(stderr, "paramweb: %s holds no password (make it with: paramweb passwd %s)\n",
                    password_file.c_str(), password_file.c_str());
            return 1;
        }
    } else if (!loopback(host)) {
        fprintf(stderr, "paramweb: %s is not a loopback address: give --password-file (paramweb passwd FILE "
                        "makes one)\n", host.c_str());
        return 1;
    }
    const auto pages = load_pages(map);
    if (!pages) {
        fprintf(stderr, "paramweb: cannot read the mapping file %s\n", map.c_str());
        return 1;
    }

    guard.tls = !cert.empty();
    std::unique_ptr<httplib::Server> server;
    if (guard.tls) {
        auto tls = std::make_unique<httplib::SSLServer>(cert.c_str(), key.c_str());
        if (!tls->is_valid()) {
            fprintf(stderr, "paramweb: cannot use certificate %s with key %s\n", cert.c_str(), key.c_str());
            return 1;
        }
        server = std::move(tls);
    } else {
        server = std::make_unique<httplib::Server>();
    }
    httplib::Server& web = *server;

    // Bounds: a body of at most 16 KiB (whatever the path or encoding), 5 s
    // without a byte ends a connection, eight connections per client (see
    // accept above) and 64 workers, so slow clients of one or two hosts
    // cannot take them all.
    web.set_payload_max_length(16 * 1024);
    web.set_read_timeout(5, 0);
    web.set_write_timeout(5, 0);
    web.set_keep_alive_max_count(20);
    web.new_task_queue = [] { return new httplib::ThreadPool(64); };

    web.set_pre_routing_handler([&](const httplib::Request& req, httplib::Response& res) {
        res.set_header("X-Frame-Options", "DENY");
        res.set_header("Content-Security-Policy", "default-src 'none'; style-src 'self'; script-src 'self'; "
                                                  "img-src 'self'; form-action 'self'; frame-ancestors 'none'; base-uri 'none'");
        res.set_header("X-Content-Type-Options", "nosniff");
        res.set_header("Referrer-Policy", "same-origin");
        res.set_header("Cache-Control", "no-store");
        // The body cap counts only bodies of a stated length: a browser never
        // sends a form in chunks, so a chunked body is not read at all.
        if (req.has_header("Transfer-Encoding")) {
            res.status = 411;
            res.set_content("refused: send the body with a Content-Length\n", "text/plain");
            return httplib::Server::HandlerResponse::Handled;
        }
        if (std::string why = guard.refuse(req); !why.empty()) {
            fprintf(stderr, "paramweb: %s %s refused: %s\n", req.method.c_str(), req.path.c_str(), why.c_str());
            res.status = 403;
            res.set_content("refused: " + why + "\n", "text/plain");
            return httplib::Server::HandlerResponse::Handled;
        }
        if (req.path.compare(0, 8, "/static/") == 0 || req.path == "/login")
            return httplib::Server::HandlerResponse::Unhandled;
        Session s = guard.session(req, res);
        if (guard.logged_in(s))
            return httplib::Server::HandlerResponse::Unhandled;
        if (req.method == "GET") {
            res.status = 303;
            res.set_header("Location", "/login");
        } else {
            res.status = 403;
            res.set_content("refused: log in first\n", "text/plain");
        }
        return httplib::Server::HandlerResponse::Handled;
    });
    // A write also carries the token of its session.
    auto token_ok = [&](const httplib::Request& req, httplib::Response& res, Session& s, std::string* id = nullptr) {
        s = guard.session(req, res, id);
        if (same_secret(req.get_param_value("_token"), s.token))
            return true;
        fprintf(stderr, "paramweb: POST %s refused: no valid token\n", req.path.c_str());
        res.status = 403;
        res.set_content("refused: the form is stale or from elsewhere (no valid token); reload the page\n", "text/plain");
        return false;
    };

    web.Get("/login", [&](const httplib::Request& req, httplib::Response& res) {
        res.set_content(login_page(guard.session(req, res), ""), kHtml);
    });
    web.Post("/login", [&](const httplib::Request& req, httplib::Response& res) {
        Session s;
        std::string id;
        if (!token_ok(req, res, s, &id))
            return;
        if (long wait = guard.wait_s(req.remote_addr); wait > 0) {
            res.status = 429;
            return res.set_content(login_page(s, "too many failed logins: try again in " + std::to_string(wait) + " s"), kHtml);
        }
        if (guard.hash.empty() || !password_matches(guard.hash, req.get_param_value("password"))) {
            guard.failed(req.remote_addr);
            fprintf(stderr, "paramweb: failed login from %s\n", req.remote_addr.c_str());
            res.status = 403;
            return res.set_content(login_page(s, "wrong password"), kHtml);
        }
        guard.succeeded(req.remote_addr);
        guard.set_admin(id, true);
        res.status = 303;
        res.set_header("Location", "/");
    });
    web.Post("/logout", [&](const httplib::Request& req, httplib::Response& res) {
        Session s;
        std::string id;
        if (!token_ok(req, res, s, &id))
            return;
        guard.set_admin(id, false);
        res.status = 303;
        res.set_header("Location", "/login");
    });
    web.Get("/", [&](const httplib::Request& req, httplib::Response& res) {
        res.set_content(index_page(*pages, guard, guard.session(req, res)), kHtml);
    });
    web.Get(R"(/static/([a-z.]+))", [](const httplib::Request& req, httplib::Response& res) {
        const std::string name = req.matches[1];
        const std::string text = asset(name);
        if (text.empty() || name == "layout.html")
            return void(res.status = 404);
        res.set_content(text, name.find(".css") != std::string::npos ? "text/css" : "text/javascript");
    });
    auto with_page = [&](auto handle) {
        return [&, handle](const httplib::Request& req, httplib::Response& res) {
            for (const Page& p : *pages)
                if (p.name == req.matches[1])
                    return handle(p, req, res);
            res.status = 404;
            res.set_content(layout("not found", "<p>No such page. <a href=\"/\">All pages</a></p>\n"), kHtml);
        };
    };
    web.Get("/status", [&](const httplib::Request& req, httplib::Response& res) {
        res.set_content(status_page(guard, guard.session(req, res)), kHtml);
    });
    web.Post(R"(/page/([^/]+)/reset)", with_page([&](const Page& p, const httplib::Request& req, httplib::Response& res) {
                 Session s;
                 if (token_ok(req, res, s))
                     reset_page(p, res, guard, s);
             }));
    web.Get(R"(/page/([^/]+))", with_page([&](const Page& p, const httplib::Request& req, httplib::Response& res) {
                show_page(p, res, guard, guard.session(req, res));
            }));
    web.Post(R"(/page/([^/]+))", with_page([&](const Page& p, const httplib::Request& req, httplib::Response& res) {
                 Session s;
                 if (token_ok(req, res, s))
                     save_page(p, req, res, guard, s);
             }));

    // Stop on SIGINT/SIGTERM from a thread of its own: the server's stop is
    // not meant for a signal handler.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    signal(SIGINT, SIG_DFL);
    signal(SIGPIPE, SIG_IGN);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

    // The library's default options add SO_REUSEPORT, which lets a second
    // paramweb share the address unnoticed; it is told instead.
    web.set_socket_options([](socket_t sock) {
        int yes = 1;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    if (!web.bind_to_port(host.c_str(), port)) {
        fprintf(stderr, "paramweb: cannot listen on %s\n", listen.c_str());
        return 1;
    }
    printf("paramweb: settings pages on %s://%s/ (mapping %s, parameter server 127.0.0.1:%d%s)\n",
           guard.tls ? "https" : "http", listen.c_str(), map.c_str(), PARA_SERVER_PORT,
           guard.hash.empty() ? ", no password: loopback only" : ", admin password required");
    fflush(stdout);
    // Started once the socket exists, so that a stop never races its
    // creation; a signal that comes before the server runs waits for it.
    std::thread([&] {
        int sig;
        sigwait(&stop_signals, &sig);
        while (!web.is_running())
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        web.stop();
    }).detach();
    web.listen_after_bind();
    return 0;
}
