// Tests of the object-model library against real stores.
//
// Plan (the refusals of bad stores are tested end to end):
//   StoreRoundTrip  what the exported document does not show: raw values,
//                   a null server, SupportsInterface and QueryInterface
//   StoreUse        one read transaction while a writer commits, the wait for
//                   a writer's lock and its limit, children asked in any
//                   order, objects freed as they are released, a bad row
//                   failing every later getter and End, End and CloseSession
#include <sqlite3.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "AdminStore.h"
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
  EXPECT_EQ(visible, "110");

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

using StoreUse = StoreTest;

// Runs sql on its own connection to path; returns the connection.
sqlite3* Writer(const std::string& path, const char* sql) {
  sqlite3* writer = nullptr;
  EXPECT_EQ(sqlite3_open(path.c_str(), &writer), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(writer, sql, nullptr, nullptr, nullptr), SQLITE_OK);
  return writer;
}

// The names of a list of objects of interface T, joined by blanks; gives
// their references back.
template <class T>
std::string Names(LumListPtrIUnknown& list) {
  std::string names;
  for (T* item : Items<T>(list)) {
    names +=
        std::string(names.empty() ? "" : " ") + item->GetName().ConvertToChar();
    item->Release();
  }
  return names;
}

// A writer that commits between two tables is not seen: in WAL mode it can
// commit while the export reads.
TEST_F(StoreUse, OneReadTransactionWhileAWriterCommits) {
  path = OutputPath("snapshot.db");
  MakeStore(path, {ReadFile(DataPath("full.sql")), "PRAGMA journal_mode=WAL;"});
  ASSERT_GE(Open(&path), 0);
  LumListPtrIUnknown projects(0), hosts(0);
  admin->GetProjects(projects);
  sqlite3_close(
      Writer(path, "INSERT INTO host VALUES (x'99', 'new', '', '');"));
  admin->GetHosts(hosts);
  EXPECT_EQ(Names<KivIHost>(hosts), "alpha beta");
}

// The reader waits for a writer's lock, up to its limit, then says so.
TEST_F(StoreUse, WaitsForAWritersLockUpToItsLimit) {
  OpenFull();
  TearDown();
  sqlite3* writer = Writer(path,
                           "BEGIN EXCLUSIVE;"
                           "INSERT INTO host VALUES (x'99', 'new', '', '');");
  std::thread commit([writer] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    sqlite3_exec(writer, "COMMIT", nullptr, nullptr, nullptr);
  });
  EXPECT_GE(Open(&path), 0);
  commit.join();
  LumListPtrIUnknown hosts(0);
  admin->GetHosts(hosts);
  EXPECT_EQ(Names<KivIHost>(hosts), "alpha beta new");
  TearDown();

  sqlite3_exec(writer, "BEGIN EXCLUSIVE; DELETE FROM host;", nullptr, nullptr,
               nullptr);
  CaptureStderr err;
  EXPECT_LT(Open(&path), 0);
  EXPECT_EQ(err.Text(), "KivAdmin: cannot open the administration store \"" +
                            path +
                            "\": the store is locked by a process writing to "
                            "it; gave up after waiting 5 s: retry once the "
                            "writer has finished\n");
  sqlite3_close(writer);
}

// The children of full.sql are interleaved across their owners; a link row
// of the second project added last comes after those of the third.
TEST_F(StoreUse, ChildrenInTheirOrderWhateverOrderTheOwnersAreAskedIn) {
  path = OutputPath("interleaved.db");
  MakeStore(path,
            {ReadFile(DataPath("full.sql")),
             "INSERT INTO project_data_server VALUES (x'0D02', x'0B01');"});
  ASSERT_GE(Open(&path), 0);
  LumListPtrIUnknown projects(0);
  admin->GetProjects(projects);
  const std::vector<KivIProject*> p = Items<KivIProject>(projects);
  std::string seen;
  for (int i : {2, 0, 0, 1, 2}) {
    LumListPtrIUnknown dataDomains(0), dataServers(0);
    EXPECT_EQ(p[i]->GetDataDomains(dataDomains), S_OK);
    EXPECT_EQ(p[i]->GetDataServers(dataServers), S_OK);
    seen += "[" + Names<KivIDataDomain>(dataDomains) + "|" +
            Names<KivIDataServer>(dataServers) + "]";
  }
  EXPECT_EQ(seen,
            "[DDTHREE|SIDEDB][DDONE DDTWO|MAINDB][DDONE DDTWO|MAINDB]"
            "[|MAINDB][DDTHREE|SIDEDB]");
}

