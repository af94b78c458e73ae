// Web-form converter driven directly with a mapping document of the test's
// own (no server needed).
#include "ipc/server/www2json.h"
#include "support.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
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

TEST(Www, WorkedExampleBothDirections)
{
    Mapping m(kEncode);
    EXPECT_EQ(convert(R"({"msg_from":"www","msg_type":"get","msg_name":"encode"})").request,
              R"({"msg_from":"www","msg_type":"get","msg_name":"encode","msg_id":1,"video0":["bitRate","gop"]})");
    EXPECT_EQ(reverse(R"({"msg_name":"encode","msg_id":1,"video0":{"bitRate":4500,"gop":60}})"),
              "enc_bitrate=4.5&enc_gop=60");
    EXPECT_EQ(convert(R"({"msg_from":"www","msg_type":"set","msg_name":"encode","data":"enc_bitrate=6&enc_gop=30"})")
                  .request,
              R"({"msg_from":"www","msg_type":"set","msg_name":"encode","msg_id":2,"video0":{"bitRate":6000,"gop":30}})");
    EXPECT_EQ(reverse(R"({"msg_name":"encode","msg_id":2})"), "result=success");
}

TEST(Www, MarksConvertBothWays)
{
    Mapping m(R"({"m":{"k":["fk","N","K"],"p":["fp","N","P"],"f":["ff","N","F"],
                       "s":["fs","S"],"n":["fn"]}})");
    EXPECT_EQ(modules_of(web_set("fk=4.5")), R"({"m":{"k":4500}})");
    EXPECT_EQ(modules_of(web_set("fk=4.5678")), R"({"m":{"k":4567}})");
    EXPECT_EQ(modules_of(web_set("fk=-1.5&fp=3&ff=1.25&fs=12ab&fn=7x")),
              R"({"m":{"k":-1500,"p":2,"f":1,"s":"12ab","n":7}})");
    EXPECT_EQ(modules_of(web_set("fn=abc&fk=1e30")), R"({"m":{"n":0,"k":2147483647}})");
    EXPECT_EQ(modules_of(web_set("fp=-2147483648")), R"({"m":{"p":-2147483648}})");

    // The first pair never starts with "&", whatever its mark.
    EXPECT_EQ(reverse(R"({"m":{"k":4500}})"), "fk=4.5");
    EXPECT_EQ(reverse(R"({"m":{"k":4000,"p":2,"f":1.25,"s":"txt","n":-3}})"), "fk=4&fp=3&ff=1.25&fs=txt&fn=-3");
    EXPECT_EQ(reverse(R"({"m":{"s":"first","k":-1500}})"), "fs=first&fk=-1.5");
    EXPECT_EQ(reverse(R"({"m":{"p":2147483647}})"), "fp=2147483648");
}

TEST(Www, GreedyFieldFeedsEveryLaterEntry)
{
    {
        Mapping m(R"({"A":{"x":["fx","N","Greedy"]},"B":{"y":["other"],"x":["fx","N"]},
                      "C":{"x":["fx","N","K"]},"D":{"x":["fx","N"]}})");
        // The mark of a later entry replaces the previous one only when given.
        EXPECT_EQ(modules_of(web_set("fx=2")), R"({"A":{"x":2},"B":{"x":2},"C":{"x":2000},"D":{"x":2000}})");
    }
    {
        Mapping m(R"({"A":{"x":["fx","N"]},"B":{"x":["fx","N"]}})");
        EXPECT_EQ(modules_of(web_set("fx=2")), R"({"A":{"x":2}})");
    }
}

TEST(Www, FormPairWalk)
{
    Mapping m(R"({"m":{"a":["a"],"b":["b"],"bc":["b&c"]}})");
    EXPECT_EQ(modules_of(web_set("a=1&b=2&")), R"({"m":{"a":1,"b":2}})");
    EXPECT_EQ(modules_of(web_set("a=1&b")), R"({"m":{"a":1}})");
    EXPECT_EQ(modules_of(web_set("a=1&b&c=2")), R"({"m":{"a":1,"bc":2}})");
    EXPECT_EQ(modules_of(web_set("a=1&a=5")), R"({"m":{"a":1,"a":5}})");
    EXPECT_EQ(modules_of(web_set("zz=1&a=3")), R"({"m":{"a":3}})");

    auto none = convert(R"({"msg_type":"set","msg_name":"p","data":"ab"})");
    EXPECT_EQ(none.request, "");
    EXPECT_EQ(none.err, "");
}

TEST(Www, OverlongFieldsAreRefusedNotCut)
{
    const std::string n31(31, 'n'), n32(32, 'n');
    const std::string map = R"({"m":{"a":["a"],"s":["s","S"],"l31":[")" + n31 + R"("],"l32":[")" + n32 + R"("]}})";
    Mapping m(map.c_str());
    test::LogCapture log;
    EXPECT_EQ(modules_of(web_set(n31 + "=1&" + n32 + "=2&a=3")), R"({"m":{"l31":1,"a":3}})");
    EXPECT_TRUE(log.contains("form pair too long"));
    EXPECT_EQ(modules_of(web_set("s=" + std::string(31, 'v') + "&a=4")),
              R"({"m":{"s":")" + std::string(31, 'v') + R"(","a":4}})");
    EXPECT_EQ(modules_of(web_set("s=" + std::string(32, 'v') + "&a=4")), R"({"m":{"a":4}})");
}

TEST(Www, ErrorReplies)
{
    auto no_config = convert(R"({"msg_type":"get","msg_name":"encode"})");
    EXPECT_EQ(no_config.request, "");
    EXPECT_EQ(no_config.err, "para_config=null");

    Mapping m(kEncode);
    EXPECT_EQ(convert("{not json").err, "cJSON_Parse=null");
    {
        test::LogCapture log;
        EXPECT_EQ(convert(R"({"msg_type":"get","msg_name":"nopage"})").err, "nopage=null");
        EXPECT_TRUE(log.contains("could not find nopage in json"));
    }
    // A module entry is not a page.
    EXPECT_EQ(convert(R"({"msg_type":"get","msg_name":"video0"})").err, "video0=null");
    EXPECT_EQ(convert(R"({"msg_type":"get","msg_name":7})").err, "msg_name=null");
    for (const char* silent : {R"({"msg_type":"set","msg_name":"encode"})", R"({"msg_type":"set","data":"enc_gop=1"})",
                               R"({"msg_type":"g","msg_name":"encode"})"}) {
        auto c = convert(silent);
        EXPECT_EQ(c.request, "") << silent;
        EXPECT_EQ(c.err, "") << silent;
    }
    // The reply text stays inside the caller's buffer: size - 2 characters.
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
    // Every pair is cut to 63 characters.
    Mapping m(R"({"m":{"s":["field","S"]}})");
    std::string reply = R"({"m":{"s":")" + std::string(100, 'v') + R"("}})";
    EXPECT_EQ(reverse(reply), "field=" + std::string(57, 'v'));

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
