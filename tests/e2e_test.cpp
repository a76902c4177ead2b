// End-to-end tests: the built Vantrel binary against real stores.
//
// Plan:
//   Arguments    every refused command line: usage, end line, no file
//   Output       an output path that cannot be opened, truncation
//   Export       golden documents of a store holding every kind of object,
//                with and without a stylesheet; a refused store; a file data
//                domain; the demonstration administration
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

TEST(Output, PathInAMissingDirectoryCannotBeOpened) {
  const std::string file = OutputPath("no-such-directory/admin.xml");
  const RunResult run = Vantrel({"-f", file});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "START Vantrel \ncannot open file " + file + "\n");
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

TEST(Export, GoldenDocumentsWithAndWithoutStylesheet) {
  const std::string store = FullStore("golden");
  const struct {
    std::vector<std::string> options;
    const char* golden;
  } cases[] = {
      {{}, "full.xml"},
      {{"-xsl", "admin.xsl"}, "full-xsl.xml"},
      {{"-xsl", ""}, "full-empty-xsl.xml"},
  };
  for (const auto& c : cases) {
    const std::string file = OutputPath(c.golden);
    std::vector<std::string> args{"-f", file};
    args.insert(args.end(), c.options.begin(), c.options.end());
    const RunResult run = Vantrel(args, store);
    EXPECT_EQ(run.status, 0) << c.golden;
    EXPECT_EQ(run.err, "START Vantrel \nEND Vantrel rc= 0\n");
    EXPECT_TRUE(MatchesGolden(c.golden, ReadFile(file)));
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

}  // namespace
