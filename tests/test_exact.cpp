// Behaviours seen from outside: the scenarios of tests/data/exact/ (log
// texts, start-up with bad files), the trace, the worker's wait, shared maps
// published again, image styles, by-name writes, exported tables, leaks.
#include "ipc/client/para_client.h" // with the library's internals
#include "scenario.h"
#include "support.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

SCENARIO_TESTS(ExactScenario, "exact", false);

// The line feeds of a line are its format's: the trace adds none.
TEST(Exact, TraceWritesWhatItIsGiven)
{
    test::LogCapture log(6);
    dov_traceout(PARA_INFO, "%s", "two\n\n");
    dov_traceout(PARA_INFO, "%s", "none");
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"two\n\n", "none"}));
}

// A host with many files open gets a socket past FD_SETSIZE.
TEST(Exact, WorkerServesASocketPastFdSetSize)
{
    rlimit lim{};
    getrlimit(RLIMIT_NOFILE, &lim);
    if (lim.rlim_max < 1200)
        GTEST_SKIP() << "the hard limit of open files is below 1200";
    lim.rlim_cur = lim.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lim), 0);
    while (open("/dev/null", O_RDONLY) < 1100) {
    }
    test::TempDir dir;
    test::copy_dir_files(test::example_device_dir(), dir.ro());
    dir.use_as_profile();
    para_server_port = 0;
    platformparam_init();
    auto reply = test::udp_request(R"({"msg_type":"get","msg_id":7,"video0":["gop"]})", 2000, para_server_bound_port());
    EXPECT_EQ(test::compact(reply.value_or("")), R"({"msg_id":7,"video0":{"gop":60}})");
    platformparam_stop(1);
}

// The main application takes its map away and publishes a new one under the
// same name; a client that registered before follows.
TEST(Exact, ClientFollowsARepublishedShareMap)
{
    const std::string prefix = "/para_share_x" + std::to_string(getpid()) + "_", name = prefix + "1";
    para_share_set_name_prefix(prefix.c_str());
    auto publish = [&](const char* text) {
        int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
        EXPECT_EQ(ftruncate(fd, 12 + 16), 0);
        auto* head = static_cast<dov_share_head_s*>(mmap(nullptr, 28, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        close(fd);
        *head = {0, 1, 16};
        std::snprintf(reinterpret_cast<char*>(head + 1), 16, "%s", text);
        head->flag = 1;
        return head;
    };
    dov_share_head_s* first = publish("first");
    ASSERT_EQ(para_share_register(1), 0);
    EXPECT_STREQ(static_cast<char*>(para_get_share_map(1, 1)), "first");
    first->flag = 0; // how the application takes a map away
    shm_unlink(name.c_str());
    publish("second");
    EXPECT_STREQ(static_cast<char*>(para_get_share_map(1, 1)), "second");
    EXPECT_EQ(para_share_register(1), 0);
    shm_unlink(name.c_str());
}

// A style named in the file keeps its text; the index rides along.
TEST(Exact, StyleIndexKeepsTheItemsType)
{
    test::TempDir dir;
    for (auto [from, to] : {std::pair{"isp_range.json", "isp_range.json"}, {"isp0_text_style.json", "isp0_def.json"}})
        test::write_file(dir.ro() + "/" + to, *test::read_file(scenario::data_path("exact/") + from));
    dir.use_as_profile();
    ASSERT_EQ(para_init_isp(nullptr), 0);
    cJSON* item = cJSON_GetObjectItem(get_isp_style_json(0, 1), "style");
    ASSERT_TRUE(cJSON_IsString(item));
    EXPECT_STREQ(item->valuestring, "vivid");
    EXPECT_EQ(item->valueint, 1);
}

// A name the member does not know is -1000 to the range check, which takes
// it here.
TEST(Exact, NamedMemberPassesTheFailedLookupToTheRangeCheck)
{
    test::TempDir dir;
    test::write_file(dir.ro() + "/audio_range.json", R"({"aeFormat":[-1000,1]})");
    test::write_file(dir.ro() + "/audio_def.json", R"({"aeFormat":"AAC"})");
    dir.use_as_profile();
    ASSERT_EQ(para_init_audio(nullptr), 0);
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
    dlclose(lib);
}

// Start-up and the requests of the example, run again under valgrind: no
// block may be lost.
TEST(Exact, StartUpLosesNoMemory)
{
    if (test::run_command("valgrind --version").status != 0 || !test::emulator_prefix().empty())
        GTEST_SKIP() << "valgrind is not available";
    auto r = test::run_command("valgrind --leak-check=full --errors-for-leak-kinds=definite --error-exitcode=9 " +
                               test::emulator_prefix() + PARA_BINARY_DIR "/tests/test_exact "
                               "--gtest_filter=Data/ExactScenario.Scenario/logs_example");
    EXPECT_EQ(r.out.find("are definitely lost"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("[  PASSED  ] 1 test."), std::string::npos) << r.out;
    EXPECT_EQ(r.status, 0) << r.out;
}
