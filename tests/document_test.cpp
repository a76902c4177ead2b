// Tests of what reads the document: its document type and the report.
//
// Plan:
//   Dtd     the documents of the demonstration and a test store validate;
//           each reference attribute naming an unknown object does not, nor
//           a single element repeated or a required attribute left out
//   Report  every link of the report resolves and every object has an
//           anchor; headless Chromium renders the objects
#include <regex>
#include <set>

#include "test_support.h"

using test_support::DataPath;
using test_support::Matches;
using test_support::OutputPath;
using test_support::ReadFile;
using test_support::RunResult;
using test_support::WriteFile;

namespace {

// Exports the demonstration (no store) or the test store, its markup
// characters replaced so that the document is well-formed; returns its path.
std::string Document(bool demo) {
  const std::string file = OutputPath(demo ? "demo-dtd.xml" : "full-dtd.xml");
  std::optional<std::string> store;
  if (!demo) {
    store = OutputPath("well-formed.db");
    test_support::MakeStore(
        *store, {ReadFile(DataPath("full.sql")),
                 "UPDATE project SET name = 'P ONE' WHERE oid = x'0D01';"
                 "UPDATE vault_server SET alias_name = 'first vault';"
                 "UPDATE data_server SET connection_string = 'db=main';"});
  }
  const RunResult run = test_support::Run(VANTREL_BINARY, {"-f", file},
                                          {{"KIV_ADMIN_STORE", store}});
  EXPECT_EQ(run.status, 0) << run.err;
  WriteFile(OutputPath("KivAdmin.dtd"), ReadFile(SHARE_DIR "/KivAdmin.dtd"));
  return file;
}

RunResult Validate(const std::string& file) {
  return test_support::Run("xmllint", {"--valid", "--noout", file}, {});
}

TEST(Dtd, DocumentsValidAndEveryUnknownReferenceReported) {
  for (bool demo : {true, false}) {
    const RunResult run = Validate(Document(demo));
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
  }
  const std::string doc = ReadFile(Document(false));
  for (const char* attribute :
       {"VaultServers", "DataServers", "BusinessDomain", "DataServer", "Host",
        "PackageDefinition", "ExternSite", "CapturedObject", "AppliedObject",
        "WholeDataDomains"}) {
    SCOPED_TRACE(attribute);
    std::string broken = doc;
    const std::string opener = std::string(" ") + attribute + "=\"x";
    const std::size_t at = broken.find(opener);
    ASSERT_NE(at, std::string::npos);
    broken.insert(at + opener.size(), "FFFF");
    const std::string file = OutputPath("broken.xml");
    WriteFile(file, broken);
    const RunResult run = Validate(file);
    EXPECT_NE(run.status, 0);
    EXPECT_NE(run.err.find(std::string(" attribute ") + attribute +
                           " references an unknown ID \"xFFFF"),
              std::string::npos)
        << run.err;
  }
}

TEST(Dtd, WhatTheDocumentTypeRefuses) {
  const std::string doc = ReadFile(Document(false));
  const std::size_t site = doc.find("<LOCALSITE ");
  ASSERT_NE(site, std::string::npos);
  std::string siteLine = doc.substr(site, doc.find('\n', site) + 1 - site);
  const std::string twoSites =
      doc.substr(0, site) + siteLine +
      std::regex_replace(siteLine, std::regex("x1201"), "x1209") +
      doc.substr(site + siteLine.size());
  const struct {
    const char* name;
    std::string document;
    const char* error;
  } cases[] = {
      {"a single element twice", twoSites,
       "Element AdminObjects content does not follow the DTD"},
      {"a required attribute left out",
       std::regex_replace(doc, std::regex(" Name=\"PTWO\""), ""),
       "Element PROJECT does not carry attribute Name"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string file = OutputPath("refused-by-dtd.xml");
    WriteFile(file, c.document);
    const RunResult run = Validate(file);
    EXPECT_NE(run.status, 0);
    EXPECT_NE(run.err.find(c.error), std::string::npos) << run.err;
  }
}

TEST(Report, EveryLinkResolvesAndChromiumShowsTheObjects) {
  const std::string doc = Document(false);
  const std::string report = OutputPath("report.html");
  const RunResult made = test_support::Run(
      "xsltproc", {"-o", report, SHARE_DIR "/vantrel-report.xsl", doc}, {});
  ASSERT_EQ(made.status, 0) << made.err;
  const std::string html = ReadFile(report);
  const std::set<std::string> anchors = Matches(html, "id=\"([^\"]+)\"");
  for (const std::string& link : Matches(html, "href=\"#([^\"]+)\""))
    EXPECT_EQ(anchors.count(link), 1u) << "unresolved link #" << link;
  for (const std::string& oid : Matches(ReadFile(doc), "Oid=\"(x[0-9A-F]+)\""))
    EXPECT_EQ(anchors.count(oid), 1u) << "no anchor for " << oid;

  const RunResult shown = test_support::ChromiumDom(report);
  ASSERT_EQ(shown.status, 0) << shown.err;
  for (const char* name :
       {"P ONE", "DDTHREE", "DOMTHREE", "BDTWO", "SIDEDB", "VAULTB", "beta",
        "TTHREE", "STWO", "PKTWO", "WEST", "HOME", "2026-02-02"})
    EXPECT_NE(shown.out.find(name), std::string::npos) << name;
}

}  // namespace
