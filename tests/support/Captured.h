#pragma once

#include <string>

#include "tests/support/ScratchDirectory.h"

// Captures what is printed on a descriptor of this process while the object exists.
class Captured {
 public:
  explicit Captured(int descriptor);
  ~Captured();
  Captured(const Captured&) = delete;
  Captured& operator=(const Captured&) = delete;

  // Everything until now, with what was queued for printing.
  [[nodiscard]] std::string text() const;
  // What has been printed until now. Does not wait for the queue.
  [[nodiscard]] std::string textSoFar() const;

 private:
  ScratchDirectory _scratch;
  std::string _path = _scratch.file("captured");
  int _descriptor;
  int _before;
};
