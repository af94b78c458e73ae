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

#include <map>

namespace {

const std::string kData = std::string(PARA_SOURCE_DIR) + "/tests/data/durable/";
const char* const kModules[] = {"video0", "isp0", "audio", "af", "misc", "cam",
                                "netport", "overlay", "ndi_config"};

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
    dir.use_as_profile();
    para_profile.conf_save = 1;
    para_server_port = 0;
    platformparam_init();
}

/* One set of values for every module, k = 1 or 2. */
void change_all(int k)
{
    para_set_video_gop_cur(0, 10 + k);
    para_set_video_gop_cur(1, 20 + k);
    para_set_isp_bright_cur(0, 40 + k);
    para_set_isp_bright_cur(1, 50 + k);
    para_set_audio_volLeftIn_cur(10 + k);
    para_set_audio_volRightIn_cur(20 + k);
    para_set_af_focus_value_cur(100 + k);
    para_set_af_zoom_value_cur(200 + k);
    para_set_json_cur("misc", "vi_framerate", 20 + k);
    para_set_json_cur("misc", "ezoom_limit", 2 + k);
    para_set_json_cur("cam", "level", 10 + k);
    para_set_json_cur("cam", "mode", k);
    for (const char* conf : {"netport", "overlay", "ndi_config"}) {
        para_conf_set_member(conf, "crash_a", std::to_string(k).c_str());
        para_conf_set_member(conf, "crash_b", std::to_string(10 + k).c_str());
    }
    para_set_odm_int(const_cast<char*>("crash_a"), k);
    para_set_odm_int(const_cast<char*>("crash_b"), 10 + k);
}

