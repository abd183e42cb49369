#include "extensions/filesizeCFI.h"

#include "platform/FileManager.h"

std::optional<uint64_t> filesizeCFI(const platform::FileURL& file) {
  return platform::sizeOfFile(file.path());
}
