// Web-form converter driven directly with mapping documents of the tests'
// own (no server needed); most cases are rows of tests/data/www/converter.txt.
#include "ipc/server/www2json.h"
#include "scenario.h"
#include "support.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

namespace {

struct Mapping {
    explicit Mapping(const char* text) : json(cJSON_Parse(text)) { para_config = json; }
    ~Mapping()
    {
        para_config = nullptr;
        cJSON_Delete(json);
    }
    cJSON* json;
};

const char* kEncode = R"({"encode":["video0"],
  "video0":{"bitRate":["enc_bitrate","N","K"],"gop":["enc_gop","N"]}})";

struct Converted {
    std::string request; // compact JSON, "" when null
    std::string err;
};

Converted convert(const std::string& in, int err_size = 1024)
{
    std::string buf(in);
    std::string err(static_cast<size_t>(err_size), '\0');
    auto* out = static_cast<cJSON*>(para_convert_www_opt(buf.data(), err.data(), err_size));
    Converted c;
    c.err = err.c_str();
    if (out) {
        char* p = cJSON_PrintUnformatted(out);
        c.request = p;
        free(p);
        cJSON_Delete(out);
    }
    return c;
}

std::string reverse(const std::string& reply)
{
    cJSON* j = cJSON_Parse(reply.c_str());
    char* text = para_reverse_convert_www_opt(j);
    std::string out = text ? text : "<null>";
    free(text);
    cJSON_Delete(j);
    return out;
}

std::string web_set(const std::string& form)
{
    cJSON* req = cJSON_CreateObject();
    cJSON_AddStringToObject(req, "msg_type", "set");
    cJSON_AddStringToObject(req, "msg_name", "p");
    cJSON_AddStringToObject(req, "data", form.c_str());
    char* text = cJSON_PrintUnformatted(req);
    cJSON_Delete(req);
    std::string in = text;
    free(text);
    return convert(in).request;
}

// Module part of a converted write: drops the msg_* keys.
std::string modules_of(const std::string& request)
{
    cJSON* j = cJSON_Parse(request.c_str());
    if (!j)
        return "<null>";
    for (const char* k : {"msg_from", "msg_type", "msg_name", "msg_id"})
        cJSON_DeleteItemFromObject(j, k);
    char* p = cJSON_PrintUnformatted(j);
    std::string out = p;
    free(p);
    cJSON_Delete(j);
    return out;
}

} // namespace

// The rows of tests/data/www/converter.txt (its head says how to read them).
TEST(Www, ConverterTable)
{
    std::ifstream in(scenario::data_path("www/converter.txt"));
    ASSERT_TRUE(in);
    std::unique_ptr<Mapping> m;
    std::unique_ptr<test::LogCapture> log;
    std::string line;
    for (int no = 1; std::getline(in, line); ++no) {
        if (line.empty() || line[0] == '#')
            continue;
        SCOPED_TRACE("converter.txt:" + std::to_string(no) + ": " + line);
        std::string op = line.substr(0, 3), rest = line.substr(4);
        if (op == "map") {
            m.reset();
            log.reset(); // one capture at a time
            log = std::make_unique<test::LogCapture>();
            if (rest != "none")
                m = std::make_unique<Mapping>(rest.c_str());
            continue;
        }
        if (op == "log") {
            EXPECT_TRUE(log->contains(rest)) << log->dump();
            continue;
        }
        size_t arrow = rest.find(" => ");
        ASSERT_NE(arrow, std::string::npos);
        std::string from = rest.substr(0, arrow), want = rest.substr(arrow + 4);
        if (op == "set") {
            EXPECT_EQ(modules_of(web_set(from)), want);
        } else if (op == "rev") {
            EXPECT_EQ(reverse(from), want);
        } else if (op == "mod") {
            EXPECT_EQ(modules_of(convert(from).request), want);
        } else {
            auto trim = [](std::string t) {
                t.erase(0, t.find_first_not_of(' '));
                t.erase(t.find_last_not_of(' ') + 1);
                return t;
            };
            size_t bar = want.find('|');
            Converted c = convert(from);
            EXPECT_EQ(c.request, trim(want.substr(0, bar)));
            if (bar != std::string::npos) {
                EXPECT_EQ(c.err, trim(want.substr(bar + 1)));
            }
        }
    }
}

