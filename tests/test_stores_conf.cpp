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
