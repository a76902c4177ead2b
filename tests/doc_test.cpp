// Tests of vantrel-doc: the document read back.
//
// Plan:
//   RoundTrip  export, load, export gives the same bytes: the demonstration,
//              the test store (markup in values), stores of other shapes,
//              a line longer than the reader's buffer
//   Check      a whole document's summary; each problem on its FILE:LINE
//              (an empty list among them); a reading restarted as XML
//              forgets the identifiers it had read; the first hundred
//              problems in their order
//   Diff       each kind of change, the same administration, trouble;
//              identifiers equal in their first 8 bytes, parents swapped,
//              a child moved to the front of another parent, a change of
//              kind
//   Load       an existing store is never touched; a refused document
//              creates nothing, not even the partial file; the usual mode;
//              a store that appears meanwhile is kept; the indexes
#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <regex>
#include <sstream>

#include "AdminDocument.h"
#include "KivStoreWriter.h"
#include "VantrelDoc.h"
#include "binaries.h"
#include "test_support.h"

using binaries::Export;
using test_support::DataPath;
using test_support::FileExists;
using test_support::MakeStore;
using test_support::OutputPath;
using test_support::ReadFile;
using test_support::WriteFile;

namespace {

struct Outcome {
  int rc;
  std::string out, err;
};

template <class Command, class... Args>
Outcome Doc(Command command, const Args&... args) {
  std::ostringstream out, err;
  const int rc = command(args..., out, err);
  return {rc, out.str(), err.str()};
}

// diff with its secrets masked, as a command without its last option.
int Diff(const std::string& before, const std::string& after,
         vdoc::PlanFormat format, const std::string& output, std::ostream& out,
         std::ostream& err) {
  vdoc::DiffOptions options;
  options.format = format;
  options.output = output;
  return vdoc::DocDiff(before, after, options, out, err);
}

TEST(RoundTrip, ExportLoadExportGivesTheSameBytes) {
  const std::string full = ReadFile(DataPath("full.sql"));
  const struct {
    const char* name;
    std::vector<std::string> sql;  // none: the demonstration
  } cases[] = {
      {"demo", {}},
      {"full", {full}},
      {"empty", {""}},
      {"long value",
       {full,
        "UPDATE host SET name = replace(hex(zeroblob(800000)), '0', 'n') "
        "WHERE oid = x'0A01';"}},
      {"no servers",
       {full,
        "DELETE FROM capture_status; DELETE FROM "
        "apply_status; DELETE FROM project_data_server;"
        "UPDATE data_domain SET data_server = NULL;"
        "DELETE FROM data_server; DELETE FROM "
        "vault_server; DELETE FROM project_vault_server;"}},
      {"generated",
       {"WITH RECURSIVE k(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM k "
        "WHERE i < 300) INSERT INTO project SELECT CAST(printf('P%04d', i) "
        "AS BLOB), 'p' || i FROM k ORDER BY random();"
        "INSERT INTO domain VALUES (x'01', 'd', 1);"
        "INSERT INTO business_domain VALUES (x'02', x'01', 'b', '', '', '', "
        "'');"
        "WITH RECURSIVE k(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM k "
        "WHERE i < 900) INSERT INTO data_domain SELECT CAST(printf('A%04d', "
        "i) AS BLOB), CAST(printf('P%04d', i % 300 + 1) AS BLOB), 'a<&\"' "
        "|| i, '', '', '', 'rdb', x'02', NULL FROM k ORDER BY random();"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::string store;
    if (!c.sql.empty()) {
      store = OutputPath(std::string("rt-") + c.name + ".db");
      MakeStore(store, c.sql);
    }
    const std::string file = OutputPath("rt.xml");
    const std::string first = Export(store, file);
    const std::string loaded = OutputPath("rt-loaded.db");
    std::remove(loaded.c_str());
    const Outcome load = Doc(vdoc::DocLoad, file, loaded);
    ASSERT_EQ(load.rc, 0) << load.err;
    EXPECT_EQ(Export(loaded, OutputPath("rt-again.xml")), first);
  }
}

// The golden document with replace put in place of find (its first one).
std::string Changed(const std::string& find, const std::string& replace,
                    std::string text = ReadFile(DataPath("full.xml"))) {
  const std::size_t at = text.find(find);
  EXPECT_NE(at, std::string::npos) << find;
  return text.replace(at, find.size(), replace);
}

// The summary counts the elements of each kind that has an identifier, in
// the order kinds first come, as a reader of the file would count them.
TEST(Check, AWholeDocumentIsSummed) {
  const std::string text = ReadFile(DataPath("full.xml"));
  std::vector<std::pair<std::string, int>> kinds;
  const std::regex element("\n *<([A-Z]+) [^\n]*Oid=");
  for (auto it = std::sregex_iterator(text.begin(), text.end(), element);
       it != std::sregex_iterator(); ++it) {
    auto kind = std::find_if(kinds.begin(), kinds.end(), [&](const auto& k) {
      return k.first == (*it)[1];
    });
    if (kind == kinds.end()) kind = kinds.insert(kinds.end(), {(*it)[1], 0});
    ++kind->second;
  }
  int total = 0;
  std::string counts;
  for (const auto& [kind, count] : kinds) {
    total += count;
    counts += "  " + kind + " " + std::to_string(count) + "\n";
  }
  const Outcome o = Doc(vdoc::DocCheck, DataPath("full.xml"));
  EXPECT_EQ(o.rc, 0) << o.err;
  EXPECT_EQ(o.out, DataPath("full.xml") + ": a whole document of " +
                       std::to_string(total) + " objects\n" + counts +
                       DataPath("full.xml") +
                       ":4: PROJECT Name holds '&': the document is not "
                       "well-formed XML; vantrel-doc xml writes a well-formed "
                       "copy\n");
}

TEST(Check, EachProblemOnItsLine) {
  const std::string host =
      "<HOST Oid=\"x0A02\" Name=\"beta\" OSType=\"\" "
      "OSVersion=\"\"/>\n";
  const struct {
    const char* name;
    std::string text;
    std::string problem;  // after FILE:
    bool alone = false;   // the only problem told
  } cases[] = {
      {"cut short",
       ReadFile(DataPath("full.xml"))
           .substr(0, ReadFile(DataPath("full.xml")).find(" DBMS=\"Oracle\"")),
       "23: the document ends before </AdminObjects>: an export that failed "
       "or a file cut short"},
      {"not a line", Changed(host, "<HOST Oid=\"x0A02\"/>\n"),
       "29: not a HOST element as "
       "the exporter writes it"},
      {"indented", Changed(host, "  " + host),
       "29: HOST indented by 2 "
       "blanks, not 0"},
      {"twice", Changed("Oid=\"x0A02\"", "Oid=\"x0A01\""),
       "29: identifier x0A01 is also the identifier of line 28"},
      {"unknown", Changed("Host=\"x0A01\"", "Host=\"x0A09\""),
       "23: Host names x0A09, which is not in the document"},
      {"wrong kind", Changed("Host=\"x0A01\"", "Host=\"x0C01\""),
       "23: Host names x0C01, a VAULTSERVER (line 25), not a HOST"},
      {"out of place",
       Changed(
           "</SERVER>\n",
           "</SERVER>\n" +
               std::string("<DOMAIN Name=\"D\" Visible=\"Y\" Oid=\"x99\">\n")),
       "28: <DOMAIN> is out of its place: it belongs inside <AdminObjects>, "
       "after the PROJECT elements and before the SERVER elements",
       true},
      {"ambiguous", Changed("Name=\"beta\"", "Name=\"b\" OSType=\"x\""),
       "29: ambiguous HOST element: a value holds the text of an attribute, "
       "so that more than one reading fits"},
      {"a delimiter before an identifier in a value",
       Changed("opt=<a&b>\"", "opt=<a&b>\" Host=\"x0A01\""),
       "23: ambiguous DATASERVER element: a value holds the text of an "
       "attribute, so that more than one reading fits"},
      {"after the end", ReadFile(DataPath("full.xml")) + host,
       "51: a line after </AdminObjects>"},
      // References and places.
      {"reference to another kind",
       Changed("BusinessDomain=\"x0F01\"", "BusinessDomain=\"x0E01\""),
       "5: BusinessDomain names x0E01, a DOMAIN (line 13), not a "
       "BUSINESSDOMAIN"},
      {"child under another parent",
       Changed("  <BUSINESSDOMAIN Oid=\"x0F02\"",
               "  <DATARDB Name=\"X\" "
               "AliasName=\"\"  Oid=\"x1009\" OwnerDico=\"\" "
               "BusinessDomain=\"x0F02\" Driver=\"\" />\n  <BUSINESSDOMAIN "
               "Oid=\"x0F02\""),
       "15: <DATARDB> is out of its place: it belongs inside <PROJECT>"},
      {"children out of their order",
       Changed("<SERVER>\n",
               "<SERVER>\n<VAULTSERVER Oid=\"x0C09\" Name=\"V\" "
               "AliasName=\"\"/>\n"),
       "24: <DATASERVER> is out of its place: it belongs inside <SERVER>, "
       "before its children of other kinds",
       true},
      {"a second local site",
       Changed("</AdminObjects>",
               "<LOCALSITE Oid=\"x1202\" Name=\"AWAY\"/>\n</AdminObjects>"),
       "50: <LOCALSITE> is out of its place: it belongs inside "
       "<AdminObjects>, after the EXTERNSITE elements, and only once",
       true},
      {"an end tag closing another element",
       Changed("</DOMAIN>\n<DOMAIN Name=\"DOMTWO\"",
               "</PROJECT>\n<DOMAIN Name=\"DOMTWO\""),
       "16: </PROJECT> is out of its place: the open element is <DOMAIN>",
       true},
      {"text after an end tag",
       Changed("</DOMAIN>\n<DOMAIN Name=\"DOMTWO\"",
               "</DOMAIN> x\n<DOMAIN Name=\"DOMTWO\""),
       "16: not a line of the document"},
      // The prologue, each line doubled, missing or out of place.
      {"declaration doubled",
       Changed("<!DOCTYPE",
               "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<!DOCTYPE"),
       "2: the XML declaration is out of its place"},
      {"declaration missing",
       Changed("<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n", ""),
       "1: the DOCTYPE is out of its place"},
      {"doctype doubled",
       Changed(
           "<AdminObjects>",
           "<!DOCTYPE AdminObjects SYSTEM \"KivAdmin.dtd\" >\n<AdminObjects>"),
       "3: the DOCTYPE is out of its place"},
      {"doctype missing",
       Changed("<!DOCTYPE AdminObjects SYSTEM \"KivAdmin.dtd\" >\n", ""),
       "2: <AdminObjects> is out of its place"},
      {"document element doubled",
       Changed("<AdminObjects>", "<AdminObjects>\n<AdminObjects>"),
       "4: <AdminObjects> is out of its place"},
      {"stylesheet after the doctype",
       Changed("<AdminObjects>",
               "<?xml-stylesheet type=\"text/xsl\" href=\"a.xsl\" "
               "?>\n<AdminObjects>"),
       "3: the stylesheet instruction is out of its place"},
      {"no final newline",
       ReadFile(DataPath("full.xml"))
           .substr(0, ReadFile(DataPath("full.xml")).size() - 1),
       "50: the last line has no newline"},
      // Values the exporter never writes.
      {"odd-length identifier", Changed("Oid=\"x0A02\"", "Oid=\"x0A021\""),
       "29: HOST Oid 'x0A021' is not an identifier: an odd number of "
       "hexadecimal digits"},
      {"non-hexadecimal identifier",
       Changed("Host=\"x0A01\"", "Host=\"x0A0G\""),
       "23: DATASERVER Host 'x0A0G' is not an identifier: 'G' is not an "
       "upper-case hexadecimal digit"},
      {"no x in a list",
       Changed("VaultServers=\"x0C01 x0C02 \"",
               "VaultServers=\"x0C01 y0C02 \""),
       "4: PROJECT VaultServers 'y0C02' is not an identifier: it does not "
       "start with x"},
      {"an empty list",
       Changed("VaultServers=\"x0C01 x0C02 \"", "VaultServers=\"\""),
       "4: PROJECT VaultServers '' is not a list of identifiers, each "
       "followed by a blank"},
      {"no x in an identifier", Changed("Oid=\"x0A02\"", "Oid=\"y0A02\""),
       "29: HOST Oid 'y0A02' is not an identifier: it does not start with x"},
      {"flag", Changed("Visible=\"N\"", "Visible=\"y\""),
       "20: DOMAIN Visible 'y' is neither Y nor N"},
      {"NUL in a value",
       Changed("Name=\"beta\"", std::string("Name=\"b\0ta\"", 11)),
       "29: HOST Name holds a NUL byte, which no store value holds"},
      // Files converted from the exporter's.
      {"CRLF line ends",
       std::regex_replace(ReadFile(DataPath("full.xml")), std::regex("\n"),
                          "\r\n"),
       "1: the file has CRLF line ends, which the exporter never writes: it "
       "was converted from this format",
       true},
      {"byte order mark", "\xEF\xBB\xBF" + ReadFile(DataPath("full.xml")),
       "1: the file starts with a byte order mark, which the exporter never "
       "writes: it was converted from this format",
       true},
      {"a media named by a host's identifier",
       Changed("Media=\"x1301\"", "Media=\"x0A01\""),
       "30: Media names x0A01, a HOST (line 28), not a media", true},
      {"the last end tag missing",
       ReadFile(DataPath("full.xml"))
               .substr(0, ReadFile(DataPath("full.xml"))
                              .find("</SUBSCRIPTION>\n<PACKAGE")) +
           "</AdminObjects>\n",
       "44: </SUBSCRIPTION> is missing before </AdminObjects>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string file = OutputPath("check.xml");
    WriteFile(file, c.text);
    const Outcome o = Doc(vdoc::DocCheck, file);
    EXPECT_EQ(o.rc, 1);
    EXPECT_EQ(o.out, "");
    EXPECT_NE(o.err.find(file + ":" + c.problem + "\n"), std::string::npos)
        << o.err;
    if (c.alone) {
      EXPECT_EQ(o.err, file + ":" + c.problem + "\n");
    }
  }
}

// A document read in the exporter's layout up to a line an XML tool wrote
// is read again as XML from its start: what was read before is forgotten,
// so that no identifier counts twice.
TEST(Check, AReadingRestartedAsXmlForgetsWhatWasRead) {
  const std::string twin = OutputPath("restart-twin.xml");
  ASSERT_EQ(Doc(vdoc::DocXml, DataPath("full.xml"), twin).rc, 0);
  std::string text = Changed(
      "<HOST Oid=\"x0A02\" Name=\"beta\"", "<HOST Name=\"beta\" Oid=\"x0A02\"",
      Changed("?><?vantrel-doc escaped?>", "?>", ReadFile(twin)));
  const std::string file = OutputPath("restart.xml");
  WriteFile(file, text);
  const Outcome o = Doc(vdoc::DocCheck, file);
  EXPECT_EQ(o.rc, 0) << o.err;
  EXPECT_EQ(o.err, "");
  // A line break that XML decodes in a parent's value is its one problem:
  // the parent keeps its place, and its children theirs.
  WriteFile(file, Changed("Name=\"P&amp;ONE\"", "Name=\"P&#10;ONE\"", text));
  const Outcome broken = Doc(vdoc::DocCheck, file);
  EXPECT_EQ(broken.rc, 1);
  EXPECT_EQ(broken.err,
            file +
                ":4: PROJECT Name holds a line break, which no store value "
                "holds\n");
}

// Problems are told in the order of their lines, the first hundred, then
// that the reading stopped; found on standard input, they name it.
TEST(Check, TheFirstHundredProblemsInTheirOrder) {
  std::string text = ReadFile(DataPath("full.xml"));
  std::string junk;
  for (int i = 0; i < 150; ++i) junk += "junk\n";
  text.insert(text.find("<HOST"), junk);
  const std::string file = OutputPath("hundred.xml");
  WriteFile(file, text);
  const Outcome o = Doc(vdoc::DocCheck, file);
  EXPECT_EQ(o.rc, 1);
  std::istringstream lines(o.err);
  std::string line, last;
  std::size_t told = 0, previous = 0;
  while (std::getline(lines, line)) {
    last = line;
    if (line.compare(0, file.size() + 1, file + ":") != 0 ||
        !std::isdigit(static_cast<unsigned char>(line[file.size() + 1])))
      continue;
    const std::size_t n =
        std::strtoul(line.c_str() + file.size() + 1, nullptr, 10);
    if (n == 0) continue;
    EXPECT_GT(n, previous) << line;
    previous = n;
    ++told;
  }
  EXPECT_EQ(told, 100u);
  EXPECT_EQ(last, file +
                      ": 100 problems: not a document the exporter "
                      "writes; stopped");
  const test_support::RunResult piped = test_support::Run(
      "/bin/sh",
      {"-c", "exec \"$0\" check - <\"$1\"", VANTREL_DOC_BINARY, file}, {});
  EXPECT_EQ(piped.status, 1);
  EXPECT_EQ(piped.err.substr(0, 11), "<stdin>:28:");
}

// The golden document with the business domain of the second domain moved
// to the end of the first.
std::string MovedToFirstDomain() {
  std::string text = ReadFile(DataPath("full.xml"));
  const std::size_t at = text.find("  <BUSINESSDOMAIN Oid=\"x0F03\"");
  const std::string line = text.substr(at, text.find('\n', at) + 1 - at);
  text.erase(at, line.size());
  return text.insert(text.find("</DOMAIN>\n"), line);
}

// The golden document without the business domain of its second domain.
std::string MovedOut() {
  return Changed(
      "  <BUSINESSDOMAIN Oid=\"x0F03\" Name=\"BDTHREE\" "
      "MetaDataName=\"META3\" Editor=\"ed3\" CorvelFlag=\"N\" "
      "DataModeler=\"dm3\"/>\n",
      "");
}

// The golden document with its first two domains in the other order.
std::string SwappedDomains() {
  std::string text = ReadFile(DataPath("full.xml"));
  const std::size_t first = text.find("<DOMAIN Name=\"DOMONE\"");
  const std::size_t second = text.find("<DOMAIN Name=\"DOMTWO\"");
  const std::size_t third = text.find("<DOMAIN Name=\"DOMTHREE\"");
  return text.substr(0, first) + text.substr(second, third - second) +
         text.substr(first, second - first) + text.substr(third);
}

// A part reviewed offline, as apply --only would make it: the objects it
// names, refused when the old document lacks what it names, and with
// --with-references what it names brought along; nothing else of the new
// document.
TEST(Diff, APartBetweenTwoDocuments) {
  const std::string full = ReadFile(DataPath("full.xml"));
  const std::string project =
      full.substr(full.find("<PROJECT Name=\"PTHREE\""),
                  full.find("<DOMAIN") - full.find("<PROJECT Name=\"PTHREE\""));
  const std::string domain =
      "  <BUSINESSDOMAIN Oid=\"x0F03\" Name=\"BDTHREE\" "
      "MetaDataName=\"META3\" Editor=\"ed3\" "
      "CorvelFlag=\"N\" DataModeler=\"dm3\"/>\n";
  const std::string old = OutputPath("part-old.xml"),
                    next = OutputPath("part-new.xml");
  WriteFile(old,
            Changed(" x1003 ", " ", Changed(domain, "", Changed(project, ""))));
  WriteFile(next, Changed("Name=\"beta\"", "Name=\"gamma\""));
  const struct {
    std::vector<std::string> options;
    int rc;
    std::string out, err;
  } cases[] = {
      {{"PROJECT:PTHREE"},
       3,
       "",
       "vantrel-doc: " + old +
           " lacks: BUSINESSDOMAIN x0F03 \"BDTHREE\" (add them to --only, or "
           "bring them along with --with-references)\n"},
      {{"PROJECT:PTHREE", "--with-references"},
       1,
       "added PROJECT x0D03 \"PTHREE\" in the document\n"
       "  DataServers: \"x0B02 \" (\"SIDEDB\")\n"
       "added DATARDB x1003 \"DDTHREE\" in x0D03 (\"PTHREE\")\n",
       ""},
      {{"PROJECT:PFOUR"},
       1,
       "",
       "vantrel-doc: PROJECT:PFOUR is no object of " + next + "\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.options[0]);
    vdoc::DiffOptions options;
    options.only = {c.options[0]};
    options.withReferences = c.options.size() > 1;
    const Outcome o = Doc(vdoc::DocDiff, old, next, options);
    EXPECT_EQ(o.rc, c.rc) << o.err;
    EXPECT_EQ(o.out.substr(0, c.out.size()), c.out);
    // The renamed host is not of the part.
    EXPECT_EQ(o.out.find("gamma"), std::string::npos);
    EXPECT_NE(o.err.find(c.err.substr(c.err.find(" lacks") == std::string::npos
                                          ? 0
                                          : c.err.find(" lacks"))),
              std::string::npos)
        << o.err;
  }
}

TEST(Diff, EachKindOfChangeGroupedByKind) {
  const std::string old = DataPath("full.xml");
  const std::string hosts =
      "<HOST Oid=\"x0A01\" Name=\"alpha\" OSType=\"Linux\" "
      "OSVersion=\"6.1\"/>\n"
      "<HOST Oid=\"x0A02\" Name=\"beta\" OSType=\"\" OSVersion=\"\"/>\n";
  const struct {
    const char* name;
    std::string text;
    int rc;
    std::string out;
  } cases[] = {
      {"same", ReadFile(old), 0, ""},
      {"attribute", Changed("OSType=\"\"", "OSType=\"AIX\""), 1,
       "changed HOST x0A02 \"beta\" OSType: \"\" -> \"AIX\"\n"
       "0 added, 0 removed, 1 changed, 0 moved\n"},
      {"optional attribute", Changed(" Host=\"x0A01\"", ""), 1,
       "changed DATASERVER x0B01 \"MAINDB\" Host: \"x0A01\" (\"alpha\") -> "
       "(none)\n0 added, 0 removed, 1 changed, 0 moved\n"},
      {"added and removed", Changed("Oid=\"x0A02\"", "Oid=\"x0A09\""), 1,
       "removed HOST x0A02 \"beta\"\n"
       "added HOST x0A09 \"beta\" in the document\n"
       "  OSType: \"\"\n  OSVersion: \"\"\n"
       "1 added, 1 removed, 0 changed, 0 moved\n"},
      {"moved to another owner", MovedToFirstDomain(), 1,
       "moved BUSINESSDOMAIN x0F03 \"BDTHREE\" from x0E02 (\"DOMTWO\") to "
       "x0E01 (\"DOMONE\")\n0 added, 0 removed, 0 changed, 1 moved\n"},
      {"moved in its list",
       ReadFile(old).replace(ReadFile(old).find(hosts), hosts.size(),
                             hosts.substr(hosts.find('\n') + 1) +
                                 hosts.substr(0, hosts.find('\n') + 1)),
       1,
       "moved HOST x0A02 \"beta\" in the document from place 2 to place 1\n"
       "0 added, 0 removed, 0 changed, 1 moved\n"},
      // x0A01 and x0A0100000000000000 share their first 8 bytes, zero-padded.
      {"identifiers sharing their first 8 bytes",
       Changed("Oid=\"x0A02\"", "Oid=\"x0A0100000000000000\""), 1,
       "removed HOST x0A02 \"beta\"\n"
       "added HOST x0A0100000000000000 \"beta\" in the document\n"
       "  OSType: \"\"\n  OSVersion: \"\"\n"
       "1 added, 1 removed, 0 changed, 0 moved\n"},
      {"two parents swapped", SwappedDomains(), 1,
       "moved DOMAIN x0E02 \"DOMTWO\" in the document from place 2 to place 1\n"
       "0 added, 0 removed, 0 changed, 1 moved\n"},
      {"a child moved to the front of another parent",
       Changed("  <BUSINESSDOMAIN Oid=\"x0F01\"",
               "  <BUSINESSDOMAIN Oid=\"x0F03\" Name=\"BDTHREE\" "
               "MetaDataName=\"META3\" Editor=\"ed3\" CorvelFlag=\"N\" "
               "DataModeler=\"dm3\"/>\n  <BUSINESSDOMAIN Oid=\"x0F01\"",
               MovedOut()),
       1,
       "moved BUSINESSDOMAIN x0F03 \"BDTHREE\" from x0E02 (\"DOMTWO\") to "
       "x0E01 (\"DOMONE\")\n0 added, 0 removed, 0 changed, 1 moved\n"},
      {"an identifier that changes kind",
       Changed("<HOST Oid=\"x0A02\" Name=\"beta\" OSType=\"\" "
               "OSVersion=\"\"/>\n",
               "",
               Changed("<LOCALSITE",
                       "<EXTERNSITE Oid=\"x0A02\" "
                       "Name=\"beta\"/>\n<LOCALSITE")),
       1,
       "changed x0A02 from a HOST to a EXTERNSITE\n"
       "1 added, 1 removed, 0 changed, 0 moved\n"},
      // Run-time state apart: not configuration, and not a difference.
      {"a status's date, and a name",
       Changed("Name=\"beta\"", "Name=\"gamma\"",
               Changed("LastSuccessfulDate=\"2026-01-01\"",
                       "LastSuccessfulDate=\"2027-01-01\"")),
       1,
       "changed HOST x0A02 \"gamma\" Name: \"beta\" -> \"gamma\"\n"
       "0 added, 0 removed, 1 changed, 0 moved\n"
       "run-time state, not configuration, 1 object:\n"
       "changed DATASERVERCAPTURESTATUS x1701 of x1501 (\"TONE\") "
       "LastSuccessfulDate: \"2026-01-01\" -> \"2027-01-01\"\n"},
      {"a status's date alone",
       Changed("LastSuccessfulDate=\"2026-01-01\"",
               "LastSuccessfulDate=\"2027-01-01\""),
       0,
       "0 added, 0 removed, 0 changed, 0 moved\n"
       "run-time state, not configuration, 1 object:\n"
       "changed DATASERVERCAPTURESTATUS x1701 of x1501 (\"TONE\") "
       "LastSuccessfulDate: \"2026-01-01\" -> \"2027-01-01\"\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string file = OutputPath("diff.xml");
    WriteFile(file, c.text);
    const Outcome o =
        Doc(Diff, old, file, vdoc::PlanFormat::kText, std::string("-"));
    EXPECT_EQ(o.rc, c.rc) << o.err;
    EXPECT_EQ(o.out, c.out);
  }
  const std::string cut = OutputPath("cut.xml");
  WriteFile(cut, ReadFile(old).substr(0, 300));
  EXPECT_EQ(Doc(Diff, old, cut, vdoc::PlanFormat::kText, std::string("-")).rc,
            2);
}

TEST(Load, NeverTouchesAnExistingFileNorLoadsARefusedDocument) {
  const std::string store = OutputPath("existing.db");
  WriteFile(store, "precious");
  Outcome o = Doc(vdoc::DocLoad, DataPath("full.xml"), store);
  EXPECT_EQ(o.rc, 2);
  EXPECT_EQ(o.err, "vantrel-doc: cannot create the store " + store +
                       ": the file exists: a store is never written over\n");
  EXPECT_EQ(ReadFile(store), "precious");

  const std::string cut = OutputPath("cut.xml"), fresh = OutputPath("fresh.db");
  WriteFile(cut, ReadFile(DataPath("full.xml")).substr(0, 300));
  std::remove(fresh.c_str());
  o = Doc(vdoc::DocLoad, cut, fresh);
  EXPECT_EQ(o.rc, 1);
  const std::string refusal =
      "vantrel-doc: " + cut + " is refused by check: nothing was loaded\n";
  EXPECT_EQ(o.err.substr(0, o.err.find('\n')),
            cut + ":5: not a DATARDB element as the exporter writes it");
  EXPECT_EQ(o.err.substr(o.err.size() - std::min(o.err.size(), refusal.size())),
            refusal);
  EXPECT_FALSE(FileExists(fresh));
  for (const std::string& name : test_support::ListDirectory(OutputPath("")))
    EXPECT_EQ(name.find("fresh.db."), std::string::npos) << name;
}

// A store is created like any file a tool creates: 0666 less the umask.
TEST(Load, CreatesTheStoreWithTheUsualMode) {
  for (const mode_t mask : {mode_t{022}, mode_t{077}}) {
    const std::string store = OutputPath("mode.db");
    std::remove(store.c_str());
    const mode_t saved = ::umask(mask);
    const Outcome o = Doc(vdoc::DocLoad, DataPath("full.xml"), store);
    ::umask(saved);
    ASSERT_EQ(o.rc, 0) << o.err;
    struct stat st {};
    ASSERT_EQ(::stat(store.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666 & ~mask) << std::oct << mask;
  }
}

// The store takes its name only if none appeared meanwhile (link, not
// rename), a row its table refuses fails the load, and the store has the
// schema's secondary indexes.
TEST(Load, AStoreIsLinkedWholeWithItsIndexes) {
  const std::string path = OutputPath("appeared.db");
  std::remove(path.c_str());
  std::string error;
  // Rows the checker never lets through, refused again by the table.
  const std::vector<KivStoreWriter::Value> refused[] = {
      {KivStoreWriter::Oid("x01"), KivStoreWriter::Null(),
       KivStoreWriter::Null(), KivStoreWriter::Null()},
      {KivStoreWriter::Oid("x02"), KivStoreWriter::Text("a\nb"),
       KivStoreWriter::Null(), KivStoreWriter::Null()}};
  for (const auto& row : refused) {
    auto writer = KivStoreWriter::Create(path, &error);
    ASSERT_TRUE(writer) << error;
    ASSERT_TRUE(writer->Add("host", refused[0], &error));
    writer->Add("host", row, &error);
    EXPECT_FALSE(writer->Commit(&error));
    EXPECT_NE(error.find("table host: "), std::string::npos) << error;
    EXPECT_FALSE(test_support::FileExists(path));
  }
  {
    auto writer = KivStoreWriter::Create(path, &error);
    ASSERT_TRUE(writer) << error;
    ASSERT_TRUE(writer->Add("host",
                            {KivStoreWriter::Oid("x01"), KivStoreWriter::Null(),
                             KivStoreWriter::Null(), KivStoreWriter::Null()},
                            &error));
    WriteFile(path, "precious");
    EXPECT_FALSE(writer->Commit(&error));
    EXPECT_EQ(error, "the file exists: a store is never written over");
  }
  EXPECT_EQ(ReadFile(path), "precious");
  for (const std::string& name : test_support::ListDirectory(OutputPath("")))
    EXPECT_EQ(name.find("appeared.db."), std::string::npos) << name;

  const std::string store = OutputPath("indexed.db");
  std::remove(store.c_str());
  ASSERT_EQ(Doc(vdoc::DocLoad, DataPath("full.xml"), store).rc, 0);
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open_v2(store.c_str(), &db, SQLITE_OPEN_READONLY, nullptr),
            SQLITE_OK);
  sqlite3_stmt* stmt = nullptr;
  sqlite3_prepare_v2(db,
                     "SELECT count(*) FROM sqlite_schema WHERE type = 'index' "
                     "AND sql IS NOT NULL",
                     -1, &stmt, nullptr);
  ASSERT_EQ(sqlite3_step(stmt), SQLITE_ROW);
  const std::string schema = ReadFile(SCHEMA_SQL);
  int wanted = 0;
  for (std::size_t at = 0;
       (at = schema.find("CREATE INDEX", at)) != std::string::npos; ++at)
    ++wanted;
  EXPECT_EQ(sqlite3_column_int(stmt, 0), wanted);
  sqlite3_finalize(stmt);
  sqlite3_close(db);
}

}  // namespace
