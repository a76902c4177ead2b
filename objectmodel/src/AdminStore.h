// The administration store: a SQLite file read in one read transaction, and
// the objects made from its rows as the getters hand them out.
//
// Opening checks the whole store's shape at once: its tables and every oid
// (a non-empty BLOB, unique across the store). The other values, owners of
// child rows included, are checked as their rows are read; the first bad one
// is reported once and makes every later getter fail.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "KivAdmin.h"
#include "LargeAllocator.h"

struct sqlite3;
struct sqlite3_stmt;

namespace kiv {

// The tables a store is read from; the object tables come first.
enum Table : std::uint8_t {
  kHost,
  kDataServer,
  kVaultServer,
  kProject,
  kDomain,
  kBusinessDomain,
  kDataDomain,
  kExternSite,
  kLocalSite,
  kMedia,
  kPackageDefinition,
  kSubscribingTarget,
  kSubscription,
  kCaptureStatus,
  kApplyStatus,
  kProjectVaultServer,
  kProjectDataServer,
  kPackageWholeDataDomain,
  kTableCount
};
constexpr int kObjectTables = kApplyStatus + 1;

// One row of an object table in its index of oids. An oid of up to 8 bytes
// is held in the entry itself, a longer one in the index's arena.
struct OidEntry {
  char head[8];          // the first 8 bytes, zero-padded
  std::uint32_t offset;  // where a longer oid starts in the arena
  std::uint32_t size;
  std::int64_t rowid;
  // The first 8 bytes as a big-endian number: prefixes order as the bytes.
  std::uint64_t Prefix() const { return Key(head); }
  // The 8 bytes at bytes as a big-endian number.
  static std::uint64_t Key(const char* bytes) {
    std::uint64_t key;
    std::memcpy(&key, bytes, 8);
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    key = __builtin_bswap64(key);
#endif
    return key;
  }
};

// The oids of one table, sorted as SQLite sorts BLOBs (memcmp, then length).
class OidIndex {
 public:
  void Reserve(std::size_t count) {
    entries_.reserve(count);
    samples_.reserve(count / kSampleEvery + 1);
  }
  // Adds an oid; entries must come in sorted order.
  void Add(std::string_view oid, std::int64_t rowid);
  // The entry of oid, or null. Searches near the last hit first, so that
  // references in the order of their rows cost little search.
  const OidEntry* Find(std::string_view oid) const;
  std::string_view Bytes(const OidEntry& e) const {
    return std::string_view(e.size <= 8 ? e.head : arena_.data() + e.offset,
                            e.size);
  }
  const LargeVector<OidEntry>& Entries() const { return entries_; }
  // True when the rows are stored in the order of their oids, so that a
  // statement ordered by oid meets them in row order too.
  bool InRowOrder() const { return inRowOrder_; }
  // Orders a against b as SQLite orders BLOBs.
  int Compare(const OidEntry& a, std::string_view b) const;

 private:
  // The prefix of every kSampleEvery-th entry, from the first.
  static constexpr std::size_t kSampleEvery = 64;
  LargeVector<OidEntry> entries_;
  std::vector<std::uint64_t> samples_;
  std::string arena_;
  bool inRowOrder_ = true;
  mutable std::size_t last_ = 0;
};

// A bad value; the message names the table, the row and the column.
class StoreError {
 public:
  explicit StoreError(std::string message) : message_(std::move(message)) {}
  const std::string& Message() const { return message_; }

 private:
  std::string message_;
};

class AdminStore;

// One row of a statement, with its values checked against the format as
// they are read. Every accessor throws StoreError on a bad value.
class Row {
 public:
  Row(AdminStore& store, sqlite3_stmt* stmt, Table table)
      : store_(store), stmt_(stmt), table_(table) {}
  std::int64_t Rowid() const;
  // The row's own entry in its table's index of oids.
  const OidEntry& Oid() const;
  // A column of the table's own (0 for the first after the oid): NULL reads
  // as empty; anything else but a text without NUL is refused.
  std::string_view Text(int column) const;
  // The integer 0 or 1.
  int Flag(int column) const;
  // A reference to a row of table, or of alternative when it is not
  // kTableCount: its index entry, or null for NULL when optional.
  const OidEntry* Ref(int column, Table table, bool mandatory,
                      Table alternative = kTableCount) const;
  // The table of the object that Ref last found.
  Table RefTable() const { return refTable_; }
  // Throws the refusal of column, saying what is wrong.
  [[noreturn]] void Refuse(int column, const std::string& what) const;

