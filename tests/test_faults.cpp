// Storage faults: a read-write directory that is missing or cannot hold
// files, a full disk, and current files cut at every byte (a power cut
// while the file was rewritten in place). The library must not crash, must
// say what went wrong, must fall back to the defaults when the current file
// is bad, and must never lose the values it holds in memory.
#include "para_internal.h"
#include "support.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <functional>
#include <string>

namespace {

/* A module whose current values live in one file of the read-write
 * directory, as the fault tests drive it. */
struct Persisted {
    const char* name;
    const char* cur_file;   // relative to the read-write directory
    void (*load)();         // start-up in a fresh process
    std::string (*state)(); // the values in memory, as text
    void (*change)(int k);  // accepts values that differ from the defaults (and per k)
    int (*save)();
    /* How the file is written: JSON in place (a cut file does not load), or
     * key = value lines (a cut file keeps the whole lines before the cut)
     * renamed into place (a failed write leaves the previous file) or
     * rewritten in place under a lock. */
    enum { kJson, kLinesRenamed, kLinesInPlace } layout = kJson;
    bool save_reports_errors = true;
};

std::string print(cJSON* json)
{
    para::JsonPtr owned(json);
    para::CharPtr text(owned ? cJSON_PrintUnformatted(owned.get()) : nullptr);
    return text ? text.get() : "(none)";
}

char* no_name()
{
    return nullptr;
}

const Persisted kVideo = {
    "video",
    "video_cur.json",
    [] { para_init_video(no_name()); },
    [] {
        std::string s;
        for (int i = 0; i < para_get_video_streamNum(); ++i)
            s += print(Create_Json_Video_Object(i));
        return s;
    },
    [](int k) {
        para_set_video_frameRate_cur(0, 12 + k);
        para_set_video_protocol_cur(0, 2 - k);
        para_set_video_bitRate_cur(1, 777 + k);
        para_set_video_size_cur(1, 16 + k);
    },
    [] { return para_save_video(no_name()); },
};

const Persisted kOdm = {
    "odm",
    "persist/odm.json",
    [] {
        para_init_odm(no_name());
        para_init_stage2_odm(no_name());
    },
    [] { return json_odm_file ? print(cJSON_Duplicate(json_odm_file, 1)) : std::string("(none)"); },
    [](int k) {
        para_set_odm_int(const_cast<char*>("isp0_style_def"), 3 + k);
        para_set_odm_string(const_cast<char*>("model"), const_cast<char*>(k ? "cam-y" : "cam-x"));
    },
    [] { return para_save_odm(no_name()); },
};

/* "member=value;" for every member a getter answers. */
#define FAULT_FLAT_STATE(M, ...) s += #M "=" + std::to_string(para_get_audio_##M##_cur()) + ";";
#define FAULT_AF_STATE(M) s += #M "=" + std::to_string(para_get_af_##M##_cur()) + ";";
#define FAULT_ISP_STATE_SET(m) s += #m "=" + std::to_string(para_get_isp_##m##_cur(p)) + ";";
#define FAULT_ISP_STATE(m, file, set, out) PARA_ISP_IF_##set(FAULT_ISP_STATE_SET(m))

const Persisted kAudio = {
    "audio",
    "audio_cur.json",
    [] { para_init_audio(no_name()); },
    [] {
        std::string s;
        PARA_AUDIO_MEMBERS(FAULT_FLAT_STATE)
        return s;
    },
    [](int k) {
        para_set_audio_audioOutVol_cur(40 + k);
        para_set_audio_sampleRate_cur(16000 + k);
        para_set_audio_aeFormat_cur(1 - k);
    },
    [] { return para_save_audio(no_name()); },
};

const Persisted kAf = {
    "af",
    "af_cur.json",
    [] { para_init_af(no_name()); },
    [] {
        std::string s;
        PARA_AF_MEMBERS(FAULT_AF_STATE)
        return s;
    },
    [](int k) {
        para_set_af_focus_value_cur(200 + k);
        para_set_af_zoom_value_cur(50 + k);
    },
    [] { return para_save_af(no_name()); },
};

const Persisted kIsp = {
    "isp",
    "isp_cur.json",
    [] { para_init_isp(no_name()); },
    [] {
        std::string s;
        for (int p = 0; p < PARA_ISP_NUM; ++p) {
            PARA_ISP_MEMBERS(FAULT_ISP_STATE)
        }
        return s;
    },
    [](int k) {
        para_set_isp_bright_cur(0, 30 + k);
        para_set_isp_hue_cur(1, 60 + k);
        para_set_isp_temperature_cur(1, 3000 + k);
    },
    [] { return para_save_isp(no_name()); },
};

const Persisted kMisc = {
    "misc",
    "misc.conf",
    [] {
        para_init_misc(const_cast<char*>("json"));
        para_init_misc(const_cast<char*>("misc"));
    },
    [] { // the stored texts: a cut line may leave a value no number shows
        cJSON* obj = cJSON_CreateObject();
#define FAULT_MISC_STATE(m, kind)                                          \
        if (char text[256]; para_get_json_string("misc", #m, text, sizeof text) == 0) \
            cJSON_AddStringToObject(obj, #m, text);
        PARA_MISC_MEMBERS(FAULT_MISC_STATE)
        return print(obj);
    },
    [](int k) {
        para_set_misc_mirror_cur(1 - k);
        para_set_misc_vi_framerate_cur(25 + k);
        para_set_misc_ndi_mode_cur_bystr(k ? "off" : "on");
    },
    [] { return para_save_misc(const_cast<char*>("misc")); },
    Persisted::kLinesRenamed,
};

const Persisted kNetport = {
    "netport",
    "netport.conf",
    [] {
        para_profile.conf_save = 1;
        para_init_conf(const_cast<char*>("conf"));
        para_init_conf(const_cast<char*>("netport"));
    },
    [] {
        cJSON* obj = cJSON_CreateObject();
        Create_Json_4_conf_Object(obj, 0, "netport");
        return print(obj);
    },
    [](int k) {
        para_conf_set_member("netport", "http_port", k ? "8081" : "8080");
        para_conf_set_member("netport", "ipaddr", k ? "10.0.0.3" : "10.0.0.2");
        para_conf_set_member("netport", "added", k ? "yes" : "no");
    },
    [] { return para_save_conf(const_cast<char*>("netport")); },
    Persisted::kLinesInPlace,
    false, // a .conf save answers 0 whatever happened
};

const Persisted* const kModules[] = {&kVideo, &kAudio, &kAf, &kIsp, &kOdm, &kMisc, &kNetport};

/* Loads in a process of its own: the test binary started again with
 * PARA_FAULT_LOAD naming the module (and the directories) prints the
 * module's values and ends as the tests would start. */
class FreshLoad : public ::testing::Environment {
public:
    void SetUp() override
    {
        const char* name = std::getenv("PARA_FAULT_LOAD");
        if (!name)
            return;
        dbgout_profile.para_level = 0;
        para_profile.param_rofile_dir = std::getenv("PARA_FAULT_RO");
        para_profile.param_rwfile_dir = std::getenv("PARA_FAULT_RW");
        for (const Persisted* m : kModules) {
            if (std::strcmp(m->name, name) == 0) {
                m->load();
                std::printf("<state>%s</state>", m->state().c_str());
                std::fflush(stdout);
                _exit(0);
            }
        }
        _exit(2);
    }
};
::testing::Environment* const fresh_load_env = ::testing::AddGlobalTestEnvironment(new FreshLoad);

std::string fresh_load(const Persisted& m)
{
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0)
        return "no executable";
    self[n] = '\0';
    auto r = test::run_command(std::string("PARA_FAULT_LOAD=") + m.name + " PARA_FAULT_RO='" +
                               para_profile.param_rofile_dir + "' PARA_FAULT_RW='" +
                               para_profile.param_rwfile_dir + "' " + test::emulator_prefix() +
                               "'" + self + "'");
    size_t from = r.out.find("<state>"), to = r.out.rfind("</state>");
    if (r.status != 0 || from == std::string::npos || to == std::string::npos)
        return "failed " + std::to_string(r.status) + ": " + r.out;
    return r.out.substr(from + 7, to - from - 7);
}

std::string path_of(const std::string& dir, const char* file)
{
    return dir + "/" + file;
}

/* Runs fn in a forked child (fresh module state, the parent's files) and
 * hands back its text; "crash <status>" when it did not exit normally. */
std::string in_child(const std::function<std::string()>& fn)
{
    int p[2];
    if (pipe(p) != 0)
        return "pipe failed";
    pid_t pid = fork();
    if (pid == 0) {
        close(p[0]);
        std::string out = fn();
        size_t done = 0;
        while (done < out.size()) {
            ssize_t n = write(p[1], out.data() + done, out.size() - done);
            if (n <= 0)
                break;
            done += static_cast<size_t>(n);
        }
        _exit(0);
    }
    close(p[1]);
    std::string out;
    char buf[4096];
    ssize_t n;
    while ((n = read(p[0], buf, sizeof buf)) > 0)
        out.append(buf, static_cast<size_t>(n));
    close(p[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return "crash " + std::to_string(status);
    return out;
}

/* A child of a process with threads may not start threads of its own. */
bool single_threaded()
{
    int n = 0;
    if (DIR* d = opendir("/proc/self/task")) {
        while (dirent* e = readdir(d))
            n += e->d_name[0] != '.';
        closedir(d);
    }
    return n == 1;
}

/* Writes at most limit bytes per file while alive; going past fails with
 * EFBIG instead of a signal. */
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t limit)
    {
        getrlimit(RLIMIT_FSIZE, &saved_);
        old_handler_ = signal(SIGXFSZ, SIG_IGN);
        rlimit r = saved_;
        r.rlim_cur = limit;
        setrlimit(RLIMIT_FSIZE, &r);
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &saved_);
        signal(SIGXFSZ, old_handler_);
    }

private:
    rlimit saved_{};
    sighandler_t old_handler_;
};

class Faults : public ::testing::TestWithParam<const Persisted*> {
protected:
    void SetUp() override
    {
        para_profile.conf_save = 1;
        test::copy_dir_files(test::example_device_dir(), dir.ro());
        dir.use_as_profile();
        para_set_video_save_param_time(0);
        para_set_audio_save_param_time(0);
    }
    const Persisted& m() const { return *GetParam(); }
    std::string cur_path() const { return path_of(dir.rw(), m().cur_file); }

    /* Makes the module's current file (through the module itself) and
     * returns the values it holds next to those of a start without it. */
    void make_current_file(std::string* saved_state, std::string* default_state)
    {
        const Persisted& mod = m();
        *default_state = in_child([&] {
            mod.load();
            return mod.state();
        });
        *saved_state = in_child([&] {
            mod.load();
            mod.change(0);
            mod.save();
            return mod.state();
        });
        ASSERT_NE(*saved_state, *default_state);
        ASSERT_EQ(in_child([&] {
                      mod.load();
                      return mod.state();
                  }),
                  *saved_state)
            << "the saved file does not load back";
    }

    std::string fail_first_save(const std::string& rw, const char* place);

    test::TempDir dir;
};

void PrintTo(const Persisted* p, std::ostream* os)
{
    *os << p->name;
}

std::string param_name(const ::testing::TestParamInfo<const Persisted*>& info)
{
    return info.param->name;
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Modules, Faults, ::testing::ValuesIn(kModules), param_name);

std::string item_text(const cJSON* item)
{
    if (cJSON_IsString(item))
        return item->valuestring;
    return cJSON_IsNumber(item) ? std::to_string(para::json_int(item)) : "(none)";
}

/* A key = value file cut anywhere: every key holds its saved value, its
 * default or, for the one line the cut went through, a beginning of the
 * saved value. got carries the "logged "/"silent " mark of the load. */
::testing::AssertionResult whole_lines_kept(const std::string& got, const std::string& saved,
                                            const std::string& def)
{
    para::JsonPtr g(cJSON_Parse(got.c_str() + got.find(' ') + 1));
    para::JsonPtr sv(cJSON_Parse(saved.c_str())), dv(cJSON_Parse(def.c_str()));
    if (!g)
        return ::testing::AssertionFailure() << "no values: " << got;
    int cut_lines = 0;
    for (const cJSON* item = g->child; item; item = item->next) {
        std::string v = item_text(item);
        std::string s = item_text(cJSON_GetObjectItem(sv.get(), item->string));
        std::string d = item_text(cJSON_GetObjectItem(dv.get(), item->string));
        if (v == s || v == d)
            continue;
        if (s != "(none)" && s.compare(0, v.size(), v) == 0 && ++cut_lines == 1)
            continue;
        return ::testing::AssertionFailure() << item->string << "=" << v << " in " << got;
    }
    return ::testing::AssertionSuccess();
}

/* Every prefix of a current file, loaded by a fresh process: either the whole
 * file applies (only its trailing NUL or blanks were cut) or none of it does
 * and the defaults stand, with a log line saying why. Never a crash, never a
 * mixture. */
TEST_P(Faults, CurrentFileCutAtEveryByte)
{
    if (!single_threaded())
        GTEST_SKIP() << "run this test in a process of its own (ctest does)";
    std::string saved_state, default_state;
    make_current_file(&saved_state, &default_state);
    auto full = test::read_file(cur_path());
    ASSERT_TRUE(full);
    size_t last_brace = full->rfind('}');
    ASSERT_TRUE(m().layout != Persisted::kJson || last_brace != std::string::npos);

    const Persisted& mod = m();
    for (size_t cut = 0; cut < full->size(); ++cut) {
        test::write_file(cur_path(), full->substr(0, cut));
        std::string got = in_child([&] {
            test::LogCapture log(PARA_INFO);
            mod.load();
            std::string s = mod.state();
            bool told = log.contains("Error before") || log.contains("Error read cur buf") ||
                        log.contains("not a JSON object");
            return (told ? "logged " : "silent ") + s;
        });
        if (mod.layout != Persisted::kJson) {
            ASSERT_TRUE(whole_lines_kept(got, saved_state, default_state)) << "cut at " << cut;
        } else if (cut > last_brace) {
            ASSERT_EQ(got, "silent " + saved_state) << "cut at " << cut;
        } else {
            ASSERT_EQ(got, "logged " + default_state) << "cut at " << cut;
        }
    }
}

/* Loads with the read-write directory rw, which cannot take files, and
 * accepts changes: the save fails with a log line naming the place and the
 * values stay. Returns the values. */
std::string Faults::fail_first_save(const std::string& rw, const char* place)
{
    para_profile.param_rwfile_dir = const_cast<char*>(rw.c_str());
    m().load();
    m().change(0);
    std::string state = m().state();
    test::LogCapture log(PARA_ERR);
    m().save();
    EXPECT_GT(log.count(place), 0) << log.dump();
    EXPECT_EQ(m().state(), state);
    return state;
}

/* The read-write directory does not exist yet (storage not mounted): once
 * it is there the next save writes the values. */
TEST_P(Faults, MissingDirectoryKeepsValuesUntilItCanSave)
{
    std::string rw = dir.path() + "/late";
    std::string state = fail_first_save(rw, "late");
    ASSERT_EQ(mkdir(rw.c_str(), 0755), 0);
    m().save();
    EXPECT_EQ(fresh_load(m()), state);
}

/* A read-write "directory" below a regular file: every open fails, even for
 * root. */
TEST_P(Faults, DirectoryBelowAFileKeepsValues)
{
    std::string blocker = dir.path() + "/blocker";
    test::write_file(blocker, "x");
    std::string rw = blocker + "/rw"; // the profile keeps pointing at it
    std::string state = fail_first_save(rw, "blocker");
    ASSERT_EQ(unlink(blocker.c_str()), 0);
    ASSERT_EQ(mkdir(blocker.c_str(), 0755), 0);
    ASSERT_EQ(mkdir(rw.c_str(), 0755), 0);
    m().save();
    EXPECT_EQ(fresh_load(m()), state);
}

/* The disk fills up while the file is rewritten: the save reports the
 * failure, the previous file stays as it was, the values in memory stay and
 * a later save writes them whole once there is room again. */
TEST_P(Faults, FullDiskKeepsValuesForALaterSave)
{
    if (!single_threaded())
        GTEST_SKIP() << "run this test in a process of its own (ctest does)";
    std::string saved_state, default_state;
    make_current_file(&saved_state, &default_state);
    m().load();
    ASSERT_EQ(m().state(), saved_state);
    m().change(1);
    std::string state = m().state();
    ASSERT_NE(state, saved_state);

    test::LogCapture log(PARA_ERR);
    int r;
    {
        FileSizeLimit limit(16);
        r = m().save();
    }
    if (m().save_reports_errors) {
        EXPECT_NE(r, 0);
    }
    EXPECT_GT(log.count(m().cur_file), 0) << log.dump();
    EXPECT_EQ(m().state(), state);
    EXPECT_EQ(fresh_load(m()), saved_state) << "a failed save keeps the previous file";

    EXPECT_EQ(m().save(), 0);
    EXPECT_EQ(fresh_load(m()), state);
}

/* The whole library: the sweep reports the failed save ("save err"); the
 * save after the next change writes the earlier value too. */
TEST(FaultsLifecycle, SaveAfterAFailedSweepWritesEarlierValues)
{
    test::TempDir dir;
    test::copy_dir_files(test::example_device_dir(), dir.ro());
    dir.use_as_profile();
    para_server_port = 0;
    platformparam_set_save_param_time(50, 50);
    platformparam_init();

    test::LogCapture log(PARA_ERR);
    {
        FileSizeLimit limit(16);
        para_set_video_gop_cur(1, 77);
        ASSERT_TRUE(test::wait_until([&] { return log.contains("video0 save err"); }, 3000))
            << log.dump();
        EXPECT_FALSE(test::read_file(dir.rw() + "/video_cur.json")) << "no cut file is left";
    }
    EXPECT_EQ(para_get_video_gop_cur(1), 77);

    para_set_video_qfactor_cur(0, 50);
    ASSERT_TRUE(test::wait_until(
        [&] {
            auto t = test::read_file(dir.rw() + "/video_cur.json");
            return t && t->find("\"qfactor\":\t50") != std::string::npos;
        },
        3000));
    EXPECT_NE(test::read_file(dir.rw() + "/video_cur.json")->find("\"gop\":\t77"), std::string::npos);
    platformparam_stop(1);
}
