// End-to-end tests: the built Vantrel binary against real stores.
//
// Plan:
//   Arguments    every refused command line: usage, end line, no file
//   Output       a file that cannot be opened, nor written whole, nor be the
//                store; a refused store still truncates the file
//   Export       the golden document of a store holding every kind of object,
//                with and without a stylesheet; a file data domain; the
//                demonstration administration
//   BadStore     every store refused, when it is opened or as its rows are
//                read: status 1, one line naming the file and the table, row
//                or column at fault, the store left byte for byte unchanged
//   Store        a store its user may not read (tried as another user when
//                the tests run as root): refused with the system's reason
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "test_support.h"

using test_support::DataPath;
using test_support::FileExists;
using test_support::MakeStore;
using test_support::MatchesGolden;
using test_support::OutputPath;
using test_support::ReadFile;
using test_support::Run;
using test_support::RunResult;

namespace {

const char kUsage[] =
    "START Vantrel \n"
    "usage :\n"
    "Vantrel -f fileName \n"
    "END Vantrel rc = 1\n";

// Runs the tool on the store at store (the demonstration when empty).
RunResult Vantrel(const std::vector<std::string>& args,
                  const std::string& store = "") {
  std::optional<std::string> storeVariable;
  if (!store.empty()) storeVariable = store;
  return Run(VANTREL_BINARY, args,
             {{"KIV_ADMIN_STORE", storeVariable}, {"LUM_TRACE", std::nullopt}});
}

// The store of tests/data/full.sql and the SQL given after it.
std::string FullStore(const std::string& name, const std::string& sql = "") {
  const std::string path = OutputPath(name + ".db");
  MakeStore(path, {ReadFile(DataPath("full.sql")), sql});
  return path;
}

TEST(Arguments, RefusedFormsGiveUsageAndCreateNoFile) {
  const std::string file = OutputPath("refused.xml");
  const std::vector<std::vector<std::string>> cases = {
      {},
      {"-f"},
      {"-f", file, "-xsl"},
      {"-F", file},
      {"-fx", file},
      {"-xsl", "s.xsl", "-f", file},
      {"-f", file, "-XSL", "s.xsl"},
      {"-f", file, "-xsl", "s.xsl", "extra"},
  };
  for (const auto& args : cases) {
    std::remove(file.c_str());
    const RunResult run = Vantrel(args);
    EXPECT_EQ(run.status, 1) << args.size();
    EXPECT_EQ(run.err, kUsage);
    EXPECT_EQ(run.out, "");
    EXPECT_FALSE(FileExists(file));
  }
}

TEST(Output, FilesThatCannotBeOpenedOrWrittenWhole) {
  const std::string store = FullStore("output");
  const std::string before = ReadFile(store);
  const std::string missing = OutputPath("no-such-directory/admin.xml");
  const struct {
    std::string file, err;
  } cases[] = {
      {missing, "START Vantrel \ncannot open file " + missing + "\n"},
      // Refused before the file is opened, which would truncate the store.
      {store, "START Vantrel \ncannot open file " + store +
                  ": it is the administration store\n"},
      {"/dev/full",
       "START Vantrel \ncannot write file /dev/full: No space left on "
       "device\nEND Vantrel rc= 1\n"},
  };
  for (const auto& c : cases) {
    const RunResult run = Vantrel({"-f", c.file}, store);
    EXPECT_EQ(run.status, 1) << c.file;
    EXPECT_EQ(run.err, c.err);
  }
  // The files SQLite keeps beside the store, named directly or through
  // another path, existing or not: refused before anything is created.
  const std::string directory = store.substr(0, store.rfind('/'));
  const std::string name = store.substr(store.rfind('/') + 1);
  for (const std::string& file :
       {store + "-journal", store + "-wal", store + "-shm",
        directory + "/../" + directory.substr(directory.rfind('/') + 1) + "/" +
            name + "-journal"}) {
    const RunResult run = Vantrel({"-f", file}, store);
    EXPECT_EQ(run.status, 1) << file;
    EXPECT_EQ(run.err, "START Vantrel \ncannot open file " + file +
                           ": it is a file of the administration store\n");
    EXPECT_FALSE(FileExists(file));
  }
  // A store named through a link keeps its journal beside the file linked.
  const std::string link = OutputPath("output-link.db");
  std::remove(link.c_str());
  ASSERT_EQ(::symlink(store.c_str(), link.c_str()), 0);
  const RunResult linked = Vantrel({"-f", store + "-wal"}, link);
  EXPECT_EQ(linked.status, 1);
  EXPECT_FALSE(FileExists(store + "-wal"));
  EXPECT_EQ(ReadFile(store), before);
}

// A file-size limit below the document's size fails the write, told with
// the END line, instead of ending the process without a word.
TEST(Output, AFileSizeLimitIsAFailedWrite) {
  const std::string store = FullStore("size-limit");
  const std::string file = OutputPath("size-limit.xml");
  const RunResult run = test_support::Run(
      "sh", {"-c", "ulimit -f 1 && exec " VANTREL_BINARY " -f " + file},
      {{"KIV_ADMIN_STORE", store}});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "START Vantrel \ncannot write file " + file +
                         ": File too large\nEND Vantrel rc= 1\n");
}

