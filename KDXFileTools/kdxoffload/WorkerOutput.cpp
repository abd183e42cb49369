#include "KDXFileTools/kdxoffload/WorkerOutput.h"

namespace kdxoffload {

void WorkerOutput::startJob(std::size_t frames, std::size_t destinations) {
  *this = WorkerOutput();
  _frames = frames;
  _readers = destinations + 1;
}

void WorkerOutput::add(std::string_view bytes) {
  _partial += bytes;
}

uint64_t WorkerOutput::bytesInPhase() const {
  return _bytesCopied;
}

void WorkerOutput::takeLine(std::string_view /*line*/) {}

}  // namespace kdxoffload
