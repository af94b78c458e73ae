// Module handler table, lifecycle and save sweep; each TEST starts the
// library from scratch in its own process.
#include "para_internal.h"
#include "support.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <regex>

namespace {

std::atomic<int> syncs{0}, ext_saves{0}, ext_due{0};
int count_sync(const char* cmd) { return syncs += std::string(cmd) == "sync", 0; }
int get1(char*, void*, void** out, char*) { return *out = cJSON_CreateNumber(1), 0; }
int get2(char*, void*, void** out, char*) { return *out = cJSON_CreateNumber(2), 0; }

std::string names() // the rows' parse names, one "," after each
{
    std::string s;
    for (int i = 0; i < module_para_handle_num; ++i)
        s += std::string(module_para_handle[i].parse_name ? module_para_handle[i].parse_name : "") + ",";
    return s;
}

struct Started { // a library on any free port, stopped at the end
    test::TempDir dir;
    explicit Started(const char* map_name = nullptr, const std::string& map = "")
    {
        if (map_name)
            test::write_file(dir.ro() + "/" + map_name, map);
        dir.use_as_profile();
        para_server_port = 0, syncs = 0, lib_system_hook = count_sync;
        platformparam_init();
    }
    ~Started() { platformparam_stop(1), lib_system_hook = nullptr; }
};

void add_ext(const char* name, decltype(&get1) get) {
    module_para_handle_s r{};
    r.parse_name = const_cast<char*>(name), r.get_buf = get, r.save = get == get2 ? para_save_video : nullptr;
    register_para_handle_extern(&r);
}

} // namespace

/* Start-ups with and without a mapping file: the row names end as given,
 * pattern rows take their template's operations (json_row the misc ones,
 * conf_row the conf ones; -1: none), and a log line comes that often. */
struct Startup { const char* name; const char* map_file; std::string map, rows_end; int num, json_row, conf_row; const char* log; int times; };
const Startup kStartups[] = {
    {"no_mapping_file", nullptr, "", "odmInter,isp0,isp1,af,video0,video1,audio,json,conf,msg_type,msg_name,msg_id,video2,"
     "video3,video4,video5,video6,end,misc,netport,overlay,ndi_config,", 22, 18, 19, "Error before: [", 1},
    {"empty_json_list", "www2json.json", R"({"json_pattern_list":[]})", "end,netport,overlay,ndi_config,", 21, -1, 18, "Error before: [", 0},
    {"named_file", "map.json", R"({"json_pattern_list":["a","b"],"conf_pattern_list":["c"]})", "end,a,b,c,", 21, 18, 20,
     "module_para_handle_num:21", 1},
    // 50 + 4 + the extern row: 64 exactly, once for the json list, once for the conf list, once for the extern rows
    {"overflow", "www2json.json", "", ",m44,m45,", PARA_MODULE_ROWS, 18, -1, "err not enough module_para_handle\n", 3},
};
class Table : public ::testing::TestWithParam<Startup> {};
TEST_P(Table, RowsOfTheMappingFile)
{
    const Startup& c = GetParam();
    std::string map = c.map.empty() && c.map_file ? "{\"json_pattern_list\":[\"m0\"" : c.map;
    for (int i = 1; i < 50 && c.map.empty() && c.map_file; ++i)
        map += ",\"m" + std::to_string(i) + "\"" + (i == 49 ? "]}" : "");
    if (c.map.empty() && c.map_file)
        add_ext("ext", get1);
    if (c.map_file && std::string(c.map_file) != "www2json.json")
        para_profile.config_file_name = const_cast<char*>(c.map_file);
    test::LogCapture log;
    Started lib(c.map_file, map);
    EXPECT_EQ(module_para_handle_num, c.num);
    EXPECT_EQ(names().substr(names().size() - std::min(names().size(), c.rows_end.size())), c.rows_end);
    EXPECT_EQ(log.count(c.log), c.times) << log.dump();
    auto row = [](int i) { return module_para_handle[i]; };
    EXPECT_TRUE(c.json_row < 0 || row(c.json_row).get_buf == para_get_misc_opt);
    EXPECT_TRUE(c.conf_row < 0 || (row(c.conf_row).set_buf == para_set_conf_opt && row(c.conf_row).save == para_save_conf));
}
INSTANTIATE_TEST_SUITE_P(Startups, Table, ::testing::ValuesIn(kStartups), [](const auto& i) { return std::string(i.param.name); });

TEST(Table, ExternRegistration)
{
    test::LogCapture log;
    add_ext("ext", get1);
    add_ext("ext", get2); // the later one wins, but extern rows are never saved
    register_para_handle_extern(nullptr);
    static std::string more[32];
    for (int i = 0; i < 32; ++i) // 31 fill the 32 slots, the last is refused
        add_ext((more[i] = "x" + std::to_string(i)).c_str(), get1);
    EXPECT_EQ(log.count("err not enough module_para_handle_extern_temp"), 1);
    Started lib;
    EXPECT_EQ(module_para_handle_num, 22 + 32);
    EXPECT_STREQ(module_para_handle[22].parse_name, "ext");
    EXPECT_EQ(module_para_handle[22].get_buf, get2);
    EXPECT_EQ(module_para_handle[22].save, nullptr);
    EXPECT_STREQ(module_para_handle[53].parse_name, "x30");
    add_ext("late", get1);
    EXPECT_TRUE(log.contains("err:call register_para_handle_extern before platformparam_init"));
    EXPECT_EQ(module_para_handle_num, 54);
}

// Without a callback of the host the conflict is only logged.
TEST(Table, ConflictWithoutCallback)
{
    test::LogCapture log;
    EXPECT_EQ(para_conflict_callback(const_cast<char*>("odm"), 3, 1), 0);
    EXPECT_TRUE(log.contains("odm 3->1"));
}

