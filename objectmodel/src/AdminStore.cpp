#include "AdminStore.h"

#include <sanitizer/asan_interface.h>
#include <sqlite3.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "StoreObjects.h"

namespace kiv {

int AdminStore::busyTimeoutMs = 5000;

namespace {

constexpr int kFormatVersion = 1;
constexpr std::size_t kShownMax = 60;  // longest store text a message quotes

// What the reader needs of a table: its columns after the oid, in the order
// the objects read them; the first is the owner's reference in a child table.
struct TableShape {
  const char* name;
  std::vector<const char*> columns;
  Table owner;  // kTableCount for a table without an owner
  bool hasOid;
};

const TableShape kShapes[kTableCount] = {
    {"host", {"name", "os_type", "os_version"}, kTableCount, true},
    {"data_server",
     {"name", "authentication", "dbms", "connection_string", "host"},
     kTableCount,
     true},
    {"vault_server", {"name", "alias_name"}, kTableCount, true},
    {"project", {"name"}, kTableCount, true},
    {"domain", {"name", "visible"}, kTableCount, true},
    {"business_domain",
     {"domain", "name", "meta_data_name", "editor", "corvel_flag",
      "data_modeler"},
     kDomain,
     true},
    {"data_domain",
     {"project", "name", "alias_name", "owner_dico", "driver", "kind",
      "business_domain", "data_server"},
     kProject,
     true},
    {"extern_site", {"name"}, kTableCount, true},
    {"local_site", {"name"}, kTableCount, true},
    {"media", {"media_path"}, kTableCount, true},
    {"package_definition", {"name"}, kTableCount, true},
    {"subscribing_target",
     {"name", "media", "package_definition", "extern_site"},
     kTableCount,
     true},
    {"subscription",
     {"name", "media", "package_definition", "extern_site"},
     kTableCount,
     true},
    {"capture_status",
     {"subscribing_target", "server", "last_successful_date"},
     kSubscribingTarget,
     true},
    {"apply_status",
     {"subscription", "server", "last_successful_date"},
     kSubscription,
     true},
    {"project_vault_server", {"project", "vault_server"}, kProject, false},
    {"project_data_server", {"project", "data_server"}, kProject, false},
    {"package_whole_data_domain",
     {"package_definition", "data_domain"},
     kPackageDefinition,
     false},
};

// Where a table's own columns start in its statements: after the rowid and,
// for an object table, the oid.
int FirstColumn(Table table) { return kShapes[table].hasOid ? 2 : 1; }

// The select list of a table's rows, each column prefixed with prefix.
std::string SelectList(Table table, const char* prefix) {
  const TableShape& shape = kShapes[table];
  std::string list = std::string(prefix) + "rowid";
  if (shape.hasOid) list += std::string(", ") + prefix + "oid";
  for (const char* column : shape.columns)
    list += std::string(", ") + prefix + "\"" + column + "\"";
  return list;
}

// Bytes as a message may show them: upper-case hexadecimal for an
// identifier, or text with control bytes, quotes and backslashes as \xNN;
// cut after about max characters, ending with "...".
std::string Escaped(const unsigned char* bytes, std::size_t size, bool blob,
                    std::size_t max) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string shown;
  for (std::size_t i = 0; i < size; ++i) {
    if (shown.size() >= max) return shown + "...";
    const unsigned char c = bytes[i];
    if (!blob && c >= 0x20 && c != 0x7F && c != '\'' && c != '"' && c != '\\') {
      shown += static_cast<char>(c);
      continue;
    }
    if (!blob) shown += "\\x";
    shown += kDigits[c >> 4];
    shown += kDigits[c & 0x0F];
  }
  return shown;
}

// A store value as a message quotes it: "x" and hexadecimal for a BLOB, the
// escaped text between single quotes for a text.
std::string Shown(const unsigned char* bytes, std::size_t size, bool blob) {
  const std::string shown = Escaped(bytes, size, blob, kShownMax);
  return blob ? "x" + shown : "'" + shown + "'";
}

std::string ShownBlob(std::string_view bytes) {
  return Shown(reinterpret_cast<const unsigned char*>(bytes.data()),
               bytes.size(), true);
}

// The value of column col of stmt as a message shows it.
std::string ShownValue(sqlite3_stmt* stmt, int col) {
  switch (sqlite3_column_type(stmt, col)) {
    case SQLITE_NULL:
      return "NULL";
    case SQLITE_INTEGER:
      return std::to_string(sqlite3_column_int64(stmt, col));
    case SQLITE_FLOAT: {
      char text[32];
      std::snprintf(text, sizeof text, "%.17g",
                    sqlite3_column_double(stmt, col));
      return text;
    }
    case SQLITE_TEXT:
      return Shown(sqlite3_column_text(stmt, col),
                   static_cast<std::size_t>(sqlite3_column_bytes(stmt, col)),
                   false);
    default: {
      const void* blob = sqlite3_column_blob(stmt, col);
      const int size = sqlite3_column_bytes(stmt, col);
      if (size == 0) return "an empty BLOB";
      return Shown(static_cast<const unsigned char*>(blob),
                   static_cast<std::size_t>(size), true);
    }
  }
}

// Text as a message quotes it: escaped and cut.
std::string ShownText(const std::string& text) {
  return Shown(reinterpret_cast<const unsigned char*>(text.data()), text.size(),
               false);
}

}  // namespace

