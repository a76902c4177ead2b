// Tests of the ways into a document for other tools, through the built
// binaries: the well-formed twin, documents that XML tools have touched,
// JSON, the report, and vantrel-doc's command line.
//
// Plan:
//   Twin     for each store of a table (the demonstration, the test store
//            with markup, generated stores of random values in random
//            order): the twin validates against the DTD, Python reads the
//            store's exact values from it and from the JSON, and the twin,
//            reformatted by xmllint or not, loads into a store that exports
//            the original bytes
//   Refused  a value XML cannot carry, on FILE:LINE with its attribute;
//            check's line on a document that is not well-formed
//   Report   from an ill-formed document: every link resolves, every
//            object and the picture show in headless Chromium; of a
//            generated store of thousands of objects, the same, its
//            picture's boxes linked to the sites' rows
//   Command  --help, --version, "-" for standard input and output, exit
//            status 2 with the system's reason, a bad command line; the
//            command table: each command in the usage, with a --help of its
//            own, and the bash completion offering exactly its commands and
//            each command's options
//   Signals  SIGINT, SIGTERM and SIGHUP while load or xml writes its file:
//            the partial file removed, the process ended by the signal; a
//            partial store left by SIGKILL is refused by the exporter
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "Commands.h"
#include "binaries.h"
#include "shaped_store.h"
#include "test_support.h"

using binaries::Doc;
using binaries::Export;
using test_support::DataPath;
using test_support::MakeStore;
using test_support::Matches;
using test_support::OutputPath;
using test_support::RandomStore;
using test_support::ReadFile;

using test_support::RunResult;
using test_support::WriteFile;

namespace {

// Loads document into a new store and exports that; returns the export.
std::string LoadAndExport(const std::string& document,
                          const std::string& name) {
  const std::string store = OutputPath(name + ".db");
  std::remove(store.c_str());
  const RunResult load = Doc({"load", document, store});
  EXPECT_EQ(load.status, 0) << load.err;
  return Export(store, OutputPath(name + ".back.xml"));
}

TEST(Twin, ReadsExactlyAndLoadsBackToTheSameBytes) {
  const std::string full = ReadFile(DataPath("full.sql"));
  const struct {
    const char* name;
    std::vector<std::string> sql;  // none: the demonstration
  } cases[] = {
      {"demo", {}},
      {"full", {full}},
      {"random-1", {RandomStore(1)}},
      {"random-2", {RandomStore(2)}},
  };
  WriteFile(OutputPath("KivAdmin.dtd"), ReadFile(SHARE_DIR "/KivAdmin.dtd"));
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string name = std::string("twin-") + c.name;
    std::string store;
    if (!c.sql.empty()) {
      store = OutputPath(name + ".db");
      MakeStore(store, c.sql);
    }
    const std::string original = OutputPath(name + ".xml");
    const std::string bytes = Export(store, original);
    const std::string twin = OutputPath(name + ".twin.xml"),
                      json = OutputPath(name + ".json");
    ASSERT_EQ(Doc({"xml", original, twin}).status, 0);
    ASSERT_EQ(Doc({"json", original, json}).status, 0);
    const RunResult valid =
        test_support::Run("xmllint", {"--valid", "--noout", twin}, {});
    EXPECT_EQ(valid.status, 0) << valid.err;
    const RunResult formatted =
        test_support::Run("xmllint", {"--format", twin}, {});
    ASSERT_EQ(formatted.status, 0) << formatted.err;
    const std::string reformatted = OutputPath(name + ".formatted.xml");
    WriteFile(reformatted, formatted.out);
    if (!store.empty()) {
      // Debian's Python, with its JSON Schema validator.
      const RunResult read = test_support::Run(
          "/usr/bin/python3",
          {TEST_DIR "/read_back.py", SHARE_DIR "/vantrel-doc.schema.json",
           store, twin, json},
          {});
      EXPECT_EQ(read.status, 0) << read.out << read.err;
    }
    EXPECT_TRUE(LoadAndExport(twin, name + ".twin") == bytes);
    EXPECT_TRUE(LoadAndExport(reformatted, name + ".formatted") == bytes);
    // The JSON of a document read as XML is the JSON of the original.
    const std::string again = OutputPath(name + ".formatted.json");
    ASSERT_EQ(Doc({"json", reformatted, again}).status, 0);
    EXPECT_EQ(ReadFile(again).substr(ReadFile(again).find("\"objects\"")),
              ReadFile(json).substr(ReadFile(json).find("\"objects\"")));
  }
}

