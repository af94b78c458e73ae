// Settings survive crashes, power cuts, full disks and damaged files: every
// file the library writes is replaced whole or not at all.
#include "para_internal.h"
#include "para_sys.h"
#include "scenario.h"
#include "support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <algorithm>
#include <atomic>
#include <iostream>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>
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
    std::string map = *test::read_file(dir.ro() + "/www2json.json");
    map.replace(map.find("\"misc\""), 6, "\"misc\", \"cam\"");
    test::write_file(dir.ro() + "/www2json.json", map);
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
template <int E> bool rename_fails(const std::string&)
{ para::sys::calls.rename = [](const char*, const char*) { return errno = E, -1; }; return true; }
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
    // A name change the file system refuses (another mount, a sticky directory): rewritten in place.
    {"rename_exdev", plain, rename_fails<EXDEV>, "f", "new", ""},
    {"rename_eperm", plain, rename_fails<EPERM>, "f", "new", ""},
    {"stdin_closed", plain, [](const std::string&) { return close(0) == 0; }, "f", "new", "", true}, // the temporary file is fd 0
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

/* An in-place rewrite on a nearly full disk: room for its journal, not for
 * the longer text. The file is never left mixing old and new bytes. */
TEST(Durable, InPlaceRewriteOnAFullDiskKeepsTheOldFileWhole)
{
    test::TempDir dir;
    std::string path = hardlink(dir.rw()), text(10000, 'n');
    std::string got = test::in_child([&] {
        test::LogCapture log(PARA_ERR);
        test::full_disk(text.size() + 2000);
        int r = para::durable_write("caller", path.c_str(), text.data(), text.size());
        return std::to_string(r) + " " + log.dump();
    });
    EXPECT_NE(got.find("the previous file is kept"), std::string::npos) << got;
    std::string now = test::read_file(path).value_or("(none)");
    EXPECT_TRUE(now == "old") << now.size() << " bytes: " << now.substr(0, 24);
}


/* ---- power cuts ----------------------------------------------------------
 * The file-system calls of an action are played onto a model of the tree,
 * which after each call adds the states a power cut could leave, under a
 * conservative model: data not yet flushed by fsync is missing, cut to its
 * new size, or new only up to some 4 KiB page; a create, rename, unlink or
 * mkdir not yet followed by an fsync of its directory may be missing, in any
 * combination. The library starts on each state: every module must hold all
 * its old or all its new values. */

std::string num(long long n) { return std::to_string(n); }
void put(std::string& out, const std::string& f) { out += num(f.size()) + ":" + f; }
std::string take(const std::string& in, size_t& at)
{
    size_t colon = in.find(':', at), len = std::stoul(in.substr(at, colon - at));
    return at = colon + 1 + len, in.substr(colon + 1, len);
}
std::string parent_of(const std::string& rel) { size_t s = rel.rfind('/'); return s == std::string::npos ? "" : rel.substr(0, s); }

/* Names of inodes under a root, and per inode its content on storage
 * (synced) and in the page cache (now). */
struct Inode { bool dir = false; std::string synced, now; };
struct NameOp { char kind; std::string a, b; int ino; std::set<std::string> unflushed; };
using Names = std::map<std::string, int>; // relative path ("" the root) -> inode

struct PowerModel {
    std::string root;
    bool fsync_counts; // false: the self-check, where no fsync protects anything
    std::vector<Inode> inodes;
    Names base, live;
    std::vector<NameOp> ops;
    std::map<int, std::pair<int, std::string>> fds; // fd -> inode, path
    std::set<std::string> states;
    std::mt19937 rnd{20141006};

