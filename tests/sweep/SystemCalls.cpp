#include "tests/sweep/SystemCalls.h"

#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace {

using Errors = std::vector<int>;

// A network file system may report anything when a file is opened: broken wires, leases, rights that were taken back. Too
// little room can be reported only with O_CREAT, but here every open gets these errors.
const Errors opening{EIO, ENOSPC, EINTR, EAGAIN, EACCES, EDQUOT};
// Reading needs no room. Network file systems check rights at every read.
const Errors reading{EIO, EINTR, EAGAIN, EACCES};
const Errors writing{EIO, ENOSPC, EINTR, EAGAIN, EACCES, EDQUOT};
// Reports what happened to earlier writes, so with the errors of writes. It waits as long as it takes, so without EAGAIN.
const Errors syncing{EIO, ENOSPC, EINTR, EACCES, EDQUOT};
// Changes of a directory. They wait too.
const Errors naming{EIO, ENOSPC, EINTR, EACCES, EDQUOT};
// Looking at a file needs no room, and never gives EAGAIN.
const Errors looking{EIO, EINTR, EACCES};
// Setting flags of a descriptor needs no room. EINVAL refuses O_DIRECT.
const Errors flagging{EIO, EINTR, EAGAIN, EACCES, EINVAL};
// Advice that can't be followed. There is nothing to interrupt, to fill or to forbid.
const Errors advising{EIO, EINVAL};
// Some file systems write when a file is closed. The descriptor is closed in any case, so there is no EAGAIN.
const Errors closing{EIO, ENOSPC, EINTR, EACCES, EDQUOT};
// Only memory can be missing. Where the number of threads is limited, EAGAIN refuses a new one.
const Errors memory{ENOMEM};
const Errors threads{EAGAIN, ENOMEM};
// For a working directory that was removed, or that is below a folder without read permission.
const Errors whereabouts{EIO, EACCES, ENOENT};
const Errors privilege{EPERM, EACCES};

constexpr bool getsMemory = true;

CallKind helping(CallKind kind) {
  kind.onlyHelps = true;
  return kind;
}

const std::vector<std::pair<int, CallKind>> kinds{
    {SYS_openat, {"openat", Concerns::pathBelow, opening}},
    {SYS_read, {"read", Concerns::descriptor, reading}},
    {SYS_pread64, {"pread64", Concerns::descriptor, reading}},
    {SYS_readv, {"readv", Concerns::descriptor, reading}},
    {SYS_preadv2, {"preadv2", Concerns::descriptor, reading}},
    {SYS_write, {"write", Concerns::descriptor, writing}},
    {SYS_pwrite64, {"pwrite64", Concerns::descriptor, writing}},
    {SYS_writev, {"writev", Concerns::descriptor, writing}},
    {SYS_ftruncate, {"ftruncate", Concerns::descriptor, writing}},
    {SYS_fallocate, {"fallocate", Concerns::descriptor, writing}},
    {SYS_fsync, {"fsync", Concerns::descriptor, syncing}},
    {SYS_fdatasync, {"fdatasync", Concerns::descriptor, syncing}},
    {SYS_syncfs, helping({"syncfs", Concerns::descriptor, syncing})},
    {SYS_sync_file_range, helping({"sync_file_range", Concerns::descriptor, syncing})},
    {SYS_renameat2, helping({"renameat2", Concerns::pathBelow, naming})},
    {SYS_renameat, {"renameat", Concerns::pathBelow, naming}},
    {SYS_linkat, {"linkat", Concerns::pathBelow, naming}},
    {SYS_unlinkat, {"unlinkat", Concerns::pathBelow, naming}},
#ifdef SYS_rename  // not on every processor
    {SYS_rename, {"rename", Concerns::path, naming}},
    {SYS_link, {"link", Concerns::path, naming}},
    {SYS_unlink, {"unlink", Concerns::path, naming}},
    {SYS_stat, {"stat", Concerns::path, looking}},
    {SYS_lstat, {"lstat", Concerns::path, looking}},
    {SYS_access, {"access", Concerns::path, looking}},
#endif
    {SYS_newfstatat, {"newfstatat", Concerns::pathBelow, looking}},
    {SYS_statx, helping({"statx", Concerns::pathBelow, looking})},
    {SYS_fstat, {"fstat", Concerns::descriptor, looking}},
    {SYS_statfs, {"statfs", Concerns::path, looking}},
    {SYS_fstatfs, {"fstatfs", Concerns::descriptor, looking}},
    {SYS_lseek, {"lseek", Concerns::descriptor, looking}},
    {SYS_getdents64, {"getdents64", Concerns::descriptor, looking}},
    {SYS_fcntl, {"fcntl", Concerns::descriptor, flagging}},
    {SYS_ioctl, {"ioctl", Concerns::descriptor, flagging}},
    {SYS_fadvise64, helping({"fadvise64", Concerns::descriptor, advising})},
    {SYS_close, {"close", Concerns::descriptor, closing}},
    {SYS_brk, {"brk", Concerns::thread, memory, getsMemory}},
    {SYS_mmap, {"mmap", Concerns::thread, memory, getsMemory}},
    {SYS_mremap, {"mremap", Concerns::thread, memory, getsMemory}},
    {SYS_mprotect, {"mprotect", Concerns::thread, memory, getsMemory}},
    // Giving back memory can fail for lack of memory too, when it splits one mapping into two.
    {SYS_munmap, {"munmap", Concerns::thread, memory}},
    {SYS_madvise, helping({"madvise", Concerns::thread, memory})},
    {SYS_clone3, {"clone3", Concerns::thread, threads}},
    {SYS_clone, {"clone", Concerns::thread, threads}},
    {SYS_getcwd, {"getcwd", Concerns::thread, whereabouts}},
    {SYS_ioprio_set, helping({"ioprio_set", Concerns::thread, privilege})},
    {SYS_sched_getaffinity, {"sched_getaffinity", Concerns::thread, privilege}},
    {SYS_sched_setaffinity, helping({"sched_setaffinity", Concerns::thread, privilege})},
    {SYS_sched_setscheduler, {"sched_setscheduler", Concerns::thread, privilege}},
    {SYS_sync, {"sync"}},  // it can't fail, but the order of syncs and renames is checked
    // All other calls can't fail with the arguments of the tool (signal masks, names of threads), or only wait.
};

}  // namespace

CallKind kindOfCall(int number) {
  const auto found = std::ranges::find(kinds, number, [](const auto& kind) { return kind.first; });
  return found == kinds.end() ? CallKind{"call" + std::to_string(number)} : found->second;
}

CallKind kindOfCall(const std::string& name) {
  const auto found = std::ranges::find(kinds, name, [](const auto& kind) { return kind.second.name; });
  return found == kinds.end() ? CallKind{name} : found->second;
}

std::vector<int> refusals() {
  return {ENOSYS, EPERM, EINVAL, EOPNOTSUPP};
}

std::string errorName(int code) {
  return ::strerrorname_np(code);
}
