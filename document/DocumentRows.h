// The store rows that one element of a document stands for: the writer
// side of the document, shared by every command that makes a store from
// one. Each element's row is described by attribute name, from the layout.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "AdminDocument.h"
#include "KivStoreWriter.h"

namespace doc {

// A row of a store table as an element gives it: the table (a name that
// lives as long as the program), the values of its columns in the schema's
// order, and whether a row already there with its oid is left alone (a
// media, made where it is named). Returns false to stop.
using RowSink = std::function<bool(
    const char* table, const std::vector<KivStoreWriter::Value>& values,
    bool once)>;

// Gives sink the rows of the element read into line, as AddRows adds them;
// false when sink stopped.
bool RowsOf(const Line& line, std::string_view parent, const RowSink& sink);

// A list attribute of an element kept as link rows (owner, target).
struct LinkList {
  Kind kind;
  const char* attribute;
  const char* table;
};
const std::vector<LinkList>& LinkLists();

// The store tables that hold objects: those of the elements, and media.
std::vector<const char*> ObjectTables();

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