    PowerModel(const std::string& r, bool fsync_counts) : root(r), fsync_counts(fsync_counts)
    {
        std::map<ino_t, int> seen;
        live[""] = add(true);
        for (auto& e : std::filesystem::recursive_directory_iterator(root)) {
            struct stat st{};
            lstat(e.path().c_str(), &st);
            if (!seen.count(st.st_ino))
                seen[st.st_ino] = add(S_ISDIR(st.st_mode), S_ISREG(st.st_mode) ? *test::read_file(e.path()) : "");
            live[*rel(e.path())] = seen[st.st_ino];
        }
        base = live;
    }
    int add(bool dir, const std::string& text = "") { return inodes.push_back({dir, text, text}), static_cast<int>(inodes.size() - 1); }
    std::optional<std::string> rel(const std::string& path) const
    {
        std::string p = std::filesystem::path(path + "/").lexically_normal().string();
        return p.compare(0, root.size() + 1, root + "/") ? std::nullopt : std::optional(p.substr(root.size() + 1, p.size() - root.size() - 2));
    }
    void name_op(char kind, const std::string& a, const std::string& b = "", int ino = 0)
    {
        ops.push_back({kind, a, b, ino, {parent_of(a), parent_of(b.empty() ? a : b)}});
    }

    /* One call that succeeded: 'o'pen/create (path, fd, truncated), 'w'rite
     * (fd, offset, bytes), 'f'truncate (fd, size), 's'ync (fd), 'c'lose (fd),
     * 'r'ename (from, to), 'u'nlink (path), 'd' mkdir (path). */
    void call(char kind, const std::vector<std::string>& f)
    {
        auto a = std::string("orud").find(kind) != std::string::npos ? rel(f[0]) : std::nullopt;
        auto fd = std::string("wfsc").find(kind) != std::string::npos ? fds.find(std::stoi(f[0])) : fds.end();
        Inode* in = fd == fds.end() ? nullptr : &inodes[fd->second.first];
        if (kind == 'o' && a) {
            if (!live.count(*a))
                live[*a] = add(false), name_op('o', *a, "", live[*a]);
            fds[std::stoi(f[1])] = {live[*a], *a};
            inodes[live[*a]].now.resize(f[2] == "0" ? inodes[live[*a]].now.size() : 0);
        } else if (kind == 'w' && in) {
            size_t at = std::stoul(f[1]);
            in->now.resize(std::max(in->now.size(), at + f[2].size()));
            in->now.replace(at, f[2].size(), f[2]);
        } else if (kind == 'f' && in) {
            in->now.resize(std::stoul(f[1]));
        } else if (kind == 's' && in && fsync_counts) {
            in->synced = in->now;
            for (auto& op : ops)
                op.unflushed.erase(fd->second.second);
        } else if (kind == 'c' && in) {
            fds.erase(fd);
        } else if (kind == 'r' && a && rel(f[1])) {
            live[*rel(f[1])] = live[*a], live.erase(*a), name_op('r', *a, *rel(f[1]));
        } else if (kind == 'u' && a) {
            live.erase(*a), name_op('u', *a);
        } else if (kind == 'd' && a) {
            live[*a] = add(true), name_op('d', *a, "", live[*a]);
        }
        // A kill now, then power cuts at random (a fixed seed).
        states.insert(state([](size_t) { return true; }, [&](int i) { return inodes[i].now; }));
        for (int k = 0; k < 8; ++k)
            states.insert(state([&](size_t) { return rnd() % 2 == 0; }, [&](int i) {
                const Inode& in = inodes[i];
                std::vector<std::string> v{in.synced, in.now, in.synced};
                v[2].resize(in.now.size()); // the new size reached storage, the data did not
                for (size_t page = 4096; page < std::max(in.synced.size(), in.now.size()); page += 4096)
                    v.push_back(in.now.substr(0, page) + (in.synced.size() > page ? in.synced.substr(page) : ""));
                return v[rnd() % v.size()];
            }));
    }