 private:
  int Index(int column) const;
  AdminStore& store_;
  sqlite3_stmt* stmt_;
  Table table_;
  mutable Table refTable_ = kTableCount;
};

// Up to N texts of one object, each ended by a NUL (store texts never hold
// one), in the object itself when they are short, else in one allocation.
template <int N>
class Texts {
 public:
  void Assign(std::initializer_list<std::string_view> texts) {
    std::size_t total = 0;
    for (std::string_view text : texts) total += text.size() + 1;
    if (total > sizeof inline_) heap_.reset(new char[total]);
    char* const base = heap_ ? heap_.get() : inline_;
    char* at = base;
    int i = 0;
    for (std::string_view text : texts) {
      start_[i++] = static_cast<std::uint32_t>(at - base);
      if (!text.empty()) std::memcpy(at, text.data(), text.size());
      at += text.size();
      *at++ = '\0';
    }
    assigned_ = true;
  }
  // Text i, or the empty text before Assign.
  const char* operator[](int i) const {
    if (!assigned_) return "";
    return (heap_ ? heap_.get() : inline_) + start_[i];
  }

 private:
  std::uint32_t start_[N] = {};
  bool assigned_ = false;
  char inline_[8 * N + 16];
  std::unique_ptr<char[]> heap_;
};

// Room for the objects of one kind: blocks of one size, taken from large
// chunks and reused once given back, all freed with the pool.
class Pool {
 public:
  Pool() = default;
  ~Pool();
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;
  // A block of size bytes, the same size on every call.
  void* Take(std::size_t size);
  // Gives back a block that Take handed out.
  void Give(void* block);

 private:
  struct Chunk {
    char* bytes;
    std::size_t size;
  };
  std::vector<Chunk> chunks_;
  std::size_t size_ = 0;  // of a block
  std::size_t left_ = 0;  // blocks not yet taken from the last chunk
  void* free_ = nullptr;  // blocks given back, each holding the next
};

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
  // identifier alone; null for a null entry.
  StoreObjectBase* Make(Table table, const OidEntry* entry);

  // Reads the row of object into it. False after reporting a bad row.
  bool Load(StoreObjectBase& object);
  // Destroys an object whose last reference was given back.
  void Free(StoreObjectBase* object);

  const OidIndex& Index(Table table) const { return indexes_[table]; }
  // The oid of a row as refusals name it, " (oid xHEX)", or nothing.
  std::string RowOid(Table table, std::int64_t rowid);
  // Objects made and not yet freed.
  std::size_t Live() const { return live_; }
  // True once a bad row was reported.
  bool Failed() const { return failed_; }

  // How long a reader waits for a writer's lock before giving up.
  static int busyTimeoutMs;

 private:
  struct Cursor;
  struct Links;
  AdminStore(sqlite3* db, std::string path);

  sqlite3_stmt* Statement(const std::string& sql);
  // Steps stmt; false at its end. A step error is a refusal, never an end.
  bool Step(sqlite3_stmt* stmt);
  void CheckTables();
  void IndexOids(Table table);
  void CheckUnique();
  void CountRows();
  // Makes the objects of the rows of child that owner owns, in row order.
  void ReadChildren(Table child, const StoreObjectBase& owner);
  // The rows of link table link, grouped by owner; read at the first ask.
  const Links& LinksOf(Table link, Table target);
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
  OidIndex indexes_[kObjectTables];
  std::unique_ptr<Cursor> cursors_[kTableCount];
  std::unique_ptr<Links> links_[kTableCount];
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

// path as a message shows it, with control bytes and quotes as \xNN.
std::string EscapedPath(const char* path);

// The schema and the demonstration administration, as SQL.
extern const char* const kSchemaSql;
extern const char* const kDemoSql;

}  // namespace kiv
