#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <string>

#include "tests/support/MountedFileSystem.h"
#include "tests/support/RowName.h"

// A file system for MountedFileSystem::mount.
struct FileSystemRow : NamedRow {
  const char* type;
  std::size_t size;
};

// Mounts the file system of the row, or skips the test if that fails.
class OnFileSystem : public testing::TestWithParam<FileSystemRow> {
 protected:
  void SetUp() override {
    std::string whyNot;
    _volume = MountedFileSystem::mount(GetParam().type, GetParam().size, whyNot);
    if (!_volume) GTEST_SKIP() << whyNot;
  }

  const MountedFileSystem& volume() const { return *_volume; }

 private:
  std::unique_ptr<MountedFileSystem> _volume;
};
