// Read faults at start-up: every open, fstat and read the start-up makes fails
// in turn (EIO, EACCES, EMFILE; a read also comes back short). Whatever
// failed, the stop's forced save must leave every current file as it was (a
// value nobody changed is never replaced by a default), and each fault leaves
// one level-3 line naming its file. Special files at current-file names must
// neither stall the start nor be replaced until a value changes.
// Write faults: every system call of a save sweep fails in turn; no change
// may be lost and no file may end up neither old nor new.
#include "para_internal.h"
#include "para_sys.h"
#include "support.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <map>
#include <sstream>

namespace {

enum Call { kOpen, kFstat, kRead, kCalls };
struct Arm {
    int call = -1, at = 0, err = 0, seen[kCalls] = {};
    std::string path; // the file the fault hit
} arm;

bool hit(Call c, int fd)
{
    if (++arm.seen[c] != arm.at || c != arm.call)
        return false;
    char buf[512];
    ssize_t n = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), buf, sizeof buf - 1);
    return arm.path.assign(buf, n > 0 ? size_t(n) : 0), true;
}
const para::sys::Table& plain = para::sys::defaults();
int fault_open(const char* p, int flags, mode_t mode)
{
    return hit(kOpen, -1) ? (arm.path = p, errno = arm.err, -1) : plain.open(p, flags, mode);
}
int fault_fstat(int fd, struct stat* st)
{
    return hit(kFstat, fd) ? (errno = arm.err, -1) : plain.fstat(fd, st);
}
ssize_t fault_read(int fd, void* buf, size_t len)
{
    if (!hit(kRead, fd))
        return plain.read(fd, buf, len);
    return arm.err ? (errno = arm.err, -1) : plain.read(fd, buf, len > 1 ? len / 2 : len); // 0: short
}

/* Every file under dir: name -> content ("special" for anything else). */
using Files = std::map<std::string, std::string>;
// A file set aside may be missing while its .bad copy holds the old text.
bool old_or_new(Files& fs, const std::string& name, const std::string& old, const std::string& now)
{
    return fs[name] == old || fs[name] == now || (fs.count(name + ".bad") && fs[name].empty() && fs[name + ".bad"] == old);
}
Files files(const std::string& dir, const std::string& rel = "", Files out = {})
{
    DIR* d = opendir(dir.c_str());
    for (dirent* e; d && (e = readdir(d));) {
        std::string name = e->d_name, path = dir + "/" + name;
        struct stat st{};
        if (name != "." && name != ".." && lstat(path.c_str(), &st) == 0)
            S_ISDIR(st.st_mode) ? void(out = files(path, rel + name + "/", out))
                                : void(out[rel + name] = S_ISREG(st.st_mode) ? *test::read_file(path) : "special");
    }
    return d ? closedir(d) : 0, out;
}

class ReadFaults : public ::testing::Test {
protected:
    void SetUp() override
    {
        test::copy_dir_files(test::example_device_dir(), dir.ro());
        dir.use_as_profile();
        para_profile.conf_save = 1;
        para_server_port = 0; // any free port: suites may run side by side
        para_server_bind_address("127.0.0.1");
        ASSERT_EQ(test::in_child([] {
            platformparam_init();
            para_set_video_gop_cur(0, 77), para_set_isp_bright_cur(0, 30), para_set_audio_audioOutVol_cur(40);
            para_set_af_focus_value_cur(200), para_set_misc_mirror_cur(1);
            para_conf_set_member("netport", "http_port", "8081");
            para_set_odm_int(const_cast<char*>("isp0_style_def"), 3);
            return platformparam_stop(1), std::string();
        }), "");
        saved = files(dir.rw());
        ASSERT_GE(saved.size(), 7u);
    }
    /* A start (the fault armed) and a forced save as at a stop (plain calls):
     * the calls seen, the level-3 lines naming the file the fault hit (all,
     * and those saying it cannot be read), its path. */
    std::string start_stop(int call, int at, int err, bool change = false)
    {
        return test::in_child([=] {
            alarm(30); // a start that stalls ends the child
            test::LogCapture log(3);
            arm.call = call, arm.at = at, arm.err = err;
            para::sys::calls.open = fault_open, para::sys::calls.fstat = fault_fstat, para::sys::calls.read = fault_read;
            platformparam_init();
            para::sys::calls = plain;
            if (change)
                para_set_video_gop_cur(0, 78);
            platformparam_save(); // what a stop saves, without waiting for the worker's turn
            std::string name = arm.path.substr(arm.path.rfind('/') + 1), out;
            for (int n : {arm.seen[0], arm.seen[1], arm.seen[2], name.empty() ? 0 : log.count(name),
                          name.empty() ? 0 : log.count(name + " cannot")})
                out += std::to_string(n) + " ";
            return out + arm.path;
        });
    }
    test::TempDir dir;
    Files saved;
};

