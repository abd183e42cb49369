#include "tests/support/OutputLines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <sstream>

using Lines = std::vector<std::string>;

Lines linesOf(const std::string& text) {
  Lines lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::string asText(const Lines& lines) {
  std::string whole;
  for (const std::string& line : lines) whole += line + "\n";
  return whole;
}

void expectOutput(const std::string& expected, const std::string& output) {
  Lines wanted = linesOf(expected);
  Lines found = linesOf(output);
  const auto marked = [](const std::string& line) { return line.starts_with('~'); };
  const auto first = std::ranges::find_if(wanted, marked) - wanted.begin();
  const auto count = std::ranges::count_if(wanted, marked);
  for (std::string& line : wanted) {
    if (marked(line)) line.erase(0, 1);
  }
  if (found.size() == wanted.size()) {
    std::sort(wanted.begin() + first, wanted.begin() + first + count);
    std::sort(found.begin() + first, found.begin() + first + count);
  }
  EXPECT_EQ(asText(wanted), asText(found));
  EXPECT_EQ(expected.ends_with('\n'), output.ends_with('\n')) << output;
}

void expectSideBySide(const std::vector<Lines>& linesOfEach, const Lines& lines) {
  Lines all;
  for (const Lines& ofOne : linesOfEach) all.insert(all.end(), ofOne.begin(), ofOne.end());
  EXPECT_THAT(lines, testing::UnorderedElementsAreArray(all));
  for (const Lines& ofOne : linesOfEach) {
    Lines inOrder;
    std::ranges::copy_if(lines, std::back_inserter(inOrder),
                         [&](const std::string& line) { return std::ranges::find(ofOne, line) != ofOne.end(); });
    EXPECT_EQ(ofOne, inOrder);
  }
}

void expectLogged(const std::string& description, const std::string& errors) {
  if (description.empty()) {
    EXPECT_EQ("", errors);
    return;
  }
  EXPECT_THAT(errors, testing::EndsWith(description + "\n"));
  EXPECT_EQ(1, std::ranges::count(errors, '\n')) << errors;
}
