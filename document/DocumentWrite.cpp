#include "DocumentWrite.h"

#include <string>

#include "Escape.h"

namespace doc {

const char kTwinMark[] = "<?vantrel-doc escaped?>";

namespace {

// Appends text to out as an XML attribute value carries it; false with the
// offending character's offset in *at when XML 1.0 cannot carry it.
bool EscapeValue(std::string_view text, std::string& out, std::size_t* at) {
  for (std::size_t i = 0; i < text.size();) {
    const char c = text[i];
    switch (c) {
      case '&':
        out += "&amp;";
        ++i;
        continue;
      case '<':
        out += "&lt;";
        ++i;
        continue;
      case '>':
        out += "&gt;";
        ++i;
        continue;
      case '"':
        out += "&quot;";
        ++i;
        continue;
      // A parser would change these into blanks: kept as references.
      case '\t':
        out += "&#9;";
        ++i;
        continue;
      case '\n':
        out += "&#10;";
        ++i;
        continue;
      case '\r':
        out += "&#13;";
        ++i;
        continue;
      default:
        break;
    }
    const std::size_t n =
        static_cast<unsigned char>(c) < 0x20 ? 0 : vantrel::Utf8At(text, i);
    if (n == 0) {
      *at = i;
      return false;
    }
    out.append(text.data() + i, n);
    i += n;
  }
  return true;
}

// The character at offset at of text as a message names it.
std::string Character(std::string_view text, std::size_t at) {
  const auto c = static_cast<unsigned char>(text[at]);
  static const char kDigits[] = "0123456789ABCDEF";
  if (c >= 0x20 && c < 0x7F)
    return std::string("'") + static_cast<char>(c) + "'";
  return std::string("the byte \\x") + kDigits[c >> 4] + kDigits[c & 0x0F];
}

}  // namespace

std::size_t IllFormedAt(std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    const char c = text[i];
    if (c == '&' || c == '<' || c == '"') return i;
    const std::size_t n = static_cast<unsigned char>(c) < 0x20 && c != '\t'
                              ? 0
                              : vantrel::Utf8At(text, i);
    if (n == 0) return i;
    i += n;
  }
  return std::string_view::npos;
}

bool WriteLine(const Line& line, bool escaped, std::string& out,
               std::string* problem, bool shown) {
  switch (line.type) {
    case Line::kDeclaration:
      out += kDeclarationLine;
      if (escaped) out += kTwinMark;
      return true;
    case Line::kStylesheet: {
      out += kStylesheetOpener;
      std::size_t at = 0;
      if (!escaped) {
        out += line.values[0];
      } else if (!EscapeValue(line.values[0], out, &at)) {
        *problem = "the stylesheet's path holds " +
                   Character(line.values[0], at) +
                   ", which XML 1.0 cannot carry";
        return false;
      }
      out += kStylesheetCloser;
      return true;
    }
    case Line::kDoctype:
      out += kDoctypeLine;
      return true;
    case Line::kRootStart:
      out += "<AdminObjects>";
      return true;
    case Line::kRootEnd:
      out += "</AdminObjects>";
      return true;
    case Line::kEnd:
      out += "</";
      out += LayoutOf(line.kind).name;
      out += '>';
      return true;
    case Line::kStart:
      break;
  }
  const Layout& layout = LayoutOf(line.kind);
  if (layout.attributes.empty()) {
    out += '<';
    out += layout.name;
    out += layout.closer;
    return true;
  }
  out.append(static_cast<std::size_t>(2 * layout.depth), ' ');
  out += '<';
  out += layout.name;
  out += ' ';
  bool first = true;
  for (std::size_t i = 0; i < layout.attributes.size(); ++i) {
    if (!line.Has(static_cast<int>(i))) continue;
    const Attribute& a = layout.attributes[i];
    if (!first) out += a.spaced ? "\"  " : "\" ";
    first = false;
    out += a.name;
    out += "=\"";
    std::size_t at = 0;
    const std::size_t start = out.size();
    if (!escaped || a.field != Field::kText) {
      out += line.values[i];
    } else if (EscapeValue(line.values[i], out, &at)) {
    } else if (shown) {
      out.resize(start);
      EscapeValue(vantrel::Escaped(line.values[i]), out, &at);
    } else {
      *problem = std::string(layout.name) + " " + a.name + " holds " +
                 Character(line.values[i], at) + ", which XML 1.0 cannot carry";
      return false;
    }
  }
  out += layout.closer;
  return true;
}

}  // namespace doc