// A stylesheet's path in a twin, where XML leaves its references as
// written, reads as the path the exporter was given.
TEST(Twin, StylesheetPathsWithTheirReferencesResolved) {
  const std::string twin = OutputPath("stylesheet-demo.twin.xml");
  Export("", OutputPath("stylesheet-demo.xml"));
  ASSERT_EQ(Doc({"xml", OutputPath("stylesheet-demo.xml"), twin}).status, 0);
  const std::string text = ReadFile(twin);
  const std::size_t second = text.find('\n') + 1;
  // Millions of ampersands, read in one pass.
  const std::string many = std::string(4000000, '&') + ";";
  const struct {
    std::string href;
    std::string path;  // as JSON writes it
  } cases[] = {
      {"a&amp;b&lt;c&gt;&quot;&apos;.xsl", "a&b<c>\\\"'.xsl"},
      {"&#38;&#x26;&#X26;", "&&&#X26;"},
      {"caf&#233;&#x1F600;", "caf\xC3\xA9\xF0\x9F\x98\x80"},
      {"a&b&amp;c;&d", "a&b&c;&d"},
      {"&unknown;&#;&#x;&# 9;&#9x;", "&unknown;&#;&#x;&# 9;&#9x;"},
      {"&#0;&#xD800;&#xFFFE;&#x110000;", "&#0;&#xD800;&#xFFFE;&#x110000;"},
      {many, many},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.href.substr(0, 40));
    const std::string file = OutputPath("stylesheet.twin.xml");
    WriteFile(file, text.substr(0, second) +
                        "<?xml-stylesheet type=\"text/xsl\" href=\"" + c.href +
                        "\" ?>\n" + text.substr(second));
    const RunResult json = test_support::Run(
        "timeout", {"20", VANTREL_DOC_BINARY, "json", file, "-"}, {});
    ASSERT_EQ(json.status, 0) << json.err;
    EXPECT_NE(json.out.find("\"stylesheet\":\"" + c.path + "\""),
              std::string::npos)
        << json.out.substr(0, 200);
  }
}

