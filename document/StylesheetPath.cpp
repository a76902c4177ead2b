#include "StylesheetPath.h"

#include <cctype>
#include <cstdlib>
#include <map>

#include "Escape.h"

namespace doc {
namespace {

// The href of an xml-stylesheet instruction's text, its predefined entities
// and character references left as they are.
std::string_view Href(std::string_view data) {
  const std::size_t at = data.find("href=\"");
  if (at == std::string_view::npos) return std::string_view();
  const std::size_t from = at + 6, to = data.find('"', from);
  return data.substr(from, to == std::string_view::npos ? to : to - from);
}

// The UTF-8 of code point code, or "" when it is no character of XML (NUL,
// a surrogate, U+FFFE, U+FFFF, past U+10FFFF).
std::string CharacterOf(unsigned long code) {
  std::string c;
  if (code == 0 || code >= 0x110000) return c;
  if (code < 0x80) {
    c = {static_cast<char>(code)};
  } else if (code < 0x800) {
    c = {static_cast<char>(0xC0 | code >> 6),
         static_cast<char>(0x80 | (code & 0x3F))};
  } else if (code < 0x10000) {
    c = {static_cast<char>(0xE0 | code >> 12),
         static_cast<char>(0x80 | (code >> 6 & 0x3F)),
         static_cast<char>(0x80 | (code & 0x3F))};
  } else {
    c = {static_cast<char>(0xF0 | code >> 18),
         static_cast<char>(0x80 | (code >> 12 & 0x3F)),
         static_cast<char>(0x80 | (code >> 6 & 0x3F)),
         static_cast<char>(0x80 | (code & 0x3F))};
  }
  return vantrel::Utf8At(c, 0) == c.size() ? c : std::string();
}

// The text of an XML attribute value with its predefined entities and
// character references resolved (a processing instruction's pseudo
// attribute is not resolved by the parser).
std::string Unescaped(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '&') {
      out += text[i];
      continue;
    }
    // A lone '&' is itself; looking no further than the next one keeps a
    // path of many the length of one pass.
    const std::size_t end = text.find_first_of("&;", i + 1);
    if (end == std::string_view::npos || text[end] == '&') {
      out += '&';
      continue;
    }
    const std::string_view name = text.substr(i + 1, end - i - 1);
    static const std::map<std::string_view, char> kNamed = {
        {"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}};
    if (const auto it = kNamed.find(name); it != kNamed.end()) {
      out += it->second;
    } else if (name.size() > 1 && name[0] == '#') {
      const bool hex = name[1] == 'x';
      const std::string digits(name.substr(hex ? 2 : 1));
      char* past = nullptr;
      const unsigned long code =
          std::strtoul(digits.c_str(), &past, hex ? 16 : 10);
      const std::string character =
          digits.empty() || *past || !std::isxdigit(digits[0])
              ? std::string()
              : CharacterOf(code);
      // What is not a reference to a character of XML stays as written:
      // nothing of the path is lost.
      out += character.empty() ? text.substr(i, end - i + 1) : character;
    } else {
      out += text.substr(i, end - i + 1);
    }
    i = end;
  }
  return out;
}

}  // namespace

std::string StylesheetPath(std::string_view instruction) {
  return Unescaped(Href(instruction));
}

}  // namespace doc
