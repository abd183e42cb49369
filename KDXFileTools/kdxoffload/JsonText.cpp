#include "KDXFileTools/kdxoffload/JsonText.h"

#include <openssl/evp.h>

#include <string_view>

#include "platform/Text.h"

namespace kdxoffload::JsonText {

namespace {

using nlohmann::ordered_json;

std::string base64(std::string_view bytes) {
  constexpr std::size_t group = 3;    // bytes that become
  constexpr std::size_t letters = 4;  // so many
  std::string text((bytes.size() + group - 1) / group * letters + 1, '\0');
  const auto* from = reinterpret_cast<const unsigned char*>(bytes.data());
  const int length =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), from, static_cast<int>(bytes.size()));
  text.resize(static_cast<std::size_t>(length));
  return text;
}

}  // namespace

std::string lineOf(const ordered_json& object) {
  constexpr int onOneLine = -1;
  constexpr bool asciiAlone = true;
  return object.dump(onOneLine, ' ', asciiAlone, ordered_json::error_handler_t::replace) + "\n";
}

void addPath(ordered_json& object, const std::string& path, const std::string& name) {
  object[name] = path;
  if (!platform::isUTF8(path)) object[name + "_base64"] = base64(path);
}

}  // namespace kdxoffload::JsonText
