// .conf store: which reloads mark keys, the order of layered keys, text
// pointers that follow writes, and a large file.
#include <gtest/gtest.h>

#include "support.h"

#include <string>

namespace {

const char* kKeys[] = {"a", "b", "c", "d"};

void files(test::TempDir& dir, const std::string& ro, const std::string& rw)
{
    test::write_file(dir.ro() + "/netport.conf", ro);
    test::write_file(dir.rw() + "/netport.conf", rw);
}

void load(test::TempDir& dir)
{
    dir.use_as_profile();
    para_init_conf(const_cast<char*>("conf"));
    para_init_conf(const_cast<char*>("netport"));
}

std::string saved()
{
    char buf[256];
    return para_save_conf_2_buf("netport", buf, sizeof buf) > 0 ? buf : "(none)";
}

struct Reload {
    const char* name;
    const char *ro, *rw, *ro2, *rw2; // files at start-up, then at the reload
    const char* changed;             // keys the reload changed
    const char* saved;               // the store written out after the reload
};

const Reload kReloads[] = {
    // Equal files: nothing changed, a key the read-write file sets keeps its place.
    {"Equal", "a=1\nb=2\nc=3\n", "b=9\nd=4\n", "a=1\nb=2\nc=3\n", "b=9\nd=4\n", "", "a=1\nb=9\nc=3\nd=4\n"},
    // A default that the read-write file overrides is not a change.
    {"OverriddenDefault", "a=1\nb=2\n", "b=9\n", "a=1\nb=5\n", "b=9\n", "", "a=1\nb=9\n"},
    // Changed texts in either file, in place.
    {"BothFiles", "a=1\nb=2\nc=3\n", "c=7\n", "a=5\nb=2\nc=3\n", "c=8\n", "ac", "a=5\nb=2\nc=8\n"},
    // An override removed falls back to the default; a new key is a change.
    {"OverrideGoneKeyNew", "a=1\nb=2\n", "a=6\n", "a=1\nb=2\n", "d=4\n", "ad", "a=1\nb=2\nd=4\n"},
};

void PrintTo(const Reload& r, std::ostream* os)
{
    *os << r.name;
}

class ConfReload : public ::testing::TestWithParam<Reload> {};

} // namespace

TEST_P(ConfReload, MarksOnlyChangedTextsAndKeepsFileOrder)
{
    const Reload& r = GetParam();
    test::TempDir dir;
    files(dir, r.ro, r.rw);
    load(dir);
    EXPECT_EQ(para_conf_key_IsChanged("netport", kKeys, 4), 0); // a first load changes nothing
    files(dir, r.ro2, r.rw2);
    para_conf_need_update(const_cast<char*>("netport"));
    std::string marks;
    for (int i = 0; i < 4; ++i)
        if (para_conf_key_IsChanged("netport", kKeys + i, 1) == 1)
            marks += kKeys[i];
    EXPECT_EQ(marks, r.changed);
    EXPECT_EQ(saved(), r.saved);
}
INSTANTIATE_TEST_SUITE_P(Cases, ConfReload, ::testing::ValuesIn(kReloads),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ConfStoreText, PointerFollowsWritesAfterTheStoreGrows)
{
    test::TempDir dir;
    files(dir, "a=1\n", "");
    load(dir);
    const char* a = para_conf_get_member("netport", "a");
    ASSERT_NE(a, nullptr);
    for (int i = 0; i < 500; ++i) // many times the first allocation
        ASSERT_EQ(_para_conf_set_member("netport", ("k" + std::to_string(i)).c_str(), "v"), 1);
    ASSERT_EQ(_para_conf_set_member("netport", "a", "2"), 1);
    EXPECT_STREQ(a, "2");
    files(dir, "a=3\n", "");
    para_conf_need_update(const_cast<char*>("netport"));
    EXPECT_STREQ(a, "3");
}

TEST(ConfStoreText, HundredThousandLinesLoadWhole)
{
    constexpr int kLines = 100000;
    test::TempDir dir;
    std::string ro, rw;
    for (int i = 0; i < kLines; ++i)
        ro += "key" + std::to_string(i) + "=value" + std::to_string(i) + "\n";
    for (int i = 0; i < kLines; i += 1000)
        rw += "key" + std::to_string(i) + "=over" + std::to_string(i) + "\n";
    files(dir, ro, rw);
    load(dir);
    char buf[32];
    for (int i = 0; i < kLines; ++i) {
        std::string key = "key" + std::to_string(i);
        ASSERT_EQ(para_conf_get_member_safe("netport", key.c_str(), buf, sizeof buf), 0) << key;
        ASSERT_EQ(buf, (i % 1000 ? "value" : "over") + std::to_string(i)) << key;
    }
    // Keys from files always load; a request cannot add to such a store.
    EXPECT_EQ(_para_conf_set_member("netport", "extra", "x"), -1);
    EXPECT_EQ(_para_conf_set_member("netport", "key7", "seven"), 1);
}
