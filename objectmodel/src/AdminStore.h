// The administration objects read from a store, and the store that owns them.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "KivAdmin.h"

namespace kiv {

// Appends p to list as a pointer to interface I, with one new reference.
template <class I>
void AppendRef(LumListPtrIUnknown& list, I* p) {
  p->AddRef();
  list.Append(static_cast<void*>(p));
}

// Sets out to p (or null) with one new reference.
template <class I, class T>
HRESULT HandOut(I*& out, T* p) {
  out = p;
  if (p) p->AddRef();
  return S_OK;
}

// The IUnknown and KivIObject parts of every object of kind I. Objects belong
// to their store: the count only tracks the references handed out, and the
// store frees the objects when its session closes.
template <class I>
class StoreObject : public I {
 public:
  explicit StoreObject(std::string oid) : oid_(std::move(oid)) {}
  virtual ~StoreObject() = default;
  StoreObject(const StoreObject&) = delete;
  StoreObject& operator=(const StoreObject&) = delete;

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
  ULONG Release() override { return refs_ > 0 ? --refs_ : 0; }
  int SupportsInterface(const char* name) override {
    const std::string n = name ? name : "";
    return n == I::kName || n == "KivIObject" || n == "IUnknown";
  }
  HRESULT GetOid(LumDbBinary& oid) override {
    oid.Assign(oid_.data(), oid_.size());
    return S_OK;
  }

  const std::string& Oid() const { return oid_; }
  // References handed out and not yet given back.
  ULONG Refs() const { return refs_; }