    /* One state a power cut now could leave: keep(i) tells whether the
     * unflushed name change i reached storage, text(inode) what of its data. */
    template <typename Keep, typename Text> std::string state(Keep keep, Text text) const
    {
        Names n = base;
        for (size_t i = 0; i < ops.size(); ++i) {
            const NameOp& op = ops[i];
            bool dir_there = n.count(parent_of(op.b.empty() ? op.a : op.b)) > 0;
            if (!op.unflushed.empty() && !keep(i))
                continue;
            if ((op.kind == 'o' || op.kind == 'd') && dir_there)
                n[op.a] = op.ino;
            if (op.kind == 'r' && dir_there && n.count(op.a))
                n[op.b] = n[op.a], n.erase(op.a);
            if (op.kind == 'u')
                n.erase(op.a);
        }
        std::string out; // path, inode, "d" or "f" and the text, per name in path order
        for (auto& [path, ino] : n)
            if (!path.empty())
                put(out, path), put(out, num(ino)), put(out, inodes[ino].dir ? "d" : "f" + text(ino));
        return out;
    }
};

/* Puts a state back under root: directories, then files, hard links kept. */
void materialize(const std::string& root, const std::string& st)
{
    for (auto& e : std::filesystem::directory_iterator(root))
        std::filesystem::remove_all(e.path());
    std::map<std::string, std::string> first; // inode -> first path
    for (size_t at = 0; at < st.size();) {
        std::string path = root + "/" + take(st, at), ino = take(st, at), body = take(st, at);
        if (body == "d")
            mkdir(path.c_str(), 0755);
        else if (first.count(ino))
            link(first[ino].c_str(), path.c_str());
        else
            test::write_file(path, body.substr(1)), first[ino] = path;
    }
}

/* Plays every call that changes stored files onto the model as well. */
std::mutex model_mutex;
PowerModel* model;
template <typename... F> void seen(char kind, const F&... field) { model->call(kind, {std::string(field)...}); }
void record_calls(PowerModel* m)
{
    using para::sys::defaults;
    using L = std::lock_guard<std::mutex>;
    auto& c = para::sys::calls;
    model = m;
    c.open = [](const char* p, int fl, mode_t m) { L l(model_mutex); int fd = defaults().open(p, fl, m); return fd >= 0 ? seen('o', p, num(fd), num(fl & O_TRUNC)), fd : fd; };
    c.mkostemp = [](char* t, int fl) { L l(model_mutex); int fd = defaults().mkostemp(t, fl); return fd >= 0 ? seen('o', t, num(fd), "0"), fd : fd; };
    c.pwrite = [](int fd, const void* b, size_t n, off_t at) { L l(model_mutex); ssize_t r = defaults().pwrite(fd, b, n, at); return r > 0 ? seen('w', num(fd), num(at), std::string(static_cast<const char*>(b), r)), r : r; };
    c.ftruncate = [](int fd, off_t n) { L l(model_mutex); int r = defaults().ftruncate(fd, n); return r ? r : (seen('f', num(fd), num(n)), r); };
    c.fsync = [](int fd) { L l(model_mutex); int r = defaults().fsync(fd); return r ? r : (seen('s', num(fd)), r); };
    c.close = [](int fd) { L l(model_mutex); return seen('c', num(fd)), defaults().close(fd); };
    c.rename = [](const char* a, const char* b) { L l(model_mutex); int r = defaults().rename(a, b); return r ? r : (seen('r', a, b), r); };
    c.unlink = [](const char* a) { L l(model_mutex); int r = defaults().unlink(a); return r ? r : (seen('u', a), r); };
    c.mkdir = [](const char* a, mode_t m) { L l(model_mutex); int r = defaults().mkdir(a, m); return r ? r : (seen('d', a), r); };
}

/* from, to: change_all values before and by the action (0: none); layout: 0
 * the device, 1 empty rw, 2 every current file hard-linked, 3 the older
 * factory-store file, 4 the older misc layout; fsync_counts false: the
 * self-check, which must see losses. */
struct PowerCase { const char* name; int from, to, layout; bool fsync_counts; };
class PowerCuts : public ::testing::TestWithParam<PowerCase> {};

