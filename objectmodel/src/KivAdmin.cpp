#include "KivAdmin.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "AdminStore.h"
#include "Escape.h"
#include "KivStoreWriter.h"
#include "SdaiSession.h"
#include "StoreObjects.h"

namespace kiv {
namespace {

// The session of a store, which owns its objects.
class StoreSession final : public SdaiSession {
 public:
  explicit StoreSession(std::unique_ptr<AdminStore> store)
      : store_(std::move(store)) {}
  AdminStore* Store() const { return store_.get(); }

 private:
  std::unique_ptr<AdminStore> store_;
};

// The connection a caller serves the next sessions from, or null.
sqlite3*& Served() {
  static sqlite3* served = nullptr;
  return served;
}

std::unique_ptr<StoreSession>& Current() {
  static std::unique_ptr<StoreSession> current;
  return current;
}

// The administration root of the process. It lives as long as the process:
// its count only tracks the references handed out.
class Admin final : public KivIAdmin {
 public:
  HRESULT QueryInterface(const IID& riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    if (!(riid == KivIAdmin::kIid) && !(riid == IUnknown::kIid)) {
      *ppv = nullptr;
      return E_NOINTERFACE;
    }
    *ppv = static_cast<KivIAdmin*>(this);
    AddRef();
    return S_OK;
  }
  ULONG AddRef() override { return ++refs_; }
  ULONG Release() override { return refs_ > 0 ? --refs_ : 0; }

  HRESULT Init(LumUnicodeString&, LumUnicodeString&, int) override {
    // Objects of an open session may still be in use: they are not freed
    // under their holders' feet.
    if (Current()) {
      std::cerr << "KivAdmin: Init: a session is already open" << std::endl;
      return E_FAIL;
    }
    if (sqlite3* db = Served()) {
      std::string error;
      std::unique_ptr<AdminStore> store = AdminStore::Borrow(db, &error);
      if (!store) {
        std::cerr << "KivAdmin: cannot open the administration store \""
                  << vantrel::Escaped(sqlite3_db_filename(db, "main")
                                          ? sqlite3_db_filename(db, "main")
                                          : "")
                  << "\": " << error << std::endl;
        return E_FAIL;
      }
      store_ = store.get();
      Current() = std::make_unique<StoreSession>(std::move(store));
      return S_OK;
    }
    const char* path = std::getenv("KIV_ADMIN_STORE");
    if (!path)
      std::cerr << "KivAdmin: KIV_ADMIN_STORE is not set: serving the "
                   "built-in demonstration administration"
                << std::endl;
    std::string error;
    std::unique_ptr<AdminStore> store = AdminStore::Open(path, &error);
    if (!store) {
      std::cerr << "KivAdmin: cannot open the administration store \""
                << (path ? vantrel::Escaped(path) : "<demonstration>")
                << "\": " << error << std::endl;
      return E_FAIL;
    }
    store_ = store.get();
    Current() = std::make_unique<StoreSession>(std::move(store));
    return S_OK;
  }

  // Fails, too, when a bad row was reported: no export reads on past it.
  HRESULT End() override {
    if (!store_) return E_FAIL;
    const bool failed = store_->Failed();
    store_ = nullptr;
    return failed ? E_FAIL : S_OK;
  }

  HRESULT GetProjects(LumListPtrIUnknown& l) override {
    return store_ ? store_->List(kProject, l) : E_FAIL;
  }
  HRESULT GetDomains(LumListPtrIUnknown& l) override {
    return store_ ? store_->List(kDomain, l) : E_FAIL;
  }
  HRESULT GetHosts(LumListPtrIUnknown& l) override {
    return store_ ? store_->List(kHost, l) : E_FAIL;
  }
  HRESULT GetDataServers(LumListPtrIUnknown& l) override {
    return store_ ? store_->List(kDataServer, l) : E_FAIL;
  }
  HRESULT GetVaultServers(LumListPtrIUnknown& l) override {
    return store_ ? store_->List(kVaultServer, l) : E_FAIL;
  }
  HRESULT GetSubscribingTargets(LumListPtrIUnknown& l) override {
    return store_ ? store_->List(kSubscribingTarget, l) : E_FAIL;
  }
  HRESULT GetSubscriptions(LumListPtrIUnknown& l) override {
    return store_ ? store_->List(kSubscription, l) : E_FAIL;
  }
  HRESULT GetLocalSite(KivILocalSite*& site) override {
    site = nullptr;
    return store_ ? store_->LocalSite(site) : E_FAIL;
  }
  HRESULT GetExternSites(LumListPtrIUnknown& l) override {
    return store_ ? store_->List(kExternSite, l) : E_FAIL;
  }
  HRESULT GetPackageDefinitions(LumListPtrIUnknown& l) override {
    return store_ ? store_->List(kPackageDefinition, l) : E_FAIL;
  }

  // Forgets the store of a session being closed.
  void Forget(AdminStore* store) {
    if (store_ == store) store_ = nullptr;
  }

 private:
  ULONG refs_ = 0;
  AdminStore* store_ = nullptr;  // owned by the current session
};

Admin& TheAdmin() {
  static Admin admin;
  return admin;
}

}  // namespace

AdminStore* CurrentStore() { return Current() ? Current()->Store() : nullptr; }

}  // namespace kiv

HRESULT GetKivIAdmin(KivIAdmin*& admin) {
  admin = &kiv::TheAdmin();
  admin->AddRef();
  return S_OK;
}

namespace {

// path with its directory resolved (links, "." and ".."), its last name as
// it is; empty when the directory cannot be resolved.
std::string Resolved(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string directory =
      slash == std::string::npos ? "."
                                 : (slash == 0 ? "/" : path.substr(0, slash));
  char* real = ::realpath(directory.c_str(), nullptr);
  if (!real) return std::string();
  std::string resolved =
      std::string(real) + "/" +
      (slash == std::string::npos ? path : path.substr(slash + 1));
  std::free(real);
  return resolved;
}

}  // namespace

int KivAdminStoreIs(const char* path) {
  const char* store = std::getenv("KIV_ADMIN_STORE");
  if (!store || !path) return 0;
  struct stat a {
  }, b{};
  if (::stat(store, &a) == 0 && ::stat(path, &b) == 0 && a.st_dev == b.st_dev &&
      a.st_ino == b.st_ino)
    return 1;
  // SQLite names the files beside the store after the store's name, or
  // after the file a link names.
  const std::string target = Resolved(path);
  if (target.empty()) return 0;
  std::vector<std::string> names = {Resolved(store)};
  if (char* real = ::realpath(store, nullptr)) {
    names.emplace_back(real);
    std::free(real);
  }
  for (const std::string& name : names)
    for (const char* suffix : {"-journal", "-wal", "-shm"})
      if (!name.empty() && target == name + suffix) return 2;
  return 0;
}

void KivServeConnection(sqlite3* db) { kiv::Served() = db; }

SdaiSession* SdaiSession::CurrentSession() { return kiv::Current().get(); }

void SdaiSession::CloseSession() {
  kiv::StoreSession* current = kiv::Current().get();
  if (current != this) return;
  kiv::TheAdmin().Forget(current->Store());
  kiv::Current().reset();  // destroys this session
}
