// Behaviours seen from outside: log texts (line feeds, function names,
// null texts), start-up with bad files, the worker's wait, shared maps
// published again, image styles, by-name writes, exported tables, leaks.
#include "ipc/client/para_client.h" // with the library's internals
#include "support.h"
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace {

// Shared helpers that log: a line must name the function it belongs to.
const char* const kHelpers[] = {"load_json_file", "load_files", "load_module", "print_tree", "dump",
                                "get_request", "register_pattern", "update_composed", "valid_mod",
                                "http_name_in", "log_tree_at_detail", "log_current", "log_entry",
                                "store_to_buf", "save", "save_delay", "store_value", "add_form_pair",
                                "format_pair", "open_share", "refresh_share", "share_text", "plain_text",
                                "odm_store", "odm_get", "read_text", "odm_paths", "ensure_persist_dir",
                                "receive_one"};

std::string fixture(const char* name)
{
    return *test::read_file(std::string(PARA_SOURCE_DIR) + "/tests/data/exact/" + name);
}

struct Scenario {
    const char* name;
    // Read-only files replaced ("" removes the file); "@big" is a mapping
    // file of 156 KB with a syntax error near its end.
    std::vector<std::pair<const char*, const char*>> files;
    std::vector<const char*> expect; // texts some line must hold
    bool style_file_null;            // json_style_file after start-up
};

const Scenario kScenarios[] = {
    {"example", {},
     {"[para video_page +", "----------VIDEO PARAM-----------\n\n", "[para cJSON_Print_safe +",
      "[para para_init_misc +", "inter (null)\n", "[para para_get_video_opt +", "--size:--------\n"},
     false},
    {"bad_files",
     {{"www2json.json", R"({"a":@m})"},
      {"video_range.json", R"({"a":@v})"},
      {"isp1_def.json", R"({"a":@i})"}},
     {"]Error before: [@m}]\n", "[para para_init_video +", "]Error before: [@v}]\n\n",
      "[para para_init_isp_style +", "]Error before: [@i}]\n\n"},
     true},
    {"no_mapping", {{"www2json.json", ""}, {"video_range.json", ""}},
     {"]Error before: [(null)]\n", "]Error range def buf\n\n"}, false},
    {"big_mapping", {{"www2json.json", "@big"}}, {"]Error before: [@}]\n"}, false},
};

// Requests of every scenario: reads, writes, web forms, a post, garbage.
const char* const kRequests[] = {
    R"({"msg_type":"get","video0":["gop","bitRate"],"isp0":["style"],"misc":["all"]})",
    R"({"msg_type":"set","msg_id":2,"video0":{"bitRate":6000},"netport":{"x":"1"}})",
    R"({"msg_type":"get","msg_from":"www","msg_name":"encode"})",
    R"({"msg_type":"set","msg_from":"www","msg_name":"encode","data":"enc_gop=30"})",
    R"({"msg_type":"post","msg_name":"video0","data":{"gop":20}})",
    "not json"};

void PrintTo(const Scenario& s, std::ostream* os) { *os << s.name; }

class LogScenario : public ::testing::TestWithParam<Scenario> {};

TEST_P(LogScenario, LinesEndInLineFeedAndNameTheirFunction)
{
    const Scenario& c = GetParam();
    test::TempDir dir;
    test::copy_dir_files(test::example_device_dir(), dir.ro());
    for (auto [file, text] : c.files) {
        std::string path = dir.ro() + "/" + file;
        if (!*text)
            unlink(path.c_str());
        else if (std::string(text) == "@big")
            test::write_file(path, "{\"k\":\"" + std::string(156 * 1024, 'a') + "\",\"b\":@}");
        else
            test::write_file(path, text);
    }
    // A failed parse of the host's own: its error position must not leak
    // into the library's line.
    std::string host_text = "{host";
    cJSON_Delete(cJSON_Parse(host_text.c_str()));

    test::LogCapture log(7);
    dir.use_as_profile();
    para_server_port = 0;
    platformparam_init();
    const int port = para_server_bound_port();
    for (const char* req : kRequests)
        test::udp_request(req, 1000, port);
    void* out = nullptr;
    para_get_isp_opt(nullptr, nullptr, &out, nullptr);
    cJSON_Delete(static_cast<cJSON*>(out));
    para_video_enum(nullptr, nullptr);
    platformparam_save();
    platformparam_stop(1);

    for (const std::string& line : log.lines()) {
        EXPECT_TRUE(!line.empty() && line.back() == '\n') << line;
        std::string fn = line.substr(6, line.find(" +") - 6); // "[para <fn> +"
        for (const char* helper : kHelpers)
            EXPECT_NE(fn, helper) << line;
    }
    for (const char* text : c.expect)
        EXPECT_TRUE(log.contains(text)) << text << "\n" << log.dump();
    EXPECT_EQ(json_style_file == nullptr, c.style_file_null);
}

INSTANTIATE_TEST_SUITE_P(Exact, LogScenario, ::testing::ValuesIn(kScenarios),
                         [](const auto& info) { return std::string(info.param.name); });

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
    std::vector<int> filler;
    while (filler.empty() || filler.back() < 1100)
        filler.push_back(open("/dev/null", O_RDONLY));
    test::TempDir dir;
    test::copy_dir_files(test::example_device_dir(), dir.ro());
    dir.use_as_profile();
    para_server_port = 0;
    platformparam_init();
    auto reply = test::udp_request(R"({"msg_type":"get","msg_id":7,"video0":["gop"]})", 2000,
                                   para_server_bound_port());
    ASSERT_TRUE(reply);
    EXPECT_EQ(test::compact(*reply), R"({"msg_id":7,"video0":{"gop":60}})");
    platformparam_stop(1);
}