/* What a fresh process loads: each module's reply to ["all"], and odm. */
std::map<std::string, std::string> loaded(test::TempDir& dir)
{
    start(dir);
    std::map<std::string, std::string> out;
    for (const char* m : kModules)
        out[m] = test::udp_request(std::string(R"({"msg_type":"get",")") + m + R"(":["all"]})",
                                   2000, para_server_bound_port())
                     .value_or("(no reply)");
    out["odm"] = json_odm_file ? para::CharPtr(cJSON_PrintUnformatted(json_odm_file)).get() : "";
    return out;
}

/* Runs body in a child; its exit status (or 128 + signal). */
template <typename F> int in_child(F body)
{
    pid_t pid = fork();
    if (pid == 0) {
        body();
        _exit(0);
    }
    int st = 0;
    waitpid(pid, &st, 0);
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

/* A child that reports the loaded state through a file. */
std::map<std::string, std::string> load_in_child(test::TempDir& dir)
{
    std::string file = dir.path() + "/state";
    in_child([&] {
        std::string text;
        for (auto& [k, v] : loaded(dir))
            text += k + "\x1f" + test::compact(v.empty() ? "{}" : v) + "\x1e";
        test::write_file(file, text);
    });
    std::map<std::string, std::string> out;
    std::string text = test::read_file(file).value_or("");
    for (size_t p = 0, e; (e = text.find('\x1e', p)) != std::string::npos; p = e + 1) {
        size_t s = text.find('\x1f', p);
        out[text.substr(p, s - p)] = text.substr(s + 1, e - s - 1);
    }
    return out;
}

struct CrashCase {
    bool old_misc;
    int mode; // 1 SIGKILL, 2 ENOSPC
};

class CrashPoints : public ::testing::TestWithParam<CrashCase> {};

/* One forced save sweep, interrupted at every file-system call of its
 * writes: every module then loads all its old or all its new values. */
TEST_P(CrashPoints, EveryModuleKeepsAllOldOrAllNewValues)
{
    test::TempDir dir;
    make_device(dir, GetParam().old_misc);
    in_child([&] { start(dir), change_all(1), platformparam_stop(1); });
    auto before = load_in_child(dir);
    std::string backup = dir.path() + "/rw.old";
    ASSERT_EQ(system(("cp -a " + dir.rw() + " " + backup).c_str()), 0);
    std::string count_file = dir.path() + "/calls";
    in_child([&] {
        start(dir), change_all(2), para::durable_fault_arm(0, 0), platformparam_save();
        test::write_file(count_file, std::to_string(para::durable_fs_calls()));
    });
    auto after = load_in_child(dir);
    for (auto& [m, v] : before)
        ASSERT_NE(v, after[m]) << m << " did not change";
    int calls = std::stoi(test::read_file(count_file).value_or("0"));
    ASSERT_GT(calls, 20);
    for (int at = 1; at <= calls; ++at) {
        ASSERT_EQ(system(("rm -rf " + dir.rw() + " && cp -a " + backup + " " + dir.rw()).c_str()), 0);
        int st = in_child([&] {
            start(dir), change_all(2), para::durable_fault_arm(at, GetParam().mode);
            platformparam_save();
        });
        ASSERT_EQ(st, GetParam().mode == 1 ? 128 + SIGKILL : 0) << "at call " << at;
        for (auto& [m, v] : load_in_child(dir))
            EXPECT_TRUE(v == before[m] || v == after[m]) << m << " mixed at call " << at << ": " << v;
    }
}

INSTANTIATE_TEST_SUITE_P(Sweep, CrashPoints,
                         ::testing::Values(CrashCase{false, 1}, CrashCase{false, 2},
                                           CrashCase{true, 1}, CrashCase{true, 2}));

/* ---- the write routine on unusual targets ----------------------------- */

struct Target {
    const char* name;
    std::string (*prepare)(const std::string& dir); // path to write; "" skips
    bool written;
};

std::string plain(const std::string& d) { return test::write_file(d + "/f", "old"), d + "/f"; }

const Target kTargets[] = {
    {"symlink", [](const std::string& d) { return plain(d), symlink("f", (d + "/l").c_str()), d + "/l"; }, true},
    {"hardlink", [](const std::string& d) { return plain(d), link((d + "/f").c_str(), (d + "/h").c_str()), d + "/h"; }, true},
    {"chardev", [](const std::string& d) { return mknod((d + "/c").c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0 ? d + "/c" : std::string(); }, false},
    {"fifo", [](const std::string& d) { return mkfifo((d + "/p").c_str(), 0666), d + "/p"; }, false},
    {"directory", [](const std::string& d) { return mkdir((d + "/d").c_str(), 0755), d + "/d"; }, false},
};

class Targets : public ::testing::TestWithParam<Target> {};

TEST_P(Targets, ReplaceWhatThePathNames)
{
    test::TempDir dir;
    std::string path = GetParam().prepare(dir.rw());
    if (path.empty())
        GTEST_SKIP() << "cannot make the node here";
    chmod((dir.rw() + "/f").c_str(), 0640);
    test::LogCapture log(PARA_ERR);
    int r = para::durable_write("caller", path.c_str(), "new", 3);
    EXPECT_EQ(r == 0, GetParam().written) << log.dump();
    struct stat st {};
    lstat(path.c_str(), &st);
    if (GetParam().written) {
        EXPECT_EQ(test::read_file(dir.rw() + "/f"), "new"); // the file behind the name
        EXPECT_EQ(S_ISLNK(st.st_mode), std::string(GetParam().name) == "symlink");
        stat((dir.rw() + "/f").c_str(), &st);
        EXPECT_EQ(st.st_mode & 07777, 0640u);
    } else {
        EXPECT_TRUE(log.contains("[para caller") && log.contains("not a regular file")) << log.dump();
        EXPECT_FALSE(S_ISREG(st.st_mode));
    }
}

INSTANTIATE_TEST_SUITE_P(Durable, Targets, ::testing::ValuesIn(kTargets),
                         [](const auto& info) { return std::string(info.param.name); });

/* A writable file in a directory we may not write: rewritten in place. */
TEST(Durable, ReadOnlyDirectoryFallsBackToInPlace)
{
    test::TempDir dir;
    std::string f = plain(dir.rw());
    chmod(dir.path().c_str(), 0755);
    if (chown(f.c_str(), 65534, 65534) != 0 || geteuid() != 0)
        chmod(dir.rw().c_str(), 0555);
    EXPECT_EQ(in_child([&] {
                  if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0))
                      _exit(2);
                  _exit(para::durable_write("t", f.c_str(), "newer", 5) == 0 ? 0 : 1);
              }),
              0);
    chmod(dir.rw().c_str(), 0755);
    EXPECT_EQ(test::read_file(f), "newer");
}

/* A bind-mounted file cannot be renamed over: rewritten in place. */
TEST(Durable, BindMountedFileFallsBackToInPlace)
{
    test::TempDir dir;
    std::string f = plain(dir.rw()), src = dir.path() + "/src";
    test::write_file(src, "old");
    int st = in_child([&] {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) ||
            mount(src.c_str(), f.c_str(), nullptr, MS_BIND, nullptr))
            _exit(3);
        _exit(para::durable_write("t", f.c_str(), "newer", 5) == 0 ? 0 : 1);
    });
    if (st == 3)
        GTEST_SKIP() << "no mount namespace here";
    EXPECT_EQ(st, 0);
    EXPECT_EQ(test::read_file(src), "newer");
}

/* ---- failed writes: the old file stays, the change stays pending ------- */

