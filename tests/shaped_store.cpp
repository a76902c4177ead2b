#include "shaped_store.h"

#include <sstream>

std::string ShapedStoreSql(long n, bool random) {
  const auto count = [n](long per900k) {
    const long c = per900k * n / 900000;
    return c > 0 ? c : 1;
  };
  const long hosts = count(10000), dataServers = count(10000),
             vaultServers = count(10000), projects = count(100000),
             domains = count(10000), businessDomains = count(100000),
             sites = count(100), packages = count(1000), targets = count(10000);
  std::ostringstream sql;
  const auto rows = [&](const char* table, long rowCount,
                        const std::string& select) {
    sql << "WITH RECURSIVE k(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM k "
           "WHERE i < "
        << rowCount << ") INSERT INTO " << table << " SELECT " << select
        << " FROM k" << (random ? " ORDER BY random()" : "") << ";\n";
  };
  // An oid of eight bytes: the kind's letter and seven digits.
  const auto oid = [](char kind, const std::string& number) {
    return std::string("CAST(printf('") + kind + "%07d', " + number +
           ") AS BLOB)";
  };
  // The number of the row that the i-th child of per-owner children names.
  const auto owner = [](long per) {
    return "(i - 1) / " + std::to_string(per) + " + 1";
  };
  const auto cycle = [](long of) {
    return "(i - 1) % " + std::to_string(of) + " + 1";
  };
  rows("host", hosts, oid('H', "i") + ", 'host' || i, 'Linux', '6.1'");
  rows("data_server", dataServers,
       oid('D', "i") + ", 'db' || i, 'native', 'Oracle', 'db' || i || " +
           "':1521/PDM', " + oid('H', cycle(hosts)));
  rows("vault_server", vaultServers,
       oid('V', "i") + ", 'vault' || i, 'vault number ' || i");
  rows("project", projects, oid('P', "i") + ", 'project' || i");
  rows("project_vault_server", 2 * projects,
       oid('P', owner(2)) + ", " + oid('V', cycle(vaultServers)));
  rows("project_data_server", 2 * projects,
       oid('P', owner(2)) + ", " + oid('D', cycle(dataServers)));
  rows("domain", domains, oid('O', "i") + ", 'domain' || i, i % 2");
  rows("business_domain", businessDomains,
       oid('B', "i") + ", " +
           oid('O', owner((businessDomains + domains - 1) / domains)) +
           ", 'bd' || i, 'META' || i, 'editor', 'Y', 'standard'");
  rows("data_domain", 2 * projects,
       oid('A', "i") + ", " + oid('P', owner(2)) +
           ", 'dd' || i, 'a' || i, 'OWNER', 'oracle', 'rdb', " +
           oid('B', cycle(businessDomains)) + ", CASE WHEN i % 2 THEN " +
           oid('D', cycle(dataServers)) + " END");
  rows("extern_site", sites, oid('E', "i") + ", 'site' || i");
  rows("local_site", 1, oid('L', "i") + ", 'home'");
  rows("media", 10, oid('M', "i") + ", '/replication/media' || i");
  rows("package_definition", packages, oid('K', "i") + ", 'package' || i");
  rows("package_whole_data_domain", 2 * packages,
       oid('K', owner(2)) + ", " + oid('A', "i"));
  for (const char kind : {'T', 'S'})
    rows(kind == 'T' ? "subscribing_target" : "subscription", targets,
         oid(kind, "i") + ", 'set' || i, " + oid('M', cycle(10)) + ", " +
             oid('K', cycle(packages)) + ", " + oid('E', cycle(sites)));
  const std::string server = "CASE WHEN i % 2 THEN " +
                             oid('D', cycle(dataServers)) + " ELSE " +
                             oid('V', cycle(vaultServers)) + " END";
  rows("capture_status", 2 * targets,
       oid('C', "i") + ", " + oid('T', owner(2)) + ", " + server +
           ", '2026-11-01 03:00:00'");
  rows("apply_status", 2 * targets,
       oid('Y', "i") + ", " + oid('S', owner(2)) + ", " + server +
           ", '2026-11-01 04:00:00'");
  return sql.str();
}
