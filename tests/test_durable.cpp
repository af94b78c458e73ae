// Settings survive crashes, power cuts, full disks and damaged files: every
// file the library writes is replaced whole or not at all.
#include "para_internal.h"
#include "para_sys.h"
#include "scenario.h"
#include "support.h"

#include <gtest/gtest.h>

#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

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
std::map<std::string, std::string> load_in_child(test::TempDir& dir)
{
    std::istringstream in(test::in_child([&] {
        start(dir);
        std::string out = "odm " + (json_odm_file ? test::compact(para::CharPtr(cJSON_Print(json_odm_file)).get()) : "{}");
        for (std::string m : kModules)
            out += "\n" + m + " " + test::compact(test::udp_request(R"({"msg_type":"get",")" + m + R"(":["all"]})", 2000, para_server_bound_port()).value_or("-"));
        return out;
    }));
    std::map<std::string, std::string> out;
    for (std::string name, value; in >> name && std::getline(in, value);)
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
    test::in_child([&] { return start(dir), change_all(1), platformparam_stop(1), ""; });
    auto before = load_in_child(dir);
    std::string backup = dir.path() + "/rw.old";
    ASSERT_EQ(system(("cp -a " + dir.rw() + " " + backup).c_str()), 0);
    auto save = [&](int at, int mode) {
        return test::in_child([&] {
            std::filesystem::remove_all(dir.rw());
            std::filesystem::copy(backup, dir.rw(), std::filesystem::copy_options::recursive);
            start(dir), change_all(2), test::fs_fault(at, mode == 1 ? 0 : ENOSPC), platformparam_save();
            return std::to_string(test::fs_calls());
        });
    };
    int calls = std::stoi(save(0, 0));
    auto after = load_in_child(dir);
    for (auto& [m, v] : before)
        ASSERT_NE(v, after[m]) << m << " did not change";
    for (int at = 1; at <= calls; ++at) {
        std::string st = save(at, GetParam().mode);
        ASSERT_TRUE(GetParam().mode == 1 ? st == "signal 9" : st.find_first_not_of("0123456789") == std::string::npos) << st << " at call " << at;
        for (auto& [m, v] : load_in_child(dir))
            EXPECT_TRUE(v == before[m] || v == after[m]) << m << " mixed at call " << at << ": " << v;
    }
}

const CrashCase kCrashCases[] = {{"kill", false, 1}, {"enospc", false, 2}, {"kill_old_misc", true, 1}, {"enospc_old_misc", true, 2}};
DURABLE_SUITE(Sweep, CrashPoints, kCrashCases);

std::string plain(const std::string& d) { return test::write_file(d + "/f", "old"), chmod((d + "/f").c_str(), 0640), d + "/f"; }
/* The writer may not write the file's directory; the read-write directory
 * it has (for the journal of an in-place rewrite), or none. */
bool as_nobody(const std::string& d)
{
    static std::string rw;
    rw = d + "/../journals";
    para_profile.param_rwfile_dir = rw.data();
    return mkdir(rw.c_str(), 0700) == 0 && chown(rw.c_str(), 65534, 65534) == 0 && chmod((d + "/..").c_str(), 0755) == 0 &&
           chown((d + "/f").c_str(), 65534, 65534) == 0 && setgid(65534) == 0 && setuid(65534) == 0;
}
bool as_nobody_no_rw(const std::string& d) { return as_nobody(d) && !(para_profile.param_rwfile_dir = nullptr); }
bool small_files(const std::string&)
{
    rlimit r{2, RLIM_INFINITY};
    return signal(SIGXFSZ, SIG_IGN) != SIG_ERR && setrlimit(RLIMIT_FSIZE, &r) == 0;
}
std::string hardlink(const std::string& d) { return plain(d), link((d + "/f").c_str(), (d + "/h").c_str()), d + "/h"; }

/* What the path names keeps its kind, link count and mode; the file it
 * finally names holds the new text, or the old one and the log says why. */
struct Target {
    const char* name;
    std::string (*prepare)(const std::string& d); // the path to write
    bool (*enter)(const std::string& d);          // run in the writing child; false skips
    const char* holder;                           // the file that finally gets the text
    const char* bytes;                            // what it holds after; null: it is no regular file
    const char* log;                              // what the log says ("": nothing)
    bool replaced = false;                        // a new file takes the name; a reader of the old one keeps it
};

