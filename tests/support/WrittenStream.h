#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "KDXFileTools/kdxoffload/OutputStream.h"

// An output stream, and everything that is written to it.
class WrittenStream {
 public:
  WrittenStream() = default;
  ~WrittenStream() {
    waitUntilWritten();
    ::close(_file);
  }
  WrittenStream(const WrittenStream&) = delete;
  WrittenStream& operator=(const WrittenStream&) = delete;

  kdxoffload::OutputStream& stream() { return _stream; }

  // Everything until now.
  std::string text() {
    waitUntilWritten();
    std::string all(static_cast<std::size_t>(::lseek(_file, 0, SEEK_CUR)), '\0');
    EXPECT_EQ(static_cast<ssize_t>(all.size()), ::pread(_file, all.data(), all.size(), 0));
    return all;
  }

 private:
  void waitUntilWritten() {
    constexpr double seconds = 60;
    EXPECT_TRUE(_stream.finish(seconds));
  }

  int _file = ::memfd_create("written", MFD_CLOEXEC);
  kdxoffload::OutputStream _stream{_file};
};
