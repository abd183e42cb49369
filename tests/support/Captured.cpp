#include "tests/support/Captured.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

#include "platform/Log.h"

Captured::Captured(int descriptor) : _descriptor(descriptor), _before(::dup(descriptor)) {
  std::fflush(nullptr);
  const int file = ::open(_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  EXPECT_EQ(descriptor, ::dup2(file, descriptor));
  ::close(file);
}

Captured::~Captured() {
  platform::logQueue().sync([] { std::fflush(nullptr); });
  ::dup2(_before, _descriptor);
  ::close(_before);
}

std::string Captured::text() const {
  platform::logQueue().sync([] {});
  return textSoFar();
}

std::string Captured::textSoFar() const {
  std::fflush(nullptr);
  return readFile(_path);
}
