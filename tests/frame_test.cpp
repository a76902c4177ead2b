// Tests of the driver, the export run, the document frame and the root
// traversal, in process on the test double.
//
// Plan:
//   NullObject   every writer given a null object
//   ExportRun    each outcome of the run: message, file, root, session
//   Root         the document element: an empty administration, the order
//                of sections, each getter failure, null elements and the
//                release rule of each section
#include <functional>

#include "tool_test.h"

namespace {

const char kProlog[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n"
    "<!DOCTYPE AdminObjects SYSTEM \"KivAdmin.dtd\" >\n";
const char kEmptyRoot[] = "<AdminObjects>\n</AdminObjects>\n";

// The last line of text, with its newline.
std::string LastLine(const std::string& text) {
  const std::size_t end = text.rfind('\n', text.size() - 2);
  return end == std::string::npos ? text : text.substr(end + 1);
}

using NullObject = ToolTest;

// Every writer reports a null object; those that indent leave their
// indentation behind and the depth one level higher.
TEST_F(NullObject, ReportedWithTheIndentationLeftBehind) {
  using Dump = int (*)(std::ofstream*);
  const struct {
    const char* step;
    Dump dump;
    bool indents;
  } cases[] = {
#define NULL_CASE(Writer, indents) \
  {#Writer, [](std::ofstream* o) { return Writer(o, nullptr); }, indents}
      // One writer of each frame: the two that write no indentation, an
      // element with children, a single-line element, a status.
      NULL_CASE(DumpRoot, false),
      NULL_CASE(DumpServers, false),
      NULL_CASE(DumpProject, true),
      NULL_CASE(DumpHost, true),
      NULL_CASE(DumpVaultServerApplyStatus, true),
#undef NULL_CASE
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.step);
    EXPECT_EQ(Run(c.dump, 1), (Outcome{1, kNullReport, c.indents ? "  " : "",
                                       c.indents ? 2 : 1}));
    EXPECT_EQ(trace, std::string("[VANTREL] > ") + c.step +
                         "\n[VANTREL]   returns 1\n[VANTREL] < " + c.step +
                         "\n");
  }
}

struct RunCase {
  const char* name;
  std::function<void(fake::World&)> setUp;
  int rc;
  std::string err, doc, held;
  int sessionsClosed;
};

using ExportRun = ToolTest;

TEST_F(ExportRun, EachOutcome) {
  const std::string whole = std::string(kProlog) + kEmptyRoot;
  const RunCase cases[] = {
      {"success", [](fake::World&) {}, 0, "", whole, "", 1},
      {"no root", [](fake::World& w) { w.noRoot = true; }, 1,
       "cannot get KivAdmin\n", "", "", 0},
      {"init", [](fake::World& w) { w.admin.initStatus = -3; }, 1,
       "cannot init KivAdmin\n", "", "Admin:1", 0},
      {"root", [](fake::World& w) { w.admin.projectsStatus = -2; }, 1,
       "cannot get the list of projects\ncannot dump adminobjects \n",
       std::string(kProlog) + "<AdminObjects>\n", "Admin:1", 0},
      {"end", [](fake::World& w) { w.admin.endStatus = E_FAIL; }, 1,
       "cannot End KivAdmin\n", whole, "Admin:1", 0},
  };
  for (const RunCase& c : cases) {
    SCOPED_TRACE(c.name);
    fake::World world;
    c.setUp(world);
    EXPECT_EQ(Run(ReadAdmin, 0), (Outcome{c.rc, c.err, c.doc, 0}));
    EXPECT_EQ(world.Held(), c.held);
    EXPECT_EQ(world.sessionsClosed, c.sessionsClosed);
  }
}

using Root = ToolTest;

// The local site is missing too: the document closes all the same.
TEST_F(Root, EmptyAdministrationCountsEveryList) {
  EXPECT_EQ(Write(DumpRoot, &fakes.admin), (Outcome{0, "", kEmptyRoot, 0}));
  EXPECT_EQ(trace,
            "[VANTREL] > DumpRoot\n"
            "[VANTREL]   number of project :[0]\n"
            "[VANTREL]   number of domain :[0]\n"
            "[VANTREL]   > DumpServers\n"
            "[VANTREL]     returns 0\n"
            "[VANTREL]   < DumpServers\n"
            "[VANTREL]   number of host found : [0]\n"
            "[VANTREL]   number of subscribing target found [0]\n"
            "[VANTREL]   number of subscription found [0]\n"
            "[VANTREL]   number of package definition found [0]\n"
            "[VANTREL]   number of package definition found [0]\n"
            "[VANTREL]   returns 0\n"
            "[VANTREL] < DumpRoot\n");
}

// One object of every kind, each in its section.
void FillAll(fake::World& w) {
  auto* project = w.Add<fake::Project>("P1", "01");
  project->name = "p";
  w.admin.projects = {project};
  auto* domain = w.Add<fake::Domain>("DOM1", "02");
  domain->name = "d";
  w.admin.domains = {domain};
  w.admin.vaultServers = {w.Add<fake::VaultServer>("V1", "03")};
  w.admin.hosts = {w.Add<fake::Host>("H1", "04")};
  w.admin.targets = {w.Add<fake::SubscribingTarget>("T1", "05")};
  w.admin.subscriptions = {w.Add<fake::Subscription>("S1", "06")};
  w.admin.packageDefinitions = {w.Add<fake::PackageDefinition>("K1", "07")};
  w.admin.externSites = {w.Add<fake::ExternSite>("E1", "08")};
  w.admin.localSite = w.Add<fake::LocalSite>("L1", "09");
}

// Null projects and domains are skipped but counted; on success every
// element is given back but the hosts.
TEST_F(Root, SectionsInTheirFixedOrderAndOnlyHostsKept) {
  FillAll(fakes);
  fakes.admin.projects.push_back(nullptr);
  fakes.admin.domains.insert(fakes.admin.domains.begin(), nullptr);
  EXPECT_EQ(
      Write(DumpRoot, &fakes.admin),
      (Outcome{0, "",
               "<AdminObjects>\n"
               "<PROJECT Name=\"p\" Oid=\"x01\">\n"
               "</PROJECT>\n"
               "<DOMAIN Name=\"d\" Visible=\"Y\" Oid=\"x02\">\n"
               "</DOMAIN>\n"
               "<SERVER>\n"
               "<VAULTSERVER Oid=\"x03\" Name=\"\" AliasName=\"\"/>\n"
               "</SERVER>\n"
               "<HOST Oid=\"x04\" Name=\"\" OSType=\"\" OSVersion=\"\"/>\n"
               "<SUBSCRIBINGTARGET Oid=\"x05\" Name=\"\" >\n"
               "</SUBSCRIBINGTARGET>\n"
               "<SUBSCRIPTION Oid=\"x06\" Name=\"\" >\n"
               "</SUBSCRIPTION>\n"
               "<PACKAGEDEFINITION Oid=\"x07\" Name=\"\" />\n"
               "<EXTERNSITE Oid=\"x08\" Name=\"\"/>\n"
               "<LOCALSITE Oid=\"x09\" Name=\"\"/>\n"
               "</AdminObjects>\n",
               0}));
  EXPECT_NE(trace.find("number of project :[2]"), std::string::npos);
  EXPECT_NE(trace.find("number of domain :[2]"), std::string::npos);
  EXPECT_EQ(fakes.Held(), "H1:1");
}

// Each section's getter failure ends the document after the section
// before it, whole, with its own message alone.
TEST_F(Root, GetterFailureEndsTheDocumentWithItsMessage) {
  const struct {
    HRESULT fake::Admin::*status;
    const char* err;
    const char* lastLine;
  } cases[] = {
      {&fake::Admin::projectsStatus, "cannot get the list of projects\n",
       "<AdminObjects>\n"},
      {&fake::Admin::domainsStatus, "cannot get the list of domain\n",
       "</PROJECT>\n"},
      {&fake::Admin::hostsStatus, "cannot get the list of HOST\n",
       "</SERVER>\n"},
      {&fake::Admin::targetsStatus,
       "cannot get the list of subscribing target\n",
       "<HOST Oid=\"x04\" Name=\"\" OSType=\"\" OSVersion=\"\"/>\n"},
      {&fake::Admin::subscriptionsStatus,
       "cannot get the list of subscription \n", "</SUBSCRIBINGTARGET>\n"},
      {&fake::Admin::packageDefinitionsStatus,
       "cannot get the list of package definition \n", "</SUBSCRIPTION>\n"},
      // The extern sites' getter failing says "package definition" too.
      {&fake::Admin::externSitesStatus,
       "cannot get the list of package definition \n",
       "<PACKAGEDEFINITION Oid=\"x07\" Name=\"\" />\n"},
      {&fake::Admin::localSiteStatus, "cannot get KivILocalSite pointer\n",
       "<EXTERNSITE Oid=\"x08\" Name=\"\"/>\n"},
      {nullptr,
       "unexpected null pointer line [N] File [Vantrel.m/src/Vantrel.cpp]\n"
       "cannot dump data server \ncannot dump server list\n",
       "<SERVER>\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.err);
    fake::World world;
    FillAll(world);
    // The server section fails on a null data server; its messages follow
    // the null-pointer report.
    if (c.status)
      world.admin.*c.status = E_FAIL;
    else
      world.admin.dataServers = {nullptr};
    const Outcome o = Write(DumpRoot, &world.admin);
    EXPECT_EQ(o.rc, 1);
    EXPECT_EQ(o.err, c.err);
    EXPECT_EQ(LastLine(o.doc), c.lastLine);
    EXPECT_TRUE(EndsWith(trace, "   returns 1\n[VANTREL] < DumpRoot\n"));
  }
}

struct ReleaseCase {
  const char* section;
  std::function<void(fake::World&)> setUp;  // the second element fails
  std::string err;
  std::string held;  // what stays held after the failure
};

// A domain cannot fail under the root: it skips its null business domains
// and the root skips null domains.
TEST_F(Root, EachSectionKeepsItsReleaseRuleOnFailure) {
  const std::string nullReport = kNullReport;
  const ReleaseCase cases[] = {
      {"projects",
       [](fake::World& w) {
         auto* failing = w.Add<fake::Project>("P2", "02");
         failing->dataDomainsStatus = E_FAIL;
         w.admin.projects = {w.Add<fake::Project>("P1", "01"), failing,
                             w.Add<fake::Project>("P3", "03")};
       },
       "cannot get the list of datadomain\nerror when writing PROJECT node\n",
       "P2:1 P3:1"},
      {"hosts",
       [](fake::World& w) {
         w.admin.hosts = {w.Add<fake::Host>("H1", "01"), nullptr,
                          w.Add<fake::Host>("H3", "03")};
       },
       nullReport + "cannot dump Host\n", "H1:1 H3:1"},
      {"targets",
       [](fake::World& w) {
         auto* failing = w.Add<fake::SubscribingTarget>("T2", "02");
         failing->statuses = {w.Add<fake::CaptureStatus>("C", "0C")};
         failing->statuses[0]->serverStatus = E_FAIL;
         w.admin.targets = {w.Add<fake::SubscribingTarget>("T1", "01"), failing,
                            w.Add<fake::SubscribingTarget>("T3", "03")};
       },
       "cannot get capture server\ncannot dump Subscribing target \n", "C:1"},
      {"subscriptions",
       [](fake::World& w) {
         auto* failing = w.Add<fake::Subscription>("S2", "02");
         failing->statuses = {w.Add<fake::ApplyStatus>("A", "0A")};
         failing->statuses[0]->serverStatus = E_FAIL;
         w.admin.subscriptions = {w.Add<fake::Subscription>("S1", "01"),
                                  failing,
                                  w.Add<fake::Subscription>("S3", "03")};
       },
       "cannot get Apply server\ncannot dump Subscrption \n", "A:1"},
      {"package definitions",
       [](fake::World& w) {
         w.admin.packageDefinitions = {
             w.Add<fake::PackageDefinition>("K1", "01"), nullptr,
             w.Add<fake::PackageDefinition>("K3", "03")};
       },
       nullReport + "cannot dump package definition\n", "K1:1 K3:1"},
      {"extern sites",
       [](fake::World& w) {
         w.admin.externSites = {w.Add<fake::ExternSite>("E1", "01"), nullptr,
                                w.Add<fake::ExternSite>("E3", "03")};
       },
       nullReport + "cannot dump package definition\n", ""},
  };
  for (const ReleaseCase& c : cases) {
    SCOPED_TRACE(c.section);
    fake::World world;
    c.setUp(world);
    const Outcome o = Write(DumpRoot, &world.admin);
    EXPECT_EQ(o.rc, 1);
    EXPECT_EQ(o.err, c.err);
    EXPECT_EQ(world.Held(), c.held);
  }
}

}  // namespace
