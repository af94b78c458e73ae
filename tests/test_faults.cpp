// Storage faults: a read-write directory that is missing or cannot hold
// files, a full disk, and current files cut at every byte (a power cut while
// the file was rewritten in place). The library must not crash, must say what
// went wrong, must fall back to the defaults when the current file is bad,
// and must never lose the values it holds in memory.
#include "para_internal.h"
#include "para_sys.h"
#include "support.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>


namespace {

/* A module whose current values live in one file of the read-write directory.
 * A JSON file is rewritten in place (a cut one does not load); key = value
 * lines keep the whole lines before a cut, renamed into place or rewritten
 * under a lock. */
enum Layout { kJson, kLines };
struct Persisted {
    const char* name;
    const char* cur_file;       // relative to the read-write directory
    void (*load)();             // start-up in a fresh process
    std::string (*state)();     // the values in memory, as text
    void (*change)(int k);      // values unlike the defaults (and unlike for k 0 and 1)
    int (*save)();
    int (*need_save)();
    Layout layout;
    bool save_reports_errors;   // a .conf save answers 0 whatever happened
};

std::string print(cJSON* json)
{
    para::JsonPtr owned(json);
    para::CharPtr text(owned ? cJSON_PrintUnformatted(owned.get()) : nullptr);
    return text ? text.get() : "(none)";
}
char* C(const char* s) { return const_cast<char*>(s); }

#define FAULT_AUDIO(M, ...) s += #M "=" + std::to_string(para_get_audio_##M##_cur()) + ";";
#define FAULT_AF(M) s += #M "=" + std::to_string(para_get_af_##M##_cur()) + ";";
#define FAULT_ISP_SET(m) s += #m "=" + std::to_string(para_get_isp_##m##_cur(p)) + ";";
#define FAULT_ISP(m, file, set, out) PARA_ISP_IF_##set(FAULT_ISP_SET(m))
// the stored texts: a cut line may leave a value no number shows
#define FAULT_MISC(m, kind) \
    if (char t[256]; para_get_json_string("misc", #m, t, sizeof t) == 0) cJSON_AddStringToObject(o, #m, t);

const Persisted kModules[] = {
    {"video", "video_cur.json", [] { para_init_video(nullptr); },
     [] { std::string s; for (int i = 0; i < para_get_video_streamNum(); ++i) s += print(Create_Json_Video_Object(i)); return s; },
     [](int k) { para_set_video_frameRate_cur(0, 12 + k), para_set_video_protocol_cur(0, 2 - k),
                 para_set_video_bitRate_cur(1, 777 + k), para_set_video_size_cur(1, 16 + k); },
     [] { return para_save_video(nullptr); }, [] { return para_need_save_video(nullptr); }, kJson, true},
    {"audio", "audio_cur.json", [] { para_init_audio(nullptr); },
     [] { std::string s; PARA_AUDIO_MEMBERS(FAULT_AUDIO) return s; },
     [](int k) { para_set_audio_audioOutVol_cur(40 + k), para_set_audio_sampleRate_cur(16000 + k),
                 para_set_audio_aeFormat_cur(1 - k); },
     [] { return para_save_audio(nullptr); }, [] { return para_need_save_audio(nullptr); }, kJson, true},
    {"af", "af_cur.json", [] { para_init_af(nullptr); }, [] { std::string s; PARA_AF_MEMBERS(FAULT_AF) return s; },
     [](int k) { para_set_af_focus_value_cur(200 + k), para_set_af_zoom_value_cur(50 + k); },
     [] { return para_save_af(nullptr); }, [] { return para_need_save_af(nullptr); }, kJson, true},
    {"isp", "isp_cur.json", [] { para_init_isp(nullptr); },
     [] { std::string s; for (int p = 0; p < PARA_ISP_NUM; ++p) { PARA_ISP_MEMBERS(FAULT_ISP) } return s; },
     [](int k) { para_set_isp_bright_cur(0, 30 + k), para_set_isp_hue_cur(1, 60 + k),
                 para_set_isp_temperature_cur(1, 3000 + k); },
     [] { return para_save_isp(nullptr); }, [] { return para_need_save_isp(nullptr); }, kJson, true},
    {"odm", "persist/odm.json", [] { para_init_odm(nullptr), para_init_stage2_odm(nullptr); },
     [] { return json_odm_file ? print(cJSON_Duplicate(json_odm_file, 1)) : std::string("(none)"); },
     [](int k) { para_set_odm_int(C("isp0_style_def"), 3 + k), para_set_odm_string(C("model"), C(k ? "cam-y" : "cam-x")); },
     [] { return para_save_odm(nullptr); }, [] { return para_need_save_odm(nullptr); }, kJson, true},
    {"misc", "misc.conf", [] { para_init_misc(C("json")), para_init_misc(C("misc")); },
     [] { cJSON* o = cJSON_CreateObject(); PARA_MISC_MEMBERS(FAULT_MISC) return print(o); },
     [](int k) { para_set_misc_mirror_cur(1 - k), para_set_misc_vi_framerate_cur(25 + k),
                 para_set_misc_ndi_mode_cur_bystr(k ? "off" : "on"); },
     [] { return para_save_misc(C("misc")); }, [] { return para_need_save_misc(C("misc")); }, kLines, true},
    {"netport", "netport.conf",
     [] { para_profile.conf_save = 1, para_init_conf(C("conf")), para_init_conf(C("netport")); },
     [] { cJSON* o = cJSON_CreateObject(); Create_Json_4_conf_Object(o, 0, "netport"); return print(o); },
     [](int k) { para_conf_set_member("netport", "http_port", k ? "8081" : "8080"),
                 para_conf_set_member("netport", "ipaddr", k ? "10.0.0.3" : "10.0.0.2"),
                 para_conf_set_member("netport", "added", k ? "yes" : "no"); },
     [] { return para_save_conf(C("netport")); }, [] { return para_need_save_conf(C("netport")); }, kLines, false},
};

using test::in_child;

/* A module and, for the cut test, every kShards-th cut from shard on (for
 * the storage test, a kind of fault). */
constexpr int kShards = 6;
struct Case { const Persisted* m; int shard; };
void PrintTo(const Case& c, std::ostream* os) { *os << c.m->name << " " << c.shard; }

class Faults : public ::testing::TestWithParam<Case> {
protected:
    void SetUp() override
    {
        para_profile.conf_save = 1;
        test::copy_dir_files(test::example_device_dir(), dir.ro());
        dir.use_as_profile();
        para_set_video_save_param_time(0), para_set_audio_save_param_time(0);
        int threads = 0;
        DIR* d = opendir("/proc/self/task"); // a child of a threaded process may not start threads
        for (dirent* e; d && (e = readdir(d));)
            threads += e->d_name[0] != '.';
        d ? closedir(d) : 0;
        if (threads != 1)
            GTEST_SKIP() << "run this test in a process of its own (ctest does)";
    }
    const Persisted& m() const { return *GetParam().m; }
    std::string cur_path() const { return dir.rw() + "/" + m().cur_file; }

    /* Makes the module's current file through the module: the values it
     * holds next to those of a start without it. */
    void make_current_file(std::string* saved, std::string* def)
    {
        auto load = [this] { return m().load(), m().state(); };
        *def = in_child(load);
        *saved = in_child([this] { return m().load(), m().change(0), m().save(), m().state(); });
        ASSERT_NE(*saved, *def);
        ASSERT_EQ(in_child(load), *saved) << "the saved file does not load back";
    }

    test::TempDir dir;
};

std::string item_text(const cJSON* item)
{
    return cJSON_IsString(item) ? item->valuestring : cJSON_IsNumber(item) ? std::to_string(para::json_int(item)) : "(none)";
}

/* A key = value file cut anywhere: every key holds its saved value, its
 * default or, for the one line the cut went through, a beginning of the saved
 * value. got carries the "logged "/"silent " mark of the load. */
::testing::AssertionResult whole_lines_kept(const std::string& got, const std::string& saved, const std::string& def)
{
    para::JsonPtr g(cJSON_Parse(got.c_str() + got.find(' ') + 1)), sv(cJSON_Parse(saved.c_str())), dv(cJSON_Parse(def.c_str()));
    if (!g)
        return ::testing::AssertionFailure() << "no values: " << got;
    int cut_lines = 0;
    for (const cJSON* item = g->child; item; item = item->next) {
        std::string v = item_text(item), s = item_text(cJSON_GetObjectItem(sv.get(), item->string));
        if (v == s || v == item_text(cJSON_GetObjectItem(dv.get(), item->string)) ||
            (s != "(none)" && s.compare(0, v.size(), v) == 0 && ++cut_lines == 1))
            continue;
        return ::testing::AssertionFailure() << item->string << "=" << v << " in " << got;
    }
    return ::testing::AssertionSuccess();
}

} // namespace

/* Every prefix of a current file, loaded by a fresh process: either the whole
 * file applies (only its trailing NUL or blanks were cut) or none of it does
 * and the defaults stand, with a log line saying why. Never a crash, never a
 * mixture. Each shard takes every kShards-th cut, so none comes near the
 * time-out under sanitizers. */
struct Cuts : Faults {};
TEST_P(Cuts, CurrentFileCutAtEveryByte)
{
    std::string saved, def;
    make_current_file(&saved, &def);
    auto full = test::read_file(cur_path());
    ASSERT_TRUE(full);
    size_t last_brace = full->rfind('}');
    ASSERT_TRUE(m().layout != kJson || last_brace != std::string::npos);
    for (size_t cut = GetParam().shard; cut < full->size(); cut += kShards) {
        test::write_file(cur_path(), full->substr(0, cut));
        std::string got = in_child([this] {
            test::LogCapture log(PARA_INFO);
            m().load();
            bool told = log.contains("Error before") || log.contains("Error read cur buf") || log.contains("not a JSON object");
            return (told ? "logged " : "silent ") + m().state();
        });
        if (m().layout != kJson)
            ASSERT_TRUE(whole_lines_kept(got, saved, def)) << "cut at " << cut;
        else
            ASSERT_EQ(got, cut > last_brace ? "silent " + saved : "logged " + def) << "cut at " << cut;
    }
}

/* The read-write directory does not exist yet (storage not mounted) or lies
 * below a regular file (every open fails, even for root), the disk fills up
 * while the file is rewritten, or the directory's name is too long: the save
 * says so, the previous file and the values in memory stay, the change stays
 * pending, and the save sweep writes the values whole once it can. The
 * child's text carries what went wrong; a fresh start must load its values. */
struct Storage : Faults {};
TEST_P(Storage, FailedSaveKeepsValuesForALaterSave)
{
    int kind = GetParam().shard; // 0 directory missing, 1 below a file, 2 disk full, 3 name too long
    std::string saved, def, rw = dir.rw(), place = m().cur_file, blocker = dir.path() + "/blocker";
    std::string too_long = rw + "/" + std::string(PARA_PATH_MAX, 'x');
    if (kind >= 2)
        make_current_file(&saved, &def), place = kind == 3 ? "path too long" : place;
    else
        rw = kind ? blocker + "/rw" : dir.path() + "/late", place = kind ? "blocker" : "late";
    if (kind == 1)
        test::write_file(blocker, "x");
    auto previous = test::read_file(rw + "/" + m().cur_file);
    auto load = [&] { return para_profile.param_rwfile_dir = C(rw.c_str()), m().load(), m().state(); };
    std::string got = in_child([&] {
        std::string state = (load(), m().change(kind >= 2), m().state()), out = state;
        test::LogCapture log(PARA_ERR);
        int r;
        if (kind == 2)
            test::full_disk(0);
        para_profile.param_rwfile_dir = C(kind == 3 ? too_long.c_str() : rw.c_str());
        r = m().save();
        para_profile.param_rwfile_dir = C(rw.c_str()), para::sys::calls = para::sys::defaults();
        out += log.contains(place) ? "" : " [no log naming " + place + "]";
        out += r == 0 && kind == 2 && m().save_reports_errors ? " [no error]" : "";
        out += m().state() == state ? "" : " [values changed]";
        out += test::read_file(rw + "/" + m().cur_file) == previous ? "" : " [previous file changed]";
        if (kind == 1)
            unlink(blocker.c_str()), mkdir(blocker.c_str(), 0755);
        if (kind < 2)
            mkdir(rw.c_str(), 0755);
        para::clock_offset_ns += 600'000'000'000; // past any back-off: the sweep's turn
        return out + (m().need_save() != 1 ? " [change dropped]" : m().save() ? " [later save failed]" : "");
    });
    EXPECT_NE(got, saved);
    EXPECT_EQ(got, in_child(load));
}

std::vector<Case> cases(int shards)
{
    std::vector<Case> out;
    for (const Persisted& m : kModules)
        for (int s = 0; s < shards; ++s)
            out.push_back({&m, s});
    return out;
}
std::string case_name(const ::testing::TestParamInfo<Case>& i) { return i.param.m->name + ("_" + std::to_string(i.param.shard)); }
INSTANTIATE_TEST_SUITE_P(Modules, Cuts, ::testing::ValuesIn(cases(kShards)), case_name);
INSTANTIATE_TEST_SUITE_P(Modules, Storage, ::testing::ValuesIn(cases(4)), case_name);
