// Tests of vantrel-doc export, the nightly archive, through the built
// binaries.
//
// Plan:
//   Archive  the same bytes as the exporter's; a second export says what
//            changed since; -q says nothing; an unchanged night leaves the
//            archive as it was (inode and time); another installation's
//            archive refused (3) unless --other-installation; standard
//            output refused
//   Failure  a missing store, a store the exporter refuses, a directory
//            that does not exist, the store itself as the file, a document
//            that check refuses: status 2,
//            the exporter's chain of messages, the archive as it was and
//            nothing left beside it
#include <sys/stat.h>

#include <tuple>

#include "binaries.h"
#include "test_support.h"

using binaries::Doc;
using test_support::DataPath;
using test_support::FileExists;
using test_support::MakeStore;
using test_support::OutputPath;
using test_support::ReadFile;
using test_support::RunResult;
using test_support::WriteFile;

namespace {

// No file of directory holds ".partial-" in its name.
void NothingLeftBehind() {
  for (const std::string& name : test_support::ListDirectory(OutputPath("")))
    EXPECT_EQ(name.find(".partial-"), std::string::npos) << name;
}

TEST(Archive, TheExportersBytesAndWhatChangedSince) {
  const std::string store = OutputPath("archived.db"),
                    archive = OutputPath("archive.xml");
  MakeStore(store, {ReadFile(DataPath("full.sql"))});
  std::remove(archive.c_str());
  RunResult run = Doc({"export", store, archive});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, archive + ": 33 objects exported from " + store + "\n");
  EXPECT_TRUE(ReadFile(archive) == ReadFile(DataPath("full.xml")));

  MakeStore(store, {ReadFile(DataPath("full.sql")),
                    "UPDATE host SET name = 'gamma' WHERE oid = x'0A02';"
                    "UPDATE subscription SET extern_site = NULL;"
                    "DELETE FROM extern_site WHERE oid = x'1102';"
                    "INSERT INTO host VALUES (x'0A03', 'delta', '', '');"
                    "UPDATE data_domain SET project = x'0D02' WHERE oid = "
                    "x'1002';"});
  run = Doc({"export", store, archive});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, archive + ": 33 objects exported from " + store +
                         "; since the last archive: 1 added, 1 removed, 3 "
                         "changed\n");
  run = Doc({"export", "-q", store, archive});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out + run.err, "");
  NothingLeftBehind();
}

