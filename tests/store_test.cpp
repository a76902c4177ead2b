// Tests of the object-model library against real stores.
//
// Plan:
//   StoreRoundTrip  every getter returns what the rows hold, in row order,
//                   null for NULL references, SupportsInterface by kind
//   StoreInit       each reason a store is refused: a negative status and one
//                   line naming the store and the reason
//   StoreUse        the file is unchanged, a writer's uncommitted rows are
//                   not seen, End and CloseSession, the demonstration store
#include <sqlite3.h>

#include <cstdlib>
#include <functional>

#include "KivAdmin.h"
#include "SdaiSession.h"
#include "test_support.h"

using test_support::CaptureStderr;
using test_support::DataPath;
using test_support::MakeStore;
using test_support::OutputPath;
using test_support::ReadFile;

namespace {

template <class T>
std::string Oid(T* object) {
  LumDbBinary oid(0);
  object->GetOid(oid);
  return oid.GetHexaValue().ConvertToChar();
}

template <class T>
T* At(LumListPtrIUnknown& list, int index) {
  return static_cast<T*>(list[index]);
}

// The identifiers of a list's elements, blank-separated.
template <class T>
std::string Oids(LumListPtrIUnknown& list) {
  std::string oids;
  for (int i = 1; i <= list.Count(); ++i)
    oids += (i > 1 ? " " : "") + Oid(At<T>(list, i));
  return oids;
}

std::string Str(const LumUnicodeString& text) { return text.ConvertToChar(); }

// Fills a text through getter and returns it.
template <class T>
std::string Get(T* object, HRESULT (T::*getter)(LumUnicodeString&)) {
  LumUnicodeString text;
  (object->*getter)(text);
  return text.ConvertToChar();
}

// Opens stores through the library as the tool does, and closes them after
// each test.
class StoreTest : public ::testing::Test {
 protected:
  HRESULT Open(const std::string* store) {
    if (store)
      ::setenv("KIV_ADMIN_STORE", store->c_str(), 1);
    else
      ::unsetenv("KIV_ADMIN_STORE");
    GetKivIAdmin(admin);
    LumUnicodeString user(""), password("");
    return admin->Init(user, password, 0);
  }
  void TearDown() override {
    if (admin) {
      admin->End();
      admin->Release();
    }
    if (SdaiSession* session = SdaiSession::CurrentSession())
      session->CloseSession();
    ::unsetenv("KIV_ADMIN_STORE");
  }
  // Opens a store made of the schema and tests/data/full.sql.
  void OpenFull() {
    path = OutputPath("full.db");
    MakeStore(path, {ReadFile(DataPath("full.sql"))});
    ASSERT_GE(Open(&path), 0);
  }

