// Line updates of the host application's own key = value files, as
// scenarios of tests/data/conf_lines; links, mode and concurrency here.
#include "scenario.h"
#include "support.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

namespace {
char* c(const std::string& s) { return const_cast<char*>(s.c_str()); }
class ConfLineScenario : public ::testing::TestWithParam<std::string> {};
} // namespace

TEST_P(ConfLineScenario, Runs) { scenario::run("conf_lines", GetParam(), false); }
INSTANTIATE_TEST_SUITE_P(Files, ConfLineScenario, ::testing::ValuesIn(scenario::list("conf_lines")));

TEST(ConfLines, RewriteKeepsModeAndLinkAndLeavesNoTemporaryFile)
{
    test::TempDir dir;
    std::string file = dir.path() + "/host.conf", link = dir.path() + "/link.conf";
    test::write_file(file, "a=1\n");
    ASSERT_EQ(chmod(file.c_str(), 0640), 0);
    ASSERT_EQ(symlink(file.c_str(), link.c_str()), 0);
    EXPECT_EQ(update_line_conf(c(link), c("a"), c("a=2")), 0);
    EXPECT_EQ(test::read_file(file), "a=2\n");
    struct stat st{};
    ASSERT_EQ(lstat(link.c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    int entries = 0;
    DIR* d = opendir(dir.path().c_str());
    while (dirent* e = readdir(d))
        entries += e->d_name[0] != '.';
    closedir(d);
    EXPECT_EQ(entries, 4) << "ro, rw, host.conf, link.conf";
}

TEST(ConfLines, ConcurrentWritersLoseNoUpdate)
{
    test::TempDir dir;
    std::string file = dir.path() + "/host.conf";
    test::write_file(file, "a=0\nb=0\n");
    auto writer = [&](const char* key) {
        for (int i = 1; i <= 150; ++i)
            ASSERT_EQ(update_line_conf_int(c(file), c(key), i, c("%s=%d")), 0);
    };
    std::thread ta(writer, "a"), tb(writer, "b");
    ta.join();
    tb.join();
    EXPECT_EQ(test::read_file(file), "a=150\nb=150\n");
}
