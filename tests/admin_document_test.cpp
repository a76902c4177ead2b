// Tests of the document library: the line reader and the store rows of
// each element.
//
// Plan:
//   Reading  a line read in one pass reads as by every placement of its
//            delimiters, on the golden document and the fuzzer's seeds
//   Rows     every attribute of every layout goes to a store column, and
//            every column names an attribute of its layout
#include <gtest/gtest.h>

#include <sstream>

#include "AdminDocument.h"
#include "DocumentRows.h"
#include "test_support.h"

namespace {

// Lines with quotes and "=" in their values, and usual ones.
TEST(Reading, OnePassAgreesWithEveryPlacement) {
  for (const std::string& seed :
       {test_support::DataPath("full.xml"),
        std::string(DOCUMENT_SEEDS_DIR) + "/tricky.xml"}) {
    std::istringstream lines(test_support::ReadFile(seed));
    for (std::string text; std::getline(lines, text);) {
      doc::Line plain, full;
      std::string plainReason, fullReason;
      const bool read = doc::ReadLine(text, plain, &plainReason, true);
      ASSERT_EQ(read, doc::ReadLine(text, full, &fullReason, false)) << text;
      EXPECT_EQ(plainReason, fullReason) << text;
      if (!read) continue;
      EXPECT_EQ(plain.kind, full.kind) << text;
      EXPECT_EQ(plain.present, full.present) << text;
      EXPECT_EQ(plain.values, full.values) << text;
    }
  }
}

// An attribute added to a layout without its column (or the other way
// round) is named here; the round trips then show the values arrive.
TEST(Rows, EveryAttributeGoesToAColumnOfItsRow) {
  EXPECT_EQ(doc::RowShapeProblems(), std::vector<std::string>());
}

}  // namespace