TEST(Output, RefusedStoreLeavesAnEmptyTruncatedFile) {
  const std::string file = OutputPath("refused-store.xml");
  test_support::WriteFile(file, "an earlier document\n");
  const std::string store = OutputPath("no-such-store.db");
  const RunResult run = Vantrel({"-f", file}, store);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "START Vantrel \n"
            "KivAdmin: cannot open the administration store \"" +
                store +
                "\": cannot read the file: No such file or directory\n"
                "cannot init KivAdmin\n"
                "END Vantrel rc= 1\n");
  EXPECT_EQ(ReadFile(file), "");
  EXPECT_FALSE(FileExists(store));
}

// A stylesheet adds one line after the declaration, its path as given.
TEST(Export, GoldenDocumentWithAndWithoutStylesheet) {
  const std::string store = FullStore("golden");
  const std::string golden = ReadFile(DataPath("full.xml"));
  const std::size_t afterDeclaration = golden.find('\n') + 1;
  for (const char* stylesheet :
       {static_cast<const char*>(nullptr), "", "admin.xsl"}) {
    const std::string file = OutputPath("full.xml");
    std::vector<std::string> args{"-f", file};
    std::string expected = golden;
    if (stylesheet) {
      args.insert(args.end(), {"-xsl", stylesheet});
      expected.insert(
          afterDeclaration,
          std::string("<?xml-stylesheet type=\"text/xsl\" href=\"") +
              stylesheet + "\" ?>\n");
    }
    const RunResult run = Vantrel(args, store);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "START Vantrel \nEND Vantrel rc= 0\n");
    const std::string doc = ReadFile(file);
    if (stylesheet)
      EXPECT_EQ(doc, expected) << stylesheet;
    else
      EXPECT_TRUE(MatchesGolden("full.xml", doc));
  }
}

TEST(Export, FileDataDomainEndsTheDocumentWithTheChainOfMessages) {
  const std::string store = FullStore(
      "datafile", "UPDATE data_domain SET kind = 'file' WHERE oid = x'1002';");
  const std::string file = OutputPath("datafile.xml");
  const RunResult run = Vantrel({"-f", file}, store);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "START Vantrel \n"
            "DATAFILE node not supported\n"
            "error when writing DATARDB node\n"
            "error when writing PROJECT node\n"
            "cannot dump adminobjects \n"
            "END Vantrel rc= 1\n");
  EXPECT_TRUE(MatchesGolden("datafile.xml", ReadFile(file)));
}

