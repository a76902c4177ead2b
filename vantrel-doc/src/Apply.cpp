#include <fcntl.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <ostream>
#include <set>
#include <sstream>
#include <unordered_map>

#include "Checker.h"
#include "DocumentRows.h"
#include "DocumentWrite.h"
#include "Files.h"
#include "Hex.h"
#include "KivStoreWriter.h"
#include "Output.h"
#include "SdaiSession.h"
#include "Vantrel.h"
#include "VantrelDoc.h"

namespace {

using W = KivStoreWriter;

// The connection that an apply writes through, interrupted by a signal.
std::atomic<sqlite3*> interruptible{nullptr};
volatile std::sig_atomic_t caught = 0;

void OnApplySignal(int signal) {
  // Only what is safe in a signal handler: a flag, and SQLite's interrupt,
  // which sets one of its own.
  caught = signal;
  if (sqlite3* db = interruptible.load()) sqlite3_interrupt(db);
}

// While it lives, SIGINT, SIGTERM and SIGHUP stop the apply where it
// stands: the transaction is rolled back and its files closed as the
// command unwinds, then the process ends by the signal.
class Interruption {
 public:
  Interruption() {
    struct sigaction action {};
    action.sa_handler = OnApplySignal;
    sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < 3; ++i)
      ::sigaction(kSignals[i], &action, &saved_[i]);
  }
  ~Interruption() {
    interruptible.store(nullptr);
    for (std::size_t i = 0; i < 3; ++i)
      ::sigaction(kSignals[i], &saved_[i], nullptr);
    if (caught) ::raise(caught);
  }
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;
  static bool Caught() { return caught != 0; }

 private:
  static constexpr int kSignals[3] = {SIGINT, SIGTERM, SIGHUP};
  struct sigaction saved_[3];
};

// A row that the document gives a table, its texts owned.
struct Wanted {
  const char* table;
  std::vector<W::Value> values;
  doc::Kind kind;  // of the element it comes from
};

// The rows the document wants, as load would make them: objects by oid,
// each list's order, each link list, the media it names.
struct Wants {
  std::vector<Wanted> rows;
  std::unordered_map<std::string, std::size_t> byOid;  // oid bytes -> row
  // Each list of objects (its table and owner's oid) in the document's order.
  std::map<std::pair<std::string, std::string>, std::vector<std::string>> lists;
  // Each link list (its table and owner's oid), targets in order.
  std::map<std::pair<std::string, std::string>, std::vector<std::string>> links;
  std::set<std::string> media;
  // The document as the exporter writes it, whatever its syntax.
  std::string exported;
};

// Gathers the rows of each element as the document is walked.
class Gatherer : public doc::Visitor {
 public:
  explicit Gatherer(Wants& wants) : wants_(wants) {}
  // A stylesheet instruction is how a document is shown, not configuration:
  // the store's export never has one.
  void Other(const doc::Line& line, std::size_t) override {
    if (line.type != doc::Line::kStylesheet) Write(line);
  }
  void Element(const doc::Line& line, std::size_t,
               const doc::Place& place) override {
    Write(line);
    doc::RowsOf(
        line, place.parent,
        [&](const char* table, const std::vector<W::Value>& values, bool once) {
          std::vector<W::Value> owned = values;
          for (W::Value& v : owned)
            if (v.type == W::Value::kText) {
              v.bytes.assign(v.text.data(), v.text.size());
              v.text = std::string_view();
            }
          if (once) {  // a media: made where it is named
            wants_.media.insert(owned[0].bytes);
          } else if (IsLink(table)) {
            wants_.links[{table, owned[0].bytes}].push_back(owned[1].bytes);
          } else {
            wants_.byOid[owned[0].bytes] = wants_.rows.size();
            wants_.rows.push_back({table, std::move(owned), line.kind});
            const Wanted& row = wants_.rows.back();
            // A list is its table's, under the element's parent.
            wants_.lists[{table, W::Oid(place.parent).bytes}].push_back(
                row.values[0].bytes);
          }
          return true;
        });
  }
  void Problem(std::size_t, const std::string&) override {}
  void Restart() override { wants_ = Wants(); }

 private:
  void Write(const doc::Line& line) {
    std::string unused;
    doc::WriteLine(line, false, wants_.exported, &unused);
    wants_.exported += '\n';
  }
  static bool IsLink(const char* table) {
    for (const doc::LinkList& list : doc::LinkLists())
      if (std::strcmp(list.table, table) == 0) return true;
    return false;
  }
  Wants& wants_;
};

