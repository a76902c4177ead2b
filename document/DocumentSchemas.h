// The files that describe the document to other tools, written from the
// element table: the DTD, the JSON Schemas of vantrel-doc json and of the
// plan, and the report's columns. They are made at build time, never by hand.
#pragma once

#include <string>

namespace doc {

// The DTD of the document: each element's children and attributes (an
// identifier as an ID, a reference as an IDREF, a list as IDREFS).
std::string Dtd();

// The JSON Schema of the objects that vantrel-doc json writes.
std::string DocumentJsonSchema();

// Sets *out to the JSON Schema of the plan from its template: "@KINDS@"
// becomes the elements' names, and "@ATTRIBUTES_BY_KIND@" the attributes
// each kind may change; the result is checked to be JSON and written
// indented. False with *error.
bool PlanJsonSchema(const std::string& templ, std::string* out,
                    std::string* error);

// Sets *out to text with each "@COLUMNS(KIND)@" replaced by the attributes
// of element KIND that a report shows, Name first, then the others in the
// element's order, each followed by a blank, and "@CELLS@" by a template
// per element, in mode "cells", that writes a row's cell for each of those
// attributes. False with *error for a KIND that is no element.
bool FillColumns(const std::string& text, std::string* out, std::string* error);

}  // namespace doc