TEST(Lifecycle, ForcedStopSavesEveryRowOnceAndSyncsOnce)
{
    Started lib;
    int rows_with_save = 0;
    for (int i = 0; i < module_para_handle_num; ++i)
        rows_with_save += module_para_handle[i].save != nullptr;
    ASSERT_GT(rows_with_save, 0);
    test::LogCapture log(6);
    for (int round = 0; round < 2; ++round) { // a second stop finds no worker and saves nothing
        log.clear();
        EXPECT_EQ(platformparam_stop(1), 0);
        EXPECT_EQ(log.count(" save...\n"), round ? 0 : rows_with_save);
        EXPECT_EQ(syncs, 1);
        EXPECT_EQ(log.contains("platformparam_stop ok"), round == 0);
    }
    EXPECT_EQ(platformparam_save(), 0); // a forced save still works after the stop
    EXPECT_EQ(syncs, 2);
}

TEST(Lifecycle, ClientRoleLoadsNothing)
{
    para_profile.client = 1;
    Started lib;
    EXPECT_EQ(module_para_handle_num, 0);
    EXPECT_EQ(platformparam_save(), 0);
    EXPECT_EQ(syncs, 0);
    EXPECT_EQ(platformparam_stop(1), 0);
}

// A row that says it is due is saved by the worker's sweep even when the port
// could not be bound; a failing save is logged and still syncs.
TEST(Lifecycle, SweepSavesDueRowsWithoutSocket)
{
    int blocker = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{AF_INET, 0, {}, {}};
    socklen_t len = sizeof a;
    ASSERT_EQ(bind(blocker, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    getsockname(blocker, reinterpret_cast<sockaddr*>(&a), &len);
    // The extra row goes in before "end", so it counts as built in.
    module_para_handle[18] = module_para_handle[17];
    module_para_handle[17] = module_para_handle_s{const_cast<char*>("late_row"), nullptr, nullptr, nullptr,
        nullptr, [](char*) { return ext_due.load(); }, [](char*) { return ext_saves++, ext_due = 0, 1; }};
    test::LogCapture log(6);
    {
        test::TempDir dir;
        dir.use_as_profile();
        para_server_port = ntohs(a.sin_port), syncs = 0, lib_system_hook = count_sync; // taken: bind fails
        platformparam_init();
        EXPECT_TRUE(log.contains("bind error ret = -1"));
        EXPECT_EQ(para_server_bound_port(), -1);
        EXPECT_EQ(module_para_handle_num, 23);
        ext_due = 1;
        EXPECT_TRUE(test::wait_until([] { return ext_saves == 1; }, 2000));
        platformparam_stop(1);
    }
    EXPECT_TRUE(log.contains("late_row save err"));
    EXPECT_GE(syncs, 1);
    close(blocker);
}

/* "[para F +L]": L is a line of the function F in its own file, also where a
 * shared helper wrote the line for its caller. Checked on every line of a
 * start, writes, refusals, failed and good saves and a stop; functions
 * stamped from member tables have no definition to look in and are left out. */
TEST(Logging, EveryLineNamesAFunctionAndALineOfIt)
{
    std::map<std::string, std::vector<std::pair<int, int>>> bodies; // function -> [first, last] lines
    for (auto& e : std::filesystem::recursive_directory_iterator(PARA_SOURCE_DIR)) {
        std::string path = e.path().string(), rel = path.substr(std::strlen(PARA_SOURCE_DIR) + 1);
        if (!e.is_regular_file() || (rel.find('/') != std::string::npos && rel.compare(0, 4, "ipc/") && rel.compare(0, 7, "legacy/")))
            continue;
        if (path.size() < 4 || (path.compare(path.size() - 4, 4, ".cpp") && path.compare(path.size() - 2, 2, ".h")))
            continue;
        std::ifstream in(path);
        std::string text, name;
        int start = 0;
        static const std::regex head(R"(^[A-Za-z].*?\b([A-Za-z_][A-Za-z_0-9]*)\()");
        for (int n = 1; std::getline(in, text); ++n) {
            std::smatch m;
            if (text.rfind("}", 0) == 0 && !name.empty())
                bodies[name].push_back({start, n}), name.clear();
            else if (std::regex_search(text, m, head) && text.back() != ';')
                name = m[1], start = n;
        }
    }
    test::LogCapture log(7);
    {
        Started lib;
        para_set_video_gop_cur(0, 25), para_set_isp_bright_cur(1, 40), para_set_json_cur("misc", "mirror", 1);
        std::string many = R"({"msg_type":"set","netport":{)";
        for (int i = 0; i < 10; ++i)
            many += (i ? "," : "") + ("\"k" + std::to_string(i) + "\":\"" + std::string(300, 'x') + "\"");
        test::udp_request(many + "}}", 1000, para_server_bound_port());
        para_profile.param_rwfile_dir = const_cast<char*>("/nonexistent/rw");
        platformparam_save();
        lib.dir.use_as_profile();
        platformparam_save();
    }
    int checked = 0;
    static const std::regex tag(R"(\[para ([A-Za-z_0-9]+) \+([0-9]+) *\])");
    for (const std::string& line : log.lines()) {
        std::smatch m;
        ASSERT_TRUE(std::regex_search(line, m, tag)) << line;
        auto f = bodies.find(m[1]);
        if (f == bodies.end())
            continue;
        int at = std::stoi(m[2]);
        bool inside = false;
        for (auto [first, last] : f->second)
            inside = inside || (first <= at && at <= last);
        EXPECT_TRUE(inside) << "line " << at << " is not in " << m[1] << ": " << line;
        ++checked;
    }
    EXPECT_GT(checked, 50) << "lines of known functions, of " << log.lines().size();
}
