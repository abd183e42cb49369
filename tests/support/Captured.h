#pragma once

#include <string>

#include "tests/support/ScratchDirectory.h"

// What is printed on a descriptor of this process while the object lives.
class Captured {
 public:
  explicit Captured(int descriptor);
  ~Captured();
  Captured(const Captured&) = delete;
  Captured& operator=(const Captured&) = delete;

  // With all that was queued for printing until now.
  [[nodiscard]] std::string text() const;
  // Without waiting for the queue: what is out when the call that prints it has returned.
  [[nodiscard]] std::string textSoFar() const;

 private:
  ScratchDirectory _scratch;
  std::string _path = _scratch.file("captured");
  int _descriptor;
  int _before;
};
