// Module handler table, lifecycle and save sweep. Every TEST runs in its own
// process, so each one starts the library from scratch.
#include <gtest/gtest.h>

#include "para_internal.h"
#include "support.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

namespace {

std::atomic<int> g_sync_runs{0};
int count_sync(const char* cmd)
{
    if (std::string(cmd) == "sync")
        ++g_sync_runs;
    return 0;
}

std::vector<std::string> row_names()
{
    std::vector<std::string> out;
    for (int i = 0; i < module_para_handle_num; ++i)
        out.emplace_back(module_para_handle[i].parse_name ? module_para_handle[i].parse_name : "");
    return out;
}

void start_server(test::TempDir& dir)
{
    dir.use_as_profile();
    para_server_port = 0; // any free port: these tests need no fixed one
    platformparam_init();
}

int ext_get(char*, void*, void** out, char*)
{
    *out = cJSON_CreateNumber(1);
    return 0;
}
int ext_get2(char*, void*, void** out, char*)
{
    *out = cJSON_CreateNumber(2);
    return 0;
}

} // namespace

TEST(Table, NoMappingFileGivesBuiltinsAndDefaultPatterns)
{
    test::TempDir dir;
    test::LogCapture log;
    start_server(dir);
    std::vector<std::string> expected = {
        "odmInter", "isp0", "isp1", "af", "video0", "video1", "audio", "json", "conf", "msg_type", "msg_name",
        "msg_id", "video2", "video3", "video4", "video5", "video6", "end", "misc", "netport", "overlay", "ndi_config"};
    EXPECT_EQ(row_names(), expected);
    EXPECT_TRUE(log.contains("Error before: ["));
    EXPECT_TRUE(log.contains("module_para_handle_num:22"));
    EXPECT_TRUE(log.contains("[para platformparam_init +"));
    // Pattern rows carry their template's operations.
    EXPECT_EQ(module_para_handle[18].get_buf, para_get_misc_opt);
    EXPECT_EQ(module_para_handle[19].save, para_save_conf);
    platformparam_stop(1);
}

TEST(Table, EmptyJsonListKeepsDefaultConfList)
{
    test::TempDir dir;
    test::write_file(dir.ro() + "/www2json.json", R"({"json_pattern_list":[]})");
    start_server(dir);
    EXPECT_EQ(module_para_handle_num, 21);
    EXPECT_STREQ(module_para_handle[18].parse_name, "netport");
    platformparam_stop(1);
}

TEST(Table, NamedMappingFileAndItsLists)
{
    test::TempDir dir;
    test::write_file(dir.ro() + "/map.json",
                     R"({"json_pattern_list":["a","b"],"conf_pattern_list":["c"]})");
    para_profile.config_file_name = const_cast<char*>("map.json");
    start_server(dir);
    std::vector<std::string> names = row_names();
    ASSERT_EQ(names.size(), 21u);
    EXPECT_EQ(names[18], "a");
    EXPECT_EQ(names[19], "b");
    EXPECT_EQ(names[20], "c");
    EXPECT_EQ(module_para_handle[20].set_buf, para_set_conf_opt);
    platformparam_stop(1);
}

TEST(Table, OverflowFillsExactly64AndLogsOncePerList)
{
    test::TempDir dir;
    std::string list;
    for (int i = 0; i < 50; ++i)
        list += (i ? ",\"m" : "\"m") + std::to_string(i) + "\"";
    test::write_file(dir.ro() + "/www2json.json", "{\"json_pattern_list\":[" + list + "]}");
    module_para_handle_s ext{};
    ext.parse_name = const_cast<char*>("ext");
    ext.get_buf = ext_get;
    register_para_handle_extern(&ext);
    test::LogCapture log;
    start_server(dir);
    EXPECT_EQ(module_para_handle_num, PARA_MODULE_ROWS);
    // once for the json list, once for the conf list, once for the extern rows
    EXPECT_EQ(log.count("err not enough module_para_handle\n"), 3);
    EXPECT_STREQ(module_para_handle[63].parse_name, "m45");
    platformparam_stop(1);
}

TEST(Table, ExternRegistration)
{
    test::LogCapture log;
    module_para_handle_s a{};
    a.parse_name = const_cast<char*>("ext");
    a.get_buf = ext_get;
    register_para_handle_extern(&a);
    module_para_handle_s b = a;
    b.get_buf = ext_get2;
    b.save = para_save_video; // never taken over: extern rows are not saved
    register_para_handle_extern(&b);
    register_para_handle_extern(nullptr);

    // 31 more distinct names fill the 32 slots; the next one is refused.
    static std::vector<std::string> names;
    for (int i = 0; i < 32; ++i)
        names.push_back("x" + std::to_string(i));
    for (auto& n : names) {
        module_para_handle_s r{};
        r.parse_name = const_cast<char*>(n.c_str());
        register_para_handle_extern(&r);
    }
    EXPECT_EQ(log.count("err not enough module_para_handle_extern_temp"), 1);

    test::TempDir dir;
    start_server(dir);
    EXPECT_EQ(module_para_handle_num, 22 + 32);
    const module_para_handle_s& row = module_para_handle[22];
    EXPECT_STREQ(row.parse_name, "ext");
    EXPECT_EQ(row.get_buf, ext_get2);
    EXPECT_EQ(row.save, nullptr);
    EXPECT_STREQ(module_para_handle[53].parse_name, "x30");

    module_para_handle_s late{};
    late.parse_name = const_cast<char*>("late");
    register_para_handle_extern(&late);
    EXPECT_TRUE(log.contains("err:call register_para_handle_extern before platformparam_init"));
    EXPECT_EQ(module_para_handle_num, 54);
    platformparam_stop(1);
}