// The archive kept straight: an unchanged night leaves it as it was, inode
// and time; another installation's archive is refused unless asked for;
// standard output is no archive.
TEST(Archive, AnUnchangedNightAndAnotherInstallationsArchive) {
  const std::string store = OutputPath("archived-straight.db"),
                    other = OutputPath("archived-other.db"),
                    archive = OutputPath("archive-straight.xml");
  const std::string full = ReadFile(DataPath("full.sql"));
  MakeStore(store, {full});
  MakeStore(other, {full, "UPDATE local_site SET oid = x'1299';"
                          "UPDATE host SET name = 'other';"});
  std::remove(archive.c_str());
  ASSERT_EQ(Doc({"export", "-q", store, archive}).status, 0);
  const auto identity = [&] {
    struct stat st {};
    ::stat(archive.c_str(), &st);
    return std::make_tuple(st.st_ino, st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
  };
  const auto was = identity();
  const std::string bytes = ReadFile(archive);
  const struct {
    const char* name;
    std::vector<std::string> args;
    int status;
    std::string out, err;
    bool replaced;
  } cases[] = {
      {"an unchanged night",
       {"export", store, archive},
       0,
       archive + ": 33 objects exported from " + store +
           "; unchanged since the last archive\n",
       "",
       false},
      {"another installation's archive",
       {"export", other, archive},
       3,
       "",
       "vantrel-doc: " + archive +
           " is another installation's archive: its local site is x1201, the "
           "store's local site is x1299 (--other-installation replaces it all "
           "the same); " +
           archive + " is as it was\n",
       false},
      {"standard output",
       {"export", store, "-"},
       2,
       "",
       "vantrel-doc: cannot export " + store +
           " to standard output: an archive is a file, which standard output "
           "is not\n",
       false},
      {"another installation's, asked for",
       {"export", "-q", "--other-installation", other, archive},
       0,
       "",
       "",
       true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const RunResult run = Doc(c.args);
    EXPECT_EQ(run.status, c.status);
    EXPECT_EQ(run.out, c.out);
    EXPECT_EQ(run.err, c.err);
    EXPECT_EQ(identity() == was, !c.replaced);
    EXPECT_EQ(ReadFile(archive) == bytes, !c.replaced);
    NothingLeftBehind();
  }
}

TEST(Failure, TheArchiveAsItWasAndNothingLeftBehind) {
  const std::string store = OutputPath("failing.db"),
                    archive = OutputPath("kept.xml"),
                    missing = OutputPath("no-such.db");
  MakeStore(store,
            {ReadFile(DataPath("full.sql")), "PRAGMA user_version = 7;"});
  std::remove(missing.c_str());
  const std::string kYesterday =
      "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<!DOCTYPE AdminObjects "
      "SYSTEM \"KivAdmin.dtd\" >\n<AdminObjects>\n</AdminObjects>\n";
  const struct {
    const char* name;
    std::string store, file, err;  // the first line of err
  } cases[] = {
      {"a missing store", missing, archive,
       "KivAdmin: cannot open the administration store \"" + missing +
           "\": cannot read the file: No such file or directory"},
      {"a store refused", store, archive,
       "KivAdmin: cannot open the administration store \"" + store +
           "\": store format version 7 is not the supported version 1"},
      {"a missing directory", store, OutputPath("no/such/dir.xml"),
       "vantrel-doc: cannot export " + store + " to " +
           OutputPath("no/such/dir.xml") + ": No such file or directory; " +
           OutputPath("no/such/dir.xml") + " is as it was"},
      {"the store itself", store, store,
       "vantrel-doc: cannot export " + store + " to " + store +
           ": it is the store or a file of the store; " + store +
           " is as it was"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    WriteFile(archive, kYesterday);
    const std::string before = FileExists(c.file) ? ReadFile(c.file) : "";
    const RunResult run = Doc({"export", "-q", c.store, c.file});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err.substr(0, run.err.find('\n')), c.err);
    EXPECT_EQ(run.err.substr(run.err.rfind('\n', run.err.size() - 2) + 1),
              "vantrel-doc: cannot export " + c.store + " to " + c.file + ": " +
                  (c.file == archive
                       ? "the export failed; " + archive + " is as it was\n"
                       : run.err.substr(run.err.find(": ", 13) + 2)));
    EXPECT_EQ(ReadFile(archive), kYesterday);
    if (!before.empty()) {
      EXPECT_EQ(ReadFile(c.file), before);
    }
    NothingLeftBehind();
  }
}

// A store whose text forges an attribute exports a document that check
// refuses: the archive is not replaced by it.
TEST(Failure, AnArchiveThatCheckRefusesIsNotCommitted) {
  const std::string store = OutputPath("forging.db"),
                    archive = OutputPath("forging.xml");
  MakeStore(store, {ReadFile(DataPath("full.sql")),
                    "UPDATE host SET name = 'b\" OSType=\"x' WHERE oid = "
                    "x'0A02';"});
  WriteFile(archive, ReadFile(DataPath("full.xml")));
  const RunResult run = Doc({"export", store, archive});
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.err.find(":29: ambiguous HOST element"), std::string::npos)
      << run.err;
  EXPECT_EQ(run.err.substr(run.err.rfind('\n', run.err.size() - 2) + 1),
            "vantrel-doc: cannot export " + store + " to " + archive +
                ": the new document is not whole; " + archive +
                " is as it was\n");
  EXPECT_TRUE(ReadFile(archive) == ReadFile(DataPath("full.xml")));
  NothingLeftBehind();
}

}  // namespace
