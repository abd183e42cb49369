#include "tests/support/OutputGrammar.h"

#include <algorithm>
#include <memory>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "tests/support/OutputLines.h"
#include "tests/support/ProjectFile.h"
#include "tests/support/ScratchDirectory.h"

// The forms are matched by derivatives: what may follow a line is again a form. This makes "&" as simple as "|".

namespace {

struct Form;
using FormPointer = std::shared_ptr<const Form>;

struct Form {
  enum class Kind { nothing, empty, line, sequence, choice, mix, repeated };
  Kind kind;
  std::string key;  // equal forms have equal keys
  std::vector<FormPointer> parts = {};
  std::shared_ptr<const std::regex> line = nullptr;
  bool canBeEmpty = false;
};

using Kind = Form::Kind;

FormPointer make(Form form) {
  return std::make_shared<const Form>(std::move(form));
}

const FormPointer nothing = make({.kind = Kind::nothing, .key = "0"});
const FormPointer empty = make({.kind = Kind::empty, .key = "1", .canBeEmpty = true});

std::string keyOf(char mark, const std::vector<FormPointer>& parts) {
  std::string key(1, '(');
  for (const FormPointer& part : parts) key.append(1, mark).append(part->key);
  return key + ')';
}

FormPointer sequence(const FormPointer& first, const FormPointer& second) {
  if (first == nothing || second == nothing) return nothing;
  if (first == empty) return second;
  if (second == empty) return first;
  return make({.kind = Kind::sequence,
               .key = keyOf(',', {first, second}),
               .parts = {first, second},
               .canBeEmpty = first->canBeEmpty && second->canBeEmpty});
}

// Replaces each part that is itself of this kind by its own parts.
std::vector<FormPointer> flattened(Kind kind, const std::vector<FormPointer>& parts) {
  std::vector<FormPointer> all;
  for (const FormPointer& part : parts) {
    if (part->kind == kind) {
      all.insert(all.end(), part->parts.begin(), part->parts.end());
    } else {
      all.push_back(part);
    }
  }
  std::ranges::sort(all, {}, [](const FormPointer& part) { return part->key; });
  return all;
}

bool isSame(const FormPointer& a, const FormPointer& b) {
  return a->key == b->key;
}

FormPointer choice(const std::vector<FormPointer>& of) {
  std::vector<FormPointer> parts = flattened(Kind::choice, of);
  std::erase(parts, nothing);
  parts.erase(std::unique(parts.begin(), parts.end(), isSame), parts.end());
  if (parts.empty()) return nothing;
  if (parts.size() == 1) return parts.front();
  return make({.kind = Kind::choice,
               .key = keyOf('|', parts),
               .parts = parts,
               .canBeEmpty = std::ranges::any_of(parts, &Form::canBeEmpty)});
}

FormPointer mix(const std::vector<FormPointer>& of) {
  std::vector<FormPointer> parts = flattened(Kind::mix, of);
  if (std::ranges::find(parts, nothing) != parts.end()) return nothing;
  std::erase(parts, empty);
  if (parts.empty()) return empty;
  if (parts.size() == 1) return parts.front();
  return make({.kind = Kind::mix,
               .key = keyOf('&', parts),
               .parts = parts,
               .canBeEmpty = std::ranges::all_of(parts, &Form::canBeEmpty)});
}

FormPointer repeated(const FormPointer& part) {
  if (part == empty || part == nothing) return empty;
  return make({.kind = Kind::repeated, .key = keyOf('*', {part}), .parts = {part}, .canBeEmpty = true});
}

// The form that may follow the line.
FormPointer behind(const FormPointer& form, const std::string& line) {
  switch (form->kind) {
    case Kind::nothing:
    case Kind::empty:
      return nothing;
    case Kind::line:
      return std::regex_match(line, *form->line) ? empty : nothing;
    case Kind::repeated:
      return sequence(behind(form->parts.front(), line), form);
    case Kind::sequence: {
      const FormPointer& first = form->parts[0];
      const FormPointer& second = form->parts[1];
      const FormPointer inFirst = sequence(behind(first, line), second);
      return first->canBeEmpty ? choice({inFirst, behind(second, line)}) : inFirst;
    }
    case Kind::choice:
    case Kind::mix:
      break;
  }
  std::vector<FormPointer> ways;
  for (std::size_t index = 0; index < form->parts.size(); ++index) {
    if (index > 0 && isSame(form->parts[index], form->parts[index - 1])) continue;
    std::vector<FormPointer> rest = form->parts;
    rest[index] = behind(rest[index], line);
    ways.push_back(form->kind == Kind::mix ? mix(rest) : rest[index]);
  }
  return choice(ways);
}

// --- The notation ---

using Words = std::map<std::string, std::string>;
using Rules = std::map<std::string, std::vector<std::string>>;

// The text with every <word> replaced by its expression.
std::string withWords(const std::string& text, const Words& words, bool isPlain) {
  static const std::regex special(R"([.*+?^${}()|[\]\\])");
  const auto plain = [&](const std::string& piece) {
    return isPlain ? std::regex_replace(piece, special, R"(\$&)") : piece;
  };
  std::string expression;
  std::size_t at = 0;
  for (std::size_t open = 0; (open = text.find('<', at)) != std::string::npos;) {
    const std::size_t close = text.find('>', open);
    const std::string word = text.substr(open + 1, close - open - 1);
    if (!words.contains(word)) throw std::runtime_error("no word is called <" + word + ">");
    expression += plain(text.substr(at, open - at)) + "(?:" + withWords(words.at(word), words, false) + ")";
    at = close + 1;
  }
  return expression + plain(text.substr(at));
}

class Parser {
 public:
  Parser(const Words& words, const Rules& rules, const RunKind& kind) : _words(words), _rules(rules), _kind(kind) {}

