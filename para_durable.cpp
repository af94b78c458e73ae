/* Durable writes. Every file the library writes goes through durable_write,
 * and every name it creates, renames or removes through durable_rename,
 * durable_mkdir or durable_unlink. The promise: after a crash or a power cut
 * at any point, a file holds its old or its new content, whole, and a name
 * change counts as done only once its directory is on storage.
 *
 * Every system call goes through para::sys::calls, which tests replace to
 * fail, kill or record any single step. */
#include "para_internal.h"
#include "para_sys.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace para {

using sys::calls;

Fd::~Fd()
{
    if (fd >= 0)
        calls.close(fd);
}

namespace {

/* Runs a call again for as long as a signal interrupts it. */
template <typename F>
auto again(F f) -> decltype(f())
{
    decltype(f()) r;
    while ((r = f()) < 0 && errno == EINTR) {
    }
    return r;
}

std::string parent_dir(std::string path)
{
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string base_name(const std::string& path)
{
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

int fsync_dir(const std::string& dir)
{
    Fd d{again([&] { return calls.open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0); })};
    if (d.fd < 0)
        return -1;
    return again([&] { return calls.fsync(d.fd); });
}

bool write_all_at(int fd, const char* data, size_t len, off_t at)
{
    while (len > 0) {
        ssize_t n = again([&] { return calls.pwrite(fd, data, len, at); });
        if (n <= 0) {
            if (n == 0)
                errno = ENOSPC;
            return false;
        }
        data += n;
        at += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

/* A write past the file-size limit would raise SIGXFSZ, which ends the
 * process where the host leaves it at its default: refuse beforehand. */
bool within_size_limit(size_t len)
{
    rlimit rl{};
    if (getrlimit(RLIMIT_FSIZE, &rl) != 0 || rl.rlim_cur == RLIM_INFINITY || len <= rl.rlim_cur)
        return true;
    errno = EFBIG;
    return false;
}

mode_t new_file_mode()
{
    static const mode_t mode = [] {
        // umask can only be read by setting it; /proc tells it without a race.
        mode_t mask = 022;
        if (FILE* f = std::fopen("/proc/self/status", "r")) {
            char line[128];
            while (std::fgets(line, sizeof line, f))
                if (std::sscanf(line, "Umask: %o", &mask) == 1)
                    break;
            std::fclose(f);
        }
        return static_cast<mode_t>(0666 & ~mask);
    }();
    return mode;
}

/* Temporary files older than this belong to a writer that is gone. The
 * coarse clock is the one file systems stamp with: the precise clock runs up
 * to a tick ahead of it, which would make a temp created just after start
 * look older than the process. */
const timespec process_start = [] {
    timespec t{};
    clock_gettime(CLOCK_REALTIME_COARSE, &t);
    return t;
}();

bool older_than_process(const struct stat& st)
{
    return st.st_mtim.tv_sec < process_start.tv_sec ||
           (st.st_mtim.tv_sec == process_start.tv_sec && st.st_mtim.tv_nsec < process_start.tv_nsec);
}

/* Temporary files are "<name>.tmp-XXXXXX" beside their target: no module
 * loads such a name. The next write of the target removes those a crash left
 * behind, but only those older than this process: a younger one may belong
 * to another writer still at work. */
void remove_stale_temps(const std::string& dir, const std::string& base)
{
    DIR* d = opendir(dir.c_str());
    if (!d)
        return;
    std::string prefix = base + ".tmp-";
    while (dirent* e = readdir(d)) {
        if (std::strncmp(e->d_name, prefix.c_str(), prefix.size()) != 0 ||
            std::strlen(e->d_name) != prefix.size() + 6)
            continue;
        std::string tmp = dir + "/" + e->d_name;
        struct stat st{};
        if (calls.lstat(tmp.c_str(), &st) == 0 && S_ISREG(st.st_mode) && older_than_process(st))
            calls.unlink(tmp.c_str());
    }
    closedir(d);
}

/* ---- the redo journal of in-place rewrites ------------------------------ */

constexpr char kJournalMagic[] = "para journal 1\n";

uint64_t fnv1a(const std::string& a, const char* b, size_t blen)
{
    uint64_t h = 1469598103934665603ULL;
    auto add = [&h](const char* p, size_t n) {
        for (size_t i = 0; i < n; ++i)
            h = (h ^ static_cast<unsigned char>(p[i])) * 1099511628211ULL;
    };
    add(a.data(), a.size());
    add("\n", 1);
    add(b, blen);
    return h;
}

/* Where the journal of a file may be: beside it, or in the read-write
 * directory under a name that tells apart files of the same name. */
std::string journal_beside(const std::string& target) { return target + ".journal"; }

std::string journal_in_rw_dir(const std::string& target)
{
    const char* rw = para_profile.param_rwfile_dir;
    if (!rw || !*rw)
        return {};
    char tag[20];
    std::snprintf(tag, sizeof tag, "%08x", static_cast<unsigned>(fnv1a(target, "", 0)));
    return std::string(rw) + "/" + base_name(target) + "-" + tag + ".journal";
}

std::string journal_header(const std::string& target, const char* data, size_t len)
{
    char numbers[64];
    std::snprintf(numbers, sizeof numbers, "%zu %016llx\n", len,
                  static_cast<unsigned long long>(fnv1a(target, data, len)));
    return kJournalMagic + target + "\n" + numbers;
}

enum class Journal { none, complete, partial, unreadable };

/* Reads the journal at jpath for target: its content when complete. */
Journal read_journal(para::Caller func, const std::string& jpath, const std::string& target,
                     std::string& content)
{
    FileText f = read_file(func, jpath.c_str()); // a failure is logged there
    if (f.fault == ReadFault::missing)
        return Journal::none;
    if (f.fault != ReadFault::none)
        return Journal::unreadable;
    std::string text(f.text.get(), f.len);
    size_t magic = sizeof kJournalMagic - 1;
    size_t name_end = text.find('\n', magic);
    size_t head_end = name_end == std::string::npos ? name_end : text.find('\n', name_end + 1);
    if (text.compare(0, magic, kJournalMagic) != 0 || head_end == std::string::npos)
        return Journal::partial;
    if (text.compare(magic, name_end - magic, target) != 0)
        return Journal::none; // another file's journal under a colliding name
    size_t len = 0;
    unsigned long long sum = 0;
    if (std::sscanf(text.c_str() + name_end + 1, "%zu %llx", &len, &sum) != 2 ||
        text.size() - head_end - 1 != len)
        return Journal::partial;
    content = text.substr(head_end + 1);
    return fnv1a(target, content.data(), content.size()) == sum ? Journal::complete
                                                                : Journal::partial;
}

} // namespace

/* ---- shared steps ------------------------------------------------------ */

bool resolve_target(para::Caller func, const char* path, std::string& out)
{
    out = path;
    for (int hops = 0; hops < 40; ++hops) {
        struct stat st{};
        if (calls.lstat(out.c_str(), &st) != 0 || !S_ISLNK(st.st_mode))
            return true;
        char buf[PATH_MAX];
        ssize_t n = calls.readlink(out.c_str(), buf, sizeof buf - 1);
        if (n < 0)
            break;
        buf[n] = '\0';
        out = buf[0] == '/' ? std::string(buf) : out.substr(0, out.rfind('/') + 1) + buf;
    }
    PARA_LOG_FN(PARA_ERR, func, "%s: cannot follow its links, not written\n", path);
    return false;
}

int open_locked(const std::string& target, int flags, struct stat& st, const char** step)
{
    for (;;) {
        *step = "open";
        Fd f{again([&] { return calls.open(target.c_str(), flags | O_NONBLOCK | O_CLOEXEC, 0); })};
        if (f.fd < 0)
            return -1;
        *step = "lock";
        if (again([&] { return calls.flock(f.fd, LOCK_EX); }) != 0 || calls.fstat(f.fd, &st) != 0)
            return -1;
        // A cooperating writer may have renamed a new file into place while
        // we waited for the lock on the old one: that lock guards nothing,
        // so start again (each round means another writer finished).
        struct stat now{};
        if (calls.stat(target.c_str(), &now) == 0 && now.st_ino == st.st_ino &&
            now.st_dev == st.st_dev)
            return f.release();
    }
}

/* ---- one durable write ------------------------------------------------- */

namespace {

struct Write {
    para::Caller func;
    const char* data;
    size_t len;
    std::string target;
    struct stat st{};
    bool exists = false;
    int fd = -1; /* a locked descriptor of the target, when one is held */

    /* Nothing of the target was touched: its previous content stands. */
    int fail(const char* step, int result = kWriteFailed)
    {
        int err = errno;
        if (exists)
            PARA_LOG_FN(PARA_ERR, func, "%s not written (%s): %s; the previous file is kept\n",
                        target.c_str(), step, strerror(err));
        else
            PARA_LOG_FN(PARA_ERR, func, "%s not written (%s): %s\n", target.c_str(), step,
                        strerror(err));
        errno = err;
        return result;
    }

    /* Step 1: what the path names, followed through its links. */
    int look(const char* path)
    {
        if (!path || !*path || !resolve_target(func, path, target))
            return kNotOpened;
        exists = calls.stat(target.c_str(), &st) == 0;
        if (!exists && errno != ENOENT)
            return fail("stat", kNotOpened);
        if (exists && !S_ISREG(st.st_mode)) {
            PARA_LOG_FN(PARA_ERR, func, "%s is not a regular file, not written\n", target.c_str());
            return kNotOpened;
        }
        return 0;
    }

    /* Step 2a: a sibling temporary file, flushed, renamed over the target,
     * then the directory flushed. Falls back to the in-place rewrite where
     * a rename would lose something: the owner, a bind mount, a directory
     * we may not write. */
    int replace()
    {
        std::string dir = parent_dir(target), tmp = target + ".tmp-XXXXXX";
        remove_stale_temps(dir, base_name(target));
        Fd out{again([&] { return calls.mkostemp(tmp.data(), O_CLOEXEC); })};
        if (out.fd < 0)
            return exists && (errno == EACCES || errno == EPERM || errno == EROFS)
                       ? in_place()
                       : fail("create", kNotOpened);
        auto drop = [&](const char* step) {
            int err = errno;
            calls.unlink(tmp.c_str());
            errno = err;
            return step;
        };
        // Only a privileged writer may give a file away; where it cannot,
        // the file keeps its owner by being rewritten where it is.
        if (exists && (st.st_uid != geteuid() || st.st_gid != getegid()) &&
            calls.fchown(out.fd, st.st_uid, st.st_gid) != 0)
            return drop("owner"), in_place();
        if (calls.fchmod(out.fd, exists ? (st.st_mode & 07777) : new_file_mode()) != 0)
            return fail(drop("mode"));
        if (!within_size_limit(len) || !write_all_at(out.fd, data, len, 0))
            return fail(drop("write"));
        if (again([&] { return calls.fsync(out.fd); }) != 0)
            return fail(drop("flush"));
        if (again([&] { return calls.rename(tmp.c_str(), target.c_str()); }) != 0) {
            int err = errno;
            drop("rename");
            if (exists && (err == EBUSY || err == EXDEV || err == EPERM))
                return in_place(); // a bind-mounted file cannot be renamed over
            errno = err;
            return fail("rename");
        }
        if (fsync_dir(dir) != 0) {
            // The new content is in place; only its name may not be on storage yet.
            PARA_LOG_FN(PARA_ERR, func, "%s written, flushing its directory failed: %s\n",
                        target.c_str(), strerror(errno));
            return kWriteFailed;
        }
        return drop_journals() ? 0 : kWriteFailed;
    }

    /* A journal outlives its rewrite only where removing it failed. Left
     * there, the next start would put its text back over whatever was saved
     * after it, so a save is only done once no journal of the file is left. */
    bool drop_journals()
    {
        for (const std::string& place : {journal_beside(target), journal_in_rw_dir(target)}) {
            struct stat js{};
            std::string text;
            if (place.empty() || (calls.lstat(place.c_str(), &js) != 0 && errno == ENOENT))
                continue;
            if (read_journal(func, place, target, text) != Journal::none &&
                durable_unlink(func, place.c_str()) != 0)
                return false;
        }
        return true;
    }

    /* Writes the journal of this rewrite, flushed with its directory, into
     * the first place that takes it. */
    bool journal(std::string& jpath)
    {
        std::string header = journal_header(target, data, len);
        for (const std::string& place : {journal_beside(target), journal_in_rw_dir(target)}) {
            if (place.empty())
                continue;
            Fd j{again([&] {
                return calls.open(place.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            })};
            if (j.fd < 0 && (errno == EACCES || errno == EPERM || errno == EROFS))
                continue;
            jpath = place;
            bool ok = j.fd >= 0 && within_size_limit(header.size() + len) &&
                      write_all_at(j.fd, header.data(), header.size(), 0) &&
                      write_all_at(j.fd, data, len, static_cast<off_t>(header.size())) &&
                      again([&] { return calls.fsync(j.fd); }) == 0 && fsync_dir(parent_dir(place)) == 0;
            if (!ok) {
                int err = errno;
                if (j.fd >= 0)
                    calls.unlink(place.c_str());
                errno = err;
            }
            return ok;
        }
        return false;
    }

    /* Step 2b: the file rewritten where it is, made crash-safe by a redo
     * journal (see journal_replay), under an exclusive lock. */
    int in_place()
    {
        Fd own;
        if (fd < 0) {
            const char* step;
            if ((own.fd = open_locked(target, O_WRONLY, st, &step)) < 0)
                return fail(step, kNotOpened);
            fd = own.fd;
        }
        std::string jpath;
        if (!within_size_limit(len))
            return fail("rewrite in place");
        if (!journal(jpath))
            return fail(jpath.empty() ? "no writable place for its journal" : "journal");
        // Reserving the space first keeps a full disk from stopping the
        // rewrite halfway.
        if (static_cast<off_t>(len) > st.st_size &&
            calls.fallocate(fd, FALLOC_FL_KEEP_SIZE, st.st_size, static_cast<off_t>(len) - st.st_size) != 0 &&
            errno != EOPNOTSUPP && errno != ENOSYS) {
            int err = errno;
            durable_unlink(func, jpath.c_str());
            errno = err;
            return fail("rewrite in place");
        }
        if (!write_all_at(fd, data, len, 0) ||
            again([&] { return calls.ftruncate(fd, static_cast<off_t>(len)); }) != 0 ||
            again([&] { return calls.fsync(fd); }) != 0) {
            PARA_LOG_FN(PARA_ERR, func, "%s not written (rewrite in place): %s; %s finishes it "
                        "before the file is next read\n", target.c_str(), strerror(errno), jpath.c_str());
            return kWriteFailed;
        }
        return drop_journals() ? 0 : kWriteFailed;
    }
};

} // namespace

int durable_write(para::Caller func, const char* path, const void* data, size_t len, bool lock,
                  int held_fd)
{
    Write w{func, static_cast<const char*>(data), len, {}};
    if (int r = w.look(path); r != 0)
        return r;
    Fd locked;
    w.fd = held_fd;
    if (w.exists && lock && held_fd < 0) {
        const char* step;
        if ((locked.fd = open_locked(w.target, O_RDWR, w.st, &step)) < 0)
            return w.fail(step, kNotOpened);
        w.fd = locked.fd;
    }
    // A second name of the file would keep the old content after a rename.
    if (w.exists && w.st.st_nlink > 1)
        return w.in_place();
    return w.replace();
}

bool journal_replay(para::Caller func, const char* path)
{
    std::string target;
    if (!path || !*path || !resolve_target(func, path, target))
        return true; // the reader will say what is wrong with the path
    for (const std::string& jpath : {journal_beside(target), journal_in_rw_dir(target)}) {
        if (jpath.empty())
            continue;
        std::string content;
        switch (read_journal(func, jpath, target, content)) {
        case Journal::none:
            continue;
        case Journal::unreadable:
            return false;
        case Journal::partial:
            // Cut short while it was written: the file itself was never touched.
            PARA_LOG_FN(PARA_ERR, func, "%s is incomplete, dropped; %s is as it was\n",
                        jpath.c_str(), target.c_str());
            durable_unlink(func, jpath.c_str());
            continue;
        case Journal::complete:
            break;
        }
        struct stat st{};
        const char* step;
        Fd fd{open_locked(target, O_WRONLY, st, &step)};
        bool ok = fd.fd >= 0 && write_all_at(fd.fd, content.data(), content.size(), 0) &&
                  again([&] { return calls.ftruncate(fd.fd, static_cast<off_t>(content.size())); }) == 0 &&
                  again([&] { return calls.fsync(fd.fd); }) == 0;
        if (!ok) {
            PARA_LOG_FN(PARA_ERR, func, "%s: finishing its interrupted rewrite failed: %s\n",
                        target.c_str(), strerror(errno));
            return false;
        }
        PARA_LOG_FN(PARA_ERR, func, "%s: an interrupted rewrite finished from %s\n",
                    target.c_str(), jpath.c_str());
        durable_unlink(func, jpath.c_str());
    }
    return true;
}

/* ---- name changes ------------------------------------------------------ */

namespace {

int name_change_done(para::Caller func, const char* what, const char* path, int r,
                     const std::string& dir, const std::string& dir2 = std::string())
{
    if (r == 0 && (fsync_dir(dir) != 0 || (!dir2.empty() && dir2 != dir && fsync_dir(dir2) != 0))) {
        PARA_LOG_FN(PARA_ERR, func, "%s %s: flushing its directory failed: %s\n", what, path,
                    strerror(errno));
        return -1;
    }
    if (r != 0)
        PARA_LOG_FN(PARA_ERR, func, "%s %s failed: %s\n", what, path, strerror(errno));
    return r == 0 ? 0 : -1;
}

} // namespace

int durable_rename(para::Caller func, const char* from, const char* to)
{
    int r = again([&] { return calls.rename(from, to); });
    return name_change_done(func, "rename to", to, r, parent_dir(to), parent_dir(from));
}

int durable_mkdir(para::Caller func, const char* path, mode_t mode)
{
    int r = again([&] { return calls.mkdir(path, mode); });
    return name_change_done(func, "mkdir", path, r, parent_dir(path));
}

int durable_unlink(para::Caller func, const char* path)
{
    int r = again([&] { return calls.unlink(path); });
    return name_change_done(func, "unlink", path, r, parent_dir(path));
}

} // namespace para
