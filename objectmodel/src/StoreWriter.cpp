#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "EmbeddedSql.h"
#include "Files.h"
#include "Hex.h"
#include "KivStoreWriter.h"
#include "StoreOpen.h"
#include "StoreTables.h"

KivStoreWriter::Value KivStoreWriter::Oid(std::string_view identifier) {
  Value value{Value::kOid, "", 0, {}};
  if (!identifier.empty()) identifier.remove_prefix(1);  // the "x"
  if (!vantrel::Unhex(identifier, &value.bytes)) value.bytes.clear();
  return value;
}

KivStoreWriter::KivStoreWriter(sqlite3* db, std::string path,
                               std::string partial)
    : db_(db), path_(std::move(path)), partial_(std::move(partial)) {}

std::unique_ptr<KivStoreWriter> KivStoreWriter::Create(const std::string& path,
                                                       std::string* error) {
  // The store is written as a file of its own beside path and takes path's
  // name only when it is whole: an existing file is never opened, and an
  // interrupted load never leaves a store that looks whole.
  struct stat st {};
  if (::lstat(path.c_str(), &st) == 0) {
    *error = "the file exists: a store is never written over";
    return nullptr;
  }
  // A store gets the mode of any file a tool creates, so that the accounts
  // the umask lets in can read it.
  std::string partial;
  if (const int failed =
          vantrel::MakePartialFile(path + ".partial-XXXXXX",
                                   vantrel::NewFileMode(), nullptr, &partial)) {
    *error = std::string("cannot create the file: ") + std::strerror(failed);
    return nullptr;
  }
  sqlite3* db = nullptr;
  const std::string name = partial[0] == '/' ? partial : "./" + partial;
  // The connection is used by one thread: no mutex of its own.
  int rc = sqlite3_open_v2(
      name.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  std::unique_ptr<KivStoreWriter> writer;
  try {
    writer.reset(new KivStoreWriter(db, path, partial));
  } catch (...) {
    sqlite3_close(db);
    std::remove(partial.c_str());
    throw;
  }
  // The tables now, their secondary indexes once the rows are in: an index
  // built from all its rows at once costs less than one grown row by row.
  // A partial file left by a process killed outright is not a store: from
  // its first write its format version is 0 until Commit, and the exporter
  // refuses it.
  std::string schema = kiv::kSchemaSql;
  const std::string version =
      "PRAGMA user_version = " + std::to_string(kiv::kFormatVersion);
  const std::size_t at = schema.find(version);
  if (at != std::string::npos)
    schema.replace(at, version.size(), "PRAGMA user_version = 0");
  const std::size_t indexes = schema.find("CREATE INDEX");
  writer->indexes_ = schema.substr(indexes);
  // No journal and no syncing while the file is partial: nothing but this
  // writer knows it, and a failure throws it away whole. A page cache that
  // holds the indexes while they grow.
  if (rc == SQLITE_OK)
    rc = sqlite3_exec(db,
                      "PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF; "
                      "PRAGMA cache_size = -65536",
                      nullptr, nullptr, nullptr);
  if (rc == SQLITE_OK)
    rc = sqlite3_exec(db, schema.substr(0, indexes).c_str(), nullptr, nullptr,
                      nullptr);
  if (rc == SQLITE_OK)
    rc = sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
  if (rc != SQLITE_OK) {
    *error = db ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
    return nullptr;  // the file is removed
  }
  return writer;
}

KivStoreWriter::~KivStoreWriter() {
  for (const Batch& batch : batches_) {
    sqlite3_finalize(batch.one);
    sqlite3_finalize(batch.many);
  }
  sqlite3_close(db_);
  std::remove(partial_.c_str());
}

sqlite3_stmt* KivStoreWriter::Prepare(const char* table, std::size_t columns,
                                      std::size_t rows, bool once,
                                      std::string* error) {
  // Columns by name: a row whose values do not match its table's columns
  // fails here, whatever the order of the columns in the file.
  const kiv::Table t = kiv::TableNamed(table);
  if (t == kiv::kTableCount) {
    *error = std::string("table ") + table + ": not a table of the schema";
    return nullptr;
  }
  std::string sql = std::string(once ? "INSERT OR IGNORE" : "INSERT") +
                    " INTO \"" + table + "\" (" + kiv::ColumnList(t) +
                    ") VALUES ";
  for (std::size_t r = 0; r < rows; ++r) {
    sql += r ? ", (" : "(";
    for (std::size_t i = 0; i < columns; ++i) sql += i ? ", ?" : "?";
    sql += ")";
  }
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
    *error = sqlite3_errmsg(db_);
    sqlite3_finalize(stmt);
    return nullptr;
  }
  return stmt;
}

