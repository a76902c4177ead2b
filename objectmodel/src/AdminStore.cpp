#include "AdminStore.h"

#include <sqlite3.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <unordered_map>

namespace kiv {
namespace {

constexpr int kFormatVersion = 1;

// A reason the store cannot be served; becomes the message of Init.
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

std::string Hex(const std::string& bytes) {
  LumDbBinary oid(0);
  oid.Assign(bytes.data(), bytes.size());
  return std::string("x") + oid.GetHexaValue().ConvertToChar();
}

// Owns one SQLite connection.
class Connection {
 public:
  Connection() = default;
  ~Connection() { sqlite3_close(db_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  sqlite3*& Handle() { return db_; }
  std::string Error() const { return sqlite3_errmsg(db_); }

  // Runs statements that return no rows.
  void Exec(const char* sql) {
    if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK)
      throw StoreError(Error());
  }

 private:
  sqlite3* db_ = nullptr;
};

// The rows of one table in insertion order, through one statement.
class Rows {
 public:
  Rows(Connection& db, const char* table, const char* columns)
      : db_(db), table_(table) {
    const std::string sql =
        std::string("SELECT ") + columns + " FROM " + table + " ORDER BY rowid";
    if (sqlite3_prepare_v2(db.Handle(), sql.c_str(), -1, &stmt_, nullptr) !=
        SQLITE_OK)
      throw StoreError(std::string("table ") + table_ + ": " + db.Error());
  }
  ~Rows() { sqlite3_finalize(stmt_); }
  Rows(const Rows&) = delete;
  Rows& operator=(const Rows&) = delete;

  bool Next() {
    const int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    throw StoreError(std::string("table ") + table_ + ": " + db_.Error());
  }

  // A text column; NULL reads as empty.
  std::string Text(int col) {
    const auto* text = sqlite3_column_text(stmt_, col);
    return text ? reinterpret_cast<const char*>(text) : "";
  }
  int Int(int col) { return sqlite3_column_int(stmt_, col); }

  // The row's own oid: a non-empty BLOB.
  std::string Oid(int col) {
    std::string oid = Blob(col);
    if (oid.empty())
      throw StoreError(std::string("table ") + table_ +
                       ": an oid is not a non-empty BLOB");
    return oid;
  }

  // A reference column: the referenced oid, or empty for NULL.
  std::string Ref(int col) {
    if (sqlite3_column_type(stmt_, col) == SQLITE_NULL) return std::string();
    std::string oid = Blob(col);
    if (oid.empty())
      throw StoreError(std::string("table ") + table_ +
                       ": a reference is not a non-empty BLOB");
    return oid;
  }

  // The table's name: a text that outlives the loader.
  const char* Table() const { return table_; }

 private:
  std::string Blob(int col) {
    if (sqlite3_column_type(stmt_, col) != SQLITE_BLOB) return std::string();
    const void* data = sqlite3_column_blob(stmt_, col);
    const int size = sqlite3_column_bytes(stmt_, col);
    return data ? std::string(static_cast<const char*>(data),
                              static_cast<std::size_t>(size))
                : std::string();
  }

  Connection& db_;
  const char* table_;
  sqlite3_stmt* stmt_ = nullptr;
};

// Builds the objects of a store table by table, each table in one statement.
// Tables are read so that every reference points to a table already read.
class Loader {
 public:
  Loader(AdminStore& store, Connection& db) : s_(store), db_(db) {}

