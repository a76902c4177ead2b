#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cerrno>
#include <cstring>
#include <set>

#include "KivStoreChange.h"
#include "StoreTables.h"

using W = KivStoreWriter;
using kiv::ShapeOf;
using kiv::Table;

namespace {

// The connection of the change under way, and whether it was interrupted.
std::atomic<sqlite3*> interruptible{nullptr};
std::atomic<bool> interrupted{false};

// An error of SQLite, thrown to Apply's boundary.
struct Failure {
  std::string what;
};

// A store value as a wanted value compares with it: NULL and the empty
// text are alike, since the document writes both as "".
bool Same(sqlite3_stmt* stmt, int col, const W::Value& v) {
  const int type = sqlite3_column_type(stmt, col);
  const auto bytes = [&] {
    const void* p = type == SQLITE_BLOB ? sqlite3_column_blob(stmt, col)
                                        : sqlite3_column_text(stmt, col);
    return std::string_view(
        static_cast<const char*>(p ? p : ""),
        static_cast<std::size_t>(sqlite3_column_bytes(stmt, col)));
  };
  switch (v.type) {
    case W::Value::kNull:
      return type == SQLITE_NULL;
    case W::Value::kText:
      return (type == SQLITE_NULL && v.bytes.empty()) ||
             (type == SQLITE_TEXT && bytes() == v.bytes);
    case W::Value::kOid:
      return type == SQLITE_BLOB && bytes() == v.bytes;
    case W::Value::kInteger:
      return type == SQLITE_INTEGER &&
             sqlite3_column_int64(stmt, col) == v.number;
  }
  return false;
}

void Bind(sqlite3_stmt* stmt, int at, const W::Value& v) {
  const int size = static_cast<int>(v.bytes.size());
  switch (v.type) {
    case W::Value::kNull:
      sqlite3_bind_null(stmt, at);
      break;
    case W::Value::kText:
      sqlite3_bind_text(stmt, at, v.bytes.data(), size, SQLITE_STATIC);
      break;
    case W::Value::kOid:
      sqlite3_bind_blob(stmt, at, v.bytes.data(), size, SQLITE_STATIC);
      break;
    case W::Value::kInteger:
      sqlite3_bind_int64(stmt, at, v.number);
      break;
  }
}

W::Value OidValue(const std::string& bytes) {
  return W::Value{W::Value::kOid, bytes, 0, {}};
}

// A statement over the rows of a table; finalized with it.
struct Rows {
  Rows(sqlite3* db, const std::string& sql) {
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK)
      throw Failure{sqlite3_errmsg(db)};
  }
  ~Rows() { sqlite3_finalize(stmt); }
  bool Next() {
    const int rc = sqlite3_step(stmt);
    if (rc != SQLITE_ROW && rc != SQLITE_DONE)
      throw Failure{sqlite3_errmsg(sqlite3_db_handle(stmt))};
    return rc == SQLITE_ROW;
  }
  std::string Blob(int col) { return std::string(View(col)); }
  // The bytes of a BLOB column, valid until the next step.
  std::string_view View(int col) {
    const void* p = sqlite3_column_blob(stmt, col);
    return std::string_view(
        static_cast<const char*>(p ? p : ""),
        static_cast<std::size_t>(sqlite3_column_bytes(stmt, col)));
  }
  sqlite3_stmt* stmt = nullptr;
};

// The quoted name of a table or column.
std::string Quoted(const char* name) { return std::string("\"") + name + "\""; }

// The index among table's own columns of the column named name; -1 for
// none.
int ColumnIndex(Table table, const char* name) {
  const auto& columns = ShapeOf(table).columns;
  for (std::size_t i = 0; i < columns.size(); ++i)
    if (std::strcmp(columns[i], name) == 0) return static_cast<int>(i);
  return -1;
}

}  // namespace

