// The administration store: a SQLite file read in one read transaction, and
// the objects made from its rows as the getters hand them out. This is the
// facade; its parts live in units of their own:
//   StoreTables   the tables and their columns
//   OidIndex      the oids of each table, which answer every reference
//   Pool          room for the objects of one kind
//   StoreMessages refusals, and how they quote store values
//   StoreOpen     opening a store and the checks of its shape and oids
//   StoreRows     rows, their value checks, child streams and link tables
//
// Opening checks the whole store's shape at once: its tables and every oid
// (a non-empty BLOB, unique across the store). The other values, owners of
// child rows included, are checked as their rows are read; the first bad one
// is reported once and makes every later getter fail.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "KivAdmin.h"
#include "OidIndex.h"
#include "Pool.h"
#include "StoreMessages.h"
#include "StoreTables.h"

struct sqlite3;
struct sqlite3_stmt;

namespace kiv {

class AdminStore;
class Row;
struct ChildCursor;
struct LinkGroups;

// What every store object shares: its row, its count of references, and its
// place among the live objects of the store, which frees what is still held
// when the session closes.
class StoreObjectBase {
 public:
  StoreObjectBase(AdminStore& store, const OidEntry& entry, Table table)
      : store_(store), entry_(entry), table_(table) {}
  virtual ~StoreObjectBase() = default;
  StoreObjectBase(const StoreObjectBase&) = delete;
  StoreObjectBase& operator=(const StoreObjectBase&) = delete;

  std::int64_t Rowid() const { return entry_.rowid; }
  // The object's entry in the index of oids of its table.
  const OidEntry& Entry() const { return entry_; }
  std::string_view OidBytes() const;
  // Reads the object's values (the columns after its oid) from row.
  virtual void Fill(const Row& row) = 0;
  // This object as the interface of its kind.
  virtual void* Interface() = 0;
  Table TableOf() const { return table_; }
  bool Loaded() const { return loaded_; }
  void MarkLoaded() { loaded_ = true; }

  StoreObjectBase* prev = nullptr;
  StoreObjectBase* next = nullptr;

 protected:
  // Reads the object's row on first use: an object made from a reference
  // starts with its identifier alone. False when the row cannot be read.
  bool Load();
  ULONG ReleaseRef();

  AdminStore& store_;
  ULONG refs_ = 1;

 private:
  const OidEntry& entry_;
  Table table_;
  bool loaded_ = false;
};

// The IUnknown and KivIObject parts of an object of interface I kept in
// table T. A new object carries the one reference of its caller.
template <class I, Table T>
class StoreObject : public I, public StoreObjectBase {
 public:
  static constexpr Table kTable = T;
  StoreObject(AdminStore& store, const OidEntry& entry)
      : StoreObjectBase(store, entry, T) {}

  HRESULT QueryInterface(const IID& riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    if (riid == I::kIid) {
      *ppv = static_cast<I*>(this);
    } else if (riid == KivIObject::kIid) {
      *ppv = static_cast<KivIObject*>(this);
    } else if (riid == IUnknown::kIid) {
      *ppv = static_cast<IUnknown*>(this);
    } else {
      *ppv = nullptr;
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  }
  ULONG AddRef() override { return ++refs_; }
  ULONG Release() override { return ReleaseRef(); }
  int SupportsInterface(const char* name) override {
    const std::string n = name ? name : "";
    return n == I::kName || n == "KivIObject" || n == "IUnknown";
  }
  HRESULT GetOid(LumDbBinary& oid) override {
    oid.Assign(OidBytes().data(), OidBytes().size());
    return S_OK;
  }
  void* Interface() override { return static_cast<I*>(this); }
};

// The administration store and the objects of its session.
class AdminStore {
 public:
  // Opens the store at path (the built-in demonstration for null) read-only
  // and begins its one read transaction, after checking the file, the format
  // version, the tables, the oids and the owner of every child row. On
  // failure returns null and sets *error to the reason.
  static std::unique_ptr<AdminStore> Open(const char* path, std::string* error);
  // Serves the store of db, a connection of the caller's already in a
  // transaction (what it wrote and has not committed is read), after the
  // same checks; db stays the caller's. On failure returns null and sets
  // *error to the reason.
  static std::unique_ptr<AdminStore> Borrow(sqlite3* db, std::string* error);
  ~AdminStore();  // frees the objects still held
  AdminStore(const AdminStore&) = delete;
  AdminStore& operator=(const AdminStore&) = delete;

