#pragma once

#include <string>
#include <vector>

// The path of a file of the source tree that these tests were built from.
std::string sourceTreePath(const std::string& name);

// The manual page, taken apart as far as tests compare it with its program. Texts are those that a reader sees: escapes of the
// page's format are resolved, macros stay.
class ManualPage {
 public:
  // Reads the one of the source tree.
  explicit ManualPage(const std::string& program = "kdxdispatchcopy");

  // What stands behind ".It" in the section of this name ("EXIT STATUS"), or in a subsection ("Options"), in its order.
  [[nodiscard]] std::vector<std::string> items(const std::string& section) const;

  // The lines of a section between ".Bd" and ".Ed", in its order.
  [[nodiscard]] std::vector<std::string> displayedLines(const std::string& section) const;

  // The lines of a section as they are in the file.
  [[nodiscard]] std::vector<std::string> linesOfSection(const std::string& section) const;

 private:
  std::vector<std::string> _lines;
};
