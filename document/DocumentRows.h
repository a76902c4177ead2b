// The store rows that one element of a document stands for: the writer
// side of the document, shared by every command that makes a store from
// one. Each element's row is described by attribute name, from the layout.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "AdminDocument.h"
#include "KivStoreWriter.h"

namespace doc {

// The store table that holds the elements of kind, or null for an element
// without a row of its own (the server wrapper).
const char* TableOf(Kind kind);

// Adds to writer the rows of the element read into line, whose parent
// element has the identifier parent ("" for none): its own row, the row of
// a media it names (once), and a row per identifier of its lists, in the
// order written. For a new row, a value the document does not carry is
// NULL (a media's path), a kind is 'rdb'. False after setting *error.
bool AddRows(KivStoreWriter& writer, const Line& line, std::string_view parent,
             std::string* error);

// What keeps the element's rows from agreeing with the layout: a column
// naming an attribute that the layout lacks, or an attribute that goes to
// no column. Empty when they agree.
std::vector<std::string> RowShapeProblems();

}  // namespace doc
