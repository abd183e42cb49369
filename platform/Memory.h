#pragma once

#include <cstddef>
#include <memory>

namespace platform {

struct FreeMemory {
  void operator()(std::byte* memory) const noexcept;
};

// Memory that starts on a page (4096 bytes), as transfers past the file cache need it.
using PageAlignedMemory = std::unique_ptr<std::byte, FreeMemory>;

// `size` bytes, not initialised. When they cannot be had the process ends with a message (endProcessForLackOf).
PageAlignedMemory allocatePages(std::size_t size);

}  // namespace platform
