#include "tests/support/Algorithms.h"

#include "tests/support/ExpectedText.h"
#include "tests/support/ScratchDirectory.h"

std::string expectedHex(const Algorithm& algorithm, const std::string& path) {
  const std::string digits = digestByProgram(algorithm.program, path);
  // The program prints the most significant byte first.
  return algorithm.code == xxHash64 ? bytesTurnedRound(digits) : digits;
}
