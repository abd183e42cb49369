#pragma once

#include <initializer_list>
#include <string>

// One text made of several.
std::string text(std::initializer_list<std::string> parts);

// The text with every `what` replaced.
std::string replaced(std::string in, const std::string& what, const std::string& with);

// Hex digits with the order of the bytes turned round, and with capital letters.
std::string bytesTurnedRound(const std::string& digits);
std::string inCapitals(std::string digits);