TEST(Refused, ValuesXmlCannotCarryAndDocumentsItCannotRead) {
  const std::string doc = ReadFile(DataPath("full.xml"));
  // The same changes in the well-formed twin, read as XML.
  const std::string twinText = Doc({"xml", DataPath("full.xml"), "-"}).out;
  int made = 0;
  // A file of its own holding text with from replaced by to.
  const auto changed = [&](std::string text, const std::string& from,
                           const std::string& to) {
    text.replace(text.find(from), from.size(), to);
    const std::string file =
        OutputPath("refused-" + std::to_string(++made) + ".xml");
    WriteFile(file, text);
    return file;
  };
  const auto with = [&](const std::string& from, const std::string& to) {
    return changed(doc, from, to);
  };
  const auto inTwin = [&](const std::string& from, const std::string& to) {
    return changed(twinText, from, to);
  };
  std::string many;
  for (int i = 0; i < 300; ++i) many += " a" + std::to_string(i) + "=\"\"";
  const struct {
    const char* name;
    std::string file;
    std::vector<std::string> command;
    int status;
    std::string err;  // after FILE
  } cases[] = {
      {"a raw tab in an XML value",
       inTwin("\"alpha\"", "\"al\tpha\""),
       {"check"},
       1,
       ":28: a value holds a raw tab, which reading XML would change to a "
       "blank: write it as a character reference\n"},
      {"a line break by reference",
       inTwin("\"alpha\"", "\"al&#10;pha\""),
       {"load"},
       1,
       ":28: HOST Name holds a line break, which no store value holds\n"},
      {"a bare ampersand in the twin",
       inTwin("\"alpha\"", "\"a&b\""),
       {"json"},
       1,
       ":28: not well-formed XML: EntityRef: expecting \\x27;\\x27\n"},
      {"entities of its own",
       inTwin("SYSTEM \"KivAdmin.dtd\" >",
              "SYSTEM \"KivAdmin.dtd\" [\n<!ENTITY a \"aaaaaaaa\">\n]>"),
       {"xml"},
       1,
       ":3: the DOCTYPE declares entities, which no document of this format "
       "holds: an entity can stand for more text than the document\n"},
      {"a host nested in a host",
       inTwin("OSVersion=\"6.1\"/>",
              "OSVersion=\"6.1\"><HOST Oid=\"x0A09\" Name=\"n\"/></HOST>"),
       {"check"},
       1,
       ":28: <HOST> is nested in an element that holds none\n"},
      {"too many attributes",
       inTwin("<HOST Oid=\"x0A01\"", "<HOST" + many),
       {"check"},
       1,
       ":28: an element with more than 256 attributes: not a document the "
       "exporter writes\n"},
      {"a control character",
       with("\"alpha\"", "\"al\x01pha\""),
       {"xml"},
       1,
       ":28: HOST Name holds the byte \\x01, which XML 1.0 cannot carry\n"},
      {"a byte that is not UTF-8",
       with("\"beta\"", "\"be\xFFta\""),
       {"json"},
       1,
       ":29: Name is not UTF-8 text, which JSON cannot carry\n"},
      // Attributes in another order: read as XML only when well-formed.
      {"reordered in an ill-formed document",
       with("<HOST Oid=\"x0A01\" Name=\"alpha\"",
            "<HOST Name=\"alpha\" Oid=\"x0A01\""),
       {"check"},
       1,
       ":28: not a HOST element as the exporter writes it\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::string> args = c.command;
    args.push_back(c.file);
    if (c.command[0] != "check") args.push_back(OutputPath("refused.out"));
    std::remove(OutputPath("refused.out").c_str());
    const RunResult run = Doc(args);
    EXPECT_EQ(run.status, c.status);
    EXPECT_EQ(run.err.substr(0, run.err.find('\n') + 1), c.file + c.err);
    EXPECT_FALSE(test_support::FileExists(OutputPath("refused.out")));
  }
  // The twin without its mark, and one line not in the exporter's layout.
  std::string text = twinText;
  text.erase(text.find("<?vantrel-doc escaped?>"), 23);
  const std::string host = "<HOST Oid=\"x0A01\" Name=\"alpha\"";
  text.replace(text.find(host), host.size(),
               "<HOST Name=\"alpha\" Oid=\"x0A01\"");
  const std::string unmarked = OutputPath("refused-unmarked.xml");
  WriteFile(unmarked, text);
  const std::regex named("\"document\":\"[^\"]*\"");
  // Read as XML and whole: a list without its last blank, as a tool that
  // reads the document type writes it; a project without children closed
  // in its start tag; lines read in the exporter's layout before a line
  // that is not (their identifiers are not counted twice).
  for (const std::string& file :
       {inTwin("\"x1001 x1003 \"", "\"x1001 x1003\""),
        inTwin("<PROJECT Name=\"PTWO\" Oid=\"x0D02\">\n</PROJECT>",
               "<PROJECT Name=\"PTWO\" Oid=\"x0D02\"/>"),
        unmarked}) {
    SCOPED_TRACE(file);
    const RunResult run = Doc({"json", file, "-"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_TRUE(std::regex_replace(run.out, named, "") ==
                std::regex_replace(Doc({"json", DataPath("full.xml"), "-"}).out,
                                   named, ""));
  }
  const RunResult check = Doc({"check", DataPath("full.xml")});
  EXPECT_EQ(check.status, 0);
  EXPECT_NE(check.out.find(DataPath("full.xml") +
                           ":4: PROJECT Name holds '&': the document is not "
                           "well-formed XML; vantrel-doc xml writes a "
                           "well-formed copy\n"),
            std::string::npos)
      << check.out;
  const RunResult twin = Doc({"xml", DataPath("full.xml"), "-"});
  WriteFile(OutputPath("checked-twin.xml"), twin.out);
  const RunResult wellFormed = Doc({"check", OutputPath("checked-twin.xml")});
  EXPECT_EQ(wellFormed.status, 0);
  EXPECT_EQ(wellFormed.out.find("not well-formed"), std::string::npos);
}

TEST(Report, FromAnIllFormedDocumentInChromium) {
  const std::string report = OutputPath("doc-report.html");
  const RunResult made = Doc({"report", DataPath("full.xml"), report});
  ASSERT_EQ(made.status, 0) << made.err;
  const std::string html = ReadFile(report);
  const std::set<std::string> anchors = Matches(html, " id=\"([^\"]+)\"");
  const std::set<std::string> links = Matches(html, "href=\"#([^\"]+)\"");
  for (const std::string& link : links)
    EXPECT_EQ(anchors.count(link), 1u) << "unresolved link #" << link;
  for (const std::string& oid :
       Matches(ReadFile(DataPath("full.xml")), "Oid=\"(x[0-9A-F]+)\"")) {
    EXPECT_EQ(anchors.count(oid), 1u) << "no row for " << oid;
  }
  // The picture links its objects to their rows; the summary its tables.
  EXPECT_EQ(links.count("x0A01"), 1u);
  EXPECT_EQ(links.count("kind-hosts"), 1u);
  EXPECT_NE(html.find(DataPath("full.xml")), std::string::npos);

  const RunResult shown = test_support::ChromiumDom(report);
  ASSERT_EQ(shown.status, 0) << shown.err;
  EXPECT_NE(shown.out.find("<svg"), std::string::npos);
  for (const char* name :
       {"P&amp;ONE", "DDTHREE", "DOMTHREE", "BDTWO", "SIDEDB", "VAULTB", "beta",
        "TTHREE", "STWO", "PKTWO", "WEST", "HOME", "2026-02-02",
        "db=main;opt=&lt;a&amp;b&gt;"})
    EXPECT_NE(shown.out.find(name), std::string::npos) << name;
}

TEST(Report, OfThousandsOfObjectsInChromium) {
  const std::string store = OutputPath("shaped.db");
  MakeStore(store, {ShapedStoreSql(9000, true)});
  const std::string doc = OutputPath("shaped.xml"),
                    report = OutputPath("shaped-report.html");
  Export(store, doc);
  const RunResult made = Doc({"report", doc, report});
  ASSERT_EQ(made.status, 0) << made.err;

  const RunResult shown = test_support::ChromiumDom(report);
  ASSERT_EQ(shown.status, 0) << shown.err;
  const std::set<std::string> anchors = Matches(shown.out, " id=\"([^\"]+)\"");
  for (const std::string& link : Matches(shown.out, "href=\"#([^\"]+)\""))
    EXPECT_EQ(anchors.count(link), 1u) << "unresolved link #" << link;
  const std::set<std::string> oids =
      Matches(ReadFile(doc), "Oid=\"(x[0-9A-F]+)\"");
  EXPECT_GT(oids.size(), 4000u);
  for (const std::string& oid : oids)
    EXPECT_EQ(anchors.count(oid), 1u) << "no row for " << oid;
  // A row names what refers to it from a list: a package definition for a
  // data domain it holds whole, a project for a vault server it uses.
  const auto row = [&](const std::string& oid) {
    const std::size_t at = shown.out.find("<tr id=\"" + oid + "\"");
    return at == std::string::npos
               ? std::string()
               : shown.out.substr(at, shown.out.find("</tr>", at) - at);
  };
  EXPECT_NE(row("x4130303030303031")
                .find("PACKAGEDEFINITION <a href=\"#x4B30303030303031\""),
            std::string::npos)
      << row("x4130303030303031");
  EXPECT_NE(row("x5630303030303031").find("PROJECT <a href=\"#x50"),
            std::string::npos)
      << row("x5630303030303031");
  // The picture: a box per site, each linked to its row.
  const std::size_t svg = shown.out.find("<svg");
  ASSERT_NE(svg, std::string::npos);
  const std::string picture =
      shown.out.substr(svg, shown.out.find("</svg>") - svg);
  const std::set<std::string> drawn =
      Matches(picture, "href=\"#(x[0-9A-F]+)\"");
  EXPECT_EQ(drawn, Matches(ReadFile(doc),
                           "<(?:EXTERNSITE|LOCALSITE) Oid=\"(x[0-9A-F]+)\""));
  EXPECT_NE(picture.find("100 targets, 100 subscriptions"), std::string::npos);
  // A table too long to scroll through is folded, and a link to one of its
  // rows opens it.
  EXPECT_NE(shown.out.find("<details>"), std::string::npos);
  EXPECT_EQ(shown.out.find("<details open"), std::string::npos);
  const RunResult followed =
      test_support::ChromiumDom(report + "#x4130303030303031");
  ASSERT_EQ(followed.status, 0) << followed.err;
  const std::size_t open = followed.out.find("<details open"),
                    target = followed.out.find("<tr id=\"x4130303030303031\"");
  ASSERT_NE(open, std::string::npos);
  EXPECT_LT(open, target);
  EXPECT_LT(target, followed.out.find("</details>", open));
}

// Inputs without end or without form end at once, in bounded memory: one
// endless line, random bytes, ten million empty lines.
TEST(Command, EndlessInputsEndWithinSeconds) {
  const std::string empty = OutputPath("empty-lines.xml");
  WriteFile(empty, std::string(10000000, '\n'));
  const struct {
    std::string file;
    int status;
    std::string last;  // the last line of standard error
  } cases[] = {
      {"/dev/zero", 1,
       "/dev/zero:1: a line longer than 256 MiB: not a document the exporter "
       "writes\n"},
      {"/dev/urandom", 1,
       "/dev/urandom: 100 problems: not a document the exporter writes; "
       "stopped\n"},
      {empty, 1,
       empty +
           ":10000001: not well-formed XML: Extra content at the end of the "
           "document\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    const RunResult run = test_support::Run(
        "timeout", {"60", VANTREL_DOC_BINARY, "check", c.file}, {});
    EXPECT_EQ(run.status, c.status);
    const std::size_t at = run.err.rfind('\n', run.err.size() - 2);
    EXPECT_EQ(run.err.substr(at == std::string::npos ? 0 : at + 1), c.last);
  }
  // Standard input is copied to be read twice, up to the bound of any
  // document, and the copy is gone with the process.
  const RunResult piped = test_support::Run(
      "/bin/sh",
      {"-c", "head -c 2200000000 /dev/zero | timeout 60 \"$0\" check -",
       VANTREL_DOC_BINARY},
      {{"TMPDIR", OutputPath("")}});
  EXPECT_EQ(piped.status, 2);
  EXPECT_EQ(piped.err, "vantrel-doc: <stdin>: larger than any document\n");
  for (const std::string& name : test_support::ListDirectory(OutputPath("")))
    EXPECT_EQ(name.find("vantrel-"), std::string::npos) << name;
}

TEST(Command, TheUsualCommandLine) {
  const std::string nosuch = OutputPath("nosuch.xml");
  std::remove(nosuch.c_str());
  const struct {
    std::vector<std::string> args;
    int status;
    std::string out, err;  // the beginning of each
  } cases[] = {
      {{"--help"}, 0, "usage: vantrel-doc check [-q] DOC\n", ""},
      {{"-h"}, 0, "usage: vantrel-doc check [-q] DOC\n", ""},
      {{"--version"}, 0, "vantrel-doc 1.0.0\n", ""},
      // -q: the exit status alone tells.
      {{"check", "-q", DataPath("full.xml")}, 0, "", ""},
      {{"diff", "-q", DataPath("full.xml"), DataPath("full.xml")}, 0, "", ""},
      {{}, 2, "", "vantrel-doc: a command is needed\nusage: vantrel-doc check"},
      {{"check"}, 2, "", "vantrel-doc: check needs DOC\nusage: "},
      {{"apply", "doc.xml"}, 2, "", "vantrel-doc: apply needs DOC and STORE\n"},
      {{"apply", "--frob", "a", "b"},
       2,
       "",
       "vantrel-doc: apply: --frob is not an option\n"},
      {{"xml", "a", "b", "c"},
       2,
       "",
       "vantrel-doc: xml: c is one argument too many\n"},
      {{"frob"}, 2, "", "vantrel-doc: frob is not a command\n"},
      // An empty value names nothing; a limit is a count.
      {{"apply", "--base", "", "a", "b"},
       2,
       "",
       "vantrel-doc: apply: --base: an empty value names nothing\n"},
      {{"apply", "--log", "", "a", "b"},
       2,
       "",
       "vantrel-doc: apply: --log: an empty value names nothing\n"},
      {{"apply", "--only", "", "a", "b"},
       2,
       "",
       "vantrel-doc: apply: --only: an empty value names nothing\n"},
      {{"diff", "-o", "", "a", "b"},
       2,
       "",
       "vantrel-doc: diff: --output: an empty value names nothing\n"},
      {{"apply", "--max-removals", "-1", "a", "b"},
       2,
       "",
       "vantrel-doc: apply: --max-removals: -1 is not a count of objects (0 "
       "or more)\n"},
      {{"apply", "--max-removals", "ten", "a", "b"},
       2,
       "",
       "vantrel-doc: apply: --max-removals: ten is not a count of objects (0 "
       "or more)\n"},
      {{"diff", "--format", "yaml", "a", "b"}, 2, "", "vantrel-doc: diff: "},
      {{"apply", "--help"}, 0, "Makes a store export a document", ""},
      {{"check", nosuch},
       2,
       "",
       "vantrel-doc: " + nosuch + ": No such file or directory\n"},
      // A name holding a line break cannot forge a line of its own.
      {{"check", OutputPath("a\nb.xml")},
       2,
       "",
       "vantrel-doc: " + OutputPath("a\\x0Ab.xml") +
           ": No such file or directory\n"},
      {{"load", nosuch, OutputPath("from-nothing.db")},
       2,
       "",
       "vantrel-doc: " + nosuch + ": No such file or directory\n"},
      {{"check", OutputPath("")},
       2,
       "",
       "vantrel-doc: " + OutputPath("") + ": Is a directory\n"},
      {{"json", nosuch}, 2, "", "vantrel-doc: " + nosuch + ": No such"},
      {{"xml", DataPath("full.xml"), OutputPath("no/such/dir.xml")},
       2,
       "",
       "vantrel-doc: cannot write " + OutputPath("no/such/dir.xml") +
           ": No such file or directory\n"},
      {{"diff", DataPath("full.xml"), nosuch},
       2,
       "",
       "vantrel-doc: " + nosuch + ": No such file or directory\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args.empty() ? "(none)" : c.args[0]);
    const RunResult run = Doc(c.args);
    EXPECT_EQ(run.status, c.status);
    EXPECT_EQ(run.out.substr(0, c.out.size()), c.out);
    if (c.out.empty()) {
      EXPECT_EQ(run.out, "");
    }
    EXPECT_EQ(run.err.substr(0, c.err.size()), c.err);
  }
  EXPECT_FALSE(test_support::FileExists(OutputPath("from-nothing.db")));
  // "-": the document from standard input, the twin to standard output.
  const RunResult piped =
      test_support::Run("sh",
                        {"-c", std::string(VANTREL_DOC_BINARY) + " xml - - < " +
                                   DataPath("full.xml")},
                        {});
  EXPECT_EQ(piped.status, 0) << piped.err;
  EXPECT_EQ(
      piped.out.substr(0, 62),
      "<?xml version=\"1.0\" encoding=\"UTF-8\" ?><?vantrel-doc escaped?>");
  EXPECT_NE(piped.out.find("Name=\"P&amp;ONE\""), std::string::npos);
}

// The words of list, split at blanks, in a set.
std::set<std::string> Words(const std::string& list) {
  std::set<std::string> words;
  std::istringstream in(list);
  for (std::string w; in >> w;) words.insert(w);
  return words;
}

TEST(Command, TheTableIsWhatUsageHelpAndCompletionKnow) {
  const std::string completion =
      ReadFile(std::string(TEST_DIR) + "/../share/completion/vantrel-doc");
  std::smatch first;
  ASSERT_TRUE(std::regex_search(
      completion, first, std::regex(R"re(compgen -W \\\n *"([^"]*)")re")));
  std::set<std::string> commands{"--help", "--version"};
  for (const vdoc::CommandNames& c : vdoc::ListCommands()) {
    SCOPED_TRACE(c.name);
    commands.insert(c.name);
    EXPECT_NE(vdoc::Usage().find("vantrel-doc " + c.name + " "),
              std::string::npos);
    const RunResult help = Doc({c.name, "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("Usage:"), std::string::npos) << help.out;
    std::smatch offered;
    ASSERT_TRUE(std::regex_search(
        completion, offered,
        std::regex("\n    " + c.name + "\\) options=\"([^\"]*)\"")));
    std::set<std::string> options(c.options.begin(), c.options.end());
    options.erase("-h");  // --help is offered for it
    EXPECT_EQ(Words(offered[1]), options);
  }
  EXPECT_EQ(Words(first[1]), commands);
}

// The manual page's table of exit statuses is the contract: each status it
// lists is met by the commands it names, and no other status is.
TEST(Command, TheExitStatusesOfTheManualPage) {
  const std::string page =
      ReadFile(std::string(TEST_DIR) + "/../share/man/vantrel-doc.1");
  const std::string section =
      page.substr(page.find(".SH EXIT STATUS"),
                  page.find(".SH EXAMPLES") - page.find(".SH EXIT STATUS"));
  std::set<int> listed;
  const std::regex item(R"re(\.TP\n\.B (\d+)\n)re");
  for (auto it = std::sregex_iterator(section.begin(), section.end(), item);
       it != std::sregex_iterator(); ++it)
    listed.insert(std::stoi((*it)[1]));
  const std::string full = ReadFile(DataPath("full.xml"));
  const std::string doc = OutputPath("exit.xml"),
                    cut = OutputPath("exit-cut.xml"),
                    renamed = OutputPath("exit-renamed.xml"),
                    fewer = OutputPath("exit-fewer.xml"),
                    store = OutputPath("exit.db"),
                    other = OutputPath("exit-other.db"),
                    archive = OutputPath("exit-archive.xml");
  WriteFile(doc, full);
  WriteFile(cut, full.substr(0, 300));
  std::string text = full;
  WriteFile(renamed,
            text.replace(text.find("Name=\"beta\""), 11, "Name=\"gamma\""));
  text = full;
  const std::string host =
      "<HOST Oid=\"x0A02\" Name=\"beta\" OSType=\"\" OSVersion=\"\"/>\n";
  WriteFile(fewer, text.replace(text.find(host), host.size(), ""));
  const auto fresh = [&] {
    std::remove(store.c_str());
    std::remove(archive.c_str());
    EXPECT_EQ(Doc({"load", doc, store}).status, 0);
  };
  const struct {
    int status;
    std::vector<std::string> args;
  } cases[] = {
      {0, {"check", doc}},
      {0, {"diff", doc, doc}},
      {0, {"apply", doc, store}},
      {0, {"export", "-q", store, archive}},
      {1, {"check", cut}},
      {1, {"diff", doc, renamed}},
      {1, {"apply", "--dry-run", renamed, store}},
      {1, {"apply", cut, store}},
      {2, {"check", OutputPath("no-such.xml")}},
      {2, {"apply", "--max-removals", "-1", doc, store}},
      {2, {"apply", "--only", "", doc, store}},
      {2, {"json", doc, OutputPath("")}},
      {3, {"apply", "--max-removals", "0", fewer, store}},
      {3, {"apply", "--dry-run", "--max-removals", "0", fewer, store}},
      {3, {"export", other, archive}},
  };
  std::set<int> met;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + c.args[1]);
    fresh();
    if (c.status == 3 && c.args[0] == "export") {
      ASSERT_EQ(Doc({"export", "-q", store, archive}).status, 0);
      WriteFile(OutputPath("exit-other.xml"),
                std::regex_replace(full, std::regex("x1201"), "x1299"));
      std::remove(other.c_str());
      ASSERT_EQ(Doc({"load", OutputPath("exit-other.xml"), other}).status, 0);
    }
    EXPECT_EQ(Doc(c.args).status, c.status);
    met.insert(c.status);
  }
  EXPECT_EQ(met, listed);
}

// The completion as bash runs it, without extglob: documents and
// directories for a document, any file for a store, the document's
// identifiers after --only, past the commas typed.
TEST(Command, TheCompletionOffersWhatEachWordTakes) {
  const std::string dir = OutputPath("completing");
  ::mkdir(dir.c_str(), 0755);
  ::mkdir((dir + "/dd").c_str(), 0755);
  WriteFile(dir + "/d.xml", ReadFile(DataPath("full.xml")));
  WriteFile(dir + "/d.db", "");
  const struct {
    std::string line;  // the words, the last one being completed
    std::string offered;
  } cases[] = {
      {"vantrel-doc check d", "d.xml dd"},
      {"vantrel-doc load d.xml d", "d.db d.xml dd"},
      {"vantrel-doc apply --only x0D d.xml d.db", "x0D01 x0D02 x0D03"},
      {"vantrel-doc apply --only x0D01,x0A d.xml d.db",
       "x0D01,x0A01 x0D01,x0A02"},
      {"vantrel-doc export --o", "--other-installation"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    std::vector<std::string> words;
    std::istringstream in(c.line);
    for (std::string w; in >> w;) words.push_back(w);
    // The word completed is the one before the last for --only's cases.
    std::size_t at = words.size() - 1;
    for (std::size_t i = 0; i + 1 < words.size(); ++i)
      if (words[i] == "--only") at = i + 1;
    std::string array;
    for (const std::string& w : words) array += " '" + w + "'";
    const RunResult run = test_support::Run(
        "/bin/bash",
        {"-c",
         "cd \"$1\" && shopt -u extglob && source \"$0\" && COMP_WORDS=(" +
             array + ") && COMP_CWORD=" + std::to_string(at) +
             " && _vantrel_doc && printf '%s\\n' \"${COMPREPLY[@]}\" | sort | "
             "paste -sd ' '",
         std::string(TEST_DIR) + "/../share/completion/vantrel-doc", dir},
        {});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, c.offered + "\n") << run.err;
  }
}

// The files of directory whose names hold part.
std::vector<std::string> Partials(const std::string& directory,
                                  const std::string& part) {
  std::vector<std::string> found;
  for (const std::string& name : test_support::ListDirectory(directory))
    if (name.find(part) != std::string::npos) found.push_back(name);
  return found;
}

// Starts vantrel-doc with args, its standard input a pipe held open, and
// waits until a partial file named after target appears; returns the pid.
pid_t StartHeld(const std::vector<std::string>& args, const std::string& target,
                int* input) {
  int fds[2];
  EXPECT_EQ(::pipe(fds), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(fds[0], 0);
    ::close(fds[1]);
    std::vector<char*> argv{const_cast<char*>(VANTREL_DOC_BINARY)};
    for (const std::string& a : args)
      argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    ::execv(VANTREL_DOC_BINARY, argv.data());
    ::_exit(127);
  }
  ::close(fds[0]);
  *input = fds[1];
  const std::string directory = target.substr(0, target.rfind('/'));
  const std::string part = target.substr(target.rfind('/') + 1) + ".partial-";
  for (int i = 0; i < 500 && Partials(directory, part).empty(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return child;
}

TEST(Signals, RemoveThePartialFile) {
  const std::string store = OutputPath("signalled.db"),
                    twin = OutputPath("signalled.xml");
  const struct {
    std::vector<std::string> args;
    std::string target;
  } commands[] = {{{"load", "-", store}, store}, {{"xml", "-", twin}, twin}};
  for (const auto& c : commands) {
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) {
      SCOPED_TRACE(c.args[0] + " " + std::to_string(signal));
      std::remove(c.target.c_str());
      const std::string directory = c.target.substr(0, c.target.rfind('/'));
      const std::string part =
          c.target.substr(c.target.rfind('/') + 1) + ".partial-";
      int input = -1;
      const pid_t child = StartHeld(c.args, c.target, &input);
      ASSERT_EQ(Partials(directory, part).size(), 1u);
      ::kill(child, signal);
      int status = 0;
      ::waitpid(child, &status, 0);
      ::close(input);
      EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal) << status;
      EXPECT_EQ(Partials(directory, part), std::vector<std::string>());
      EXPECT_FALSE(test_support::FileExists(c.target));
    }
  }
  // After SIGKILL the partial store stays, and is not a store.
  int input = -1;
  std::remove(store.c_str());
  const pid_t child = StartHeld({"load", "-", store}, store, &input);
  // Once the schema is written (the store is read from standard input after
  // it).
  const std::string directory = store.substr(0, store.rfind('/'));
  for (int i = 0; i < 500; ++i) {
    const auto left = Partials(directory, "signalled.db.partial-");
    struct stat st {};
    if (!left.empty() &&
        ::stat((directory + "/" + left[0]).c_str(), &st) == 0 && st.st_size > 0)
      break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  ::close(input);
  const auto left = Partials(directory, "signalled.db.partial-");
  ASSERT_EQ(left.size(), 1u);
  const std::string partial = directory + "/" + left[0];
  const RunResult run =
      test_support::Run(VANTREL_BINARY, {"-f", OutputPath("killed.xml")},
                        {{"KIV_ADMIN_STORE", partial}});
  // Never an empty administration: refused for its format version, or as
  // malformed when the kill came while the schema was being written.
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("\ncannot init KivAdmin\n"), std::string::npos)
      << run.err;
  std::remove(partial.c_str());
}

}  // namespace
