// Tests of the object-model library against real stores.
//
// Plan:
//   StoreRoundTrip  what the exported document does not show: raw values,
//                   a null server, SupportsInterface and QueryInterface
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

// An object's identifier as "x" and hexadecimal; "-" for none.
template <class T>
std::string X(T* object) {
  if (!object) return "-";
  LumDbBinary oid(0);
  object->GetOid(oid);
  return std::string("x") + oid.GetHexaValue().ConvertToChar();
}

// The elements of a list, as the interface its getter stored.
template <class T>
std::vector<T*> Items(LumListPtrIUnknown& list) {
  std::vector<T*> items;
  for (int i = 1; i <= list.Count(); ++i)
    items.push_back(static_cast<T*>(list[i]));
  return items;
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
    if (!admin) GetKivIAdmin(admin);
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

// Every text and reference of a store reaches the document, so the golden
// documents of the end-to-end tests check what those getters answer. These
// check what the document does not show as it is.
TEST_F(StoreRoundTrip, WhatTheDocumentDoesNotShow) {
  path = OutputPath("hidden.db");
  MakeStore(path,
            {ReadFile(DataPath("full.sql")),
             "UPDATE data_domain SET kind = 'file' WHERE oid = x'1002';"});
  ASSERT_GE(Open(&path), 0);

  LumListPtrIUnknown domains(0), projects(0), targets(0), hosts(0);
  admin->GetDomains(domains);
  std::string visible;
  for (KivIDomain* d : Items<KivIDomain>(domains))
    visible += std::to_string(d->GetVisible());
  EXPECT_EQ(visible, "150");

  admin->GetProjects(projects);
  LumListPtrIUnknown dataDomains(0);
  Items<KivIProject>(projects)[0]->GetDataDomains(dataDomains);
  ASSERT_EQ(dataDomains.Count(), 2);
  EXPECT_NE(Items<KivIDataDomain>(dataDomains)[0]->IsRdb(), 0);
  EXPECT_EQ(Items<KivIDataDomain>(dataDomains)[1]->IsRdb(), 0);

  // A status whose server is NULL gives a null server.
  admin->GetSubscribingTargets(targets);
  LumListPtrIUnknown statuses(0);
  Items<KivIReplSubscribingTarget>(targets)[2]->GetCaptureStatuses(statuses);
  KivIObject* server = Items<KivIReplCaptureStatus>(statuses)[0];  // not null
  EXPECT_EQ(
      Items<KivIReplCaptureStatus>(statuses)[0]->GetCaptureServer(&server),
      S_OK);
  EXPECT_EQ(server, nullptr);

  admin->GetHosts(hosts);
  KivIHost* host = Items<KivIHost>(hosts)[0];
  for (const char* name : {"KivIHost", "KivIObject", "IUnknown"})
    EXPECT_TRUE(host->SupportsInterface(name)) << name;
  for (const char* name : {"KivIDataServer", "kivihost", ""})
    EXPECT_FALSE(host->SupportsInterface(name)) << name;
  void* seen = nullptr;
  EXPECT_EQ(host->QueryInterface(KivIHost::kIid, &seen), S_OK);
  EXPECT_EQ(seen, static_cast<void*>(host));
  EXPECT_EQ(host->QueryInterface(KivIDataServer::kIid, &seen), E_NOINTERFACE);
  EXPECT_EQ(seen, nullptr);
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
  EXPECT_EQ(hosts.Count(), 2);
  sqlite3_exec(writer, "COMMIT;", nullptr, nullptr, nullptr);
  sqlite3_close(writer);
}

TEST_F(StoreUse, GettersFailAfterEndAndOnlyAClosedSessionIsReplaced) {
  OpenFull();
  ASSERT_NE(SdaiSession::CurrentSession(), nullptr);
  EXPECT_GE(admin->End(), 0);
  LumListPtrIUnknown hosts(0);
  EXPECT_LT(admin->GetHosts(hosts), 0);
  KivILocalSite* local = nullptr;
  EXPECT_LT(admin->GetLocalSite(local), 0);
  EXPECT_LT(admin->End(), 0);
  {
    CaptureStderr err;
    EXPECT_LT(Open(&path), 0);  // the objects of the open session live on
    EXPECT_EQ(err.Text(), "KivAdmin: Init: a session is already open\n");
  }
  SdaiSession::CurrentSession()->CloseSession();
  EXPECT_EQ(SdaiSession::CurrentSession(), nullptr);
  EXPECT_GE(Open(&path), 0);
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
