// Hexadecimal text of bytes, as identifiers are written: two upper-case
// digits per byte. The one encoder and decoder of the project.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vantrel {

// Writes the 2 * bytes.size() digits of bytes at out (no NUL).
void HexWrite(std::string_view bytes, char* out);
// The digits of bytes.
std::string Hex(std::string_view bytes);
// Sets *bytes to the bytes that digits spell (upper or lower case). False,
// leaving *bytes unspecified, for an odd count or a non-hexadecimal digit.
bool Unhex(std::string_view digits, std::string* bytes);

}  // namespace vantrel
