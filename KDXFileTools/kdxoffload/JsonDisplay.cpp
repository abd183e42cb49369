#include "KDXFileTools/kdxoffload/JsonDisplay.h"

namespace kdxoffload {

JsonDisplay::JsonDisplay(OutputStream& results) : _results(results) {}

void JsonDisplay::take(const Event& event) {
  if (const auto* finished = std::get_if<Finished>(&event)) {
    _results.write(finished->verdict.isSafe ? "{\"type\":\"summary\",\"verdict\":\"safe\"}\n"
                                            : "{\"type\":\"summary\",\"verdict\":\"not-safe\"}\n");
  }
}

}  // namespace kdxoffload
