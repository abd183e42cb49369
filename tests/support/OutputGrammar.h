#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

// What the rules for a run's output depend on.
struct RunKind {
  std::set<std::string> options;  // as they were given: "-v"
  std::size_t destinations = 0;
  std::size_t frames = 0;  // 0 for a single file
};

// The forms of the tool's output, as docs/output.md writes them down: its notation is explained there.
class OutputGrammar {
 public:
  // Reads the document as it stands. Throws std::runtime_error where it does not keep to its notation.
  static OutputGrammar ofDocument();
  explicit OutputGrammar(const std::string& text);

  // What is wrong with a text that should have the form of the rule; empty when nothing is.
  [[nodiscard]] std::string faultOf(const std::string& text, const std::string& rule, const RunKind& kind) const;
  // The same for standard output of a run that ended with the status.
  [[nodiscard]] std::string faultOfOutput(const std::string& output, int exitStatus, const RunKind& kind) const;
  // The same for standard output of a run that was killed: a good beginning is enough.
  [[nodiscard]] std::string faultOfBeginning(const std::string& output, const std::string& rule,
                                             const RunKind& kind) const;

  [[nodiscard]] bool hasRule(const std::string& name) const { return _rules.contains(name); }
  [[nodiscard]] const std::map<std::string, std::vector<std::string>>& rules() const { return _rules; }
  [[nodiscard]] const std::map<std::string, std::string>& words() const { return _words; }

 private:
  std::map<std::string, std::string> _words;               // regular expressions by their names
  std::map<std::string, std::vector<std::string>> _rules;  // every form of a rule, by its name
};
