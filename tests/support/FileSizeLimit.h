#pragma once

#include <sys/resource.h>

#include <csignal>

// While this object exists, no file of this process can grow beyond the size: the first write beyond it is short, later ones
// fail.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t size) {
    ::getrlimit(RLIMIT_FSIZE, &_before);
    const rlimit limit = {.rlim_cur = size, .rlim_max = _before.rlim_max};
    _handler = ::signal(SIGXFSZ, SIG_IGN);
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &_before);
    ::signal(SIGXFSZ, _handler);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  rlimit _before{};
  void (*_handler)(int) = nullptr;
};
