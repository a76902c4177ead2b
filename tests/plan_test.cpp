// Tests of the plan's three views, through the built binaries.
//
// Plan:
//   Views  for the test store changed in each way a plan tells (renames,
//          a removal with the reference to it, an addition with a child,
//          a move to another owner, a list reordered), for random stores
//          by seed, and for a plan past the picture's limit: the JSON
//          validates against the shipped schema, the text lists the same
//          changes with the same totals, and the page as headless Chromium
//          renders it has a section per changed object, links that all
//          resolve, and the changed objects in its picture (or the counts
//          per kind past the limit); a byte, a control byte and a
//          backslash, each against text that reads like its escape, told
//          apart in every view; passwords in connection strings masked
//          in text, JSON, the page, the report and the log, a change shown
//          by its digests, unless --show-secrets (never in the log)
#include <string>
#include <vector>

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

// The document of a store made of sql, written at name.xml.
std::string Document(const std::string& name,
                     const std::vector<std::string>& sql) {
  const std::string store = OutputPath(name + ".db"),
                    doc = OutputPath(name + ".xml");
  MakeStore(store, sql);
  WriteFile(doc, binaries::Export(store, OutputPath("plan-export.xml")));
  return doc;
}

TEST(Views, ListTheSameChangesAndThePageRendersThem) {
  const std::string full = ReadFile(DataPath("full.sql"));
  const struct {
    std::string name;
    std::vector<std::string> before, after;
    const char* drawn;  // how the picture shows the plan
  } cases[] = {
      {"each way",
       {full},
       {full,
        "UPDATE host SET name = 'gamma' WHERE oid = x'0A02';"
        "UPDATE host SET name = CAST(x'61FF62' AS TEXT) WHERE oid = x'0A01';"
        "UPDATE project SET name = 'P<b>&ONE</b>' WHERE oid = x'0D01';"
        "UPDATE data_domain SET name = 'D<i>D</i>', rowid = 10 WHERE oid = "
        "x'1001';"
        "DELETE FROM extern_site WHERE oid = x'1102';"
        "UPDATE subscription SET extern_site = NULL;"
        "INSERT INTO project VALUES (x'0D09', 'NEW');"
        "INSERT INTO data_domain VALUES (x'1009', x'0D09', 'DDNEW', '', '', "
        "'db2', 'rdb', x'0F01', x'0B02');"
        "UPDATE business_domain SET domain = x'0E01' WHERE oid = x'0F03';"
        "UPDATE host SET rowid = 10 WHERE oid = x'0A01';"},
       "drawn"},
      {"random 1 to 2",
       {test_support::RandomStore(1)},
       {test_support::RandomStore(2)},
       "drawn"},
      {"random 3 to 4",
       {test_support::RandomStore(3)},
       {test_support::RandomStore(4)},
       "drawn"},
      {"past the picture's limit",
       {Projects(500, "p")},
       {Projects(500, "renamed")},
       "counted per kind"},
      {"past the picture's limit of links: 10 projects each naming 150 "
       "servers",
       {},
       {"WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n "
        "WHERE i < 150) INSERT INTO data_server (oid, name) SELECT "
        "CAST(printf('S%03d', i) AS BLOB), 's' || i FROM n;"
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n "
        "WHERE i < 10) INSERT INTO project SELECT CAST(printf('P%03d', i) AS "
        "BLOB), 'p' || i FROM n;"
        "INSERT INTO project_data_server SELECT p.oid, s.oid FROM project p, "
        "data_server s;"},
       "counted per kind"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    // A file name holding markup: the page's title shows it as text.
    const std::string before = Document("plan-before", c.before),
                      after = Document("plan-after<i>", c.after);
    const std::string text = OutputPath("plan.txt"),
                      json = OutputPath("plan.json"),
                      page = OutputPath("plan.html");
    for (const auto& [format, file] :
         {std::make_pair("text", text), std::make_pair("json", json),
          std::make_pair("html", page)}) {
      const RunResult run =
          Doc({"diff", "--format", format, "-o", file, before, after});
      EXPECT_EQ(run.status, 1) << format << ": " << run.err;
      // A value that is not UTF-8 reaches Graphviz as its escape: nothing
      // of Graphviz's own is said.
      EXPECT_EQ(run.err, "") << format;
    }
    const RunResult dom = test_support::ChromiumDom(page);
    ASSERT_EQ(dom.status, 0) << dom.err;
    const std::string rendered = OutputPath("plan.dom.html");
    WriteFile(rendered, dom.out);
    const RunResult checked = test_support::Run(
        "/usr/bin/python3",
        {TEST_DIR "/plan_views.py", SHARE_DIR "/vantrel-plan.schema.json", json,
         text, rendered},
        {});
    EXPECT_EQ(checked.status, 0) << checked.out << checked.err;
    EXPECT_NE(checked.out.find(c.drawn), std::string::npos) << checked.out;
    EXPECT_NE(ReadFile(page).find("plan-after&lt;i&gt;.xml</title>"),
              std::string::npos);
    // The byte 0xFF drawn as its escape, never as the Latin-1 letter.
    EXPECT_EQ(ReadFile(page).find("\xC3\xBF"), std::string::npos);
  }
}

// A value holding what no view can write as it is, against a value whose
// text reads like its escape: every view tells the two apart, by one rule
// (a backslash, a control byte, a byte that is not UTF-8 as \xNN).
TEST(Views, AnEscapeIsToldApartFromTextThatReadsLikeIt) {
  const std::string full = ReadFile(DataPath("full.sql"));
  const struct {
    const char* name;
    const char *before, *after;  // SQL values of a host's name
    const char *shownBefore, *shownAfter;  // as every view writes them
  } pairs[] = {
      {"a byte that is not UTF-8", "CAST(x'61FF62' AS TEXT)", "'a\\xFFb'",
       "a\\xFFb", "a\\x5CxFFb"},
      {"a control byte", "CAST(x'610162' AS TEXT)", "'a\\x01b'", "a\\x01b",
       "a\\x5Cx01b"},
      {"a backslash", "'a\\b'", "'a\\x5Cb'", "a\\x5Cb", "a\\x5Cx5Cb"},
  };
  for (const auto& p : pairs) {
    SCOPED_TRACE(p.name);
    const auto named = [&](const char* value) {
      return std::vector<std::string>{
          full, std::string("UPDATE host SET name = ") + value +
                    " WHERE oid = x'0A01';"};
    };
    const std::string before = Document("plan-pair-before", named(p.before)),
                      after = Document("plan-pair-after", named(p.after));
    const std::string a = p.shownBefore, b = p.shownAfter;
    // Each view's own syntax around the one escape.
    const std::string json = [](std::string s) {
      std::string out;
      for (char c : s) out += c == '\\' ? std::string("\\\\") : std::string(1, c);
      return out;
    }(a + "\x01" + b);
    const std::size_t cut = json.find('\x01');
    const struct {
      const char* format;
      std::string shown;
    } views[] = {
        {"text", "Name: \"" + a + "\" -> \"" + b + "\""},
        {"json", "\"old\":\"" + json.substr(0, cut) + "\",\"new\":\"" +
                     json.substr(cut + 1) + "\""},
        {"html", "<code>" + a + "</code></td><td class=\"new\"><code>" + b +
                     "</code>"},
        {"html", ">" + b + "</text>"},  // the picture's label
    };
    for (const auto& v : views) {
      const RunResult run = Doc({"diff", "--format", v.format, before, after});
      EXPECT_EQ(run.status, 1) << run.err;
      EXPECT_NE(run.out.find(v.shown), std::string::npos)
          << v.format << ": " << v.shown;
    }
  }
}

// A password changed in a connection string, and one added: every view
// that leaves the machine masks them, the change still shown by a digest
// of each side, unless --show-secrets; the log masks them whatever is
// shown; the document stays exact.
TEST(Views, SecretsMaskedUnlessAsked) {
  const std::string full = ReadFile(DataPath("full.sql"));
  const auto connected = [&](const char* main, const char* side) {
    return std::vector<std::string>{
        full, std::string("UPDATE data_server SET connection_string = '") +
                  main + "' WHERE oid = x'0B01'; UPDATE data_server SET "
                  "connection_string = '" + side + "' WHERE oid = x'0B02';"};
  };
  const std::string before =
      Document("plan-secret-before", connected("u/old-pw@db", ""));
  const std::string after = Document(
      "plan-secret-after", connected("u/new-pw@db", "Server=s;Pwd=side-pw"));
  const std::string page = OutputPath("plan-secret.html"),
                    store = OutputPath("plan-secret.db"),
                    log = OutputPath("plan-secret.log");
  const struct {
    std::vector<std::string> args;
    std::string output;  // "" for standard output
  } views[] = {
      {{"diff", before, after}, ""},
      {{"diff", "--format", "json", before, after}, ""},
      {{"diff", "--format", "html", "-o", page, before, after}, page},
      {{"report", after, page}, page},
      {{"apply", "--dry-run", after, store}, ""},
  };
  for (const bool shown : {false, true}) {
    for (const auto& v : views) {
      SCOPED_TRACE(v.args[0] + " " + v.args[1] + (shown ? " shown" : ""));
      std::vector<std::string> args = v.args;
      if (shown) args.insert(args.begin() + 1, "--show-secrets");
      test_support::MakeStore(store, connected("u/old-pw@db", ""));
      const RunResult run = Doc(args);
      EXPECT_LE(run.status, 1) << run.err;
      const std::string seen = v.output.empty() ? run.out : ReadFile(v.output);
      for (const char* secret : {"new-pw", "side-pw"})
        EXPECT_EQ(seen.find(secret) != std::string::npos, shown) << secret;
      EXPECT_EQ(seen.find("u/*****@db #") != std::string::npos,
                !shown && args[0] != "report")
          << seen.substr(0, 2000);
    }
  }
  // The log masks whatever the views show; the document is the archive.
  std::remove(log.c_str());
  EXPECT_EQ(Doc({"apply", "--show-secrets", "--log", log, after, store}).status,
            0);
  EXPECT_EQ(ReadFile(log).find("new-pw"), std::string::npos);
  EXPECT_NE(ReadFile(log).find("Pwd=*****"), std::string::npos);
  EXPECT_NE(binaries::Export(store, OutputPath("plan-secret-export.xml"))
                .find("u/new-pw@db"),
            std::string::npos);
}

// A list of references changed: the text names each reference, the
// names in the order of the list, and JSON gives both lists by identifier
// and name.
TEST(Text, AListOfReferencesChanged) {
  const std::string full = ReadFile(DataPath("full.sql"));
  const std::string before = Document("plan-refs-before", {full}),
                    after = Document(
                        "plan-refs-after",
                        {full,
                         "DELETE FROM project_vault_server WHERE "
                         "vault_server = x'0C01'; INSERT INTO "
                         "project_vault_server VALUES (x'0D02', x'0C01'), "
                         "(x'0D02', x'0C02');"});
  const RunResult text = Doc({"diff", before, after});
  EXPECT_EQ(text.status, 1) << text.err;
  EXPECT_EQ(text.out,
            "changed PROJECT x0D01 \"P&ONE\" VaultServers: \"x0C01 x0C02 \" "
            "(\"VAULTA\", \"VAULTB\") -> \"x0C02 \" (\"VAULTB\")\n"
            "changed PROJECT x0D02 \"PTWO\" VaultServers: (none) -> \"x0C01 "
            "x0C02 \" (\"VAULTA\", \"VAULTB\")\n"
            "0 added, 0 removed, 2 changed, 0 moved\n");
  const RunResult json = Doc({"diff", "--format", "json", before, after});
  for (const char* part :
       {"\"old_refs\":[{\"oid\":\"x0C01\",\"name\":\"VAULTA\"},{\"oid\":"
        "\"x0C02\",\"name\":\"VAULTB\"}],\"new_refs\":[{\"oid\":\"x0C02\","
        "\"name\":\"VAULTB\"}]",
        "\"old\":null,\"new\":\"x0C01 x0C02 \",\"old_refs\":[],\"new_refs\":["
        "{\"oid\":\"x0C01\",\"name\":\"VAULTA\"},{\"oid\":\"x0C02\","
        "\"name\":\"VAULTB\"}]"})
    EXPECT_NE(json.out.find(part), std::string::npos) << part << json.out;
}

}  // namespace