  // Appends an object for every row of table, in row order, each as its
  // interface with one reference. On a bad row appends nothing and returns
  // E_FAIL after reporting it; so do all getters after that.
  HRESULT List(Table table, LumListPtrIUnknown& list);
  // Appends the objects of table child that owner owns, in row order.
  HRESULT Children(Table child, const StoreObjectBase& owner,
                   LumListPtrIUnknown& list);
  // Appends the objects of table target that the rows of table link name for
  // owner, in row order. The link table is read whole at its first ask.
  HRESULT Linked(Table link, Table target, const StoreObjectBase& owner,
                 LumListPtrIUnknown& list);
  // Sets out to the local site, or to null when the store has none.
  HRESULT LocalSite(KivILocalSite*& out);
  // A new object for the row of entry in table, with one reference and its
  // identifier alone; null for a null entry, and after a refusal (memory
  // running out among them, which it reports).
  StoreObjectBase* Make(Table table, const OidEntry* entry);

  // Reads the row of object into it. False after reporting a bad row.
  bool Load(StoreObjectBase& object);
  // Destroys an object whose last reference was given back.
  void Free(StoreObjectBase* object);

  const OidIndex& Index(Table table) const { return indexes_[table]; }
  // Objects made and not yet freed.
  std::size_t Live() const { return live_; }
  // True once a bad row was reported.
  bool Failed() const { return failed_; }

  // How long a reader waits for a writer's lock before giving up, in whole
  // seconds.
  static constexpr int kBusyTimeoutMs = 5000;
  static_assert(kBusyTimeoutMs % 1000 == 0, "messages tell it in seconds");
  // The reason given when memory runs out.
  static const char kOutOfMemory[];

 private:
  AdminStore(sqlite3* db, std::string path, bool owned = true);
  // The checks of a store before its first getter, in its transaction.
  void Check();

  sqlite3_stmt* Statement(const std::string& sql);
  // Steps stmt; false at its end. A step error is a refusal, never an end.
  bool Step(sqlite3_stmt* stmt);
  void CheckTables();
  void IndexOids(Table table);
  void CheckUnique();
  void CountRows();
  // Reads every row of object table table, checking each value as a getter
  // would: the rows of the lists whose getters' failures the exporter passes
  // over are checked before the document's first element.
  void CheckRows(Table table);
  // Makes the objects of the rows of child that owner owns, in row order.
  void ReadChildren(Table child, const StoreObjectBase& owner);
  // The rows of link table link, grouped by owner; read at the first ask.
  const LinkGroups& LinksOf(Table link, Table target);
  // Reports reason once, and fails every later getter; returns E_FAIL.
  HRESULT Refused(std::string_view reason);
  // Runs read; on a refusal reports it once and fails every later getter.
  template <class Read>
  HRESULT Guarded(Read&& read);
  // Makes the object of a row, fills it and links it among the live ones.
  StoreObjectBase* FromRow(Table table, const Row& row);
  StoreObjectBase* Adopt(StoreObjectBase* object);
  // Appends the objects a getter made to list as their interfaces; drops
  // them on a refusal.
  HRESULT AppendAll(LumListPtrIUnknown& list, HRESULT hr);

  sqlite3* db_;
  std::string path_;
  bool owned_;  // the connection is closed with the store
  OidIndex indexes_[kObjectTables];
  std::unique_ptr<ChildCursor> cursors_[kTableCount];
  std::unique_ptr<LinkGroups> links_[kTableCount];
  std::vector<std::pair<std::string, sqlite3_stmt*>> statements_;
  Pool pools_[kObjectTables];
  // The objects the running getter has made; kept between getters so that
  // its room is reused.
  std::vector<StoreObjectBase*> made_;
  StoreObjectBase* objects_ = nullptr;  // the live objects, newest first
  std::size_t live_ = 0;
  bool failed_ = false;
};

inline bool StoreObjectBase::Load() { return loaded_ || store_.Load(*this); }

inline std::string_view StoreObjectBase::OidBytes() const {
  return store_.Index(table_).Bytes(entry_);
}

inline ULONG StoreObjectBase::ReleaseRef() {
  if (refs_ == 0) return 0;
  if (--refs_ > 0) return refs_;
  store_.Free(this);  // destroys this object
  return 0;
}

// Makes a new object of the kind kept in table for the row of entry, with
// its identifier alone, in room taken from pool.
StoreObjectBase* NewObject(Table table, AdminStore& store, Pool& pool,
                           const OidEntry& entry);

// The store of the open session, or null.
AdminStore* CurrentStore();

}  // namespace kiv
