#include "platform/Memory.h"

#include <fmt/format.h>

#include <cstdlib>

#include "platform/Process.h"

namespace platform {

void FreeMemory::operator()(std::byte* memory) const noexcept {
  std::free(memory);
}

PageAlignedMemory allocatePages(std::size_t size) {
  constexpr std::size_t pageSize = 4096;
  void* memory = nullptr;
  if (::posix_memalign(&memory, pageSize, size) != 0) {
    endProcessForLackOf(fmt::format("{} bytes of memory", size));
  }
  return PageAlignedMemory(static_cast<std::byte*>(memory));
}

}  // namespace platform
