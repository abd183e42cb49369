#include "platform/Volume.h"

#include <sys/statvfs.h>

namespace platform {

Volume volumeOf(const std::string& path) {
  return {.freeBytes = freeBytesOf(path)};
}

uint64_t freeBytesOf(const std::string& path) {
  struct statvfs facts = {};
  return ::statvfs(path.c_str(), &facts) == 0 ? uint64_t{facts.f_bavail} * facts.f_frsize : 0;
}

}  // namespace platform