  void Run() {
    byOid_.reserve(CountObjects());
    for (Rows r(db_, "host", "oid, name, os_type, os_version"); r.Next();) {
      Host* h = Add(s_.hosts, r);
      h->name = r.Text(1);
      h->osType = r.Text(2);
      h->osVersion = r.Text(3);
    }
    for (Rows r(db_, "data_server",
                "oid, name, authentication, dbms, connection_string, host");
         r.Next();) {
      DataServer* d = Add(s_.dataServers, r);
      d->name = r.Text(1);
      d->authentication = r.Text(2);
      d->dbms = r.Text(3);
      d->connectionString = r.Text(4);
      d->host = Find<Host>(r, 5, "host");
    }
    for (Rows r(db_, "vault_server", "oid, name, alias_name"); r.Next();) {
      VaultServer* v = Add(s_.vaultServers, r);
      v->name = r.Text(1);
      v->aliasName = r.Text(2);
    }
    for (Rows r(db_, "project", "oid, name"); r.Next();)
      Add(s_.projects, r)->name = r.Text(1);
    for (Rows r(db_, "project_vault_server", "project, vault_server");
         r.Next();)
      Link(Find<Project>(r, 0, "project"), &Project::vaultServers,
           Find<VaultServer>(r, 1, "vault_server"));
    for (Rows r(db_, "project_data_server", "project, data_server"); r.Next();)
      Link(Find<Project>(r, 0, "project"), &Project::dataServers,
           Find<DataServer>(r, 1, "data_server"));
    for (Rows r(db_, "domain", "oid, name, visible"); r.Next();) {
      Domain* d = Add(s_.domains, r);
      d->name = r.Text(1);
      d->visible = r.Int(2);
    }
    for (Rows r(db_, "business_domain",
                "oid, domain, name, meta_data_name, editor, corvel_flag, "
                "data_modeler");
         r.Next();) {
      BusinessDomain* b = Add(s_.businessDomains, r);
      Link(Find<Domain>(r, 1, "domain"), &Domain::businessDomains, b);
      b->name = r.Text(2);
      b->metaDataName = r.Text(3);
      b->editor = r.Text(4);
      b->corvelFlag = r.Text(5);
      b->dataModeler = r.Text(6);
    }
    for (Rows r(db_, "data_domain",
                "oid, project, name, alias_name, owner_dico, driver, kind, "
                "business_domain, data_server");
         r.Next();) {
      DataDomain* d = Add(s_.dataDomains, r);
      Link(Find<Project>(r, 1, "project"), &Project::dataDomains, d);
      d->name = r.Text(2);
      d->aliasName = r.Text(3);
      d->ownerDico = r.Text(4);
      d->driver = r.Text(5);
      const std::string kind = r.Text(6);
      if (kind != "rdb" && kind != "file")
        throw StoreError("table data_domain: kind '" + kind +
                         "' is neither 'rdb' nor 'file'");
      d->rdb = kind == "rdb";
      d->businessDomain = Find<BusinessDomain>(r, 7, "business_domain");
      d->dataServer = Find<DataServer>(r, 8, "data_server");
    }
    for (Rows r(db_, "extern_site", "oid, name"); r.Next();)
      Add(s_.externSites, r)->name = r.Text(1);
    for (Rows r(db_, "local_site", "oid, name"); r.Next();) {
      if (!s_.localSites.empty())
        throw StoreError("table local_site: more than one local site");
      Add(s_.localSites, r)->name = r.Text(1);
    }
    for (Rows r(db_, "media", "oid, media_path"); r.Next();)
      Add(s_.medias, r)->mediaPath = r.Text(1);
    for (Rows r(db_, "package_definition", "oid, name"); r.Next();)
      Add(s_.packageDefinitions, r)->name = r.Text(1);
    for (Rows r(db_, "package_whole_data_domain",
                "package_definition, data_domain");
         r.Next();)
      Link(Find<PackageDefinition>(r, 0, "package_definition"),
           &PackageDefinition::wholeDataDomains,
           Find<DataDomain>(r, 1, "data_domain"));
    LoadSets(s_.subscribingTargets, "subscribing_target");
    LoadSets(s_.subscriptions, "subscription");
    LoadStatuses<SubscribingTarget>(s_.captureStatuses, "capture_status",
                                    "subscribing_target");
    LoadStatuses<Subscription>(s_.applyStatuses, "apply_status",
                               "subscription");
  }

 private:
  struct Entry {
    const char* table;
    void* object;  // the T* of the table's kind
  };

  // Builds the object of the row's oid, which must be new to the store.
  template <class T>
  T* Add(std::deque<T>& objects, Rows& r) {
    std::string oid = r.Oid(0);
    objects.emplace_back(oid);
    T* object = &objects.back();
    const auto added = byOid_.emplace(std::move(oid), Entry{r.Table(), object});
    if (!added.second)
      throw StoreError("oid " + Hex(added.first->first) + " is used by both " +
                       added.first->second.table + " and " + r.Table());
    return object;
  }

  // The object of kind T, read from table, that column col refers to; null
  // for a NULL reference.
  template <class T>
  T* Find(Rows& r, int col, const char* table) {
    const std::string oid = r.Ref(col);
    if (oid.empty()) return nullptr;
    const auto it = byOid_.find(oid);
    if (it == byOid_.end() || std::strcmp(it->second.table, table) != 0)
      throw StoreError(std::string("table ") + r.Table() + ": " + Hex(oid) +
                       " refers to no " + table + " row");
    return static_cast<T*>(it->second.object);
  }