// The reply text stays inside the caller's buffer: size - 2 characters.
TEST(Www, ErrorReplyStaysInItsBuffer)
{
    Mapping m(kEncode);
    EXPECT_EQ(convert(R"({"msg_type":"get","msg_name":"nopage"})", 6).err, "nopa");
    EXPECT_EQ(para_convert_www_opt(nullptr, nullptr, 0), nullptr);
}

TEST(Www, MsgIdWrapsAfter255)
{
    Mapping m(kEncode);
    std::string last;
    for (int i = 1; i <= 256; ++i) {
        last = convert(R"({"msg_type":"get","msg_name":"encode"})").request;
        if (i == 255) {
            EXPECT_NE(last.find(R"("msg_id":255,)"), std::string::npos) << last;
        }
    }
    EXPECT_NE(last.find(R"("msg_id":0,)"), std::string::npos) << last;
}

TEST(Www, PageEntries)
{
    Mapping m(R"({"page":["Video0","nomod","misc","page",3],"video0":{"gop":["g"]},"misc":{}})");
    // Module entries are found regardless of case; the request keeps the
    // page's spelling. Entries without members ask for everything.
    EXPECT_EQ(modules_of(convert(R"({"msg_type":"get","msg_name":"PAGE"})").request),
              R"({"Video0":["gop"],"misc":["all"]})");
    // What the mapping does not name is not shown.
    test::LogCapture log;
    EXPECT_EQ(reverse(R"({"msg_name":"page","msg_id":3,"misc":{"a":1,"b":"x"}})"), "result=success");
    EXPECT_TRUE(log.contains("can not find misc.a"));
}

TEST(Www, LongRepliesGrowTheTextWithinItsLimit)
{
    auto mapping_of = [](int members) {
        std::string map = R"({"m":{)", reply = R"({"m":{)";
        for (int i = 0; i < members; ++i) {
            std::string sep = i ? "," : "";
            map += sep + "\"k" + std::to_string(i) + "\":[\"field_with_a_longer_name_" + std::to_string(i) + "\"]";
            reply += sep + "\"k" + std::to_string(i) + "\":123456789";
        }
        return std::make_pair(map + "}}", reply + "}}");
    };
    {
        auto [map, big] = mapping_of(1000); // about 44 KB of text
        Mapping mm(map.c_str());
        std::string text = reverse(big);
        EXPECT_EQ(std::count(text.begin(), text.end(), '&'), 999);
        EXPECT_EQ(text.rfind("&field_with_a_longer_name_999=123456789"), text.size() - 39);
    }
    {
        auto [map, huge] = mapping_of(1700); // past the 16-bit size
        Mapping mm(map.c_str());
        test::LogCapture log;
        EXPECT_EQ(reverse(huge), "<null>");
        EXPECT_TRUE(log.contains("cannot grow"));
    }
}

// The form texts of "K" fractions and "F" values are built without printf;
// they must still be exactly what printf would print.
TEST(Www, MarkTextsMatchPrintf)
{
    char ours[48], theirs[48];
    for (int v = -300000; v <= 300000; ++v) {
        if (v % 1000 == 0)
            continue;
        www_format_thousands(v, ours);
        std::snprintf(theirs, sizeof theirs, "%.1f", static_cast<float>(v) / 1000);
        ASSERT_STREQ(ours, theirs) << v;
    }
    for (int v : {INT_MAX, INT_MIN, INT_MAX - 1, INT_MIN + 1, 16777217, -16777217, 2147483, 123456789}) {
        www_format_thousands(v, ours);
        std::snprintf(theirs, sizeof theirs, "%.1f", static_cast<float>(v) / 1000);
        EXPECT_STREQ(ours, theirs) << v;
    }
    for (double d : {0.0, -0.0, 1.0, -1.0, 1.25, 4.567, -3.333, 1e14, -1e14, 1e15, 2147483647.0, 1e300, 0.005}) {
        www_format_hundredths(d, ours);
        std::snprintf(theirs, sizeof theirs, "%.2f", d);
        EXPECT_STREQ(ours, theirs) << d;
    }
}
