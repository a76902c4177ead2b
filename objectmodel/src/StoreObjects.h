// The administration objects of a store, one class per kind. Each reads its
// values from its row (Fill, columns counted from the one after the oid);
// an object made from a reference reads its row when a getter first needs
// it. Lists of children are read from the store each time they are asked.
#pragma once

#include "AdminStore.h"
#include "StoreRows.h"
#include "Texts.h"

namespace kiv {

// Sets out to text i of texts; returns S_OK, or E_FAIL when loaded is false.
// The texts are read only after loaded is known.
template <int N>
HRESULT SetText(bool loaded, LumUnicodeString& out, const Texts<N>& texts,
                int i) {
  if (!loaded) return E_FAIL;
  out = texts[i];
  return S_OK;
}

// A new object of kind T for the row of entry, or null for a null entry.
template <class T>
T* Made(AdminStore& store, const OidEntry* entry) {
  return static_cast<T*>(store.Make(T::kTable, entry));
}

// Sets out to the object of kind T for entry; E_FAIL when loaded is false.
template <class T, class I>
HRESULT HandOut(bool loaded, AdminStore& store, const OidEntry* entry,
                I*& out) {
  out = nullptr;
  if (!loaded) return E_FAIL;
  out = Made<T>(store, entry);
  return out || !entry ? S_OK : E_FAIL;
}

struct Host : StoreObject<KivIHost, kHost> {
  using StoreObject::StoreObject;
  void Fill(const Row& r) override {
    t_.Assign(r.Text(0), r.Text(1), r.Text(2));
  }
  LumUnicodeString GetName() override { return Load() ? t_[0] : ""; }
  HRESULT GetOSType(LumUnicodeString& v) override {
    return SetText(Load(), v, t_, 1);
  }
  HRESULT GetOSVersion(LumUnicodeString& v) override {
    return SetText(Load(), v, t_, 2);
  }
  Texts<3> t_;
};

struct DataServer : StoreObject<KivIDataServer, kDataServer> {
  using StoreObject::StoreObject;
  void Fill(const Row& r) override {
    t_.Assign(r.Text(0), r.Text(1), r.Text(2), r.Text(3));
    host_ = r.Ref(4, kHost, false);
  }
  LumUnicodeString GetName() override { return Load() ? t_[0] : ""; }
  HRESULT GetHost(KivIHost*& h) override {
    return HandOut<struct Host>(Load(), store_, host_, h);
  }
  HRESULT GetAuthentication(LumUnicodeString& v) override {
    return SetText(Load(), v, t_, 1);
  }
  HRESULT GetDBMS(LumUnicodeString& v) override {
    return SetText(Load(), v, t_, 2);
  }
  HRESULT GetConnectionString(LumUnicodeString& v) override {
    return SetText(Load(), v, t_, 3);
  }
  Texts<4> t_;
  const OidEntry* host_ = nullptr;
};

struct VaultServer : StoreObject<KivIVaultServer, kVaultServer> {
  using StoreObject::StoreObject;
  void Fill(const Row& r) override { t_.Assign(r.Text(0), r.Text(1)); }
  LumUnicodeString GetName() override { return Load() ? t_[0] : ""; }
  HRESULT GetAliasName(LumUnicodeString& v) override {
    return SetText(Load(), v, t_, 1);
  }
  Texts<2> t_;
};

struct BusinessDomain : StoreObject<KivIBusinessDomain, kBusinessDomain> {
  using StoreObject::StoreObject;
  // Column 0 is the owning domain, checked as the row is read.
  void Fill(const Row& r) override {
    t_.Assign(r.Text(1), r.Text(2), r.Text(3), r.Text(4), r.Text(5));
  }
  LumUnicodeString GetName() override { return Load() ? t_[0] : ""; }
  HRESULT GetMetaDataName(LumUnicodeString& v) override {
    return SetText(Load(), v, t_, 1);
  }
  HRESULT GetEditor(LumUnicodeString& v) override {
    return SetText(Load(), v, t_, 2);
  }
  HRESULT GetCorvelFlag(LumUnicodeString& v) override {
    return SetText(Load(), v, t_, 3);
  }
  HRESULT GetDataModeler(LumUnicodeString& v) override {
    return SetText(Load(), v, t_, 4);
  }
  Texts<5> t_;
};

struct Domain : StoreObject<KivIDomain, kDomain> {
  using StoreObject::StoreObject;
  void Fill(const Row& r) override {
    t_.Assign(r.Text(0));
    visible_ = r.Flag(1);
  }
  int GetVisible() override { return Load() ? visible_ : 0; }
  HRESULT GetBusinessDomains(LumListPtrIUnknown& l) override {
    return store_.Children(kBusinessDomain, *this, l);
  }
  LumUnicodeString GetName() override { return Load() ? t_[0] : ""; }
  Texts<1> t_;
  int visible_ = 0;
};

struct DataDomain : StoreObject<KivIDataDomain, kDataDomain> {
  using StoreObject::StoreObject;
  // Column 0 is the owning project, checked as the row is read.
  void Fill(const Row& r) override {
    t_.Assign(r.Text(1), r.Text(2), r.Text(3), r.Text(4));
    const std::string_view kind = r.Text(5);
    if (kind != "rdb" && kind != "file")
      r.Refuse(5, "is neither 'rdb' nor 'file'");
    rdb_ = kind == "rdb";
    businessDomain_ = r.Ref(6, kBusinessDomain, false);
    dataServer_ = r.Ref(7, kDataServer, false);
  }
  LumUnicodeString GetName() override { return Load() ? t_[0] : ""; }
  HRESULT GetAliasName(LumUnicodeString& v) override {
    return SetText(Load(), v, t_, 1);
  }
  HRESULT GetOwnerDico(LumUnicodeString& v) override {
    return SetText(Load(), v, t_, 2);
  }
  HRESULT GetDriver(LumUnicodeString& v) override {
    return SetText(Load(), v, t_, 3);
  }
  int IsRdb() override { return Load() ? rdb_ : 0; }
  HRESULT GetBusinessDomain(KivIBusinessDomain*& b) override {
    return HandOut<struct BusinessDomain>(Load(), store_, businessDomain_, b);
  }
  HRESULT GetDataServer(KivIDataServer*& d) override {
    return HandOut<struct DataServer>(Load(), store_, dataServer_, d);
  }
  Texts<4> t_;
  int rdb_ = 1;
  const OidEntry* businessDomain_ = nullptr;
  const OidEntry* dataServer_ = nullptr;
};

struct Project : StoreObject<KivIProject, kProject> {
  using StoreObject::StoreObject;
  void Fill(const Row& r) override { t_.Assign(r.Text(0)); }
  LumUnicodeString GetName() override { return Load() ? t_[0] : ""; }
  HRESULT GetDataDomains(LumListPtrIUnknown& l) override {
    return store_.Children(kDataDomain, *this, l);
  }
  HRESULT GetVaultServers(LumListPtrIUnknown& l) override {
    return store_.Linked(kProjectVaultServer, kVaultServer, *this, l);
  }
  HRESULT GetDataServers(LumListPtrIUnknown& l) override {
    return store_.Linked(kProjectDataServer, kDataServer, *this, l);
  }
  Texts<1> t_;
};

// An extern or a local site: a name and an identifier.
template <class I, Table T>
struct Site : StoreObject<I, T> {
  using StoreObject<I, T>::StoreObject;
  void Fill(const Row& r) override { t_.Assign(r.Text(0)); }
  HRESULT GetName(LumUnicodeString& v) override {
    return SetText(this->Load(), v, t_, 0);
  }
  Texts<1> t_;
};
using ExternSite = Site<KivIExternSite, kExternSite>;
using LocalSite = Site<KivILocalSite, kLocalSite>;

struct Media : StoreObject<KivIReplMedia, kMedia> {
  using StoreObject::StoreObject;
  void Fill(const Row& r) override { t_.Assign(r.Text(0)); }
  HRESULT GetMediaPath(LumUnicodeString& v) override {
    return SetText(Load(), v, t_, 0);
  }
  Texts<1> t_;
};

struct PackageDefinition
    : StoreObject<KivIReplPackageDefinition, kPackageDefinition> {
  using StoreObject::StoreObject;
  void Fill(const Row& r) override { t_.Assign(r.Text(0)); }
  HRESULT GetWholeDataDomains(LumListPtrIUnknown& l) override {
    return store_.Linked(kPackageWholeDataDomain, kDataDomain, *this, l);
  }
  HRESULT GetName(LumUnicodeString& v) override {
    return SetText(Load(), v, t_, 0);
  }
  Texts<1> t_;
};

// A capture or an apply status: its owner (column 0, checked as the row is
// read), the server it is kept at and a date.
template <class I, Table T>
struct Status : StoreObject<I, T> {
  using StoreObject<I, T>::StoreObject;
  void Fill(const Row& r) override {
    server_ = r.Ref(1, kDataServer, false, kVaultServer);
    serverTable_ = r.RefTable();
    t_.Assign(r.Text(2));
  }
  HRESULT GetLastSuccessfulDate(LumUnicodeString& v) override {
    return SetText(this->Load(), v, t_, 0);
  }
  HRESULT Server(KivIObject** out) {
    if (!out) return E_POINTER;
    *out = nullptr;
    if (!this->Load()) return E_FAIL;
    StoreObjectBase* server = this->store_.Make(serverTable_, server_);
    if (server_ && !server) return E_FAIL;
    if (serverTable_ == kDataServer)
      *out = static_cast<DataServer*>(server);
    else
      *out = static_cast<VaultServer*>(server);
    return S_OK;
  }
  Texts<1> t_;
  const OidEntry* server_ = nullptr;
  Table serverTable_ = kDataServer;
};

struct CaptureStatus : Status<KivIReplCaptureStatus, kCaptureStatus> {
  using Status::Status;
  HRESULT GetCaptureServer(KivIObject** out) override { return Server(out); }
};

struct ApplyStatus : Status<KivIReplApplyStatus, kApplyStatus> {
  using Status::Status;
  HRESULT GetApplyServer(KivIObject** out) override { return Server(out); }
};

// The references of a subscribing target and of a subscription, and the
// list of their statuses in table statuses.
template <class I, Table T, Table Statuses>
struct ReplicationSet : StoreObject<I, T> {
  using StoreObject<I, T>::StoreObject;
  void Fill(const Row& r) override {
    t_.Assign(r.Text(0));
    media_ = r.Ref(1, kMedia, false);
    packageDefinition_ = r.Ref(2, kPackageDefinition, false);
    externSite_ = r.Ref(3, kExternSite, false);
  }
  HRESULT GetName(LumUnicodeString& v) override {
    return SetText(this->Load(), v, t_, 0);
  }
  HRESULT GetMedia(KivIReplMedia** out) override {
    return out ? HandOut<struct Media>(this->Load(), this->store_, media_, *out)
               : E_POINTER;
  }
  HRESULT GetPackageDefinition(KivIReplPackageDefinition** out) override {
    return out ? HandOut<struct PackageDefinition>(this->Load(), this->store_,
                                                   packageDefinition_, *out)
               : E_POINTER;
  }
  HRESULT GetExternSite(KivIExternSite** out) override {
    return out ? HandOut<ExternSite>(this->Load(), this->store_, externSite_,
                                     *out)
               : E_POINTER;
  }
  HRESULT StatusList(LumListPtrIUnknown& l) {
    return this->store_.Children(Statuses, *this, l);
  }
  Texts<1> t_;
  const OidEntry* media_ = nullptr;
  const OidEntry* packageDefinition_ = nullptr;
  const OidEntry* externSite_ = nullptr;
};

struct SubscribingTarget : ReplicationSet<KivIReplSubscribingTarget,
                                          kSubscribingTarget, kCaptureStatus> {
  using ReplicationSet::ReplicationSet;
  HRESULT GetCaptureStatuses(LumListPtrIUnknown& l) override {
    return StatusList(l);
  }
};

struct Subscription
    : ReplicationSet<KivIReplSubscription, kSubscription, kApplyStatus> {
  using ReplicationSet::ReplicationSet;
  HRESULT GetApplyStatuses(LumListPtrIUnknown& l) override {
    return StatusList(l);
  }
};

}  // namespace kiv