  KivIAdmin* admin = nullptr;
  std::string path;
};

using StoreRoundTrip = StoreTest;

TEST_F(StoreRoundTrip, HostsAndServers) {
  OpenFull();
  LumListPtrIUnknown hosts(0), data(0), vaults(0);
  ASSERT_GE(admin->GetHosts(hosts), 0);
  ASSERT_GE(admin->GetDataServers(data), 0);
  ASSERT_GE(admin->GetVaultServers(vaults), 0);
  EXPECT_EQ(Oids<KivIHost>(hosts), "0A01 0A02");
  EXPECT_EQ(Oids<KivIDataServer>(data), "0B01 0B02");
  EXPECT_EQ(Oids<KivIVaultServer>(vaults), "0C01 0C02");

  KivIHost* alpha = At<KivIHost>(hosts, 1);
  EXPECT_EQ(Str(alpha->GetName()), "alpha");
  EXPECT_EQ(Get(alpha, &KivIHost::GetOSType), "Linux");
  EXPECT_EQ(Get(alpha, &KivIHost::GetOSVersion), "6.1");
  EXPECT_EQ(Get(At<KivIHost>(hosts, 2), &KivIHost::GetOSType), "");

  KivIDataServer* main = At<KivIDataServer>(data, 1);
  EXPECT_EQ(Str(main->GetName()), "MAINDB");
  EXPECT_EQ(Get(main, &KivIDataServer::GetAuthentication), "native");
  EXPECT_EQ(Get(main, &KivIDataServer::GetDBMS), "Oracle");
  EXPECT_EQ(Get(main, &KivIDataServer::GetConnectionString),
            "db=main;opt=<a&b>");
  KivIHost* host = nullptr;
  main->GetHost(host);
  ASSERT_NE(host, nullptr);
  EXPECT_EQ(Oid(host), "0A01");
  At<KivIDataServer>(data, 2)->GetHost(host);
  EXPECT_EQ(host, nullptr);

  KivIVaultServer* vault = At<KivIVaultServer>(vaults, 1);
  EXPECT_EQ(Str(vault->GetName()), "VAULTA");
  EXPECT_EQ(Get(vault, &KivIVaultServer::GetAliasName), "first \"vault\"");
  EXPECT_EQ(Get(At<KivIVaultServer>(vaults, 2), &KivIVaultServer::GetAliasName),
            "");
}

TEST_F(StoreRoundTrip, ProjectsDomainsAndDataDomains) {
  OpenFull();
  LumListPtrIUnknown projects(0), domains(0);
  ASSERT_GE(admin->GetProjects(projects), 0);
  ASSERT_GE(admin->GetDomains(domains), 0);
  ASSERT_EQ(Oids<KivIProject>(projects), "0D01 0D02 0D03");

  KivIProject* one = At<KivIProject>(projects, 1);
  EXPECT_EQ(Str(one->GetName()), "P&ONE");
  LumListPtrIUnknown dataDomains(0), vaults(0), data(0), none(0);
  one->GetDataDomains(dataDomains);
  one->GetVaultServers(vaults);
  one->GetDataServers(data);
  EXPECT_EQ(Oids<KivIDataDomain>(dataDomains), "1001 1002");
  EXPECT_EQ(Oids<KivIVaultServer>(vaults), "0C01 0C02");
  EXPECT_EQ(Oids<KivIDataServer>(data), "0B01");
  At<KivIProject>(projects, 2)->GetVaultServers(none);
  EXPECT_EQ(none.Count(), 0);

  KivIDataDomain* first = At<KivIDataDomain>(dataDomains, 1);
  EXPECT_EQ(Str(first->GetName()), "DDONE");
  EXPECT_EQ(Get(first, &KivIDataDomain::GetAliasName), "D1");
  EXPECT_EQ(Get(first, &KivIDataDomain::GetOwnerDico), "OWNER");
  EXPECT_EQ(Get(first, &KivIDataDomain::GetDriver), "oracle");
  EXPECT_NE(first->IsRdb(), 0);
  KivIBusinessDomain* businessDomain = nullptr;
  KivIDataServer* dataServer = nullptr;
  first->GetBusinessDomain(businessDomain);
  first->GetDataServer(dataServer);
  ASSERT_NE(businessDomain, nullptr);
  ASSERT_NE(dataServer, nullptr);
  EXPECT_EQ(Oid(businessDomain), "0F01");
  EXPECT_EQ(Oid(dataServer), "0B01");
  At<KivIDataDomain>(dataDomains, 2)->GetDataServer(dataServer);
  EXPECT_EQ(dataServer, nullptr);

  EXPECT_EQ(Oids<KivIDomain>(domains), "0E01 0E02 0E03");
  EXPECT_EQ(At<KivIDomain>(domains, 2)->GetVisible(), 5);
  EXPECT_EQ(At<KivIDomain>(domains, 3)->GetVisible(), 0);
  KivIDomain* domain = At<KivIDomain>(domains, 1);
  EXPECT_EQ(Str(domain->GetName()), "DOMONE");
  LumListPtrIUnknown businessDomains(0);
  domain->GetBusinessDomains(businessDomains);
  EXPECT_EQ(Oids<KivIBusinessDomain>(businessDomains), "0F01 0F02");
  KivIBusinessDomain* bd = At<KivIBusinessDomain>(businessDomains, 1);
  EXPECT_EQ(Str(bd->GetName()), "BDONE");
  EXPECT_EQ(Get(bd, &KivIBusinessDomain::GetMetaDataName), "META1");
  EXPECT_EQ(Get(bd, &KivIBusinessDomain::GetEditor), "ed1");
  EXPECT_EQ(Get(bd, &KivIBusinessDomain::GetCorvelFlag), "Y");
  EXPECT_EQ(Get(bd, &KivIBusinessDomain::GetDataModeler), "dm1");
}

TEST_F(StoreRoundTrip, ReplicationAndSites) {
  OpenFull();
  LumListPtrIUnknown targets(0), subscriptions(0), definitions(0), sites(0);
  admin->GetSubscribingTargets(targets);
  admin->GetSubscriptions(subscriptions);
  admin->GetPackageDefinitions(definitions);
  admin->GetExternSites(sites);
  EXPECT_EQ(Oids<KivIReplSubscribingTarget>(targets), "1501 1502 1503");
  EXPECT_EQ(Oids<KivIReplSubscription>(subscriptions), "1601 1602");
  EXPECT_EQ(Oids<KivIReplPackageDefinition>(definitions), "1401 1402");
  EXPECT_EQ(Oids<KivIExternSite>(sites), "1101 1102");
  EXPECT_EQ(Get(At<KivIExternSite>(sites, 2), &KivIExternSite::GetName),
            "WEST");

  KivILocalSite* local = nullptr;
  ASSERT_GE(admin->GetLocalSite(local), 0);
  ASSERT_NE(local, nullptr);
  EXPECT_EQ(Get(local, &KivILocalSite::GetName), "HOME");

  LumListPtrIUnknown whole(0);
  At<KivIReplPackageDefinition>(definitions, 1)->GetWholeDataDomains(whole);
  EXPECT_EQ(Oids<KivIDataDomain>(whole), "1001 1003");

  KivIReplSubscribingTarget* target = At<KivIReplSubscribingTarget>(targets, 1);
  EXPECT_EQ(Get(target, &KivIReplSubscribingTarget::GetName), "TONE");
  KivIReplMedia* media = nullptr;
  KivIReplPackageDefinition* definition = nullptr;
  KivIExternSite* site = nullptr;
  target->GetMedia(&media);
  target->GetPackageDefinition(&definition);
  target->GetExternSite(&site);
  ASSERT_TRUE(media && definition && site);
  EXPECT_EQ(Oid(media) + Oid(definition) + Oid(site), "130114011101");
  EXPECT_EQ(Get(media, &KivIReplMedia::GetMediaPath), "/media/one");
  At<KivIReplSubscribingTarget>(targets, 2)->GetMedia(&media);
  EXPECT_EQ(media, nullptr);

  LumListPtrIUnknown captures(0);
  target->GetCaptureStatuses(captures);
  ASSERT_EQ(Oids<KivIReplCaptureStatus>(captures), "1701 1702 1703");
  EXPECT_EQ(Get(At<KivIReplCaptureStatus>(captures, 3),
                &KivIReplCaptureStatus::GetLastSuccessfulDate),
            "");
  // The server's kind is told by its own answer.
  const struct {
    int index;
    int vault, data;
  } kinds[] = {{1, 0, 1}, {2, 1, 0}, {3, 0, 1}};
  for (const auto& k : kinds) {
    KivIObject* server = nullptr;
    At<KivIReplCaptureStatus>(captures, k.index)->GetCaptureServer(&server);
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(!!server->SupportsInterface("KivIVaultServer"), !!k.vault);
    EXPECT_EQ(!!server->SupportsInterface("KivIDataServer"), !!k.data);
    EXPECT_TRUE(server->SupportsInterface("KivIObject"));
    EXPECT_TRUE(server->SupportsInterface("IUnknown"));
    EXPECT_FALSE(server->SupportsInterface("KivIHost"));
  }
  LumListPtrIUnknown orphan(0);
  At<KivIReplSubscribingTarget>(targets, 3)->GetCaptureStatuses(orphan);
  KivIObject* server = nullptr;
  At<KivIReplCaptureStatus>(orphan, 1)->GetCaptureServer(&server);
  EXPECT_EQ(server, nullptr);

  KivIReplSubscription* subscription =
      At<KivIReplSubscription>(subscriptions, 1);
  LumListPtrIUnknown applies(0);
  subscription->GetApplyStatuses(applies);
  EXPECT_EQ(Oids<KivIReplApplyStatus>(applies), "1801 1802");
  At<KivIReplApplyStatus>(applies, 2)->GetApplyServer(&server);
  ASSERT_NE(server, nullptr);
  EXPECT_TRUE(server->SupportsInterface("KivIVaultServer"));
}

struct Refusal {
  const char* name;
  std::function<void(const std::string& path)> make;
  std::string reason;
};

// Builds a store of the schema and sql.
std::function<void(const std::string&)> Store(const std::string& sql) {
  return [sql](const std::string& file) { MakeStore(file, {sql}); };
}

using StoreInit = StoreTest;

TEST_F(StoreInit, RefusesAStoreWithOneLineNamingItAndTheReason) {
  const Refusal cases[] = {
      {"missing", [](const std::string&) {},
       "cannot read the file: No such file or directory"},
      {"text",
       [](const std::string& file) {
         test_support::WriteFile(file, std::string(600, 'x'));
       },
       "file is not a database"},
      {"version", Store("PRAGMA user_version = 2;"),
       "store format version 2 is not the supported version 1"},
      {"table", Store("DROP TABLE media;"),
       "table media: no such table: media"},
      {"column", Store("ALTER TABLE host DROP COLUMN os_type;"),
       "table host: no such column: os_type"},
      {"textoid", Store("INSERT INTO host VALUES ('h1', 'a', '', '');"),
       "table host: an oid is not a non-empty BLOB"},
      {"emptyoid", Store("INSERT INTO extern_site VALUES (x'', 'a');"),
       "table extern_site: an oid is not a non-empty BLOB"},
      {"textref",
       Store("INSERT INTO data_server VALUES (x'01', '', '', '', '', 'h');"),
       "table data_server: a reference is not a non-empty BLOB"},
      {"dangling",
       Store("INSERT INTO data_server VALUES (x'01', '', '', '', '', x'99');"),
       "table data_server: x99 refers to no host row"},
      {"wrongkind",
       Store("INSERT INTO host VALUES (x'01', '', '', '');"
             "INSERT INTO apply_status VALUES (x'04', x'05', x'01', '');"),
       "table apply_status: x01 refers to no data_server or vault_server row"},
      {"duplicate",
       Store("INSERT INTO host VALUES (x'0A01', '', '', '');"
             "INSERT INTO vault_server VALUES (x'0A01', '', '');"),
       "oid x0A01 is used by both host and vault_server"},
      {"twolocal",
       Store("INSERT INTO local_site VALUES (x'01', 'a'), (x'02', 'b');"),
       "table local_site: more than one local site"},
      {"kind",
       Store("PRAGMA ignore_check_constraints = ON;"
             "INSERT INTO project VALUES (x'01', 'p');"
             "INSERT INTO data_domain (oid, project, kind) "
             "VALUES (x'02', x'01', 'xml');"),
       "table data_domain: kind 'xml' is neither 'rdb' nor 'file'"},
  };
  for (const Refusal& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string store =
        OutputPath(std::string("refused-") + c.name + ".db");
    std::remove(store.c_str());
    c.make(store);
    CaptureStderr err;
    EXPECT_LT(Open(&store), 0);
    EXPECT_EQ(err.Text(), "KivAdmin: cannot open the administration store \"" +
                              store + "\": " + c.reason + "\n");
    EXPECT_EQ(SdaiSession::CurrentSession(), nullptr);
    admin->Release();
    admin = nullptr;
  }
  EXPECT_FALSE(test_support::FileExists(OutputPath("refused-missing.db")));
}

using StoreUse = StoreTest;

TEST_F(StoreUse, LeavesTheFileByteForByteUnchanged) {
  path = OutputPath("unchanged.db");
  MakeStore(path, {ReadFile(DataPath("full.sql"))});
  const std::string before = ReadFile(path);
  ASSERT_GE(Open(&path), 0);
  LumListPtrIUnknown projects(0);
  admin->GetProjects(projects);
  EXPECT_GE(admin->End(), 0);
  SdaiSession::CurrentSession()->CloseSession();
  EXPECT_EQ(ReadFile(path), before);
}

TEST_F(StoreUse, ReadsOneSnapshotWhileAWriterIsAtWork) {
  path = OutputPath("snapshot.db");
  MakeStore(path, {ReadFile(DataPath("full.sql"))});
  sqlite3* writer = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &writer), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(writer,
                         "BEGIN IMMEDIATE;"
                         "INSERT INTO host VALUES (x'0A03', 'gamma', '', '');",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  ASSERT_GE(Open(&path), 0);
  LumListPtrIUnknown hosts(0);
  admin->GetHosts(hosts);
  EXPECT_EQ(Oids<KivIHost>(hosts), "0A01 0A02");
  sqlite3_exec(writer, "COMMIT;", nullptr, nullptr, nullptr);
  sqlite3_close(writer);
}

TEST_F(StoreUse, GettersFailAfterEndAndCloseSessionEndsTheSession) {
  OpenFull();
  ASSERT_NE(SdaiSession::CurrentSession(), nullptr);
  EXPECT_GE(admin->End(), 0);
  LumListPtrIUnknown hosts(0);
  EXPECT_LT(admin->GetHosts(hosts), 0);
  KivILocalSite* local = nullptr;
  EXPECT_LT(admin->GetLocalSite(local), 0);
  EXPECT_LT(admin->End(), 0);
  SdaiSession::CurrentSession()->CloseSession();
  EXPECT_EQ(SdaiSession::CurrentSession(), nullptr);
}

TEST_F(StoreUse, ServesTheDemonstrationWhenNoStoreIsNamed) {
  CaptureStderr err;
  ASSERT_GE(Open(nullptr), 0);
  EXPECT_EQ(err.Text(),
            "KivAdmin: KIV_ADMIN_STORE is not set: serving the built-in "
            "demonstration administration\n");
  using Getter = HRESULT (KivIAdmin::*)(LumListPtrIUnknown&);
  for (Getter getter :
       {&KivIAdmin::GetProjects, &KivIAdmin::GetDomains, &KivIAdmin::GetHosts,
        &KivIAdmin::GetDataServers, &KivIAdmin::GetVaultServers,
        &KivIAdmin::GetSubscribingTargets, &KivIAdmin::GetSubscriptions,
        &KivIAdmin::GetExternSites, &KivIAdmin::GetPackageDefinitions}) {
    LumListPtrIUnknown list(0);
    EXPECT_GE((admin->*getter)(list), 0);
    EXPECT_GT(list.Count(), 0);
  }
  KivILocalSite* local = nullptr;
  admin->GetLocalSite(local);
  EXPECT_NE(local, nullptr);
}

}  // namespace
