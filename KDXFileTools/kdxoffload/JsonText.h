#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace kdxoffload {

// What all lines for programs have in common.
namespace JsonText {

// The object on one line of ASCII, with a newline: a name in it is harmless on a terminal too. Bytes that are not UTF-8 are
// replaced.
std::string lineOf(const nlohmann::ordered_json& object);

// Adds the path under the name, and where it is not UTF-8 its bytes too, under the name with "_base64" behind it.
void addPath(nlohmann::ordered_json& object, const std::string& path, const std::string& name = "path");

}  // namespace JsonText

}  // namespace kdxoffload