std::string EscapedPath(const char* path) {
  return Escaped(reinterpret_cast<const unsigned char*>(path),
                 std::strlen(path), false, std::string::npos);
}

namespace {

// The first 8 bytes of oid, zero-padded, as a big-endian number. Most oids
// are 8 bytes long or more: one load.
std::uint64_t Prefix(std::string_view oid) {
  if (oid.size() >= 8) return OidEntry::Key(oid.data());
  char head[8] = {};
  if (!oid.empty()) std::memcpy(head, oid.data(), oid.size());
  return OidEntry::Key(head);
}

// Orders two oids of two indexes as SQLite orders BLOBs.
int Order(const OidIndex& a, const OidEntry& x, const OidIndex& b,
          const OidEntry& y) {
  const std::uint64_t px = x.Prefix(), py = y.Prefix();
  if (px != py) return px < py ? -1 : 1;
  if (x.size <= 8 && y.size <= 8)
    return x.size == y.size ? 0 : (x.size < y.size ? -1 : 1);
  return a.Bytes(x).compare(b.Bytes(y));
}

// The reason SQLite gave for rc on db, told so that the reader knows what to
// do about it.
std::string Reason(sqlite3* db, int rc) {
  switch (rc & 0xFF) {
    case SQLITE_BUSY:
      return "the store is locked by a process writing to it; gave up after "
             "waiting " +
             (AdminStore::busyTimeoutMs % 1000
                  ? std::to_string(AdminStore::busyTimeoutMs) + " ms"
                  : std::to_string(AdminStore::busyTimeoutMs / 1000) + " s") +
             ": retry once the writer has finished";
    case SQLITE_NOTADB:
      return "the file is not a SQLite database: name a store made from the "
             "schema";
    case SQLITE_READONLY:
      return "an unfinished write left a journal or WAL file beside the "
             "store, which only a process allowed to write the store and its "
             "directory can recover: open the store once with the sqlite3 "
             "shell as such a user, then retry";
    case SQLITE_NOMEM:
      return "out of memory";
    default:
      return EscapedPath(db ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
  }
}

// The name of a file type that is not a regular file.
const char* FileKind(mode_t mode) {
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISSOCK(mode)) return "a socket";
  if (S_ISCHR(mode) || S_ISBLK(mode)) return "a device";
  return "not a regular file";
}

// Opens the store file at path read-only. It must be a regular file: SQLite
// would wait for ever on a FIFO. The name is a path, never a URI.
sqlite3* OpenFile(const char* path) {
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
  sqlite3_busy_timeout(db, AdminStore::busyTimeoutMs);
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

}  // namespace

// ---------------------------------------------------------------------------
// The index of oids.

void OidIndex::Add(std::string_view oid, std::int64_t rowid) {
  OidEntry entry{{},
                 static_cast<std::uint32_t>(arena_.size()),
                 static_cast<std::uint32_t>(oid.size()),
                 rowid};
  if (!oid.empty())
    std::memcpy(entry.head, oid.data(), oid.size() < 8 ? oid.size() : 8);
  if (oid.size() > 8) arena_.append(oid.data(), oid.size());
  if (!entries_.empty() && entries_.back().rowid > rowid) inRowOrder_ = false;
  if (entries_.size() % kSampleEvery == 0) samples_.push_back(entry.Prefix());
  entries_.push_back(entry);
}

namespace {

// An oid being looked for, with its prefix worked out once.
struct Probe {
  std::string_view bytes;
  std::uint64_t prefix;
};

inline int Compare(const OidIndex& index, const OidEntry& a, const Probe& b) {
  const std::uint64_t prefix = a.Prefix();
  if (prefix != b.prefix) return prefix < b.prefix ? -1 : 1;
  if (a.size <= 8 && b.bytes.size() <= 8)
    return a.size == b.bytes.size() ? 0 : (a.size < b.bytes.size() ? -1 : 1);
  return index.Bytes(a).compare(b.bytes);
}

}  // namespace

int OidIndex::Compare(const OidEntry& a, std::string_view b) const {
  return kiv::Compare(*this, a, Probe{b, Prefix(b)});
}

const OidEntry* OidIndex::Find(std::string_view oid) const {
  const std::size_t n = entries_.size();
  if (n == 0) return nullptr;
  const Probe probe{oid, Prefix(oid)};
  // Rows read in order name the last entry or the one after it most of the
  // time, and otherwise one a few entries away.
  const int order = kiv::Compare(*this, entries_[last_], probe);
  if (order == 0) return &entries_[last_];
  if (order < 0 && last_ + 1 < n) {
    const int next = kiv::Compare(*this, entries_[last_ + 1], probe);
    if (next == 0) return &entries_[++last_];
    if (next > 0) return nullptr;
  }
  constexpr std::size_t kNear = 8;
  std::size_t low, high;  // the oid is in [low, high) if anywhere
  if (order < 0 && last_ + kNear < n &&
      kiv::Compare(*this, entries_[last_ + kNear], probe) >= 0) {
    low = last_ + 2;
    high = last_ + kNear + 1;
  } else if (order > 0 && last_ >= kNear &&
             kiv::Compare(*this, entries_[last_ - kNear], probe) <= 0) {
    low = last_ - kNear;
    high = last_;
  } else {
    // Far away: the samples, small enough to stay in the cache, narrow the
    // search to the entries between the samples around the oid's prefix.
    const auto first =
        std::lower_bound(samples_.begin(), samples_.end(), probe.prefix);
    const auto past = std::upper_bound(first, samples_.end(), probe.prefix);
    const auto block = static_cast<std::size_t>(first - samples_.begin());
    low = block > 0 ? (block - 1) * kSampleEvery : 0;
    high = std::min(
        n, static_cast<std::size_t>(past - samples_.begin()) * kSampleEvery);
  }
  while (low < high) {
    const std::size_t mid = low + (high - low) / 2;
    if (kiv::Compare(*this, entries_[mid], probe) < 0)
      low = mid + 1;
    else
      high = mid;
  }
  if (low == n || kiv::Compare(*this, entries_[low], probe) != 0)
    return nullptr;
  return &entries_[last_ = low];
}

// ---------------------------------------------------------------------------
// Rows.

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
  const OidEntry* entry =
      oid.empty() ? nullptr : store_.Index(table_).Find(oid);
  if (!entry || entry->rowid != Rowid())
    throw StoreError("table " + std::string(kShapes[table_].name) + ", row " +
                     std::to_string(Rowid()) +
                     ", column oid: " + ShownValue(stmt_, 1) +
                     " is not the oid that the table's index holds for the "
                     "row: the store is damaged (see PRAGMA integrity_check)");
  return *entry;
}

