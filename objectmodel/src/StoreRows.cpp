#include "StoreRows.h"

#include <sqlite3.h>

#include <cstring>
#include <iostream>
#include <memory>

#include "AdminStore.h"
#include "Escape.h"
#include "StoreObjects.h"

namespace kiv {

int Row::Index(int column) const { return FirstColumn(table_) + column; }

std::int64_t Row::Rowid() const { return sqlite3_column_int64(stmt_, 0); }

namespace {

// The value of column col of stmt. The connection has no mutex of its own,
// so the value may be read directly, which spares the statement's checks on
// every access.
sqlite3_value* ValueAt(sqlite3_stmt* stmt, int col) {
  return sqlite3_column_value(stmt, col);
}

// A BLOB column of stmt; empty for any other value.
std::string_view BlobAt(sqlite3_stmt* stmt, int col) {
  sqlite3_value* value = ValueAt(stmt, col);
  if (sqlite3_value_type(value) != SQLITE_BLOB) return std::string_view();
  const void* bytes = sqlite3_value_blob(value);
  const int size = sqlite3_value_bytes(value);
  return bytes ? std::string_view(static_cast<const char*>(bytes),
                                  static_cast<std::size_t>(size))
               : std::string_view();
}

}  // namespace

// The store was checked through its indexes; a row that disagrees with them
// is a damaged store, refused rather than trusted.
const OidEntry& Row::Oid() const {
  const std::string_view oid = BlobAt(stmt_, 1);
  const OidIndex& index = store_.Index(table_);
  // Rows out of their oids' order find their entry by rowid: a search for
  // each would cost a walk through memory far from the last.
  if (const OidEntry* own = index.AtRowid(Rowid()))
    if (own->rowid == Rowid() && index.Bytes(*own) == oid) return *own;
  const OidEntry* entry = oid.empty() ? nullptr : index.Find(oid);
  if (!entry || entry->rowid != Rowid())
    throw StoreError("table " + std::string(ShapeOf(table_).name) + ", row " +
                     std::to_string(Rowid()) +
                     ", column oid: " + ShownValue(stmt_, 1) +
                     " is not the oid that the table's index holds for the "
                     "row: the store is damaged (see PRAGMA integrity_check)");
  return *entry;
}

void Row::Refuse(int column, const std::string& what) const {
  throw StoreError("table " + std::string(ShapeOf(table_).name) + ", row " +
                   std::to_string(Rowid()) +
                   (ShapeOf(table_).hasOid
                        ? " (oid " + ShownValue(stmt_, 1) + ")"
                        : std::string()) +
                   ", column " + ShapeOf(table_).columns[column] + ": " +
                   ShownValue(stmt_, Index(column)) + " " + what);
}

std::string_view Row::Text(int column) const {
  sqlite3_value* value = ValueAt(stmt_, Index(column));
  switch (sqlite3_value_type(value)) {
    case SQLITE_NULL:
      return std::string_view();
    case SQLITE_TEXT:
      break;
    default:
      Refuse(column, "is not a text (TEXT or NULL)");
  }
  const auto* text = reinterpret_cast<const char*>(sqlite3_value_text(value));
  const auto size = static_cast<std::size_t>(sqlite3_value_bytes(value));
  if (!text) throw StoreError("out of memory");
  // One pass for the bytes the document cannot carry: NUL, and a line
  // break, which would let a value write a line of its own.
  for (std::size_t i = 0; i < size; ++i) {
    const char c = text[i];
    if (c > '\r' || (c != '\0' && c != '\n' && c != '\r')) continue;
    Refuse(column, c == '\0' ? "holds a NUL byte"
                             : "holds a line break, which the document "
                               "cannot carry");
  }
  return std::string_view(text, size);
}

int Row::Flag(int column) const {
  sqlite3_value* value = ValueAt(stmt_, Index(column));
  if (sqlite3_value_type(value) == SQLITE_INTEGER) {
    const sqlite3_int64 flag = sqlite3_value_int64(value);
    if (flag == 0 || flag == 1) return static_cast<int>(flag);
  }
  Refuse(column, "is not the integer 0 or 1");
}

const OidEntry* Row::Ref(int column, Table table, bool mandatory,
                         Table alternative, const OidEntry* likely) const {
  sqlite3_value* value = ValueAt(stmt_, Index(column));
  // The kinds of row the column may name, as a refusal says them.
  const auto kinds = [&] {
    return std::string(ShapeOf(table).name) +
           (alternative == kTableCount
                ? std::string()
                : std::string(" or ") + ShapeOf(alternative).name);
  };
  switch (sqlite3_value_type(value)) {
    case SQLITE_NULL:
      if (!mandatory) return nullptr;
      Refuse(column, "is not allowed: the row must name a " + kinds() + " row");
    case SQLITE_BLOB:
      break;
    default:
      Refuse(column, "is not an oid (a non-empty BLOB)");
  }
  const void* blob = sqlite3_value_blob(value);
  const int size = sqlite3_value_bytes(value);
  if (size == 0) Refuse(column, "is not an oid (a non-empty BLOB)");
  if (!blob) throw StoreError("out of memory");
  const std::string_view oid(static_cast<const char*>(blob),
                             static_cast<std::size_t>(size));
  refTable_ = table;
  if (likely && store_.Index(table).Bytes(*likely) == oid) return likely;
  if (const OidEntry* entry = store_.Index(table).Find(oid)) return entry;
  refTable_ = alternative;
  if (alternative != kTableCount)
    if (const OidEntry* entry = store_.Index(alternative).Find(oid))
      return entry;
  Refuse(column, "names no " + kinds() + " row");
}

template <class Read>
HRESULT AdminStore::Guarded(Read&& read) {
  if (failed_) return E_FAIL;
  try {
    read();
    return S_OK;
  } catch (const StoreError& e) {
    return Refused(e.Message());
  } catch (const std::bad_alloc&) {
    return Refused(kOutOfMemory);
  }
}

HRESULT AdminStore::List(Table table, LumListPtrIUnknown& list) {
  const HRESULT hr = Guarded([&] {
    sqlite3_stmt* stmt =
        Statement("SELECT " + SelectList(table, "") + " FROM \"" +
                  ShapeOf(table).name + "\" ORDER BY rowid");
    sqlite3_reset(stmt);
    while (Step(stmt)) made_.push_back(FromRow(table, Row(*this, stmt, table)));
  });
  return AppendAll(list, hr);
}

void AdminStore::ReadChildren(Table child, const StoreObjectBase& owner) {
  const TableShape& shape = ShapeOf(child);
  if (!cursors_[child]) cursors_[child] = std::make_unique<ChildCursor>();
  ChildCursor& cursor = *cursors_[child];
  const std::string ownerColumn = std::string("\"") + shape.columns[0] + "\"";
  if (!cursor.inOrder) {
    // The rows are read in one pass, in the order of their owners' rows, in
    // which the root lists the owners: through the owner column's index when
    // the owners' oids are in the order of their rows (the oid scan tells),
    // otherwise sorted by SQLite, a row without an owner first. A statement
    // per owner would cost a search and a reset for every owner.
    const std::string ownerTable = ShapeOf(shape.owner).name;
    cursor.inOrder =
        indexes_[shape.owner].InRowOrder()
            ? Statement("SELECT " + SelectList(child, "") + " FROM \"" +
                        shape.name + "\" ORDER BY " + ownerColumn + ", rowid")
            : Statement("SELECT " + SelectList(child, "c.") + " FROM \"" +
                        shape.name + "\" AS c NOT INDEXED LEFT JOIN \"" +
                        ownerTable + "\" AS o ON o.oid = c." + ownerColumn +
                        " ORDER BY o.rowid, c.rowid");
    cursor.ofOwner = Statement("SELECT " + SelectList(child, "c.") +
                               " FROM \"" + shape.name + "\" AS c WHERE c." +
                               ownerColumn + " = ?1 ORDER BY c.rowid");
  }
  const std::int64_t rowid = owner.Rowid();
  if (cursor.started && rowid <= cursor.lastOwner) {
    // Asked again, or out of order: the owner's rows alone.
    sqlite3_stmt* stmt = cursor.ofOwner;
    sqlite3_reset(stmt);
    sqlite3_bind_blob(stmt, 1, owner.OidBytes().data(),
                      static_cast<int>(owner.OidBytes().size()), SQLITE_STATIC);
    while (Step(stmt)) made_.push_back(FromRow(child, Row(*this, stmt, child)));
    return;
  }
  cursor.started = true;
  cursor.lastOwner = rowid;
  sqlite3_stmt* stmt = cursor.inOrder;
  for (;;) {
    if (!cursor.pending) {
      if (cursor.done || !Step(stmt)) {
        cursor.done = true;
        return;
      }
      cursor.pending = true;
    }
    // The owner is checked here, as every row of the table passes: a row
    // whose owner is missing would be left out of the document unsaid.
    // The owner that asks is tried first: in a store whose rows are out of
    // order, a search for each row's owner would be far from the last.
    const Row row(*this, stmt, child);
    const OidEntry* of =
        row.Ref(0, shape.owner, true, kTableCount,
                owner.TableOf() == shape.owner ? &owner.Entry() : nullptr);
    if (of->rowid < cursor.streamOwner)
      row.Refuse(0,
                 "comes after the rows of a later owner, out of the order of "
                 "the column's index: the store is damaged (see PRAGMA "
                 "integrity_check)");
    cursor.streamOwner = of->rowid;
    if (of->rowid > rowid) return;
    cursor.pending = false;
    if (of->rowid == rowid) made_.push_back(FromRow(child, row));
  }
}

void AdminStore::CheckRows(Table table) {
  sqlite3_stmt* stmt = Statement("SELECT " + SelectList(table, "") +
                                 " FROM \"" + ShapeOf(table).name + "\"");
  sqlite3_reset(stmt);
  const Table owner = ShapeOf(table).owner;
  while (Step(stmt)) {
    const Row row(*this, stmt, table);
    if (owner != kTableCount) row.Ref(0, owner, true);
    // The object's own reading checks its values, as it will when the
    // getter reads the row.
    StoreObjectBase* object = FromRow(table, row);
    Free(object);
  }
}

HRESULT AdminStore::Children(Table child, const StoreObjectBase& owner,
                             LumListPtrIUnknown& list) {
  const HRESULT hr = Guarded([&] { ReadChildren(child, owner); });
  return AppendAll(list, hr);
}

// A link table's rows are small and read in one pass in row order, which
// costs far less than reading them in their owners' order through an index,
// then grouped by owner: every owner finds its targets at once, whatever the
// order of the rows or of the asks.
const LinkGroups& AdminStore::LinksOf(Table link, Table target) {
  if (links_[link]) return *links_[link];
  const Table ownerTable = ShapeOf(link).owner;
  auto links = std::make_unique<LinkGroups>();
  links->start.assign(indexes_[ownerTable].Entries().size() + 1, 0);
  std::vector<std::uint32_t> owners;
  sqlite3_stmt* stmt = Statement("SELECT " + SelectList(link, "") + " FROM \"" +
                                 ShapeOf(link).name + "\" ORDER BY rowid");
  sqlite3_reset(stmt);
  bool grouped = true;  // every owner's rows come together, owners in order
  while (Step(stmt)) {
    const Row row(*this, stmt, link);
    const std::uint32_t owner =
        indexes_[ownerTable].Position(*row.Ref(0, ownerTable, true));
    grouped = grouped && (owners.empty() || owners.back() <= owner);
    owners.push_back(owner);
    links->targets.push_back(
        indexes_[target].Position(*row.Ref(1, target, true)));
    ++links->start[owner + 1];
  }
  for (std::size_t i = 1; i < links->start.size(); ++i)
    links->start[i] += links->start[i - 1];
  if (!grouped) {
    // A stable counting sort by owner keeps each owner's rows in row order.
    std::vector<std::uint32_t> next(links->start.begin(),
                                    links->start.end() - 1);
    std::vector<std::uint32_t> sorted(links->targets.size());
    for (std::size_t r = 0; r < owners.size(); ++r)
      sorted[next[owners[r]]++] = links->targets[r];
    links->targets.swap(sorted);
  }
  links_[link] = std::move(links);
  return *links_[link];
}

HRESULT AdminStore::Linked(Table link, Table target,
                           const StoreObjectBase& owner,
                           LumListPtrIUnknown& list) {
  const HRESULT hr = Guarded([&] {
    const LinkGroups& links = LinksOf(link, target);
    const std::uint32_t at =
        indexes_[ShapeOf(link).owner].Position(owner.Entry());
    const auto& entries = indexes_[target].Entries();
    for (std::uint32_t i = links.start[at]; i < links.start[at + 1]; ++i)
      made_.push_back(Adopt(
          NewObject(target, *this, pools_[target], entries[links.targets[i]])));
  });
  return AppendAll(list, hr);
}

HRESULT AdminStore::LocalSite(KivILocalSite*& out) {
  out = nullptr;
  if (failed_) return E_FAIL;
  const auto& entries = indexes_[kLocalSite].Entries();
  if (entries.empty()) return S_OK;
  out = static_cast<kiv::LocalSite*>(Make(kLocalSite, &entries[0]));
  return out ? S_OK : E_FAIL;
}

bool AdminStore::Load(StoreObjectBase& object) {
  const Table table = object.TableOf();
  return Guarded([&] {
           sqlite3_stmt* stmt =
               Statement("SELECT " + SelectList(table, "") + " FROM \"" +
                         ShapeOf(table).name + "\" WHERE rowid = ?1");
           sqlite3_reset(stmt);
           sqlite3_bind_int64(stmt, 1, object.Rowid());
           if (!Step(stmt))
             throw StoreError("table " + std::string(ShapeOf(table).name) +
                              ", row " + std::to_string(object.Rowid()) +
                              ": the row has gone");
           const Row row(*this, stmt, table);
           // A child read alone has its owner checked here, as the rows of
           // its table are when they pass in order.
           if (ShapeOf(table).owner != kTableCount)
             row.Ref(0, ShapeOf(table).owner, true);
           object.Fill(row);
           object.MarkLoaded();
           sqlite3_reset(stmt);
         }) >= 0;
}

}  // namespace kiv
