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
//              server, media paths, NULL texts; the store's run-time state,
//              which an older archive, a rename against a base whose dates
//              moved, leave alone, and --run-time restores
//   Unchanged  a dry run, one that says what the apply would refuse (in its
//              JSON plan too, as the schema says), a
//              stale --base, each guard, a log that cannot be written or is
//              a file of the apply, a refused document, a store the
//              exporter refuses, a change that misses a row or stores
//              another value than the document's (the verification before
//              the commit): the store byte for byte as it was
//   Guarded    an apply waits for a writer and reads what it wrote, and
//              gives up after the wait it says; a store renamed over during
//              the apply (locked, or writing) is not claimed, nor one
//              renamed over while the apply waits for its lock; a stylesheet
//              instruction is not configuration
//   Logged     a line per apply after its commit, with the digests before
//              and after and the plan, a name that is not UTF-8 escaped; a
//              guard's refusal's line; an unchanged apply's; none for a dry
//              run, refused or not; a line cut short by a crash ended before
//              the next
//   Promoted   a project with its data domains promoted by --only, what
//              else the store holds kept; a part naming what the store
//              lacks refused, naming it; 160 objects at once, the line
//              naming them by their count; a child the store holds under
//              another parent leaves it; a writer that commits while the
//              part waits for the lock is not undone
//   Killed     SIGKILL, SIGTERM, SIGINT and SIGHUP at several moments of a
//              large apply, before and during its writes: the store exports
//              the document before or the one after, through vantrel-doc
//              export at once and then through the exporter; a signal that
//              is caught leaves no journal, and nothing is left in TMPDIR
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <regex>
#include <sstream>
#include <thread>

#include "binaries.h"
#include "test_support.h"

