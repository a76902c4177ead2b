// Text from a store, a document or the command line as a message shows it,
// so that no value can forge a line of its own or hide a byte.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vantrel {

// text with control bytes (NUL and DEL among them), quotes, backslashes and
// every byte that is not part of a UTF-8 character as \xNN, so that it is
// valid UTF-8 for any message or JSON; cut after about max characters,
// ending with "...".
std::string Escaped(std::string_view text, std::size_t max = std::string::npos);
// Appends Escaped(text) to shown, without a string of its own.
void AppendEscaped(std::string& shown, std::string_view text);

// text as every view of a plan writes a value: a backslash, a control byte
// and every byte that is not part of a UTF-8 character as \xNN, as
// Escaped does, so that the escape of a byte is never taken for text that
// reads like one; quotes are left to the view's own syntax (JSON's,
// HTML's).
std::string ValueEscaped(std::string_view text);

// The length of the UTF-8 sequence at text[i], or 0 when it is not one
// (overlong forms, surrogates, code points past U+10FFFF, and U+FFFE and
// U+FFFF, which are not characters of XML, included).
std::size_t Utf8At(std::string_view text, std::size_t i);

}  // namespace vantrel
