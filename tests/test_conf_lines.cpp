// Line updates of the host application's own key = value files.
#include "support.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <thread>

namespace {

char* c(const std::string& s) { return const_cast<char*>(s.c_str()); }
char* c(const char* s) { return const_cast<char*>(s); }

class ConfLines : public ::testing::Test {
protected:
    test::TempDir dir;
    std::string file = dir.path() + "/host.conf";
    void put(const std::string& text) { test::write_file(file, text); }
    std::string content() const { return test::read_file(file).value_or("<missing>"); }
    // Refused calls must leave the very same file behind.
    void expect_untouched(const std::string& text, ino_t ino) const
    {
        EXPECT_EQ(content(), text);
        struct stat st{};
        ASSERT_EQ(stat(file.c_str(), &st), 0);
        EXPECT_EQ(st.st_ino, ino);
    }
    ino_t inode() const
    {
        struct stat st{};
        stat(file.c_str(), &st);
        return st.st_ino;
    }
};

TEST_F(ConfLines, ReplacesOnlyLinesSettingTheKey)
{
    put("a=1\nb = 2\nab=3\n");
    EXPECT_EQ(update_line_conf(c(file), c("a"), c("a=9")), 0);
    EXPECT_EQ(content(), "a=9\nb = 2\nab=3\n");

    EXPECT_EQ(update_line_conf_int(c(file), c("b"), 7, c("%s = \"%d\"")), 0);
    EXPECT_EQ(content(), "a=9\nb = \"7\"\nab=3\n");

    EXPECT_EQ(update_line_conf_str(c(file), c("ab"), c("x y"), c("%s=%s")), 0);
    EXPECT_EQ(content(), "a=9\nb = \"7\"\nab=x y\n");
}

TEST_F(ConfLines, EveryMatchingLineIsReplaced)
{
    put("k =1\n#k=0\n k=2\nkx=3\nk=4\n");
    EXPECT_EQ(update_line_conf_str(c(file), c("k"), c("v"), c("%s = \"%s\"")), 0);
    EXPECT_EQ(content(), "k = \"v\"\n#k=0\n k=2\nkx=3\nk = \"v\"\n");
}

TEST_F(ConfLines, MissingKeyKeepsContent)
{
    put("a=1\nb=2");
    EXPECT_EQ(update_line_conf_int(c(file), c("zz"), 1, c("%s=%d")), 0);
    EXPECT_EQ(content(), "a=1\nb=2");
}

TEST_F(ConfLines, LastLineWithoutLineFeed)
{
    put("a=1\nb=2");
    EXPECT_EQ(update_line_conf_int(c(file), c("a"), 5, c("%s=%d")), 0);
    EXPECT_EQ(content(), "a=5\nb=2");
    EXPECT_EQ(update_line_conf_int(c(file), c("b"), -3, c("%s=%d")), 0);
    EXPECT_EQ(content(), "a=5\nb=-3\n");
}

TEST_F(ConfLines, LinesStartingWithNulAreDropped)
{
    put(std::string("a=1\n\0junk\nb=2\n", 15));
    EXPECT_EQ(update_line_conf(c(file), c("b"), c("b=3")), 0);
    EXPECT_EQ(content(), "a=1\nb=3\n");
}

TEST_F(ConfLines, WrongFormatIsRefused)
{
    put("a=1\n");
    ino_t ino = inode();
    test::LogCapture log(3);
    EXPECT_EQ(update_line_conf_str(c(file), c("a"), c("2"), c("%s:%s")), -1);
    EXPECT_EQ(update_line_conf_int(c(file), c("a"), 2, c("%s=%s")), -1);
    EXPECT_EQ(update_line_conf_str(c(file), c("a"), c("2"), c("%s = \"%d\"")), -1);
    EXPECT_EQ(update_line_conf_int(c(file), c("a"), 2, nullptr), -1);
    EXPECT_EQ(log.count("error: format is wrong"), 4);
    expect_untouched("a=1\n", ino);
}

TEST_F(ConfLines, LimitsAreHeldExactly)
{
    // 95 characters with the line feed, 2047 in the file: accepted.
    std::string line95 = "a=" + std::string(92, 'x') + "\n";
    std::string filler = std::string(94, 'f') + "\n";
    std::string text = line95;
    while (text.size() + filler.size() <= 2047)
        text += filler;
    text += std::string(2047 - text.size() - 1, 'g') + "\n";
    ASSERT_EQ(text.size(), 2047u);
    put(text);
    EXPECT_EQ(update_line_conf(c(file), c("a"), c("a=" + std::string(92, 'y'))), 0);
    EXPECT_EQ(content().size(), 2047u);

    // 63 composed characters: accepted.
    put("k=1\n");
    EXPECT_EQ(update_line_conf_str(c(file), c("k"), c(std::string(61, 'v')), c("%s=%s")), 0);
    EXPECT_EQ(content(), "k=" + std::string(61, 'v') + "\n");
}

TEST_F(ConfLines, OverLimitInputsLeaveFileUntouched)
{
    const std::string base = "a=1\nb=2\n";
    put(base);
    ino_t ino = inode();
    test::LogCapture log(3);
    // Composed line of 64 characters.
    EXPECT_EQ(update_line_conf_str(c(file), c("a"), c(std::string(62, 'v')), c("%s=%s")), -1);
    EXPECT_EQ(update_line_conf_int(c(file), c(std::string(60, 'k')), 12345, c("%s=%d")), -1);
    // New line of 95 characters (96 with its line feed).
    EXPECT_EQ(update_line_conf(c(file), c("a"), c("a=" + std::string(93, 'y'))), -1);
    // Line breaks would add lines instead of replacing one.
    EXPECT_EQ(update_line_conf(c(file), c("a"), c("a=1\nc=3")), -1);
    EXPECT_EQ(update_line_conf_str(c(file), c("a"), c("1\rx"), c("%s=%s")), -1);
    // Missing arguments and an empty key.
    EXPECT_EQ(update_conf(c(file), nullptr, c("a=2")), -1);
    EXPECT_EQ(update_conf(c(file), c("a"), nullptr), -1);
    EXPECT_EQ(update_conf(nullptr, c("a"), c("a=2")), -1);
    EXPECT_EQ(update_conf(c(file), c(""), c("=2")), -1);
    EXPECT_EQ(log.lines().size(), 9u) << log.dump();
    expect_untouched(base, ino);

    // A line of 96 characters in the file.
    std::string long_line = "x=" + std::string(93, 'l') + "\n" + base;
    put(long_line);
    ino = inode();
    EXPECT_EQ(update_line_conf(c(file), c("a"), c("a=5")), -1);
    expect_untouched(long_line, ino);

    // A file of 2048 characters.
    std::string big;
    while (big.size() < 2048 - 50)
        big += std::string(49, 'q') + "\n";
    big += std::string(2048 - big.size() - 1, 'r') + "\n";
    ASSERT_EQ(big.size(), 2048u);
    put(big);
    ino = inode();
    EXPECT_EQ(update_line_conf(c(file), c("zz"), c("zz=1")), -1);
    expect_untouched(big, ino);

    // Growing past 2047 by the replacements.
    std::string grow;
    for (int i = 0; i < 500; ++i)
        grow += "a=1\n";
    put(grow);
    ino = inode();
    EXPECT_EQ(update_line_conf(c(file), c("a"), c("a=123")), -1);
    expect_untouched(grow, ino);
}

TEST_F(ConfLines, MissingFileIsRefused)
{
    EXPECT_EQ(update_line_conf(c(file), c("a"), c("a=1")), -1);
    EXPECT_FALSE(test::file_exists(file));
}

TEST_F(ConfLines, RewriteKeepsModeAndLinkAndLeavesNoTemporaryFile)
{
    put("a=1\n");
    ASSERT_EQ(chmod(file.c_str(), 0640), 0);
    std::string link = dir.path() + "/link.conf";
    ASSERT_EQ(symlink(file.c_str(), link.c_str()), 0);

    EXPECT_EQ(update_line_conf(c(link), c("a"), c("a=2")), 0);
    EXPECT_EQ(content(), "a=2\n");
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

TEST_F(ConfLines, ConcurrentWritersLoseNoUpdate)
{
    put("a=0\nb=0\n");
    auto writer = [this](const char* key) {
        for (int i = 1; i <= 150; ++i)
            ASSERT_EQ(update_line_conf_int(c(file), c(key), i, c("%s=%d")), 0);
    };
    std::thread ta(writer, "a"), tb(writer, "b");
    ta.join();
    tb.join();
    EXPECT_EQ(content(), "a=150\nb=150\n");
}

} // namespace