// The main application takes its map away and publishes a new one under the
// same name; a client that registered before follows.
TEST(Exact, ClientFollowsARepublishedShareMap)
{
    const std::string prefix = "/para_share_x" + std::to_string(getpid()) + "_";
    para_share_set_name_prefix(prefix.c_str());
    const std::string name = prefix + "1";
    auto publish = [&](const char* text) {
        int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
        EXPECT_EQ(ftruncate(fd, 12 + 16), 0);
        void* map = mmap(nullptr, 28, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        auto* head = static_cast<dov_share_head_s*>(map);
        close(fd);
        head->num = 1;
        head->size = 16;
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

TEST(Exact, StyleIndexKeepsTheItemsType)
{
    test::TempDir dir;
    test::write_file(dir.ro() + "/isp_range.json", fixture("isp_range.json"));
    test::write_file(dir.ro() + "/isp0_def.json", fixture("isp0_text_style.json"));
    dir.use_as_profile();
    ASSERT_EQ(para_init_isp(nullptr), 0);
    cJSON* item = cJSON_GetObjectItem(get_isp_style_json(0, 1), "style");
    ASSERT_TRUE(cJSON_IsString(item));
    EXPECT_STREQ(item->valuestring, "vivid");
    EXPECT_EQ(item->valueint, 1);
}

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

TEST(Exact, ExternRowsAreExported)
{
    void* lib = dlopen(PARA_BINARY_DIR "/libpara.so", RTLD_NOW | RTLD_LOCAL);
    ASSERT_TRUE(lib) << dlerror();
    EXPECT_TRUE(dlsym(lib, "module_para_handle_extern_temp"));
    EXPECT_TRUE(dlsym(lib, "module_para_handle_num_extern_temp"));
    dlclose(lib);
    module_para_handle_s row{};
    row.parse_name = const_cast<char*>("ext");
    register_para_handle_extern(&row);
    ASSERT_EQ(module_para_handle_num_extern_temp, 1);
    EXPECT_STREQ(module_para_handle_extern_temp[0].parse_name, "ext");
}

TEST(Exact, JsonModuleThatDidNotLoadKeepsItsFile)
{
    test::TempDir dir;
    test::write_file(dir.ro() + "/www2json.json", R"({"json_pattern_list":["foo"]})");
    test::write_file(dir.ro() + "/foo.conf", "a=0\n"); // no foo_range.json
    test::write_file(dir.rw() + "/foo.conf", "a=1\n");
    test::LogCapture log(6);
    dir.use_as_profile();
    para_server_port = 0;
    platformparam_init();
    platformparam_stop(1);
    EXPECT_EQ(test::read_file(dir.rw() + "/foo.conf"), "a=1\n");
    EXPECT_TRUE(log.contains("not loaded, foo left as it is\n"));
}

// Start-up and the requests of the example, run again under valgrind: no
// block may be lost.
TEST(Exact, StartUpLosesNoMemory)
{
    if (test::run_command("valgrind --version").status != 0 || !test::emulator_prefix().empty())
        GTEST_SKIP() << "valgrind is not available";
    auto r = test::run_command("valgrind --leak-check=full --errors-for-leak-kinds=definite "
                               "--error-exitcode=9 " PARA_BINARY_DIR
                               "/tests/test_exact --gtest_filter=Exact/LogScenario.*/example");
    EXPECT_EQ(r.out.find("are definitely lost"), std::string::npos) << r.out;
    EXPECT_EQ(r.status, 0) << r.out;
}

} // namespace
