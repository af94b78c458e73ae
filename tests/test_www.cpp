// Web-form converter driven directly with mapping documents of the tests'
// own (no server needed); most cases are rows of tests/data/www/converter.txt.
#include "ipc/server/www2json.h"
#include "scenario.h"
#include "support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <fstream>

namespace {

struct Mapping : para::JsonPtr { // the mapping document while alive
    explicit Mapping(const std::string& text) : para::JsonPtr(cJSON_Parse(text.c_str())) { para_config = get(); }
    ~Mapping() { para_config = nullptr; }
};

// The converted request (its module part alone unless keep_msg; "" or
// "<null>" for none) and the error reply a buffer of err_size bytes holds.
std::pair<std::string, std::string> convert(std::string in, bool keep_msg = true, int err_size = 1024)
{
    std::string err(static_cast<size_t>(err_size), '\0');
    auto* j = static_cast<cJSON*>(para_convert_www_opt(in.data(), err.data(), err_size));
    for (const char* k : {"msg_from", "msg_type", "msg_name", "msg_id"})
        cJSON_DeleteItemFromObject(keep_msg ? nullptr : j, k);
    para::CharPtr p(j ? cJSON_PrintUnformatted(para::JsonPtr(j).get()) : nullptr);
    return {p ? p.get() : keep_msg ? "" : "<null>", err.c_str()};
}

std::string reverse(const std::string& reply)
{
    para::CharPtr text(para_reverse_convert_www_opt(para::JsonPtr(cJSON_Parse(reply.c_str())).get()));
    return text ? text.get() : "<null>";
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
        size_t sp = line.find(' '), arrow = line.find(" => ");
        std::string op = line.substr(0, sp), rest = line.substr(sp + 1), from = rest.substr(0, arrow - sp - 1),
                    want = arrow == std::string::npos ? "" : line.substr(arrow + 4);
        if (op == "map") {
            m.reset();
            log.reset(); // one capture at a time
            log = std::make_unique<test::LogCapture>();
            m.reset(rest == "none" ? nullptr : new Mapping(rest));
        } else if (op == "log") {
            EXPECT_TRUE(log->contains(rest)) << log->dump();
        } else if (op == "rev") {
            EXPECT_EQ(reverse(from), want);
        } else if (op == "mod") {
            EXPECT_EQ(convert(from, false).first, want);
        } else { // "get" or "getN": an error buffer of N bytes
            size_t bar = want.find(" | ");
            auto [request, err] = convert(from, true, op.size() > 3 ? std::stoi(op.substr(3)) : 1024);
            EXPECT_EQ(request, want.substr(0, bar));
            EXPECT_EQ(err, bar == std::string::npos ? err : want.substr(bar + 3));
        }
    }
    EXPECT_EQ(para_convert_www_opt(nullptr, nullptr, 0), nullptr);
}

TEST(Www, MsgIdWrapsAfter255)
{
    Mapping m(R"({"encode":["video0"],"video0":{"gop":["enc_gop","N"]}})");
    for (int i = 0, prev = -1; i < 257; ++i) { // whatever ids earlier tests of the process took
        std::string got = convert(R"({"msg_type":"get","msg_name":"encode"})").first;
        int id = std::stoi(got.substr(got.find("\"msg_id\":") + 9));
        EXPECT_TRUE(prev < 0 || id == (prev + 1) % 256) << prev << " then " << id;
        prev = id;
    }
}

TEST(Www, LongRepliesGrowTheTextWithinItsLimit)
{
    for (int members : {1000, 1700}) { // about 44 KB of text, then past the 16-bit size
        std::string map = R"({"m":{)", reply = map;
        for (int i = 0; i < members; ++i) {
            std::string sep = i ? "," : "", key = "\"k" + std::to_string(i) + "\":";
            map += sep + key + "[\"field_with_a_longer_name_" + std::to_string(i) + "\"]";
            reply += sep + key + "123456789";
        }
        Mapping mm(map + "}}");
        test::LogCapture log;
        std::string text = reverse(reply + "}}");
        EXPECT_EQ(std::count(text.begin(), text.end(), '&'), members == 1000 ? 999 : 0);
        EXPECT_TRUE(members > 1000 ? text == "<null>" : text.rfind("&field_with_a_longer_name_999=123456789") + 39 == text.size())
            << text.substr(0, 80);
        EXPECT_EQ(log.contains("cannot grow"), members > 1000);
    }
}

// The form texts of "K" fractions and "F" values are built without printf;
// they must still be exactly what printf would print.
TEST(Www, MarkTextsMatchPrintf)
{
    char ours[48], theirs[48];
    std::vector<int> thousands = {INT_MAX, INT_MIN, INT_MAX - 1, INT_MIN + 1, 16777217, -16777217, 2147483, 123456789};
    for (int v = -300000; v <= 300000; ++v)
        if (v % 1000)
            thousands.push_back(v);
    for (int v : thousands) {
        www_format_thousands(v, ours);
        std::snprintf(theirs, sizeof theirs, "%.1f", static_cast<float>(v) / 1000);
        ASSERT_STREQ(ours, theirs) << v;
    }
    for (double d : {0.0, -0.0, 1.0, -1.0, 1.25, 4.567, -3.333, 1e14, -1e14, 1e15, 2147483647.0, 1e300, 0.005}) {
        www_format_hundredths(d, ours);
        std::snprintf(theirs, sizeof theirs, "%.2f", d);
        EXPECT_STREQ(ours, theirs) << d;
    }
}