void Row::Refuse(int column, const std::string& what) const {
  throw StoreError("table " + std::string(kShapes[table_].name) + ", row " +
                   std::to_string(Rowid()) +
                   (kShapes[table_].hasOid
                        ? " (oid " + ShownValue(stmt_, 1) + ")"
                        : std::string()) +
                   ", column " + kShapes[table_].columns[column] + ": " +
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
  if (std::memchr(text, '\0', size)) Refuse(column, "holds a NUL byte");
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
                         Table alternative) const {
  sqlite3_value* value = ValueAt(stmt_, Index(column));
  // The kinds of row the column may name, as a refusal says them.
  const auto kinds = [&] {
    return std::string(kShapes[table].name) +
           (alternative == kTableCount
                ? std::string()
                : std::string(" or ") + kShapes[alternative].name);
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
  if (const OidEntry* entry = store_.Index(table).Find(oid)) return entry;
  refTable_ = alternative;
  if (alternative != kTableCount)
    if (const OidEntry* entry = store_.Index(alternative).Find(oid))
      return entry;
  Refuse(column, "names no " + kinds() + " row");
}

// ---------------------------------------------------------------------------
// Opening.

// The rows of one child table in the order of their owners' rows, stepped as
// the owners ask for them; an owner asked out of that order reads its own.
struct AdminStore::Cursor {
  sqlite3_stmt* inOrder = nullptr;
  sqlite3_stmt* ofOwner = nullptr;
  bool started = false;
  bool pending = false;  // inOrder holds a row not yet taken
  bool done = false;
  std::int64_t lastOwner = 0;    // the row of the owner that asked last
  std::int64_t streamOwner = 0;  // the row of the owner of the last row read
};

AdminStore::AdminStore(sqlite3* db, std::string path)
    : db_(db), path_(std::move(path)) {}

AdminStore::~AdminStore() {
  while (objects_) Free(objects_);
  for (auto& statement : statements_) sqlite3_finalize(statement.second);
  sqlite3_close(db_);  // ends the read transaction
}

std::unique_ptr<AdminStore> AdminStore::Open(const char* path,
                                             std::string* error) {
  try {
    std::unique_ptr<AdminStore> store(
        new AdminStore(path ? OpenFile(path) : OpenDemo(), path ? path : ""));
    // One read transaction: every table comes from the same snapshot, from
    // these checks to the last getter.
    sqlite3_stmt* begin = store->Statement("BEGIN");
    store->Step(begin);
    sqlite3_stmt* version = store->Statement("PRAGMA user_version");
    if (!store->Step(version)) throw StoreError("no format version");
    const int v = sqlite3_column_int(version, 0);
    if (v != kFormatVersion)
      throw StoreError("store format version " + std::to_string(v) +
                       " is not the supported version " +
                       std::to_string(kFormatVersion));
    store->CheckTables();
    store->CountRows();
    for (int t = 0; t < kObjectTables; ++t) store->IndexOids(Table(t));
    store->CheckUnique();
    const std::size_t locals = store->indexes_[kLocalSite].Entries().size();
    if (locals > 1)
      throw StoreError("table local_site holds " + std::to_string(locals) +
                       " rows: a store has at most one local site");
    return store;
  } catch (const StoreError& e) {
    *error = e.Message();
    return nullptr;
  }
}

sqlite3_stmt* AdminStore::Statement(const std::string& sql) {
  for (auto& statement : statements_)
    if (statement.first == sql) return statement.second;
  sqlite3_stmt* stmt = nullptr;
  const int rc = sqlite3_prepare_v3(db_, sql.c_str(), -1,
                                    SQLITE_PREPARE_PERSISTENT, &stmt, nullptr);
  if (rc != SQLITE_OK) {
    sqlite3_finalize(stmt);
    throw StoreError(Reason(db_, rc));
  }
  statements_.emplace_back(sql, stmt);
  return stmt;
}

bool AdminStore::Step(sqlite3_stmt* stmt) {
  const int rc = sqlite3_step(stmt);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  const std::string reason = Reason(db_, rc);
  sqlite3_reset(stmt);
  throw StoreError(reason);
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
  for (const TableShape& shape : kShapes) {
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
                            : EscapedPath(kind->type.c_str()) + " table") +
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

std::string AdminStore::RowOid(Table table, std::int64_t rowid) {
  if (!kShapes[table].hasOid) return std::string();
  sqlite3_stmt* stmt = Statement(std::string("SELECT oid FROM \"") +
                                 kShapes[table].name + "\" WHERE rowid = ?1");
  sqlite3_bind_int64(stmt, 1, rowid);
  const std::string shown =
      Step(stmt) ? " (oid " + ShownValue(stmt, 0) + ")" : std::string();
  sqlite3_reset(stmt);
  return shown;
}

// Sizes the indexes of oids before they are read.
void AdminStore::CountRows() {
  std::string sql = "SELECT 0";
  for (int t = 0; t < kObjectTables; ++t)
    sql += std::string(", (SELECT count(*) FROM \"") + kShapes[t].name + "\")";
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
  const std::string name = kShapes[table].name;
  sqlite3_stmt* stmt =
      Statement("SELECT oid, rowid FROM \"" + name + "\" ORDER BY oid");
  OidIndex& index = indexes_[table];
  while (Step(stmt)) {
    const std::int64_t rowid = sqlite3_column_int64(stmt, 1);
    const auto where = [&] {
      return "table " + name + ", row " + std::to_string(rowid) +
             ", column oid: ";
    };
    sqlite3_value* value = ValueAt(stmt, 0);
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
          "table " + std::string(kShapes[next].name) + ", row " +
          std::to_string(entry.rowid) + ", column oid: " +
          ShownBlob(indexes_[next].Bytes(entry)) + " is also the oid of row " +
          std::to_string(last->rowid) + " of table " + kShapes[previous].name);
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

// ---------------------------------------------------------------------------
// Reading.

template <class Read>
HRESULT AdminStore::Guarded(Read&& read) {
  if (failed_) return E_FAIL;
  try {
    read();
    return S_OK;
  } catch (const StoreError& e) {
    // Reported once: every later getter fails without a word.
    failed_ = true;
    std::cerr << "KivAdmin: cannot read the administration store \""
              << EscapedPath(path_.c_str()) << "\": " << e.Message()
              << std::endl;
    return E_FAIL;
  }
}

StoreObjectBase* AdminStore::Adopt(StoreObjectBase* object) {
  object->next = objects_;
  if (objects_) objects_->prev = object;
  objects_ = object;
  ++live_;
  return object;
}

void AdminStore::Free(StoreObjectBase* object) {
  if (object->prev) object->prev->next = object->next;
  if (object->next) object->next->prev = object->prev;
  if (objects_ == object) objects_ = object->next;
  --live_;
  Pool& pool = pools_[object->TableOf()];
  void* block = dynamic_cast<void*>(object);  // the whole object's room
  object->~StoreObjectBase();
  pool.Give(block);
}

StoreObjectBase* AdminStore::Make(Table table, const OidEntry* entry) {
  if (!entry) return nullptr;
  return Adopt(NewObject(table, *this, pools_[table], *entry));
}

StoreObjectBase* AdminStore::FromRow(Table table, const Row& row) {
  StoreObjectBase* object =
      Adopt(NewObject(table, *this, pools_[table], row.Oid()));
  try {
    object->Fill(row);
  } catch (...) {
    Free(object);
    throw;
  }
  object->MarkLoaded();
  return object;
}

HRESULT AdminStore::AppendAll(LumListPtrIUnknown& list, HRESULT hr) {
  for (StoreObjectBase* object : made_) {
    if (hr < 0)
      Free(object);
    else
      list.Append(object->Interface());
  }
  made_.clear();
  return hr;
}

HRESULT AdminStore::List(Table table, LumListPtrIUnknown& list) {
  const HRESULT hr = Guarded([&] {
    sqlite3_stmt* stmt =
        Statement("SELECT " + SelectList(table, "") + " FROM \"" +
                  kShapes[table].name + "\" ORDER BY rowid");
    sqlite3_reset(stmt);
    while (Step(stmt)) made_.push_back(FromRow(table, Row(*this, stmt, table)));
  });
  return AppendAll(list, hr);
}

void AdminStore::ReadChildren(Table child, const StoreObjectBase& owner) {
  const TableShape& shape = kShapes[child];
  if (!cursors_[child]) cursors_[child] = std::make_unique<Cursor>();
  Cursor& cursor = *cursors_[child];
  const std::string ownerColumn = std::string("\"") + shape.columns[0] + "\"";
  if (!cursor.inOrder) {
    // The rows are read in one pass, in the order of their owners' rows, in
    // which the root lists the owners: through the owner column's index when
    // the owners' oids are in the order of their rows (the oid scan tells),
    // otherwise sorted by SQLite, a row without an owner first. A statement
    // per owner would cost a search and a reset for every owner.
    const std::string ownerTable = kShapes[shape.owner].name;
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
    const Row row(*this, stmt, child);
    const OidEntry* of = row.Ref(0, shape.owner, true);
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

HRESULT AdminStore::Children(Table child, const StoreObjectBase& owner,
                             LumListPtrIUnknown& list) {
  const HRESULT hr = Guarded([&] { ReadChildren(child, owner); });
  return AppendAll(list, hr);
}

// A link table's rows are small and read in one pass in row order, which
// costs far less than reading them in their owners' order through an index,
// then grouped by owner: every owner finds its targets at once, whatever the
// order of the rows or of the asks.
struct AdminStore::Links {
  std::vector<std::uint32_t> start;    // by owner position, and one past
  std::vector<std::uint32_t> targets;  // target positions, grouped by owner
};

namespace {

// The position of entry in the entries of index.
std::uint32_t Position(const OidIndex& index, const OidEntry& entry) {
  return static_cast<std::uint32_t>(&entry - index.Entries().data());
}

}  // namespace

const AdminStore::Links& AdminStore::LinksOf(Table link, Table target) {
  if (links_[link]) return *links_[link];
  const Table ownerTable = kShapes[link].owner;
  auto links = std::make_unique<Links>();
  links->start.assign(indexes_[ownerTable].Entries().size() + 1, 0);
  std::vector<std::uint32_t> owners;
  sqlite3_stmt* stmt = Statement("SELECT " + SelectList(link, "") + " FROM \"" +
                                 kShapes[link].name + "\" ORDER BY rowid");
  sqlite3_reset(stmt);
  bool grouped = true;  // every owner's rows come together, owners in order
  while (Step(stmt)) {
    const Row row(*this, stmt, link);
    const std::uint32_t owner =
        Position(indexes_[ownerTable], *row.Ref(0, ownerTable, true));
    grouped = grouped && (owners.empty() || owners.back() <= owner);
    owners.push_back(owner);
    links->targets.push_back(
        Position(indexes_[target], *row.Ref(1, target, true)));
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
    const Links& links = LinksOf(link, target);
    const std::uint32_t at =
        Position(indexes_[kShapes[link].owner], owner.Entry());
    const auto& entries = indexes_[target].Entries();
    for (std::uint32_t i = links.start[at]; i < links.start[at + 1]; ++i)
      made_.push_back(Make(target, &entries[links.targets[i]]));
  });
  return AppendAll(list, hr);
}

HRESULT AdminStore::LocalSite(KivILocalSite*& out) {
  out = nullptr;
  if (failed_) return E_FAIL;
  const auto& entries = indexes_[kLocalSite].Entries();
  if (!entries.empty())
    out = static_cast<kiv::LocalSite*>(Make(kLocalSite, &entries[0]));
  return S_OK;
}

bool AdminStore::Load(StoreObjectBase& object) {
  const Table table = object.TableOf();
  return Guarded([&] {
           sqlite3_stmt* stmt =
               Statement("SELECT " + SelectList(table, "") + " FROM \"" +
                         kShapes[table].name + "\" WHERE rowid = ?1");
           sqlite3_reset(stmt);
           sqlite3_bind_int64(stmt, 1, object.Rowid());
           if (!Step(stmt))
             throw StoreError("table " + std::string(kShapes[table].name) +
                              ", row " + std::to_string(object.Rowid()) +
                              ": the row has gone");
           const Row row(*this, stmt, table);
           // A child read alone has its owner checked here, as the rows of
           // its table are when they pass in order.
           if (kShapes[table].owner != kTableCount)
             row.Ref(0, kShapes[table].owner, true);
           object.Fill(row);
           object.MarkLoaded();
           sqlite3_reset(stmt);
         }) >= 0;
}

// ---------------------------------------------------------------------------
// Objects.

void* Pool::Take(std::size_t size) {
  if (free_) {
    void* block = free_;
    ASAN_UNPOISON_MEMORY_REGION(block, size_);
    free_ = *static_cast<void**>(block);
    return block;
  }
  if (left_ == 0) {
    // Chunks double with the pool up to a few megabytes, so that a small
    // store takes little and a large one is covered by huge pages.
    size_ = (size + alignof(std::max_align_t) - 1) / alignof(std::max_align_t) *
            alignof(std::max_align_t);
    const std::size_t blocks = std::size_t{16}
                               << std::min<std::size_t>(chunks_.size(), 20);
    left_ = std::min(blocks, std::max<std::size_t>(16, (4u << 20) / size_));
    chunks_.push_back({nullptr, size_ * left_});
    chunks_.back().bytes = LargeAllocator<char>().allocate(size_ * left_);
  }
  return chunks_.back().bytes + size_ * --left_;
}

Pool::~Pool() {
  for (const Chunk& chunk : chunks_)
    LargeAllocator<char>().deallocate(chunk.bytes, chunk.size);
}

void Pool::Give(void* block) {
  *static_cast<void**>(block) = free_;
  free_ = block;
  // A block given back is out of bounds until taken again.
  ASAN_POISON_MEMORY_REGION(block, size_);
}

namespace {

template <class T>
StoreObjectBase* New(AdminStore& store, Pool& pool, const OidEntry& entry) {
  return new (pool.Take(sizeof(T))) T(store, entry);
}

}  // namespace

StoreObjectBase* NewObject(Table table, AdminStore& store, Pool& pool,
                           const OidEntry& entry) {
  switch (table) {
    case kHost:
      return New<Host>(store, pool, entry);
    case kDataServer:
      return New<DataServer>(store, pool, entry);
    case kVaultServer:
      return New<VaultServer>(store, pool, entry);
    case kProject:
      return New<Project>(store, pool, entry);
    case kDomain:
      return New<Domain>(store, pool, entry);
    case kBusinessDomain:
      return New<BusinessDomain>(store, pool, entry);
    case kDataDomain:
      return New<DataDomain>(store, pool, entry);
    case kExternSite:
      return New<ExternSite>(store, pool, entry);
    case kLocalSite:
      return New<LocalSite>(store, pool, entry);
    case kMedia:
      return New<Media>(store, pool, entry);
    case kPackageDefinition:
      return New<PackageDefinition>(store, pool, entry);
    case kSubscribingTarget:
      return New<SubscribingTarget>(store, pool, entry);
    case kSubscription:
      return New<Subscription>(store, pool, entry);
    case kCaptureStatus:
      return New<CaptureStatus>(store, pool, entry);
    case kApplyStatus:
      return New<ApplyStatus>(store, pool, entry);
    default:
      std::abort();  // link tables hold no objects
  }
}

}  // namespace kiv
