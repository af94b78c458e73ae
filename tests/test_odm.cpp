// Factory store: loading and moving the file, version check, reads and
// writes by kind, the delayed save.
#include "support.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

std::vector<std::string> changed_keys;
std::mutex changed_mutex;
void record_key(void* key)
{
    std::lock_guard<std::mutex> lock(changed_mutex);
    changed_keys.emplace_back(static_cast<char*>(key));
}

struct Conflict {
    std::string file;
    int from, to;
};
std::vector<Conflict> conflicts;
void record_conflict(char* file, int from, int to) { conflicts.push_back({file, from, to}); }

char* k(const char* s) { return const_cast<char*>(s); }

class Odm : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir.use_as_profile();
        para_profile.odm_caller = record_key;
        para_profile.para_version_conflict = record_conflict;
    }
    std::string store_path() const { return dir.rw() + "/persist/odm.json"; }
    void write_store(const std::string& text)
    {
        mkdir((dir.rw() + "/persist").c_str(), 0775);
        test::write_file(store_path(), text);
    }
    // The store as compact JSON, "" when none.
    static std::string store()
    {
        if (!json_odm_file)
            return "";
        char* text = cJSON_PrintUnformatted(json_odm_file);
        std::string s = text ? text : "";
        free(text);
        return s;
    }
    // Makes the latest change look older than the save delay.
    static void age_change() { odm_item_start_time.tv_sec -= 3; }

    test::TempDir dir;
};

TEST_F(Odm, FirstWriteCreatesVersionedStoreAndSavesItUnderNewPersistDir)
{
    ASSERT_EQ(para_init_odm(k("odmInter")), 0);
    int v = 7;
    EXPECT_EQ(para_get_odm_int(k("version"), &v), -1);
    para_init_stage2_odm(k("odmInter"));
    EXPECT_TRUE(conflicts.empty());

    para_set_odm_int(k("isp0_style_def"), 2);
    EXPECT_EQ(changed_keys, std::vector<std::string>{"isp0_style_def"});
    EXPECT_EQ(store(), R"({"version":1,"isp0_style_def":2})");

    EXPECT_EQ(para_need_save_odm(k("odmInter")), 0) << "saved before the delay";
    age_change();
    EXPECT_EQ(para_need_save_odm(k("odmInter")), 1);
    EXPECT_FALSE(test::file_exists(dir.rw() + "/persist"));
    EXPECT_EQ(para_save_odm(k("odmInter")), 0);
    EXPECT_EQ(para_need_save_odm(k("odmInter")), 0);

    auto text = test::read_file(store_path());
    ASSERT_TRUE(text);
    ASSERT_GE(text->size(), 2u);
    EXPECT_EQ(text->back(), '\0');
    EXPECT_EQ((*text)[text->size() - 2], '}');

    // Loads back as written.
    para_set_odm_int(k("isp0_style_def"), 5);
    ASSERT_EQ(para_init_odm(k("odmInter")), 0);
    EXPECT_EQ(store(), R"({"version":1,"isp0_style_def":2})");
}

TEST_F(Odm, EqualWritesChangeNothing)
{
    write_store(R"({"version":1,"a":5,"s":"text"})");
    ASSERT_EQ(para_init_odm(k("odmInter")), 0);
    para_init_stage2_odm(k("odmInter"));

    EXPECT_EQ(_para_set_odm_int(k("a"), 5), 0);
    para_set_odm_int(k("A"), 5);
    para_set_odm_string(k("s"), k("text"));
    EXPECT_TRUE(changed_keys.empty());
    EXPECT_TRUE(conflicts.empty());
    age_change();
    EXPECT_EQ(para_need_save_odm(k("odmInter")), 0);

    EXPECT_EQ(_para_set_odm_string(k("s"), k("tex")), 1);
    EXPECT_EQ(_para_set_odm_string(k("s"), k("tex")), 0);
}

TEST_F(Odm, LookupsIgnoreCase)
{
    write_store(R"({"VERSION":1,"Isp0_Style_Def":3,"Name":"cam"})");
    ASSERT_EQ(para_init_odm(k("odmInter")), 0);
    para_init_stage2_odm(k("odmInter"));
    EXPECT_TRUE(conflicts.empty());

    int v = 0;
    EXPECT_EQ(para_get_odm_int(k("isp0_style_def"), &v), 0);
    EXPECT_EQ(v, 3);
    char buf[16];
    EXPECT_EQ(para_get_odm_string(k("name"), buf), 0);
    EXPECT_STREQ(buf, "cam");
    para_set_odm_int(k("isp0_STYLE_def"), 4);
    EXPECT_EQ(store(), R"({"VERSION":1,"Isp0_Style_Def":4,"Name":"cam"})");
}

