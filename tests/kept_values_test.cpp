// Tests of the values a store keeps when a document is applied, as units.
//
// Plan:
//   Kept  for each mask (none, run-time state, a --keep rule): whether the
//         document gives the store's objects other values of its
//         attributes, and the document written again with the store's
//         values: an object the store lacks, and one of another kind under
//         the same identifier, keep the document's
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "Checker.h"
#include "KeptValues.h"
#include "test_support.h"

namespace {

using test_support::DataPath;
using test_support::OutputPath;
using test_support::ReadFile;
using test_support::WriteFile;

// text with its first find replaced by replace.
std::string Changed(std::string text, const std::string& find,
                    const std::string& replace) {
  const std::size_t at = text.find(find);
  EXPECT_NE(at, std::string::npos) << find;
  return text.replace(at, find.size(), replace);
}

TEST(Kept, TheStoresValuesOfWhatTheMaskNames) {
  const std::string full = ReadFile(DataPath("full.xml"));
  const std::string store = OutputPath("kept-store.xml"),
                    wanted = OutputPath("kept-wanted.xml");
  WriteFile(store, full);
  // The document moves a date and a connection string, renames a host, and
  // gives an identifier the store does not hold.
  std::string text = Changed(full, "LastSuccessfulDate=\"2026-01-01\"",
                             "LastSuccessfulDate=\"2027-07-07\"");
  text = Changed(text, "ConnectionString=\"\"", "ConnectionString=\"u/p@db\"");
  text = Changed(text, "Name=\"beta\"", "Name=\"gamma\"");
  text = Changed(text, "DBMS=\"DB2\"", "DBMS=\"PG\"");
  WriteFile(wanted, text);
  doc::PlanDocument held, wants;
  std::ostringstream unused;
  ASSERT_EQ(doc::ReadForPlan(store, held, unused), 0);
  ASSERT_EQ(doc::ReadForPlan(wanted, wants, unused), 0);
  doc::AttributeMask none{}, runTime{}, keep{};
  for (int k = 0; k < doc::kKindCount; ++k)
    runTime[k] = doc::RunTimeAttributes(doc::Kind(k));
  std::string error;
  ASSERT_TRUE(
      doc::ReadAttributeRules({"DATASERVER.ConnectionString"}, &keep, &error));
  const struct {
    const char* name;
    const doc::AttributeMask& mask;
    bool other;
    std::string written;  // the document expected
  } cases[] = {
      {"nothing kept", none, false, text},
      {"run-time state", runTime, true,
       Changed(text, "LastSuccessfulDate=\"2027-07-07\"",
               "LastSuccessfulDate=\"2026-01-01\"")},
      {"a --keep rule", keep, true,
       Changed(text, "ConnectionString=\"u/p@db\"", "ConnectionString=\"\"")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(doc::HoldsOtherValues(held, wants, c.mask), c.other);
    std::string written;
    ASSERT_TRUE(doc::KeptDocument(wanted, held, c.mask, &written));
    // The host renamed, and the server's DBMS, are kept by no mask.
    EXPECT_EQ(written, c.written);
  }
  // An identifier of another kind in the store keeps the document's value.
  const std::string other = OutputPath("kept-other.xml");
  WriteFile(other, Changed(full, "Oid=\"x1701\"", "Oid=\"x0A01\""));
  std::string written;
  ASSERT_TRUE(doc::KeptDocument(other, held, runTime, &written));
  EXPECT_EQ(written, ReadFile(other));
  EXPECT_FALSE(
      doc::KeptDocument(OutputPath("no-such.xml"), held, runTime, &written));
}

}  // namespace