/* Any entry of the system-call table failing at its turn: calls counts
 * every call of every kind, the at-th fails with err. dirty: every call that
 * succeeds leaves errno set, as it may. */
struct WriteFault {
    int calls = 0, at = 0, err = 0;
    bool dirty = false;
} wfault;
template <class F> struct Faulty;
template <class R, class... A> struct Faulty<R (*)(A...)> {
    template <R (*para::sys::Table::*M)(A...)> static R call(A... a)
    {
        if (++wfault.calls == wfault.at)
            return errno = wfault.err, R(-1);
        R r = (plain.*M)(a...);
        if (wfault.dirty && r != R(-1))
            errno = EBADMSG;
        return r;
    }
};
#define FAULTY(name) \
    para::sys::calls.name = Faulty<decltype(para::sys::Table::name)>::call<&para::sys::Table::name>;

/* A change of every module, saved by the worker's sweep while the at-th
 * system call of the sweep fails (0: none). Every file must then hold its
 * old or its new text, each one left old must be named by a level-3 line, the
 * change must still be pending, and the next sweep must write it. For files
 * the rewrite in place, a journal left behind must finish the rewrite at the
 * next start. linked: every current file has a second name, so that saves
 * rewrite it in place. */
struct WriteFaults : ReadFaults {
    Files now_new;
    void reset(const Files& to)
    {
        for (auto& [name, text] : files(dir.rw()))
            if (!to.count(name))
                unlink((dir.rw() + "/" + name).c_str());
        for (auto& [name, text] : to) {
            std::ofstream f(dir.rw() + "/" + name, std::ios::binary | std::ios::in | std::ios::out | std::ios::trunc);
            f << text; // through the same inode: a second name stays one
        }
    }
    static void put(const std::string& dir, const Files& fs)
    {
        mkdir(dir.c_str(), 0755);
        for (auto& [name, text] : fs) {
            if (size_t slash = name.rfind('/'); slash != std::string::npos)
                mkdir((dir + "/" + name.substr(0, slash)).c_str(), 0755);
            test::write_file(dir + "/" + name, text);
        }
    }
    /* The calls of the sweep, then what went wrong ("" when nothing did).
     * The files as the fault left them go to dir/fault. */
    std::string sweep(int at, int err)
    {
        return test::in_child([=] {
            alarm(30);
            platformparam_init();
            para_set_video_gop_cur(0, 78), para_set_isp_bright_cur(0, 31), para_set_audio_audioOutVol_cur(41);
            para_set_af_focus_value_cur(201), para_set_misc_mirror_cur(0);
            para_conf_set_member("netport", "http_port", "8082");
            para_set_odm_int(const_cast<char*>("isp0_style_def"), 2);
            para::clock_offset_ns += 600'000'000'000;
            test::LogCapture log(3);
            wfault = {0, at, err};
            PARA_SYS_CALLS(FAULTY)
            save_param(0);
            para::sys::calls = plain;
            std::string out = std::to_string(wfault.calls) + " ";
            Files got = files(dir.rw());
            put(dir.path() + "/fault", got);
            for (auto& [name, text] : saved) {
                std::string base = name.substr(name.rfind('/') + 1);
                bool journal = false;
                for (auto& [other, t] : got)
                    journal |= other.find(".journal") != std::string::npos && t.find(base) != std::string::npos;
                if (!old_or_new(got, name, text, now_new[name]) && !journal)
                    out += name + " is neither old nor new; ";
                else if (at && got[name] != now_new[name] && !log.contains(base))
                    out += name + " left old silently; ";
            }
            if (got["af_cur.json"] != saved.at("af_cur.json") && got["af_cur.json.bad"] != saved.at("af_cur.json"))
                out += "the unreadable af_cur.json is gone; ";
            para::clock_offset_ns += 600'000'000'000;
            save_param(0);
            for (auto& [name, text] : files(dir.rw()))
                if (!saved.count(name) && name != "af_cur.json.bad")
                    out += name + " left behind; ";
                else if (at && text != now_new[name])
                    out += name + " change lost; ";
            return out;
        });
    }
};