TEST_P(PowerCuts, EveryModuleKeepsAllOldOrAllNewValues)
{
    const PowerCase& pc = GetParam();
    test::TempDir dir;
    make_device(dir, pc.layout == 4);
    if (pc.from)
        test::in_child([&] { return start(dir), change_all(pc.from), platformparam_stop(1), ""; });
    if (pc.layout == 2)
        for (auto& e : std::filesystem::recursive_directory_iterator(dir.rw()))
            if (e.is_regular_file())
                link(e.path().c_str(), (e.path().string() + ".link").c_str());
    if (pc.layout == 3)
        test::write_file(dir.rw() + "/isp_odm.json", R"({"version":1,"crash_a":1000,"crash_b":2000})");
    PowerModel model(dir.path(), pc.fsync_counts);
    std::string start_state = model.state([](size_t) { return true; }, [&](int i) { return model.inodes[i].now; });
    auto before = load_in_child(dir);
    materialize(dir.path(), start_state); // as it was before that load
    std::string states = test::in_child([&] {
        record_calls(&model), start(dir);
        if (pc.to)
            change_all(pc.to), platformparam_save();
        std::lock_guard l(model_mutex);
        std::string out;
        for (const std::string& st : model.states)
            put(out, st);
        return out;
    });
    auto after = load_in_child(dir);

    std::vector<std::string> tried;
    for (size_t at = 0; at < states.size();)
        tried.push_back(take(states, at));
    size_t all = tried.size();
    std::shuffle(tried.begin(), tried.end(), std::mt19937(20141006));
    tried.resize(std::min<size_t>(all, 400)); // a sample where there are too many
    int losing = 0;
    for (const std::string& st : tried) {
        materialize(dir.path(), st);
        std::string lost;
        for (auto& [m, v] : load_in_child(dir))
            if (v != before[m] && v != after[m])
                lost += " " + m + ": " + v;
        if (!lost.empty() && ++losing < 4 && pc.fsync_counts)
            ADD_FAILURE() << "values lost:" << lost;
    }
    std::cout << tried.size() << " of " << all << " power-cut states tried, " << losing << " lose values\n";
    EXPECT_TRUE(pc.fsync_counts ? losing == 0 : losing > 0);
}

const PowerCase kPowerCases[] = {{"save", 1, 2, 0, true}, {"first_save", 0, 2, 1, true}, {"in_place_shorter", 1, 2, 2, true},
    {"in_place_longer", 2, 1, 2, true}, {"older_factory_store", 0, 0, 3, true}, {"older_misc_layout", 1, 2, 4, true},
    {"self_check_without_fsync", 1, 2, 0, false}};
DURABLE_SUITE(Durable, PowerCuts, kPowerCases);

/* A writer that may write a file but not give it away (not root, the file
 * another user's) rewrites it where it is: the owner stays. */
TEST(Durable, AFileKeepsItsOwnerWhenTheWriterCannotGiveItAway)
{
    test::TempDir dir;
    std::string path = plain(dir.rw());
    if (chmod(path.c_str(), 0666) || chown(path.c_str(), 1234, 1234) || chmod(dir.rw().c_str(), 0777) ||
        chmod(dir.path().c_str(), 0755))
        GTEST_SKIP() << "cannot hand the file to another user here: " << strerror(errno);
    std::string got = test::in_child([&] {
        return setgid(65534) || setuid(65534) ? "skip" : std::to_string(para::durable_write("caller", path.c_str(), "new", 3));
    });
    if (got == "skip")
        GTEST_SKIP() << "cannot become another user here";
    struct stat st{};
    stat(path.c_str(), &st);
    EXPECT_EQ(got, "0");
    EXPECT_EQ(test::read_file(path), "new");
    EXPECT_EQ(st.st_uid, 1234u);
}

/* Two writers of one file without a lock (two processes, or a first save
 * of a new .conf file): neither removes the other's temporary file, so every
 * write lands and the file always holds one whole text. */