const Target kTargets[] = {
    {"plain", plain, nullptr, "f", "new", "", true},
    {"symlink", [](const std::string& d) { return plain(d), symlink("f", (d + "/l").c_str()), d + "/l"; }, nullptr, "f", "new", "", true},
    {"dangling_symlink", [](const std::string& d) { return symlink("n", (d + "/l").c_str()), d + "/l"; }, nullptr, "n", "new", ""},
    {"symlink_loop", [](const std::string& d) { return symlink("l", (d + "/l").c_str()), d + "/l"; }, nullptr, "l", nullptr, "cannot follow its links"},
    {"hardlink", hardlink, nullptr, "f", "new", ""},
    {"hardlink_too_big", hardlink, small_files, "f", "old", "not written (rewrite in place): File too large"},
    {"too_big", plain, small_files, "f", "old", "not written (write): File too large"},
    {"no_directory", [](const std::string& d) { return d + "/none/f"; }, nullptr, "none/f", nullptr, "not written (create): No such file"},
    // A writable file in a directory we may not write; then one we may not write either.
    {"rodir", plain, as_nobody, "f", "new", ""},
    {"rodir_no_rw", plain, as_nobody_no_rw, "f", "old", "not written (no writable place for its journal): Permission denied; the previous file is kept"},
    {"rodir_rofile", [](const std::string& d) { return plain(d), chmod((d + "/f").c_str(), 0440), d + "/f"; }, as_nobody, "f", "old",
     "not written (open): Permission denied"},
    {"bindmount", [](const std::string& d) { return test::write_file(d + "/src", "old"), plain(d); },
     [](const std::string& d) {
         return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                mount((d + "/src").c_str(), (d + "/f").c_str(), nullptr, MS_BIND, nullptr) == 0; }, "src", "new", ""},
    {"chardev", [](const std::string& d) { return mknod((d + "/c").c_str(), S_IFCHR | 0666, makedev(1, 3)) ? "" : d + "/c"; }, nullptr, "c", nullptr, "is not a regular file"},
    {"fifo", [](const std::string& d) { return mkfifo((d + "/p").c_str(), 0666), d + "/p"; }, nullptr, "p", nullptr, "is not a regular file"},
    {"directory", [](const std::string& d) { return mkdir((d + "/d").c_str(), 0755), d + "/d"; }, nullptr, "d", nullptr, "is not a regular file"},
};

class Targets : public ::testing::TestWithParam<Target> {};

TEST_P(Targets, ReplaceWhatThePathNamesOrRefuse)
{
    test::TempDir dir;
    const Target& t = GetParam();
    std::string path = t.prepare(dir.rw()), holder = dir.rw() + "/" + t.holder;
    if (path.empty())
        GTEST_SKIP() << "this target cannot be made here: " << strerror(errno);
    struct stat before {}, after {}, held_before {}, held {};
    bool existed = stat(holder.c_str(), &held_before) == 0;
    std::ifstream old_reader(existed && S_ISREG(held_before.st_mode) ? holder : "");
    lstat(path.c_str(), &before);
    mode_t mask = umask(0);
    umask(mask);
    std::string got = test::in_child([&]() -> std::string {
        if (t.enter && !t.enter(dir.rw()))
            return "skip";
        test::LogCapture log(PARA_ERR);
        int r = para::durable_write("caller", path.c_str(), "new", 3);
        return std::to_string(r) + (log.count("[para caller") == log.count("") ? " " : " [not all lines name the caller] ") + log.dump();
    });
    if (got == "skip")
        GTEST_SKIP() << "not permitted here";
    lstat(path.c_str(), &after);
    EXPECT_EQ(before.st_mode & S_IFMT, after.st_mode & S_IFMT);
    EXPECT_EQ(before.st_nlink, after.st_nlink);
    EXPECT_TRUE(*t.log ? got[0] == '-' : got == "0 ") << got; // refused: a negative result
    EXPECT_NE(got.find(t.log), std::string::npos) << got;
    EXPECT_EQ(got.find("[not all"), std::string::npos) << got;
    bool regular = stat(holder.c_str(), &held) == 0 && S_ISREG(held.st_mode);
    EXPECT_EQ(regular, t.bytes != nullptr);
    if (t.bytes && regular) {
        EXPECT_EQ(test::read_file(holder), t.bytes);
        EXPECT_EQ(held.st_mode & 07777, existed ? held_before.st_mode & 07777 : 0666u & ~mask);
        if (old_reader.is_open()) {
            EXPECT_EQ(std::string(std::istreambuf_iterator<char>(old_reader), {}), t.replaced ? "old" : t.bytes);
        }
    }
}

