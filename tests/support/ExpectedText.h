#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

// One text made of several.
std::string text(std::initializer_list<std::string> parts);

// The text with every `what` replaced.
std::string replaced(std::string in, const std::string& what, const std::string& with);

// The words of a text with one space between them: two spaces hold an empty word, and an empty text has none.
std::vector<std::string> wordsOf(std::string_view text);

// Hex digits with the order of the bytes turned round, and with capital letters.
std::string bytesTurnedRound(const std::string& digits);
std::string inCapitals(std::string digits);
