#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

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
    kLink
  };
  static std::uint64_t Key(What what, int table, std::uint64_t mask = 0) {
    return what << 56 | static_cast<std::uint64_t>(table) << 48 | mask;
  }

 private:
  sqlite3* db_;
  std::unordered_map<std::uint64_t, sqlite3_stmt*> statements_;
};

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
  sqlite3_busy_timeout(db, 5000);
  // The change and the exports that bracket it read and write most pages of
  // a large store: a cache to hold them spares reading them again, and
  // writing them out to make room before the commit.
  sqlite3_exec(db, "PRAGMA cache_size = -65536", nullptr, nullptr, nullptr);
  // A snapshot's read transaction begins with its first read, which holds
  // the store's state until the end.
  if (sqlite3_exec(db,
                   snapshot ? "BEGIN; SELECT count(*) FROM sqlite_schema"
                            : "BEGIN IMMEDIATE",
                   nullptr, nullptr, nullptr) != SQLITE_OK) {
    *refusal = Refusal::kLock;
    *error = sqlite3_errmsg(db);
    if (sqlite3_errcode(db) == SQLITE_BUSY)
      *error += " (another process writes it; gave up after 5 s)";
    return nullptr;
  }
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

// The phases of a change, in the order they run, over the rows content
// wants and what the store holds.
struct KivStoreChangePhases {
  using S = Statements;
  // Where the change stands between its phases.
  struct State {
    explicit State(const KivStoreContent& c)
        : content(c), present(c.rows_.size()), rowids(c.rows_.size()) {}
    const KivStoreContent& content;
    std::vector<bool> present;  // each wanted row: the store has it
    // Where each wanted row stands (its rowid) once the changes are made.
    std::vector<std::int64_t> rowids;
    std::int64_t next[kiv::kTableCount] = {};  // by table: past every rowid
    KivStoreChange::Counts counts;
  };

  // True when the store's row of table t that have reads is one to keep
  // though content lacks it: a media, which has no element, or a status
  // that names no server while its owner stays.
  static bool Kept(const State& s, Table table, Rows& have, int server) {
    if (table == kiv::kMedia) return true;
    if (server < 0 || sqlite3_column_type(have.stmt, kiv::FirstColumn(table) +
                                                         server) != SQLITE_NULL)
      return false;
    const auto owner = s.content.byOid_.find(have.Blob(2));
    return owner != s.content.byOid_.end() &&
           s.content.rows_[owner->second].table == ShapeOf(table).owner;
  }