TEST_F(ReadFaults, NoStartUpReadFaultLosesAValue)
{
    int seen[kCalls] = {}, points = 0, lines, refused;
    std::istringstream(start_stop(-1, 0, 0)) >> seen[0] >> seen[1] >> seen[2];
    for (int call = 0; call < kCalls; ++call) {
        ASSERT_GT(seen[call], 10) << "start-up reads fewer files than the example device has";
        for (int at = 1; at <= seen[call]; ++at)
            for (int err : {EIO, EACCES, EMFILE, 0}) {
                if (err == 0 && call != kRead)
                    continue;
                std::string got = start_stop(call, at, err), path;
                SCOPED_TRACE("call " + std::to_string(call) + " #" + std::to_string(at) + " errno " +
                             std::to_string(err) + ": " + got);
                std::istringstream(got) >> lines >> lines >> lines >> lines >> refused >> path;
                EXPECT_FALSE(path.empty());
                EXPECT_EQ(lines, err == 0 ? 0 : 1) << "level-3 lines naming " << path;
                EXPECT_EQ(refused, err == EIO || err == EACCES) << "a passing failure is read again";
                ASSERT_EQ(files(dir.rw()), saved);
                ++points;
            }
    }
    std::printf("read faults injected at %d points (open %d, fstat %d, read %d calls), 0 values lost\n",
                points, seen[0], seen[1], seen[2]);
}

/* A FIFO, a link to /dev/zero and an oversized file at current-file names:
 * the start goes on, refusing each once; they stay until a value of their
 * module changes, and then only that file is set aside. A line too long for
 * the store is kept in a copy before any save can drop it. */
TEST_F(ReadFaults, SpecialFilesNeitherStallNorGetReplaced)
{
    for (const char* f : {"video_cur.json", "netport.conf", "persist/odm.json"})
        ASSERT_EQ(unlink((dir.rw() + "/" + f).c_str()), 0) << f;
    ASSERT_EQ(mkfifo((dir.rw() + "/video_cur.json").c_str(), 0644), 0);
    ASSERT_EQ(mkfifo((dir.rw() + "/netport.conf").c_str(), 0644), 0);
    ASSERT_EQ(symlink("/dev/zero", (dir.rw() + "/persist/odm.json").c_str()), 0);
    // One byte past the read cap is refused; a file of the cap itself loads.
    auto padded = [&](const char* f, size_t size) { return std::string(size - saved[f].size(), ' ') + saved[f]; };
    test::write_file(dir.rw() + "/audio_cur.json", padded("audio_cur.json", para::kReadCap + 1));
    test::write_file(dir.rw() + "/af_cur.json", padded("af_cur.json", para::kReadCap));
    std::string misc = "long=" + std::string(300, 'x') + "\n" + saved["misc.conf"];
    test::write_file(dir.rw() + "/misc.conf", misc);
    Files before = files(dir.rw());
    std::string log = test::in_child([] {
        alarm(30);
        test::LogCapture log(6);
        return platformparam_init(), platformparam_save(), log.dump();
    });
    for (const char* f : {"video_cur.json ", "netport.conf ", "odm.json ", "audio_cur.json "})
        EXPECT_NE(log.find(std::string(f) + "cannot be read"), std::string::npos) << f << log;
    EXPECT_EQ(log.find("af_cur.json"), std::string::npos) << log;
    EXPECT_NE(log.find("misc.conf: 1 line(s) too long"), std::string::npos) << log;
    EXPECT_NE(log.find("Error read cur buf"), std::string::npos) << log;
    before["misc.conf.bad"] = misc;
    before["misc.conf"] = saved["misc.conf"];
    before["af_cur.json"] = saved["af_cur.json"]; // loaded, and the forced save writes it again
    EXPECT_EQ(files(dir.rw()), before);

    start_stop(-1, 0, 0, true);
    Files now = files(dir.rw());
    EXPECT_EQ(now["video_cur.json.bad"], "special");
    EXPECT_NE(now["video_cur.json"].find("78"), std::string::npos);
    EXPECT_EQ(now["netport.conf"], "special");
    EXPECT_EQ(now["persist/odm.json"], "special");
}

