#include "Escape.h"

#include "Hex.h"

namespace vantrel {

std::string Escaped(std::string_view text, std::size_t max) {
  std::string shown;
  for (const char byte : text) {
    if (shown.size() >= max) return shown + "...";
    const auto c = static_cast<unsigned char>(byte);
    if (c >= 0x20 && c != 0x7F && c != '\'' && c != '"' && c != '\\') {
      shown += byte;
      continue;
    }
    char digits[2];
    HexWrite(std::string_view(&byte, 1), digits);
    (shown += "\\x").append(digits, 2);
  }
  return shown;
}

}  // namespace vantrel