using binaries::Doc;
using test_support::DataPath;
using test_support::MakeStore;
using test_support::OutputPath;
using test_support::Projects;
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
    std::string summary;                  // what apply says it did, or ""
  } cases[] = {
      {"renames",
       {full},
       {full,
        "UPDATE host SET name = 'gamma' WHERE oid = x'0A02';"
        "UPDATE project SET name = 'P&TWO<' WHERE oid = x'0D02';"},
       "0 rows added, 2 changed, 0 removed, 0 lists put in order, 0 link lists "
       "rewritten"},
      {"additions with children and links",
       {full},
       {full,
        "INSERT INTO project VALUES (x'0D09', 'NEW');"
        "INSERT INTO data_domain VALUES (x'1009', x'0D09', 'DDNEW', '', "
        "'', 'db2', 'rdb', x'0F01', x'0B02');"
        "INSERT INTO project_vault_server VALUES (x'0D09', x'0C02');"
        "INSERT INTO package_whole_data_domain VALUES (x'1402', "
        "x'1009');"},
       "2 rows added, 0 changed, 0 removed, 0 lists put in order, 2 link lists "
       "rewritten"},
      {"removals",
       {full},
       {full,
        "DELETE FROM package_whole_data_domain; DELETE FROM "
        "project_vault_server WHERE project = x'0D01';"
        "DELETE FROM project_data_server WHERE project = x'0D01';"
        "DELETE FROM data_domain WHERE project = x'0D01';"
        "DELETE FROM project WHERE oid = x'0D01';"},
       "0 rows added, 0 changed, 3 removed, 0 lists put in order, 3 link lists "
       "rewritten"},
      {"a child moved to another owner",
       {full},
       {full,
        "UPDATE business_domain SET domain = x'0E01' WHERE oid = "
        "x'0F03';"},
       "0 rows added, 1 changed, 0 removed, 0 lists put in order, 0 link lists "
       "rewritten"},
      {"a child moved to another owner, first in its list",
       {full},
       {full,
        "UPDATE business_domain SET domain = x'0E01', rowid = -1 WHERE oid = "
        "x'0F03';"},
       "0 rows added, 1 changed, 0 removed, 0 lists put in order, 0 link lists "
       "rewritten"},
      {"an addition and its list in another order",
       {full},
       {full,
        "UPDATE host SET rowid = 10 WHERE oid = x'0A01';"
        "INSERT INTO host (rowid, oid, name) VALUES (20, x'0A09', 'gamma');"},
       "1 rows added, 0 changed, 0 removed, 1 lists put in order, 0 link lists "
       "rewritten"},
      {"a list in another order",
       {full},
       {full,
        "UPDATE host SET rowid = 10 WHERE oid = x'0A01';"
        "UPDATE extern_site SET rowid = 10 WHERE oid = x'1101';"},
       "0 rows added, 0 changed, 0 removed, 2 lists put in order, 0 link lists "
       "rewritten"},
      {"a domain made visible",
       {full},
       {full, "UPDATE domain SET visible = 1 - visible;"},
       "0 rows added, 3 changed, 0 removed, 0 lists put in order, 0 link lists "
       "rewritten"},
      {"a changed date",
       {full},
       {full,
        "UPDATE capture_status SET last_successful_date = '2027-01-01' "
        "WHERE oid = x'1701';"},
       "0 rows added, 1 changed, 0 removed, 0 lists put in order, 0 link lists "
       "rewritten"},
      {"an identifier that changes kind",
       {full},
       {full,
        "DELETE FROM host WHERE oid = x'0A02';"
        "INSERT INTO extern_site VALUES (x'0A02', 'was a host');"},
       "1 rows added, 0 changed, 1 removed, 0 lists put in order, 0 link lists "
       "rewritten"},
      {"a random store's document to another",
       {test_support::RandomStore(3)},
       {test_support::RandomStore(4)},
       ""},
      {"the test store to the demonstration",
       {full},
       {},
       "27 rows added, 0 changed, 34 removed, 0 lists put in order, 7 link "
       "lists rewritten"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string store = Store("apply-have", c.have);
    const std::string wanted = OutputPath("apply-wanted.xml");
    WriteFile(wanted, c.want.empty() ? Exported("")
                                     : Exported(Store("apply-want", c.want)));
    // A real apply prints the plan its dry run showed, then what it did.
    // The demonstration is another installation's document: the dry run
    // says that the apply would be refused.
    // --run-time: the document's run-time state is written too.
    const RunResult plan =
        Doc({"apply", "--dry-run", "--run-time", wanted, store});
    EXPECT_EQ(plan.status, c.want.empty() ? 3 : 1) << plan.err;
    RunResult run =
        Doc({"apply", "--other-installation", "--run-time", wanted, store});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out.substr(0, plan.out.size()), plan.out);
    if (!c.summary.empty()) {
      EXPECT_EQ(run.out.substr(plan.out.size()),
                store + ": now exports " + wanted + ": " + c.summary + "\n");
    }
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

// Run-time state is the system's: an apply keeps the store's, the undo by
// an older archive leaves the live dates alone, and --base does not compare
// it; --run-time writes the document's. --keep keeps the store's values of
// the attributes it names, the rest applied.
TEST(Kept, TheStoresRunTimeStateAndWhatKeepNames) {
  const std::string full = ReadFile(DataPath("full.sql"));
  const std::string moved =
      "UPDATE capture_status SET last_successful_date = '2027-03-03';";
  const std::string store = Store("apply-run-time", {full, moved});
  const std::string older = OutputPath("apply-run-time-older.xml"),
                    renamed = OutputPath("apply-run-time-renamed.xml"),
                    base = OutputPath("apply-run-time-base.xml");
  WriteFile(older, Exported(Store("apply-run-time-older", {full})));
  WriteFile(renamed,
            Exported(Store("apply-run-time-renamed",
                           {full, "UPDATE host SET name = 'gamma';"})));
  WriteFile(base, ReadFile(older));
  const std::string connected = OutputPath("apply-run-time-connected.xml");
  WriteFile(connected,
            Exported(Store("apply-run-time-connected",
                           {full, moved,
                            "UPDATE data_server SET connection_string = "
                            "'test/pw@testdb', name = 'PROMOTED';"})));
  const std::string connection =
      "SELECT group_concat(name || '=' || connection_string) FROM "
      "data_server;";
  const std::string connections = Sql(store, connection);
  const std::string dates =
      "SELECT group_concat(last_successful_date) FROM capture_status;";
  const std::string live = Sql(store, dates);
  const struct {
    const char* name;
    std::vector<std::string> options;
    std::string wanted;
    int status;
    bool datesKept;
    std::string err;  // a part of it
  } cases[] = {
      {"an older archive: nothing to change", {}, older, 0, true, ""},
      {"a rename reviewed against a base whose dates moved since",
       {"--base", base},
       renamed,
       0,
       true,
       " changed only its run-time state, which --base does not compare:\n"
       "0 added, 0 removed, 0 changed, 0 moved\nrun-time state, not "
       "configuration, 3 objects:\nchanged VAULTSERVERCAPTURESTATUS x1702 of "
       "x1501 (\"TONE\") LastSuccessfulDate: \"2026-01-02\" -> "
       "\"2027-03-03\"\n"},
      {"a promotion keeping the store's connection strings",
       {"--keep", "DATASERVER.ConnectionString,HOST.OSType"},
       connected,
       0,
       true,
       ""},
      {"a rule that names no attribute",
       {"--keep", "DATASERVER.Password"},
       connected,
       2,
       true,
       "vantrel-doc: apply: --keep: DATASERVER.Password names no attribute: "
       "a rule is KIND.Attribute, as the document writes them "
       "(DATASERVER.ConnectionString)"},
      {"a full restore", {"--run-time"}, older, 0, false, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::string> args = {"apply"};
    args.insert(args.end(), c.options.begin(), c.options.end());
    args.insert(args.end(), {c.wanted, store});
    const RunResult run = Doc(args);
    EXPECT_EQ(run.status, c.status) << run.err;
    EXPECT_NE(run.err.find(c.err), std::string::npos) << run.err;
    EXPECT_EQ(Sql(store, dates) == live, c.datesKept) << Sql(store, dates);
    EXPECT_EQ(Sql(store, "PRAGMA integrity_check"), "ok\n");
    if (c.wanted == renamed) {
      EXPECT_EQ(Sql(store, "SELECT name FROM host WHERE oid = x'0A01';"),
                "gamma\n");
    }
    if (c.wanted == connected && c.status == 0) {
      EXPECT_EQ(Sql(store, connection),
                std::regex_replace(connections, std::regex("[A-Z]+DB="),
                                   "PROMOTED="));
    }
  }
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
  // An identifier that changes kind removes what the store holds.
  const std::string newKind = OutputPath("apply-new-kind.xml");
  WriteFile(newKind, Exported(Store(
                         "apply-new-kind",
                         {full,
                          "DELETE FROM host WHERE oid = x'0A02';"
                          "INSERT INTO extern_site VALUES (x'0A02', 'b');"})));
  // A base as long as the store's export, one name apart.
  const std::string staleSameSize = OutputPath("apply-stale-same-size.xml");
  WriteFile(staleSameSize,
            Exported(Store("apply-stale-same-size",
                           {full,
                            "UPDATE host SET name = 'omega' WHERE oid = "
                            "x'0A01';"})));
  const std::string refusedStore =
      Store("apply-refused", {full, "PRAGMA user_version = 3;"});
  const std::string triggered = Store(
      "apply-trigger",
      {full,
       "CREATE TRIGGER audit AFTER UPDATE ON extern_site BEGIN UPDATE host SET "
       "name = 'audited'; END; CREATE VIEW hosts AS SELECT name FROM host;"});
  // A media the store keeps, whose identifier the document gives a host.
  const std::string mediaStore =
      Store("apply-media", {full, "INSERT INTO media VALUES (x'0A09', NULL);"});
  const std::string takesMedia = OutputPath("apply-takes-media.xml");
  WriteFile(takesMedia,
            Exported(Store("apply-takes-media",
                           {full,
                            "INSERT INTO host VALUES (x'0A09', 'gamma', "
                            "'', '');"})));
  // Two objects of one identifier.
  const std::string clash = OutputPath("apply-clash.xml");
  std::string clashing = ReadFile(wanted);
  clashing.replace(clashing.find("x0A02"), 5, "x0A01");
  WriteFile(clash, clashing);
  const std::string directory = OutputPath(""), missing = OutputPath("no.xml");
  std::remove(missing.c_str());
  // A FIFO that no one writes: refused, not waited on.
  const std::string fifo = OutputPath("apply-base.fifo");
  std::remove(fifo.c_str());
  ::mkfifo(fifo.c_str(), 0600);
  const std::string demo = OutputPath("apply-demo.xml");
  WriteFile(demo, Exported(""));
  // A column of numbers: the name the document gives is stored as another
  // value, which only the verification before the commit can see.
  const std::string numeric = Store(
      "apply-numeric",
      {full,
       "ALTER TABLE host RENAME TO old_host; CREATE TABLE host (oid BLOB "
       "PRIMARY KEY NOT NULL, name INTEGER, os_type TEXT, os_version TEXT); "
       "INSERT INTO host SELECT * FROM old_host; DROP TABLE old_host;"});
  // Host names unique, a clash ignored: of two names swapped, one update
  // is dropped without an error, which only the verification sees.
  const std::string unique = Store(
      "apply-unique",
      {full,
       "ALTER TABLE host RENAME TO old_host; CREATE TABLE host (oid BLOB "
       "PRIMARY KEY NOT NULL, name TEXT UNIQUE ON CONFLICT IGNORE, os_type "
       "TEXT, os_version TEXT); INSERT INTO host SELECT * FROM old_host; "
       "DROP TABLE old_host;"});
  const std::string swapped = OutputPath("apply-swapped.xml");
  WriteFile(swapped,
            Exported(Store("apply-swapped",
                           {full,
                            "UPDATE host SET name = CASE oid WHEN x'0A01' "
                            "THEN 'beta' ELSE 'alpha' END;"})));
  const std::string numbered = OutputPath("apply-numbered.xml");
  WriteFile(numbered,
            Exported(Store("apply-numbered",
                           {full,
                            "UPDATE host SET name = '0123' WHERE oid = "
                            "x'0A02';"})));
  const struct {
    const char* name;
    std::vector<std::string> args;  // "<FILE" first: standard input reads FILE
    std::string store;
    int status;
    std::string err;  // the last line
  } cases[] = {
      {"a dry run", {"apply", "--dry-run", wanted, store}, store, 1, ""},
      {"a stale base",
       {"apply", "--base", stale, wanted, store},
       store,
       3,
       "vantrel-doc: " + store + " no longer exports " + stale +
           ": it was changed since; " + store + " was not changed\n"},
      {"a stale base of the same size",
       {"apply", "--base", staleSameSize, wanted, store},
       store,
       3,
       "vantrel-doc: " + store + " no longer exports " + staleSameSize +
           ": it was changed since; " + store + " was not changed\n"},
      {"a refused document",
       {"apply", cut, store},
       store,
       1,
       "vantrel-doc: " + cut + " is refused by check; " + store +
           " was not changed\n"},
      {"a base that is a directory",
       {"apply", "--base", directory, wanted, store},
       store,
       2,
       "vantrel-doc: cannot read " + directory + ": Is a directory; " + store +
           " was not changed\n"},
      {"a base that is a FIFO",
       {"apply", "--base", fifo, wanted, store},
       store,
       2,
       "vantrel-doc: cannot read " + fifo + ": not a regular file; " + store +
           " was not changed\n"},
      {"a base that is the store itself",
       {"apply", "--base", store, wanted, store},
       store,
       2,
       "vantrel-doc: " + store +
           " is the store itself: --base names the archive the plan was "
           "reviewed against; " +
           store + " was not changed\n"},
      {"a log that is a directory",
       {"apply", "--log", directory, wanted, store},
       store,
       2,
       "vantrel-doc: cannot write " + directory + ": Is a directory; " + store +
           " was not changed\n"},
      {"a log in a missing directory",
       {"apply", "--log", missing + "/apply.log", wanted, store},
       store,
       2,
       "vantrel-doc: cannot write " + missing +
           "/apply.log: No such file or directory; " + store +
           " was not changed\n"},
      {"a log that is a FIFO",
       {"apply", "--log", fifo, wanted, store},
       store,
       2,
       "vantrel-doc: cannot write " + fifo + ": not a regular file; " + store +
           " was not changed\n"},
      {"a log that is a device",
       {"apply", "--log", "/dev/full", wanted, store},
       store,
       2,
       "vantrel-doc: cannot write /dev/full: not a regular file; " + store +
           " was not changed\n"},
      {"a log that is the store",
       {"apply", "--log", store, wanted, store},
       store,
       2,
       "vantrel-doc: cannot write " + store + ": it is an SQLite store; " +
           store + " was not changed\n"},
      {"a log that is the document",
       {"apply", "--log", wanted, wanted, store},
       wanted,
       2,
       "vantrel-doc: cannot write " + wanted + ": it is " + wanted +
           ", a file of the command itself; " + store + " was not changed\n"},
      {"a plan that would be the log, neither made yet",
       {"apply", "-o", missing, "--log", missing, wanted, store},
       store,
       2,
       "vantrel-doc: cannot write " + missing + ": it is " + missing +
           ", a file of the command itself\n"},
      {"a plan that cannot be written",
       {"apply", "--format", "json", "-o", "/dev/full", wanted, store},
       store,
       2,
       "vantrel-doc: cannot write /dev/full: No space left on device; " +
           store + " was not changed\n"},
      {"a stale base on standard input",
       {"<" + stale, "apply", "--base", "-", wanted, store},
       store,
       3,
       "vantrel-doc: " + store +
           " no longer exports the base on standard input: it was changed "
           "since; " +
           store + " was not changed\n"},
      {"the document and the base both on standard input",
       {"<" + wanted, "apply", "--base", "-", "-", store},
       store,
       2,
       "vantrel-doc: standard input is the document or the base, not both: "
       "name one of them as a file; " +
           store + " was not changed\n"},
      {"a clash in a document on standard input, named as given",
       {"<" + clash, "apply", "-", store},
       store,
       1,
       "vantrel-doc: <stdin> is refused by check; " + store +
           " was not changed\n"},
      {"a base that is a device",
       {"apply", "--base", "/dev/zero", wanted, store},
       store,
       2,
       "vantrel-doc: cannot read /dev/zero: not a regular file; " + store +
           " was not changed\n"},
      {"another installation's document",
       {"apply", demo, store},
       store,
       3,
       "vantrel-doc: " + demo +
           " is another installation's: its local site is x0901, the "
           "store's is x1201 (--other-installation applies it all the same); " +
           store + " was not changed\n"},
      {"more removals than allowed",
       {"apply", "--max-removals", "0", wanted, store},
       store,
       3,
       "vantrel-doc: the plan removes 1 objects, more than --max-removals 0; " +
           store + " was not changed\n"},
      {"a change of kind counted as a removal",
       {"apply", "--max-removals", "0", newKind, store},
       store,
       3,
       "vantrel-doc: the plan removes 1 objects, more than --max-removals 0; " +
           store + " was not changed\n"},
      {"a missing base",
       {"apply", "--base", missing, wanted, store},
       store,
       2,
       "vantrel-doc: cannot read " + missing + ": No such file or directory; " +
           store + " was not changed\n"},
      {"a store with a trigger and a view",
       {"apply", wanted, triggered},
       triggered,
       2,
       "vantrel-doc: " + triggered +
           " holds what its schema does not define (trigger audit, view "
           "hosts): apply writes only a store of the schema; " +
           triggered + " was not changed\n"},
      {"a kept media whose identifier the document gives a host",
       {"apply", takesMedia, mediaStore},
       mediaStore,
       3,
       "vantrel-doc: the store's media x0A09 is kept by apply, and " +
           takesMedia +
           " gives its identifier to a HOST: remove the media row or change "
           "the document; " +
           mediaStore + " was not changed\n"},
      {"a dry run the removals guard would refuse",
       {"apply", "--dry-run", "--max-removals", "0", wanted, store},
       store,
       3,
       "vantrel-doc: apply would refuse: the plan removes 1 objects, more than "
       "--max-removals 0\n"},
      {"a dry run the kept media would refuse",
       {"apply", "--dry-run", takesMedia, mediaStore},
       mediaStore,
       3,
       "vantrel-doc: apply would refuse: the store's media x0A09 is kept by "
       "apply, and " +
           takesMedia +
           " gives its identifier to a HOST: remove the media row or change "
           "the document\n"},
      {"a change that misses a row",
       {"apply", swapped, unique},
       unique,
       2,
       "vantrel-doc: after the change " + unique + " would not export " +
           swapped + " (a fault of vantrel-doc apply); " + unique +
           " was not changed\n"},
      {"a store that would not export the document",
       {"apply", numbered, numeric},
       numeric,
       2,
       "vantrel-doc: after the change " + numeric + " would not export " +
           numbered + " (a fault of vantrel-doc apply); " + numeric +
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
    // Every other file the command names, as it was: the document, the
    // base, the plan's file; a log keeps its lines whole.
    std::vector<std::pair<std::string, std::string>> named;
    for (std::size_t i = 0; i < c.args.size(); ++i) {
      struct stat st {};
      if (c.args[i] != c.store && ::stat(c.args[i].c_str(), &st) == 0 &&
          S_ISREG(st.st_mode))
        named.emplace_back(c.args[i], i && c.args[i - 1] == "--log"
                                          ? std::string("\x01log")
                                          : ReadFile(c.args[i]));
    }
    const RunResult run =
        c.args[0][0] != '<'
            ? Doc(c.args)
            : binaries::DocFrom(c.args[0].substr(1),
                                {c.args.begin() + 1, c.args.end()});
    EXPECT_EQ(run.status, c.status) << run.err;
    EXPECT_EQ(run.err.substr(run.err.empty()
                                 ? 0
                                 : run.err.rfind('\n', run.err.size() - 2) + 1),
              c.err);
    // A copy of standard input is named as the user named it.
    EXPECT_EQ(run.err.find("/proc/self/fd"), std::string::npos) << run.err;
    EXPECT_TRUE(ReadFile(c.store) == bytes);
    for (const auto& [file, was] : named) {
      if (was != "\x01log") {
        EXPECT_TRUE(ReadFile(file) == was) << file;
        continue;
      }
      std::istringstream lines(ReadFile(file));
      for (std::string line; std::getline(lines, line);)
        EXPECT_TRUE(line.front() == '{' && line.back() == '}') << line;
    }
  }
  // A stale base: what changed in the store since, in the plan's words.
  const RunResult staleRun = Doc({"apply", "--base", stale, wanted, store});
  EXPECT_NE(staleRun.err.find("vantrel-doc: since " + stale + ", " + store +
                              " changed:\nchanged HOST x0A01 \"alpha\" Name: "
                              "\"x\" -> \"alpha\"\n"),
            std::string::npos)
      << staleRun.err;
  // Many changes since the base: the first 18, then how many more.
  const std::string many = Store("apply-many", {Projects(25, "p")});
  const std::string manyBase = OutputPath("apply-many-base.xml");
  WriteFile(manyBase, Exported(many));
  Sql(many, "UPDATE project SET name = name || 'x';");
  const RunResult manyRun = Doc({"apply", "--base", manyBase, manyBase, many});
  EXPECT_EQ(manyRun.status, 3);
  std::size_t listed = 0;
  for (std::size_t at = 0;
       (at = manyRun.err.find("\nchanged PROJECT ", at)) != std::string::npos;
       ++at)
    ++listed;
  EXPECT_EQ(listed, 18u) << manyRun.err;
  EXPECT_NE(manyRun.err.find("\nand 7 more\n0 added, 0 removed, 25 changed"),
            std::string::npos)
      << manyRun.err;
  // A refused document's problems come first, on their lines, and before
  // anything of a store: one that does not exist is not named.
  const RunResult refused =
      Doc({"apply", cut, OutputPath("apply-no-such-store.db")});
  EXPECT_EQ(refused.err.rfind(cut + ":", 0), 0u) << refused.err;
  EXPECT_EQ(refused.err.find("cannot open"), std::string::npos) << refused.err;
  // The plan of the dry run, as diff lists it.
  const RunResult plan = Doc({"apply", "--dry-run", wanted, store});
  EXPECT_EQ(plan.out,
            "removed EXTERNSITE x1102 \"WEST\"\n"
            "changed SUBSCRIPTION x1601 \"SONE\" ExternSite: \"x1102\" "
            "(\"WEST\") -> (none)\n"
            "0 added, 1 removed, 1 changed, 0 moved\n");
  // A dry run's JSON plan carries what the apply would be refused by, as
  // its schema says.
  const std::string refusedPlan = OutputPath("apply-refused-plan.json");
  EXPECT_EQ(Doc({"apply", "--dry-run", "--format", "json", "--max-removals",
                 "0", "-o", refusedPlan, wanted, store})
                .status,
            3);
  EXPECT_NE(ReadFile(refusedPlan)
                .find("\"refused\": {\n    \"guard\": \"max-removals\",\n    "
                      "\"reason\": \"the plan removes 1 objects, more than "
                      "--max-removals 0\"\n  }"),
            std::string::npos)
      << ReadFile(refusedPlan);
  const RunResult valid = binaries::PlanChecked(refusedPlan, "");
  EXPECT_EQ(valid.status, 0) << valid.err;
  // -q leaves the exit status: nothing on standard output.
  const RunResult quiet = Doc({"apply", "-q", "--dry-run", wanted, store});
  EXPECT_EQ(quiet.status, 1);
  EXPECT_EQ(quiet.out + quiet.err, "");
  // A dry run with nothing to change still writes its plan where it is
  // asked to, and says when it cannot.
  const std::string same = OutputPath("apply-same-store.xml"),
                    planFile = OutputPath("apply-same-plan.txt");
  WriteFile(same, Exported(store));
  WriteFile(planFile, "an old plan");
  const RunResult empty =
      Doc({"apply", "--dry-run", "-o", planFile, same, store});
  EXPECT_EQ(empty.status, 0) << empty.err;
  EXPECT_EQ(ReadFile(planFile), "");
  const RunResult device = Doc({"apply", "--dry-run", "--format", "json", "-o",
                                "/dev/full", same, store});
  EXPECT_EQ(device.status, 2) << device.err;
  // So does an apply with nothing to change.
  WriteFile(planFile, "an old plan");
  const RunResult unchanged =
      Doc({"apply", "--format", "json", "-o", planFile, same, store});
  EXPECT_EQ(unchanged.status, 0) << unchanged.err;
  EXPECT_NE(ReadFile(planFile).find("\"removed\": 0"), std::string::npos)
      << ReadFile(planFile);
  // With the base it was planned from, it applies, and writes the plan it
  // carried out where it is asked to.
  const std::string base = OutputPath("apply-base.xml"),
                    carried = OutputPath("apply-carried.json");
  WriteFile(base, Exported(store));
  const RunResult applied = Doc({"apply", "--base", base, "--format", "json",
                                 "-o", carried, wanted, store});
  EXPECT_EQ(applied.status, 0) << applied.err;
  EXPECT_EQ(applied.out.find("removed EXTERNSITE"), std::string::npos);
  EXPECT_NE(applied.out.find(": now exports "), std::string::npos);
  EXPECT_NE(ReadFile(carried).find("\"oid\":\"x1102\",\"name\":\"WEST\""),
            std::string::npos);
  EXPECT_TRUE(Exported(store) == ReadFile(wanted));
}

// An apply waits for a writer at work, then reads what it wrote: the
// writer's change is not lost under the apply's.
TEST(Guarded, AnApplyWaitsForAWriterAndReadsWhatItWrote) {
  const std::string full = ReadFile(DataPath("full.sql"));
  const std::string store = Store("apply-waits", {full});
  const std::string wanted = OutputPath("apply-waits.xml");
  WriteFile(wanted,
            Exported(Store("apply-waits-want",
                           {full, "UPDATE project SET name = 'WANTED';"})));
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(store.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr),
            SQLITE_OK);
  // A dry run reads a snapshot: the writer's lock does not stop it.
  const RunResult dry = Doc({"apply", "--dry-run", wanted, store});
  EXPECT_EQ(dry.status, 1) << dry.err;
  EXPECT_NE(dry.out.find("changed PROJECT"), std::string::npos) << dry.out;
  const pid_t apply = binaries::Start({"apply", wanted, store});
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  ASSERT_EQ(
      sqlite3_exec(db, "UPDATE host SET name = 'written meanwhile'; COMMIT",
                   nullptr, nullptr, nullptr),
      SQLITE_OK);
  sqlite3_close(db);
  EXPECT_EQ(binaries::Wait(apply), 0);
  EXPECT_TRUE(Exported(store) == ReadFile(wanted));
  // A writer holding its exclusive lock past the wait: the dry run gives
  // up after the time it says, not after a wait per lock it tried.
  ASSERT_EQ(sqlite3_open(store.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "BEGIN EXCLUSIVE; UPDATE host SET name = 'x'",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  const auto start = std::chrono::steady_clock::now();
  const RunResult locked = Doc({"apply", "--dry-run", wanted, store});
  const auto waited = std::chrono::steady_clock::now() - start;
  sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
  sqlite3_close(db);
  EXPECT_EQ(locked.status, 2);
  EXPECT_NE(locked.err.find("(another process writes it; gave up after 5 s)"),
            std::string::npos)
      << locked.err;
  EXPECT_LT(waited, std::chrono::seconds(8));
}

// A store renamed over while an apply writes it: the change went to a
// file without the name, which is said; the file at the name stays.
TEST(Guarded, AStoreReplacedDuringTheApplyIsNotClaimed) {
  const std::string wanted = OutputPath("apply-replaced.xml");
  WriteFile(wanted, Exported(Store("apply-replaced-want",
                                   {Projects(20000, "renamed")})));
  const std::string log = OutputPath("apply-replaced.log");
  // Renamed over once the apply holds its lock and before it writes, or
  // once it writes: either step says so.
  const struct {
    const char* when;
    std::function<bool(const std::string& store)> reached;
  } moments[] = {
      {"locked, not yet written",
       [](const std::string& store) {
         sqlite3* db = nullptr;
         sqlite3_open(store.c_str(), &db);
         const bool locked = sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr,
                                          nullptr, nullptr) == SQLITE_BUSY;
         sqlite3_close(db);
         return locked;
       }},
      {"writing",
       [](const std::string& store) {
         return test_support::FileExists(store + "-journal");
       }},
  };
  for (const auto& m : moments) {
    SCOPED_TRACE(m.when);
    const std::string store = Store("apply-replaced", {Projects(30000, "p")});
    const std::string other = Store("apply-other", {Projects(10, "other")});
    const std::string kept = ReadFile(other);
    std::remove(log.c_str());
    const pid_t apply = binaries::Start({"apply", "--log", log, wanted, store});
    for (int i = 0; i < 20000 && !m.reached(store); ++i)
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    ASSERT_EQ(std::rename(other.c_str(), store.c_str()), 0);
    EXPECT_EQ(binaries::Wait(apply), 2);
    EXPECT_TRUE(ReadFile(store) == kept);
    // The record follows the commit: a refused commit is logged as such,
    // and names the store renamed over, whichever step met it.
    const std::string logged = ReadFile(log);
    EXPECT_EQ(logged.find("\"outcome\":\"applied\""), std::string::npos);
    EXPECT_NE(logged.find("\"outcome\":\"failed\""), std::string::npos);
    EXPECT_NE(logged.find(" was replaced by another file during the apply"),
              std::string::npos)
        << logged;
  }
}

// A store renamed over while an apply waits for its lock: the file opened
// no longer has the name, which is said before anything is written.
TEST(Guarded, AStoreReplacedWhileTheApplyWaitsIsRefused) {
  const std::string full = ReadFile(DataPath("full.sql"));
  const std::string store = Store("apply-swapped-store", {full});
  const std::string other =
      Store("apply-swapped-other", {full, "UPDATE host SET name = 'other';"});
  const std::string wanted = OutputPath("apply-swapped-store.xml");
  WriteFile(wanted,
            Exported(Store("apply-swapped-want",
                           {full, "UPDATE project SET name = 'WANTED';"})));
  const std::string kept = ReadFile(other);
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(store.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr),
            SQLITE_OK);
  RunResult run;
  std::thread apply([&] { run = Doc({"apply", wanted, store}); });
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  ASSERT_EQ(std::rename(other.c_str(), store.c_str()), 0);
  sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_close(db);
  apply.join();
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err, "vantrel-doc: " + store +
                         " was replaced by another file while it was opened; " +
                         store + " was not changed\n");
  EXPECT_TRUE(ReadFile(store) == kept);
}

// A document written with a stylesheet instruction is the same
// configuration: diff and apply agree that nothing differs.
TEST(Guarded, AStylesheetInstructionIsNotConfiguration) {
  const std::string store =
      Store("apply-styled", {ReadFile(DataPath("full.sql"))});
  const std::string styled = OutputPath("apply-styled.xml"),
                    plain = OutputPath("apply-plain.xml");
  WriteFile(plain, Exported(store));
  const RunResult exported =
      test_support::Run(VANTREL_BINARY, {"-f", styled, "-xsl", "admin.xsl"},
                        {{"KIV_ADMIN_STORE", store}});
  ASSERT_EQ(exported.status, 0);
  EXPECT_EQ(Doc({"diff", styled, plain}).status, 0);
  const RunResult run = Doc({"apply", styled, store});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, store + ": nothing to change\n");
}

