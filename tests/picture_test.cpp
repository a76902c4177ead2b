// Tests of the report's picture, drawn from documents of hosts.
//
// Plan:
//   Picture  up to the limit each object is a box linked to its row, its
//            name as written (Graphviz escapes left as text); past it, one
//            box per kind linked to the kind's table
//   Replication  up to the limit a site frames its targets and
//            subscriptions, media are written in boxes, a frame's links to
//            one package definition and repeated links are drawn once; past
//            it, a box per site linked to its row counts what replicates
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "ReportPicture.h"
#include "test_support.h"

namespace {

// The picture of a document of the elements in body.
std::string PictureOf(const std::string& body) {
  const std::string file = test_support::OutputPath("picture.xml");
  test_support::WriteFile(
      file,
      "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<!DOCTYPE AdminObjects "
      "SYSTEM \"KivAdmin.dtd\" >\n<AdminObjects>\n" +
          body + "</AdminObjects>\n");
  vdoc::PictureData data;
  doc::Walk(file, data);
  std::string svg, error;
  EXPECT_TRUE(vdoc::DrawPicture(data, &svg, &error)) << error;
  return svg;
}

// The picture of a document of count hosts named name and a number.
std::string PictureOfHosts(std::size_t count, const std::string& name) {
  std::string text;
  char oid[16];
  for (std::size_t i = 1; i <= count; ++i) {
    std::snprintf(oid, sizeof oid, "x%04zX", i);
    text += std::string("<HOST Oid=\"") + oid + "\" Name=\"" + name +
            std::to_string(i) + "\" OSType=\"\" OSVersion=\"\"/>\n";
  }
  return PictureOf(text);
}

// The picture of targets subscribing targets to site LYON, each with its
// media, package definition ALLPARTS and two statuses capturing server
// PDMDB, and of a site TOULOUSE with none.
std::string PictureOfTargets(std::size_t targets) {
  std::string text =
      "<SERVER>\n<DATASERVER Oid=\"x0201\" Name=\"PDMDB\" "
      "Authentication=\"\" DBMS=\"\" ConnectionString=\"\"/>\n</SERVER>\n";
  char oid[16];
  for (std::size_t i = 1; i <= targets; ++i) {
    std::snprintf(oid, sizeof oid, "%03zX", i);
    text += std::string("<SUBSCRIBINGTARGET Oid=\"xC") + oid + "\" Name=\"T" +
            oid + "\" Media=\"xA" + oid +
            "\" PackageDefinition=\"x0B01\" ExternSite=\"x0801\" >\n";
    for (const char* status : {"xE", "xD"})
      text += std::string("  <DATASERVERCAPTURESTATUS Oid=\"") + status + oid +
              "\" LastSuccessfulDate=\"\" CapturedObject=\"x0201\" />\n";
    text += "</SUBSCRIBINGTARGET>\n";
  }
  return PictureOf(text +
                   "<PACKAGEDEFINITION Oid=\"x0B01\" Name=\"ALLPARTS\" />\n"
                   "<EXTERNSITE Oid=\"x0801\" Name=\"LYON\"/>\n"
                   "<EXTERNSITE Oid=\"x0802\" Name=\"TOULOUSE\"/>\n");
}

// How many times part occurs in text.
std::size_t Count(const std::string& text, const std::string& part) {
  std::size_t n = 0;
  for (auto at = text.find(part); at != std::string::npos;
       at = text.find(part, at + 1))
    ++n;
  return n;
}

TEST(Picture, EachObjectUpToTheLimitThenEachKind) {
  const struct {
    const char* name;
    std::size_t hosts;
    std::string host;  // the name of each host, before its number
    std::string holds, lacks;
  } cases[] = {
      {"a name holding a Graphviz escape", 2, "a\\N", ">a\\x5CN1<",
       ">ax0001<"},
      {"at the limit, each object", vdoc::kMostDrawn, "h", "href=\"#x0001\"",
       "#kind-hosts"},
      {"past it, each kind", vdoc::kMostDrawn + 1, "h", "href=\"#kind-hosts\"",
       "href=\"#x0001\""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string svg = PictureOfHosts(c.hosts, c.host);
    EXPECT_NE(svg.find(c.holds), std::string::npos) << svg.substr(0, 3000);
    EXPECT_EQ(svg.find(c.lacks), std::string::npos);
  }
}

TEST(Picture, ReplicationFramedUpToTheLimitThenPerSite) {
  const struct {
    const char* name;
    std::size_t targets;
    std::vector<std::pair<std::string, std::size_t>> counts;
  } cases[] = {
      {"a frame per site with replication, a box for the others",
       2,
       {{"class=\"cluster\"", 1},
        {"xlink:title=\"Extern sites x0801\"", 1},
        {"<title>x0801</title>", 0},
        {"<title>x0802</title>", 1},
        {"media xA001", 1},
        {"<title>xA001</title>", 0},
        {">package (2)<", 1},
        {">captures<", 2},
        {"href=\"#xC002\"", 1}}},
      {"at the limit, media not counted",
       vdoc::kMostDrawn - 4,
       {{"class=\"cluster\"", 1}, {"href=\"#xC038\"", 1}}},
      {"past the limit, the sites",
       vdoc::kMostDrawn,
       {{"href=\"#x0801\"", 1},
        {"href=\"#x0802\"", 1},
        {"href=\"#xC002\"", 0},
        {">1 server, 1 package definition</text>", 1},
        {">60 targets, 0 subscriptions</text>", 1}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string svg = PictureOfTargets(c.targets);
    for (const auto& [part, count] : c.counts)
      EXPECT_EQ(Count(svg, part), count) << part << "\n" << svg.substr(0, 4000);
  }
}

}  // namespace
