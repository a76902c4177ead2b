// Reading a store's rows: each value checked against the format as it is
// read, the children of each owner streamed in one pass, and the link
// tables read once and grouped by owner.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "OidIndex.h"
#include "StoreTables.h"

struct sqlite3_stmt;

namespace kiv {

class AdminStore;

// One row of a statement, with its values checked against the format as
// they are read. Every accessor throws StoreError on a bad value.
class Row {
 public:
  Row(AdminStore& store, sqlite3_stmt* stmt, Table table)
      : store_(store), stmt_(stmt), table_(table) {}
  std::int64_t Rowid() const;
  // The row's own entry in its table's index of oids.
  const OidEntry& Oid() const;
  // A column of the table's own (0 for the first after the oid): NULL reads
  // as empty; anything else but a text without NUL or line break is
  // refused.
  std::string_view Text(int column) const;
  // The integer 0 or 1.
  int Flag(int column) const;
  // A reference to a row of table, or of alternative when it is not
  // kTableCount: its index entry, or null for NULL when optional. likely,
  // an entry of table, is compared before any search.
  const OidEntry* Ref(int column, Table table, bool mandatory,
                      Table alternative = kTableCount,
                      const OidEntry* likely = nullptr) const;
  // The table of the object that Ref last found.
  Table RefTable() const { return refTable_; }
  // Throws the refusal of column, saying what is wrong.
  [[noreturn]] void Refuse(int column, const std::string& what) const;

 private:
  int Index(int column) const;
  AdminStore& store_;
  sqlite3_stmt* stmt_;
  Table table_;
  mutable Table refTable_ = kTableCount;
};

// The rows of one child table in the order of their owners' rows, stepped
// as the owners ask for them; an owner asked out of that order reads its
// own.
struct ChildCursor {
  sqlite3_stmt* inOrder = nullptr;
  sqlite3_stmt* ofOwner = nullptr;
  bool started = false;
  bool pending = false;  // inOrder holds a row not yet taken
  bool done = false;
  std::int64_t lastOwner = 0;    // the row of the owner that asked last
  std::int64_t streamOwner = 0;  // the row of the owner of the last row read
};

// A link table's rows grouped by owner: 4 bytes a row and 4 an owner.
struct LinkGroups {
  std::vector<std::uint32_t> start;    // by owner position, and one past
  std::vector<std::uint32_t> targets;  // target positions, grouped by owner
};

}  // namespace kiv
