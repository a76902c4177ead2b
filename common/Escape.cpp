#include "Escape.h"

#include "Hex.h"

namespace vantrel {

namespace {

// Appends text to shown escaped, stopping with "..." once shown holds more
// than limit bytes; quotes are escaped with quoted.
void Append(std::string& shown, std::string_view text, std::size_t limit,
            bool quoted = true) {
  for (std::size_t i = 0; i < text.size();) {
    if (shown.size() >= limit) {
      shown += "...";
      return;
    }
    // A run of plain characters goes in at once.
    std::size_t plain = i;
    while (plain < text.size() && shown.size() + (plain - i) < limit) {
      const auto c = static_cast<unsigned char>(text[plain]);
      if (c < 0x20 || c >= 0x7F || c == '\\' ||
          (quoted && (c == '\'' || c == '"')))
        break;
      ++plain;
    }
    if (plain > i) {
      shown.append(text.data() + i, plain - i);
      i = plain;
      continue;
    }
    const auto c = static_cast<unsigned char>(text[i]);
    const std::size_t n = c >= 0x80 ? Utf8At(text, i) : 1;
    if (n > 1 || (!quoted && (c == '\'' || c == '"'))) {
      shown.append(text.data() + i, n);
      i += n;
      continue;
    }
    char digits[2];
    HexWrite(text.substr(i++, 1), digits);
    (shown += "\\x").append(digits, 2);
  }
}

}  // namespace

std::string Escaped(std::string_view text, std::size_t max) {
  std::string shown;
  Append(shown, text, max);
  return shown;
}

void AppendEscaped(std::string& shown, std::string_view text) {
  Append(shown, text, std::string::npos);
}

std::string ValueEscaped(std::string_view text) {
  std::string shown;
  Append(shown, text, std::string::npos, false);
  return shown;
}

std::size_t Utf8At(std::string_view text, std::size_t i) {
  const auto byte = [&](std::size_t k) {
    return k < text.size() ? static_cast<unsigned char>(text[k]) : 0u;
  };
  const unsigned c = byte(i);
  if (c < 0x80) return 1;
  std::size_t n;
  unsigned low = 0x80, high = 0xBF;
  if (c >= 0xC2 && c <= 0xDF) {
    n = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    n = 3;
    if (c == 0xE0) low = 0xA0;
    if (c == 0xED) high = 0x9F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    n = 4;
    if (c == 0xF0) low = 0x90;
    if (c == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (byte(i + 1) < low || byte(i + 1) > high) return 0;
  for (std::size_t k = 2; k < n; ++k)
    if (byte(i + k) < 0x80 || byte(i + k) > 0xBF) return 0;
  if (n == 3 && c == 0xEF && byte(i + 1) == 0xBF && byte(i + 2) >= 0xBE)
    return 0;
  return n;
}

}  // namespace vantrel
