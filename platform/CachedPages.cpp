#include "platform/CachedPages.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <tuple>

#include "platform/Error.h"
#include "platform/Memory.h"

namespace platform {

void dropPages(int descriptor, int64_t offset, int64_t length) {
  std::ignore = ::posix_fadvise(descriptor, offset, length, POSIX_FADV_DONTNEED);
}

int pushPages(int descriptor, int64_t offset, int64_t length) {
  constexpr unsigned wait = SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
  if (::sync_file_range(descriptor, offset, length, wait) == 0) return 0;
  if (!isRefused(errno)) return errno;
  return ::fdatasync(descriptor) == 0 ? 0 : errno;
}

int64_t directAlignment(int descriptor) {
  // A page satisfies nearly every device, is as large as the largest blocks of most file systems, and is the alignment of
  // the buffers.
  const auto page = static_cast<int64_t>(pageSize());
  struct statx facts = {};
  const bool told = ::statx(descriptor, "", AT_EMPTY_PATH, STATX_DIOALIGN, &facts) == 0;
  if (!told || (facts.stx_mask & STATX_DIOALIGN) == 0) return page;
  return facts.stx_dio_offset_align == 0 ? 0 : std::max<int64_t>(page, facts.stx_dio_offset_align);
}

bool setDirect(int descriptor, bool on) {
  return ::fcntl(descriptor, F_SETFL, on ? O_DIRECT : 0) == 0;
}

}  // namespace platform
