#pragma once

#include "KDXFileTools/kdxoffload/Events.h"
#include "KDXFileTools/kdxoffload/OutputStream.h"

namespace kdxoffload {

// For a program: one JSON object a line on `results` and nothing else there, as docs/output.md writes them down; the summary
// is always the last.
class JsonDisplay final : public Listener {
 public:
  explicit JsonDisplay(OutputStream& results);
  void take(const Event& event) override;

 private:
  OutputStream& _results;
};

}  // namespace kdxoffload
