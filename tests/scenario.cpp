// Steps of a scenario file, one per line ("#" starts a comment; "each" repeats
// steps, see below):
//   ro SRC [NAME] / rw SRC [NAME]  copy tests/data/SRC into the ro or rw directory
//   ro-example                     copy every file of examples/device into ro
//   write ro|rw NAME TEXT          write TEXT (escapes \n \r \t \s \0 \\ \xHH, <N:c>)
//   conf_save N / save_time AUDIO_MS VIDEO_MS / ext
//   start / save / stop            platformparam_init / _save / _stop(1)
//   > REQUEST / >! REQUEST         send a datagram and keep the reply / expect none
//   = JSON / == BYTES / ~ TEXT     the reply, compact / byte-exact / containing TEXT
//   event TEXT / events-none       the next callback the library made / none left
//   wait FILE JSON                 within 5 s the compact form of rw/FILE is JSON
//   has FILE TEXT / bytes FILE TEXT  rw/FILE contains / is exactly TEXT
//   log TEXT / log* TEXT           exactly one / some log line so far contains TEXT
//                                  (escapes as write)
//   $ TOOL ARGS / status N OUTPUT  run a built tool; its exit status and output
//   call FN ARGS [-> ANSWER]       a function of calls.cpp's table; its answer is the
//                                  reply, and must be ANSWER when given
//   until FN ARGS -> ANSWER        within 5 s the call answers ANSWER
//   log-clean FILE                 every log line so far ends in a line feed and none
//                                  names a function listed in tests/data/FILE
//   nolog TEXT / logs N TEXT       no log line so far / N lines contain TEXT
//   setters                        member callbacks name the setter instead:
//                                  "isp para_set_isp_shutter_cur 0 11"
//   rwdir PATH                     the rw directory from now on (relative to
//                                  the fixture directory)
//   get MOD REQ JSON / set MOD JSON  a typed module's table operation on the
//                                  first item of JSON (REQ "-": no request
//                                  name, "whole": the message itself); the
//                                  reply ("null" for none) is checked by "="
#include "scenario.h"

#include "para_internal.h"
#include "para_isp_internal.h"
#include "support.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <unistd.h>
#include <sys/stat.h>

#include <algorithm>
#include <deque>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>

