#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

// What the rules for the output of a run depend on.
struct RunKind {
  std::set<std::string> options;  // as given: "-v"
  std::size_t destinations = 0;
  std::size_t frames = 0;  // 0 for a single file
};

// The forms of the tool's output, as docs/output.md describes them. The notation is explained there.
class OutputGrammar {
 public:
  // Reads the document. Throws std::runtime_error if it breaks its own notation.
  static OutputGrammar ofDocument();
  explicit OutputGrammar(const std::string& text);

  // What is wrong with a text that should have the form of the rule; empty if nothing is.
  [[nodiscard]] std::string faultOf(const std::string& text, const std::string& rule, const RunKind& kind) const;
  // The same for the standard output of a run that ended with this status.
  [[nodiscard]] std::string faultOfOutput(const std::string& output, int exitStatus, const RunKind& kind) const;
  // The same for the standard output of a run that was killed: a correct beginning is enough.
  [[nodiscard]] std::string faultOfBeginning(const std::string& output, const std::string& rule,
                                             const RunKind& kind) const;

  [[nodiscard]] bool hasRule(const std::string& name) const { return _rules.contains(name); }
  [[nodiscard]] const std::map<std::string, std::vector<std::string>>& rules() const { return _rules; }
  [[nodiscard]] const std::map<std::string, std::string>& words() const { return _words; }

 private:
  std::map<std::string, std::string> _words;               // regular expressions, by name
  std::map<std::string, std::vector<std::string>> _rules;  // every form of a rule, by its name
};