// A value of a store column as the document's value compares with it: NULL
// and the empty text are alike, since the document writes both as "".
bool Same(sqlite3_stmt* stmt, int col, const W::Value& v) {
  const int type = sqlite3_column_type(stmt, col);
  const auto bytes = [&] {
    const void* p = type == SQLITE_BLOB ? sqlite3_column_blob(stmt, col)
                                        : sqlite3_column_text(stmt, col);
    return std::string(
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

// An error of SQLite, thrown to the command's boundary.
struct Failure {
  std::string what;
};

// The write transaction of one apply: its statements, kept by their text
// (a statement prepared for every row would cost more than the row), and
// what it did.
class Change {
 public:
  explicit Change(sqlite3* db) : db_(db) {}
  ~Change() {
    for (auto& [sql, stmt] : statements_) sqlite3_finalize(stmt);
  }
  Change(const Change&) = delete;
  Change& operator=(const Change&) = delete;
  // Runs sql with values bound, then last when bindLast; the rows it
  // changed.
  int Run(const std::string& sql, const std::vector<W::Value>& values = {},
          std::int64_t last = 0, bool bindLast = false) {
    if (caught) throw Failure{"interrupted"};
    sqlite3_stmt*& stmt = statements_[sql];
    if (!stmt &&
        sqlite3_prepare_v3(db_, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT,
                           &stmt, nullptr) != SQLITE_OK)
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
  std::size_t added = 0, changed = 0, removed = 0, reordered = 0, relinked = 0;

 private:
  sqlite3* db_;
  std::unordered_map<std::string, sqlite3_stmt*> statements_;
};

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
  std::string Blob(int col) {
    const void* p = sqlite3_column_blob(stmt, col);
    return std::string(
        static_cast<const char*>(p ? p : ""),
        static_cast<std::size_t>(sqlite3_column_bytes(stmt, col)));
  }
  sqlite3_stmt* stmt = nullptr;
};

// Makes the rows of the store those the document wants, writing only what
// differs.
void Apply(sqlite3* db, const Wants& wants, Change& change) {
  std::vector<bool> present(wants.rows.size());
  // Where each wanted row stands (its rowid) once the changes are made.
  std::unordered_map<std::string, std::int64_t> rowids;
  std::map<std::string, std::int64_t> next;  // by table: a rowid past all
  // Rows removed and changed first, then added: an oid that changes kind
  // leaves its table before it enters the other.
  for (const char* table : doc::ObjectTables()) {
    const std::string t = table;
    Rows rows(db, "SELECT rowid, * FROM \"" + t + "\"");
    const int columns = sqlite3_column_count(rows.stmt);
    std::int64_t last = 0;
    std::vector<std::int64_t> gone;
    while (rows.Next()) {
      const std::int64_t rowid = sqlite3_column_int64(rows.stmt, 0);
      last = std::max(last, rowid);
      const std::string oid = rows.Blob(1);
      const auto it = wants.byOid.find(oid);
      if (it == wants.byOid.end() || wants.rows[it->second].table != t) {
        // What the document does not carry is kept: media, and statuses
        // without a server whose owner stays.
        if (t == "media") continue;
        if ((t == "capture_status" || t == "apply_status") &&
            sqlite3_column_type(rows.stmt, 3) == SQLITE_NULL) {
          const auto owner = wants.byOid.find(rows.Blob(2));
          if (owner != wants.byOid.end() &&
              std::strcmp(wants.rows[owner->second].table,
                          t == "capture_status" ? "subscribing_target"
                                                : "subscription") == 0)
            continue;
        }
        gone.push_back(rowid);
        continue;
      }
      present[it->second] = true;
      rowids[oid] = rowid;
      const Wanted& want = wants.rows[it->second];
      std::string set;
      std::vector<W::Value> values;
      for (int c = 2;
           c < columns && c - 1 < static_cast<int>(want.values.size()); ++c) {
        const W::Value& v = want.values[static_cast<std::size_t>(c - 1)];
        if (Same(rows.stmt, c, v)) continue;
        set += (set.empty() ? "\"" : ", \"") +
               std::string(sqlite3_column_name(rows.stmt, c)) + "\" = ?";
        values.push_back(v);
      }
      if (set.empty()) continue;
      change.Run("UPDATE \"" + t + "\" SET " + set + " WHERE rowid = ?", values,
                 rowid, true);
      ++change.changed;
    }
    for (std::int64_t rowid : gone) {
      change.Run("DELETE FROM \"" + t + "\" WHERE rowid = ?", {}, rowid, true);
      ++change.removed;
    }
    next[t] = last + 1;
  }
  for (std::size_t i = 0; i < wants.rows.size(); ++i) {
    if (present[i]) continue;
    const Wanted& row = wants.rows[i];
    std::string marks;
    for (std::size_t c = 0; c < row.values.size(); ++c)
      marks += c ? ", ?" : "?";
    change.Run(
        "INSERT INTO \"" + std::string(row.table) + "\" VALUES (" + marks + ")",
        row.values);
    rowids[row.values[0].bytes] = sqlite3_last_insert_rowid(db);
    next[row.table] = sqlite3_last_insert_rowid(db) + 1;
    ++change.added;
  }
  // A media named and missing: a row with its identifier alone, as load.
  for (const std::string& oid : wants.media) {
    W::Value v{W::Value::kOid, oid, 0, {}};
    change.added += static_cast<std::size_t>(
        change.Run("INSERT OR IGNORE INTO media VALUES (?, NULL)", {v}));
  }
  // Each list in the document's order: the rows of a list out of it take
  // new rowids, in that order, past every other.
  for (const auto& [key, oids] : wants.lists) {
    bool ordered = true;
    for (std::size_t i = 1; i < oids.size() && ordered; ++i)
      ordered = rowids[oids[i - 1]] < rowids[oids[i]];
    if (ordered) continue;
    std::int64_t& at = next[key.first];
    for (const std::string& oid : oids) {
      change.Run("UPDATE \"" + key.first + "\" SET rowid = ? WHERE rowid = ?",
                 {W::Integer(at)}, rowids[oid], true);
      rowids[oid] = at++;
    }
    ++change.reordered;
  }
  // Each link list as the document writes it: rewritten where it differs.
  for (const doc::LinkList& list : doc::LinkLists()) {
    const std::string t = list.table;
    std::map<std::string, std::vector<std::string>> have;
    {
      Rows rows(db, "SELECT * FROM \"" + t + "\" ORDER BY rowid");
      while (rows.Next()) have[rows.Blob(0)].push_back(rows.Blob(1));
    }
    std::set<std::string> owners;
    for (const auto& [owner, targets] : have) owners.insert(owner);
    for (const auto& [key, targets] : wants.links)
      if (key.first == t) owners.insert(key.second);
    Rows names(db, "SELECT * FROM \"" + t + "\" LIMIT 0");
    const std::string ownerColumn = sqlite3_column_name(names.stmt, 0);
    for (const std::string& owner : owners) {
      const auto want = wants.links.find({t, owner});
      const std::vector<std::string> none;
      const auto& wanted = want == wants.links.end() ? none : want->second;
      const auto found = have.find(owner);
      if (found != have.end() && found->second == wanted) continue;
      const W::Value o{W::Value::kOid, owner, 0, {}};
      change.Run("DELETE FROM \"" + t + "\" WHERE \"" + ownerColumn + "\" = ?",
                 {o});
      for (const std::string& target : wanted)
        change.Run("INSERT INTO \"" + t + "\" VALUES (?, ?)",
                   {o, W::Value{W::Value::kOid, target, 0, {}}});
      ++change.relinked;
    }
  }
}

// The oids of the store's media rows that apply keeps (the document does
// not name them) while the document gives them to objects of its own.
std::vector<std::string> KeptMedia(sqlite3* db, const Wants& wants) {
  std::vector<std::string> found;
  Rows rows(db, "SELECT oid FROM media");
  while (rows.Next()) {
    std::string oid = rows.Blob(0);
    if (wants.byOid.count(oid) && !wants.media.count(oid))
      found.push_back(std::move(oid));
  }
  return found;
}

// Exports the store that db serves, in its transaction, to file; true when
// the exporter succeeded (its messages went to standard error).
bool ExportThrough(sqlite3* db, const std::string& file) {
  std::ofstream out(file, std::ios::out | std::ios::trunc);
  // The connection is served, and its session closed, however the export
  // ends: memory running out among the ways.
  struct Serving {
    explicit Serving(sqlite3* connection) { KivServeConnection(connection); }
    ~Serving() {
      KivServeConnection(nullptr);
      if (SdaiSession* session = SdaiSession::CurrentSession())
        session->CloseSession();
    }
  } serving(db);
  indent = 0;
  iXSL = 0;
  const int rc = ReadAdmin(&out);
  out.close();
  return rc == 0 && !out.fail();
}

// True when the file at path holds bytes exactly; read a block at a time.
bool Holds(const std::string& path, std::string_view bytes) {
  std::ifstream in(path, std::ios::binary);
  char block[1 << 16];
  while (in) {
    in.read(block, sizeof block);
    const auto got = static_cast<std::size_t>(in.gcount());
    if (got > bytes.size() || bytes.compare(0, got, block, got) != 0)
      return false;
    bytes.remove_prefix(got);
  }
  return in.eof() && bytes.empty();
}

// A file in memory, named by a path of /proc: nothing of it is left on a
// disk whatever ends the process, and no temporary directory can fail it.
struct Temporary {
  Temporary() {
    fd = ::memfd_create("vantrel-apply", MFD_CLOEXEC);
    path = fd < 0 ? std::string() : "/proc/self/fd/" + std::to_string(fd);
  }
  ~Temporary() {
    if (fd >= 0) ::close(fd);
  }
  Temporary(const Temporary&) = delete;
  Temporary& operator=(const Temporary&) = delete;
  int fd = -1;
  std::string path;
};

// Reads the document file whole into *bytes, as any document is read:
// bounded, and only from a regular file. False with the reason in *error.
bool ReadDocumentFile(const std::string& file, std::string* bytes,
                      std::string* error) {
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st {};
  if (fd < 0 || ::fstat(fd, &st) != 0) {
    *error = std::strerror(errno);
    if (fd >= 0) ::close(fd);
    return false;
  }
  const bool regular = S_ISREG(st.st_mode);
  if (!regular ||
      static_cast<std::uint64_t>(st.st_size) > doc::kMaxDocumentBytes) {
    ::close(fd);
    *error = S_ISDIR(st.st_mode) ? std::strerror(EISDIR)
             : regular           ? "larger than any document"
                                 : "not a regular file";
    return false;
  }
  bytes->resize(static_cast<std::size_t>(st.st_size));
  std::size_t at = 0;
  while (at < bytes->size()) {
    const ssize_t got = ::read(fd, &(*bytes)[at], bytes->size() - at);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      *error = got < 0 ? std::strerror(errno) : "it was cut short while read";
      ::close(fd);
      return false;
    }
    at += static_cast<std::size_t>(got);
  }
  ::close(fd);
  return true;
}

// The connection of a store opened for writing; rolled back and closed
// unless committed.
struct Writing {
  sqlite3* db = nullptr;
  bool open = false;  // in a transaction
  ~Writing() {
    if (open) sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close(db);
  }
};

}  // namespace

int DocApply(const std::string& file, const std::string& store, bool dryRun,
             const std::string& base, std::ostream& out, std::ostream& err) {
  const auto refused = [&](const std::string& why, int status) {
    err << "vantrel-doc: " << why << "; " << Shown(store)
        << " was not changed\n";
    return status;
  };
  const Interruption interruption;
  const auto interrupted = [&] {
    return refused("interrupted by signal " + std::to_string(caught), 2);
  };
  // Standard input is read twice: for the rows, then for the plan.
  Temporary input;
  std::string doc = file;
  if (file == "-") {
    if (input.fd < 0 ||
        vantrel::CopyFile(STDIN_FILENO, input.fd, doc::kMaxDocumentBytes) !=
            vantrel::Copied::kWhole)
      return refused(std::string("cannot read <stdin>: ") +
                         (errno == EFBIG ? "larger than any document"
                                         : std::strerror(errno)),
                     2);
    doc = input.path;
  }
  Wants wants;
  struct stat size {};
  if (::stat(doc.c_str(), &size) == 0)
    wants.exported.reserve(static_cast<std::size_t>(size.st_size));
  Gatherer gatherer(wants);
  Checker checker(doc, err, &gatherer);
  if (!checker.Run()) return refused("cannot read " + Shown(file), 2);
  if (checker.Problems())
    return refused(Shown(file) + " is refused by check", 1);
  const std::string& document = wants.exported;
  std::string baseBytes, error;
  if (!base.empty() && !ReadDocumentFile(base, &baseBytes, &error))
    return refused("cannot read " + Shown(base) + ": " + error, 2);
  if (Interruption::Caught()) return interrupted();

  struct stat opened {};
  if (::stat(store.c_str(), &opened) != 0)
    return refused("cannot open " + Shown(store) + ": " + std::strerror(errno),
                   2);
  Writing writing;
  const std::string name = store[0] == '/' ? store : "./" + store;
  // The connection is used by this thread alone: no mutex of its own.
  if (sqlite3_open_v2(name.c_str(), &writing.db,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX,
                      nullptr) != SQLITE_OK)
    return refused(
        "cannot open " + Shown(store) + ": " + sqlite3_errmsg(writing.db), 2);
  interruptible.store(writing.db);
  // A writer at work is waited for, a bounded time.
  sqlite3_busy_timeout(writing.db, 5000);
  if (sqlite3_exec(writing.db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) !=
      SQLITE_OK)
    return Interruption::Caught()
               ? interrupted()
               : refused("cannot write " + Shown(store) + ": " +
                             sqlite3_errmsg(writing.db) +
                             (sqlite3_errcode(writing.db) == SQLITE_BUSY
                                  ? " (another process writes it; gave up "
                                    "after 5 s)"
                                  : ""),
                         2);
  writing.open = true;
  // The path must name the file the connection writes, from the lock taken
  // to the commit.
  const auto replaced = [&] {
    struct stat now {};
    return ::stat(store.c_str(), &now) != 0 || now.st_dev != opened.st_dev ||
           now.st_ino != opened.st_ino;
  };
  if (replaced())
    return refused(Shown(store) +
                       " was replaced by another file while it "
                       "was opened",
                   2);
  // Rows that a trigger writes, or a view, are not the document's: what
  // the schema does not define is refused before anything is written.
  const std::vector<std::string> foreign = KivForeignSchema(writing.db);
  if (!foreign.empty()) {
    std::string names;
    for (const std::string& f : foreign)
      names += (names.empty() ? "" : ", ") + f;
    return refused(Shown(store) + " holds what its schema does not define (" +
                       names + "): apply writes only a store of the schema",
                   2);
  }

  Temporary now;
  if (now.fd < 0)
    return refused(
        std::string("cannot make a file in memory: ") + std::strerror(errno),
        2);
  if (!ExportThrough(writing.db, now.path))
    return Interruption::Caught()
               ? interrupted()
               : refused(Shown(store) + " cannot be exported", 2);
  if (!base.empty() && !Holds(now.path, baseBytes))
    return refused(Shown(store) + " no longer exports " + Shown(base) +
                       ": it was changed since",
                   1);
  if (Holds(now.path, document)) {
    out << Shown(store) << ": nothing to change\n";
    return 0;
  }
  // The plan, as diff lists it, is what a dry run shows: reviewed before,
  // it is not worked out again for the apply itself.
  if (dryRun) {
    std::ostringstream planErr;
    DocDiff(now.path, doc, out, planErr);
    return 1;
  }

  Change change(writing.db);
  try {
    // A media row that the document cannot carry is kept; one whose
    // identifier the document gives to an object would be its duplicate.
    for (const std::string& oid : KeptMedia(writing.db, wants))
      return refused(
          "the store's media " + Shown("x" + vantrel::Hex(oid)) +
              " is kept by apply, and " + Shown(file) +
              " gives its identifier to a " +
              doc::LayoutOf(wants.rows[wants.byOid.at(oid)].kind).name +
              ": remove the media row or change the document",
          1);
    Apply(writing.db, wants, change);
  } catch (const Failure& f) {
    if (Interruption::Caught()) return interrupted();
    return refused("cannot write " + Shown(store) + ": " + f.what, 2);
  }
  // The store must export the document before it is committed: anything
  // else is a fault of apply's own, never written.
  Temporary after;
  if (after.fd < 0 || !ExportThrough(writing.db, after.path) ||
      !Holds(after.path, document))
    return Interruption::Caught()
               ? interrupted()
               : refused("after the change " + Shown(store) +
                             " would not export " + Shown(file) +
                             " (a fault of vantrel-doc apply)",
                         2);
  // The line is made before the commit: nothing after it may fail.
  std::ostringstream line;
  line << Shown(store) << ": now exports " << Shown(file) << ": "
       << change.added << " rows added, " << change.changed << " changed, "
       << change.removed << " removed, " << change.reordered
       << " lists put in order, " << change.relinked
       << " link lists rewritten\n";
  const std::string said = line.str();
  {
    // A signal from here waits for the commit and its line: what is
    // committed is said.
    const HeldSignals held;
    if (Interruption::Caught()) return interrupted();
    if (replaced())
      return refused(Shown(store) +
                         " was replaced by another file during the apply: "
                         "the change went to a file that no longer has the "
                         "name",
                     2);
    if (sqlite3_exec(writing.db, "COMMIT", nullptr, nullptr, nullptr) !=
        SQLITE_OK)
      return refused("cannot commit to " + Shown(store) + ": " +
                         sqlite3_errmsg(writing.db),
                     2);
    writing.open = false;
    out << said << std::flush;
  }
  return 0;
}
