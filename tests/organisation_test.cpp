// Tests of the organisation elements, in process on the test double.
//
// Plan:
//   Project            data-domain children, each failure with its message,
//                      what stays, the depth
//   Domain             business domains, the quiet end of a failing list
//   DataDomain         the order of reads, the file kind, a missing business
//                      domain
//   PackageDefinition  whole data domains and their releases
//   Media              the bare identifier
// The end-to-end golden documents hold the other renderings.
#include <functional>

#include "tool_test.h"

namespace {

// A relational data domain with its business domain and, when given, its
// data server.
fake::DataDomain* AddDataDomain(fake::World& w, const std::string& label,
                                const std::string& oid,
                                fake::DataServer* server = nullptr) {
  auto* dataDomain = w.Add<fake::DataDomain>(label, oid);
  dataDomain->name = label;
  dataDomain->aliasName = "A" + label;
  dataDomain->ownerDico = "OWNER";
  dataDomain->driver = "oracle";
  dataDomain->businessDomain =
      w.Add<fake::BusinessDomain>("B" + label, "0F" + oid);
  dataDomain->dataServer = server;
  return dataDomain;
}

using Project = ToolTest;

TEST_F(Project, DataDomainsOneLevelDeeperNullsSkippedButCounted) {
  auto* project = fakes.Add<fake::Project>("P", "0A1B");
  project->name = "P1";
  auto* server = fakes.Add<fake::DataServer>("S", "0B01");
  project->dataDomains = {AddDataDomain(fakes, "DD1", "01"), nullptr,
                          AddDataDomain(fakes, "DD2", "02", server)};
  EXPECT_EQ(
      Write(DumpProject, project, 1),
      (Outcome{
          0, "",
          "  <PROJECT Name=\"P1\" Oid=\"x0A1B\">\n"
          "    <DATARDB Name=\"DD1\" AliasName=\"ADD1\"  Oid=\"x01\" "
          "OwnerDico=\"OWNER\" BusinessDomain=\"x0F01\" Driver=\"oracle\" />\n"
          "    <DATARDB Name=\"DD2\" AliasName=\"ADD2\"  Oid=\"x02\" "
          "OwnerDico=\"OWNER\" BusinessDomain=\"x0F02\" Driver=\"oracle\" "
          "DataServer=\"x0B01\" />\n"
          "</PROJECT>\n",
          1}));
  EXPECT_NE(trace.find("Project Name : [P1]\n"), std::string::npos);
  EXPECT_NE(trace.find("number of DataDomain :[3]\n"), std::string::npos);
  EXPECT_EQ(fakes.Held(), "");
}

struct Failure {
  const char* name;
  std::function<void(fake::World&, fake::Project*)> spoil;
  std::string err, doc, held;
  int depth;
};

TEST_F(Project, EachFailureKeepsWhatItWroteAndItsReferences) {
  const Failure cases[] = {
      {"vault servers",
       [](fake::World&, fake::Project* p) { p->vaultServersStatus = E_FAIL; },
       "cannot get the list of vaultservers\n", "  ", "V:1", 2},
      {"data servers",
       [](fake::World&, fake::Project* p) { p->dataServersStatus = -7; },
       "cannot get the list of dataservers\n", "  ", "V:1", 2},
      {"data domains",
       [](fake::World&, fake::Project* p) { p->dataDomainsStatus = E_FAIL; },
       "cannot get the list of datadomain\n", "  ", "", 2},
      {"file data domain",
       [](fake::World& w, fake::Project* p) {
         p->dataDomains = {AddDataDomain(w, "DD1", "01"),
                           AddDataDomain(w, "DD2", "02")};
         p->dataDomains[1]->rdb = 0;
       },
       "DATAFILE node not supported\nerror when writing DATARDB node\n",
       "  <PROJECT Name=\"P1\" Oid=\"x0A1B\" VaultServers=\"xC1 \">\n"
       "    <DATARDB Name=\"DD1\" AliasName=\"ADD1\"  Oid=\"x01\" "
       "OwnerDico=\"OWNER\" "
       "BusinessDomain=\"x0F01\" Driver=\"oracle\" />\n"
       "    ",
       "DD2:1", 3},
  };
  for (const Failure& c : cases) {
    SCOPED_TRACE(c.name);
    fake::World world;
    auto* p = world.Add<fake::Project>("P", "0A1B");
    p->name = "P1";
    p->vaultServers = {world.Add<fake::VaultServer>("V", "C1")};
    c.spoil(world, p);
    EXPECT_EQ(Write(DumpProject, p, 1), (Outcome{1, c.err, c.doc, c.depth}));
    EXPECT_EQ(world.Held(), c.held);
  }
}

using Domain = ToolTest;

TEST_F(Domain, BusinessDomainsOneLevelDeeperAndReleased) {
  auto* domain = fakes.Add<fake::Domain>("D", "0E01");
  domain->name = "DOM";
  auto* full = fakes.Add<fake::BusinessDomain>("B1", "0F01");
  full->name = "BD";
  full->metaDataName = "META";
  full->editor = "ed";
  full->corvelFlag = "1";
  full->dataModeler = "dm";
  domain->businessDomains = {full, nullptr,
                             fakes.Add<fake::BusinessDomain>("B2", "0F02")};
  EXPECT_EQ(
      Write(DumpDomain, domain, 1),
      (Outcome{0, "",
               "  <DOMAIN Name=\"DOM\" Visible=\"Y\" Oid=\"x0E01\">\n"
               "    <BUSINESSDOMAIN Oid=\"x0F01\" Name=\"BD\" "
               "MetaDataName=\"META\" Editor=\"ed\" CorvelFlag=\"1\" "
               "DataModeler=\"dm\"/>\n"
               "    <BUSINESSDOMAIN Oid=\"x0F02\" Name=\"\" MetaDataName=\"\" "
               "Editor=\"\" CorvelFlag=\"\" DataModeler=\"\"/>\n"
               "</DOMAIN>\n",
               1}));
  EXPECT_NE(trace.find("Domain Name : [DOM]\n"), std::string::npos);
  EXPECT_NE(trace.find("number of BusinessDomain :[3]\n"), std::string::npos);
  EXPECT_NE(trace.find("BusinessDomain Name : [BD]\n"), std::string::npos);
  EXPECT_EQ(fakes.Held(), "");
}

TEST_F(Domain, FailingListEndsQuietlyWithAnEndTagAndDeeperIndent) {
  auto* domain = fakes.Add<fake::Domain>("D", "0E01");
  domain->businessDomainsStatus = E_FAIL;
  EXPECT_EQ(Write(DumpDomain, domain, 1), (Outcome{0, "", "  </DOMAIN>\n", 2}));
  EXPECT_TRUE(EndsWith(trace, "returns 0\n[VANTREL] < DumpDomain\n"));
}

using DataDomain = ToolTest;

TEST_F(DataDomain, RefusedBeforeAnythingIsWritten) {
  const struct {
    const char* name;
    int rdb;
    bool businessDomain;
    HRESULT status;
    const char* err;
    const char* held;
  } cases[] = {
      {"file", 0, true, S_OK, "DATAFILE node not supported\n", ""},
      {"no business domain", 1, false, S_OK,
       "cannot get the businessdomain of datadomain\n", ""},
      // Any negative status is a failure, not only E_FAIL.
      {"failed business domain", 1, true, -3,
       "cannot get the businessdomain of datadomain\n", "BDD:1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fake::World world;
    auto* dataDomain = AddDataDomain(world, "DD", "01",
                                     world.Add<fake::DataServer>("S", "0B01"));
    dataDomain->rdb = c.rdb;
    if (!c.businessDomain) dataDomain->businessDomain = nullptr;
    dataDomain->businessDomainStatus = c.status;
    EXPECT_EQ(Write(DumpDataDomain, dataDomain, 1),
              (Outcome{1, c.err, "  ", 2}));
    EXPECT_EQ(world.Held(), c.held);
    EXPECT_EQ(world.Calls().find("GetDataServer"), std::string::npos);
  }
}

using PackageDefinition = ToolTest;

TEST_F(PackageDefinition, WholeDataDomainsEachFollowedByABlankAndReleasedOnce) {
  const struct {
    int count;
    const char* tail;
  } cases[] = {{0, "\" />\n"},
               {1, "\" WholeDataDomains=\"x1001 \" />\n"},
               {2, "\" WholeDataDomains=\"x1001 x1002 \" />\n"}};
  for (const auto& c : cases) {
    fake::World world;
    auto* definition = world.Add<fake::PackageDefinition>("K", "1401");
    definition->name = "PK";
    for (int i = 1; i <= c.count; ++i)
      definition->wholeDataDomains.push_back(
          world.Add<fake::DataDomain>("DD", "100" + std::to_string(i)));
    EXPECT_EQ(
        Write(DumpPackageDefinition, definition, 1),
        (Outcome{0, "",
                 std::string("  <PACKAGEDEFINITION Oid=\"x1401\" Name=\"PK") +
                     c.tail,
                 1}));
    for (auto* dataDomain : definition->wholeDataDomains)
      EXPECT_EQ(dataDomain->releases, 1);
  }
}

using Media = ToolTest;

TEST_F(Media, IdentifierWithoutTheX) {
  auto* media = fakes.Add<fake::Media>("M", "1301");
  media->mediaPath = "/media/one";
  EXPECT_EQ(Write(DumpMedia, media, 1),
            (Outcome{0, "",
                     "  <MEDIA Oid=\"1301\" MediaPath=\"/media/one\"/>\n", 1}));
}

}  // namespace