// Stores the reader must read exactly as the test store, however their rows,
// oids and names are laid out: each exports the golden document.
TEST(Export, StoresOfOtherShapesGiveTheGoldenDocument) {
  const std::string golden = ReadFile(DataPath("full.xml"));
  // The golden document with the host x0A02 named by another oid.
  const auto renamed = [&](const std::string& oid) {
    std::string doc = golden;
    doc.replace(doc.find("Oid=\"x0A02\""), 11, "Oid=\"x" + oid + "\"");
    return doc;
  };
  const struct {
    const char* name;
    std::string sql;
    std::string doc;
  } cases[] = {
      {"link rows in descending owner order",
       "DELETE FROM project_data_server; INSERT INTO project_data_server "
       "VALUES (x'0D03', x'0B02'), (x'0D01', x'0B01');",
       golden},
      {"a mixed-case table name",
       "CREATE TABLE saved AS SELECT * FROM host; DROP TABLE host;"
       "CREATE TABLE HoSt (oid BLOB PRIMARY KEY NOT NULL, name TEXT, os_type "
       "TEXT, os_version TEXT) STRICT; INSERT INTO HoSt SELECT * FROM saved;"
       "DROP TABLE saved;",
       golden},
      // Long oids equal in their first 8 bytes, in two tables.
      {"long oids sharing 8 bytes across tables",
       "UPDATE host SET oid = x'0A02000000000000AA' WHERE oid = x'0A02';"
       "INSERT INTO media VALUES (x'0A02000000000000BB', NULL);",
       renamed("0A02000000000000AA")},
      // x0A01 and x0A0100: distinct oids, equal once zero-padded.
      {"oids with trailing zero bytes",
       "UPDATE host SET oid = x'0A0100' WHERE oid = x'0A02';",
       renamed("0A0100")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string store = FullStore("shape", c.sql);
    const std::string file = OutputPath("shape.xml");
    const RunResult run = Vantrel({"-f", file}, store);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(ReadFile(file) == c.doc);
  }
  // A store file named ":memory:" is a file, never SQLite's memory.
  const std::string directory = OutputPath("memory-named");
  ::mkdir(directory.c_str(), 0777);
  MakeStore(directory + "/:memory:", {ReadFile(DataPath("full.sql"))});
  const RunResult run = test_support::Run(
      "sh",
      {"-c", "cd " + directory + " && exec " VANTREL_BINARY " -f out.xml"},
      {{"KIV_ADMIN_STORE", std::string(":memory:")},
       {"LUM_TRACE", std::nullopt}});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(ReadFile(directory + "/out.xml") == golden);
}

TEST(Export, DemonstrationHoldsEveryElementKindButMedia) {
  const std::string file = OutputPath("demo.xml");
  const RunResult run = Vantrel({"-f", file});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err,
            "START Vantrel \n"
            "KivAdmin: KIV_ADMIN_STORE is not set: serving the built-in "
            "demonstration administration\n"
            "END Vantrel rc= 0\n");
  const std::string doc = ReadFile(file);
  for (const char* element :
       {"<AdminObjects>", "<PROJECT ", "<DATARDB ", "<DOMAIN ",
        "<BUSINESSDOMAIN ", "<SERVER>", "<DATASERVER ", "<VAULTSERVER ",
        "<HOST ", "<SUBSCRIBINGTARGET ", "<DATASERVERCAPTURESTATUS ",
        "<VAULTSERVERCAPTURESTATUS ", "<SUBSCRIPTION ",
        "<DATASERVERAPPLYSTATUS ", "<VAULTSERVERAPPLYSTATUS ",
        "<PACKAGEDEFINITION ", "<EXTERNSITE ", "<LOCALSITE ",
        "</AdminObjects>\n"})
    EXPECT_NE(doc.find(element), std::string::npos) << element;
  EXPECT_EQ(doc.find("<MEDIA"), std::string::npos);
}

// Store makers: the schema and sql, or a loose schema (as a store made
// elsewhere might have) and sql.
using Maker = std::function<void(const std::string& path)>;
Maker Strict(const std::string& sql) {
  return [sql](const std::string& path) { MakeStore(path, {sql}); };
}
Maker Loose(const std::string& sql) {
  return [sql](const std::string& path) {
    MakeStore(path, {ReadFile(DataPath("full.sql")), sql}, true);
  };
}
Maker Full(const std::string& sql) {
  return [sql](const std::string& path) {
    MakeStore(path, {ReadFile(DataPath("full.sql")), sql});
  };
}

