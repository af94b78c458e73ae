// .conf modules: layered load, reload through the deferred work, change
// query, set, delayed save and the request operations.
#include <gtest/gtest.h>

#include "para_internal.h"
#include "support.h"

#include <sys/file.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

std::vector<std::string> g_member_calls;
std::vector<std::string> g_page_calls;

void member_cb(char* file, const char* key)
{
    g_member_calls.push_back(std::string(file) + ":" + key);
}
void page_cb(char* file)
{
    g_page_calls.emplace_back(file);
}

// ro: three defaults, one in the quoted form; rw: port overridden.
void netport_files(test::TempDir& dir)
{
    test::write_file(dir.ro() + "/netport.conf", "ip=192.168.1.10\nmask = \"255.255.255.0\"\nport=80\n");
    test::write_file(dir.rw() + "/netport.conf", "port=8080\n");
}

void load(test::TempDir& dir, std::vector<const char*> names)
{
    dir.use_as_profile();
    para_profile.conf_caller_in = member_cb;
    para_profile.conf_caller = page_cb;
    para_init_conf(const_cast<char*>("conf"));
    for (const char* n : names)
        para_init_conf(const_cast<char*>(n));
}

std::string member(const char* module, const char* key)
{
    const char* v = para_conf_get_member(module, key);
    return v ? v : "(null)";
}

std::string request_get(const char* req_key, const char* items, const char* module)
{
    para::JsonPtr req(cJSON_Parse(items));
    req->string = const_cast<char*>(req_key); // the key the router matched
    void* out = nullptr;
    para_get_conf_opt(const_cast<char*>(req_key), req.get(), &out, const_cast<char*>(module));
    req->string = nullptr;
    para::JsonPtr o(static_cast<cJSON*>(out));
    para::CharPtr t(cJSON_PrintUnformatted(o.get()));
    return t.get();
}

int need_save(const char* module)
{
    return para_need_save_conf(const_cast<char*>(module));
}
int save(const char* module)
{
    return para_save_conf(const_cast<char*>(module));
}
bool becomes_due(const char* module)
{
    return test::wait_until([module] { return need_save(module) == 1; }, 3000);
}

// Drains the "changed" marks every entry carries after its first load.
void clear_marks(const char* module, const char** keys, uint8_t n)
{
    while (para_conf_key_IsChanged(module, keys, n) == 1) {
    }
}

} // namespace

