// Tests of the report's picture, drawn from documents of hosts.
//
// Plan:
//   Picture  up to the limit each object is a box linked to its row, its
//            name as written (Graphviz escapes left as text); past it, one
//            box per kind linked to the kind's table
#include <gtest/gtest.h>

#include <string>

#include "ReportPicture.h"
#include "test_support.h"

namespace {

// The picture of a document of count hosts named name and a number.
std::string PictureOfHosts(std::size_t count, const std::string& name) {
  std::string text =
      "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<!DOCTYPE AdminObjects "
      "SYSTEM \"KivAdmin.dtd\" >\n<AdminObjects>\n";
  char oid[16];
  for (std::size_t i = 1; i <= count; ++i) {
    std::snprintf(oid, sizeof oid, "x%04zX", i);
    text += std::string("<HOST Oid=\"") + oid + "\" Name=\"" + name +
            std::to_string(i) + "\" OSType=\"\" OSVersion=\"\"/>\n";
  }
  text += "</AdminObjects>\n";
  const std::string file = test_support::OutputPath("picture.xml");
  test_support::WriteFile(file, text);
  PictureData data;
  doc::Walk(file, data);
  std::string svg, error;
  EXPECT_TRUE(DrawPicture(data, &svg, &error)) << error;
  return svg;
}

TEST(Picture, EachObjectUpToTheLimitThenEachKind) {
  const struct {
    const char* name;
    std::size_t hosts;
    std::string host;  // the name of each host, before its number
    std::string holds, lacks;
  } cases[] = {
      {"a name holding a Graphviz escape", 2, "a\\N", ">a\\N1<", ">ax0001<"},
      {"at the limit, each object", kMostDrawn, "h", "href=\"#x0001\"",
       "#kind-hosts"},
      {"past it, each kind", kMostDrawn + 1, "h", "href=\"#kind-hosts\"",
       "href=\"#x0001\""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string svg = PictureOfHosts(c.hosts, c.host);
    EXPECT_NE(svg.find(c.holds), std::string::npos) << svg.substr(0, 3000);
    EXPECT_EQ(svg.find(c.lacks), std::string::npos);
  }
}

}  // namespace