TEST_F(Odm, StoreWithoutVersionIsRaisedFromZero)
{
    write_store(R"({"isp0_antiflicker_def":1})");
    ASSERT_EQ(para_init_odm(k("odmInter")), 0);
    para_init_stage2_odm(k("odmInter"));
    ASSERT_EQ(conflicts.size(), 1u);
    EXPECT_EQ(conflicts[0].file, "odm");
    EXPECT_EQ(conflicts[0].from, 0);
    EXPECT_EQ(conflicts[0].to, 1);
    EXPECT_EQ(changed_keys, std::vector<std::string>{"version"});
    EXPECT_EQ(store(), R"({"isp0_antiflicker_def":1,"version":1})");
}

TEST_F(Odm, NewerVersionIsRewrittenAsOne)
{
    write_store(R"({"version":3,"isp0_style_def":2})");
    ASSERT_EQ(para_init_odm(k("odmInter")), 0);
    para_init_stage2_odm(k("odmInter"));
    ASSERT_EQ(conflicts.size(), 1u);
    EXPECT_EQ(conflicts[0].from, 3);
    EXPECT_EQ(conflicts[0].to, 1);
    age_change();
    ASSERT_EQ(para_need_save_odm(k("odmInter")), 1);
    ASSERT_EQ(para_save_odm(k("odmInter")), 0);
    auto text = test::read_file(store_path());
    ASSERT_TRUE(text);
    EXPECT_EQ(test::compact(text->c_str()), R"({"version":1,"isp0_style_def":2})");
}

TEST_F(Odm, NoStoreReportsNoConflict)
{
    ASSERT_EQ(para_init_odm(k("odmInter")), 0);
    para_init_stage2_odm(k("odmInter"));
    EXPECT_TRUE(conflicts.empty());
    EXPECT_EQ(json_odm_file, nullptr);
    // A forced save with nothing to write only prepares the directory.
    EXPECT_EQ(para_save_odm(k("odmInter")), 0);
    EXPECT_TRUE(test::file_exists(dir.rw() + "/persist"));
    EXPECT_FALSE(test::file_exists(store_path()));
}

TEST_F(Odm, EarlierFileIsMovedOverExistingStore)
{
    write_store(R"({"version":1,"from":"persist"})");
    test::write_file(dir.rw() + "/isp_odm.json", R"({"version":1,"from":"old"})");
    ASSERT_EQ(para_init_odm(k("odmInter")), 0);
    EXPECT_FALSE(test::file_exists(dir.rw() + "/isp_odm.json"));
    char buf[16];
    EXPECT_EQ(para_get_odm_string(k("from"), buf), 0);
    EXPECT_STREQ(buf, "old");
}

TEST_F(Odm, EarlierFileCreatesPersistDir)
{
    test::write_file(dir.rw() + "/isp_odm.json", R"({"version":1,"x":9})");
    ASSERT_EQ(para_init_odm(k("odmInter")), 0);
    EXPECT_TRUE(test::file_exists(store_path()));
    int v = 0;
    EXPECT_EQ(para_get_odm_int(k("x"), &v), 0);
    EXPECT_EQ(v, 9);
}

TEST_F(Odm, BrokenStoreIsReplacedByFirstWrite)
{
    write_store("{\"version\":1,");
    test::LogCapture log(6);
    EXPECT_EQ(para_init_odm(k("odmInter")), -1);
    EXPECT_TRUE(log.contains("Error before: ["));
    EXPECT_EQ(json_odm_file, nullptr);

    write_store("[1,2]");
    EXPECT_EQ(para_init_odm(k("odmInter")), -1) << "not an object";
    EXPECT_EQ(json_odm_file, nullptr);

    para_set_odm_string(k("serial"), k("A1"));
    EXPECT_EQ(para_save_odm(k("odmInter")), 0);
    auto text = test::read_file(store_path());
    ASSERT_TRUE(text);
    EXPECT_EQ(test::compact(text->c_str()), R"({"version":1,"serial":"A1"})");
}