TEST(ConfStore, ReadWriteFileLayersOverDefaults)
{
    test::TempDir dir;
    netport_files(dir);
    load(dir, {"netport", "overlay"});
    EXPECT_EQ(member("netport", "ip"), "192.168.1.10");
    EXPECT_EQ(member("netport", "mask"), "255.255.255.0");
    EXPECT_EQ(member("netport", "port"), "8080");
    char buf[32];
    ASSERT_EQ(para_conf_get_def_member_safe("netport", "port", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "80");
    EXPECT_NE(para_conf_get_member_safe("netport", "port", buf, 4), 0); // "8080" needs 5 bytes
    // overlay has no read-only file: known but unloaded.
    EXPECT_EQ(para_conf_get_member("overlay", "x"), nullptr);
    EXPECT_EQ(para_conf_get_member_safe("overlay", "x", buf, sizeof buf), -1);
    EXPECT_EQ(para_save_conf_2_buf("overlay", buf, sizeof buf), -1);
    EXPECT_EQ(need_save("overlay"), 0);
    EXPECT_EQ(need_save("nosuch"), -1);
    EXPECT_EQ(_para_conf_set_member("nosuch", "k", "v"), -1);
    // Named accessors reach the same store.
    EXPECT_STREQ(para_get_netport_member("ip"), "192.168.1.10");
    EXPECT_EQ(para_get_overlay_member("ip"), nullptr);
    const char* keys[] = {"ip"};
    EXPECT_EQ(para_key_IsChanged_devinfo(keys, 1), -1);
}

TEST(ConfStore, SetMarksChangeAndCallsBack)
{
    test::TempDir dir;
    netport_files(dir);
    load(dir, {"netport"});
    EXPECT_EQ(para_conf_set_member("netport", "port", "8080"), 0);
    EXPECT_TRUE(g_member_calls.empty());
    EXPECT_EQ(need_save("netport"), 0);

    EXPECT_EQ(para_conf_set_member("netport", "gateway", "192.168.1.1"), 1); // new key
    EXPECT_EQ(g_member_calls, std::vector<std::string>{"netport:gateway"});
    EXPECT_EQ(member("netport", "gateway"), "192.168.1.1");
    EXPECT_EQ(need_save("netport"), 0); // not yet due

    // Keys that would read back as something else are refused.
    test::LogCapture log;
    EXPECT_EQ(_para_conf_set_member("netport", "ip=10.0.0.1 #", "x"), -1);
    EXPECT_EQ(_para_conf_set_member("netport", "#ip", "x"), -1);
    EXPECT_EQ(_para_conf_set_member("netport", " ip", "x"), -1);
    EXPECT_EQ(_para_conf_set_member("netport", "", "x"), -1);
    EXPECT_EQ(_para_conf_set_member("netport", "ip", "two\nlines"), -1);
    EXPECT_TRUE(log.contains("refuse key"));
    EXPECT_EQ(member("netport", "ip"), "192.168.1.10");
}

TEST(ConfStore, SaveWritesWholeStoreThatLoadsBack)
{
    test::TempDir dir;
    netport_files(dir);
    load(dir, {"netport"});
    para_profile.conf_save = 1;
    para_conf_set_member("netport", "banner", " padded \"text\" ");
    para_conf_set_member("netport", "empty", "");
    ASSERT_TRUE(becomes_due("netport"));
    EXPECT_EQ(save("netport"), 0);
    EXPECT_EQ(need_save("netport"), 0);

    configure* back = configure_init();
    ASSERT_EQ(configure_parse(back, nullptr, (dir.rw() + "/netport.conf").c_str()), 0);
    for (const char* k : {"ip", "mask", "port", "banner", "empty"}) {
        char got[256] = "(missing)";
        back->get(back, k, got, sizeof got);
        EXPECT_EQ(std::string(got), member("netport", k)) << k;
    }
    EXPECT_EQ(back->list.used, 5u);
    configure_free(back);
}

TEST(ConfStore, SaveWaitsForTheFileLock)
{
    test::TempDir dir;
    netport_files(dir);
    load(dir, {"netport"});
    para_profile.conf_save = 1;
    para_conf_set_member("netport", "port", "9000");
    int fd = open((dir.rw() + "/netport.conf").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(flock(fd, LOCK_EX), 0); // another process rewriting the file
    std::atomic<bool> done{false};
    std::thread saver([&] {
        save("netport");
        done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(done.load());
    EXPECT_EQ(*test::read_file(dir.rw() + "/netport.conf"), "port=8080\n");
    flock(fd, LOCK_UN);
    close(fd);
    saver.join();
    EXPECT_NE(test::read_file(dir.rw() + "/netport.conf")->find("port=9000\n"), std::string::npos);
}

TEST(ConfStore, SavingSwitchedOffKeepsModuleDue)
{
    test::TempDir dir;
    netport_files(dir);
    load(dir, {"netport"});
    para_profile.conf_save = 0;
    para_conf_set_member("netport", "port", "9000");
    ASSERT_TRUE(becomes_due("netport"));
    EXPECT_EQ(save("netport"), 0);
    EXPECT_EQ(need_save("netport"), 1);
    EXPECT_EQ(*test::read_file(dir.rw() + "/netport.conf"), "port=8080\n");
}

TEST(ConfStore, ReloadThroughDeferredWorkReportsChangedKeys)
{
    test::TempDir dir;
    netport_files(dir);
    load(dir, {"netport"});
    const char* keys[] = {"ip", "mask", "port"};
    clear_marks("netport", keys, 3);
    EXPECT_EQ(para_key_IsChanged_netport(keys, 3), 0);

    test::write_file(dir.rw() + "/netport.conf", "port=8080\nmask=255.255.0.0\n");
    g_page_calls.clear();
    {
        test::LogCapture log;
        ASSERT_EQ(fifo_work_trigger("netport", nullptr), 1);
        fifo_work_drain();
        EXPECT_EQ(member("netport", "mask"), "255.255.0.0");
        EXPECT_EQ(g_page_calls, std::vector<std::string>{"netport"});
        const char* wanted[] = {"ip", "port", "mask"};
        EXPECT_EQ(para_conf_key_IsChanged("netport", wanted, 3), 1);
        EXPECT_TRUE(log.contains("key id 2 changed"));
    }
    EXPECT_EQ(para_conf_key_IsChanged("netport", keys, 3), 0); // reported once
}

TEST(ConfStore, ReloadWithoutDefaultsUnloadsModule)
{
    test::TempDir dir;
    netport_files(dir);
    load(dir, {"netport"});
    para_profile.conf_save = 1;
    const char* held = para_conf_get_member("netport", "ip");
    std::remove((dir.ro() + "/netport.conf").c_str());
    EXPECT_EQ(para_need_update_netport(), -1);
    EXPECT_EQ(para_conf_get_member("netport", "ip"), nullptr);
    EXPECT_EQ(save("netport"), -1);
    EXPECT_EQ(para_conf_set_member("netport", "ip", "1.2.3.4"), -1);
    EXPECT_STREQ(held, "192.168.1.10"); // a text handed out earlier stays readable

    netport_files(dir); // defaults back: the module loads afresh
    EXPECT_EQ(para_need_update_netport(), 0);
    EXPECT_EQ(member("netport", "port"), "8080");
}

TEST(ConfStore, GetRequests)
{
    test::TempDir dir;
    netport_files(dir);
    load(dir, {"netport"});
    EXPECT_EQ(request_get("netport_def", R"(["all"])", "netport"),
              R"({"ip":"192.168.1.10","mask":"255.255.255.0","port":"80"})");
    EXPECT_EQ(request_get("netport", R"(["allx"])", "netport"),
              R"({"ip":"192.168.1.10","mask":"255.255.255.0","port":"8080"})");
    // Per-key reads answer current values even under a "def" key.
    EXPECT_EQ(request_get("netport_def", R"(["port","nosuch",3])", "netport"), R"({"port":"8080"})");
    EXPECT_EQ(request_get("netport", "[5]", "netport"), "{}");
    EXPECT_EQ(request_get("nosuch", R"(["all"])", "nosuch"), "{}");
}

TEST(ConfStore, SetRequestsTakeStringsOnly)
{
    test::TempDir dir;
    netport_files(dir);
    load(dir, {"netport"});
    para::JsonPtr numbers(cJSON_Parse(R"({"somekey":80,"port":8081})"));
    para_set_conf_opt(const_cast<char*>("netport"), numbers.get(), const_cast<char*>("netport"));
    EXPECT_EQ(para_conf_get_member("netport", "somekey"), nullptr);
    EXPECT_TRUE(g_page_calls.empty());

    para::JsonPtr text(cJSON_Parse(R"({"somekey":"sometext","port":"8080"})"));
    para_set_conf_opt(const_cast<char*>("netport"), text.get(), const_cast<char*>("netport"));
    EXPECT_EQ(member("netport", "somekey"), "sometext");
    EXPECT_EQ(g_page_calls, std::vector<std::string>{"netport"});
    EXPECT_TRUE(g_member_calls.empty()); // requests report the page only
}

TEST(ConfStore, SaveToBufferNeedsRoomForTerminator)
{
    test::TempDir dir;
    test::write_file(dir.ro() + "/netport.conf", "a=1\nb=22\n");
    load(dir, {"netport"});
    const std::string text = "a=1\nb=22\n";
    char buf[64];
    EXPECT_EQ(para_save_conf_2_buf("netport", buf, text.size() + 1), static_cast<int>(text.size()) + 1);
    EXPECT_EQ(std::string(buf), text);
    test::LogCapture log;
    EXPECT_EQ(para_save_conf_2_buf("netport", buf, text.size()), 0);
    EXPECT_TRUE(log.contains("netport buf is not enough"));
    EXPECT_EQ(para_save_conf_2_buf("netport", nullptr, 0), 0);
}

TEST(ConfStore, TableHoldsSixtyFourModules)
{
    test::TempDir dir;
    dir.use_as_profile();
    test::LogCapture log;
    para_init_conf(const_cast<char*>("conf"));
    std::vector<std::string> names;
    for (int i = 0; i < 66; ++i)
        names.push_back("m" + std::to_string(i));
    for (auto& n : names) {
        test::write_file(dir.ro() + "/" + n + ".conf", "k=" + n + "\n");
        para_init_conf(n.data());
    }
    EXPECT_EQ(member("m63", "k"), "m63");
    EXPECT_EQ(para_conf_get_member("m64", "k"), nullptr);
    EXPECT_EQ(para_need_save_conf(names[65].data()), -1);
    EXPECT_TRUE(log.contains("err no free conf slot for m64"));
}