bool KivStoreContent::Add(const char* table,
                          const std::vector<W::Value>& values,
                          std::string* error, bool once) {
  const int t = kiv::TableNamed(table);
  const std::size_t columns = t == kiv::kTableCount
                                  ? 0
                                  : ShapeOf(Table(t)).columns.size() +
                                        (ShapeOf(Table(t)).hasOid ? 1 : 0);
  if (t == kiv::kTableCount || values.size() != columns) {
    *error = std::string("table ") + table + ": not a row of the schema";
    return false;
  }
  std::vector<W::Value> owned = values;
  for (W::Value& v : owned)
    if (v.type == W::Value::kText) {
      v.bytes.assign(v.text.data(), v.text.size());
      v.text = std::string_view();
    }
  if (once) {
    media_.insert(owned[0].bytes);
  } else if (!ShapeOf(Table(t)).hasOid) {
    links_[{t, owned[0].bytes}].push_back(owned[1].bytes);
  } else {
    // A list is its table's, under its owner (none for a top table).
    const kiv::TableShape& shape = ShapeOf(Table(t));
    const std::string owner =
        shape.owner == kiv::kTableCount ? std::string() : owned[1].bytes;
    lists_[{t, owner}].push_back(rows_.size());
    byOid_[owned[0].bytes] = rows_.size();
    rows_.push_back({t, std::move(owned)});
  }
  return true;
}

long KivStoreContent::Find(const std::string& oid) const {
  const auto it = byOid_.find(oid);
  return it == byOid_.end() ? -1 : static_cast<long>(it->second);
}

namespace {

// The statements of one change, each prepared once: a statement prepared
// for every row would cost more than the row.
class Statements {
 public:
  explicit Statements(sqlite3* db) : db_(db) {}
  ~Statements() {
    for (auto& [key, stmt] : statements_) sqlite3_finalize(stmt);
  }
  Statements(const Statements&) = delete;
  Statements& operator=(const Statements&) = delete;
  // Runs the statement known by key, made from sql() the first time, with
  // values bound, then last when bindLast; the rows it changed.
  template <typename Sql>
  int Run(std::uint64_t key, Sql sql, const std::vector<W::Value>& values = {},
          std::int64_t last = 0, bool bindLast = false) {
    // An interruption between two statements stops the next one too.
    if (interrupted.load()) throw Failure{"interrupted"};
    sqlite3_stmt*& stmt = statements_[key];
    if (!stmt && sqlite3_prepare_v3(db_, std::string(sql()).c_str(), -1,
                                    SQLITE_PREPARE_PERSISTENT, &stmt,
                                    nullptr) != SQLITE_OK)
      throw Failure{sqlite3_errmsg(db_)};
    for (std::size_t i = 0; i < values.size(); ++i)
      Bind(stmt, static_cast<int>(i + 1), values[i]);
    if (bindLast)
      sqlite3_bind_int64(stmt, static_cast<int>(values.size() + 1), last);
    const int rc = sqlite3_step(stmt);
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
    if (rc != SQLITE_DONE) throw Failure{sqlite3_errmsg(db_)};
    return sqlite3_changes(db_);
  }

  // The key of statement what of table; for an update, mask has a bit for
  // each column it sets.
  enum What : std::uint64_t {
    kUpdate,
    kDelete,
    kInsert,
    kMedia,
    kRenumber,
    kUnlink,
    kLink,
    kOrphans
  };
  static std::uint64_t Key(What what, int table, std::uint64_t mask = 0) {
    return what << 56 | static_cast<std::uint64_t>(table) << 48 | mask;
  }

 private:
  sqlite3* db_;
  std::unordered_map<std::uint64_t, sqlite3_stmt*> statements_;
};

// How long a change waits for a writer at work before it begins.
constexpr int kWaitMs = 5000;

// SQLite's own timeout counts each lock it waits for afresh, and a
// snapshot of a store with a writer at work may wait for more than one:
// the wait for the transaction's start is bounded as a whole, as its
// message tells it.
int WaitUntil(void* deadline, int) {
  if (std::chrono::steady_clock::now() >=
      *static_cast<std::chrono::steady_clock::time_point*>(deadline))
    return 0;
  sqlite3_sleep(10);
  return 1;
}

}  // namespace

KivStoreChange::KivStoreChange(sqlite3* db, std::string path)
    : db_(db), path_(std::move(path)) {}

KivStoreChange::~KivStoreChange() {
  interruptible.store(nullptr);
  if (open_) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  sqlite3_close(db_);
}