TEST_F(Odm, MixedKindsKeepTheStoredKind)
{
    write_store(R"({"version":1,"n":4,"t":"abc"})");
    ASSERT_EQ(para_init_odm(k("odmInter")), 0);

    para_set_odm_string(k("n"), k("x"));
    EXPECT_EQ(changed_keys, std::vector<std::string>{"n"});
    int v = 0;
    EXPECT_EQ(para_get_odm_int(k("n"), &v), 0);
    EXPECT_EQ(v, 4);

    EXPECT_EQ(para_get_odm_int(k("t"), &v), 0);
    EXPECT_EQ(v, 0);
    EXPECT_EQ(_para_set_odm_int(k("t"), 0), 0) << "a text counts as 0";
    EXPECT_EQ(_para_set_odm_int(k("t"), 8), 1);
    EXPECT_EQ(store(), R"({"version":1,"n":4,"t":"abc"})");
}

TEST_F(Odm, StringReadsAreBounded)
{
    write_store(R"({"version":1,"n":4})");
    ASSERT_EQ(para_init_odm(k("odmInter")), 0);
    char buf[8];
    EXPECT_EQ(para_get_odm_string(k("n"), buf), -2) << "a number is no text";
    EXPECT_EQ(para_get_odm_string(k("missing"), buf), -2);

    para_set_odm_string(k("serial"), k("0123456789"));
    std::memset(buf, '#', sizeof buf);
    EXPECT_EQ(para_get_odm_string_safe(k("serial"), buf, 8), -4);
    EXPECT_STREQ(buf, "0123456");
    EXPECT_EQ(para_get_odm_string_safe(k("serial"), buf, 0), -3);

    std::string long_text(400, 'z');
    para_set_odm_string(k("long"), k(long_text.c_str()));
    std::vector<char> big(512, '#');
    EXPECT_EQ(para_get_odm_string(k("long"), big.data()), -4);
    EXPECT_EQ(std::strlen(big.data()), PARA_ODM_STRING_MAX - 1u);
    EXPECT_EQ(big[PARA_ODM_STRING_MAX], '#') << "wrote past the documented bound";
}

TEST_F(Odm, NullArgumentsAreRefused)
{
    ASSERT_EQ(para_init_odm(k("odmInter")), 0);
    test::LogCapture log(3);
    para_set_odm_string(k("s"), nullptr);
    para_set_odm_int(nullptr, 1);
    EXPECT_TRUE(changed_keys.empty());
    EXPECT_EQ(log.count("refused"), 2);
    int v;
    char buf[4];
    EXPECT_EQ(para_get_odm_int(nullptr, &v), -3);
    EXPECT_EQ(para_get_odm_int(k("version"), nullptr), -3);
    EXPECT_EQ(para_get_odm_string(k("version"), nullptr), -3);
    EXPECT_EQ(para_get_odm_string(nullptr, buf), -3);
}

TEST_F(Odm, NoReadWriteDirectoryKeepsStoreInMemoryOnly)
{
    char cwd[512];
    ASSERT_TRUE(getcwd(cwd, sizeof cwd));
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    para_profile.param_rwfile_dir = k("");
    EXPECT_EQ(para_init_odm(k("odmInter")), 0);
    para_set_odm_int(k("x"), 1);
    EXPECT_EQ(para_save_odm(k("odmInter")), 0);
    EXPECT_FALSE(test::file_exists(dir.path() + "/persist"));
    EXPECT_FALSE(test::file_exists(dir.path() + "/odm.json"));
    EXPECT_EQ(chdir(cwd), 0);
}

TEST_F(Odm, ConcurrentFirstWritesCreateOneStore)
{
    ASSERT_EQ(para_init_odm(k("odmInter")), 0);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([i] {
            std::string key = "key" + std::to_string(i);
            for (int n = 0; n < 200; ++n)
                para_set_odm_int(k(key.c_str()), n);
        });
    for (int n = 0; n < 50; ++n)
        para_save_odm(k("odmInter"));
    for (auto& t : threads)
        t.join();
    ASSERT_NE(json_odm_file, nullptr);
    EXPECT_EQ(cJSON_GetArraySize(json_odm_file), 9);
    int v = 0;
    EXPECT_EQ(para_get_odm_int(k("key3"), &v), 0);
    EXPECT_EQ(v, 199);
    EXPECT_EQ(changed_keys.size(), 8u * 200u);
}

} // namespace