 private:
  std::string oid_;
  ULONG refs_ = 0;
};

inline HRESULT SetText(LumUnicodeString& out, const std::string& text) {
  out = text.c_str();
  return S_OK;
}

struct Host : StoreObject<KivIHost> {
  using StoreObject::StoreObject;
  LumUnicodeString GetName() override { return name.c_str(); }
  HRESULT GetOSType(LumUnicodeString& v) override { return SetText(v, osType); }
  HRESULT GetOSVersion(LumUnicodeString& v) override {
    return SetText(v, osVersion);
  }
  std::string name, osType, osVersion;
};

struct DataServer : StoreObject<KivIDataServer> {
  using StoreObject::StoreObject;
  LumUnicodeString GetName() override { return name.c_str(); }
  HRESULT GetHost(KivIHost*& h) override { return HandOut(h, host); }
  HRESULT GetAuthentication(LumUnicodeString& v) override {
    return SetText(v, authentication);
  }
  HRESULT GetDBMS(LumUnicodeString& v) override { return SetText(v, dbms); }
  HRESULT GetConnectionString(LumUnicodeString& v) override {
    return SetText(v, connectionString);
  }
  std::string name, authentication, dbms, connectionString;
  Host* host = nullptr;
};

struct VaultServer : StoreObject<KivIVaultServer> {
  using StoreObject::StoreObject;
  LumUnicodeString GetName() override { return name.c_str(); }
  HRESULT GetAliasName(LumUnicodeString& v) override {
    return SetText(v, aliasName);
  }
  std::string name, aliasName;
};

struct BusinessDomain : StoreObject<KivIBusinessDomain> {
  using StoreObject::StoreObject;
  LumUnicodeString GetName() override { return name.c_str(); }
  HRESULT GetDataModeler(LumUnicodeString& v) override {
    return SetText(v, dataModeler);
  }
  HRESULT GetCorvelFlag(LumUnicodeString& v) override {
    return SetText(v, corvelFlag);
  }
  HRESULT GetMetaDataName(LumUnicodeString& v) override {
    return SetText(v, metaDataName);
  }
  HRESULT GetEditor(LumUnicodeString& v) override { return SetText(v, editor); }
  std::string name, metaDataName, editor, corvelFlag, dataModeler;
};

// Appends every element of items to list, each as interface I.
template <class I, class T>
HRESULT AppendAll(LumListPtrIUnknown& list, const std::vector<T*>& items) {
  for (T* item : items) AppendRef<I>(list, item);
  return S_OK;
}

struct Domain : StoreObject<KivIDomain> {
  using StoreObject::StoreObject;
  int GetVisible() override { return visible; }
  HRESULT GetBusinessDomains(LumListPtrIUnknown& l) override {
    return AppendAll<KivIBusinessDomain>(l, businessDomains);
  }
  LumUnicodeString GetName() override { return name.c_str(); }
  std::string name;
  int visible = 0;
  std::vector<BusinessDomain*> businessDomains;
};

struct DataDomain : StoreObject<KivIDataDomain> {
  using StoreObject::StoreObject;
  LumUnicodeString GetName() override { return name.c_str(); }
  HRESULT GetDriver(LumUnicodeString& v) override { return SetText(v, driver); }
  HRESULT GetBusinessDomain(KivIBusinessDomain*& b) override {
    return HandOut(b, businessDomain);
  }
  HRESULT GetAliasName(LumUnicodeString& v) override {
    return SetText(v, aliasName);
  }
  int IsRdb() override { return rdb; }
  HRESULT GetOwnerDico(LumUnicodeString& v) override {
    return SetText(v, ownerDico);
  }
  HRESULT GetDataServer(KivIDataServer*& d) override {
    return HandOut(d, dataServer);
  }
  std::string name, aliasName, ownerDico, driver;
  int rdb = 1;
  BusinessDomain* businessDomain = nullptr;
  DataServer* dataServer = nullptr;
};

struct Project : StoreObject<KivIProject> {
  using StoreObject::StoreObject;
  LumUnicodeString GetName() override { return name.c_str(); }
  HRESULT GetDataDomains(LumListPtrIUnknown& l) override {
    return AppendAll<KivIDataDomain>(l, dataDomains);
  }
  HRESULT GetVaultServers(LumListPtrIUnknown& l) override {
    return AppendAll<KivIVaultServer>(l, vaultServers);
  }
  HRESULT GetDataServers(LumListPtrIUnknown& l) override {
    return AppendAll<KivIDataServer>(l, dataServers);
  }
  std::string name;
  std::vector<DataDomain*> dataDomains;
  std::vector<VaultServer*> vaultServers;
  std::vector<DataServer*> dataServers;
};

// An extern or a local site: both are a name and an identifier.
template <class I>
struct Site : StoreObject<I> {
  using StoreObject<I>::StoreObject;
  HRESULT GetName(LumUnicodeString& v) override { return SetText(v, name); }
  std::string name;
};
using ExternSite = Site<KivIExternSite>;
using LocalSite = Site<KivILocalSite>;

struct Media : StoreObject<KivIReplMedia> {
  using StoreObject::StoreObject;
  HRESULT GetMediaPath(LumUnicodeString& v) override {
    return SetText(v, mediaPath);
  }
  std::string mediaPath;
};

struct PackageDefinition : StoreObject<KivIReplPackageDefinition> {
  using StoreObject::StoreObject;
  HRESULT GetWholeDataDomains(LumListPtrIUnknown& l) override {
    return AppendAll<KivIDataDomain>(l, wholeDataDomains);
  }
  HRESULT GetName(LumUnicodeString& v) override { return SetText(v, name); }
  std::string name;
  std::vector<DataDomain*> wholeDataDomains;
};

// A capture or an apply status: a date and the server it is kept at.
template <class I>
struct Status : StoreObject<I> {
  using StoreObject<I>::StoreObject;
  HRESULT GetLastSuccessfulDate(LumUnicodeString& v) override {
    return SetText(v, lastSuccessfulDate);
  }
  HRESULT Server(KivIObject** out) {
    return out ? HandOut(*out, server) : E_POINTER;
  }
  std::string lastSuccessfulDate;
  KivIObject* server = nullptr;  // a DataServer or a VaultServer
};

struct CaptureStatus : Status<KivIReplCaptureStatus> {
  using Status::Status;
  HRESULT GetCaptureServer(KivIObject** out) override { return Server(out); }
};

struct ApplyStatus : Status<KivIReplApplyStatus> {
  using Status::Status;
  HRESULT GetApplyServer(KivIObject** out) override { return Server(out); }
};

// The references of a subscribing target and of a subscription.
template <class I>
struct ReplicationSet : StoreObject<I> {
  using StoreObject<I>::StoreObject;
  HRESULT GetExternSite(KivIExternSite** out) override {
    return out ? HandOut(*out, externSite) : E_POINTER;
  }
  HRESULT GetMedia(KivIReplMedia** out) override {
    return out ? HandOut(*out, media) : E_POINTER;
  }
  HRESULT GetPackageDefinition(KivIReplPackageDefinition** out) override {
    return out ? HandOut(*out, packageDefinition) : E_POINTER;
  }
  HRESULT GetName(LumUnicodeString& v) override { return SetText(v, name); }
  std::string name;
  Media* media = nullptr;
  PackageDefinition* packageDefinition = nullptr;
  ExternSite* externSite = nullptr;
};

struct SubscribingTarget : ReplicationSet<KivIReplSubscribingTarget> {
  using ReplicationSet::ReplicationSet;
  HRESULT GetCaptureStatuses(LumListPtrIUnknown& l) override {
    return AppendAll<KivIReplCaptureStatus>(l, statuses);
  }
  std::vector<CaptureStatus*> statuses;
};

struct Subscription : ReplicationSet<KivIReplSubscription> {
  using ReplicationSet::ReplicationSet;
  HRESULT GetApplyStatuses(LumListPtrIUnknown& l) override {
    return AppendAll<KivIReplApplyStatus>(l, statuses);
  }
  std::vector<ApplyStatus*> statuses;
};

// Every object of one administration, each kind in the store's row order.
// Deques keep the objects where they were built as more are loaded.
class AdminStore {
 public:
  // Reads the store at path, read-only, in one snapshot; a null path loads
  // the built-in demonstration administration. On failure returns null and
  // sets *error to the reason.
  static std::unique_ptr<AdminStore> Load(const char* path, std::string* error);

  std::deque<Host> hosts;
  std::deque<DataServer> dataServers;
  std::deque<VaultServer> vaultServers;
  std::deque<Project> projects;
  std::deque<Domain> domains;
  std::deque<BusinessDomain> businessDomains;
  std::deque<DataDomain> dataDomains;
  std::deque<ExternSite> externSites;
  std::deque<LocalSite> localSites;
  std::deque<Media> medias;
  std::deque<PackageDefinition> packageDefinitions;
  std::deque<SubscribingTarget> subscribingTargets;
  std::deque<Subscription> subscriptions;
  std::deque<CaptureStatus> captureStatuses;
  std::deque<ApplyStatus> applyStatuses;
};

// The schema and the demonstration administration, as SQL.
extern const char* const kSchemaSql;
extern const char* const kDemoSql;

}  // namespace kiv
