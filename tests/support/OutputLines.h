#pragma once

#include <string>
#include <vector>

// The lines of a text without their newlines; a last one without a newline counts too.
std::vector<std::string> linesOf(const std::string& text);
// The text of which these are the lines, each with its newline.
std::string asText(const std::vector<std::string>& lines);

// Compares the whole output; the run of expected lines that begin with "~" may come in any order.
void expectOutput(const std::string& expected, const std::string& output);

// Compares the lines of things that are done side by side: those of each come in order, those of different ones in any.
void expectSideBySide(const std::vector<std::vector<std::string>>& linesOfEach, const std::vector<std::string>& lines);

// The system log's one line carries the description; without one nothing is logged.
void expectLogged(const std::string& description, const std::string& errors);