std::unique_ptr<KivStoreChange> KivStoreChange::Begin(const std::string& path,
                                                      Refusal* refusal,
                                                      std::string* error,
                                                      bool snapshot) {
  interrupted.store(false);
  struct stat opened {};
  if (::stat(path.c_str(), &opened) != 0) {
    *refusal = Refusal::kOpen;
    *error = std::strerror(errno);
    return nullptr;
  }
  // Made before the connection, which it then closes however Begin ends.
  std::unique_ptr<KivStoreChange> change(new KivStoreChange(nullptr, path));
  const std::string name = path[0] == '/' ? path : "./" + path;
  // The connection is used by one thread: no mutex of its own.
  const int rc = sqlite3_open_v2(
      name.c_str(), &change->db_,
      (snapshot ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE) |
          SQLITE_OPEN_NOMUTEX,
      nullptr);
  sqlite3* const db = change->db_;
  change->device_ = opened.st_dev;
  change->inode_ = opened.st_ino;
  if (rc != SQLITE_OK) {
    *refusal = Refusal::kOpen;
    *error = db ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
    return nullptr;
  }
  interruptible.store(db);
  // A writer at work is waited for, a bounded time.
  std::chrono::steady_clock::time_point deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
  sqlite3_busy_handler(db, WaitUntil, &deadline);
  // The change and the exports that bracket it read and write most pages of
  // a large store: a cache to hold them spares reading them again, and
  // writing them out to make room before the commit.
  sqlite3_exec(db, "PRAGMA cache_size = -65536", nullptr, nullptr, nullptr);
  // A snapshot's read transaction begins with its first read, which holds
  // the store's state until the end.
  const int begun = sqlite3_exec(
      db, snapshot ? "BEGIN; SELECT count(*) FROM sqlite_schema" : "BEGIN IMMEDIATE",
      nullptr, nullptr, nullptr);
  const bool busy = sqlite3_errcode(db) == SQLITE_BUSY;
  *error = sqlite3_errmsg(db);
  // Later waits (the commit's, for readers to finish) each have their own
  // bound: the deadline above ends with this function.
  sqlite3_busy_timeout(db, kWaitMs);
  if (begun != SQLITE_OK) {
    *refusal = Refusal::kLock;
    if (busy)
      *error += " (another process writes it; gave up after " +
                std::to_string(kWaitMs / 1000) + " s)";
    return nullptr;
  }
  error->clear();
  change->open_ = true;
  // The path must name the file the connection writes, from the lock taken
  // to the commit.
  if (change->Replaced()) {
    *refusal = Refusal::kReplaced;
    return nullptr;
  }
  // Rows that a trigger writes, or a view, are not the document's: what the
  // schema does not define is refused before anything is written.
  const std::vector<std::string> foreign = KivForeignSchema(db);
  if (!foreign.empty()) {
    *refusal = Refusal::kForeign;
    error->clear();
    for (const std::string& f : foreign)
      *error += (error->empty() ? "" : ", ") + f;
    return nullptr;
  }
  *refusal = Refusal::kNone;
  return change;
}

bool KivStoreChange::Replaced() const {
  struct stat now {};
  return ::stat(path_.c_str(), &now) != 0 || now.st_dev != device_ ||
         now.st_ino != inode_;
}

void KivStoreChange::Interrupt() {
  // Only what is safe in a signal handler: a flag, and SQLite's interrupt,
  // which sets one of its own.
  interrupted.store(true);
  if (sqlite3* db = interruptible.load()) sqlite3_interrupt(db);
}

bool KivStoreChange::KeptMedia(const KivStoreContent& content,
                               std::vector<std::string>* found,
                               std::string* error) const {
  try {
    Rows rows(db_, "SELECT oid FROM " + Quoted(ShapeOf(kiv::kMedia).name));
    while (rows.Next()) {
      std::string oid = rows.Blob(0);
      if (content.byOid_.count(oid) && !content.media_.count(oid))
        found->push_back(std::move(oid));
    }
  } catch (const Failure& f) {
    *error = f.what;
    return false;
  }
  return true;
}

namespace {

// The statements that read one row, or one link list, by oid: prepared once
// for each table, reset after each read.
class Lookups {
 public:
  explicit Lookups(sqlite3* db) : db_(db) {}
  ~Lookups() {
    for (sqlite3_stmt* stmt : statements_) sqlite3_finalize(stmt);
  }
  Lookups(const Lookups&) = delete;
  Lookups& operator=(const Lookups&) = delete;
  // The statement of table t, made from sql() the first time, with oid
  // bound: its rows are stepped by the caller, and it is reset at the next
  // Find or by Done.
  template <typename Sql>
  sqlite3_stmt* Find(int t, Sql sql, const std::string& oid) {
    sqlite3_stmt*& stmt = statements_[static_cast<std::size_t>(t)];
    if (!stmt && sqlite3_prepare_v3(db_, std::string(sql()).c_str(), -1,
                                    SQLITE_PREPARE_PERSISTENT, &stmt,
                                    nullptr) != SQLITE_OK)
      throw Failure{sqlite3_errmsg(db_)};
    sqlite3_reset(stmt);
    sqlite3_bind_blob(stmt, 1, oid.data(), static_cast<int>(oid.size()),
                      SQLITE_STATIC);
    return stmt;
  }
  // Steps stmt: true for a row, false at the end.
  bool Step(sqlite3_stmt* stmt) {
    if (interrupted.load()) throw Failure{"interrupted"};
    const int rc = sqlite3_step(stmt);
    if (rc != SQLITE_ROW && rc != SQLITE_DONE)
      throw Failure{sqlite3_errmsg(db_)};
    return rc == SQLITE_ROW;
  }
  // Ends the read of stmt, before its table is written.
  static void Done(sqlite3_stmt* stmt) { sqlite3_reset(stmt); }