namespace scenario {
std::string call(const std::string& line, const std::string& dir);
std::string unescape(const std::string& s);
namespace {

std::mutex events_mu;
std::deque<std::string> events; // callbacks come from the worker thread

void event(const std::string& text)
{
    std::lock_guard<std::mutex> lk(events_mu);
    events.push_back(text);
}

std::string printed(void* json)
{
    para::CharPtr p(cJSON_PrintUnformatted(static_cast<cJSON*>(json)));
    return p ? p.get() : "null";
}

void record_callbacks()
{
    auto& p = para_profile;
    p.video_page_caller = [](void* j) { event("video page " + printed(j)); };
    p.isp_page_caller = [](void* j) { event("isp page " + printed(j)); };
    p.audio_page_caller = [](void* j) { event("audio page " + printed(j)); };
    p.af_page_caller = [](void* j) { event("af page " + printed(j)); };
    p.misc_page_caller = [](char* m, void* j) { event(std::string("misc page ") + m + " " + printed(j)); };
    p.conf_caller = [](char* f) { event(std::string("conf page ") + f); };
    p.video_caller = [](void*, int s, int v) { event("video member " + std::to_string(s) + " " + std::to_string(v)); };
    p.isp_caller = [](void*, int s, int v) { event("isp member " + std::to_string(s) + " " + std::to_string(v)); };
    p.audio_caller = [](void*, int v) { event("audio member " + std::to_string(v)); };
    p.af_caller = [](void*, int v) { event("af member " + std::to_string(v)); };
    p.misc_caller = [](char* f, const void*, char* k, int v) {
        event(std::string("misc member ") + f + " " + k + " " + std::to_string(v));
    };
    p.conf_caller_in = [](char* f, const char* k) { event(std::string("conf member ") + f + " " + k); };
    p.odm_caller = [](void* k) { event(std::string("odm member ") + static_cast<char*>(k)); };
    p.para_version_conflict = [](char* f, int from, int to) {
        event(std::string("conflict ") + f + " " + std::to_string(from) + "->" + std::to_string(to));
    };
}

// A module and commands of the host application for the server scenarios:
// "ext" answers {"v":<items>} (a keyless post {"post":1}) and reports what it
// was given as events; "status" is registered twice, the later one wins.
int ext_set(char* req, void* in, char*)
{
    event(std::string("ext set ") + (req ? req : "(null)") + "=" + printed(in));
    return 0;
}
int ext_get(char* req, void* in, void** out, char*)
{
    event(std::string("ext get ") + (req ? req : "(null)"));
    cJSON* o = cJSON_CreateObject();
    cJSON_AddNumberToObject(o, req ? "v" : "post", req ? cJSON_GetArraySize(static_cast<cJSON*>(in)) : 1);
    *out = o;
    return 0;
}
int cmd_from(const char* from, int type, para_server_message_info* info, cJSON** out)
{
    *out = cJSON_CreateObject();
    cJSON_AddStringToObject(*out, "from", from);
    if (info) {
        cJSON_AddNumberToObject(*out, "type", type);
        cJSON_AddNumberToObject(*out, "len", static_cast<double>(strlen(info->buffer)));
    }
    return 0;
}
param_handle_t first_cmds[] = {{"status", [](int t, para_server_message_info*, cJSON** o) { return cmd_from("a", t, nullptr, o); }, 0}};
param_handle_t second_cmds[] = {
    {"status", [](int t, para_server_message_info* i, cJSON** o) { return cmd_from("b", t, i, o); }, 0},
    {"broken", [](int, para_server_message_info*, cJSON** o) { *o = cJSON_CreateObject(); return -1; }, 0}};

void register_ext()
{
    module_para_handle_s ext{};
    ext.parse_name = const_cast<char*>("ext");
    ext.set_buf = ext_set;
    ext.get_buf = ext_get;
    register_para_handle_extern(&ext);
    ASSERT_EQ(register_param_command(const_cast<char*>("first"), first_cmds, 1), 0);
    ASSERT_EQ(register_param_command(const_cast<char*>("second"), second_cmds, 2), 0);
}

// "word rest": splits off the first word.
std::string word(std::string& rest)
{
    size_t sp = rest.find(' ');
    std::string w = rest.substr(0, sp);
    rest = sp == std::string::npos ? "" : rest.substr(sp + 1);
    return w;
}

using GetOp = int (*)(char*, void*, void**, char*);
using SetOp = int (*)(char*, void*, char*);
const std::map<std::string, std::pair<GetOp, SetOp>> table_ops = {{"video", {para_get_video_opt, para_set_video_opt}},
    {"isp", {para_get_isp_opt, para_set_isp_opt}}, {"audio", {para_get_audio_opt, para_set_audio_opt}},
    {"af", {para_get_af_opt, nullptr}}};
// Public setters by address, for callbacks that name the setter they came from.
#define S(fn) {reinterpret_cast<void*>(&fn), #fn},
#define VIDEO_SETTER(M, kind, table) S(para_set_video_##M##_cur)
#define AUDIO_SETTER(M, kind, table) S(para_set_audio_##M##_cur)
#define AF_SETTER(M) S(para_set_af_##M##_cur)
#define ISP_SETTER(M, file, set, o) PARA_ISP_IF_##set(S(para_set_isp_##M##_cur))
#define MISC_SETTER(m, kind) S(para_set_misc_##m##_cur)
const std::map<const void*, std::string> setters = {PARA_VIDEO_MEMBERS(VIDEO_SETTER) PARA_AUDIO_MEMBERS(AUDIO_SETTER)
    PARA_AF_MEMBERS(AF_SETTER) PARA_ISP_MEMBERS(ISP_SETTER) PARA_MISC_MEMBERS(MISC_SETTER) S(para_set_json_cur)};
std::string setter(const void* fn)
{
    auto it = setters.find(fn);
    return it == setters.end() ? "?" : it->second;
}
void name_setters()
{
    auto& p = para_profile;
    p.video_caller = [](void* f, int s, int v) { event("video " + setter(f) + " " + std::to_string(s) + " " + std::to_string(v)); };
    p.isp_caller = [](void* f, int s, int v) { event("isp " + setter(f) + " " + std::to_string(s) + " " + std::to_string(v)); };
    p.audio_caller = [](void* f, int v) { event("audio " + setter(f) + " " + std::to_string(v)); };
    p.af_caller = [](void* f, int v) { event("af " + setter(f) + " " + std::to_string(v)); };
    p.misc_caller = [](char*, const void* f, char* k, int v) { event("misc " + setter(f) + " " + k + " " + std::to_string(v)); };
}
#undef S

} // namespace

std::string data_path(const std::string& name)
{
    return std::string(PARA_SOURCE_DIR) + "/tests/data/" + name;
}

std::vector<std::string> list(const std::string& dir)
{
    std::vector<std::string> out;
    if (DIR* d = opendir(data_path(dir).c_str())) {
        while (dirent* e = readdir(d)) {
            std::string n = e->d_name;
            if (n.size() > 4 && n.compare(n.size() - 4, 4, ".txt") == 0)
                out.push_back(n.substr(0, n.size() - 4));
        }
        closedir(d);
    }
    std::sort(out.begin(), out.end());
    return out;
}

void run(const std::string& dir, const std::string& name, bool fixed_port)
{
    std::ifstream in(data_path(dir + "/" + name + ".txt"));
    ASSERT_TRUE(in) << "no scenario " << dir << "/" << name;
    test::TempDir tmp;
    tmp.use_as_profile();
    record_callbacks();
    if (!fixed_port)
        para_server_port = 0;
    test::LogCapture log;
    std::optional<std::string> reply;
    test::CommandResult ran{-1, ""};
    bool running = false;
    // "each A..B STEP ; STEP ..." stands for its steps once per number from A
    // to B, with "{}" replaced by the number; "each X,Y,Z STEP ..." once per
    // word, "{#}" being its place in the list (from 1).
    std::vector<std::pair<int, std::string>> steps;
    int no = 0;
    for (std::string line; std::getline(in, line);) {
        ++no;
        if (line.rfind("each ", 0) != 0) {
            steps.emplace_back(no, line);
            continue;
        }
        std::string body = line.substr(5), list = word(body);
        std::vector<std::string> items;
        unsigned from = 0, to = 0;
        if (sscanf(list.c_str(), "%u..%u", &from, &to) == 2)
            for (unsigned i = from; i <= to; ++i)
                items.push_back(std::to_string(i));
        else
            for (std::stringstream words(list); std::getline(words, items.emplace_back(), ',');) {
            }
        if (!items.empty() && items.back().empty())
            items.pop_back();
        for (size_t i = 0; i < items.size(); ++i)
            for (std::string rest = body + " ; ", step; !rest.empty(); rest.erase(0, rest.find(" ; ") + 3)) {
                step = rest.substr(0, rest.find(" ; "));
                for (auto [mark, by] : {std::pair{"{}", items[i]}, std::pair{"{#}", std::to_string(i + 1)}})
                    for (size_t at; (at = step.find(mark)) != std::string::npos;)
                        step.replace(at, std::string_view(mark).size(), by);
                steps.emplace_back(no, step);
            }
    }
    for (auto& [no, line] : steps) {
        if (line.empty() || line[0] == '#')
            continue;
        SCOPED_TRACE(dir + "/" + name + ".txt:" + std::to_string(no) + ": " + line);
        std::string rest = line, op = word(rest);
        auto rw = [&](const std::string& f) { return test::read_file(tmp.rw() + "/" + f).value_or(""); };
        if (op == "ro" || op == "rw") {
            std::string src = word(rest), dst = rest.empty() ? src.substr(src.rfind('/') + 1) : rest;
            auto text = test::read_file(data_path(src));
            ASSERT_TRUE(text) << "no data file " << src;
            test::write_file((op == "ro" ? tmp.ro() : tmp.rw()) + "/" + dst, *text);
        } else if (op == "ro-example") {
            test::copy_dir_files(test::example_device_dir(), tmp.ro());
        } else if (op == "write") {
            std::string where = word(rest), file = word(rest);
            test::write_file((where == "ro" ? tmp.ro() : tmp.rw()) + "/" + file, unescape(rest));
        } else if (op == "conf_save") {
            para_profile.conf_save = std::stoi(rest);
        } else if (op == "save_time") {
            int audio = std::stoi(word(rest));
            platformparam_set_save_param_time(audio, std::stoi(rest));
        } else if (op == "ext") {
            register_ext();
        } else if (op == "start") {
            platformparam_init();
            running = true;
            if (fixed_port) {
                ASSERT_EQ(para_server_bound_port(), PARA_SERVER_PORT);
            }
        } else if (op == "save") {
            EXPECT_EQ(platformparam_save(), 0);
        } else if (op == "stop") {
            platformparam_stop(1);
            running = false;
        } else if (op == ">" || op == ">!") {
            reply = test::udp_request(unescape(rest), op == ">" ? 2000 : 300, para_server_bound_port());
            if (op == ">!")
                EXPECT_FALSE(reply) << *reply;
            else
                ASSERT_TRUE(reply) << "no reply";
        } else if (op == "=") {
            EXPECT_EQ(test::compact(reply.value_or("")), rest);
        } else if (op == "==") {
            EXPECT_EQ(reply.value_or(""), unescape(rest));
        } else if (op == "~") {
            EXPECT_NE(test::compact(reply.value_or("")).find(rest), std::string::npos) << *reply;
        } else if (op == "event" || op == "events-none") {
            std::lock_guard<std::mutex> lk(events_mu);
            if (op == "events-none") {
                EXPECT_TRUE(events.empty()) << events.front();
            } else if (events.empty()) {
                ADD_FAILURE() << "no callback came";
            } else {
                EXPECT_EQ(events.front(), rest);
                events.pop_front();
            }
        } else if (op == "wait") {
            std::string file = word(rest);
            EXPECT_TRUE(test::wait_until([&] { return test::compact(rw(file).c_str()) == rest; }, 5000))
                << rw(file);
        } else if (op == "has") {
            std::string file = word(rest);
            EXPECT_NE(rw(file).find(unescape(rest)), std::string::npos) << rw(file);
        } else if (op == "bytes") {
            std::string file = word(rest);
            EXPECT_EQ(rw(file), unescape(rest));
        } else if (op == "$") {
            ran = test::run_command(test::tools_prefix() + rest);
        } else if (op == "status") {
            EXPECT_EQ(ran.status, std::stoi(word(rest))) << ran.out;
            EXPECT_EQ(ran.out, unescape(rest));
        } else if (op == "logs") {
            int n = std::stoi(word(rest));
            EXPECT_EQ(log.count(rest), n) << log.dump();
        } else if (op == "setters") {
            name_setters();
        } else if (op == "rwdir") {
            static std::string dir;
            dir = tmp.path() + "/" + rest;
            para_profile.param_rwfile_dir = const_cast<char*>(dir.c_str());
        } else if (op == "nolog") {
            EXPECT_FALSE(log.contains(rest)) << log.dump();
        } else if (op == "get" || op == "set") {
            auto ops = table_ops.at(word(rest));
            std::string req = op == "get" ? word(rest) : "-";
            cJSON* msg = cJSON_Parse(rest.c_str());
            cJSON* item = req == "whole" ? msg : msg ? msg->child : nullptr;
            char* name = req == "-" || req == "whole" ? nullptr : const_cast<char*>(req.c_str());
            void* got = nullptr;
            EXPECT_EQ(op == "get" ? ops.first(name, item, &got, nullptr) : ops.second(nullptr, item, nullptr), 0);
            reply = printed(got);
            cJSON_Delete(static_cast<cJSON*>(got));
            cJSON_Delete(msg);
        } else if (op == "log") {
            EXPECT_EQ(log.count(unescape(rest)), 1) << log.dump(); // once: a line logged twice is a fault too
        } else if (op == "log*") {
            EXPECT_TRUE(log.contains(unescape(rest))) << log.dump();
        } else if (op == "call" || op == "until") { // "FN ARGS [-> ANSWER]"
            size_t arrow = rest.find(" -> ");
            std::string fn = rest.substr(0, arrow), want = arrow == std::string::npos ? "" : unescape(rest.substr(arrow + 4));
            if (op == "until")
                test::wait_until([&] { return call(fn, tmp.path()) == want; }, 5000);
            reply = call(fn, tmp.path());
            if (*reply == "skip") {
                GTEST_SKIP() << fn << " cannot be done here";
            }
            EXPECT_TRUE(arrow == std::string::npos || *reply == want) << *reply << " is not " << want;
        } else if (op == "log-clean") {
            std::string names = test::read_file(data_path(rest)).value_or("");
            std::replace(names.begin(), names.end(), '\n', ' ');
            for (const std::string& l : log.lines()) {
                EXPECT_TRUE(!l.empty() && l.back() == '\n') << l;
                if (l.compare(0, 6, "[para ") == 0) {
                    EXPECT_EQ((" " + names + " ").find(" " + l.substr(6, l.find(" +") - 6) + " "), std::string::npos) << l;
                }
            }
        } else {
            FAIL() << "unknown step";
        }
    }
    if (running)
        platformparam_stop(1);
}

} // namespace scenario
