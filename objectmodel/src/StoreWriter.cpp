#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "AdminStore.h"
#include "KivStoreWriter.h"

KivStoreWriter::Value KivStoreWriter::Oid(std::string_view identifier) {
  const auto digit = [](char c) {
    return c <= '9' ? c - '0' : (c & ~0x20) - 'A' + 10;
  };
  Value value{Value::kOid, "", 0, {}};
  for (std::size_t i = 1; i + 1 < identifier.size(); i += 2)
    value.bytes +=
        static_cast<char>(digit(identifier[i]) * 16 + digit(identifier[i + 1]));
  return value;
}

KivStoreWriter::KivStoreWriter(sqlite3* db, std::string path)
    : db_(db), path_(std::move(path)) {}

std::unique_ptr<KivStoreWriter> KivStoreWriter::Create(const std::string& path,
                                                       std::string* error) {
  // Made here, exclusively: an existing file is never opened for writing.
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
  if (fd < 0) {
    *error = errno == EEXIST ? "the file exists: a store is never written over"
                             : std::string("cannot create the file: ") +
                                   std::strerror(errno);
    return nullptr;
  }
  ::close(fd);
  sqlite3* db = nullptr;
  const std::string name = path[0] == '/' ? path : "./" + path;
  int rc = sqlite3_open_v2(name.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
  std::unique_ptr<KivStoreWriter> writer(new KivStoreWriter(db, path));
  // The tables now, their secondary indexes once the rows are in: an index
  // built from all its rows at once costs less than one grown row by row.
  const std::string schema = kiv::kSchemaSql;
  const std::size_t indexes = schema.find("CREATE INDEX");
  writer->indexes_ = schema.substr(indexes);
  if (rc == SQLITE_OK)
    rc = sqlite3_exec(db, schema.substr(0, indexes).c_str(), nullptr, nullptr,
                      nullptr);
  // One transaction on a file of its own: a page cache that holds the
  // indexes while they grow.
  if (rc == SQLITE_OK)
    rc = sqlite3_exec(db, "PRAGMA cache_size = -65536; BEGIN", nullptr, nullptr,
                      nullptr);
  if (rc != SQLITE_OK) {
    *error = db ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
    return nullptr;  // the file is removed
  }
  return writer;
}

KivStoreWriter::~KivStoreWriter() {
  for (const Statement& statement : statements_)
    sqlite3_finalize(statement.stmt);
  sqlite3_close(db_);
  if (!committed_) std::remove(path_.c_str());
}

bool KivStoreWriter::Add(const char* table, const std::vector<Value>& values,
                         std::string* error, bool once) {
  // One statement per table, made on its first row. Table names are the
  // caller's constants: their addresses tell the tables apart.
  sqlite3_stmt* stmt = nullptr;
  for (const Statement& statement : statements_)
    if (statement.table == table && statement.once == once)
      stmt = statement.stmt;
  if (!stmt) {
    std::string sql = std::string(once ? "INSERT OR IGNORE" : "INSERT") +
                      " INTO \"" + table + "\" VALUES (";
    for (std::size_t i = 0; i < values.size(); ++i) sql += i ? ", ?" : "?";
    sql += ")";
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
      *error = sqlite3_errmsg(db_);
      return false;
    }
    statements_.push_back({table, once, stmt});
  }
  for (std::size_t i = 0; i < values.size(); ++i) {
    const Value& v = values[i];
    const int at = static_cast<int>(i + 1);
    if (v.type == Value::kText)
      sqlite3_bind_text(stmt, at, v.text.data(),
                        static_cast<int>(v.text.size()), SQLITE_STATIC);
    else if (v.type == Value::kOid)
      sqlite3_bind_blob(stmt, at, v.bytes.data(),
                        static_cast<int>(v.bytes.size()), SQLITE_STATIC);
    else if (v.type == Value::kInteger)
      sqlite3_bind_int64(stmt, at, v.number);
    else
      sqlite3_bind_null(stmt, at);
  }
  const int rc = sqlite3_step(stmt);
  sqlite3_reset(stmt);
  if (rc == SQLITE_DONE) return true;
  *error = std::string("table ") + table + ": " + sqlite3_errmsg(db_);
  return false;
}

bool KivStoreWriter::Commit(std::string* error) {
  if (sqlite3_exec(db_, indexes_.c_str(), nullptr, nullptr, nullptr) !=
          SQLITE_OK ||
      sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) {
    *error = sqlite3_errmsg(db_);
    return false;
  }
  committed_ = true;
  return true;
}

std::string KivEscaped(std::string_view text) {
  const std::string copy(text);
  return kiv::EscapedPath(copy.c_str());
}
