// The tables of an administration store, and what the reader needs of each:
// its name, its columns after the oid in the order the objects read them,
// and the table of its owner.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kiv {

// The tables a store is read from; the object tables come first.
enum Table : std::uint8_t {
  kHost,
  kDataServer,
  kVaultServer,
  kProject,
  kDomain,
  kBusinessDomain,
  kDataDomain,
  kExternSite,
  kLocalSite,
  kMedia,
  kPackageDefinition,
  kSubscribingTarget,
  kSubscription,
  kCaptureStatus,
  kApplyStatus,
  kProjectVaultServer,
  kProjectDataServer,
  kPackageWholeDataDomain,
  kTableCount
};
constexpr int kObjectTables = kApplyStatus + 1;

struct TableShape {
  const char* name;
  // The columns after the oid; the first is the owner's reference in a
  // child table.
  std::vector<const char*> columns;
  Table owner;  // kTableCount for a table without an owner
  bool hasOid;
};

const TableShape& ShapeOf(Table table);

// The table named name; kTableCount for a name the schema does not have.
Table TableNamed(std::string_view name);

// The columns of table by name, joined for a statement: the oid first, for
// an object table, then its own columns.
std::string ColumnList(Table table);

// Where a table's own columns start in its statements: after the rowid and,
// for an object table, the oid.
int FirstColumn(Table table);

// The select list of a table's rows (rowid, oid, own columns), each column
// prefixed with prefix.
std::string SelectList(Table table, const char* prefix);

}  // namespace kiv
