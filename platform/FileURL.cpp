#include "platform/FileURL.h"

#include <filesystem>
#include <system_error>

#include "platform/Text.h"

namespace platform {

namespace {

std::string behindWorkingDirectory(std::string_view path) {
  std::error_code error;
  std::string directory = std::filesystem::current_path(error).string();
  if (error) return std::string(path);
  if (directory.back() != '/') directory += '/';
  return directory.append(path);
}

// Where the last path component starts.
std::size_t lastComponentStart(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? 0 : slash + 1;
}

}  // namespace

FileURL::FileURL(std::string_view path) : _path(path.starts_with('/') ? path : behindWorkingDirectory(path)) {
  while (_path.size() > 1 && _path.ends_with('/')) _path.pop_back();
}

std::optional<FileURL> FileURL::fromArgument(std::string_view argument) {
  if (!isUTF8(argument)) return std::nullopt;
  return FileURL(argument);
}

std::string FileURL::lastPathComponent() const {
  return _path == "/" ? _path : _path.substr(lastComponentStart(_path));
}

FileURL FileURL::deletingLastPathComponent() const {
  FileURL directory = *this;
  directory._path.resize(lastComponentStart(_path));
  while (directory._path.size() > 1 && directory._path.ends_with('/')) directory._path.pop_back();
  return directory;
}

FileURL FileURL::appendingPathComponent(std::string_view component) const {
  FileURL file = *this;
  if (!file._path.ends_with('/')) file._path += '/';
  file._path.append(component);
  return file;
}

FileURL FileURL::appendingPathExtension(std::string_view extension) const {
  FileURL extended = *this;
  if (_path == "/") return extended;
  extended._path.append(1, '.').append(extension);
  return extended;
}

FileURL FileURL::deletingPathExtension() const {
  FileURL shortened = *this;
  const std::size_t dot = _path.rfind('.');
  if (dot != std::string::npos && dot > lastComponentStart(_path)) shortened._path.resize(dot);
  return shortened;
}

}  // namespace platform
