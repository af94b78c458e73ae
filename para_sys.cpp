#include "para_sys.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace para::sys {
namespace {

int sys_open(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }
int sys_stat(const char* path, struct stat* st) { return ::stat(path, st); }
int sys_lstat(const char* path, struct stat* st) { return ::lstat(path, st); }
int sys_fstat(int fd, struct stat* st) { return ::fstat(fd, st); }
int sys_mkostemp(char* templ, int flags) { return ::mkostemp(templ, flags); }

Table make_plain()
{
    Table t{};
    t.open = sys_open;
    t.close = ::close;
    t.read = ::read;
    t.pwrite = ::pwrite;
    t.fstat = sys_fstat;
    t.stat = sys_stat;
    t.lstat = sys_lstat;
    t.readlink = ::readlink;
    t.fsync = ::fsync;
    t.ftruncate = ::ftruncate;
    t.fallocate = ::fallocate;
    t.rename = ::rename;
    t.unlink = ::unlink;
    t.mkdir = ::mkdir;
    t.mkostemp = sys_mkostemp;
    t.fchown = ::fchown;
    t.fchmod = ::fchmod;
    t.flock = ::flock;
    return t;
}

const Table plain = make_plain();

} // namespace

Table calls = plain;

const Table& defaults()
{
    return plain;
}

} // namespace para::sys
