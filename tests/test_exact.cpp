// Behaviours seen from outside: the scenarios of tests/data/exact/ (log texts, start-up with
// bad files, the worker's wait), image styles, by-name writes, exported tables, leaks.
#include "para_internal.h"
#include "scenario.h"
#include "support.h"

#include <dlfcn.h>

SCENARIO_TESTS(ExactScenario, "exact", false);

// Lookups by index and by name: a style named in the file keeps its text
// (the index rides along); a name the member does not know is -1000 to the
// range check, which takes it here.
TEST(Exact, StyleIndexAndMemberName)
{
    test::TempDir dir;
    for (auto [from, to] : {std::pair{"isp_range.json", "isp_range.json"}, {"isp0_text_style.json", "isp0_def.json"}})
        test::write_file(dir.ro() + "/" + to, *test::read_file(scenario::data_path("exact/") + from));
    test::write_file(dir.ro() + "/audio_range.json", R"({"aeFormat":[-1000,1]})");
    test::write_file(dir.ro() + "/audio_def.json", R"({"aeFormat":"AAC"})");
    dir.use_as_profile();
    ASSERT_EQ(para_init_isp(nullptr) | para_init_audio(nullptr), 0);
    cJSON* item = cJSON_GetObjectItem(get_isp_style_json(0, 1), "style");
    ASSERT_TRUE(cJSON_IsString(item));
    EXPECT_STREQ(item->valuestring, "vivid");
    EXPECT_EQ(item->valueint, 1);
    EXPECT_EQ(para_set_audio_member_json(const_cast<char*>("aeFormat"), 0, const_cast<char*>("MP3")), 1);
    EXPECT_EQ(para_get_audio_aeFormat_cur(), -1000);
}

// The host's modules are found through these two names.
TEST(Exact, ExternRowsAreExported)
{
    void* lib = dlopen(PARA_BINARY_DIR "/libpara.so", RTLD_NOW | RTLD_LOCAL);
    ASSERT_TRUE(lib) << dlerror();
    EXPECT_TRUE(dlsym(lib, "module_para_handle_extern_temp"));
    EXPECT_TRUE(dlsym(lib, "module_para_handle_num_extern_temp"));
    // Left loaded: unloading it would hide what its start-up allocated from
    // the leak checker of sanitizer builds.
}

// Start-up and the requests of the example, run again under valgrind: no
// block may be lost.
TEST(Exact, StartUpLosesNoMemory)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer runtime and valgrind exclude each other";
#endif
    if (test::run_command("valgrind --version").status != 0 || !test::emulator_prefix().empty())
        GTEST_SKIP() << "valgrind is not available";
    auto r = test::run_command("valgrind --leak-check=full --errors-for-leak-kinds=definite --error-exitcode=9 " +
                               test::emulator_prefix() + PARA_BINARY_DIR "/tests/test_exact "
                               "--gtest_filter=Data/ExactScenario.Scenario/logs_example");
    EXPECT_NE(r.out.find("[  PASSED  ] 1 test."), std::string::npos) << r.out;
    EXPECT_EQ(r.status, 0) << r.out;
}