 private:
  sqlite3* db_;
  sqlite3_stmt* statements_[kiv::kTableCount] = {};
};

}  // namespace

// The phases of a change, in the order they run, over the rows content
// wants, the store's rows that the plan touches, and their lists.
struct KivStoreChangePhases {
  using S = Statements;
  // Where the change stands between its phases.
  struct State {
    State(sqlite3* d, const KivStoreContent& c)
        : db(d),
          run(d),
          find(d),
          content(c),
          known(c.rows_.size()),
          rowids(c.rows_.size()) {}
    sqlite3* db;
    Statements run;
    Lookups find;
    const KivStoreContent& content;
    std::vector<bool> known;  // each wanted row: its rowid is known
    // Where each wanted row stands (its rowid) once the changes are made.
    std::vector<std::int64_t> rowids;
    std::int64_t next[kiv::kTableCount] = {};  // by table: past every rowid
    KivStoreChange::Counts counts;
  };

  // Past every rowid of each object table: where a list put in order goes.
  static void Past(State& s) {
    for (int t = 0; t < kiv::kObjectTables; ++t) {
      Rows last(s.db,
                "SELECT max(rowid) FROM " + Quoted(ShapeOf(Table(t)).name));
      last.Next();
      s.next[t] = sqlite3_column_int64(last.stmt, 0) + 1;
    }
  }

  // The store's row of oid in table t, stepped to; null when there is none.
  static sqlite3_stmt* Row(State& s, int t, const std::string& oid) {
    const Table table = Table(t);
    sqlite3_stmt* stmt = s.find.Find(
        t,
        [&] {
          return "SELECT " + kiv::SelectList(table, "") + " FROM " +
                 Quoted(ShapeOf(table).name) + " WHERE oid = ?";
        },
        oid);
    return s.find.Step(stmt) ? stmt : nullptr;
  }

  // Updates the store's row at rowid, which have reads, to want where
  // they differ; true when it did.
  static bool Update(State& s, int t, sqlite3_stmt* have, std::int64_t rowid,
                     const std::vector<W::Value>& want) {
    const Table table = Table(t);
    const kiv::TableShape& shape = ShapeOf(table);
    // An update's statement is known by the columns it sets, a bit each.
    if (shape.columns.size() > 48)
      throw Failure{"table " + Quoted(shape.name) +
                    " has more columns than apply takes"};
    std::uint64_t mask = 0;
    std::vector<W::Value> values;
    for (std::size_t c = 0; c < shape.columns.size(); ++c) {
      const W::Value& v = want[c + 1];
      if (Same(have, kiv::FirstColumn(table) + static_cast<int>(c), v))
        continue;
      mask |= std::uint64_t{1} << c;
      values.push_back(v);
    }
    Lookups::Done(have);
    if (mask == 0) return false;
    s.run.Run(
        S::Key(S::kUpdate, t, mask),
        [&] {
          std::string set;
          for (std::size_t c = 0; c < shape.columns.size(); ++c)
            if ((mask >> c) & 1)
              set +=
                  (set.empty() ? "" : ", ") + Quoted(shape.columns[c]) + " = ?";
          return "UPDATE " + Quoted(shape.name) + " SET " + set +
                 " WHERE rowid = ?";
        },
        values, rowid, true);
    return true;
  }