  // The number of objects in the store, in one statement, so that the index
  // of oids is built without rehashing.
  std::size_t CountObjects() {
    std::string sql = "SELECT 0";
    for (const char* table :
         {"host", "data_server", "vault_server", "project", "domain",
          "business_domain", "data_domain", "extern_site", "local_site",
          "media", "package_definition", "subscribing_target", "subscription",
          "capture_status", "apply_status"})
      sql += std::string(" + (SELECT count(*) FROM ") + table + ")";
    sqlite3_stmt* stmt = nullptr;
    std::size_t count = 0;
    // A table that is missing is reported when it is read.
    if (sqlite3_prepare_v2(db_.Handle(), sql.c_str(), -1, &stmt, nullptr) ==
            SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW)
      count = static_cast<std::size_t>(sqlite3_column_int64(stmt, 0));
    sqlite3_finalize(stmt);
    return count;
  }

  // Adds item to the list of owner, when both exist.
  template <class Owner, class T>
  static void Link(Owner* owner, std::vector<T*> Owner::*list, T* item) {
    if (owner && item) (owner->*list).push_back(item);
  }

  template <class T>
  void LoadSets(std::deque<T>& sets, const char* table) {
    for (Rows r(db_, table,
                "oid, name, media, package_definition, extern_site");
         r.Next();) {
      T* set = Add(sets, r);
      set->name = r.Text(1);
      set->media = Find<Media>(r, 2, "media");
      set->packageDefinition =
          Find<PackageDefinition>(r, 3, "package_definition");
      set->externSite = Find<ExternSite>(r, 4, "extern_site");
    }
  }

  template <class Owner, class T>
  void LoadStatuses(std::deque<T>& statuses, const char* table,
                    const char* owner) {
    const std::string columns =
        std::string("oid, ") + owner + ", server, last_successful_date";
    for (Rows r(db_, table, columns.c_str()); r.Next();) {
      T* status = Add(statuses, r);
      status->server = Server(r, 2);
      status->lastSuccessfulDate = r.Text(3);
      Link(Find<Owner>(r, 1, owner), &Owner::statuses, status);
    }
  }

  // The server a status column refers to: a data server or a vault server.
  KivIObject* Server(Rows& r, int col) {
    const std::string oid = r.Ref(col);
    if (oid.empty()) return nullptr;
    const auto it = byOid_.find(oid);
    if (it != byOid_.end()) {
      if (std::strcmp(it->second.table, "data_server") == 0)
        return static_cast<DataServer*>(it->second.object);
      if (std::strcmp(it->second.table, "vault_server") == 0)
        return static_cast<VaultServer*>(it->second.object);
    }
    throw StoreError(std::string("table ") + r.Table() + ": " + Hex(oid) +
                     " refers to no data_server or vault_server row");
  }

  AdminStore& s_;
  Connection& db_;
  std::unordered_map<std::string, Entry> byOid_;
};

void OpenFile(Connection& db, const char* path) {
  // SQLite reports a missing file only as "unable to open": say why.
  if (!std::ifstream(path))
    throw StoreError(std::string("cannot read the file: ") +
                     std::strerror(errno));
  if (sqlite3_open_v2(path, &db.Handle(), SQLITE_OPEN_READONLY, nullptr) !=
      SQLITE_OK)
    throw StoreError(db.Error());
  // A writer holding its lock makes the reader wait instead of failing.
  sqlite3_busy_timeout(db.Handle(), 10000);
}

void OpenDemo(Connection& db) {
  if (sqlite3_open_v2(":memory:", &db.Handle(),
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                      nullptr) != SQLITE_OK)
    throw StoreError(db.Error());
  db.Exec(kSchemaSql);
  db.Exec(kDemoSql);
}

void CheckVersion(Connection& db) {
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db.Handle(), "PRAGMA user_version", -1, &stmt,
                         nullptr) != SQLITE_OK)
    throw StoreError(db.Error());
  const int rc = sqlite3_step(stmt);
  const int version = rc == SQLITE_ROW ? sqlite3_column_int(stmt, 0) : -1;
  sqlite3_finalize(stmt);
  if (rc != SQLITE_ROW) throw StoreError(db.Error());
  if (version != kFormatVersion)
    throw StoreError("store format version " + std::to_string(version) +
                     " is not the supported version " +
                     std::to_string(kFormatVersion));
}

}  // namespace

std::unique_ptr<AdminStore> AdminStore::Load(const char* path,
                                             std::string* error) {
  try {
    Connection db;
    if (path)
      OpenFile(db, path);
    else
      OpenDemo(db);
    auto store = std::make_unique<AdminStore>();
    // One read transaction: every table comes from the same snapshot.
    db.Exec("BEGIN");
    CheckVersion(db);
    Loader(*store, db).Run();
    db.Exec("COMMIT");
    return store;
  } catch (const StoreError& e) {
    *error = e.what();
    return nullptr;
  }
}

}  // namespace kiv