// The store of full.sql and sql, with the one run of bytes `from` in its
// file made `to`: a damage that SQLite's own writes never make.
Maker Patched(const std::string& sql, const std::string& from,
              const std::string& to) {
  return [=](const std::string& path) {
    MakeStore(path, {ReadFile(DataPath("full.sql")), sql});
    std::string bytes = ReadFile(path);
    const std::size_t at = bytes.find(from);
    ASSERT_NE(at, std::string::npos);
    ASSERT_EQ(bytes.find(from, at + 1), std::string::npos);
    bytes.replace(at, from.size(), to);
    test_support::WriteFile(path, bytes);
  };
}

// Leaves the store of full.sql at path with the journal of a write that
// never finished: a copy of both files taken in the middle of it.
void WithHotJournal(const std::string& path) {
  const std::string source = path + ".source";
  MakeStore(source, {ReadFile(DataPath("full.sql"))});
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(source.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(
      sqlite3_exec(db,
                   "PRAGMA cache_size = 1; BEGIN EXCLUSIVE;"
                   "DELETE FROM host; WITH RECURSIVE k(i) AS (SELECT 1 "
                   "UNION ALL SELECT i + 1 FROM k WHERE i < 100) INSERT "
                   "INTO media SELECT randomblob(8), hex(randomblob(500)) "
                   "FROM k;",
                   nullptr, nullptr, nullptr),
      SQLITE_OK);
  test_support::WriteFile(path, ReadFile(source));
  test_support::WriteFile(path + "-journal", ReadFile(source + "-journal"));
  sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
  sqlite3_close(db);
}

struct BadStoreCase {
  const char* name;
  Maker make;
  std::string reason;  // after the store's name
};

TEST(BadStore, RefusedWithOneLineNamingWhatIsWrongAndLeftUnchanged) {
  const std::string recreate = ": create the store from the schema";
  const std::string cut(80, 'z');
  const std::vector<BadStoreCase> opening = {
      {"directory", [](const std::string& p) { ::mkdir(p.c_str(), 0755); },
       "the file is a directory, not a store: name a store file"},
      {"fifo", [](const std::string& p) { ::mkfifo(p.c_str(), 0644); },
       "the file is a FIFO, not a store: name a store file"},
      {"empty", [](const std::string& p) { test_support::WriteFile(p, ""); },
       "the file is empty, not a store: create one from the schema"},
      {"text",
       [](const std::string& p) {
         test_support::WriteFile(p, std::string(600, 'x'));
       },
       "the file is not a SQLite database: name a store made from the schema"},
      {"journal", WithHotJournal,
       "an unfinished write left a journal or WAL file beside the store, "
       "which only a process allowed to write the store and its directory "
       "can recover: run vantrel-doc export STORE FILE once as such a user "
       "(it rolls the unfinished write back), then retry"},
      {"version", Strict("PRAGMA user_version = 2;"),
       "store format version 2 is not the supported version 1"},
      {"missing table", Strict("DROP TABLE media;"),
       "table media is missing" + recreate},
      {"view",
       Strict("DROP TABLE media; CREATE VIEW media AS WITH RECURSIVE r(oid, "
              "media_path) AS (SELECT x'01', '' UNION ALL SELECT * FROM r) "
              "SELECT * FROM r;"),
       "table media is a view, not a plain table" + recreate},
      {"virtual",
       Strict("DROP TABLE media; CREATE VIRTUAL TABLE media USING "
              "fts5(oid, media_path);"),
       "table media is a virtual table, not a plain table" + recreate},
      {"without rowid",
       Strict("DROP TABLE media; CREATE TABLE media (oid BLOB PRIMARY KEY, "
              "media_path TEXT) WITHOUT ROWID;"),
       "table media is a WITHOUT ROWID table, not a plain table" + recreate},
      {"column", Strict("ALTER TABLE host DROP COLUMN os_type;"),
       "table host has no column os_type" + recreate},
      {"text oid", Loose("INSERT INTO host VALUES ('h1', 'a', '', '');"),
       "table host, row 3, column oid: 'h1' is not an oid (a non-empty "
       "BLOB)"},
      {"empty oid", Loose("INSERT INTO extern_site VALUES (x'', 'a');"),
       "table extern_site, row 3, column oid: an empty BLOB is not an oid (a "
       "non-empty BLOB)"},
      {"oid twice in a table",
       Strict("DROP TABLE host; CREATE TABLE host (oid, name, os_type, "
              "os_version); INSERT INTO host VALUES (x'01', '', '', ''), "
              "(x'01', '', '', '');"),
       "table host, row 2, column oid: x01 is also the oid of row 1"},
      {"oid in two tables",
       Full("INSERT INTO vault_server VALUES (x'0A01', '', '');"),
       "table vault_server, row 3, column oid: x0A01 is also the oid of row 1 "
       "of table host"},
      {"equal long oids in two tables",
       Full("INSERT INTO media VALUES (x'0A01000000000000AA', NULL);"
            "UPDATE host SET oid = x'0A01000000000000AA' WHERE oid = x'0A02';"),
       "table media, row 3, column oid: x0A01000000000000AA is also the oid "
       "of row 2 of table host"},
      // A run of one table's oids taken without comparing stops before an
      // oid whose first 8 bytes another table's next oid shares.
      {"long oids sharing their first 8 bytes",
       Full("UPDATE host SET oid = x'0A01000000000000BB' WHERE oid = x'0A02';"
            "DELETE FROM media; INSERT INTO media VALUES "
            "(x'0A01000000000000AA', NULL), (x'0A01000000000000BB', NULL), "
            "(x'0A01000000000000CC', NULL);"),
       "table media, row 2, column oid: x0A01000000000000BB is also the oid "
       "of row 2 of table host"},
      {"a column named rowid",
       Strict("DROP TABLE host; CREATE TABLE host (oid BLOB PRIMARY KEY, name, "
              "os_type, os_version, rowid);"),
       "table host has a column named 'rowid': create the store from the "
       "schema"},
      {"a column named _rowid_",
       Strict("DROP TABLE host; CREATE TABLE host (oid BLOB PRIMARY KEY, name, "
              "os_type, os_version, _rowid_);"),
       "table host has a column named '_rowid_': create the store from the "
       "schema"},
      // No project lists them: the rows of a child table are checked when
      // the store opens.
      {"a child met only as a reference, its owner missing",
       Loose("DELETE FROM project_vault_server; DELETE FROM "
             "project_data_server; DELETE FROM project;"),
       "table data_domain, row 1 (oid x1003), column project: x0D03 names no "
       "project row"},
      {"two local sites", Full("INSERT INTO local_site VALUES (x'99', 'b');"),
       "table local_site holds 2 rows: a store has at most one local site"},
      // The lists whose getters' failures the exporter passes over: their
      // rows are checked before the document's first element.
      {"owner missing",
       Loose("UPDATE business_domain SET domain = NULL "
             "WHERE oid = x'0F02';"),
       "table business_domain, row 3 (oid x0F02), column domain: NULL is not "
       "allowed: the row must name a domain row"},
      {"owner unknown",
       Full("UPDATE capture_status SET subscribing_target = x'99' WHERE oid "
            "= x'1703';"),
       "table capture_status, row 4 (oid x1703), column subscribing_target: "
       "x99 names no subscribing_target row"},
      {"BLOB as text", Loose("UPDATE vault_server SET alias_name = x'41';"),
       "table vault_server, row 1 (oid x0C01), column alias_name: x41 is not "
       "a text (TEXT or NULL)"},
      {"forged line",
       Loose("UPDATE data_server SET host = 'a\"' || char(10) || "
             "'END Vantrel rc= 0' || '" +
             cut + "';"),
       "table data_server, row 1 (oid x0B01), column host: 'a\\x22\\x0AEND "
       "Vantrel rc= 0" +
           std::string(34, 'z') +
           "...' is not an "
           "oid (a non-empty BLOB)"},
      {"server of another kind",
       Full("UPDATE apply_status SET server = x'0A01' WHERE oid = x'1802';"),
       "table apply_status, row 2 (oid x1802), column server: x0A01 names no "
       "data_server or vault_server row"},
      {"link missing",
       Loose("UPDATE package_whole_data_domain SET data_domain = NULL;"),
       "table package_whole_data_domain, row 1, column data_domain: NULL is "
       "not allowed: the row must name a data_domain row"},
      {"NUL in a business domain",
       Full("UPDATE business_domain SET editor = CAST(x'6100' AS TEXT) "
            "WHERE oid = x'0F03';"),
       "table business_domain, row 2 (oid x0F03), column editor: 'a\\x00' "
       "holds a NUL byte"},
      {"line break in a capture status",
       Loose("UPDATE capture_status SET last_successful_date = char(10) "
             "WHERE oid = x'1702';"),
       "table capture_status, row 3 (oid x1702), column "
       "last_successful_date: '\\x0A' holds a line break, which the "
       "document cannot carry"},
  };
  const std::vector<BadStoreCase> reading = {
      {"owner unknown, owners out of row order",
       Full("INSERT INTO project VALUES (x'01', 'first by oid, last by row');"
            "INSERT INTO data_domain VALUES (x'99AA', x'77', '', '', '', '', "
            "'rdb', NULL, NULL);"),
       "table data_domain, row 4 (oid x99AA), column project: x77 names no "
       "project row"},
      {"owner of another kind",
       Full("INSERT INTO project_data_server VALUES (x'0E01', x'0B01');"),
       "table project_data_server, row 3, column project: x0E01 names no "
       "project row"},
      {"visible text", Loose("UPDATE domain SET visible = 'Y';"),
       "table domain, row 1 (oid x0E01), column visible: 'Y' is not the "
       "integer 0 or 1"},
      {"visible NULL", Loose("UPDATE domain SET visible = NULL;"),
       "table domain, row 1 (oid x0E01), column visible: NULL is not the "
       "integer 0 or 1"},
      {"visible wide", Loose("UPDATE domain SET visible = 4294967296;"),
       "table domain, row 1 (oid x0E01), column visible: 4294967296 is not "
       "the integer 0 or 1"},
      {"NUL in a text",
       Full("UPDATE host SET os_type = CAST(x'4C0058' AS TEXT) WHERE oid = "
            "x'0A02';"),
       "table host, row 2 (oid x0A02), column os_type: 'L\\x00X' holds a NUL "
       "byte"},
      {"reference unknown",
       Full("UPDATE data_domain SET data_server = x'99' WHERE oid = x'1003';"),
       "table data_domain, row 1 (oid x1003), column data_server: x99 names "
       "no data_server row"},
      {"reference of another kind",
       Full("UPDATE data_domain SET business_domain = x'0E01' WHERE oid = "
            "x'1003';"),
       "table data_domain, row 1 (oid x1003), column business_domain: x0E01 "
       "names no business_domain row"},
      {"kind",
       Loose("UPDATE data_domain SET kind = 'xml' WHERE oid = x'1002';"),
       "table data_domain, row 3 (oid x1002), column kind: 'xml' is neither "
       "'rdb' nor 'file'"},
      {"DEL in a refused value",
       Loose("UPDATE data_domain SET kind = 'x' || char(127) WHERE oid = "
             "x'1002';"),
       "table data_domain, row 3 (oid x1002), column kind: 'x\\x7F' is "
       "neither 'rdb' nor 'file'"},
      {"an empty BLOB as a reference",
       Loose("UPDATE data_domain SET data_server = x'' WHERE oid = x'1003';"),
       "table data_domain, row 1 (oid x1003), column data_server: an empty "
       "BLOB is not an oid (a non-empty BLOB)"},
      // Met only as a package's data domain, its project gone.
      {"a child met as a reference, its owner missing",
       Loose("UPDATE data_domain SET project = x'77' WHERE oid = x'1003';"),
       "table data_domain, row 1 (oid x1003), column project: x77 names no "
       "project row"},

      // An index whose entries are not in the order of its column, as a
      // damaged file has: the rows of an owner found after a later owner's.
      {"index out of order",
       Full("DROP INDEX business_domain_by_domain; CREATE INDEX "
            "business_domain_by_domain ON business_domain(domain DESC); "
            "PRAGMA "
            "writable_schema = ON; UPDATE sqlite_schema SET sql = 'CREATE "
            "INDEX business_domain_by_domain ON business_domain(domain)' "
            "WHERE name = 'business_domain_by_domain';"),
       "table business_domain, row 1 (oid x0F01), column domain: x0E01 comes "
       "after the rows of a later owner, out of the order of the column's "
       "index: the store is damaged (see PRAGMA integrity_check)"},
      // The row's own oid in the table differs from the one its oid index
      // holds, in a table whose rows are out of their oids' order.
      {"a row oid not the one of its index",
       Patched("INSERT INTO project VALUES (x'01', 'RowOidMark');",
               std::string("\x01RowOidMark"), std::string("\x02RowOidMark")),
       "table project, row 4, column oid: x02 is not the oid that the table's "
       "index holds for the row: the store is damaged (see PRAGMA "
       "integrity_check)"},
      {"a carriage return alone in a text",
       Loose("UPDATE host SET os_type = 'a' || char(13) || 'b' WHERE oid = "
             "x'0A02';"),
       "table host, row 2 (oid x0A02), column os_type: 'a\\x0Db' holds a line "
       "break, which the document cannot carry"},
      {"a long identifier shown whole",
       Full("UPDATE data_domain SET data_server = x'" + std::string(60, 'E') +
            "' WHERE oid = x'1003';"),
       "table data_domain, row 1 (oid x1003), column data_server: x" +
           std::string(60, 'E') + " names no data_server row"},
      {"line break in a text",
       Loose("UPDATE host SET os_type = 'Linux' || char(13, 10) || 'x' "
             "WHERE oid = x'0A02';"),
       "table host, row 2 (oid x0A02), column os_type: 'Linux\\x0D\\x0Ax' "
       "holds a line break, which the document cannot carry"},
  };
  for (const bool read : {false, true}) {
    for (const BadStoreCase& c : read ? reading : opening) {
      SCOPED_TRACE(c.name);
      std::string store = OutputPath(std::string("bad-") + c.name);
      for (char& ch : store)
        if (ch == ' ') ch = '-';
      ::rmdir(store.c_str());
      std::remove(store.c_str());
      c.make(store);
      // A FIFO would block its reader: only files are compared.
      struct stat st {};
      const bool file = ::stat(store.c_str(), &st) == 0 && S_ISREG(st.st_mode);
      const std::string before = file ? ReadFile(store) : "";
      const RunResult run = Vantrel({"-f", OutputPath("bad.xml")}, store);
      EXPECT_EQ(run.status, 1);
      const std::string line =
          std::string("KivAdmin: cannot ") + (read ? "read" : "open") +
          " the administration store \"" + store + "\": " + c.reason + "\n";
      EXPECT_EQ(run.err.substr(0, 15 + line.size()), "START Vantrel \n" + line);
      if (!read) {
        EXPECT_EQ(run.err.substr(15 + line.size()),
                  "cannot init KivAdmin\nEND Vantrel rc= 1\n");
      }
      if (file) {
        EXPECT_EQ(ReadFile(store), before);
      }
    }
  }
}

}  // namespace

