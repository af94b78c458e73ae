// Settings survive crashes, power cuts, full disks and damaged files: every
// file the library writes is replaced whole or not at all.
#include "para_internal.h"
#include "support.h"

#include <gtest/gtest.h>

#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>

namespace {

template <typename T> std::string by_name(const ::testing::TestParamInfo<T>& info) { return info.param.name; }
#define DURABLE_SUITE(prefix, Suite, rows) INSTANTIATE_TEST_SUITE_P(prefix, Suite, ::testing::ValuesIn(rows), by_name<Suite::ParamType>)

const std::string kData = std::string(PARA_SOURCE_DIR) + "/tests/data/durable/";
const char* const kModules[] = {"video0", "isp0", "audio", "af", "misc", "cam", "netport", "overlay", "ndi_config"};

/* The example device plus the JSON module "cam"; old_misc: the older misc
 * layout (a range file without "version" and JSON value files). */
void make_device(test::TempDir& dir, bool old_misc)
{
    test::copy_dir_files(test::example_device_dir(), dir.ro());
    test::copy_dir_files(kData, dir.ro());
    if (old_misc)
        test::copy_dir_files(kData + "old", dir.ro());
    para::JsonPtr map(cJSON_Parse(test::read_file(dir.ro() + "/www2json.json")->c_str()));
    cJSON_ReplaceItemInObject(map.get(), "json_pattern_list", cJSON_Parse(R"(["misc","cam"])"));
    test::write_file(dir.ro() + "/www2json.json", para::CharPtr(cJSON_Print(map.get())).get());
}

void start(test::TempDir& dir)
{
    // Every write flushes its own file; a machine-wide "sync" per crash
    // point would only slow the test down.
    lib_system_hook = [](const char*) { return 0; };
    dbgout_profile.para_level = std::min(dbgout_profile.para_level, PARA_ERR);
    dir.use_as_profile();
    para_profile.conf_save = 1;
    para_server_port = 0;
    platformparam_init();
}

/* One set of values for every module: k = 1 the old, 2 the new, whose texts
 * are shorter (an in-place rewrite cut short would leave a mix). */
void change_all(int k)
{
    auto v = [k](int old_value, int new_value) { return k == 1 ? old_value : new_value; };
    para_set_video_gop_cur(0, v(250, 25)), para_set_video_gop_cur(1, v(260, 26));
    para_set_isp_bright_cur(0, v(93, 9)), para_set_isp_bright_cur(1, v(83, 8));
    para_set_audio_volLeftIn_cur(v(91, 9)), para_set_audio_volRightIn_cur(v(92, 2));
    para_set_af_focus_value_cur(v(450, 45)), para_set_af_zoom_value_cur(v(250, 25));
    para_set_json_cur("misc", "vi_framerate", v(50, 5)), para_set_json_cur("misc", "ezoom_limit", v(12, 3));
    para_set_json_cur("cam", "level", v(77, 7)), para_set_json_cur("cam", "mode", v(1, 2));
    for (const char* conf : {"netport", "overlay", "ndi_config"})
        para_conf_set_member(conf, "crash_a", v(1, 0) ? "1000" : "2"), para_conf_set_member(conf, "crash_b", v(1, 0) ? "2000" : "3");
    para_set_odm_int(const_cast<char*>("crash_a"), v(1000, 2)), para_set_odm_int(const_cast<char*>("crash_b"), v(2000, 3));
}

/* What a fresh process loads: each module's reply to ["all"], and odm. */
std::map<std::string, std::string> loaded(test::TempDir& dir)
{
    start(dir);
    std::map<std::string, std::string> out;
    for (std::string m : kModules)
        out[m] = *test::udp_request(R"({"msg_type":"get",")" + m + R"(":["all"]})", 2000, para_server_bound_port());
    out["odm"] = json_odm_file ? para::CharPtr(cJSON_PrintUnformatted(json_odm_file)).get() : "";
    return out;
}

/* Runs body in a child; its exit status (or 128 + signal). */
template <typename F> int in_child(F body)
{
    pid_t pid = fork();
    int st = pid == 0 ? (body(), _exit(0), 0) : 0;
    waitpid(pid, &st, 0);
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

/* A child that reports the loaded state through a file, a line a module. */
std::map<std::string, std::string> load_in_child(test::TempDir& dir)
{
    std::string file = dir.path() + "/state", name, value;
    in_child([&] {
        std::ofstream out(file);
        for (auto& [k, v] : loaded(dir))
            out << k << ' ' << test::compact(v.empty() ? "{}" : v) << '\n';
    });
    std::map<std::string, std::string> out;
    for (std::ifstream in(file); in >> name && std::getline(in, value);)
        out[name] = value;
    return out;
}

struct CrashCase { const char* name; bool old_misc; int mode; }; // mode 1 SIGKILL, 2 ENOSPC

class CrashPoints : public ::testing::TestWithParam<CrashCase> {};

/* One forced save sweep, interrupted at every file-system call of its
 * writes: every module then loads all its old or all its new values. */
TEST_P(CrashPoints, EveryModuleKeepsAllOldOrAllNewValues)
{
    test::TempDir dir;
    make_device(dir, GetParam().old_misc);
    in_child([&] { start(dir), change_all(1), platformparam_stop(1); });
    auto before = load_in_child(dir);
    std::string backup = dir.path() + "/rw.old", count_file = dir.path() + "/calls";
    ASSERT_EQ(system(("cp -a " + dir.rw() + " " + backup).c_str()), 0);
    in_child([&] {
        start(dir), change_all(2), para::durable_fault_arm(0, 0), platformparam_save();
        test::write_file(count_file, std::to_string(para::durable_fs_calls()));
    });
    auto after = load_in_child(dir);
    for (auto& [m, v] : before)
        ASSERT_NE(v, after[m]) << m << " did not change";
    int calls = std::stoi(test::read_file(count_file).value_or("0"));
    for (int at = 1; at <= calls; ++at) {
        int st = in_child([&] {
            std::filesystem::remove_all(dir.rw());
            std::filesystem::copy(backup, dir.rw(), std::filesystem::copy_options::recursive);
            start(dir), change_all(2), para::durable_fault_arm(at, GetParam().mode);
            platformparam_save();
        });
        ASSERT_EQ(st, GetParam().mode == 1 ? 128 + SIGKILL : 0) << "at call " << at;
        for (auto& [m, v] : load_in_child(dir))
            EXPECT_TRUE(v == before[m] || v == after[m]) << m << " mixed at call " << at << ": " << v;
    }
}

const CrashCase kCrashCases[] = {{"kill", false, 1}, {"enospc", false, 2}, {"kill_old_misc", true, 1}, {"enospc_old_misc", true, 2}};
DURABLE_SUITE(Sweep, CrashPoints, kCrashCases);

std::string plain(const std::string& d) { return test::write_file(d + "/f", "old"), d + "/f"; }

struct Target {
    const char* name;
    std::string (*prepare)(const std::string& d); // the path to write
    bool (*enter)(const std::string& d);          // run in the writing child; false skips
    const char* holder;                           // file that must hold the new text; null: refused
};

const Target kTargets[] = {
    {"symlink", [](const std::string& d) { return plain(d), symlink("f", (d + "/l").c_str()), d + "/l"; }, nullptr, "f"},
    {"hardlink", [](const std::string& d) { return plain(d), link((d + "/f").c_str(), (d + "/h").c_str()), d + "/h"; }, nullptr, "f"},
    // A writable file in a directory we may not write.
    {"rodir", plain, [](const std::string& d) {
         return chmod((d + "/..").c_str(), 0755) == 0 && chown((d + "/f").c_str(), 65534, 65534) == 0 &&
                setgid(65534) == 0 && setuid(65534) == 0; }, "f"},
    {"bindmount", [](const std::string& d) { return test::write_file(d + "/src", "old"), plain(d); },
     [](const std::string& d) {
         return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                mount((d + "/src").c_str(), (d + "/f").c_str(), nullptr, MS_BIND, nullptr) == 0; }, "src"},
    {"chardev", [](const std::string& d) { return mknod((d + "/c").c_str(), S_IFCHR | 0666, makedev(1, 3)), d + "/c"; }, nullptr, nullptr},
    {"fifo", [](const std::string& d) { return mkfifo((d + "/p").c_str(), 0666), d + "/p"; }, nullptr, nullptr},
    {"directory", [](const std::string& d) { return mkdir((d + "/d").c_str(), 0755), d + "/d"; }, nullptr, nullptr},
};

class Targets : public ::testing::TestWithParam<Target> {};

TEST_P(Targets, ReplaceWhatThePathNamesOrRefuse)
{
    test::TempDir dir;
    const Target& t = GetParam();
    std::string path = t.prepare(dir.rw()), holder = dir.rw() + "/" + (t.holder ? t.holder : "f");
    chmod(holder.c_str(), 0640);
    int st = in_child([&] {
        if (t.enter && !t.enter(dir.rw()))
            _exit(3);
        test::LogCapture log(PARA_ERR);
        int r = para::durable_write("caller", path.c_str(), "new", 3);
        _exit(r == 0 ? 0 : log.contains("[para caller") && log.contains("not a regular file") ? 1 : 2);
    });
    if (st == 3)
        GTEST_SKIP() << "not permitted here";
    struct stat ls {}, hs {};
    lstat(path.c_str(), &ls), stat(holder.c_str(), &hs);
    if (t.holder) {
        EXPECT_EQ(st, 0);
        EXPECT_EQ(test::read_file(holder), "new");
        EXPECT_EQ(S_ISLNK(ls.st_mode), std::string(t.name) == "symlink");
        EXPECT_EQ(hs.st_mode & 07777, 0640u);
    } else {
        EXPECT_EQ(st, 1);
        EXPECT_FALSE(S_ISREG(ls.st_mode));
    }
}

DURABLE_SUITE(Durable, Targets, kTargets);

struct Fault { const char* name; int limit; }; // RLIMIT_FSIZE, or 0: ENOSPC at the write
class Faults : public ::testing::TestWithParam<Fault> {};

TEST_P(Faults, OldFileStaysAndTheSaveIsRetried)
{
    test::TempDir dir;
    make_device(dir, false);
    EXPECT_EQ(in_child([&] {
                  signal(SIGXFSZ, SIG_DFL);
                  start(dir), change_all(1), platformparam_stop(1);
                  std::string path = dir.rw() + "/video_cur.json", old = *test::read_file(path);
                  para_set_video_gop_cur(0, 99);
                  test::LogCapture log(PARA_ERR);
                  rlimit saved{}, small{static_cast<rlim_t>(GetParam().limit), RLIM_INFINITY};
                  getrlimit(RLIMIT_FSIZE, &saved);
                  if (GetParam().limit)
                      setrlimit(RLIMIT_FSIZE, &small);
                  for (int i = 0; i < 3; ++i) { // the sweep, then two back-off rounds
                      para::clock_offset_ns += 2000000000LL << i;
                      para::durable_fault_arm(GetParam().limit ? 0 : 4, 2); // 4: the write itself
                      if (!para_need_save_video(nullptr) || para_save_video(nullptr) == 0 ||
                          para_need_save_video(nullptr))
                          _exit(10 + i);
                  }
                  if (test::read_file(path) != old || log.count("video_cur.json not written") != 3)
                      _exit(20);
                  setrlimit(RLIMIT_FSIZE, &saved), para::durable_fault_arm(0, 0); // room again
                  para::clock_offset_ns += 16000000000LL;
                  if (!para_need_save_video(nullptr) || para_save_video(nullptr) != 0 ||
                      test::compact(*test::read_file(path)).find("\"gop\":99") == std::string::npos)
                      _exit(30);
              }),
              0);
}

const Fault kFaults[] = {{"fsize", 64}, {"enospc", 0}};
DURABLE_SUITE(Durable, Faults, kFaults);

/* A current file its module did not load (read-only file taken away, or
 * made unparsable with '!') stays as it is; a damaged one is set aside as
 * .bad (replacing older evidence) before the first save replaces it. */
struct Leftover { const char* name; const char* ro; const char* file; std::string content; };
const std::string kUnloaded = "level=7\nmode=off\n";
const Leftover kLeftovers[] = {
    {"misc_no_ro_conf", "misc.conf", "misc.conf", kUnloaded},
    {"json_no_range", "cam_range.json", "cam.conf", kUnloaded},
    {"json_bad_range", "!cam_range.json", "cam.conf", kUnloaded},
    {"video_no_range", "video_range.json", "video_cur.json", kUnloaded},
    {"video_cut", "", "video_cur.json", "{\n\t\"video0\":\t{\n\t\t\"gop\":\t1"},
    {"audio_zeroed", "", "audio_cur.json", std::string(64, '\0')},
    {"isp_not_json", "", "isp_cur.json", "isp0 bright=3\n"},
    {"af_empty", "", "af_cur.json", ""},
    {"odm_cut", "", "persist/odm.json", "{\"version\":1,\"a"},
    {"misc_old_cut", "", "misc_cur.json", "{\"vi_frame"}, // the older layout
};
class Leftovers : public ::testing::TestWithParam<Leftover> {};

TEST_P(Leftovers, StayWhenUnloadedAndAreSetAsideWhenDamaged)
{
    test::TempDir dir;
    const Leftover& c = GetParam();
    std::string ro = c.ro, path = dir.rw() + "/" + c.file;
    bool damaged = ro.empty();
    make_device(dir, std::string(c.file) == "misc_cur.json");
    mkdir((dir.rw() + "/persist").c_str(), 0775);
    if (!damaged)
        ro[0] == '!' ? test::write_file(dir.ro() + "/" + ro.substr(1), "{ not json") : void(unlink((dir.ro() + "/" + ro).c_str()));
    else
        test::write_file(path + ".bad", "older evidence");
    test::write_file(path, c.content);
    EXPECT_EQ(in_child([&] {
                  test::LogCapture log(PARA_ERR);
                  start(dir), para_set_odm_int(const_cast<char*>("x"), 1), platformparam_stop(1);
                  _exit(!damaged || log.contains(path + ".bad") ? 0 : 1);
              }),
              0);
    EXPECT_EQ(test::read_file(damaged ? path + ".bad" : path), c.content);
    EXPECT_EQ(test::read_file(path) == c.content, !damaged);
}

DURABLE_SUITE(Durable, Leftovers, kLeftovers);

/* A change every 1.5 s never lets the 2 s delay pass: it is saved once the
 * first unsaved change is 20 s old. Quiet changes keep the plain delay. */
TEST(Durable, ChangesComingTooOftenAreSavedWithinTenDelays)
{
    para::ChangeState c;
    int due_at = -1;
    for (int ms = 0; ms <= 22000 && due_at < 0; ms += 100) {
        para::clock_offset_ns = static_cast<int64_t>(ms) * 1000000;
        if (ms % 1500 == 0)
            c.mark();
        if (c.due(2000))
            due_at = ms;
    }
    EXPECT_EQ(due_at, 20000);
    c.take(), c.mark();
    para::clock_offset_ns += 1900000000;
    EXPECT_FALSE(c.due(2000));
    EXPECT_TRUE((para::clock_offset_ns += 100000000, c.due(2000)));
}

/* save_cur_video_param_delay(msec) saves a change exactly msec old, and
 * the exported change time is the monotonic time of the change. */
TEST(Durable, DelayedSaveHonoursTheExactAge)
{
    test::TempDir dir;
    make_device(dir, false);
    dir.use_as_profile();
    para_init_video(nullptr);
    int64_t before = para::ChangeState::now_ns();
    para_set_video_gop_cur(0, 77);
    int64_t stamp = video_item_start_time.tv_sec * 1000000000LL + video_item_start_time.tv_nsec;
    EXPECT_GE(stamp, before);
    std::string file = dir.rw() + "/video_cur.json";
    para::clock_offset_ns = stamp + 99000000 - para::ChangeState::now_ns();
    save_cur_video_param_delay(100);
    if (para::ChangeState::now_ns() - stamp < 100000000) { // else the machine stalled
        EXPECT_FALSE(test::file_exists(file));
    }
    para::clock_offset_ns += 1000000;
    save_cur_video_param_delay(100);
    EXPECT_TRUE(test::file_exists(file));
}

} // namespace
