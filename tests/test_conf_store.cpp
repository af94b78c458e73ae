// .conf store: reload marks, order of layered keys, text pointers, a large file.
#include <gtest/gtest.h>

#include "support.h"

namespace {
const char* kKeys[] = {"a", "b", "c", "d"};

void load(test::TempDir& dir, const std::string& ro, const std::string& rw, bool reload = false)
{
    test::write_file(dir.ro() + "/netport.conf", ro);
    test::write_file(dir.rw() + "/netport.conf", rw);
    dir.use_as_profile();
    if (reload)
        para_conf_need_update(const_cast<char*>("netport"));
    else
        for (const char* name : {"conf", "netport"})
            para_init_conf(const_cast<char*>(name));
}

struct Reload {
    const char *name, *ro, *rw, *ro2, *rw2; // files at start-up, then at the reload
    const char *changed, *saved;            // keys the reload marked, the store written after it
};
const Reload kReloads[] = {
    {"EqualFilesKeepOrder", "a=1\nb=2\nc=3\n", "b=9\nd=4\n", "a=1\nb=2\nc=3\n", "b=9\nd=4\n", "", "a=1\nb=9\nc=3\nd=4\n"},
    {"OverriddenDefault", "a=1\nb=2\n", "b=9\n", "a=1\nb=5\n", "b=9\n", "", "a=1\nb=9\n"},
    {"BothFilesInPlace", "a=1\nb=2\nc=3\n", "c=7\n", "a=5\nb=2\nc=3\n", "c=8\n", "ac", "a=5\nb=2\nc=8\n"},
    {"OverrideGoneKeyNew", "a=1\nb=2\n", "a=6\n", "a=1\nb=2\n", "d=4\n", "ad", "a=1\nb=2\nd=4\n"},
};
void PrintTo(const Reload& r, std::ostream* os) { *os << r.name; }

class ConfReload : public ::testing::TestWithParam<Reload> {};
} // namespace

TEST_P(ConfReload, MarksOnlyChangedTextsAndKeepsFileOrder)
{
    const Reload& r = GetParam();
    test::TempDir dir;
    load(dir, r.ro, r.rw);
    EXPECT_EQ(para_conf_key_IsChanged("netport", kKeys, 4), 0); // a first load changes nothing
    load(dir, r.ro2, r.rw2, true);
    std::string marks;
    for (int i = 0; i < 4; ++i)
        marks += para_conf_key_IsChanged("netport", kKeys + i, 1) == 1 ? kKeys[i] : "";
    EXPECT_EQ(marks, r.changed);
    char buf[256];
    ASSERT_GT(para_save_conf_2_buf("netport", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, r.saved);
}
INSTANTIATE_TEST_SUITE_P(Cases, ConfReload, ::testing::ValuesIn(kReloads),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ConfStoreText, PointerFollowsWritesAfterTheStoreGrows)
{
    test::TempDir dir;
    load(dir, "a=1\n", "");
    const char* a = para_conf_get_member("netport", "a");
    for (int i = 0; a && i < 500; ++i) // many times the first allocation
        ASSERT_EQ(_para_conf_set_member("netport", ("k" + std::to_string(i)).c_str(), "v"), 1);
    ASSERT_EQ(_para_conf_set_member("netport", "a", "2"), 1);
    EXPECT_STREQ(a, "2");
    load(dir, "a=3\n", "", true);
    EXPECT_STREQ(a, "3");
}

TEST(ConfStoreText, HundredThousandLinesLoadWhole)
{
    std::string ro, rw;
    for (int i = 0; i < 100000; ++i) // every thousandth key also in the read-write file
        (i % 1000 ? ro : rw) += "key" + std::to_string(i) + "=over" + std::to_string(i) + "\n";
    test::TempDir dir;
    load(dir, ro, rw);
    char buf[32];
    for (int i = 0; i < 100000; ++i) {
        std::string key = "key" + std::to_string(i);
        ASSERT_EQ(para_conf_get_member_safe("netport", key.c_str(), buf, sizeof buf), 0) << key;
        ASSERT_EQ(buf, "over" + std::to_string(i)) << key;
    }
    // Keys from files always load; a request cannot add to such a store.
    EXPECT_EQ(_para_conf_set_member("netport", "extra", "x"), -1);
    EXPECT_EQ(_para_conf_set_member("netport", "key7", "seven"), 1);
}
