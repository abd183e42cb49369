#include "tests/support/ManualPage.h"

#include "tests/support/ExpectedText.h"
#include "tests/support/OutputLines.h"
#include "tests/support/ScratchDirectory.h"

namespace {

std::string asRead(std::string line) {
  line = replaced(line, "\\-", "-");
  line = replaced(line, "\\(aq", "'");
  line = replaced(line, "\\(dq", "\"");
  return replaced(line, "\\e", "\\");
}

}  // namespace

std::string sourceTreePath(const std::string& name) {
  return std::string(KDX_SOURCE_TREE) + "/" + name;
}

ManualPage::ManualPage(const std::string& program)
    : _lines(linesOf(readFile(sourceTreePath("docs/" + program + ".1")))) {}

std::vector<std::string> ManualPage::linesOfSection(const std::string& section) const {
  std::vector<std::string> lines;
  bool inside = false;
  for (const std::string& line : _lines) {
    const bool isHeading = line.starts_with(".Sh ") || line.starts_with(".Ss ");
    if (isHeading) inside = line.substr(4) == section;
    if (inside && !isHeading) lines.push_back(line);
  }
  return lines;
}

std::vector<std::string> ManualPage::items(const std::string& section) const {
  const std::string mark = ".It ";
  std::vector<std::string> items;
  for (const std::string& line : linesOfSection(section)) {
    if (line.starts_with(mark)) items.push_back(asRead(line.substr(mark.size())));
  }
  return items;
}

std::vector<std::string> ManualPage::displayedLines(const std::string& section) const {
  std::vector<std::string> lines;
  bool inside = false;
  for (const std::string& line : linesOfSection(section)) {
    if (line.starts_with(".Bd ") || line == ".Ed") {
      inside = line != ".Ed";
    } else if (inside) {
      lines.push_back(asRead(line));
    }
  }
  return lines;
}
