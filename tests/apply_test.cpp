// Tests of vantrel-doc apply, through the built binaries on real stores.
//
// Plan:
//   Wanted     for each wanted document (renames, additions with children
//              and links, removals, a child moved to another owner, a list
//              in another order, a changed date, a change of kind, a random
//              store's document applied to another): the store then exports
//              it byte for byte, passes integrity_check, and a second apply
//              writes nothing
//   Kept       what the document does not carry: statuses without a
//              server, media paths, NULL texts
//   Unchanged  a dry run, a stale --base, a refused document, a store the
//              exporter refuses: the store byte for byte as it was
//   Killed     SIGKILL at several moments of a large apply: the store
//              exports the document before or the one after
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "binaries.h"
#include "test_support.h"

using binaries::Doc;
using test_support::DataPath;
using test_support::MakeStore;
using test_support::OutputPath;
using test_support::ReadFile;
using test_support::RunResult;
using test_support::WriteFile;

namespace {

// The document store exports ("": the demonstration).
std::string Exported(const std::string& store) {
  return binaries::Export(store, OutputPath("apply-export.xml"));
}

// Makes a store of sql at name, and returns its path.
std::string Store(const std::string& name,
                  const std::vector<std::string>& sql) {
  const std::string path = OutputPath(name + ".db");
  MakeStore(path, sql);
  return path;
}

// Copies the file at from to to.
void Copy(const std::string& from, const std::string& to) {
  WriteFile(to, ReadFile(from));
}

std::string Sql(const std::string& store, const std::string& query) {
  return test_support::Run("sqlite3", {store, query}, {}).out;
}

TEST(Wanted, TheStoreExportsTheDocumentAndASecondApplyWritesNothing) {
  const std::string full = ReadFile(DataPath("full.sql"));
  const struct {
    const char* name;
    std::vector<std::string> have, want;  // SQL of the two stores
  } cases[] = {
      {"renames",
       {full},
       {full,
        "UPDATE host SET name = 'gamma' WHERE oid = x'0A02';"
        "UPDATE project SET name = 'P&TWO<' WHERE oid = x'0D02';"}},
      {"additions with children and links",
       {full},
       {full,
        "INSERT INTO project VALUES (x'0D09', 'NEW');"
        "INSERT INTO data_domain VALUES (x'1009', x'0D09', 'DDNEW', '', "
        "'', 'db2', 'rdb', x'0F01', x'0B02');"
        "INSERT INTO project_vault_server VALUES (x'0D09', x'0C02');"
        "INSERT INTO package_whole_data_domain VALUES (x'1402', "
        "x'1009');"}},
      {"removals",
       {full},
       {full,
        "DELETE FROM package_whole_data_domain; DELETE FROM "
        "project_vault_server WHERE project = x'0D01';"
        "DELETE FROM project_data_server WHERE project = x'0D01';"
        "DELETE FROM data_domain WHERE project = x'0D01';"
        "DELETE FROM project WHERE oid = x'0D01';"}},
      {"a child moved to another owner",
       {full},
       {full,
        "UPDATE business_domain SET domain = x'0E01' WHERE oid = "
        "x'0F03';"}},
      {"a list in another order",
       {full},
       {full,
        "UPDATE host SET rowid = 10 WHERE oid = x'0A01';"
        "UPDATE extern_site SET rowid = 10 WHERE oid = x'1101';"}},
      {"a changed date",
       {full},
       {full,
        "UPDATE capture_status SET last_successful_date = '2027-01-01' "
        "WHERE oid = x'1701';"}},
      {"an identifier that changes kind",
       {full},
       {full,
        "DELETE FROM host WHERE oid = x'0A02';"
        "INSERT INTO extern_site VALUES (x'0A02', 'was a host');"}},
      {"a random store's document to another",
       {test_support::RandomStore(3)},
       {test_support::RandomStore(4)}},
      {"the test store to the demonstration", {full}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string store = Store("apply-have", c.have);
    const std::string wanted = OutputPath("apply-wanted.xml");
    WriteFile(wanted, c.want.empty() ? Exported("")
                                     : Exported(Store("apply-want", c.want)));
    RunResult run = Doc({"apply", wanted, store});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(Exported(store) == ReadFile(wanted));
    EXPECT_EQ(Sql(store, "PRAGMA integrity_check"), "ok\n");
    const std::string bytes = ReadFile(store);
    run = Doc({"apply", wanted, store});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, store + ": nothing to change\n");
    EXPECT_TRUE(ReadFile(store) == bytes);
  }
}

TEST(Kept, WhatTheDocumentDoesNotCarry) {
  const std::string full = ReadFile(DataPath("full.sql"));
  const std::string store =
      Store("apply-kept", {full,
                           "INSERT INTO capture_status VALUES (x'1709', "
                           "x'1502', NULL, 'no server');"});
  const std::string wanted = OutputPath("apply-kept.xml");
  WriteFile(wanted,
            Exported(Store("apply-kept-want", {full,
                                               "UPDATE host SET name = 'gamma' "
                                               "WHERE oid = x'0A02';"})));
  ASSERT_EQ(Doc({"apply", wanted, store}).status, 0);
  EXPECT_EQ(Sql(store,
                "SELECT quote(os_type) FROM host WHERE oid = x'0A02';"
                "SELECT media_path FROM media WHERE oid = x'1301';"
                "SELECT last_successful_date FROM capture_status WHERE oid = "
                "x'1709';"),
            "NULL\n/media/one\nno server\n");
}

TEST(Unchanged, RefusalsAndDryRunsLeaveTheStoreAsItWas) {
  const std::string full = ReadFile(DataPath("full.sql"));
  const std::string store = Store("apply-same", {full});
  const std::string wanted = OutputPath("apply-same.xml"),
                    stale = OutputPath("apply-stale.xml"),
                    cut = OutputPath("apply-cut.xml");
  WriteFile(wanted, Exported(Store("apply-same-want",
                                   {full,
                                    "DELETE FROM extern_site WHERE oid "
                                    "= x'1102'; UPDATE subscription SET "
                                    "extern_site = NULL;"})));
  WriteFile(stale, Exported(Store("apply-same-stale",
                                  {full, "UPDATE host SET name = 'x';"})));
  WriteFile(cut, ReadFile(wanted).substr(0, 900));
  const std::string refusedStore =
      Store("apply-refused", {full, "PRAGMA user_version = 3;"});
  const struct {
    const char* name;
    std::vector<std::string> args;
    std::string store;
    int status;
    std::string err;  // the last line
  } cases[] = {
      {"a dry run", {"apply", "--dry-run", wanted, store}, store, 1, ""},
      {"a stale base",
       {"apply", "--base", stale, wanted, store},
       store,
       1,
       "vantrel-doc: " + store + " no longer exports " + stale +
           ": it was changed since; " + store + " was not changed\n"},
      {"a refused document",
       {"apply", cut, store},
       store,
       1,
       "vantrel-doc: " + cut + " is refused by check; " + store +
           " was not changed\n"},
      {"a store the exporter refuses",
       {"apply", wanted, refusedStore},
       refusedStore,
       2,
       "vantrel-doc: " + refusedStore + " cannot be exported; " + refusedStore +
           " was not changed\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string bytes = ReadFile(c.store);
    const RunResult run = Doc(c.args);
    EXPECT_EQ(run.status, c.status) << run.err;
    EXPECT_EQ(run.err.substr(run.err.empty()
                                 ? 0
                                 : run.err.rfind('\n', run.err.size() - 2) + 1),
              c.err);
    EXPECT_TRUE(ReadFile(c.store) == bytes);
  }
  // The plan of the dry run, as diff lists it.
  const RunResult plan = Doc({"apply", "--dry-run", wanted, store});
  EXPECT_EQ(plan.out,
            "changed SUBSCRIPTION x1601 \"SONE\" ExternSite: \"x1102\" -> "
            "(none)\nremoved EXTERNSITE x1102 \"WEST\"\n");
  // With the base it was planned from, it applies.
  const std::string base = OutputPath("apply-base.xml");
  WriteFile(base, Exported(store));
  EXPECT_EQ(Doc({"apply", "--base", base, wanted, store}).status, 0);
  EXPECT_TRUE(Exported(store) == ReadFile(wanted));
}

// A large store applied to another, killed at several moments: the store
// exports one document or the other, never a mix.
TEST(Killed, AnApplyKilledLeavesTheStoreBeforeOrAfter) {
  const auto projects = [](int count, const char* name) {
    return "WITH RECURSIVE k(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM k "
           "WHERE i < " +
           std::to_string(count) +
           ") INSERT INTO project SELECT CAST(printf('P%06d', i) AS BLOB), '" +
           name + "' || i FROM k;";
  };
  const std::string before = OutputPath("killed-before.xml"),
                    after = OutputPath("killed-after.xml");
  const std::string original = Store("killed-original", {projects(30000, "p")});
  WriteFile(before, Exported(original));
  WriteFile(after,
            Exported(Store("killed-wanted", {projects(20000, "renamed")})));
  for (int ms : {5, 30, 80, 150, 300}) {
    SCOPED_TRACE(ms);
    const std::string store = OutputPath("killed.db");
    Copy(original, store);
    std::remove((store + "-journal").c_str());
    const pid_t child = ::fork();
    if (child == 0) {
      ::freopen("/dev/null", "w", stdout);
      ::execl(VANTREL_DOC_BINARY, VANTREL_DOC_BINARY, "apply", after.c_str(),
              store.c_str(), static_cast<char*>(nullptr));
      ::_exit(127);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    const std::string now = Exported(store);
    EXPECT_TRUE(now == ReadFile(before) || now == ReadFile(after))
        << now.size();
    EXPECT_EQ(Sql(store, "PRAGMA integrity_check"), "ok\n");
  }
}

}  // namespace
