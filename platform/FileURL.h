#pragma once

#include <compare>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

// The place of a file: an absolute path, taken literally. ".", "..", doubled slashes and symbolic links stay as they
// were given; only slashes at the end are dropped. A value: two URLs are equal when their paths are.
class FileURL {
 public:
  // Puts the current working directory in front of a relative path. If the working directory is not known (it was removed),
  // the path stays relative, and every use of it fails.
  explicit FileURL(std::string_view path);

  // None when the argument is not valid UTF-8.
  static std::optional<FileURL> fromArgument(std::string_view argument);

  [[nodiscard]] const std::string& path() const { return _path; }
  [[nodiscard]] std::string lastPathComponent() const;

  // "/a/b" gives "/a"; "/b" and "/" give "/".
  [[nodiscard]] FileURL deletingLastPathComponent() const;
  [[nodiscard]] FileURL appendingPathComponent(std::string_view component) const;

  // "/a/clip.mov" and "kdxcopy" give "/a/clip.mov.kdxcopy". The root has no name to extend and stays as it is.
  [[nodiscard]] FileURL appendingPathExtension(std::string_view extension) const;

  // Undoes appendingPathExtension: removes the last "." of the last component, and what follows. A component without a "."
  // after its first character has no extension and stays as it is.
  [[nodiscard]] FileURL deletingPathExtension() const;

  auto operator<=>(const FileURL&) const = default;

 private:
  std::string _path;
};

}  // namespace platform
