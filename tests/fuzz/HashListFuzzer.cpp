// A media hash list, or the chain file beside it: whatever they hold, what is taken can be written and comes back as it was.

#include <string>

#include "Fuzz.h"
#include "KDXFileTools/kdxoffload/HashListChain.h"
#include "KDXFileTools/kdxoffload/HashListReader.h"
#include "KDXFileTools/kdxoffload/HashListWriter.h"
#include "KDXFileTools/kdxoffload/ListPath.h"

using kdxoffload::HashList;
using kdxoffload::HashListChain;

namespace {

std::string textOf(const HashList& list) {
  std::string text;
  kdxoffload::writeHashList(list, [&text](std::string_view bytes) { text += bytes; });
  return text;
}

void takeList(std::string_view input) {
  std::optional<platform::Error> error;
  const std::optional<HashList> list = kdxoffload::readHashList(std::string(input), &error);
  require(list || (error && error->description && !error->description->empty()), "what is refused has a reason");
  if (!list) return;
  for (const HashList::File& file : list->files) {
    require(kdxoffload::isListPath(file.path), "a path leads to something in the folder");
    require(!file.hashes.empty(), "a file has a digest");
  }
  // What is written is finer than nothing that was read: after the first time it does not change any more.
  const std::optional<HashList> again = kdxoffload::readHashList(textOf(*list), nullptr);
  require(again.has_value(), "what is taken can be written");
  require(kdxoffload::readHashList(textOf(*again), nullptr) == again, "what is written comes back as it was");
}

void takeChain(std::string_view input) {
  std::optional<platform::Error> error;
  const std::optional<HashListChain> chain = HashListChain::fromText(std::string(input), &error);
  require(chain || (error && error->description && !error->description->empty()), "what is refused has a reason");
  if (!chain) return;
  for (const HashListChain::Link& link : chain->links) {
    require(kdxoffload::isListName(link.fileName), "a name is that of a file of the folder");
  }
  require(HashListChain::fromText(chain->text(), nullptr) == chain, "what is written comes back as it was");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  takeList(textOf(data, size));
  takeChain(textOf(data, size));
  return 0;
}
