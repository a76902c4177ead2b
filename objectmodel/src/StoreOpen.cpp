#include "StoreOpen.h"

#include <sqlite3.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "AdminStore.h"
#include "EmbeddedSql.h"
#include "Escape.h"
#include "StoreRows.h"

namespace kiv {
namespace {

// The name of a file type that is not a regular file.
const char* FileKind(mode_t mode) {
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISSOCK(mode)) return "a socket";
  if (S_ISCHR(mode) || S_ISBLK(mode)) return "a device";
  return "not a regular file";
}

}  // namespace

// Opens the store file at path read-only. It must be a regular file: SQLite
// would wait for ever on a FIFO. The name is a path, never a URI.
sqlite3* OpenStoreFile(const char* path) {
  struct stat st {};
  if (::stat(path, &st) != 0 || ::access(path, R_OK) != 0)
    throw StoreError(std::string("cannot read the file: ") +
                     std::strerror(errno));
  if (!S_ISREG(st.st_mode))
    throw StoreError(std::string("the file is ") + FileKind(st.st_mode) +
                     ", not a store: name a store file");
  if (st.st_size == 0)
    throw StoreError(
        "the file is empty, not a store: create one from the "
        "schema");
  const std::string name = path[0] == '/' ? path : std::string("./") + path;
  sqlite3* db = nullptr;
  // The connection is used by one thread: no mutex of its own.
  const int rc = sqlite3_open_v2(
      name.c_str(), &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    const std::string reason = Reason(db, rc);
    sqlite3_close(db);
    throw StoreError(reason);
  }
  sqlite3_extended_result_codes(db, 1);
  // A writer holding its lock makes the reader wait instead of failing.
  sqlite3_busy_timeout(db, AdminStore::kBusyTimeoutMs);
  return db;
}

