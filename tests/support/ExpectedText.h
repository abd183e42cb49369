#pragma once

#include <initializer_list>
#include <string>

// The texts joined.
std::string text(std::initializer_list<std::string> parts);

// The text with every `what` replaced.
std::string replaced(std::string in, const std::string& what, const std::string& with);

// Hex digits with the order of the bytes reversed; with capital letters.
std::string bytesTurnedRound(const std::string& digits);
std::string inCapitals(std::string digits);
