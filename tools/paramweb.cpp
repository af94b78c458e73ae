// paramweb: a settings web page in the role of the camera's web server. The
// pages come from the mapping file's page entries; every read and write goes
// to the library's port as the same form-field request ("msg_from":"www")
// that the device's web server sends, and the form text of the reply fills
// the form. A demonstration of that path on a trusted host, not a hardened
// web server: no authentication, no TLS.
#include "para.h"

#include <httplib.h>

#include <arpa/inet.h>
#include <getopt.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
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
                        mapping_string(member, 1), mapping_string(member, 2)};
                bool seen = f.name.empty();
                for (const Field& g : page.fields)
                    seen = seen || g.name == f.name;
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

std::string index_page(const std::vector<Page>& pages)
{
    std::string body = "<h1>Camera settings</h1>\n<ul class=\"pages\">\n";
    for (const Page& p : pages) {
        std::string modules;
        for (const std::string& m : p.modules)
            modules += (modules.empty() ? "" : ", ") + m;
        body += "<li><a href=\"/page/" + html(p.name) + "\">" + html(p.name) + "</a> <small>" +
                html(modules) + "</small></li>\n";
    }
    return layout("Camera settings", body + "</ul>\n");
}

// shown: what the form holds; notes: a message per field; status: the reply
// or error line above the form.
std::string form_page(const Page& page, const Form& shown, const Form& notes, const std::string& status,
                      bool failed)
{
    std::string body = "<p><a href=\"/\">all pages</a></p>\n<h1>" + html(page.name) + "</h1>\n";
    if (!status.empty())
        body += std::string("<p id=\"status\" class=\"") + (failed ? "error" : "ok") + "\">" + html(status) +
                "</p>\n";
    body += "<form method=\"post\" action=\"/page/" + html(page.name) + "\">\n";
    for (const Field& f : page.fields) {
        const auto value = shown.find(f.name);
        const auto note = notes.find(f.name);
        body += "<label><span>" + html(f.name) + "</span><input name=\"" + html(f.name) + "\" value=\"" +
                html(value == shown.end() ? "" : value->second) + "\"" +
                (value == shown.end() ? " disabled" : "") + "><small>" + html(hint(f)) + "</small>";
        if (note != notes.end())
            body += "<em class=\"error\">" + html(note->second) + "</em>";
        body += "</label>\n";
    }
    body += "<button type=\"submit\">Save</button> <a href=\"/page/" + html(page.name) + "\">reload</a>\n</form>\n";
    return layout(page.name, body);
}

void show_page(const Page& page, httplib::Response& res, const std::string& status = "", bool failed = false,
               const Form& notes = {})
{
    Form values;
    std::string error;
    if (!read_page(page, values, error)) {
        res.status = 502;
        res.set_content(form_page(page, {}, {}, error, true), "text/html; charset=utf-8");
        return;
    }
    res.set_content(form_page(page, values, notes, status, failed), "text/html; charset=utf-8");
}

// A submit writes only what differs from the library's current form text:
// the text is lossy ("K" shows 512 as 0.5), so writing back an unchanged
// field would store something else. The page's script already leaves
// unchanged fields out; this covers a browser without it.
void save_page(const Page& page, const httplib::Request& req, httplib::Response& res)
{
    Form now, notes;
    std::string error;
    if (!read_page(page, now, error))
        return show_page(page, res);
    std::string data;
    Form typed = now;
    for (const Field& f : page.fields) {
        if (!req.has_param(f.name.c_str()))
            continue;
        const std::string value = req.get_param_value(f.name.c_str());
        const auto current = now.find(f.name);
        if (current != now.end() && current->second == value)
            continue;
        typed[f.name] = value;
        if (std::string why = refusal(f, value); !why.empty()) {
            fprintf(stderr, "paramweb: page %s: %s refused, nothing sent: %s\n", page.name.c_str(),
                    f.name.c_str(), why.c_str());
            notes[f.name] = why;
        }
        else
            data += (data.empty() ? "" : "&") + f.name + "=" + value;
    }
    if (!notes.empty()) {
        res.status = 400;
        res.set_content(form_page(page, typed, notes, "nothing saved: correct the marked fields", true),
                        "text/html; charset=utf-8");
        return;
    }
    if (data.empty())
        return show_page(page, res, "nothing changed, nothing sent");
    const std::string request = www_request("set", page.name, &data);
    if (request.size() > request_max)
        return show_page(page, res, "nothing saved: the changes do not fit in one request", true);
    const auto reply = ask(request);
    if (!reply) {
        fprintf(stderr, "paramweb: page %s: no reply to the write\n", page.name.c_str());
        return show_page(page, res, "no reply from the parameter server", true);
    }
    show_page(page, res, *reply, *reply != "result=success");
}

