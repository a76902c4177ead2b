#include <sqlite3.h>
#include <sys/stat.h>

#include "Escape.h"
#include "KivStoreWriter.h"

bool KivRecoverStore(const std::string& path, std::string* error) {
  struct stat st {};
  bool left = false;
  for (const char* suffix : {"-journal", "-wal"})
    left =
        left || (::stat((path + suffix).c_str(), &st) == 0 && st.st_size > 0);
  if (!left) return true;
  sqlite3* db = nullptr;
  const std::string name = path[0] == '/' ? path : "./" + path;
  int rc = sqlite3_open_v2(
      name.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (rc == SQLITE_OK) {
    // A writer at work is waited for, a bounded time, like apply does.
    sqlite3_busy_timeout(db, 5000);
    // The first read of a connection that may write rolls the journal back.
    rc = sqlite3_exec(db, "SELECT count(*) FROM sqlite_master", nullptr,
                      nullptr, nullptr);
  }
  if (rc != SQLITE_OK)
    *error = vantrel::Escaped(db ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
  sqlite3_close(db);
  return rc == SQLITE_OK;
}

std::vector<std::string> KivForeignSchema(sqlite3* db) {
  std::vector<std::string> found;
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db,
                         "SELECT type, name FROM sqlite_master WHERE type IN "
                         "('trigger', 'view') ORDER BY type, name",
                         -1, &stmt, nullptr) != SQLITE_OK)
    return {"an unreadable schema: " + vantrel::Escaped(sqlite3_errmsg(db))};
  int rc;
  while ((rc = sqlite3_step(stmt)) == SQLITE_ROW)
    found.push_back(
        std::string(
            reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0))) +
        " " +
        vantrel::Escaped(
            reinterpret_cast<const char*>(sqlite3_column_text(stmt, 1)), 60));
  if (rc != SQLITE_DONE)
    found.push_back("an unreadable schema: " +
                    vantrel::Escaped(sqlite3_errmsg(db)));
  sqlite3_finalize(stmt);
  return found;
}