  FormPointer rule(const std::string& name) {
    if (!_rules.contains(name)) throw std::runtime_error("no rule is called " + name);
    std::vector<FormPointer> forms;
    for (const std::string& text : _rules.at(name)) {
      Parser body(_words, _rules, _kind);
      body.takeTokens(text);
      forms.push_back(body.alternatives());
      if (!body._token.empty()) throw std::runtime_error(name + ": not understood from " + body._token);
    }
    return choice(forms);
  }

 private:
  void takeTokens(const std::string& text) {
    static const std::regex token(R"re("[^"]*"|[A-Za-z0-9-]+|[|&?*+(){},]|\S)re");
    for (std::sregex_iterator found(text.begin(), text.end(), token), end; found != end; ++found) {
      _tokens.push_back(found->str());
    }
    next();
  }

  void next() { _token = _at < _tokens.size() ? _tokens[_at++] : ""; }

  std::string taken() {
    std::string token = _token;
    next();
    return token;
  }

  bool took(const std::string& token) {
    if (_token != token) return false;
    next();
    return true;
  }

  void expect(const std::string& token) {
    if (!took(token)) throw std::runtime_error("\"" + token + "\" is missing before \"" + _token + "\"");
  }

  FormPointer alternatives() {
    std::vector<FormPointer> parts{mixed()};
    while (took("|")) parts.push_back(mixed());
    return choice(parts);
  }

  FormPointer mixed() {
    std::vector<FormPointer> parts{row()};
    while (took("&")) parts.push_back(row());
    return mix(parts);
  }

  FormPointer row() {
    FormPointer all = empty;
    while (!_token.empty() && _token != "|" && _token != "&" && _token != ")") all = sequence(all, item());
    return all;
  }

  FormPointer item() {
    FormPointer form = single();
    while (true) {
      if (took("?")) {
        form = choice({form, empty});
      } else if (took("*")) {
        form = repeated(form);
      } else if (took("+")) {
        form = sequence(form, repeated(form));
      } else if (took("{")) {
        form = counted(form);
      } else {
        return form;
      }
    }
  }

  FormPointer counted(const FormPointer& form) {
    const bool isMixed = took("&");
    const std::size_t count = countOf(taken());
    expect("}");
    if (isMixed) return mix(std::vector<FormPointer>(count, form));
    FormPointer all = empty;
    for (std::size_t index = 0; index < count; ++index) all = sequence(form, all);
    return all;
  }

  [[nodiscard]] std::size_t countOf(const std::string& name) const {
    if (name == "frames") return _kind.frames;
    if (name == "destinations") return _kind.destinations;
    if (name == "others") return _kind.destinations == 0 ? 0 : _kind.destinations - 1;
    throw std::runtime_error("nothing is counted by " + name);
  }

  FormPointer single() {
    if (took("(")) return inParentheses();
    const std::string token = taken();
    if (token == "with" || token == "without") {
      const bool isThere = anyIsGiven() == (token == "with");
      expect("(");
      const FormPointer form = inParentheses();
      return isThere ? form : empty;
    }
    return token.starts_with('"') ? lineOf(token.substr(1, token.size() - 2)) : rule(token);
  }

  FormPointer inParentheses() {
    const FormPointer form = alternatives();
    expect(")");
    return form;
  }

  bool anyIsGiven() {
    bool isGiven = false;
    do {
      const std::string option = taken();
      isGiven |= option == "frames" ? _kind.frames > 0 : _kind.options.contains(option);
    } while (took(","));
    return isGiven;
  }

  FormPointer lineOf(std::string text) const {
    const std::string key = '"' + text + '"';
    const bool hasNewline = text.ends_with("\\n");
    if (hasNewline) text.resize(text.size() - 2);
    const std::string expression = withWords(text, _words, true) + (hasNewline ? "\n" : "");
    return make({.kind = Kind::line, .key = key, .line = std::make_shared<const std::regex>(expression)});
  }

  const Words& _words;
  const Rules& _rules;
  const RunKind& _kind;
  std::vector<std::string> _tokens;
  std::size_t _at = 0;
  std::string _token;
};

// The lines with their newlines; the last one may have none.
std::vector<std::string> wholeLinesOf(const std::string& text) {
  std::vector<std::string> lines = linesOf(text);
  for (std::string& line : lines) line += '\n';
  if (!lines.empty() && !text.ends_with('\n')) lines.back().pop_back();
  return lines;
}

// The form that may follow the text. If nothing may, `fault` says what is wrong.
FormPointer behindText(FormPointer form, const std::string& text, std::string& fault) {
  std::size_t number = 0;
  for (const std::string& line : wholeLinesOf(text)) {
    form = behind(form, line);
    ++number;
    if (form != nothing) continue;
    fault = "line " + std::to_string(number) + " is not expected: " + line + "of\n" + text;
    return form;
  }
  return form;
}

}  // namespace

OutputGrammar OutputGrammar::ofDocument() {
  const std::string document = readFile(projectFile("docs/output.md"));
  const std::string fence = "\n```grammar\n";
  const std::size_t start = document.find(fence);
  const std::size_t end = document.find("\n```\n", start + fence.size());
  if (start == std::string::npos || end == std::string::npos) throw std::runtime_error("the document has no grammar");
  return OutputGrammar(document.substr(start + fence.size(), end + 1 - start - fence.size()));
}

OutputGrammar::OutputGrammar(const std::string& text) {
  static const std::regex definition(R"((<?)([a-z0-9-]+)>? += (.*))");
  std::string* last = nullptr;
  for (const std::string& line : linesOf(text)) {
    std::smatch found;
    if (line.empty() || line.starts_with('#')) continue;
    if (last != nullptr && line.starts_with(' ')) {
      *last += line;
    } else if (!std::regex_match(line, found, definition)) {
      throw std::runtime_error("not understood: " + line);
    } else if (found[1].length() > 0) {
      _words[found[2]] = found[3];
    } else {
      last = &_rules[found[2]].emplace_back(found[3]);
    }
  }
}

std::string OutputGrammar::faultOf(const std::string& text, const std::string& rule, const RunKind& kind) const {
  std::string fault;
  const FormPointer rest = behindText(Parser(_words, _rules, kind).rule(rule), text, fault);
  if (!fault.empty() || rest->canBeEmpty) return fault;
  return "the end is missing of\n" + text;
}

std::string OutputGrammar::faultOfOutput(const std::string& output, int exitStatus, const RunKind& kind) const {
  const std::string rule = "exit-" + std::to_string(exitStatus);
  const std::string fault = hasRule(rule) ? faultOf(output, rule, kind) : "no rule is called " + rule;
  // The number of a system error may also be one of the tool's own statuses.
  const bool isOfTheSystem = exitStatus != 0 && faultOf(output, "exit-errno", kind).empty();
  return isOfTheSystem ? "" : fault;
}

std::string OutputGrammar::faultOfBeginning(const std::string& output, const std::string& rule,
                                            const RunKind& kind) const {
  std::string fault;
  behindText(Parser(_words, _rules, kind).rule(rule), output, fault);
  return fault;
}
