// The standard output of a worker. The first byte is the number of frames, the second the number of destinations, and the
// third says where the rest is cut in two.

#include <algorithm>

#include "Fuzz.h"
#include "KDXFileTools/kdxoffload/WorkerOutput.h"

using namespace kdxoffload;

namespace {

WorkerOutput outputOf(const uint8_t* data, std::string_view text, std::size_t cut) {
  WorkerOutput output;
  output.startJob(data[0], data[1]);
  output.add(text.substr(0, cut));
  output.add(text.substr(std::min(cut, text.size())));
  return output;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  constexpr std::size_t header = 3;
  if (size < header) return 0;
  const std::string_view text = textOf(data + header, size - header);
  const WorkerOutput output = outputOf(data, text, data[2]);
  const WorkerOutput whole = outputOf(data, text, text.size());
  require(output.digests().size() <= data[0], "there are no more digests than frames");
  require(output.digests() == whole.digests(), "where the text is cut changes no digest");
  require(output.phase() == whole.phase() && output.bytesInPhase() == whole.bytesInPhase(),
          "where the text is cut changes no progress");
  return 0;
}