/* errno tells something only after a failed call. With every call leaving
 * it set, a forced save still sets an unreadable current file aside and
 * writes the new one, and rewrites every other file as it was, silently. */
TEST_F(WriteFaults, ErrnoIsLookedAtOnlyAfterAFailure)
{
    const std::string oversized(para::kReadCap + 1, ' ');
    test::write_file(dir.rw() + "/af_cur.json", oversized);
    std::string log = test::in_child([] {
        alarm(30);
        platformparam_init();
        para_set_af_focus_value_cur(201);
        test::LogCapture log(3);
        wfault = {0, 0, 0, true};
        PARA_SYS_CALLS(FAULTY)
        platformparam_save();
        para::sys::calls = plain;
        return log.dump();
    });
    EXPECT_EQ(log, "");
    Files got = files(dir.rw()), want = saved;
    EXPECT_NE(got["af_cur.json"].find("201"), std::string::npos) << got["af_cur.json"];
    want["af_cur.json"] = got["af_cur.json"], want["af_cur.json.bad"] = oversized;
    EXPECT_EQ(got, want);
}

TEST_F(WriteFaults, NoFailedSaveCallLosesAChange)
{
    // One current file cannot be read (past the read cap): the sweep first sets it aside as .bad.
    test::write_file(dir.rw() + "/af_cur.json", saved["af_cur.json"] = std::string(para::kReadCap + 1, ' '));
    for (bool linked : {false, true}) {
        SCOPED_TRACE(linked ? "second names: rewrites in place" : "replaced through a temporary file");
        for (auto& [name, text] : saved) {
            std::string second = dir.path() + "/" + std::to_string(std::hash<std::string>()(name));
            if (linked) {
                ASSERT_EQ(link((dir.rw() + "/" + name).c_str(), second.c_str()), 0);
            }
        }
        int calls = 0;
        std::istringstream(sweep(0, 0)) >> calls;
        now_new = files(dir.rw());
        ASSERT_GT(calls, 30);
        int changed = 0;
        for (auto& [name, text] : saved)
            changed += now_new[name] != text;
        ASSERT_GE(changed, 7) << "a module's change was not saved";
        for (int at = 1; at <= calls; ++at) {
            reset(saved);
            std::string got = sweep(at, at % 2 ? EIO : ENOSPC);
            EXPECT_EQ(got.substr(got.find(' ') + 1), "") << "call " << at << " failing";
            // What a fault left half-written must be whole at the next start.
            reset(files(dir.path() + "/fault"));
            test::in_child([] { test::LogCapture quiet(3); return platformparam_init(), std::string(); });
            Files next = files(dir.rw());
            for (auto& [name, text] : saved)
                EXPECT_TRUE(old_or_new(next, name, text, now_new[name])) << name << " after call " << at << " failed";
            test::run_command("rm -rf " + dir.path() + "/fault");
        }
        reset(saved);
        std::printf("write faults: each of the %d calls of a save sweep%s failed in turn, 0 changes lost\n", calls,
                    linked ? " rewriting in place" : "");
    }
}

} // namespace
