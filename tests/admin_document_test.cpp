// Tests of the document library: the line reader and the store rows of
// each element.
//
// Plan:
//   Reading  a line read in one pass reads as by every placement of its
//            delimiters, on the golden document and the fuzzer's seeds
//   Rows     every attribute of every layout goes to a store column, and
//            every column names an attribute of its layout
//   Made     the report's columns filled from the table, and templates
//            naming what the table lacks refused (the DTD and the JSON
//            Schema are checked by validating documents against them)
//   Text     the UTF-8 a value may hold in the twin, and as messages show
//            text: overlong forms, surrogates, U+FFFE, cut sequences, bytes
//            past U+10FFFF refused; a tab kept
#include <gtest/gtest.h>

#include <sstream>

#include "AdminDocument.h"
#include "DocumentRows.h"
#include "DocumentSchemas.h"
#include "DocumentWrite.h"
#include "Escape.h"
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

// The report's columns: Name first, then the element's order; a template
// naming no element, or left unended, is refused.
TEST(Made, ReportColumnsFromTheTable) {
  const struct {
    std::string text, filled, error;
  } cases[] = {
      {"<a c='@COLUMNS(HOST)@'/>", "<a c='Name Oid OSType OSVersion '/>", ""},
      {"@COLUMNS(DATARDB)@|@COLUMNS(VAULTSERVERAPPLYSTATUS)@",
       "Name AliasName Oid OwnerDico BusinessDomain Driver DataServer "
       "|Oid LastSuccessfulDate AppliedObject ",
       ""},
      {"no columns", "no columns", ""},
      {"@COLUMNS(HOSTS)@", "", "HOSTS is no element"},
      {"@COLUMNS(HOST", "", "an unended @COLUMNS("},
  };
  for (const auto& c : cases) {
    std::string out, error;
    EXPECT_EQ(doc::FillColumns(c.text, &out, &error), c.error.empty())
        << c.text;
    EXPECT_EQ(c.error.empty() ? out : error,
              c.error.empty() ? c.filled : c.error)
        << c.text;
  }
}

}  // namespace

// Values for the twin's writer and for messages, each with where the first
// character XML cannot carry unescaped stands (npos: none) and how a
// message shows it.
TEST(Text, Utf8AsTheTwinAndMessagesTakeIt) {
  const std::size_t none = std::string_view::npos;
  const struct {
    const char* name;
    std::string value;
    std::size_t illFormedAt;
    std::string shown;
  } cases[] = {
      {"plain", "abc", none, "abc"},
      {"a tab", "a\tb", none, "a\\x09b"},
      {"two bytes", "caf\xC3\xA9", none, "caf\xC3\xA9"},
      {"four bytes", "\xF0\x9F\x98\x80", none, "\xF0\x9F\x98\x80"},
      {"an ampersand", "a&b", 1, "a&b"},
      {"a quote", "a\"b", 1, "a\\x22b"},
      {"a control byte", "a\x01", 1, "a\\x01"},
      {"a lone continuation byte", "a\x80", 1, "a\\x80"},
      {"an overlong slash", "\xC0\xAF", 0, "\\xC0\\xAF"},
      {"an overlong three bytes", "\xE0\x80\xAF", 0, "\\xE0\\x80\\xAF"},
      {"a surrogate", "\xED\xA0\x80", 0, "\\xED\\xA0\\x80"},
      {"U+FFFE", "\xEF\xBF\xBE", 0, "\\xEF\\xBF\\xBE"},
      {"past U+10FFFF", "\xF4\x90\x80\x80", 0, "\\xF4\\x90\\x80\\x80"},
      {"cut short", "ab\xE2\x82", 2, "ab\\xE2\\x82"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(doc::IllFormedAt(c.value), c.illFormedAt);
    EXPECT_EQ(vantrel::Escaped(c.value), c.shown);
  }
}
