#include "StoreMessages.h"

#include <sqlite3.h>

#include <cstdio>

#include "AdminStore.h"
#include "Escape.h"
#include "Hex.h"

namespace kiv {
namespace {

constexpr std::size_t kShownMax = 60;  // longest store text a message quotes

}  // namespace

std::string ShownBlob(std::string_view bytes) {
  // Two digits a byte: the same length as the longest text shown.
  if (bytes.size() > kShownMax / 2)
    return "x" + vantrel::Hex(bytes.substr(0, kShownMax / 2)) + "...";
  return "x" + vantrel::Hex(bytes);
}

std::string ShownText(std::string_view text) {
  return "'" + vantrel::Escaped(text, kShownMax) + "'";
}

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
    case SQLITE_TEXT: {
      const auto* text =
          reinterpret_cast<const char*>(sqlite3_column_text(stmt, col));
      return ShownText(std::string_view(
          text ? text : "",
          static_cast<std::size_t>(sqlite3_column_bytes(stmt, col))));
    }
    default: {
      const void* blob = sqlite3_column_blob(stmt, col);
      const int size = sqlite3_column_bytes(stmt, col);
      if (size == 0 || !blob) return "an empty BLOB";
      return ShownBlob(std::string_view(static_cast<const char*>(blob),
                                        static_cast<std::size_t>(size)));
    }
  }
}

std::string Reason(sqlite3* db, int rc) {
  switch (rc & 0xFF) {
    case SQLITE_BUSY:
      return "the store is locked by a process writing to it; gave up after "
             "waiting " +
             std::to_string(AdminStore::kBusyTimeoutMs / 1000) + " s" +
             ": retry once the writer has finished";
    case SQLITE_NOTADB:
      return "the file is not a SQLite database: name a store made from the "
             "schema";
    case SQLITE_READONLY:
      return "an unfinished write left a journal or WAL file beside the "
             "store, which only a process allowed to write the store and its "
             "directory can recover: run vantrel-doc export STORE FILE once "
             "as such a user (it rolls the unfinished write back), then retry";
    case SQLITE_NOMEM:
      return "out of memory";
    default:
      return vantrel::Escaped(db ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
  }
}

}  // namespace kiv