// The log: a line per apply, appended after the commit with the digests of
// the documents before and after; a line for an apply refused, saying that
// nothing changed.
TEST(Logged, OneLinePerApplyAndAFailureLine) {
  const std::string full = ReadFile(DataPath("full.sql"));
  const std::string store = Store("apply-logged", {full});
  const std::string wanted = OutputPath("apply-logged.xml"),
                    log = OutputPath("apply.log"),
                    before = OutputPath("apply-logged-before.xml");
  // A record cut short by a crash: the next is written on a line of its own.
  WriteFile(log, "{\"partial");
  WriteFile(before, Exported(store));
  // A name that is not UTF-8 reaches the JSON as its escape.
  WriteFile(wanted, Exported(Store("apply-logged-want",
                                   {full,
                                    "DELETE FROM extern_site WHERE oid = "
                                    "x'1102'; UPDATE subscription SET "
                                    "extern_site = NULL; UPDATE host SET name "
                                    "= CAST(x'616CFF' AS TEXT) WHERE oid = "
                                    "x'0A01';"})));
  const auto digest = [](const std::string& file) {
    return "sha256:" +
           test_support::Run("sha256sum", {file}, {}).out.substr(0, 64);
  };
  // Refused, a dry run refused and one that is not, applied, unchanged.
  const struct {
    std::vector<std::string> options;
    int status;
  } runs[] = {{{"--max-removals", "0"}, 3},
              {{"--dry-run", "--base", wanted}, 3},
              {{"--dry-run"}, 1},
              {{"--base", before, "--comment", "TICKET-7: promote", "-o",
                "plan-out.json", "--format", "json"},
               0},
              {{}, 0}};
  for (const auto& r : runs) {
    std::vector<std::string> args = {"apply", "--log", log};
    args.insert(args.end(), r.options.begin(), r.options.end());
    args.insert(args.end(), {wanted, store});
    // Run from the output directory, as a user behind sudo: the record
    // names the files by their absolute paths, and that user.
    const RunResult run = test_support::Run(
        "/bin/sh",
        [&] {
          std::vector<std::string> a = {"-c", "cd \"$0\" && exec \"$@\"",
                                        OutputPath(""), VANTREL_DOC_BINARY};
          a.insert(a.end(), args.begin(), args.end());
          return a;
        }(),
        {{"SUDO_USER", "alice"}, {"KIV_ADMIN_STORE", std::nullopt}});
    EXPECT_EQ(run.status, r.status) << args[3] << run.err;
  }
  // A dry run is not an apply: three lines after the one cut short.
  std::vector<std::string> lines;
  std::istringstream in(ReadFile(log));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  ASSERT_EQ(lines.size(), 4u) << ReadFile(log);
  EXPECT_EQ(lines[0], "{\"partial");
  lines.erase(lines.begin());
  const struct {
    std::string line;
    std::vector<std::string> parts;
  } expected[] = {
      {lines[0],
       {"\"outcome\":\"refused\"",
        "\"reason\":\"the plan removes 1 objects, more than --max-removals 0\"",
        "\"changed\":false", "\"store\":\"" + store + "\""}},
      {lines[1],
       {"\"outcome\":\"applied\"", "\"before\":\"" + digest(before) + "\"",
        "\"after\":\"" + digest(wanted) + "\"", "\"user\":\"alice\"",
        "\"installation\":{\"local_site\":\"x1201\",\"name\":",
        "\"document\":\"" + wanted + "\"",
        "\"document_digest\":\"" + digest(wanted) + "\"",
        "\"base_digest\":\"" + digest(before) + "\"",
        "\"comment\":\"TICKET-7: promote\"", "\"base\":\"" + before + "\"",
        "\"output\":\"" + OutputPath("plan-out.json") + "\"",
        "\"guards\":[\"base\",\"other-installation\",\"kept-media\"]",
        "\"totals\":{\"added\":0,\"removed\":1,\"changed\":2,\"moved\":0}",
        "\"oid\":\"x1102\",\"name\":\"WEST\"", "\"name\":\"al\\\\xFF\""}},
      {lines[2],
       {"\"outcome\":\"unchanged\"", "\"before\":\"" + digest(wanted) + "\"",
        "\"after\":\"" + digest(wanted) + "\""}},
  };
  for (const auto& e : expected)
    for (const std::string& part : e.parts)
      EXPECT_NE(e.line.find(part), std::string::npos) << part << "\n" << e.line;
  // Each line is one JSON object, in UTF-8, valid against the shipped
  // schema of a log line, its plan against the plan's; and so is the
  // plan's JSON.
  const std::string plan = OutputPath("apply-logged-plan.json");
  ASSERT_EQ(
      Doc({"diff", "--format", "json", "-o", plan, before, wanted}).status, 1);
  const RunResult parsed = test_support::Run(
      "/usr/bin/python3",
      {"-c",
       "import json, sys, jsonschema\n"
       "line_schema = json.load(open(sys.argv[3]))\n"
       "plan_schema = json.load(open(sys.argv[4]))\n"
       "for line in list(open(sys.argv[1], encoding='utf-8', "
       "errors='strict'))[1:]:\n"
       "    record = json.loads(line)\n"
       "    jsonschema.validate(record, line_schema)\n"
       "    if 'plan' in record: jsonschema.validate(record['plan'], "
       "plan_schema)\n"
       "json.load(open(sys.argv[2], encoding='utf-8', errors='strict'))\n",
       log, plan, SHARE_DIR "/vantrel-log.schema.json",
       SHARE_DIR "/vantrel-plan.schema.json"},
      {});
  EXPECT_EQ(parsed.status, 0) << parsed.err;
  // A store whose path is not UTF-8: the record names it by its escape.
  const std::string odd = OutputPath("apply-\xFF.db"),
                    oddLog = OutputPath("apply-odd.log");
  Copy(store, odd);
  std::remove(oddLog.c_str());
  EXPECT_EQ(Doc({"apply", "--log", oddLog, wanted, odd}).status, 0);
  const RunResult oddParsed = test_support::Run(
      "/usr/bin/python3",
      {"-c",
       "import json, sys\n"
       "line = open(sys.argv[1], encoding='utf-8', errors='strict').read()\n"
       "assert json.loads(line)['store'].endswith('apply-\\\\xFF.db')\n",
       oddLog},
      {});
  EXPECT_EQ(oddParsed.status, 0) << oddParsed.err;
}

