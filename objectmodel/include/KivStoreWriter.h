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

  // Creates the store file at path, which must not exist: a file is never
  // written over. On failure returns null and sets *error.
  static std::unique_ptr<KivStoreWriter> Create(const std::string& path,
                                                std::string* error);
  // Removes the file unless Commit succeeded.
  ~KivStoreWriter();
  KivStoreWriter(const KivStoreWriter&) = delete;
  KivStoreWriter& operator=(const KivStoreWriter&) = delete;

  // Adds a row to table (a name that lives as long as the writer) with a
  // value for each of its columns, in the schema's order; with once, a row
  // whose oid is already there is left alone. False after setting *error.
  bool Add(const char* table, const std::vector<Value>& values,
           std::string* error, bool once = false);
  // Commits the rows; false after setting *error.
  bool Commit(std::string* error);

 private:
  KivStoreWriter(sqlite3* db, std::string path);
  sqlite3* db_;
  std::string path_;
  std::string indexes_;  // the schema's CREATE INDEX statements
  struct Statement {
    const char* table;
    bool once;
    sqlite3_stmt* stmt;
  };
  std::vector<Statement> statements_;
  bool committed_ = false;
};

// text as a message quotes it: control bytes, quotes and backslashes as
// \xNN.
std::string KivEscaped(std::string_view text);
