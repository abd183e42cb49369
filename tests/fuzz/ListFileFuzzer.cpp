// A checksum list or an older hash list: whatever it holds, what is taken leads to something in the folder, and can be written as the
// line of a checksum list that says the same.

#include <string>

#include "Fuzz.h"
#include "KDXFileTools/kdxoffload/ChecksumList.h"
#include "KDXFileTools/kdxoffload/ListFile.h"
#include "KDXFileTools/kdxoffload/ListPath.h"

using kdxoffload::ListedFile;
using kdxoffload::ListedFiles;
namespace ChecksumList = kdxoffload::ChecksumList;

namespace {

void takeFile(const ListedFile& file) {
  require(kdxoffload::isListPath(file.path), "a path leads to something in the folder");
  require(file.digest.algorithm != 0, "a file has a digest");
  const std::optional<std::string> line = ChecksumList::lineFor(file.path, file.digest);
  // A name that ends so can't be told from a line that does.
  if (!line || line->ends_with("\r\n")) return;
  const std::optional<ListedFiles> again = ChecksumList::filesFrom(*line, nullptr);
  require(again && again->size() == 1, "a line is that of one file");
  require(again->front().path == file.path && again->front().digest == file.digest,
          "what is written comes back as it was");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  std::optional<platform::Error> error;
  const std::optional<ListedFiles> files = kdxoffload::readListFile(std::string(textOf(data, size)), &error);
  require(files || (error && error->description && !error->description->empty()), "what is refused has a reason");
  if (!files) return 0;
  require(!files->empty(), "a list has a file");
  for (const ListedFile& file : *files) takeFile(file);
  return 0;
}
