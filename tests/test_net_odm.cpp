// The factory store inside a running server: start-up moves and checks it,
// the worker's sweep writes it back once the delay has passed.
#include "support.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<std::string> conflicts;
void record_conflict(char* file, int from, int to)
{
    conflicts.push_back(std::string(file) + " " + std::to_string(from) + "->" + std::to_string(to));
}

TEST(NetOdm, StartupMovesOldStoreReportsVersionAndWorkerSavesIt)
{
    test::TempDir dir;
    dir.use_as_profile();
    para_profile.para_version_conflict = record_conflict;
    test::write_file(dir.rw() + "/isp_odm.json", R"({"version":3,"isp0_style_def":2})");
    test::LogCapture log(6);

    platformparam_init();
    EXPECT_EQ(conflicts, std::vector<std::string>{"odm 3->1"});
    EXPECT_TRUE(log.contains("odm 3->1"));
    EXPECT_FALSE(test::file_exists(dir.rw() + "/isp_odm.json"));
    int style = 0;
    EXPECT_EQ(para_get_odm_int(const_cast<char*>("isp0_style_def"), &style), 0);
    EXPECT_EQ(style, 2);

    const std::string store = dir.rw() + "/persist/odm.json";
    auto saved = [&] {
        auto text = test::read_file(store);
        return text && test::compact(text->c_str()) == R"({"version":1,"isp0_style_def":2})";
    };
    EXPECT_FALSE(saved()) << "written before the delay";
    EXPECT_TRUE(test::wait_until(saved, 5000));
    EXPECT_EQ(test::read_file(store)->back(), '\0');
    platformparam_stop(1);
}

} // namespace
