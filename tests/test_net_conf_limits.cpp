// Keys added to a .conf store through port 6800 are bounded, so the ["all"]
// reply keeps fitting one datagram.
#include <gtest/gtest.h>

#include "para_internal.h"
#include "support.h"

#include <string>

namespace {

struct Flood {
    const char* name;
    int keys;          // new keys sent
    size_t key_len;    // of each key
    size_t value_len;  // of each first value
    size_t grown_len;  // then every key set again to this length (0: not)
    const char* refusal;
};

const Flood kFloods[] = {
    {"ManyShortKeys", 1100, 6, 1, 0, "keys already"},
    {"LongKeysAndValues", 200, 250, 250, 0, "the all reply would pass 60000 bytes"},
    {"ValuesGrowLater", 400, 6, 1, 250, "the all reply would pass 60000 bytes"},
};

std::string key_of(int i, size_t len)
{
    std::string n = std::to_string(i);
    return std::string(len - n.size(), 'k') + n;
}

// Sends the keys as set requests of up to about 4000 bytes; false when a
// request went unanswered.
bool send_keys(int count, size_t key_len, size_t value_len)
{
    std::string members;
    for (int i = 0; i <= count; ++i) {
        std::string m = "\"" + key_of(i, key_len) + "\":\"" + std::string(value_len, 'v') + "\"";
        if (i == count || members.size() + m.size() > 3900) {
            if (!test::udp_request(R"({"msg_type":"set","netport":{)" + members + "}}"))
                return false;
            members.clear();
        }
        members += (members.empty() ? "" : ",") + m;
    }
    return true;
}

void PrintTo(const Flood& f, std::ostream* os)
{
    *os << f.name;
}

class NetConfLimits : public ::testing::TestWithParam<Flood> {};

} // namespace

TEST_P(NetConfLimits, AddedKeysStopAtTheBoundAndAllStillAnswers)
{
    const Flood& f = GetParam();
    test::TempDir dir;
    test::copy_dir_files(test::example_device_dir(), dir.ro());
    dir.use_as_profile();
    platformparam_init();
    ASSERT_EQ(para_server_bound_port(), PARA_SERVER_PORT);
    test::LogCapture log(3);
    ASSERT_TRUE(send_keys(f.keys, f.key_len, f.value_len)) << "a refused request got no reply";
    if (f.grown_len) {
        ASSERT_TRUE(send_keys(f.keys, f.key_len, f.grown_len));
    }
    EXPECT_TRUE(log.contains(f.refusal)) << log.dump();

    auto all = test::udp_request(R"({"msg_type":"get","netport":["all"]})");
    ASSERT_TRUE(all) << "no reply to [\"all\"]";
    EXPECT_LE(all->size(), 60000u);
    para::JsonPtr tree(cJSON_Parse(all->c_str()));
    cJSON* store = cJSON_GetObjectItem(tree.get(), "netport");
    ASSERT_NE(store, nullptr);
    EXPECT_LE(cJSON_GetArraySize(store), 1024);
    // The first key went in before the bound; the files' own keys still change.
    const char* first = para_conf_get_member("netport", key_of(0, f.key_len).c_str());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(std::string(first).size(), f.grown_len ? f.grown_len : f.value_len);
    EXPECT_EQ(test::compact(test::udp_request(R"({"msg_type":"set","netport":{"ipaddr":"10.1.2.3"}})").value_or("")),
              "{}");
    EXPECT_STREQ(para_conf_get_member("netport", "ipaddr"), "10.1.2.3");
    platformparam_stop(1);
}
INSTANTIATE_TEST_SUITE_P(Cases, NetConfLimits, ::testing::ValuesIn(kFloods),
                         [](const auto& info) { return std::string(info.param.name); });
