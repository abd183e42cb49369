#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace kdxoffload {

// What all lines for programs have in common.
namespace JsonText {

// The object on one line of ASCII, with a newline, so that names in it are harmless on a terminal too. Bytes that are not UTF-8
// are replaced.
std::string lineOf(const nlohmann::ordered_json& object);

// Adds the path under the name. If the path is not UTF-8, also adds its bytes, under the name with "_base64" added.
void addPath(nlohmann::ordered_json& object, const std::string& path, const std::string& name = "path");

}  // namespace JsonText

}  // namespace kdxoffload
