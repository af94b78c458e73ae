#pragma once
/* Every system call through which the library touches a stored file goes
 * through this table, so that tests can fail, record or delay any one of
 * them without a hook in the shipped code path. The shipped table holds the
 * plain calls; a test swaps single entries and puts `defaults()` back. */

#include <cstddef>
#include <sys/stat.h>
#include <sys/types.h>

namespace para::sys {

struct Table {
    int (*open)(const char* path, int flags, mode_t mode);
    int (*close)(int fd);
    ssize_t (*read)(int fd, void* buf, size_t len);
    ssize_t (*pwrite)(int fd, const void* buf, size_t len, off_t at);
    int (*fstat)(int fd, struct stat* st);
    int (*stat)(const char* path, struct stat* st);
    int (*lstat)(const char* path, struct stat* st);
    ssize_t (*readlink)(const char* path, char* buf, size_t len);
    int (*fsync)(int fd);
    int (*ftruncate)(int fd, off_t len);
    int (*fallocate)(int fd, int mode, off_t at, off_t len);
    int (*rename)(const char* from, const char* to);
    int (*unlink)(const char* path);
    int (*mkdir)(const char* path, mode_t mode);
    int (*mkostemp)(char* templ, int flags);
    int (*fchown)(int fd, uid_t uid, gid_t gid);
    int (*fchmod)(int fd, mode_t mode);
    int (*flock)(int fd, int op);
};

/* Every entry of the table, for code that wraps them all. */
#define PARA_SYS_CALLS(X)                                                                  \
    X(open) X(close) X(read) X(pwrite) X(fstat) X(stat) X(lstat) X(readlink) X(fsync)      \
    X(ftruncate) X(fallocate) X(rename) X(unlink) X(mkdir) X(mkostemp) X(fchown) X(fchmod) \
    X(flock)

/* The table in use. Swapped only by tests, and only while no worker runs. */
extern Table calls;

/* The plain system calls. */
const Table& defaults();

} // namespace para::sys