TEST(Table, MessageEchoRows)
{
    para::JsonPtr req(cJSON_Parse(R"({"msg_id":7,"msg_name":"st","other":1})"));
    void* out = nullptr;
    para_get_msg_id_opt(nullptr, cJSON_GetObjectItem(req.get(), "msg_id"), &out, const_cast<char*>("msg_id"));
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(static_cast<cJSON*>(out)->valueint, 7);
    cJSON_Delete(static_cast<cJSON*>(out));

    out = nullptr;
    EXPECT_EQ(para_get_msg_id_opt(nullptr, cJSON_GetObjectItem(req.get(), "other"), &out,
                                  const_cast<char*>("msg_id")), 0);
    EXPECT_EQ(out, nullptr);

    para_get_msg_name_opt(nullptr, cJSON_GetObjectItem(req.get(), "msg_name"), &out, const_cast<char*>("msg_name"));
    ASSERT_NE(out, nullptr);
    EXPECT_STREQ(static_cast<cJSON*>(out)->valuestring, "st");
    cJSON_Delete(static_cast<cJSON*>(out));
}

TEST(Table, ConflictCallback)
{
    test::LogCapture log;
    EXPECT_EQ(para_conflict_callback(const_cast<char*>("odm"), 3, 1), 0);
    EXPECT_TRUE(log.contains("odm 3->1"));
    static int seen = 0;
    para_profile.para_version_conflict = [](char*, int o, int n) { seen = o * 10 + n; };
    para_conflict_callback(const_cast<char*>("odm"), 0, 1);
    EXPECT_EQ(seen, 1);
}

TEST(Lifecycle, ForcedStopSavesEveryRowOnceAndSyncsOnce)
{
    test::TempDir dir;
    start_server(dir);
    int rows_with_save = 0;
    for (int i = 0; i < module_para_handle_num; ++i)
        rows_with_save += module_para_handle[i].save != nullptr;
    ASSERT_GT(rows_with_save, 0);

    g_sync_runs = 0;
    lib_system_hook = count_sync;
    test::LogCapture log(6);
    EXPECT_EQ(platformparam_stop(1), 0);
    EXPECT_EQ(log.count(" save...\n"), rows_with_save);
    EXPECT_EQ(g_sync_runs, 1);
    EXPECT_TRUE(log.contains("platformparam_stop ok"));

    // A second stop finds no worker and saves nothing.
    log.clear();
    EXPECT_EQ(platformparam_stop(1), 0);
    EXPECT_EQ(log.count(" save...\n"), 0);
    EXPECT_EQ(g_sync_runs, 1);

    // A forced save still works after the stop.
    EXPECT_EQ(platformparam_save(), 0);
    EXPECT_EQ(g_sync_runs, 2);
    lib_system_hook = nullptr;
}

TEST(Lifecycle, StopZeroKeepsServing)
{
    test::TempDir dir;
    start_server(dir);
    EXPECT_EQ(platformparam_stop(0), 0);
    auto reply = test::udp_request(R"({"msg_type":"get","msg_id":3})", 2000, para_server_bound_port());
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ(test::compact(*reply), R"({"msg_id":3})");
    platformparam_stop(1);
}

TEST(Lifecycle, ClientRoleLoadsNothing)
{
    test::TempDir dir;
    dir.use_as_profile();
    para_profile.client = 1;
    g_sync_runs = 0;
    lib_system_hook = count_sync;
    platformparam_init();
    EXPECT_EQ(module_para_handle_num, 0);
    EXPECT_EQ(platformparam_save(), 0);
    EXPECT_EQ(g_sync_runs, 0);
    EXPECT_EQ(platformparam_stop(1), 0);
    lib_system_hook = nullptr;
}

namespace {
std::atomic<int> g_ext_saves{0};
std::atomic<int> g_ext_due{0};
int ext_need(char*) { return g_ext_due; }
int ext_save(char*)
{
    ++g_ext_saves;
    g_ext_due = 0;
    return 1; // reported as a failure
}
} // namespace

TEST(Lifecycle, SweepSavesDueRowsWithoutSocket)
{
    // A row that says it is due is saved by the worker's sweep even when the
    // port could not be bound; a failing save is logged and still syncs.
    test::TempDir dir;
    dir.use_as_profile();
    int blocker = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    ASSERT_EQ(bind(blocker, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    socklen_t len = sizeof a;
    getsockname(blocker, reinterpret_cast<sockaddr*>(&a), &len);
    para_server_port = ntohs(a.sin_port); // taken: the bind must fail

    // The extra row goes in before "end", so it counts as built in.
    module_para_handle[18] = module_para_handle[17];
    module_para_handle[17] = module_para_handle_s{const_cast<char*>("late_row"), nullptr, nullptr,
                                                  nullptr, nullptr, ext_need, ext_save};
    test::LogCapture log(6);
    g_sync_runs = 0;
    lib_system_hook = count_sync;
    platformparam_init();
    EXPECT_TRUE(log.contains("bind error ret = -1"));
    EXPECT_EQ(para_server_bound_port(), -1);
    EXPECT_EQ(module_para_handle_num, 23);
    g_ext_due = 1;
    EXPECT_TRUE(test::wait_until([] { return g_ext_saves == 1; }, 2000));
    platformparam_stop(1);
    EXPECT_TRUE(log.contains("late_row save err"));
    EXPECT_GE(g_sync_runs, 1);
    lib_system_hook = nullptr;
    close(blocker);
}