  // Removes the store's row at rowid of table t, whose oid is oid, with
  // the statuses without a server that it owns: the document has no
  // element for them, and they go with their owner.
  static void Remove(State& s, int t, std::int64_t rowid,
                     const std::string& oid) {
    const std::string name = Quoted(ShapeOf(Table(t)).name);
    s.run.Run(
        S::Key(S::kDelete, t),
        [&] { return "DELETE FROM " + name + " WHERE rowid = ?"; }, {}, rowid,
        true);
    ++s.counts.removed;
    for (int c = 0; c < kiv::kObjectTables; ++c) {
      const kiv::TableShape& shape = ShapeOf(Table(c));
      const int server = ColumnIndex(Table(c), "server");
      if (shape.owner != t || server < 0) continue;
      s.counts.removed += static_cast<std::size_t>(s.run.Run(
          S::Key(S::kOrphans, c),
          [&] {
            return "DELETE FROM " + Quoted(shape.name) + " WHERE " +
                   Quoted(shape.columns[0]) + " = ? AND " +
                   Quoted(shape.columns[static_cast<std::size_t>(server)]) +
                   " IS NULL";
          },
          {OidValue(oid)}));
    }
  }

  // The rows of the objects touched removed and changed: an oid that
  // changes kind leaves its table before it enters the other.
  static void RemoveAndUpdate(State& s, const KivStoreTouched& touched) {
    const auto& rows = s.content.rows_;
    for (const auto& [oid, table, links] : touched.objects) {
      const int t = table ? kiv::TableNamed(table) : kiv::kTableCount;
      if (t >= kiv::kObjectTables) continue;
      sqlite3_stmt* have = Row(s, t, oid);
      if (!have) continue;
      const std::int64_t rowid = sqlite3_column_int64(have, 0);
      const auto it = s.content.byOid_.find(oid);
      if (it == s.content.byOid_.end() || rows[it->second].table != t) {
        Lookups::Done(have);
        Remove(s, t, rowid, oid);
        continue;
      }
      s.known[it->second] = true;
      s.rowids[it->second] = rowid;
      if (Update(s, t, have, rowid, rows[it->second].values))
        ++s.counts.changed;
    }
  }

  // The wanted rows of the objects touched that the store lacks, in the
  // document's order.
  static void Insert(State& s, const KivStoreTouched& touched) {
    const auto& rows = s.content.rows_;
    std::vector<std::size_t> added;
    for (const auto& touchedObject : touched.objects) {
      const auto it = s.content.byOid_.find(touchedObject.oid);
      if (it != s.content.byOid_.end() && !s.known[it->second])
        added.push_back(it->second);
    }
    std::sort(added.begin(), added.end());
    added.erase(std::unique(added.begin(), added.end()), added.end());
    for (const std::size_t i : added) {
      const Table table = Table(rows[i].table);
      s.run.Run(
          S::Key(S::kInsert, table),
          [&] {
            std::string marks;
            for (std::size_t c = 0; c < rows[i].values.size(); ++c)
              marks += c ? ", ?" : "?";
            return "INSERT INTO " + Quoted(ShapeOf(table).name) + " (" +
                   kiv::ColumnList(table) + ") VALUES (" + marks + ")";
          },
          rows[i].values);
      s.known[i] = true;
      s.rowids[i] = sqlite3_last_insert_rowid(s.db);
      s.next[table] = s.rowids[i] + 1;
      ++s.counts.added;
    }
  }

  // A media named and missing: a row with its identifier alone, as load
  // makes it.
  static void AddMedia(State& s) {
    for (const std::string& oid : s.content.media_)
      s.counts.added += static_cast<std::size_t>(s.run.Run(
          S::Key(S::kMedia, kiv::kMedia),
          [] {
            return "INSERT OR IGNORE INTO " +
                   Quoted(ShapeOf(kiv::kMedia).name) + " (oid) VALUES (?)";
          },
          {OidValue(oid)}));
  }

  // The rowid of each row of list, read where the change has not learnt it.
  static void Learn(State& s, int t, const std::vector<std::size_t>& list) {
    for (const std::size_t row : list) {
      if (s.known[row]) continue;
      sqlite3_stmt* have = Row(s, t, s.content.rows_[row].values[0].bytes);
      if (!have) throw Failure{"a row of a list is missing"};
      s.rowids[row] = sqlite3_column_int64(have, 0);
      s.known[row] = true;
      Lookups::Done(have);
    }
  }

