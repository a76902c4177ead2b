// The files that describe the document to other tools, written from the
// element table: the DTD, the JSON Schema of vantrel-doc json, and the
// report's columns. They are made at build time, never by hand.
#pragma once

#include <string>

namespace doc {

// The DTD of the document: each element's children and attributes (an
// identifier as an ID, a reference as an IDREF, a list as IDREFS).
std::string Dtd();

// The JSON Schema of the objects that vantrel-doc json writes.
std::string DocumentJsonSchema();

// Sets *out to text with each "@COLUMNS(KIND)@" replaced by the attributes
// of element KIND that a report shows, Name first, then the others in the
// element's order, each followed by a blank. False with *error for a KIND
// that is no element.
bool FillColumns(const std::string& text, std::string* out, std::string* error);

}  // namespace doc