// The built-in demonstration, in a database of its own in memory.
sqlite3* OpenDemo() {
  sqlite3* db = nullptr;
  int rc = sqlite3_open_v2(":memory:", &db,
                           SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  if (rc == SQLITE_OK)
    rc = sqlite3_exec(db, kSchemaSql, nullptr, nullptr, nullptr);
  if (rc == SQLITE_OK)
    rc = sqlite3_exec(db, kDemoSql, nullptr, nullptr, nullptr);
  if (rc != SQLITE_OK) {
    const std::string reason = Reason(db, rc);
    sqlite3_close(db);
    throw StoreError(reason);
  }
  return db;
}

namespace {

// Runs open; a store that cannot be served gives null and its reason in
// *error.
template <class Open>
std::unique_ptr<AdminStore> Refusing(std::string* error, Open&& open) {
  try {
    return open();
  } catch (const StoreError& e) {
    *error = e.Message();
  } catch (const std::bad_alloc&) {
    *error = AdminStore::kOutOfMemory;
  }
  return nullptr;
}

}  // namespace

std::unique_ptr<AdminStore> AdminStore::Open(const char* path,
                                             std::string* error) {
  return Refusing(error, [&] {
    sqlite3* db = path ? OpenStoreFile(path) : OpenDemo();
    std::unique_ptr<AdminStore> store;
    try {
      store.reset(new AdminStore(db, path ? path : ""));
    } catch (...) {
      sqlite3_close(db);
      throw;
    }
    // One read transaction: every table comes from the same snapshot, from
    // these checks to the last getter. BEGIN holds the snapshot, from the
    // first read on; every statement is reset once read, so that none holds
    // it by accident.
    sqlite3_stmt* begin = store->Statement("BEGIN");
    store->Step(begin);
    store->Check();
    return store;
  });
}

std::unique_ptr<AdminStore> AdminStore::Borrow(sqlite3* db,
                                               std::string* error) {
  return Refusing(error, [&] {
    const char* name = sqlite3_db_filename(db, "main");
    std::unique_ptr<AdminStore> store(
        new AdminStore(db, name ? name : "", false));
    store->Check();
    return store;
  });
}

void AdminStore::Check() {
  sqlite3_stmt* version = Statement("PRAGMA user_version");
  if (!Step(version)) throw StoreError("no format version");
  const int v = sqlite3_column_int(version, 0);
  sqlite3_reset(version);
  if (v != kFormatVersion)
    throw StoreError("store format version " + std::to_string(v) +
                     " is not the supported version " +
                     std::to_string(kFormatVersion));
  CheckTables();
  CountRows();
  for (int t = 0; t < kObjectTables; ++t) IndexOids(Table(t));
  CheckUnique();
  // A list whose getter's failure the exporter passes over would let a
  // bad value send it on, unsaid, through the rest of the store.
  for (Table table : {kBusinessDomain, kCaptureStatus, kApplyStatus,
                      kDataServer, kVaultServer})
    CheckRows(table);
  // The rows of a child table pass its owners' check as the owners are
  // listed; with no owner to list, none would pass, and a row whose owner is
  // gone would be left out of the document unsaid.
  for (int t = 0; t < kObjectTables; ++t) {
    const Table owner = ShapeOf(Table(t)).owner;
    if (owner != kTableCount && indexes_[owner].Entries().empty() &&
        !indexes_[t].Entries().empty())
      CheckRows(Table(t));
  }
  // A package's data domains are read whole at their first ask: now.
  LinksOf(kPackageWholeDataDomain, kDataDomain);
  const std::size_t locals = indexes_[kLocalSite].Entries().size();
  if (locals > 1)
    throw StoreError("table local_site holds " + std::to_string(locals) +
                     " rows: a store has at most one local site");
}

namespace {

// A name from the schema; null only when memory ran out.
std::string SchemaText(sqlite3_stmt* stmt, int col) {
  const unsigned char* text = sqlite3_column_text(stmt, col);
  if (!text) throw StoreError("out of memory");
  return reinterpret_cast<const char*>(text);
}

}  // namespace

// Every table must be a plain table with its columns; anything else would
// run code of the store's (a view) or outside it (a virtual table), so it is
// refused before any of its rows is asked for.
void AdminStore::CheckTables() {
  sqlite3_stmt* list = Statement(
      "SELECT name, type, wr FROM pragma_table_list WHERE schema = 'main'");
  sqlite3_reset(list);
  struct Found {
    std::string type;
    bool withoutRowid;
  };
  std::vector<std::pair<std::string, Found>> found;
  while (Step(list))
    found.push_back({SchemaText(list, 0),
                     {SchemaText(list, 1), sqlite3_column_int(list, 2) != 0}});
  for (int t = 0; t < kTableCount; ++t) {
    const TableShape& shape = ShapeOf(Table(t));
    const std::string table = std::string("table ") + shape.name;
    const Found* kind = nullptr;
    for (const auto& f : found)
      if (strcasecmp(f.first.c_str(), shape.name) == 0) kind = &f.second;
    if (!kind)
      throw StoreError(table + " is missing: create the store from the schema");
    if (kind->type != "table")
      throw StoreError(table + " is a " +
                       (kind->type == "view"
                            ? std::string("view")
                            : vantrel::Escaped(kind->type) + " table") +
                       ", not a plain table: create the store from the schema");
    if (kind->withoutRowid)
      throw StoreError(table +
                       " is a WITHOUT ROWID table, not a plain table: create "
                       "the store from the schema");
    sqlite3_stmt* info =
        Statement(std::string("SELECT name FROM pragma_table_info('") +
                  shape.name + "')");
    std::vector<std::string> columns;
    while (Step(info)) columns.push_back(SchemaText(info, 0));
    std::vector<const char*> wanted = shape.columns;
    if (shape.hasOid) wanted.push_back("oid");
    for (const char* column : wanted) {
      bool present = false;
      for (const std::string& c : columns)
        present = present || strcasecmp(c.c_str(), column) == 0;
      if (!present)
        throw StoreError(table + " has no column " + column +
                         ": create the store from the schema");
    }
    // A column of that name would hide the row's own number.
    for (const std::string& c : columns)
      if (strcasecmp(c.c_str(), "rowid") == 0 ||
          strcasecmp(c.c_str(), "_rowid_") == 0)
        throw StoreError(table + " has a column named " + ShownText(c) +
                         ": create the store from the schema");
  }
}

// Sizes the indexes of oids before they are read.
void AdminStore::CountRows() {
  std::string sql = "SELECT 0";
  for (int t = 0; t < kObjectTables; ++t)
    sql += std::string(", (SELECT count(*) FROM \"") + ShapeOf(Table(t)).name +
           "\")";
  sqlite3_stmt* stmt = Statement(sql);
  if (!Step(stmt)) return;
  for (int t = 0; t < kObjectTables; ++t)
    indexes_[t].Reserve(
        static_cast<std::size_t>(sqlite3_column_int64(stmt, t + 1)));
  sqlite3_reset(stmt);
}

// Reads the oids of table in their order, as the covering index of the
// primary key holds them: each a non-empty BLOB used by one row only.
void AdminStore::IndexOids(Table table) {
  const std::string name = ShapeOf(table).name;
  sqlite3_stmt* stmt =
      Statement("SELECT oid, rowid FROM \"" + name + "\" ORDER BY oid");
  OidIndex& index = indexes_[table];
  while (Step(stmt)) {
    const std::int64_t rowid = sqlite3_column_int64(stmt, 1);
    const auto where = [&] {
      return "table " + name + ", row " + std::to_string(rowid) +
             ", column oid: ";
    };
    sqlite3_value* value = sqlite3_column_value(stmt, 0);
    const bool blob = sqlite3_value_type(value) == SQLITE_BLOB;
    const void* bytes = blob ? sqlite3_value_blob(value) : nullptr;
    const int size = sqlite3_value_bytes(value);
    if (!blob || size == 0)
      throw StoreError(where() + ShownValue(stmt, 0) +
                       " is not an oid (a non-empty BLOB)");
    if (!bytes) throw StoreError("out of memory");
    const std::string_view oid(static_cast<const char*>(bytes),
                               static_cast<std::size_t>(size));
    if (!index.Entries().empty()) {
      const OidEntry& last = index.Entries().back();
      if (index.Compare(last, oid) == 0)
        throw StoreError(where() + ShownBlob(oid) + " is also the oid of row " +
                         std::to_string(last.rowid));
    }
    index.Add(oid, rowid);
  }
  index.Finish();
}

// Oids are unique across the store: merges the sorted indexes of all the
// tables and refuses the first oid that two of them hold.
void AdminStore::CheckUnique() {
  std::size_t at[kObjectTables] = {};
  int previous = -1;
  const OidEntry* last = nullptr;
  for (;;) {
    int next = -1;
    for (int t = 0; t < kObjectTables; ++t) {
      if (at[t] == indexes_[t].Entries().size()) continue;
      if (next < 0 ||
          Order(indexes_[t], indexes_[t].Entries()[at[t]], indexes_[next],
                indexes_[next].Entries()[at[next]]) < 0)
        next = t;
    }
    if (next < 0) return;
    const auto& entries = indexes_[next].Entries();
    const OidEntry& entry = entries[at[next]++];
    if (last && Order(indexes_[previous], *last, indexes_[next], entry) == 0)
      throw StoreError(
          "table " + std::string(ShapeOf(Table(next)).name) + ", row " +
          std::to_string(entry.rowid) +
          ", column oid: " + ShownBlob(indexes_[next].Bytes(entry)) +
          " is also the oid of row " + std::to_string(last->rowid) +
          " of table " + ShapeOf(Table(previous)).name);
    previous = next;
    last = &entry;
    // The oids of one table are unique already: the run of them that comes
    // before every other table's next prefix is taken without comparing.
    std::uint64_t bound = ~std::uint64_t{0};
    bool bounded = false;
    for (int t = 0; t < kObjectTables; ++t)
      if (t != next && at[t] < indexes_[t].Entries().size()) {
        bound = std::min(bound, indexes_[t].Entries()[at[t]].Prefix());
        bounded = true;
      }
    while (at[next] < entries.size() &&
           (!bounded || entries[at[next]].Prefix() < bound))
      last = &entries[at[next]++];
  }
}

}  // namespace kiv