  // Each list touched in the wanted order: the rows of a list out of it
  // take new rowids, in that order, past every other.
  static void Order(State& s, const KivStoreTouched& touched) {
    std::set<std::pair<int, std::string>> seen;
    for (const auto& [table, owner] : touched.lists) {
      const int t = kiv::TableNamed(table);
      if (t >= kiv::kObjectTables) continue;
      const bool owned = ShapeOf(Table(t)).owner != kiv::kTableCount;
      const std::pair<int, std::string> key{t, owned ? owner : std::string()};
      const auto it = s.content.lists_.find(key);
      if (it == s.content.lists_.end() || !seen.insert(key).second) continue;
      const std::vector<std::size_t>& list = it->second;
      Learn(s, t, list);
      bool ordered = true;
      for (std::size_t i = 1; i < list.size() && ordered; ++i)
        ordered = s.rowids[list[i - 1]] < s.rowids[list[i]];
      if (ordered) continue;
      std::int64_t& at = s.next[t];
      for (const std::size_t row : list) {
        s.run.Run(
            S::Key(S::kRenumber, t),
            [&] {
              return "UPDATE " + Quoted(ShapeOf(Table(t)).name) +
                     " SET rowid = ? WHERE rowid = ?";
            },
            {W::Integer(at)}, s.rowids[row], true);
        s.rowids[row] = at++;
      }
      ++s.counts.reordered;
    }
  }

  // True when the store's link list of owner in link table t is wanted.
  static bool SameLinks(State& s, int t, const std::string& owner,
                        const std::vector<std::string>& wanted) {
    const kiv::TableShape& shape = ShapeOf(Table(t));
    sqlite3_stmt* links = s.find.Find(
        t,
        [&] {
          return "SELECT " + Quoted(shape.columns[1]) + " FROM " +
                 Quoted(shape.name) + " WHERE " + Quoted(shape.columns[0]) +
                 " = ? ORDER BY rowid";
        },
        owner);
    std::size_t at = 0;
    bool same = true;
    for (; same && s.find.Step(links); ++at) {
      const void* p = sqlite3_column_blob(links, 0);
      same = at < wanted.size() &&
             std::string_view(static_cast<const char*>(p ? p : ""),
                              static_cast<std::size_t>(sqlite3_column_bytes(
                                  links, 0))) == wanted[at];
    }
    Lookups::Done(links);
    return same && at == wanted.size();
  }

  // The link lists of each object touched whose lists may differ, as
  // wanted: rewritten where they differ. Each is owned by the object as the
  // store holds it or as the document wants it.
  static void Relink(State& s, const KivStoreTouched& touched) {
    static const std::vector<std::string> none;
    std::set<std::pair<int, std::string>> lists;
    for (const auto& [oid, table, links] : touched.objects) {
      if (!links) continue;
      const auto it = s.content.byOid_.find(oid);
      const int wanted = it == s.content.byOid_.end()
                             ? kiv::kTableCount
                             : s.content.rows_[it->second].table;
      const int stored = table ? kiv::TableNamed(table) : kiv::kTableCount;
      for (int t = kiv::kObjectTables; t < kiv::kTableCount; ++t)
        if (ShapeOf(Table(t)).owner == wanted ||
            ShapeOf(Table(t)).owner == stored)
          lists.emplace(t, oid);
    }
    for (const auto& list : lists) {
      // Named apart: a lambda may not capture a structured binding.
      const int t = list.first;
      const std::string& o = list.second;
      const kiv::TableShape& shape = ShapeOf(Table(t));
      const std::string name = Quoted(shape.name);
      const std::string owner = Quoted(shape.columns[0]);
      const auto it = s.content.links_.find({t, o});
      const std::vector<std::string>& wanted =
          it == s.content.links_.end() ? none : it->second;
      if (SameLinks(s, t, o, wanted)) continue;
      s.run.Run(
          S::Key(S::kUnlink, t),
          [&] { return "DELETE FROM " + name + " WHERE " + owner + " = ?"; },
          {OidValue(o)});
      for (const std::string& target : wanted)
        s.run.Run(S::Key(S::kLink, t),
                  [&] {
                    return "INSERT INTO " + name + " (" +
                           kiv::ColumnList(Table(t)) + ") VALUES (?, ?)";
                  },
                  {OidValue(o), OidValue(target)});
      ++s.counts.relinked;
    }
  }
};

bool KivStoreChange::Apply(const KivStoreContent& content,
                           const KivStoreTouched& touched, std::string* error) {
  using P = KivStoreChangePhases;
  try {
    P::State state(db_, content);
    P::Past(state);
    P::RemoveAndUpdate(state, touched);
    P::Insert(state, touched);
    P::AddMedia(state);
    P::Order(state, touched);
    P::Relink(state, touched);
    counts_ = state.counts;
  } catch (const Failure& f) {
    *error = f.what;
    return false;
  }
  return true;
}

bool KivStoreChange::Commit(std::string* error) {
  if (sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) {
    *error = sqlite3_errmsg(db_);
    return false;
  }
  open_ = false;
  return true;
}
