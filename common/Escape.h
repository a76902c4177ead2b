// Text from a store, a document or the command line as a message shows it,
// so that no value can forge a line of its own or hide a byte.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vantrel {

// text with control bytes (NUL and DEL among them), quotes and backslashes
// as \xNN; cut after about max characters, ending with "...".
std::string Escaped(std::string_view text, std::size_t max = std::string::npos);

}  // namespace vantrel
