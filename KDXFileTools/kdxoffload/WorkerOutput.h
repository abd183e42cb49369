#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "KDXFileTools/kdxoffload/Events.h"
#include "KDXFileTools/kdxoffload/FileDigest.h"

namespace kdxoffload {

// Reads the lines of a job on standard output, by the grammar of docs/output.md. Ignores unknown lines. No line proves
// anything.
class WorkerOutput {
 public:
  // A job with this many files and destinations starts.
  void startJob(std::size_t frames, std::size_t destinations);
  void add(std::string_view bytes);

  [[nodiscard]] JobPhase phase() const { return _phase; }
  // Bytes of the source in this phase; in a read-back those of the slowest reader.
  [[nodiscard]] uint64_t bytesInPhase() const;
  [[nodiscard]] const std::vector<FileDigest>& digests() const { return _digests; }  // in frame order
  [[nodiscard]] double secondsCopying() const { return _secondsCopying; }
  [[nodiscard]] double secondsReadingBack() const { return _secondsReadingBack; }

  // The last line that reported a failure; empty if there was none.
  [[nodiscard]] const std::string& complaint() const { return _complaint; }

 private:
  void takeLine(std::string_view line);
  void takeVerified(std::string_view line);

  std::string _partial;
  JobPhase _phase = JobPhase::copying;
  std::size_t _frames = 1;
  std::size_t _readers = 1;
  uint64_t _bytesCopied = 0;
  std::vector<std::pair<std::string, uint64_t>> _bytesRead;  // by path
  std::vector<FileDigest> _digests;
  double _secondsCopying = 0;
  double _secondsReadingBack = 0;
  std::string _complaint;
};

}  // namespace kdxoffload
