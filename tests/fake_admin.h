// The test double of the object model: an in-memory administration that a
// test fills field by field.
//
// A fake::World owns every fake object. Getters hand out what the public
// fields hold, with the status in the matching *Status field; a nullptr in a
// list field is a null element. Each object keeps a ledger of its references
// (handed out minus given back), and the world logs every call:
//   world.Held()  -> "H1:1 P2:1", the objects the tool still holds;
//   world.calls   -> "P1.GetDataDomains", "P1.GetName", ... in call order.
// This file also defines GetKivIAdmin and SdaiSession for the tool under test.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "KivAdmin.h"
#include "SdaiSession.h"

namespace fake {

class World;

// The ledger of one fake object.
class Object {
 public:
  virtual ~Object() = default;
  void Log(const char* operation) const;

  std::string label;  // the object's name in the ledger and the call log
  std::string oid;    // the identifier's bytes
  int refs = 0;       // references handed out and not given back
  int releases = 0;   // calls of Release
  World* world = nullptr;
};

// The IUnknown of a fake of interface I, counting into its ledger.
template <class I>
class Counted : public I, public Object {
 public:
  using Interface = I;

  HRESULT QueryInterface(const IID&, void** ppv) override {
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  ULONG AddRef() override { return static_cast<ULONG>(++refs); }
  ULONG Release() override {
    ++releases;
    return static_cast<ULONG>(--refs);
  }
};

// SupportsInterface and GetOid of a fake administration object.
template <class I>
class Fake : public Counted<I> {
 public:
  int SupportsInterface(const char* name) override {
    this->Log("SupportsInterface");
    for (const std::string& n : answersTo)
      if (n == name) return 1;
    return 0;
  }
  HRESULT GetOid(LumDbBinary& out) override {
    this->Log("GetOid");
    out.Assign(this->oid.data(), this->oid.size());
    return S_OK;
  }
  // The interface names SupportsInterface answers to.
  std::vector<std::string> answersTo{I::kName, "KivIObject", "IUnknown"};
};

// Appends items to list as interface I, with a reference each; returns status.
template <class I, class T>
HRESULT Fill(LumListPtrIUnknown& list, const std::vector<T*>& items,
             HRESULT status) {
  for (T* item : items) {
    if (item) item->AddRef();
    list.Append(static_cast<I*>(item));
  }
  return status;
}

// Sets out to item as interface I, with a reference; returns status.
template <class I, class T>
HRESULT Give(I*& out, T* item, HRESULT status = S_OK) {
  out = item;
  if (item) item->AddRef();
  return status;
}

HRESULT Text(LumUnicodeString& out, const std::string& text);

// The getters of the double: each logs its call and hands out its field.
#define FAKE_NAME                       \
  LumUnicodeString GetName() override { \
    Log("GetName");                     \
    return name.c_str();                \
  }
#define FAKE_TEXT(Op, field)                 \
  HRESULT Op(LumUnicodeString& v) override { \
    this->Log(#Op);                          \
    return Text(v, field);                   \
  }
#define FAKE_LIST(Op, I, field, status)        \
  HRESULT Op(LumListPtrIUnknown& l) override { \
    Log(#Op);                                  \
    return Fill<I>(l, field, status);          \
  }
#define FAKE_REF(Op, I, field, status) \
  HRESULT Op(I*& p) override {         \
    Log(#Op);                          \
    return Give(p, field, status);     \
  }
#define FAKE_OUT(Op, I, field) \
  HRESULT Op(I** p) override { \
    this->Log(#Op);            \
    return Give(*p, field);    \
  }

struct Host : Fake<KivIHost> {
  FAKE_NAME
  FAKE_TEXT(GetOSType, osType)
  FAKE_TEXT(GetOSVersion, osVersion)
  std::string name, osType, osVersion;
};

struct DataServer : Fake<KivIDataServer> {
  FAKE_NAME
  FAKE_REF(GetHost, KivIHost, host, S_OK)
  FAKE_TEXT(GetAuthentication, authentication)
  FAKE_TEXT(GetDBMS, dbms)
  FAKE_TEXT(GetConnectionString, connectionString)
  std::string name, authentication, dbms, connectionString;
  Host* host = nullptr;
};

struct VaultServer : Fake<KivIVaultServer> {
  FAKE_NAME
  FAKE_TEXT(GetAliasName, aliasName)
  std::string name, aliasName;
};

struct BusinessDomain : Fake<KivIBusinessDomain> {
  FAKE_NAME
  FAKE_TEXT(GetDataModeler, dataModeler)
  FAKE_TEXT(GetCorvelFlag, corvelFlag)
  FAKE_TEXT(GetMetaDataName, metaDataName)
  FAKE_TEXT(GetEditor, editor)
  std::string name, metaDataName, editor, corvelFlag, dataModeler;
};

struct Domain : Fake<KivIDomain> {
  int GetVisible() override {
    Log("GetVisible");
    return visible;
  }
  FAKE_LIST(GetBusinessDomains, KivIBusinessDomain, businessDomains,
            businessDomainsStatus)
  FAKE_NAME
  std::string name;
  int visible = 1;
  std::vector<BusinessDomain*> businessDomains;
  HRESULT businessDomainsStatus = S_OK;
};

struct DataDomain : Fake<KivIDataDomain> {
  FAKE_NAME
  FAKE_TEXT(GetDriver, driver)
  FAKE_REF(GetBusinessDomain, KivIBusinessDomain, businessDomain,
           businessDomainStatus)
  FAKE_TEXT(GetAliasName, aliasName)
  int IsRdb() override {
    Log("IsRdb");
    return rdb;
  }
  FAKE_TEXT(GetOwnerDico, ownerDico)
  FAKE_REF(GetDataServer, KivIDataServer, dataServer, S_OK)
  std::string name, aliasName, ownerDico, driver;
  int rdb = 1;
  BusinessDomain* businessDomain = nullptr;
  HRESULT businessDomainStatus = S_OK;
  DataServer* dataServer = nullptr;
};

struct Project : Fake<KivIProject> {
  FAKE_NAME
  FAKE_LIST(GetDataDomains, KivIDataDomain, dataDomains, dataDomainsStatus)
  FAKE_LIST(GetVaultServers, KivIVaultServer, vaultServers, vaultServersStatus)
  FAKE_LIST(GetDataServers, KivIDataServer, dataServers, dataServersStatus)
  std::string name;
  std::vector<DataDomain*> dataDomains;
  std::vector<VaultServer*> vaultServers;
  std::vector<DataServer*> dataServers;
  HRESULT dataDomainsStatus = S_OK, vaultServersStatus = S_OK,
          dataServersStatus = S_OK;
};

// An extern or the local site.
template <class I>
struct Site : Fake<I> {
  FAKE_TEXT(GetName, name)
  std::string name;
};
using ExternSite = Site<KivIExternSite>;
using LocalSite = Site<KivILocalSite>;

struct Media : Fake<KivIReplMedia> {
  FAKE_TEXT(GetMediaPath, mediaPath)
  std::string mediaPath;
};

struct PackageDefinition : Fake<KivIReplPackageDefinition> {
  FAKE_LIST(GetWholeDataDomains, KivIDataDomain, wholeDataDomains, S_OK)
  FAKE_TEXT(GetName, name)
  std::string name;
  std::vector<DataDomain*> wholeDataDomains;
};

// A capture or an apply status; Server is its server getter.
template <class I>
struct Status : Fake<I> {
  FAKE_TEXT(GetLastSuccessfulDate, lastSuccessfulDate)
  HRESULT Server(KivIObject** out, const char* op) {
    this->Log(op);
    Give(*out, server);
    return serverStatus;
  }
  std::string lastSuccessfulDate;
  KivIObject* server = nullptr;
  HRESULT serverStatus = S_OK;
};

struct CaptureStatus : Status<KivIReplCaptureStatus> {
  HRESULT GetCaptureServer(KivIObject** out) override {
    return Server(out, "GetCaptureServer");
  }
};

struct ApplyStatus : Status<KivIReplApplyStatus> {
  HRESULT GetApplyServer(KivIObject** out) override {
    return Server(out, "GetApplyServer");
  }
};

// A subscribing target or a subscription; Statuses is its status getter.
template <class I, class S>
struct ReplicationSet : Fake<I> {
  FAKE_OUT(GetExternSite, KivIExternSite, externSite)
  FAKE_OUT(GetMedia, KivIReplMedia, media)
  FAKE_OUT(GetPackageDefinition, KivIReplPackageDefinition, packageDefinition)
  FAKE_TEXT(GetName, name)
  HRESULT Statuses(LumListPtrIUnknown& l, const char* op) {
    this->Log(op);
    return Fill<typename S::Interface>(l, statuses, S_OK);
  }
  std::string name;
  Media* media = nullptr;
  PackageDefinition* packageDefinition = nullptr;
  ExternSite* externSite = nullptr;
  std::vector<S*> statuses;
};

struct SubscribingTarget
    : ReplicationSet<KivIReplSubscribingTarget, CaptureStatus> {
  HRESULT GetCaptureStatuses(LumListPtrIUnknown& l) override {
    return Statuses(l, "GetCaptureStatuses");
  }
};

struct Subscription : ReplicationSet<KivIReplSubscription, ApplyStatus> {
  HRESULT GetApplyStatuses(LumListPtrIUnknown& l) override {
    return Statuses(l, "GetApplyStatuses");
  }
};

// The root, with a status per getter.
struct Admin : Counted<KivIAdmin> {
  HRESULT Init(LumUnicodeString&, LumUnicodeString&, int) override;
  HRESULT End() override {
    Log("End");
    return endStatus;
  }
  FAKE_LIST(GetProjects, KivIProject, projects, projectsStatus)
  FAKE_LIST(GetDomains, KivIDomain, domains, domainsStatus)
  FAKE_LIST(GetHosts, KivIHost, hosts, hostsStatus)
  FAKE_LIST(GetDataServers, KivIDataServer, dataServers, S_OK)
  FAKE_LIST(GetVaultServers, KivIVaultServer, vaultServers, S_OK)
  FAKE_LIST(GetSubscribingTargets, KivIReplSubscribingTarget, targets,
            targetsStatus)
  FAKE_LIST(GetSubscriptions, KivIReplSubscription, subscriptions,
            subscriptionsStatus)
  FAKE_REF(GetLocalSite, KivILocalSite, localSite, localSiteStatus)
  FAKE_LIST(GetExternSites, KivIExternSite, externSites, externSitesStatus)
  FAKE_LIST(GetPackageDefinitions, KivIReplPackageDefinition,
            packageDefinitions, packageDefinitionsStatus)

  std::vector<Project*> projects;
  std::vector<Domain*> domains;
  std::vector<Host*> hosts;
  std::vector<DataServer*> dataServers;
  std::vector<VaultServer*> vaultServers;
  std::vector<SubscribingTarget*> targets;
  std::vector<Subscription*> subscriptions;
  LocalSite* localSite = nullptr;
  std::vector<ExternSite*> externSites;
  std::vector<PackageDefinition*> packageDefinitions;
  HRESULT initStatus = S_OK, endStatus = S_OK, projectsStatus = S_OK,
          domainsStatus = S_OK, hostsStatus = S_OK, targetsStatus = S_OK,
          subscriptionsStatus = S_OK, localSiteStatus = S_OK,
          externSitesStatus = S_OK, packageDefinitionsStatus = S_OK;
};

// Owns the fakes of one test, and is the administration GetKivIAdmin gives
// while it lives (none when noRoot is set).
class World {
 public:
  World();
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // Adds a fake labelled label whose identifier is the bytes of hexOid.
  template <class T>
  T* Add(const std::string& label, const std::string& hexOid) {
    auto object = std::make_unique<T>();
    T* raw = object.get();
    raw->label = label;
    raw->oid = Bytes(hexOid);
    raw->world = this;
    objects_.push_back(std::move(object));
    return raw;
  }

  // The objects whose references the tool still holds, as "label:refs".
  std::string Held() const;
  // The calls logged since the last Calls(), joined by blanks; clears them.
  std::string Calls();

  Admin admin;
  bool noRoot = false;       // GetKivIAdmin leaves the pointer null
  bool sessionOpen = false;  // Init opens a session, CloseSession closes it
  int sessionsClosed = 0;
  std::vector<std::string> calls;

 private:
  static std::string Bytes(const std::string& hex);
  std::vector<std::unique_ptr<Object>> objects_;
  World* previous_;  // the world GetKivIAdmin gives again once this one ends
};

}  // namespace fake
