#include "platform/NewFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <tuple>

namespace platform {

namespace {

constexpr mode_t modeOfNewFiles = 0666;

FileDescriptor createFile(const Folder& folder, const std::string& name) {
  constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  return FileDescriptor(::openat(folder.descriptor(), name.c_str(), flags, modeOfNewFiles));
}

std::string temporaryNameFor(const std::string& name, int attempt) {
  const std::string number = attempt == 0 ? "" : fmt::format(".{}", attempt);
  return name + number + std::string(NewFile::temporarySuffix);
}

// 0 or errno.
int writeAll(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t length = ::write(file, bytes.data(), bytes.size());
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) return length == 0 ? EIO : errno;
    bytes.remove_prefix(static_cast<std::size_t>(length));
  }
  return 0;
}

}  // namespace

std::optional<NewFile> NewFile::create(const Folder& folder, const std::string& name, ErrorPlace error) {
  constexpr int mostAttempts = 100;
  for (int attempt = 0; attempt < mostAttempts; ++attempt) {
    std::string temporaryName = temporaryNameFor(name, attempt);
    FileDescriptor file = createFile(folder, temporaryName);
    const int code = errno;
    if (file.isOpen()) return NewFile(folder, name, std::move(temporaryName), std::move(file));
    if (code == EEXIST) continue;
    fail(error, posixError("open", temporaryName, code));
    return std::nullopt;
  }
  fail(error, posixError("open", name, EEXIST));
  return std::nullopt;
}

NewFile::NewFile(const Folder& folder, std::string name, std::string temporaryName, FileDescriptor file)
    : _folder(&folder), _name(std::move(name)), _temporaryName(std::move(temporaryName)), _file(std::move(file)) {}

NewFile::NewFile(NewFile&& other) noexcept
    : _folder(other._folder),
      _name(std::move(other._name)),
      _temporaryName(std::exchange(other._temporaryName, "")),
      _file(std::move(other._file)),
      _pending(std::move(other._pending)),
      _failure(other._failure) {}

NewFile::~NewFile() {
  // What is left behind is harmless: nobody takes it for a file of its name.
  if (!_temporaryName.empty()) std::ignore = _folder->removeItem(_temporaryName, nullptr);
}

bool NewFile::write(std::string_view bytes, ErrorPlace error) {
  constexpr std::size_t usualPiece = std::size_t{1} << 20;
  _pending += bytes;
  return (_failure == 0 && _pending.size() < usualPiece) || writePending(error);
}

bool NewFile::writePending(ErrorPlace error) {
  if (_failure == 0) _failure = writeAll(_file.get(), _pending);
  _pending.clear();
  return _failure == 0 || fail(error, posixError("write", _temporaryName, _failure));
}

bool NewFile::makePermanent(ErrorPlace error) {
  if (!writePending(error) || !syncFile(_file.get(), error)) return false;
  const int code = _file.close();
  return code == 0 || fail(error, posixError("close", _temporaryName, code));
}

bool NewFile::give(ErrorPlace error) {
  if (!makePermanent(error) || !_folder->moveItem(_temporaryName, *_folder, _name, error)) return false;
  _temporaryName.clear();
  return _folder->sync(error);
}

bool NewFile::replace(ErrorPlace error) {
  if (!makePermanent(error)) return false;
  const int folder = _folder->descriptor();
  if (::renameat(folder, _temporaryName.c_str(), folder, _name.c_str()) != 0) {
    return fail(error, posixError("rename", _name, errno));
  }
  _temporaryName.clear();
  return _folder->sync(error);
}

}  // namespace platform
