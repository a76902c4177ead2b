// The path an xml-stylesheet instruction names, as a program reading it
// means it.
#pragma once

#include <string>
#include <string_view>

namespace doc {

// The href of an xml-stylesheet instruction's text (what follows its
// target), with its predefined entities and character references resolved:
// the parser leaves a processing instruction's text as written. A
// reference to no character of XML, or a lone '&', stays as written.
std::string StylesheetPath(std::string_view instruction);

}  // namespace doc
