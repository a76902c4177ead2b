// Tests of the server, host and site elements, in process on the test
// double.
//
// Plan:
//   Servers  the SERVER wrapper: nothing for no servers, data servers first,
//            children not deepened, a null element and what it leaves
//   Sites    host, extern-site and local-site lines at depth
#include "tool_test.h"

namespace {

using Servers = ToolTest;

TEST_F(Servers, NoServersWriteNothing) {
  EXPECT_EQ(Write(DumpServers, &fakes.admin, 1), (Outcome{0, "", "", 1}));
}

TEST_F(Servers, DataServersBeforeVaultServersChildrenNotDeepened) {
  auto* vault = fakes.Add<fake::VaultServer>("V1", "0C01");
  vault->aliasName = "alias";
  auto* withHost = fakes.Add<fake::DataServer>("D1", "0B01");
  withHost->connectionString = "db=<a&b>";
  withHost->host = fakes.Add<fake::Host>("H", "0A01");
  fakes.admin.vaultServers = {vault};
  fakes.admin.dataServers = {withHost,
                             fakes.Add<fake::DataServer>("D2", "0B02")};
  EXPECT_EQ(
      Write(DumpServers, &fakes.admin, 1),
      (Outcome{0, "",
               "<SERVER>\n"
               "  <DATASERVER Oid=\"x0B01\" Name=\"\" Authentication=\"\" "
               "DBMS=\"\" ConnectionString=\"db=<a&b>\" Host=\"x0A01\"/>\n"
               "  <DATASERVER Oid=\"x0B02\" Name=\"\" Authentication=\"\" "
               "DBMS=\"\" ConnectionString=\"\"/>\n"
               "  <VAULTSERVER Oid=\"x0C01\" Name=\"\" AliasName=\"alias\"/>\n"
               "</SERVER>\n",
               1}));
  EXPECT_EQ(fakes.Held(), "");
}

// Both walks report with the data-server words, and nothing listed is given
// back.
TEST_F(Servers, NullElementLeavesTheWrapperOpenAndKeepsTheReferences) {
  const std::string failure =
      std::string(kNullReport) + "cannot dump data server \n";
  for (bool inVaultList : {false, true}) {
    fake::World world;
    auto* data = world.Add<fake::DataServer>("D1", "0B01");
    world.admin.dataServers = {data};
    if (inVaultList)
      world.admin.vaultServers = {nullptr};
    else
      world.admin.dataServers.push_back(nullptr);
    EXPECT_EQ(
        Write(DumpServers, &world.admin),
        (Outcome{1, failure,
                 "<SERVER>\n<DATASERVER Oid=\"x0B01\" Name=\"\" "
                 "Authentication=\"\" DBMS=\"\" ConnectionString=\"\"/>\n",
                 1}));
    EXPECT_EQ(world.Held(), "D1:1");
  }
}

using Sites = ToolTest;

TEST_F(Sites, OneLineEachEveryAttributeAlwaysPresent) {
  auto* host = fakes.Add<fake::Host>("H", "0A01");
  host->name = "R&D \"lab\"";
  auto* localSite = fakes.Add<fake::LocalSite>("L", "1201");
  localSite->name = "HOME";
  const Outcome written = Run(
      [&](std::ofstream* o) {
        return DumpHost(o, host) +
               DumpExternSite(o, fakes.Add<fake::ExternSite>("E", "1101")) +
               DumpLocalSite(o, localSite);
      },
      1);
  EXPECT_EQ(written,
            (Outcome{0, "",
                     "  <HOST Oid=\"x0A01\" Name=\"R&D \"lab\"\" OSType=\"\" "
                     "OSVersion=\"\"/>\n"
                     "  <EXTERNSITE Oid=\"x1101\" Name=\"\"/>\n"
                     "  <LOCALSITE Oid=\"x1201\" Name=\"HOME\"/>\n",
                     1}));
  // Only the local site announces its name on the trace.
  EXPECT_NE(trace.find("LocalSite Name : [HOME]\n"), std::string::npos);
  EXPECT_EQ(trace.find("Name : [R&D"), std::string::npos);
  EXPECT_EQ(fakes.Held(), "");
}

}  // namespace
