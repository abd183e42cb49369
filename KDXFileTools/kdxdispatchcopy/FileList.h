#pragma once

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <utility>
#include <vector>

#include "platform/FileIdentity.h"
#include "platform/FileURL.h"

// An ordered list of files, which may be hundreds of thousands. Each URL is made when it is asked for, so a list whose names
// follow a rule takes no memory for them. Copies are cheap. While the list grows, one thread at a time may use it, otherwise
// any number of threads.
class FileList {
 public:
  using FileAt = std::function<platform::FileURL(std::size_t position)>;

  FileList() = default;
  FileList(std::vector<platform::FileURL> files);  // NOLINT(google-explicit-constructor): every list of files is one
  FileList(std::initializer_list<platform::FileURL> files) : FileList(std::vector<platform::FileURL>(files)) {}
  // An empty list; `fileAt` gives the file at each position that the list will have.
  explicit FileList(FileAt fileAt) : _fileAt(std::move(fileAt)) {}

  // Adds the file at the next position.
  void grow() { ++_size; }

  [[nodiscard]] std::size_t size() const { return _size; }
  [[nodiscard]] bool empty() const { return _size == 0; }
  // `position` must be less than size().
  [[nodiscard]] platform::FileURL operator[](std::size_t position) const { return _fileAt(position); }
  // The list must not be empty.
  [[nodiscard]] platform::FileURL front() const { return _fileAt(0); }
  [[nodiscard]] platform::FileURL back() const { return _fileAt(_size - 1); }
  [[nodiscard]] std::vector<platform::FileURL> files() const;

 private:
  FileAt _fileAt;
  std::size_t _size = 0;
};

// Adds the identities of the files that exist. A symbolic link counts itself, not its target.
void addIdentities(const FileList& files, platform::FileIdentities& identities);
