#pragma once

#include <string>
#include <vector>

// The path of a file of the source tree that these tests were built from.
std::string sourceTreePath(const std::string& name);

// The parts of the manual page that tests compare with its program. Texts are those that a reader sees: escapes of the page's
// format are resolved, macros stay.
class ManualPage {
 public:
  // Reads the page in the source tree.
  explicit ManualPage(const std::string& program = "kdxdispatchcopy");

  // What follows each ".It" in the section of this name ("EXIT STATUS"), or in a subsection ("Options"), in order.
  [[nodiscard]] std::vector<std::string> items(const std::string& section) const;

  // The lines of a section between ".Bd" and ".Ed", in order.
  [[nodiscard]] std::vector<std::string> displayedLines(const std::string& section) const;

  // The lines of a section as they stand in the file.
  [[nodiscard]] std::vector<std::string> linesOfSection(const std::string& section) const;

 private:
  std::vector<std::string> _lines;
};