struct Fault {
    const char* name;
    int limit; // RLIMIT_FSIZE, or 0: ENOSPC injected at the write
};
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
                  else
                      para::durable_fault_arm(3, 2);
                  for (int i = 0; i < 3; ++i) { // the sweep, then two back-off rounds
                      para::clock_offset_ns += 2000000000LL << i;
                      if (!GetParam().limit)
                          para::durable_fault_arm(4, 2); // the write itself
                      if (!para_need_save_video(nullptr) || para_save_video(nullptr) == 0 ||
                          para_need_save_video(nullptr))
                          _exit(10 + i);
                  }
                  if (test::read_file(path) != old || log.count("video_cur.json not written") != 3)
                      _exit(20);
                  setrlimit(RLIMIT_FSIZE, &saved), para::durable_fault_arm(0, 0);
                  para::clock_offset_ns += 16000000000LL;
                  if (!para_need_save_video(nullptr) || para_save_video(nullptr) != 0 ||
                      test::compact(*test::read_file(path)).find("\"gop\":99") == std::string::npos)
                      _exit(30);
              }),
              0);
}

INSTANTIATE_TEST_SUITE_P(Durable, Faults,
                         ::testing::Values(Fault{"fsize", 64}, Fault{"enospc", 0}),
                         [](const auto& info) { return std::string(info.param.name); });

/* ---- stores that did not load, damaged files --------------------------- */

struct Unloaded {
    const char* name;
    const char* remove; // read-only file taken away, or made unparsable with '!'
    const char* rw_file;
};
const Unloaded kUnloaded[] = {
    {"misc_no_ro_conf", "misc.conf", "misc.conf"},
    {"json_no_range", "cam_range.json", "cam.conf"},
    {"json_bad_range", "!cam_range.json", "cam.conf"},
    {"video_no_range", "video_range.json", "video_cur.json"},
};
class Unloads : public ::testing::TestWithParam<Unloaded> {};

TEST_P(Unloads, StopLeavesTheCurrentFile)
{
    test::TempDir dir;
    make_device(dir, false);
    std::string ro = GetParam().remove;
    if (ro[0] == '!')
        test::write_file(dir.ro() + "/" + ro.substr(1), "{ not json");
    else
        unlink((dir.ro() + "/" + ro).c_str());
    std::string rw = dir.rw() + "/" + GetParam().rw_file, text = "level=7\nmode=off\n";
    test::write_file(rw, text);
    in_child([&] { start(dir), platformparam_stop(1); });
    EXPECT_EQ(test::read_file(rw), text);
}

INSTANTIATE_TEST_SUITE_P(Durable, Unloads, ::testing::ValuesIn(kUnloaded),
                         [](const auto& info) { return std::string(info.param.name); });

struct Damaged {
    const char* name;
    const char* file;
    std::string content;
    bool old_misc;
};
const Damaged kDamaged[] = {
    {"video_cut", "video_cur.json", "{\n\t\"video0\":\t{\n\t\t\"gop\":\t1", false},
    {"audio_zeroed", "audio_cur.json", std::string(64, '\0'), false},
    {"isp_not_json", "isp_cur.json", "isp0 bright=3\n", false},
    {"af_empty", "af_cur.json", "", false},
    {"odm_cut", "persist/odm.json", "{\"version\":1,\"a", false},
    {"misc_old_cut", "misc_cur.json", "{\"vi_frame", true},
};
class Damages : public ::testing::TestWithParam<Damaged> {};

TEST_P(Damages, KeptAsideBeforeTheFirstSave)
{
    test::TempDir dir;
    make_device(dir, GetParam().old_misc);
    mkdir((dir.rw() + "/persist").c_str(), 0775);
    std::string path = dir.rw() + "/" + GetParam().file;
    test::write_file(path + ".bad", "older evidence");
    test::write_file(path, GetParam().content);
    EXPECT_EQ(in_child([&] {
                  test::LogCapture log(PARA_ERR);
                  start(dir);
                  para_set_odm_int(const_cast<char*>("x"), 1);
                  platformparam_stop(1);
                  _exit(log.contains(path + ".bad") ? 0 : 1);
              }),
              0);
    EXPECT_EQ(test::read_file(path + ".bad"), GetParam().content);
    EXPECT_NE(test::read_file(path), GetParam().content);
}

INSTANTIATE_TEST_SUITE_P(Durable, Damages, ::testing::ValuesIn(kDamaged),
                         [](const auto& info) { return std::string(info.param.name); });

/* ---- timing, by the library's clock ------------------------------------ */

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
    c.take();
    c.mark();
    para::clock_offset_ns += 1900000000;
    EXPECT_FALSE(c.due(2000));
    para::clock_offset_ns += 100000000;
    EXPECT_TRUE(c.due(2000));
    para::clock_offset_ns = 0;
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