// A part promoted from one generated store to another: the project named,
// with its data domains, replaces its old self, a new one takes its place,
// and what else the target holds stays; a part naming what the target
// lacks is refused, naming it.
TEST(Promoted, AProjectWithItsDataDomainsAndNothingElse) {
  const std::string target = test_support::RandomStore(5);
  // A project renamed with a data domain gone and one renamed, a new
  // project with two data domains naming what both stores hold.
  const std::string part =
      "UPDATE project SET name = 'promoted' WHERE oid = CAST('P001' AS BLOB);"
      "DELETE FROM package_whole_data_domain WHERE data_domain = "
      "CAST('A030' AS BLOB);"
      "DELETE FROM data_domain WHERE oid = CAST('A030' AS BLOB);"
      "UPDATE data_domain SET name = 'renamed' WHERE oid = CAST('A060' AS "
      "BLOB);"
      "INSERT INTO project VALUES (CAST('PNEW' AS BLOB), 'new');"
      "INSERT INTO data_domain VALUES (CAST('ANEW1' AS BLOB), CAST('PNEW' AS "
      "BLOB), 'n1', '', '', '', 'rdb', CAST('B001' AS BLOB), CAST('S001' AS "
      "BLOB)), (CAST('ANEW2' AS BLOB), CAST('PNEW' AS BLOB), 'n2', '', '', "
      "'', 'rdb', CAST('B002' AS BLOB), NULL);";
  const std::string source = OutputPath("promote-source.xml");
  WriteFile(source, Exported(Store("promote-source",
                                   {target, part,
                                    "UPDATE host SET name = 'not promoted';"
                                    "INSERT INTO business_domain VALUES "
                                    "(CAST('BNEW' AS BLOB), CAST('D001' AS "
                                    "BLOB), 'b', '', '', 'Y', '');"
                                    "INSERT INTO project VALUES (CAST('PX' "
                                    "AS BLOB), 'x');"
                                    "INSERT INTO data_domain VALUES "
                                    "(CAST('AX' AS BLOB), CAST('PX' AS "
                                    "BLOB), 'x', '', '', '', 'rdb', "
                                    "CAST('BNEW' AS BLOB), NULL);"})));
  const std::string store = Store("promote-target", {target});
  const std::string expected =
      Exported(Store("promote-expected", {target, part}));
  // x50303031 is P001, renamed: the same identifier, another object, which
  // every view flags, and which is refused unless taken. x504E4557 is PNEW.
  const std::string before = ReadFile(store);
  const struct {
    std::vector<std::string> options;
    int status;
    std::string shown;  // a part of standard output, or of standard error
  } flagged[] = {
      {{"--dry-run"}, 3, "changed PROJECT x50303031 \"promoted\" Name: \"p1"},
      {{"--dry-run"}, 3, "\" (the same identifier, another object)\n"},
      {{"--dry-run", "--format", "json"}, 3, "\"other_object\":true"},
      {{"--dry-run", "--format", "html"},
       3,
       "<p class=\"warning\">the same identifier, another object"},
      {{},
       3,
       "vantrel-doc: the same identifier, another object: PROJECT x50303031 "
       "\"p1"},
  };
  for (const auto& f : flagged) {
    std::vector<std::string> args = {"apply", "--only",
                                     "x50303031,PROJECT:new"};
    args.insert(args.end(), f.options.begin(), f.options.end());
    args.insert(args.end(), {source, store});
    const RunResult run = Doc(args);
    EXPECT_EQ(run.status, f.status) << run.err;
    EXPECT_NE((run.out + run.err).find(f.shown), std::string::npos)
        << run.out << run.err;
    EXPECT_TRUE(ReadFile(store) == before);
  }
  // The flagged plan is as the shipped schema says.
  const std::string flaggedPlan = OutputPath("promote-flagged.json");
  ASSERT_EQ(Doc({"apply", "--dry-run", "--format", "json", "-o", flaggedPlan,
                 "--only", "x50303031", source, store})
                .status,
            3);
  const RunResult valid = binaries::PlanChecked(
      flaggedPlan,
      "assert [c['oid'] for c in plan['changes'] if c.get('other_object')] "
      "== ['x50303031']\n"
      "assert plan['refused']['guard'] == 'same-identifier'\n");
  EXPECT_EQ(valid.status, 0) << valid.err;
  const RunResult run = Doc({"apply", "--same-identifier-ok", "--only",
                             "x50303031,PROJECT:new", source, store});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(Exported(store) == expected);
  // A child by its kind and name: promoted already.
  const RunResult child =
      Doc({"apply", "--dry-run", "--only", "DATARDB:n1", source, store});
  EXPECT_EQ(child.status, 0) << child.err;
  EXPECT_EQ(child.out, store + ": nothing to change\n");
  // PX names BNEW (x424E4557), which the target lacks: named by its kind
  // and name, and brought along with --with-references.
  const std::string bytes = ReadFile(store);
  const std::string log = OutputPath("promote.log");
  std::remove(log.c_str());
  const RunResult refused =
      Doc({"apply", "--log", log, "--only", "PROJECT:x", source, store});
  EXPECT_EQ(refused.status, 3);
  EXPECT_NE(ReadFile(log).find("\"outcome\":\"refused\""), std::string::npos);
  EXPECT_EQ(refused.err, "vantrel-doc: the part names objects that " + store +
                             " lacks: BUSINESSDOMAIN x424E4557 \"b\" (add "
                             "them to --only, or bring them along with "
                             "--with-references); " +
                             store + " was not changed\n");
  EXPECT_TRUE(ReadFile(store) == bytes);
  const RunResult along =
      Doc({"apply", "--with-references", "--only", "PROJECT:x", source, store});
  EXPECT_EQ(along.status, 0) << along.err;
  EXPECT_NE(along.out.find("added BUSINESSDOMAIN x424E4557 \"b\" in "),
            std::string::npos)
      << along.out;
  EXPECT_NE(along.out.find("added PROJECT x5058 \"x\""), std::string::npos);
  // A name that names nothing.
  const RunResult nothing =
      Doc({"apply", "--only", "PROJECT:nothing", source, store});
  EXPECT_EQ(nothing.status, 1);
  EXPECT_EQ(nothing.err, "vantrel-doc: PROJECT:nothing is no object of " +
                             source + "; " + store + " was not changed\n");
  // Many objects at once: every second project renamed, the new ones
  // among them put in their places; the line names the part by its count.
  const std::string many = Store("promote-many", {Projects(300, "p")});
  const std::string manySource = OutputPath("promote-many.xml");
  const std::string renamed =
      "UPDATE project SET name = 'q' || rowid WHERE rowid % 2 = 0;";
  WriteFile(manySource, Exported(Store("promote-many-source",
                                       {Projects(320, "p"), renamed})));
  std::string ids;
  for (int i = 2; i <= 320; i += 2) {
    char id[32];
    const int n = std::snprintf(id, sizeof id, "P%06d", i);
    ids += ids.empty() ? "x" : ",x";
    for (int c = 0; c < n; ++c) {
      char hex[3];
      std::snprintf(hex, sizeof hex, "%02X", static_cast<unsigned char>(id[c]));
      ids += hex;
    }
  }
  const RunResult all =
      Doc({"apply", "--same-identifier-ok", "--only", ids, manySource, many});
  EXPECT_EQ(all.status, 0) << all.err;
  EXPECT_NE(all.out.find(" (only 160 objects): "), std::string::npos)
      << all.out.substr(0, 300);
  EXPECT_TRUE(Exported(many) ==
              Exported(Store("promote-many-expected",
                             {Projects(320, "p"), renamed,
                              "DELETE FROM project WHERE rowid > 300 AND "
                              "rowid % 2 = 1;"})));
}

