#pragma once

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <utility>
#include <vector>

#include "platform/FileIdentity.h"
#include "platform/FileURL.h"

// An ordered list of files that may have hundreds of thousands of them: each URL is made when it is asked for, so a list
// whose names follow from a rule takes no memory for its files. Copies are cheap. Used by one thread at a time while it
// grows, by any number of them otherwise.
class FileList {
 public:
  using FileAt = std::function<platform::FileURL(std::size_t position)>;

  FileList() = default;
  // A list of these files.
  FileList(std::vector<platform::FileURL> files);  // NOLINT(google-explicit-constructor): every list of files is one
  FileList(std::initializer_list<platform::FileURL> files) : FileList(std::vector<platform::FileURL>(files)) {}
  // A list of no files yet; `fileAt` gives the file at every position that it will have.
  explicit FileList(FileAt fileAt) : _fileAt(std::move(fileAt)) {}

  // The file at the next position belongs to the list now.
  void grow() { ++_size; }

  [[nodiscard]] std::size_t size() const { return _size; }
  [[nodiscard]] bool empty() const { return _size == 0; }
  // Of a position in the list.
  [[nodiscard]] platform::FileURL operator[](std::size_t position) const { return _fileAt(position); }
  // Of a list that is not empty.
  [[nodiscard]] platform::FileURL front() const { return _fileAt(0); }
  [[nodiscard]] platform::FileURL back() const { return _fileAt(_size - 1); }
  [[nodiscard]] std::vector<platform::FileURL> files() const;

 private:
  FileAt _fileAt;
  std::size_t _size = 0;
};

// Adds the identities of the files that are there, links as such.
void addIdentities(const FileList& files, platform::FileIdentities& identities);