TEST(Durable, WritersWithoutALockNeverBreakEachOther)
{
    test::TempDir dir;
    std::string path = dir.rw() + "/shared.conf";
    std::atomic<int> failed{0}, torn{0};
    auto writer = [&](char c) {
        std::string text(3000, c);
        for (int i = 0; i < 300; ++i) {
            failed += para::durable_write("writer", path.c_str(), text.data(), text.size(), false) != 0;
            std::string now = test::read_file(path).value_or("");
            torn += now.size() != 3000 || now.find_first_not_of(now[0]) != std::string::npos;
        }
    };
    std::thread a(writer, 'a'), b(writer, 'b');
    a.join(), b.join();
    EXPECT_EQ(failed.load(), 0);
    EXPECT_EQ(torn.load(), 0);
}

// Temporary files of a killed save.
SCENARIO_TESTS(Leftovers, "leftovers", false);

/* Settings files the library could not use are never lost. A damaged current
 * file is set aside as "<file>.bad" (over older evidence) before the first
 * save replaces it; the file of a module that did not load (its range or
 * read-only file missing or broken) stays byte for byte, through a forced
 * save. Every store of the example device plus the JSON module "cam". */
struct Unusable {
    const char* name;
    const char* file;    // in the read-write directory
    std::string damaged; // its text after a power cut or a bad write ("": text files have none)
    const char* unload;  // read-only file whose absence keeps the module from loading
    bool old_misc = false;
};
class Leftover : public ::testing::TestWithParam<Unusable> {};
TEST_P(Leftover, NeverLost)
{
    const Unusable& c = GetParam();
    // Starts and stops the example with `text` as the file; the log and the file after.
    auto run = [&](test::TempDir& dir, const std::string& text, bool unloaded) {
        make_device(dir, c.old_misc);
        mkdir((dir.rw() + "/persist").c_str(), 0755);
        test::write_file(dir.rw() + "/" + c.file + ".bad", "older evidence");
        test::write_file(dir.rw() + "/" + c.file, text);
        if (unloaded)
            unlink((dir.ro() + "/" + c.unload).c_str());
        return test::in_child([&] {
            test::LogCapture log(PARA_ERR);
            start(dir), para_set_odm_int(const_cast<char*>("x"), 1), platformparam_stop(1);
            return log.dump();
        });
    };
    if (!c.damaged.empty()) {
        test::TempDir dir;
        std::string log = run(dir, c.damaged, false), path = dir.rw() + "/" + c.file;
        EXPECT_EQ(test::read_file(path + ".bad"), c.damaged) << log;
        EXPECT_NE(log.find(std::string(c.file) + " cannot be read as settings, kept as"), std::string::npos) << log;
        EXPECT_EQ(test::read_file(path).value_or("").substr(0, 1), "{") << "rewritten whole";
    }
    if (c.unload) {
        test::TempDir dir;
        const std::string held = "level=7\nmode=off\n";
        std::string log = run(dir, held, true);
        EXPECT_EQ(test::read_file(dir.rw() + "/" + c.file), held) << log;
    }
}
const Unusable kUnusable[] = {
    {"video", "video_cur.json", "{\n\t\"video0\":\t{\n\t\t\"gop\":\t1", "video_range.json"},
    {"audio", "audio_cur.json", std::string(64, '\0'), "audio_range.json"},
    {"af", "af_cur.json", " ", "af_range.json"},
    {"isp", "isp_cur.json", "isp0 bright=3\n", "isp_range.json"},
    {"misc", "misc_cur.json", "{\"vi_frame", "misc_range.json", true},
    {"odm", "persist/odm.json", "{\"version\":1,\"a", nullptr},
    {"misc_conf", "misc.conf", "", "misc.conf"},
    {"cam", "cam.conf", "", "cam_range.json"},
};
DURABLE_SUITE(Stores, Leftover, kUnusable);

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