// A promoted object comes whole: a child that the store holds under
// another parent leaves it.
TEST(Promoted, AChildLeavesItsOtherParent) {
  const std::string full = ReadFile(DataPath("full.sql"));
  const std::string moved =
      "UPDATE data_domain SET project = x'0D02' WHERE oid = x'1003';";
  const std::string store = Store("promote-child", {full});
  const std::string source = OutputPath("promote-child.xml");
  WriteFile(
      source,
      Exported(Store("promote-child-source",
                     {full, moved, "UPDATE host SET name = 'not promoted';"})));
  const RunResult run = Doc({"apply", "--only", "x0D02", source, store});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(Exported(store) ==
              Exported(Store("promote-child-expected", {full, moved})));
}

// A part is planned from a snapshot, read without the lock: a writer that
// commits before the apply has its lock is not undone, the part is refused
// as against a stale base.
TEST(Promoted, AWriterMeanwhileIsNotUndone) {
  const std::string full = ReadFile(DataPath("full.sql"));
  const std::string store = Store("promote-meanwhile", {full});
  const std::string source = OutputPath("promote-meanwhile.xml");
  WriteFile(source, Exported(Store("promote-meanwhile-source",
                                   {full,
                                    "UPDATE project SET name = 'PROMOTED' "
                                    "WHERE oid = x'0D02';"})));
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(store.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr),
            SQLITE_OK);
  RunResult run;
  std::thread apply([&] {
    run = Doc({"apply", "--only", "x0D02", source, store});
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  ASSERT_EQ(sqlite3_exec(db,
                         "UPDATE host SET name = 'written meanwhile' WHERE "
                         "oid = x'0A01'; COMMIT",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(db);
  apply.join();
  EXPECT_EQ(run.status, 3) << run.err;
  EXPECT_NE(run.err.find(" no longer exports its export before the part"),
            std::string::npos)
      << run.err;
  EXPECT_EQ(Sql(store,
                "SELECT name FROM host WHERE oid = x'0A01';"
                "SELECT name FROM project WHERE oid = x'0D02';"),
            "written meanwhile\nPTWO\n");
}

// A large store applied to another, killed at several moments: the store
// exports one document or the other, never a mix.
TEST(Killed, AnApplyKilledLeavesTheStoreBeforeOrAfter) {
  const std::string before = OutputPath("killed-before.xml"),
                    after = OutputPath("killed-after.xml");
  // A small cache: the apply writes the store's file before its commit, as
  // a large apply does, so that a kill leaves a journal to roll back.
  const std::string original =
      Store("killed-original",
            {Projects(30000, "p"), "PRAGMA default_cache_size = 10;"});
  WriteFile(before, Exported(original));
  WriteFile(after,
            Exported(Store("killed-wanted", {Projects(20000, "renamed")})));
  // A moment: a time after the start, after the first write (the
  // journal appearing), or after the log's line begins; the signal sent
  // then.
  enum After { kStart, kFirstWrite, kLogging };
  const struct {
    int signal;
    After after;
    int ms;
  } moments[] = {
      {SIGKILL, kStart, 5},       {SIGKILL, kStart, 80},
      {SIGKILL, kFirstWrite, 0},  {SIGKILL, kFirstWrite, 30},
      {SIGKILL, kFirstWrite, 90}, {SIGTERM, kFirstWrite, 0},
      {SIGTERM, kFirstWrite, 40}, {SIGINT, kFirstWrite, 20},
      {SIGHUP, kStart, 60},       {SIGKILL, kLogging, 0},
      {SIGKILL, kLogging, 1},     {SIGKILL, kLogging, 3},
  };
  const std::string tmp = OutputPath("killed-tmp");
  ::mkdir(tmp.c_str(), 0700);
  int midWrite = 0;
  for (const auto& m : moments) {
    SCOPED_TRACE(std::to_string(m.signal) + " " + std::to_string(m.after) +
                 " +" + std::to_string(m.ms) + " ms");
    const std::string store = OutputPath("killed.db"),
                      journal = store + "-journal",
                      log = OutputPath("killed.log");
    Copy(original, store);
    std::remove(log.c_str());
    std::remove(journal.c_str());
    const pid_t child = ::fork();
    if (child == 0) {
      ::freopen("/dev/null", "w", stdout);
      ::freopen("/dev/null", "w", stderr);
      ::setenv("TMPDIR", tmp.c_str(), 1);
      ::execl(VANTREL_DOC_BINARY, VANTREL_DOC_BINARY, "apply", "--log",
              log.c_str(), after.c_str(), store.c_str(),
              static_cast<char*>(nullptr));
      ::_exit(127);
    }
    const auto reached = [&] {
      struct stat st {};
      return m.after == kFirstWrite
                 ? test_support::FileExists(journal)
                 : ::stat(log.c_str(), &st) == 0 && st.st_size > 0;
    };
    for (int i = 0; m.after != kStart && !reached() && i < 50000; ++i)
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    std::this_thread::sleep_for(std::chrono::milliseconds(m.ms));
    const bool killedWriting = test_support::FileExists(journal);
    ::kill(child, m.signal);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (m.signal != SIGKILL) {
      // Rolled back as the command unwound: no journal is left, and the
      // process ended by the signal, or had committed before it.
      EXPECT_TRUE((WIFSIGNALED(status) && WTERMSIG(status) == m.signal) ||
                  (WIFEXITED(status) && WEXITSTATUS(status) == 0))
          << status;
      EXPECT_FALSE(test_support::FileExists(journal));
    }
    // The nightly archive reads it, whatever was left.
    const std::string archive = OutputPath("killed-archive.xml");
    std::remove(archive.c_str());
    const RunResult run = Doc({"export", "-q", store, archive});
    EXPECT_EQ(run.status, 0) << run.err;
    const std::string now = ReadFile(archive);
    EXPECT_TRUE(now == ReadFile(before) || now == ReadFile(after))
        << now.size();
    if (killedWriting && WIFSIGNALED(status) && now == ReadFile(before))
      ++midWrite;
    // Killed before its commit, it claims nothing.
    if (now == ReadFile(before)) {
      EXPECT_EQ(ReadFile(log).find("\"outcome\":\"applied\""),
                std::string::npos);
    }
    EXPECT_TRUE(Exported(store) == now);
    EXPECT_EQ(Sql(store, "PRAGMA integrity_check"), "ok\n");
    EXPECT_TRUE(test_support::ListDirectory(tmp).empty());
    if (m.after != kLogging) continue;
    // A line cut short by the kill is ended by the next apply's, and every
    // whole line is a JSON record.
    EXPECT_EQ(Doc({"apply", "--log", log, before, store}).status, 0);
    const RunResult lines = test_support::Run(
        "/usr/bin/python3",
        {"-c",
         "import json, sys\n"
         "lines = open(sys.argv[1], encoding='utf-8').read().split('\\n')\n"
         "assert lines[-1] == '', 'the log ends with a line end'\n"
         "whole = []\n"
         "for line in lines[:-1]:\n"
         "    try: whole.append(json.loads(line))\n"
         "    except ValueError: pass\n"
         "assert len(whole) >= len(lines) - 2, 'one line at most is cut'\n"
         "assert whole[-1]['outcome'] == 'applied'\n",
         log},
        {});
    EXPECT_EQ(lines.status, 0) << lines.err;
  }
  // Most moments stop it during its writes.
  EXPECT_GE(midWrite, 3);
}

}  // namespace
