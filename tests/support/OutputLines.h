#pragma once

#include <string>
#include <vector>

// The lines of a text without their newlines; a last one without a newline counts too.
std::vector<std::string> linesOf(const std::string& text);
// The text made of these lines, each with a newline.
std::string asText(const std::vector<std::string>& lines);

// Compares the whole output. Consecutive expected lines that begin with "~" may come in any order.
void expectOutput(const std::string& expected, const std::string& output);

// Compares the lines of things that are done at the same time: the lines of each come in order, and may mix with the others.
void expectSideBySide(const std::vector<std::vector<std::string>>& linesOfEach, const std::vector<std::string>& lines);

// Expects that the only line of the system log has the description, or that nothing is logged if the description is empty.
void expectLogged(const std::string& description, const std::string& errors);