DURABLE_SUITE(Durable, Targets, kTargets);

struct Fault { const char* name; int limit; }; // RLIMIT_FSIZE, or 0: ENOSPC at the write
class Faults : public ::testing::TestWithParam<Fault> {};

TEST_P(Faults, OldFileStaysAndTheSaveIsRetried)
{
    test::TempDir dir;
    make_device(dir, false);
    EXPECT_EQ(test::in_child([&]() -> std::string {
                  signal(SIGXFSZ, SIG_DFL);
                  start(dir), change_all(1), platformparam_stop(1);
                  std::string path = dir.rw() + "/video_cur.json", old = *test::read_file(path);
                  para_set_video_gop_cur(0, 99);
                  test::LogCapture log(PARA_ERR);
                  rlimit saved{}, small{static_cast<rlim_t>(GetParam().limit), RLIM_INFINITY};
                  getrlimit(RLIMIT_FSIZE, &saved);
                  if (GetParam().limit)
                      setrlimit(RLIMIT_FSIZE, &small);
                  if (!GetParam().limit) // the disk is full
                      para::sys::calls.pwrite = [](int, const void*, size_t, off_t) -> ssize_t { return errno = ENOSPC, -1; };
                  for (int i = 0; i < 3; ++i) { // the sweep, then two back-off rounds
                      para::clock_offset_ns += 2000000000LL << i;
                      if (!para_need_save_video(nullptr) || para_save_video(nullptr) == 0 || para_need_save_video(nullptr))
                          return "round " + std::to_string(i);
                  }
                  if (test::read_file(path) != old || log.count("video_cur.json not written") != 3)
                      return "file changed or not logged: " + log.dump();
                  setrlimit(RLIMIT_FSIZE, &saved), para::sys::calls = para::sys::defaults(); // room again
                  para::clock_offset_ns += 16000000000LL;
                  bool saved_now = para_need_save_video(nullptr) && para_save_video(nullptr) == 0;
                  return saved_now && test::compact(*test::read_file(path)).find("\"gop\":99") != std::string::npos ? "ok" : "not saved later";
              }),
              "ok");
}

const Fault kFaults[] = {{"fsize", 64}, {"enospc", 0}};
DURABLE_SUITE(Durable, Faults, kFaults);

// Current files a module did not load stay; damaged ones are set aside as .bad.
SCENARIO_TESTS(Leftovers, "leftovers", false);

/* A change every 1.5 s never lets the 2 s delay pass: it is saved once the
 * first unsaved change is 20 s old. Quiet changes keep the plain delay. */
TEST(Durable, ChangesComingTooOftenAreSavedWithinTenDelays)
{
    para::clock_frozen_ns = para::ChangeState::now_ns(); // only the test moves time
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
    timespec mono{};
    clock_gettime(CLOCK_MONOTONIC, &mono);
    para::clock_frozen_ns = mono.tv_sec * 1000000000LL + mono.tv_nsec; // a real reading, held
    para_set_video_gop_cur(0, 77);
    int64_t stamp = video_item_start_time.tv_sec * 1000000000LL + video_item_start_time.tv_nsec;
    EXPECT_EQ(stamp, para::clock_frozen_ns.load());
    std::string file = dir.rw() + "/video_cur.json";
    para::clock_offset_ns = 99000000;
    save_cur_video_param_delay(100);
    EXPECT_FALSE(test::file_exists(file));
    para::clock_offset_ns += 1000000;
    save_cur_video_param_delay(100);
    EXPECT_TRUE(test::file_exists(file));
}

} // namespace