  // Updates the store's row at rowid, which have reads, to want where
  // they differ; true when it did.
  static bool Update(Statements& run, int t, Rows& have, std::int64_t rowid,
                     const std::vector<W::Value>& want) {
    const Table table = Table(t);
    const kiv::TableShape& shape = ShapeOf(table);
    std::uint64_t mask = 0;
    std::vector<W::Value> values;
    for (std::size_t c = 0; c < shape.columns.size(); ++c) {
      const W::Value& v = want[c + 1];
      if (Same(have.stmt, kiv::FirstColumn(table) + static_cast<int>(c), v))
        continue;
      mask |= std::uint64_t{1} << c;
      values.push_back(v);
    }
    if (mask == 0) return false;
    run.Run(
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

  // Rows of table t removed and changed: an oid that changes kind leaves
  // its table before it enters the other.
  static void RemoveAndUpdate(Statements& run, sqlite3* db, State& s, int t) {
    const Table table = Table(t);
    const kiv::TableShape& shape = ShapeOf(table);
    const std::string name = Quoted(shape.name);
    // An update's statement is known by the columns it sets, a bit each.
    if (shape.columns.size() > 48)
      throw Failure{"table " + name + " has more columns than apply takes"};
    const int server = ColumnIndex(table, "server");
    const auto& rows = s.content.rows_;
    Rows have(db, "SELECT " + kiv::SelectList(table, "") + " FROM " + name);
    std::int64_t last = 0;
    std::vector<std::int64_t> gone;
    while (have.Next()) {
      const std::int64_t rowid = sqlite3_column_int64(have.stmt, 0);
      last = std::max(last, rowid);
      const auto it = s.content.byOid_.find(have.Blob(1));
      if (it == s.content.byOid_.end() || rows[it->second].table != t) {
        if (!Kept(s, table, have, server)) gone.push_back(rowid);
        continue;
      }
      s.present[it->second] = true;
      s.rowids[it->second] = rowid;
      if (Update(run, t, have, rowid, rows[it->second].values))
        ++s.counts.changed;
    }
    for (std::int64_t rowid : gone) {
      run.Run(
          S::Key(S::kDelete, t),
          [&] { return "DELETE FROM " + name + " WHERE rowid = ?"; }, {}, rowid,
          true);
      ++s.counts.removed;
    }
    s.next[t] = last + 1;
  }

  // The wanted rows the store lacks, in the document's order.
  static void Insert(Statements& run, sqlite3* db, State& s) {
    const auto& rows = s.content.rows_;
    for (std::size_t i = 0; i < rows.size(); ++i) {
      if (s.present[i]) continue;
      const Table table = Table(rows[i].table);
      run.Run(
          S::Key(S::kInsert, table),
          [&] {
            std::string marks;
            for (std::size_t c = 0; c < rows[i].values.size(); ++c)
              marks += c ? ", ?" : "?";
            return "INSERT INTO " + Quoted(ShapeOf(table).name) + " (" +
                   kiv::ColumnList(table) + ") VALUES (" + marks + ")";
          },
          rows[i].values);
      s.rowids[i] = sqlite3_last_insert_rowid(db);
      s.next[table] = sqlite3_last_insert_rowid(db) + 1;
      ++s.counts.added;
    }
  }

  // A media named and missing: a row with its identifier alone, as load
  // makes it.
  static void AddMedia(Statements& run, State& s) {
    for (const std::string& oid : s.content.media_)
      s.counts.added += static_cast<std::size_t>(run.Run(
          S::Key(S::kMedia, kiv::kMedia),
          [] {
            return "INSERT OR IGNORE INTO " +
                   Quoted(ShapeOf(kiv::kMedia).name) + " (oid) VALUES (?)";
          },
          {OidValue(oid)}));
  }

  // Each list in the wanted order: the rows of a list out of it take new
  // rowids, in that order, past every other.
  static void Order(Statements& run, State& s) {
    for (const auto& [key, list] : s.content.lists_) {
      bool ordered = true;
      for (std::size_t i = 1; i < list.size() && ordered; ++i)
        ordered = s.rowids[list[i - 1]] < s.rowids[list[i]];
      if (ordered) continue;
      const int t = key.first;
      std::int64_t& at = s.next[t];
      for (const std::size_t row : list) {
        run.Run(
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

  using Differ =
      std::vector<std::pair<std::string, const std::vector<std::string>*>>;

  // The owners of link table t whose lists differ from the wanted ones,
  // with those. The store's lists are read in their owners' order (their
  // index's), beside the wanted ones, which the content holds in the same
  // order; they are gathered before any is rewritten, since a table is not
  // written while it is read.
  static Differ Differing(sqlite3* db, const State& s, int t) {
    static const std::vector<std::string> none;
    const kiv::TableShape& shape = ShapeOf(Table(t));
    const std::string owner = Quoted(shape.columns[0]);
    auto want = s.content.links_.lower_bound({t, std::string()});
    const auto wantEnd = s.content.links_.lower_bound({t + 1, std::string()});
    Differ differ;
    Rows links(db, "SELECT " + owner + ", " + Quoted(shape.columns[1]) +
                       " FROM " + Quoted(shape.name) + " ORDER BY " + owner +
                       ", rowid");
    bool more = links.Next();
    while (more || want != wantEnd) {
      // The lowest owner of either side.
      const bool stored =
          more && (want == wantEnd || links.View(0) <= want->first.second);
      const std::string o =
          stored ? std::string(links.View(0)) : want->first.second;
      const std::vector<std::string>* wanted = &none;
      if (want != wantEnd && want->first.second == o)
        wanted = &(want++)->second;
      bool same = true;
      std::size_t at = 0;
      for (; more && links.View(0) == o; ++at, more = links.Next())
        same = same && at < wanted->size() && links.View(1) == (*wanted)[at];
      if (!same || at != wanted->size()) differ.emplace_back(o, wanted);
    }
    return differ;
  }

  // Each link list of table t as wanted: rewritten where it differs.
  static void Relink(Statements& run, sqlite3* db, State& s, int t) {
    const kiv::TableShape& shape = ShapeOf(Table(t));
    const std::string name = Quoted(shape.name);
    const std::string owner = Quoted(shape.columns[0]);
    for (const auto& [o, wanted] : Differing(db, s, t)) {
      run.Run(
          S::Key(S::kUnlink, t),
          [&] { return "DELETE FROM " + name + " WHERE " + owner + " = ?"; },
          {OidValue(o)});
      for (const std::string& target : *wanted)
        run.Run(S::Key(S::kLink, t),
                [&] {
                  return "INSERT INTO " + name + " (" +
                         kiv::ColumnList(Table(t)) + ") VALUES (?, ?)";
                },
                {OidValue(o), OidValue(target)});
      ++s.counts.relinked;
    }
  }
};

bool KivStoreChange::Apply(const KivStoreContent& content, std::string* error) {
  using P = KivStoreChangePhases;
  Statements run(db_);
  P::State state(content);
  try {
    for (int t = 0; t < kiv::kObjectTables; ++t)
      P::RemoveAndUpdate(run, db_, state, t);
    P::Insert(run, db_, state);
    P::AddMedia(run, state);
    P::Order(run, state);
    for (int t = kiv::kObjectTables; t < kiv::kTableCount; ++t)
      P::Relink(run, db_, state, t);
  } catch (const Failure& f) {
    *error = f.what;
    return false;
  }
  counts_ = state.counts;
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
