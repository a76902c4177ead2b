#include "AdminStore.h"

#include <sqlite3.h>

#include <cstdlib>
#include <iostream>
#include <new>

#include "Escape.h"
#include "StoreObjects.h"
#include "StoreRows.h"

namespace kiv {

const char AdminStore::kOutOfMemory[] = "cannot allocate memory";

AdminStore::AdminStore(sqlite3* db, std::string path, bool owned)
    : db_(db), path_(std::move(path)), owned_(owned) {}

AdminStore::~AdminStore() {
  while (objects_) Free(objects_);
  for (auto& statement : statements_) sqlite3_finalize(statement.second);
  if (owned_) sqlite3_close(db_);  // ends the read transaction
}

sqlite3_stmt* AdminStore::Statement(const std::string& sql) {
  for (auto& statement : statements_)
    if (statement.first == sql) return statement.second;
  sqlite3_stmt* stmt = nullptr;
  const int rc = sqlite3_prepare_v3(db_, sql.c_str(), -1,
                                    SQLITE_PREPARE_PERSISTENT, &stmt, nullptr);
  if (rc != SQLITE_OK) {
    sqlite3_finalize(stmt);
    throw StoreError(Reason(db_, rc));
  }
  try {
    statements_.emplace_back(sql, stmt);
  } catch (...) {
    // A statement not kept would keep the connection from closing.
    sqlite3_finalize(stmt);
    throw;
  }
  return stmt;
}

bool AdminStore::Step(sqlite3_stmt* stmt) {
  const int rc = sqlite3_step(stmt);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  const std::string reason = Reason(db_, rc);
  sqlite3_reset(stmt);
  throw StoreError(reason);
}

StoreObjectBase* AdminStore::Adopt(StoreObjectBase* object) {
  object->next = objects_;
  if (objects_) objects_->prev = object;
  objects_ = object;
  ++live_;
  return object;
}

void AdminStore::Free(StoreObjectBase* object) {
  if (object->prev) object->prev->next = object->next;
  if (object->next) object->next->prev = object->prev;
  if (objects_ == object) objects_ = object->next;
  --live_;
  Pool& pool = pools_[object->TableOf()];
  void* block = dynamic_cast<void*>(object);  // the whole object's room
  object->~StoreObjectBase();
  pool.Give(block);
}

StoreObjectBase* AdminStore::Make(Table table, const OidEntry* entry) {
  if (!entry || failed_) return nullptr;
  try {
    return Adopt(NewObject(table, *this, pools_[table], *entry));
  } catch (const std::bad_alloc&) {
    Refused(kOutOfMemory);
    return nullptr;
  }
}

HRESULT AdminStore::Refused(std::string_view reason) {
  // Reported once: every later getter fails without a word.
  if (failed_) return E_FAIL;
  failed_ = true;
  std::cerr << "KivAdmin: cannot read the administration store \""
            << vantrel::Escaped(path_) << "\": " << reason << std::endl;
  return E_FAIL;
}

StoreObjectBase* AdminStore::FromRow(Table table, const Row& row) {
  StoreObjectBase* object =
      Adopt(NewObject(table, *this, pools_[table], row.Oid()));
  try {
    object->Fill(row);
  } catch (...) {
    Free(object);
    throw;
  }
  object->MarkLoaded();
  return object;
}

HRESULT AdminStore::AppendAll(LumListPtrIUnknown& list, HRESULT hr) {
  std::size_t i = 0;
  try {
    for (; hr >= 0 && i < made_.size(); ++i) list.Append(made_[i]->Interface());
  } catch (const std::bad_alloc&) {
    hr = Refused(kOutOfMemory);
  }
  // What a refusal leaves unappended is dropped; what the list took is the
  // caller's, freed when the session closes.
  for (; i < made_.size(); ++i) Free(made_[i]);
  made_.clear();
  return hr;
}

namespace {

template <class T>
StoreObjectBase* New(AdminStore& store, Pool& pool, const OidEntry& entry) {
  return new (pool.Take(sizeof(T))) T(store, entry);
}

}  // namespace

StoreObjectBase* NewObject(Table table, AdminStore& store, Pool& pool,
                           const OidEntry& entry) {
  switch (table) {
    case kHost:
      return New<Host>(store, pool, entry);
    case kDataServer:
      return New<DataServer>(store, pool, entry);
    case kVaultServer:
      return New<VaultServer>(store, pool, entry);
    case kProject:
      return New<Project>(store, pool, entry);
    case kDomain:
      return New<Domain>(store, pool, entry);
    case kBusinessDomain:
      return New<BusinessDomain>(store, pool, entry);
    case kDataDomain:
      return New<DataDomain>(store, pool, entry);
    case kExternSite:
      return New<ExternSite>(store, pool, entry);
    case kLocalSite:
      return New<LocalSite>(store, pool, entry);
    case kMedia:
      return New<Media>(store, pool, entry);
    case kPackageDefinition:
      return New<PackageDefinition>(store, pool, entry);
    case kSubscribingTarget:
      return New<SubscribingTarget>(store, pool, entry);
    case kSubscription:
      return New<Subscription>(store, pool, entry);
    case kCaptureStatus:
      return New<CaptureStatus>(store, pool, entry);
    case kApplyStatus:
      return New<ApplyStatus>(store, pool, entry);
    default:
      std::abort();  // link tables hold no objects
  }
}

}  // namespace kiv
