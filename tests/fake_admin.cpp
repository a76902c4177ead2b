#include "fake_admin.h"

#include <sstream>

namespace fake {
namespace {

World* current = nullptr;

// The fake session that Init opens.
class Session : public SdaiSession {};
Session session;

}  // namespace

void Object::Log(const char* operation) const {
  if (world) world->calls.push_back(label + "." + operation);
}

HRESULT Text(LumUnicodeString& out, const std::string& text) {
  out = text.c_str();
  return S_OK;
}

LumUnicodeString Host::GetName() {
  Log("GetName");
  return name.c_str();
}
HRESULT Host::GetOSType(LumUnicodeString& v) {
  Log("GetOSType");
  return Text(v, osType);
}
HRESULT Host::GetOSVersion(LumUnicodeString& v) {
  Log("GetOSVersion");
  return Text(v, osVersion);
}

LumUnicodeString DataServer::GetName() {
  Log("GetName");
  return name.c_str();
}
HRESULT DataServer::GetHost(KivIHost*& h) {
  Log("GetHost");
  return Give(h, host);
}
HRESULT DataServer::GetAuthentication(LumUnicodeString& v) {
  Log("GetAuthentication");
  return Text(v, authentication);
}
HRESULT DataServer::GetDBMS(LumUnicodeString& v) {
  Log("GetDBMS");
  return Text(v, dbms);
}
HRESULT DataServer::GetConnectionString(LumUnicodeString& v) {
  Log("GetConnectionString");
  return Text(v, connectionString);
}

LumUnicodeString VaultServer::GetName() {
  Log("GetName");
  return name.c_str();
}
HRESULT VaultServer::GetAliasName(LumUnicodeString& v) {
  Log("GetAliasName");
  return Text(v, aliasName);
}

LumUnicodeString BusinessDomain::GetName() {
  Log("GetName");
  return name.c_str();
}
HRESULT BusinessDomain::GetDataModeler(LumUnicodeString& v) {
  Log("GetDataModeler");
  return Text(v, dataModeler);
}
HRESULT BusinessDomain::GetCorvelFlag(LumUnicodeString& v) {
  Log("GetCorvelFlag");
  return Text(v, corvelFlag);
}
HRESULT BusinessDomain::GetMetaDataName(LumUnicodeString& v) {
  Log("GetMetaDataName");
  return Text(v, metaDataName);
}
HRESULT BusinessDomain::GetEditor(LumUnicodeString& v) {
  Log("GetEditor");
  return Text(v, editor);
}

int Domain::GetVisible() {
  Log("GetVisible");
  return visible;
}
HRESULT Domain::GetBusinessDomains(LumListPtrIUnknown& l) {
  Log("GetBusinessDomains");
  return Fill<KivIBusinessDomain>(l, businessDomains, businessDomainsStatus);
}
LumUnicodeString Domain::GetName() {
  Log("GetName");
  return name.c_str();
}

LumUnicodeString DataDomain::GetName() {
  Log("GetName");
  return name.c_str();
}
HRESULT DataDomain::GetDriver(LumUnicodeString& v) {
  Log("GetDriver");
  return Text(v, driver);
}
HRESULT DataDomain::GetBusinessDomain(KivIBusinessDomain*& b) {
  Log("GetBusinessDomain");
  return Give(b, businessDomain, businessDomainStatus);
}
HRESULT DataDomain::GetAliasName(LumUnicodeString& v) {
  Log("GetAliasName");
  return Text(v, aliasName);
}
int DataDomain::IsRdb() {
  Log("IsRdb");
  return rdb;
}
HRESULT DataDomain::GetOwnerDico(LumUnicodeString& v) {
  Log("GetOwnerDico");
  return Text(v, ownerDico);
}
HRESULT DataDomain::GetDataServer(KivIDataServer*& d) {
  Log("GetDataServer");
  return Give(d, dataServer);
}

LumUnicodeString Project::GetName() {
  Log("GetName");
  return name.c_str();
}
HRESULT Project::GetDataDomains(LumListPtrIUnknown& l) {
  Log("GetDataDomains");
  return Fill<KivIDataDomain>(l, dataDomains, dataDomainsStatus);
}
HRESULT Project::GetVaultServers(LumListPtrIUnknown& l) {
  Log("GetVaultServers");
  return Fill<KivIVaultServer>(l, vaultServers, vaultServersStatus);
}
HRESULT Project::GetDataServers(LumListPtrIUnknown& l) {
  Log("GetDataServers");
  return Fill<KivIDataServer>(l, dataServers, dataServersStatus);
}

HRESULT Media::GetMediaPath(LumUnicodeString& v) {
  Log("GetMediaPath");
  return Text(v, mediaPath);
}

HRESULT PackageDefinition::GetWholeDataDomains(LumListPtrIUnknown& l) {
  Log("GetWholeDataDomains");
  return Fill<KivIDataDomain>(l, wholeDataDomains, S_OK);
}
HRESULT PackageDefinition::GetName(LumUnicodeString& v) {
  Log("GetName");
  return Text(v, name);
}

HRESULT CaptureStatus::GetCaptureServer(KivIObject** out) {
  Log("GetCaptureServer");
  return Server(out);
}
HRESULT ApplyStatus::GetApplyServer(KivIObject** out) {
  Log("GetApplyServer");
  return Server(out);
}
HRESULT SubscribingTarget::GetCaptureStatuses(LumListPtrIUnknown& l) {
  return Statuses(l);
}
HRESULT Subscription::GetApplyStatuses(LumListPtrIUnknown& l) {
  return Statuses(l);
}

HRESULT Admin::QueryInterface(const IID&, void** ppv) {
  *ppv = nullptr;
  return E_NOINTERFACE;
}
ULONG Admin::AddRef() { return static_cast<ULONG>(++refs); }
ULONG Admin::Release() {
  ++releases;
  return static_cast<ULONG>(--refs);
}
HRESULT Admin::Init(LumUnicodeString&, LumUnicodeString&, int) {
  Log("Init");
  if (initStatus >= 0) world->sessionOpen = true;
  return initStatus;
}
HRESULT Admin::End() {
  Log("End");
  return endStatus;
}
HRESULT Admin::GetProjects(LumListPtrIUnknown& l) {
  Log("GetProjects");
  return Fill<KivIProject>(l, projects, projectsStatus);
}
HRESULT Admin::GetDomains(LumListPtrIUnknown& l) {
  Log("GetDomains");
  return Fill<KivIDomain>(l, domains, domainsStatus);
}
HRESULT Admin::GetHosts(LumListPtrIUnknown& l) {
  Log("GetHosts");
  return Fill<KivIHost>(l, hosts, hostsStatus);
}
HRESULT Admin::GetDataServers(LumListPtrIUnknown& l) {
  Log("GetDataServers");
  return Fill<KivIDataServer>(l, dataServers, S_OK);
}
HRESULT Admin::GetVaultServers(LumListPtrIUnknown& l) {
  Log("GetVaultServers");
  return Fill<KivIVaultServer>(l, vaultServers, S_OK);
}
HRESULT Admin::GetSubscribingTargets(LumListPtrIUnknown& l) {
  Log("GetSubscribingTargets");
  return Fill<KivIReplSubscribingTarget>(l, targets, targetsStatus);
}
HRESULT Admin::GetSubscriptions(LumListPtrIUnknown& l) {
  Log("GetSubscriptions");
  return Fill<KivIReplSubscription>(l, subscriptions, subscriptionsStatus);
}
HRESULT Admin::GetLocalSite(KivILocalSite*& s) {
  Log("GetLocalSite");
  return Give(s, localSite, localSiteStatus);
}
HRESULT Admin::GetExternSites(LumListPtrIUnknown& l) {
  Log("GetExternSites");
  return Fill<KivIExternSite>(l, externSites, externSitesStatus);
}
HRESULT Admin::GetPackageDefinitions(LumListPtrIUnknown& l) {
  Log("GetPackageDefinitions");
  return Fill<KivIReplPackageDefinition>(l, packageDefinitions,
                                         packageDefinitionsStatus);
}

World::World() : previous_(current) {
  admin.label = "Admin";
  admin.world = this;
  current = this;
}

World::~World() { current = previous_; }

std::string World::Held() const {
  std::string held;
  auto note = [&held](const Object& o) {
    if (o.refs == 0) return;
    if (!held.empty()) held += " ";
    held += o.label + ":" + std::to_string(o.refs);
  };
  note(admin);
  for (const auto& object : objects_) note(*object);
  return held;
}

std::string World::Calls() {
  std::string joined;
  for (const std::string& call : calls)
    joined += (joined.empty() ? "" : " ") + call;
  calls.clear();
  return joined;
}

std::string World::Bytes(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return bytes;
}

}  // namespace fake

HRESULT GetKivIAdmin(KivIAdmin*& admin) {
  fake::World* world = fake::current;
  if (!world || world->noRoot) return E_FAIL;
  return fake::Give(admin, &world->admin);
}

SdaiSession* SdaiSession::CurrentSession() {
  fake::World* world = fake::current;
  return world && world->sessionOpen ? &fake::session : nullptr;
}

void SdaiSession::CloseSession() {
  if (fake::World* world = fake::current) {
    world->sessionOpen = false;
    ++world->sessionsClosed;
  }
}
