// Creates an administration store from the schema and fills it, in one
// transaction.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

class KivStoreWriter {
 public:
  // A value of a row: NULL, a text (viewed: it must outlive the Add that
  // takes it), an oid (a BLOB) or an integer.
  struct Value {
    enum Type { kNull, kText, kOid, kInteger } type = kNull;
    std::string bytes;
    long long number = 0;
    std::string_view text;
  };
  static Value Null() { return {}; }
  static Value Text(std::string_view text) {
    return {Value::kText, std::string(), 0, text};
  }
  // An oid from its text in a document: "x" and hexadecimal.
  static Value Oid(std::string_view identifier);
  static Value Integer(long long number) {
    return {Value::kInteger, "", number, {}};
  }

  // Starts a store for path, which must not exist: a file is never written
  // over. The rows go to a partial file beside it, which takes path's name
  // at Commit. On failure returns null and sets *error.
  static std::unique_ptr<KivStoreWriter> Create(const std::string& path,
                                                std::string* error);
  // Removes the partial file; after Commit path holds the store.
  ~KivStoreWriter();
  KivStoreWriter(const KivStoreWriter&) = delete;
  KivStoreWriter& operator=(const KivStoreWriter&) = delete;

  // Adds a row to table (a name that lives as long as the writer) with a
  // value for each of its columns, in the schema's order; with once, a row
  // whose oid is already there is left alone. Rows are inserted a batch at
  // a time, in the order they were added. False after setting *error, here
  // or for an earlier row of the table.
  bool Add(const char* table, const std::vector<Value>& values,
           std::string* error, bool once = false);
  // Commits the rows, writes the file to the disk and gives it path's name;
  // false after setting *error.
  bool Commit(std::string* error);
  // The partial file the rows go to until Commit: a process that is
  // interrupted removes it.
  const std::string& PartialPath() const { return partial_; }

 private:
  KivStoreWriter(sqlite3* db, std::string path, std::string partial);
  sqlite3* db_;
  std::string path_;
  std::string partial_;  // the file being written
  std::string indexes_;  // the schema's CREATE INDEX statements
  // The rows of one table not yet inserted, with the statements that
  // insert one row and a whole batch.
  struct Batch {
    const char* table;
    bool once;
    std::size_t columns;
    std::vector<Value> values;  // rows times columns, texts owned
    std::size_t rows;
    sqlite3_stmt* one;
    sqlite3_stmt* many;
  };
  static constexpr std::size_t kBatchRows = 64;
  sqlite3_stmt* Prepare(const char* table, std::size_t columns,
                        std::size_t rows, bool once, std::string* error);
  // Inserts the rows of batch; false after setting *error.
  bool Flush(Batch& batch, std::string* error);
  std::vector<Batch> batches_;
};

// The columns of the store table named table, the oid first in a table of
// objects; empty for a name the schema does not have.
std::vector<std::string> KivTableColumns(const char* table);

// Serves the sessions that KivIAdmin::Init opens from db, an open connection
// of the caller's already in a transaction, instead of the store that
// KIV_ADMIN_STORE names: what the caller wrote and has not committed is
// read, so that a change can be checked before it is committed. db stays
// the caller's; null ends it. Not for a connection of another thread.
void KivServeConnection(sqlite3* db);

// Rolls back what a writer killed outright left beside the store at path (a
// hot journal, a WAL file) by opening the store for writing once, as any
// writer would on its first read. True when nothing was left or it was
// rolled back; false with *error set.
bool KivRecoverStore(const std::string& path, std::string* error);

// The triggers and views of the store that db serves, which its schema
// never defines ("trigger NAME", "view NAME"): a trigger would write rows of
// its own during a change, and a change would be committed with them.
std::vector<std::string> KivForeignSchema(sqlite3* db);