// Memory follows what the caller holds: an object lives from its hand-out
// to its last Release, or to the end of the session.
TEST_F(StoreUse, ObjectsLiveWhileTheirReferencesAreHeld) {
  OpenFull();
  kiv::AdminStore* store = kiv::CurrentStore();
  ASSERT_NE(store, nullptr);
  EXPECT_EQ(store->Live(), 0u);
  LumListPtrIUnknown projects(0), dataDomains(0);
  admin->GetProjects(projects);
  KivIProject* first = Items<KivIProject>(projects)[0];
  first->GetDataDomains(dataDomains);
  EXPECT_EQ(store->Live(), 5u);
  KivIDataServer* server = nullptr;
  Items<KivIDataDomain>(dataDomains)[0]->GetDataServer(server);
  first->AddRef();
  EXPECT_EQ(store->Live(), 6u);
  Names<KivIProject>(projects);
  Names<KivIDataDomain>(dataDomains);
  EXPECT_EQ(store->Live(), 2u);
  EXPECT_EQ(first->Release(), 0u);
  EXPECT_EQ(store->Live(), 1u);
  // The server, still held, is freed when the session closes.
}

TEST_F(StoreUse, ABadRowFailsItsGetterEveryLaterOneAndEnd) {
  path = OutputPath("bad-row.db");
  MakeStore(path,
            {ReadFile(DataPath("full.sql")),
             "UPDATE domain SET visible = 2 WHERE oid = x'0E03';"},
            true);
  ASSERT_GE(Open(&path), 0);
  LumListPtrIUnknown projects(0), domains(0), hosts(0);
  EXPECT_EQ(admin->GetProjects(projects), S_OK);
  Names<KivIProject>(projects);
  {
    CaptureStderr err;
    EXPECT_EQ(admin->GetDomains(domains), E_FAIL);
    EXPECT_EQ(admin->GetHosts(hosts), E_FAIL);
    EXPECT_EQ(err.Text(),
              "KivAdmin: cannot read the administration store \"" + path +
                  "\": table domain, row 3 (oid x0E03), column visible: 2 is "
                  "not the integer 0 or 1\n");
  }
  EXPECT_EQ(domains.Count() + hosts.Count(), 0);
  EXPECT_EQ(kiv::CurrentStore()->Live(), 0u);
  KivILocalSite* local = nullptr;
  EXPECT_EQ(admin->GetLocalSite(local), E_FAIL);
  EXPECT_EQ(local, nullptr);
  EXPECT_LT(admin->End(), 0);
  admin->Release();
  admin = nullptr;
}

// A data domain met first as a package's is read alone, and its owner is
// checked then: no project lists it.
TEST_F(StoreUse, AChildReadAloneHasItsOwnerChecked) {
  path = OutputPath("orphan.db");
  MakeStore(path,
            {ReadFile(DataPath("full.sql")),
             "UPDATE data_domain SET project = x'77' WHERE oid = x'1003';"},
            true);
  ASSERT_GE(Open(&path), 0);
  LumListPtrIUnknown packages(0), dataDomains(0), hosts(0);
  ASSERT_EQ(admin->GetPackageDefinitions(packages), S_OK);
  ASSERT_EQ(Items<KivIReplPackageDefinition>(packages)[0]->GetWholeDataDomains(
                dataDomains),
            S_OK);
  ASSERT_EQ(dataDomains.Count(), 2);
  CaptureStderr err;
  Items<KivIDataDomain>(dataDomains)[1]->GetName();
  EXPECT_EQ(admin->GetHosts(hosts), E_FAIL);
  EXPECT_EQ(err.Text(), "KivAdmin: cannot read the administration store \"" +
                            path +
                            "\": table data_domain, row 1 (oid x1003), column "
                            "project: x77 names no project row\n");
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

// A session closed without End: its store is gone, every getter fails.
TEST_F(StoreUse, GettersFailAfterTheSessionClosesWithoutEnd) {
  OpenFull();
  SdaiSession::CurrentSession()->CloseSession();
  LumListPtrIUnknown hosts(0), projects(0);
  EXPECT_LT(admin->GetHosts(hosts), 0);
  EXPECT_LT(admin->GetProjects(projects), 0);
  KivILocalSite* local = nullptr;
  EXPECT_LT(admin->GetLocalSite(local), 0);
  EXPECT_LT(admin->End(), 0);
  EXPECT_EQ(hosts.Count() + projects.Count(), 0);
}

// The schema refuses a text holding a line break as it is typed.
TEST(Schema, RefusesALineBreakInAText) {
  const std::string path = OutputPath("line-break.db");
  MakeStore(path, {});
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  for (const char* sql :
       {"INSERT INTO host VALUES (x'01', 'a' || char(10), NULL, NULL)",
        "INSERT INTO project VALUES (x'02', 'b' || char(13))"})
    EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr),
              SQLITE_CONSTRAINT)
        << sql;
  sqlite3_close(db);
}

TEST_F(StoreUse, NoLocalSiteIsNoFailure) {
  path = OutputPath("no-local.db");
  MakeStore(path, {"INSERT INTO host VALUES (x'01', 'h', '', '');"});
  ASSERT_GE(Open(&path), 0);
  KivILocalSite* local = reinterpret_cast<KivILocalSite*>(&local);
  EXPECT_EQ(admin->GetLocalSite(local), S_OK);
  EXPECT_EQ(local, nullptr);
}

}  // namespace