void usage(FILE* out)
{
    fprintf(out,
            "usage: paramweb [--listen ADDR:PORT] [--map FILE]\n"
            "\n"
            "Serves the settings pages of the mapping file and reads and writes them through\n"
            "the library's web-form requests on UDP 127.0.0.1:%d.\n"
            "\n"
            "  -l, --listen ADDR:PORT  HTTP address (default 127.0.0.1:8080)\n"
            "  -m, --map FILE          mapping file (default examples/device/www2json.json)\n"
            "  -h, --help              this text\n",
            PARA_SERVER_PORT);
}

} // namespace

int main(int argc, char** argv)
{
    std::string listen = "127.0.0.1:8080";
    std::string map = "examples/device/www2json.json";
    static const option opts[] = {{"listen", required_argument, nullptr, 'l'},
                                  {"map", required_argument, nullptr, 'm'},
                                  {"help", no_argument, nullptr, 'h'},
                                  {nullptr, 0, nullptr, 0}};
    for (int c; (c = getopt_long(argc, argv, "l:m:h", opts, nullptr)) != -1;) {
        if (c == 'l')
            listen = optarg;
        else if (c == 'm')
            map = optarg;
        else
            return usage(c == 'h' ? stdout : stderr), c == 'h' ? 0 : 2;
    }
    const size_t colon = listen.rfind(':');
    const int port = colon == std::string::npos ? 0 : std::atoi(listen.c_str() + colon + 1);
    if (optind != argc || port <= 0 || port > 65535) {
        usage(stderr);
        return 2;
    }
    const auto pages = load_pages(map);
    if (!pages) {
        fprintf(stderr, "paramweb: cannot read the mapping file %s\n", map.c_str());
        return 1;
    }

    httplib::Server web;
    web.Get("/", [&](const httplib::Request&, httplib::Response& res) {
        res.set_content(index_page(*pages), "text/html; charset=utf-8");
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
            res.set_content(layout("not found", "<p>No such page. <a href=\"/\">All pages</a></p>\n"),
                            "text/html; charset=utf-8");
        };
    };
    web.Get(R"(/page/([^/]+))", with_page([](const Page& p, const httplib::Request&, httplib::Response& res) {
                show_page(p, res);
            }));
    web.Post(R"(/page/([^/]+))", with_page(save_page));

    // Stop on SIGINT/SIGTERM from a thread of its own: the server's stop is
    // not meant for a signal handler.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    signal(SIGINT, SIG_DFL);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    std::thread([&] {
        int sig;
        sigwait(&stop_signals, &sig);
        web.stop();
    }).detach();

    // The library's default options add SO_REUSEPORT, which lets a second
    // paramweb share the address unnoticed; it is told instead.
    web.set_socket_options([](socket_t sock) {
        int yes = 1;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    const std::string host = listen.substr(0, colon);
    if (!web.bind_to_port(host.c_str(), port)) {
        fprintf(stderr, "paramweb: cannot listen on %s\n", listen.c_str());
        return 1;
    }
    printf("paramweb: settings pages on http://%s/ (mapping %s, parameter server 127.0.0.1:%d)\n",
           listen.c_str(), map.c_str(), PARA_SERVER_PORT);
    fflush(stdout);
    web.listen_after_bind();
    return 0;
}
