// The store rows that one element of a document stands for: the writer
// side of the document, shared by every command that makes a store from
// one. Each element's row is worked out from its layout (table, and a column
// per attribute) and the store's columns, by name.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "AdminDocument.h"
#include "DocumentPlan.h"
#include "KivStoreChange.h"
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

// Adds to writer the rows of the element read into line, whose parent
// element has the identifier parent ("" for none): its own row, the row of
// a media it names (once), and a row per identifier of its lists, in the
// order written. For a new row, a value the document does not carry is
// NULL (a media's path), a kind is 'rdb'. False after setting *error.
bool AddRows(KivStoreWriter& writer, const Line& line, std::string_view parent,
             std::string* error);

// The store rows and lists that plan changes, as a store change takes
// them: each object it names, with the table its store row is in (none for
// an addition), and each list an object enters or moves in.
KivStoreTouched RowsTouched(const Plan& plan);

// Sets *touched to RowsTouched(plan) and adds to *content the rows of
// wanted, plan's document after, that its changes need: those of each
// object it touches, and of every object of each list they enter or move
// in, in the document's order. False with *error for a row the store's
// schema does not take.
bool TouchedRows(const PlanDocument& wanted, const Plan& plan,
                 KivStoreContent* content, KivStoreTouched* touched,
                 std::string* error);

// What keeps the layouts from agreeing with the store's tables: a table
// or link table the store lacks, a column that no attribute fills, or an
// attribute that goes to no column. Empty when they agree.
std::vector<std::string> RowShapeProblems();

}  // namespace doc
