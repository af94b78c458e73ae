// .conf modules: layered load, reload, change query, set, delayed save and
// requests, as scenarios of tests/data/stores_conf; the file lock here.
#include <gtest/gtest.h>

#include "scenario.h"
#include "support.h"

#include <sys/file.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <thread>

SCENARIO_TESTS(StoresConf, "stores_conf", false);

/* A reload marks exactly the keys whose value changed (a first load marks
 * none) and keeps the order of the files: the defaults' keys, then those only
 * the read-write file has. Files before and after, keys marked, saved text
 * (whose length counts its NUL). */
struct Reload {
    const char *ro, *rw, *ro2, *rw2, *marked, *saved;
};
const Reload kReloads[] = {
    {"a=1\nb=2\nc=3\n", "c=7\n", "a=5\nb=2\nc=3\n", "c=8\n", "ac", "a=5\nb=2\nc=8\n"},
    {"a=1\nb=2\nc=3\n", "b=9\nd=4\n", "a=1\nb=2\nc=3\n", "b=9\nd=4\n", "", "a=1\nb=9\nc=3\nd=4\n"},
    {"a=1\nb=2\n", "b=9\n", "a=1\nb=5\n", "b=9\n", "", "a=1\nb=9\n"}, // an overridden default changed
    {"a=1\nb=2\n", "a=6\n", "a=1\nb=2\n", "d=4\n", "ad", "a=1\nb=2\nd=4\n"}, // override gone, key new
};
TEST(ConfStore, ReloadMarksChangedKeysAndKeepsTheOrder)
{
    for (const Reload& r : kReloads) {
        test::TempDir dir;
        auto files = [&](const char* ro, const char* rw) {
            test::write_file(dir.ro() + "/netport.conf", ro), test::write_file(dir.rw() + "/netport.conf", rw);
        };
        std::string got = test::in_child([&] {
            dir.use_as_profile(), files(r.ro, r.rw);
            para_init_conf(const_cast<char*>("conf")), para_init_conf(const_cast<char*>("netport"));
            const char* keys[] = {"a", "b", "c", "d"};
            std::string out = para_conf_key_IsChanged("netport", keys, 4) ? "first load marks " : "";
            files(r.ro2, r.rw2), para_conf_need_update(const_cast<char*>("netport"));
            for (const char* k : keys)
                out += para_conf_key_IsChanged("netport", &k, 1) ? k : "";
            char buf[256] = "";
            return out + " " + std::to_string(para_save_conf_2_buf("netport", buf, sizeof buf)) + " " + buf;
        });
        EXPECT_EQ(got, std::string(r.marked) + " " + std::to_string(strlen(r.saved) + 1) + " " + r.saved) << r.ro2 << r.rw2;
    }
}

TEST(ConfStore, SaveWaitsForTheFileLock)
{
    test::TempDir dir;
    test::write_file(dir.ro() + "/netport.conf", "port=80\n");
    test::write_file(dir.rw() + "/netport.conf", "port=8080\n");
    dir.use_as_profile();
    para_init_conf(const_cast<char*>("conf"));
    para_init_conf(const_cast<char*>("netport"));
    para_profile.conf_save = 1;
    para_conf_set_member("netport", "port", "9000");
    int fd = open((dir.rw() + "/netport.conf").c_str(), O_RDONLY);
    ASSERT_EQ(flock(fd, LOCK_EX), 0); // another process rewriting the file
    std::atomic<bool> done{false};
    std::thread saver([&] { para_save_conf(const_cast<char*>("netport")), done = true; });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(done.load());
    EXPECT_EQ(*test::read_file(dir.rw() + "/netport.conf"), "port=8080\n");
    flock(fd, LOCK_UN);
    close(fd);
    saver.join();
    EXPECT_NE(test::read_file(dir.rw() + "/netport.conf")->find("port=9000\n"), std::string::npos);
}
