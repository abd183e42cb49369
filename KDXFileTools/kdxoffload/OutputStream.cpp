#include "KDXFileTools/kdxoffload/OutputStream.h"

#include "platform/Log.h"

namespace kdxoffload {

struct OutputStream::State {
  int descriptor = -1;
};

OutputStream::OutputStream(int descriptor) : _state(std::make_shared<State>(State{descriptor})) {}
OutputStream::~OutputStream() = default;

void OutputStream::write(std::string text) {
  platform::writeText(_state->descriptor, text);
}

void OutputStream::writeUnlessWaiting(std::string text) {
  write(std::move(text));
}

bool OutputStream::finish(double /*seconds*/) {
  return true;
}

}  // namespace kdxoffload