bool KivStoreWriter::Add(const char* table, const std::vector<Value>& values,
                         std::string* error, bool once) {
  // One batch per table, made on its first row. Table names are the
  // caller's constants: their addresses tell the tables apart.
  Batch* batch = nullptr;
  for (Batch& b : batches_)
    if (b.table == table && b.once == once) batch = &b;
  if (!batch) {
    batches_.push_back({table, once, values.size(), {}, 0, nullptr, nullptr});
    batch = &batches_.back();
    batch->one = Prepare(table, values.size(), 1, once, error);
    if (!batch->one) return false;
  }
  // The row is kept, its texts copied, until the batch is full.
  for (const Value& v : values) {
    batch->values.push_back(v);
    Value& kept = batch->values.back();
    if (kept.type == Value::kText) {
      kept.bytes.assign(kept.text.data(), kept.text.size());
      kept.text = std::string_view();
    }
  }
  ++batch->rows;
  return batch->rows < kBatchRows || Flush(*batch, error);
}

bool KivStoreWriter::Flush(Batch& batch, std::string* error) {
  // Many rows in one statement: a statement run costs more than a row.
  if (batch.rows == kBatchRows && !batch.many) {
    batch.many =
        Prepare(batch.table, batch.columns, kBatchRows, batch.once, error);
    if (!batch.many) return false;
  }
  std::size_t next = 0;
  while (next < batch.rows) {
    const bool whole = batch.rows - next == kBatchRows;
    sqlite3_stmt* stmt = whole ? batch.many : batch.one;
    const std::size_t rows = whole ? kBatchRows : 1;
    for (std::size_t i = 0; i < rows * batch.columns; ++i) {
      const Value& v = batch.values[next * batch.columns + i];
      const int at = static_cast<int>(i + 1);
      const int size = static_cast<int>(v.bytes.size());
      if (v.type == Value::kText)
        sqlite3_bind_text(stmt, at, v.bytes.data(), size, SQLITE_STATIC);
      else if (v.type == Value::kOid)
        sqlite3_bind_blob(stmt, at, v.bytes.data(), size, SQLITE_STATIC);
      else if (v.type == Value::kInteger)
        sqlite3_bind_int64(stmt, at, v.number);
      else
        sqlite3_bind_null(stmt, at);
    }
    const int rc = sqlite3_step(stmt);
    sqlite3_reset(stmt);
    if (rc != SQLITE_DONE) {
      *error = std::string("table ") + batch.table + ": " + sqlite3_errmsg(db_);
      return false;
    }
    next += rows;
  }
  batch.values.clear();
  batch.rows = 0;
  return true;
}

bool KivStoreWriter::Commit(std::string* error) {
  for (Batch& batch : batches_)
    if (!Flush(batch, error)) return false;
  if (sqlite3_exec(db_, indexes_.c_str(), nullptr, nullptr, nullptr) !=
          SQLITE_OK ||
      sqlite3_exec(
          db_,
          ("PRAGMA user_version = " + std::to_string(kiv::kFormatVersion))
              .c_str(),
          nullptr, nullptr, nullptr) != SQLITE_OK ||
      sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) {
    *error = sqlite3_errmsg(db_);
    return false;
  }
  // On the disk first, then under its name; link, unlike rename, never
  // replaces a file that appeared there meanwhile.
  if (!vantrel::Sync(partial_) ||
      ::link(partial_.c_str(), path_.c_str()) != 0) {
    *error = errno == EEXIST ? "the file exists: a store is never written over"
                             : std::string("cannot write the file: ") +
                                   std::strerror(errno);
    return false;
  }
  vantrel::Sync(vantrel::DirectoryOf(path_));
  return true;
}

std::vector<std::string> KivTableColumns(const char* table) {
  const kiv::Table t = kiv::TableNamed(table);
  if (t == kiv::kTableCount) return {};
  const kiv::TableShape& shape = kiv::ShapeOf(t);
  std::vector<std::string> columns;
  if (shape.hasOid) columns.push_back("oid");
  columns.insert(columns.end(), shape.columns.begin(), shape.columns.end());
  return columns;
}
