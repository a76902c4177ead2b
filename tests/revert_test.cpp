// Tests of a commit undone on a store's document, as a unit.
//
// Plan:
//   Revert  for each commit and each later change, over one document: a
//           value set back, an object taken out, one put back in its place
//           with its children, run-time state left as the store holds it,
//           a commit already undone; or the conflicts named: a value, an
//           object or a reference a later change touched where the commit
//           did, and what is put back naming what was removed since
#include "Revert.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "test_support.h"

namespace {

using test_support::DataPath;
using test_support::OutputPath;
using test_support::ReadFile;
using test_support::WriteFile;

using Edits = std::vector<std::pair<std::string, std::string>>;

// text with each edit's first find replaced by its replacement, in order.
std::string Edited(std::string text, const Edits& edits) {
  for (const auto& [find, replace] : edits) {
    const std::size_t at = text.find(find);
    EXPECT_NE(at, std::string::npos) << find;
    if (at != std::string::npos) text.replace(at, find.size(), replace);
  }
  return text;
}

const std::string kNorth = "<EXTERNSITE Oid=\"x1103\" Name=\"NORTH\"/>\n";
const std::string kWest = "<EXTERNSITE Oid=\"x1102\" Name=\"WEST\"/>\n";
const std::string kDomThree =
    "<DOMAIN Name=\"DOMTHREE\" Visible=\"N\" Oid=\"x0E03\">\n</DOMAIN>\n";
const std::string kSubscription =
    "<SUBSCRIPTION Oid=\"x1601\" Name=\"SONE\" Media=\"x1302\" "
    "PackageDefinition=\"x1402\" ExternSite=\"x1102\" >\n"
    "  <VAULTSERVERAPPLYSTATUS Oid=\"x1802\" LastSuccessfulDate=\"2026-02-02\" "
    "AppliedObject=\"x0C02\" />\n"
    "  <DATASERVERAPPLYSTATUS Oid=\"x1801\" LastSuccessfulDate=\"2026-02-01\" "
    "AppliedObject=\"x0B02\" />\n"
    "</SUBSCRIPTION>\n";
const std::string kStwo = "<SUBSCRIPTION Oid=\"x1602\" Name=\"STWO\" >\n";

TEST(Revert, UndoesTheCommitAndKeepsWhatChangedSince) {
  const std::string before = ReadFile(DataPath("full.xml"));
  const struct {
    const char* name;
    Edits commit;  // before to the commit's document
    Edits since;   // the commit's document to the store's
    Edits wanted;  // before to the document wanted; unused with a conflict
    std::string conflict;  // "" when the revert is made
  } cases[] = {
      {"a value set back, a later change kept",
       {{"Name=\"beta\"", "Name=\"gamma\""}},
       {{"Name=\"alpha\"", "Name=\"delta\""}},
       {{"Name=\"alpha\"", "Name=\"delta\""}},
       ""},
      {"an object added taken out",
       {{kWest, kWest + kNorth}},
       {{"Name=\"alpha\"", "Name=\"delta\""}},
       {{"Name=\"alpha\"", "Name=\"delta\""}},
       ""},
      {"an object removed put back in its place, with its children",
       {{kSubscription, ""}, {kDomThree, ""}},
       {{"Name=\"alpha\"", "Name=\"delta\""}},
       {{"Name=\"alpha\"", "Name=\"delta\""}},
       ""},
      {"run-time state stays the store's",
       {{"2026-01-01", "2026-03-03"}, {"Name=\"beta\"", "Name=\"gamma\""}},
       {{"2026-03-03", "2026-04-04"}},
       {{"2026-01-01", "2026-04-04"}},
       ""},
      {"an object added whose run-time state moved since, taken out",
       {{kStwo, kStwo +
                    "  <DATASERVERAPPLYSTATUS Oid=\"x1803\" "
                    "LastSuccessfulDate=\"\" AppliedObject=\"x0B01\" />\n"}},
       {{"LastSuccessfulDate=\"\" AppliedObject=\"x0B01\"",
         "LastSuccessfulDate=\"2026-05-05\" AppliedObject=\"x0B01\""}},
       {},
       ""},
      {"a commit already undone",
       {{"Name=\"beta\"", "Name=\"gamma\""}},
       {{"Name=\"gamma\"", "Name=\"beta\""}},
       {},
       ""},
      {"a value changed since",
       {{"Name=\"beta\"", "Name=\"gamma\""}},
       {{"Name=\"gamma\"", "Name=\"delta\""}},
       {},
       "HOST x0A02 \"delta\": Name changed by C and again since"},
      {"an object changed, then removed",
       {{"Visible=\"N\"", "Visible=\"Y\""}},
       {{"<DOMAIN Name=\"DOMTHREE\" Visible=\"Y\" Oid=\"x0E03\">\n</DOMAIN>\n",
         ""}},
       {},
       "DOMAIN x0E03 \"DOMTHREE\": changed by C and removed since"},
      {"an object added, then changed",
       {{kWest, kWest + kNorth}},
       {{"\"NORTH\"", "\"NORD\""}},
       {},
       "EXTERNSITE x1103 \"NORD\": added by C and changed since"},
      {"an object added, then given a child",
       {{kStwo,
         "<SUBSCRIPTION Oid=\"x1603\" Name=\"SNEW\" >\n</SUBSCRIPTION>\n" +
             kStwo}},
       {{"Name=\"SNEW\" >\n",
         "Name=\"SNEW\" >\n  <DATASERVERAPPLYSTATUS Oid=\"x1803\" "
         "LastSuccessfulDate=\"\" AppliedObject=\"x0B01\" />\n"}},
       {},
       "SUBSCRIPTION x1603 \"SNEW\": added by C, and holds "
       "DATASERVERAPPLYSTATUS x1803, added since"},
      {"an object added, then named",
       {{kWest, kWest + kNorth}},
       {{kStwo,
         "<SUBSCRIPTION Oid=\"x1602\" Name=\"STWO\" ExternSite=\"x1103\" >\n"}},
       {},
       "SUBSCRIPTION x1602 \"STWO\": names EXTERNSITE x1103 \"NORTH\", added "
       "by C"},
      {"an object removed, then added again",
       {{kDomThree, ""}},
       {{"<DOMAIN Name=\"DOMTWO\"",
         "<DOMAIN Name=\"DOMTHREE\" Visible=\"Y\" Oid=\"x0E03\">\n</DOMAIN>\n"
         "<DOMAIN Name=\"DOMTWO\""}},
       {},
       "DOMAIN x0E03 \"DOMTHREE\": removed by C and added again since"},
      {"a value set back names what was removed since",
       {{"Host=\"x0A01\"", "Host=\"x0A02\""}},
       {{"<HOST Oid=\"x0A01\" Name=\"alpha\" OSType=\"Linux\" "
         "OSVersion=\"6.1\"/>\n",
         ""}},
       {},
       "HOST x0A01 \"alpha\": needed by what C changed, and removed since"},
  };
  const std::string was = OutputPath("revert-before.xml"),
                    is = OutputPath("revert-after.xml"),
                    now = OutputPath("revert-now.xml");
  WriteFile(was, before);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string committed = Edited(before, c.commit);
    WriteFile(is, committed);
    WriteFile(now, Edited(committed, c.since));
    doc::Reverted reverted;
    std::string error;
    const bool made = doc::RevertCommit({now, was, is, "C"}, &reverted, &error);
    EXPECT_EQ(error, "");
    if (c.conflict.empty()) {
      EXPECT_TRUE(made);
      EXPECT_EQ(reverted.wanted, Edited(before, c.wanted));
      EXPECT_TRUE(reverted.conflicts.empty()) << reverted.conflicts[0];
      continue;
    }
    EXPECT_FALSE(made);
    EXPECT_EQ(reverted.conflicts, std::vector<std::string>{c.conflict});
  }
}

}  // namespace
