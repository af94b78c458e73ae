/* Private helpers shared by the library's modules. Not installed. */
#ifndef PARA_INTERNAL_H
#define PARA_INTERNAL_H

#include "para.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include <sys/stat.h>

/* Every line of the library carries "[para <function> +<line>]" and its own
 * line feeds, the line being one of that function in its own file. The level
 * test is repeated here so disabled lines cost no formatting. A shared helper
 * logs for the function the message belongs to: it takes a para::Caller,
 * made from the caller's __func__ where the call is written, which carries
 * that call's line along (through further helpers too). */
namespace para {
struct Caller {
    const char* fn;
    int line;
    Caller(const char* f, int l = __builtin_LINE()) : fn(f), line(l) {}
    operator const char*() const { return fn; }
};
} // namespace para
#define PARA_LOG_FN(level, who, fmt, ...)                                          \
    do {                                                                           \
        if (para::log_level() >= (level)) {                                        \
            const para::Caller para_log_at_(who);                                  \
            dov_traceout((level), "[para %s +%-4d]" fmt, para_log_at_.fn,           \
                         para_log_at_.line, ##__VA_ARGS__);                        \
        }                                                                          \
    } while (0)
#define PARA_LOG(level, fmt, ...) PARA_LOG_FN(level, __func__, fmt, ##__VA_ARGS__)


namespace para {
/* The host may change the level while the worker logs: read it whole. */
inline int log_level()
{
    return __atomic_load_n(&dbgout_profile.para_level, __ATOMIC_RELAXED);
}
} // namespace para

#define PARA_ERR 3
#define PARA_INFO 6
#define PARA_DETAIL 7

#define PARA_PATH_MAX 128

namespace para {

/* Owning handle for cJSON trees. */
struct JsonDeleter {
    void operator()(cJSON* j) const { cJSON_Delete(j); }
};
using JsonPtr = std::unique_ptr<cJSON, JsonDeleter>;

struct FreeDeleter {
    void operator()(void* p) const { free(p); }
};
using CharPtr = std::unique_ptr<char, FreeDeleter>;

/* dir + name (+ suffix) into a PARA_PATH_MAX buffer. A path that does not
 * fit is refused with a log line under who (by default the calling function
 * and line): false, and out holds "". */
bool make_path(char (&out)[PARA_PATH_MAX], const char* dir, const char* name,
               const char* suffix = nullptr, Caller who = {__builtin_FUNCTION(), __builtin_LINE()});

/* The one way the library reads a file. The path's links are followed; only
 * a regular file of at most kReadCap bytes is read, opened without blocking
 * (a FIFO must not stall start-up). Failures that may pass (EINTR, EAGAIN,
 * EMFILE/ENFILE, ENOMEM, a file that changed size while read) are tried again
 * a few times after a short pause. Nothing is logged here: the callers know
 * what the file is for. */
constexpr size_t kReadCap = size_t(1) << 20;
enum class ReadFault { none, missing, unreadable, not_regular, too_big };
struct FileText {
    CharPtr text; // NUL-terminated; len bytes before the NUL (which may hold NULs)
    size_t len = 0;
    ReadFault fault = ReadFault::none;
    int err = 0;     // errno of the failure
    int retries = 0; // passing failures that were overcome
};
FileText read_guarded(const char* path);
/* The cause of a failed read as text, for log lines. */
std::string read_cause(const FileText& f);

/* A read-only file (ranges, defaults, mapping, styles): a failure other than
 * a missing file, and a read that had to be repeated, is logged at level 3
 * under func's name. Empty text when it was not read. */
FileText read_file(para::Caller func, const char* path);

/* A current-value file, which must never be replaced by defaults while it
 * holds values nobody changed. After an interrupted rewrite is finished
 * (journal_replay), the file is read. One that exists but cannot be read
 * (after the retries) is logged once at level 3 with the cause: unreadable;
 * the module starts from its defaults and keeps the file (CurrentFile).
 * blocked: the rewrite could not be finished; the file is never written. */
enum class CurLoad { read, absent, unreadable, blocked };
CurLoad read_current(para::Caller func, const char* path, FileText& out);

/* What a module may do with its current file, decided at each load. An
 * unreadable file stays as it is until the module holds a change of its own;
 * then it is renamed to <path>.bad (a rename needs no read) and only after
 * that is the name written. If the rename fails, nothing is written. */
class CurrentFile {
public:
    void loaded(CurLoad how)
    {
        state_ = how == CurLoad::unreadable ? kHeld : how == CurLoad::blocked ? kNever : kFree;
    }
    /* Before a save writes path; changed: a value changed since the load.
     * 1: write; 0: leave the file, nothing to save; -1: a change cannot be
     * written (logged), the save counts as failed. */
    int writable(para::Caller func, const char* path, bool changed);

private:
    enum { kFree, kHeld, kNever };
    std::atomic<int> state_{kFree};
};

/* A .conf file parsed into store (keys: NULL for all) through the guarded
 * read. current: the file is a current-value file (read_current); else a
 * read-only one, whose failure gives CurLoad::unreadable and is logged. A line
 * the store cannot hold is logged at level 3 and, for a current file, the
 * file is copied to <path>.bad before any save can drop the line. The text
 * read is handed out through text when given. */
CurLoad parse_conf_file(para::Caller func, configure* store, const config_keys* keys,
                        const char* path, bool current, FileText* text = nullptr);

/* Reads and parses a JSON file. Logs "Error before: [%s]" for fn on a parse
 * error, followed by an empty line when blank_line. *unreadable tells the two
 * failures apart. With keep_bad (current-value files), the file is read by
 * read_current (*how tells what became of it), and one that exists
 * but does not parse is first copied aside as <path>.bad, so the next save
 * cannot erase it. */
JsonPtr load_json_file(para::Caller fn, const char* path, bool* unreadable, bool blank_line,
                       bool keep_bad = false, CurLoad* how = nullptr);

/* Copies the file at path (or the len bytes of it already read) to
 * <path>.bad (the newest copy only), logged at level 3 under func's name. */
void keep_bad_copy(para::Caller func, const char* path);
void keep_bad_copy(para::Caller func, const char* path, const char* bytes, size_t len);

/* Results of a durable write besides 0: nothing could be opened or
 * created (the modules report that as 0, the file is simply skipped), or
 * the writing itself failed (a flush error). Either leaves the old file. */
constexpr int kNotOpened = -2;
constexpr int kWriteFailed = -1;
inline int module_result(int r)
{
    return r == kNotOpened ? 0 : r;
}

/* Replaces the content of path by len bytes of data so that a crash, a power
 * cut or a failed write leaves either the old or the new content: a sibling
 * temporary file is written, flushed and renamed over the target, then the
 * directory is flushed. A symlink keeps pointing at its (replaced) target;
 * the old mode and owner are kept. Where a rename cannot work (hard link,
 * directory not writable, bind-mounted file) the file is rewritten in place
 * under an exclusive flock. Anything but a regular file is refused. With
 * lock, the target is held under an exclusive flock while it is replaced;
 * held_fd is an already locked descriptor of the target (update_conf reads
 * under the same lock). Failures are logged under func's name with the file
 * and the cause. Returns 0, kNotOpened or kWriteFailed. */
int durable_write(para::Caller func, const char* path, const void* data, size_t len,
                  bool lock = false, int held_fd = -1);

/* Name changes that count as done only once their directory is on
 * storage: the operation, then an fsync of the directory that holds the
 * name (both directories for a rename). Logged under func's name; 0 or -1
 * with errno kept from the failing step. */
int durable_rename(para::Caller func, const char* from, const char* to);
int durable_mkdir(para::Caller func, const char* path, mode_t mode);
int durable_unlink(para::Caller func, const char* path);

/* Before a file is read: finishes or drops an in-place rewrite of path that
 * a crash interrupted, so that the reader sees the old or the new content
 * whole. True when path may be read now. */
bool journal_replay(para::Caller func, const char* path);

/* Closes a descriptor on every way out. */
struct Fd {
    int fd = -1;
    Fd() = default;
    explicit Fd(int f) : fd(f) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd();
    int release()
    {
        int f = fd;
        fd = -1;
        return f;
    }
};

/* The file path finally names, following its symlinks (also a dangling one,
 * whose target a write then creates); false, logged under func's name, for a
 * loop. */
bool resolve_target(para::Caller func, const char* path, std::string& out);

/* Opens target with flags and holds an exclusive flock on the very file the
 * name still names once the lock is taken; st describes it. -1 with errno
 * and *step ("open" or "lock") naming what failed. */
int open_locked(const std::string& target, int flags, struct stat& st, const char** step);

/* Decimal text of v at the start of buf, terminated; returns its length. */
int format_decimal(long long v, char (&buf)[24]);

/* Decimal text of d when it is a whole number below 1e15 in magnitude, as
 * printf prints it (-0 keeps its sign); returns its length, or -1 (buf
 * untouched) for any other value. */
int format_whole(double d, char (&buf)[24]);

/* The same text as cJSON_Print (formatted), byte for byte, built without
 * the sprintf/sscanf round trip per number. Heap text, free() it; NULL when
 * cJSON_Print would fail. */
char* print_json(const cJSON* json);

/* Formatted print + one NUL byte, written through durable_write (same
 * results; logged under func's name with the file and the cause). */
int write_json_file(const char* path, const cJSON* json, para::Caller func = "write_json_file");

/* A module's save can come from the sweep and from the host at once. Held
 * from taking the change flag until the file is written, it keeps two
 * writers from interleaving in one file and makes the later snapshot the one
 * that stays on disk. (The .conf writers that lock the file itself need it
 * not.) */
inline std::mutex save_mutex;

/* Integer value of any item: numbers saturate at the int limits, true is 1,
 * everything else 0. */
int json_int(const cJSON* item);

/* Prefix match of text against names (text compared over its own length).
 * File rule: every match overwrites, last one wins. Returns -1 when none. */
int name_match_last(const char* text, const char* const* names, int count);
/* Request rule: first match; else a leading decimal number; else -1000. */
int name_lookup_num(const char* text, const char* const* names, int count);
/* Whole-name match: index or -1. */
int name_index_exact(const char* text, const char* const* names, int count);

/* Change flag + monotonic time of a module's latest accepted change. The
 * flag is atomic because host threads set it while the worker's sweep reads
 * it. A change is due once it is delay old, or once the first unsaved change
 * is ten delays old (a value changed more often than the delay must still
 * reach storage). A failed save re-arms the flag with a back-off. */
struct ChangeState {
    std::atomic<int> flag{0};
    std::atomic<int64_t> stamp_ns{0};
    std::atomic<int64_t> first_ns{0};
    std::atomic<int64_t> retry_ns{0};
    std::atomic<int> backoff_ms{0};

    void mark();
    /* Set and due as above (a pending retry: once its time has come). */
    bool due(int delay_ms) const;
    /* Clears the flag; true when it was set. */
    bool take() { return flag.exchange(0) != 0; }
    /* After a save: result 0 ends any back-off; else the change stays
     * pending and is tried again after the delay, doubling up to 60 s. */
    void saved(int result, int delay_ms);
    /* CLOCK_MONOTONIC in ns (plus the tests' offset). */
    static int64_t now_ns();
};

/* Tests move the library's clock forward by this much, and may stop it at a
 * reading (nonzero) so that only the offset moves it. */
extern std::atomic<int64_t> clock_offset_ns;
extern std::atomic<int64_t> clock_frozen_ns;

/* The save of one store, the same sequence for every module. The change flag
 * is cleared first, so a change that lands while the file is written stays
 * pending; a store that did not load never writes; a path that could not be
 * built (logged where it was built) is a file that could not be opened: 0 to
 * the caller and the change kept for a later try, like every failure, through
 * the change state's back-off. write(path, changed) writes the snapshot it
 * takes and answers like the durable write. The caller holds whatever lock the store's
 * file needs. */
struct SaveStep {
    para::Caller fn;  /* the exported save: its log lines name it */
    ChangeState& change;
    CurrentFile* file; /* null: write guards its file itself (gets changed) */
    int delay_ms;
    bool loaded;
    const char* name; /* "not loaded, <name> left as it is" */
    const char* path; /* null: no path */
};
template <class Write>
int save_store(const SaveStep& s, Write&& write)
{
    bool changed = s.change.take();
    if (!s.loaded) {
        PARA_LOG_FN(PARA_INFO, s.fn, "not loaded, %s left as it is\n", s.name);
        return 0;
    }
    int r = !s.path ? kNotOpened : s.file ? s.file->writable(s.fn, s.path, changed) : 1;
    if (r > 0)
        r = write(s.path, changed);
    s.change.saved(r, s.delay_ms);
    return module_result(r);
}

/* Copies a stamp into an exported timespec. */
void stamp_to_timespec(int64_t ns, struct timespec* ts);

/* Exact-length comparison of a string with a literal / another string. */
inline bool same(const char* a, std::string_view b)
{
    return a && std::string_view(a) == b;
}

/* a begins with b (compared over b's length). */
inline bool starts_with(const char* a, std::string_view b)
{
    return a && std::strncmp(a, b.data(), b.size()) == 0 && std::strlen(a) >= b.size();
}

} // namespace para

/* Core internals reached by the server and the tests. */
int para_get_msg_name_opt(char* req_name, void* jsonIn, void** jsonOut, char* parse_name);
int para_get_msg_id_opt(char* req_name, void* jsonIn, void** jsonOut, char* parse_name);
int para_free_msg_name_opt(char* parse_name);
void register_para_handle_json_pattern(void);
void register_para_handle_conf_pattern(void);
int register_para_handle_extern_pattern(void);

/* One save sweep: every row whose need_save answers (or every row with
 * force), then "sync" when anything was saved. */
int save_param(int force);

int para_server_init(void);
/* Port the server binds: 6800. Tests may set 0 (any free port) before
 * platformparam_init and ask para_server_bound_port() which one it got. */
extern int para_server_port;
int para_server_bound_port(void);
int para_server_message_Process(para_server_message_info* info);

#endif
