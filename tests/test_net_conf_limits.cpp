// Keys added through port 6800 are bounded: the ["all"] reply fits one datagram.
#include <gtest/gtest.h>

#include "para_internal.h"
#include "support.h"

namespace {
struct Flood {
    const char *name, *refusal;
    int keys;                             // new keys sent
    size_t key_len, value_len, grown_len; // grown_len: every key set again that long (0: not)
};
const Flood kFloods[] = {
    {"ManyShortKeys", "keys already", 1100, 6, 1, 0},
    {"LongKeysAndValues", "the all reply would pass 60000 bytes", 200, 250, 250, 0},
    {"ValuesGrowLater", "the all reply would pass 60000 bytes", 400, 6, 1, 250},
};
std::string key_of(int i, size_t len)
{
    return std::to_string(i).append(len - std::to_string(i).size(), 'k');
}

// Set requests of up to about 4000 bytes; false when one went unanswered.
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

void PrintTo(const Flood& f, std::ostream* os) { *os << f.name; }
class NetConfLimits : public ::testing::TestWithParam<Flood> {};
} // namespace

TEST_P(NetConfLimits, AddedKeysStopAtTheBoundAndAllStillAnswers)
{
    const Flood& f = GetParam();
    test::TempDir dir;
    test::copy_dir_files(test::example_device_dir(), dir.ro());
    dir.use_as_profile();
    platformparam_init();
    test::LogCapture log(3);
    ASSERT_TRUE(send_keys(f.keys, f.key_len, f.value_len)) << "a refused request got no reply";
    ASSERT_TRUE(!f.grown_len || send_keys(f.keys, f.key_len, f.grown_len));
    EXPECT_TRUE(log.contains(f.refusal)) << log.dump();
    auto all = test::udp_request(R"({"msg_type":"get","netport":["all"]})");
    ASSERT_TRUE(all) << "no reply to [\"all\"]";
    EXPECT_LE(all->size(), 60000u);
    para::JsonPtr tree(cJSON_Parse(all->c_str()));
    EXPECT_LE(cJSON_GetArraySize(cJSON_GetObjectItem(tree.get(), "netport")), 1024);
    // The first key went in before the bound; the files' own keys still change.
    const char* first = para_conf_get_member("netport", key_of(0, f.key_len).c_str());
    EXPECT_EQ(first ? strlen(first) : 0, f.grown_len ? f.grown_len : f.value_len);
    ASSERT_TRUE(test::udp_request(R"({"msg_type":"set","netport":{"ipaddr":"10.1.2.3"}})"));
    EXPECT_STREQ(para_conf_get_member("netport", "ipaddr"), "10.1.2.3");
    platformparam_stop(1);
}
INSTANTIATE_TEST_SUITE_P(Cases, NetConfLimits, ::testing::ValuesIn(kFloods),
                         [](const auto& info) { return std::string(info.param.name); });
