#include "KivAdmin.h"

#include <cstdlib>
#include <iostream>

#include "AdminStore.h"
#include "SdaiSession.h"

namespace kiv {
namespace {

// Appends every object of a store kind to list as interface I.
template <class I, class T>
HRESULT AppendKind(LumListPtrIUnknown& list, std::deque<T>& objects) {
  for (T& object : objects) AppendRef<I>(list, &object);
  return S_OK;
}

// The session of a store, which owns its objects.
class StoreSession final : public SdaiSession {
 public:
  explicit StoreSession(std::unique_ptr<AdminStore> store)
      : store_(std::move(store)) {}
  AdminStore* Store() const { return store_.get(); }

 private:
  std::unique_ptr<AdminStore> store_;
};

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
    const char* path = std::getenv("KIV_ADMIN_STORE");
    if (!path)
      std::cerr << "KivAdmin: KIV_ADMIN_STORE is not set: serving the "
                   "built-in demonstration administration"
                << std::endl;
    std::string error;
    std::unique_ptr<AdminStore> store = AdminStore::Load(path, &error);
    if (!store) {
      std::cerr << "KivAdmin: cannot open the administration store \""
                << (path ? path : "<demonstration>") << "\": " << error
                << std::endl;
      return E_FAIL;
    }
    store_ = store.get();
    Current() = std::make_unique<StoreSession>(std::move(store));
    return S_OK;
  }

  HRESULT End() override {
    if (!store_) return E_FAIL;
    store_ = nullptr;
    return S_OK;
  }

  HRESULT GetProjects(LumListPtrIUnknown& l) override {
    return store_ ? AppendKind<KivIProject>(l, store_->projects) : E_FAIL;
  }
  HRESULT GetDomains(LumListPtrIUnknown& l) override {
    return store_ ? AppendKind<KivIDomain>(l, store_->domains) : E_FAIL;
  }
  HRESULT GetHosts(LumListPtrIUnknown& l) override {
    return store_ ? AppendKind<KivIHost>(l, store_->hosts) : E_FAIL;
  }
  HRESULT GetDataServers(LumListPtrIUnknown& l) override {
    return store_ ? AppendKind<KivIDataServer>(l, store_->dataServers) : E_FAIL;
  }
  HRESULT GetVaultServers(LumListPtrIUnknown& l) override {
    return store_ ? AppendKind<KivIVaultServer>(l, store_->vaultServers)
                  : E_FAIL;
  }
  HRESULT GetSubscribingTargets(LumListPtrIUnknown& l) override {
    return store_ ? AppendKind<KivIReplSubscribingTarget>(
                        l, store_->subscribingTargets)
                  : E_FAIL;
  }
  HRESULT GetSubscriptions(LumListPtrIUnknown& l) override {
    return store_ ? AppendKind<KivIReplSubscription>(l, store_->subscriptions)
                  : E_FAIL;
  }
  HRESULT GetLocalSite(KivILocalSite*& site) override {
    site = nullptr;
    if (!store_) return E_FAIL;
    return store_->localSites.empty() ? S_OK
                                      : HandOut(site, &store_->localSites[0]);
  }
  HRESULT GetExternSites(LumListPtrIUnknown& l) override {
    return store_ ? AppendKind<KivIExternSite>(l, store_->externSites) : E_FAIL;
  }
  HRESULT GetPackageDefinitions(LumListPtrIUnknown& l) override {
    return store_ ? AppendKind<KivIReplPackageDefinition>(
                        l, store_->packageDefinitions)
                  : E_FAIL;
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
}  // namespace kiv

HRESULT GetKivIAdmin(KivIAdmin*& admin) {
  return kiv::HandOut(admin, &kiv::TheAdmin());
}

SdaiSession* SdaiSession::CurrentSession() { return kiv::Current().get(); }

void SdaiSession::CloseSession() {
  kiv::StoreSession* current = kiv::Current().get();
  if (current != this) return;
  kiv::TheAdmin().Forget(current->Store());
  kiv::Current().reset();  // destroys this session
}