namespace {

// A store its user may not read, tried as a user who is not root (root
// reads every file): refused with the system's reason before SQLite opens
// it.
TEST(Store, AStoreTheUserMayNotReadIsRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to act as another user";
  // A checkout the other user cannot enter (under /root, say) cannot run.
  if (test_support::Run("setpriv",
                        {"--reuid=65534", "--regid=65534", "--clear-groups",
                         "test", "-x", VANTREL_BINARY},
                        {})
          .status != 0)
    GTEST_SKIP() << "the other user cannot run " << VANTREL_BINARY;
  const std::string store = FullStore("unreadable");
  ASSERT_EQ(::chmod(store.c_str(), 0600), 0);
  char dir[] = "/tmp/vantrel-nobody-XXXXXX";
  ASSERT_NE(::mkdtemp(dir), nullptr);
  ::chmod(dir, 0777);
  const std::string out = std::string(dir) + "/admin.xml";
  const RunResult run = test_support::Run(
      "setpriv",
      {"--reuid=65534", "--regid=65534", "--clear-groups", VANTREL_BINARY, "-f",
       out},
      {{"KIV_ADMIN_STORE", store}, {"LUM_TRACE", std::nullopt}});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(
      run.err.find("KivAdmin: cannot open the administration store \"" + store +
                   "\": cannot read the file: Permission denied\n"),
      std::string::npos)
      << run.err;
  std::remove(out.c_str());
  ::rmdir(dir);
}

}  // namespace
