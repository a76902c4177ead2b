// Tests of the server, host and site elements, in process on the test
// double.
//
// Plan:
//   Servers  the SERVER wrapper: nothing for no servers, data servers first,
//            the host reference, a null element and what it leaves
//   Sites    host, extern-site and local-site lines, null objects
#include "tool_test.h"

namespace {

class Servers : public ToolTest {
 protected:
  fake::DataServer* AddDataServer(const std::string& label,
                                  const std::string& oid) {
    auto* server = fakes.Add<fake::DataServer>(label, oid);
    server->name = label;
    server->authentication = "native";
    server->dbms = "Oracle";
    server->connectionString = "db=<a&b>";
    return server;
  }
};

TEST_F(Servers, NoServersWriteNothing) {
  indent = 1;
  EXPECT_EQ(DumpServers(out.get(), &fakes.admin), 0);
  EXPECT_EQ(Doc(), "");
  EXPECT_EQ(indent, 1);
}

TEST_F(Servers, DataServersBeforeVaultServersChildrenNotDeepened) {
  auto* withHost = AddDataServer("D1", "0B01");
  withHost->host = fakes.Add<fake::Host>("H", "0A01");
  auto* vault = fakes.Add<fake::VaultServer>("V1", "0C01");
  vault->name = "VAULT";
  vault->aliasName = "alias";
  fakes.admin.vaultServers = {vault};
  fakes.admin.dataServers = {withHost, AddDataServer("D2", "0B02")};
  indent = 1;
  EXPECT_EQ(DumpServers(out.get(), &fakes.admin), 0);
  EXPECT_EQ(
      Doc(),
      "<SERVER>\n"
      "  <DATASERVER Oid=\"x0B01\" Name=\"D1\" Authentication=\"native\" "
      "DBMS=\"Oracle\" ConnectionString=\"db=<a&b>\" Host=\"x0A01\"/>\n"
      "  <DATASERVER Oid=\"x0B02\" Name=\"D2\" Authentication=\"native\" "
      "DBMS=\"Oracle\" ConnectionString=\"db=<a&b>\"/>\n"
      "  <VAULTSERVER Oid=\"x0C01\" Name=\"VAULT\" AliasName=\"alias\"/>\n"
      "</SERVER>\n");
  EXPECT_EQ(fakes.Held(), "");
  EXPECT_EQ(indent, 1);
}

TEST_F(Servers, NullElementLeavesTheWrapperOpenAndKeepsTheReferences) {
  const struct {
    bool inVaultList;
    std::string doc;
  } cases[] = {
      {false, "<SERVER>\n"},
      {true,
       "<SERVER>\n<DATASERVER Oid=\"x0B01\" Name=\"D1\" "
       "Authentication=\"native\" "
       "DBMS=\"Oracle\" ConnectionString=\"db=<a&b>\"/>\n"},
  };
  for (const auto& c : cases) {
    fake::World world;
    auto* data = world.Add<fake::DataServer>("D1", "0B01");
    data->name = "D1";
    data->authentication = "native";
    data->dbms = "Oracle";
    data->connectionString = "db=<a&b>";
    if (c.inVaultList) {
      world.admin.dataServers = {data};
      world.admin.vaultServers = {nullptr};
    } else {
      world.admin.dataServers = {nullptr, data};
    }
    out = std::make_unique<std::ofstream>(path);
    indent = 0;
    test_support::CaptureStderr runErr;
    EXPECT_EQ(DumpServers(out.get(), &world.admin), 1);
    EXPECT_EQ(WithoutLines(runErr.Text()),
              std::string(kNullReport) + "cannot dump data server \n");
    EXPECT_EQ(Doc(), c.doc);
    EXPECT_EQ(world.Held(), "D1:1");
    EXPECT_EQ(indent, 1);
  }
}

using Sites = ToolTest;

TEST_F(Sites, OneLineEachEveryAttributeAlwaysPresent) {
  auto* host = fakes.Add<fake::Host>("H", "0A01");
  host->name = "R&D \"lab\"";
  auto* externSite = fakes.Add<fake::ExternSite>("E", "1101");
  externSite->name = "EAST";
  auto* localSite = fakes.Add<fake::LocalSite>("L", "1201");
  localSite->name = "HOME";
  indent = 1;
  EXPECT_EQ(DumpHost(out.get(), host), 0);
  EXPECT_EQ(DumpExternSite(out.get(), externSite), 0);
  EXPECT_EQ(DumpLocalSite(out.get(), localSite), 0);
  EXPECT_EQ(Doc(),
            "  <HOST Oid=\"x0A01\" Name=\"R&D \"lab\"\" OSType=\"\" "
            "OSVersion=\"\"/>\n"
            "  <EXTERNSITE Oid=\"x1101\" Name=\"EAST\"/>\n"
            "  <LOCALSITE Oid=\"x1201\" Name=\"HOME\"/>\n");
  EXPECT_EQ(indent, 1);
  // Only the local site announces its name on the trace.
  EXPECT_NE(trace.find("LocalSite Name : [HOME]\n"), std::string::npos);
  EXPECT_EQ(trace.find("EAST"), std::string::npos);
  EXPECT_EQ(fakes.Held(), "");
}

}  // namespace
