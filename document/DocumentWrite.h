// Writing a document's lines: as the exporter writes them, or as the
// well-formed twin writes them, its values escaped for XML.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "AdminDocument.h"

namespace doc {

// The processing instruction that marks a well-formed twin: its values are
// escaped. It follows the XML declaration on the first line.
extern const char kTwinMark[];

// Appends line, as the exporter writes it, to out. With escaped, values are
// written as XML escapes them (the well-formed twin): false, leaving out
// unspecified and naming the attribute in *problem, for a value that XML 1.0
// cannot carry (a control character, a byte that is not UTF-8). With
// shown as well, such a value is written as messages show it, its bytes
// as \xNN (a view of the document, such as its report, not a copy).
bool WriteLine(const Line& line, bool escaped, std::string& out,
               std::string* problem, bool shown = false);

// The first character of text that keeps it out of a well-formed XML
// attribute value as written unescaped ('&', '<', '"', a control character
// or a byte that is not UTF-8), or npos.
std::size_t IllFormedAt(std::string_view text);

}  // namespace doc
