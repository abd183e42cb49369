#include "platform/FileContents.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/Folder.h"

namespace platform {

namespace {

// As many bytes as there are, up to the size of the buffer. None when that fails; errno then tells why.
std::optional<std::size_t> readAt(int file, char* bytes, std::size_t size, std::size_t offset) {
  while (true) {
    const ssize_t length = ::pread(file, bytes, size, static_cast<off_t>(offset));
    if (length >= 0) return static_cast<std::size_t>(length);
    if (errno != EINTR) return std::nullopt;
  }
}

}  // namespace

std::optional<std::string> contentsOf(const FileDescriptor& file, std::size_t largest, ErrorPlace error) {
  const auto refuse = [error](int code) {
    fail(error, posixError("read", "", code));
    return std::optional<std::string>();
  };
  const std::optional<ItemFacts> facts = factsOfOpenFile(file.get());
  if (facts && facts->size > largest) return refuse(EFBIG);
  std::string contents;
  // One byte more shows at once that there is none; a file that has another size than it says is read to its end all the same.
  constexpr std::size_t leastPiece = 4096;
  std::size_t end = 0;
  do {
    contents.resize(std::max(end + leastPiece, facts ? static_cast<std::size_t>(facts->size) + 1 : 0));
    const std::optional<std::size_t> length = readAt(file.get(), contents.data() + end, contents.size() - end, end);
    if (!length) return refuse(errno);
    if (*length == 0) break;
    end += *length;
  } while (end <= largest);
  if (end > largest) return refuse(EFBIG);
  contents.resize(end);
  return contents;
}

}  // namespace platform
