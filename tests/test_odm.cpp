// Factory store: loading and moving the file, version check, reads and
// writes by kind, the delayed save, as scenarios of tests/data/odm;
// concurrent first writes here.
#include <gtest/gtest.h>

#include "scenario.h"
#include "support.h"

#include <thread>
#include <vector>

namespace {
char* k(const char* s) { return const_cast<char*>(s); }
} // namespace

SCENARIO_TESTS(OdmScenario, "odm", false);

TEST(Odm, ConcurrentFirstWritesCreateOneStore)
{
    test::TempDir dir;
    dir.use_as_profile();
    static std::atomic<int> changes{0};
    para_profile.odm_caller = [](void*) { ++changes; };
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
    EXPECT_EQ(changes.load(), 8 * 200);
}
