// Measures a whole export against generated stores of growing size: the
// store is read and every object written, as the tool does it.
//
// A store of scale n holds about 6n objects: n hosts, data servers, data
// domains, capture and apply statuses, and a tenth or a hundredth of n of
// every other kind, all linked.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "Vantrel.h"

namespace {

// The SQL that fills a store of scale n; oids are the kind's letter and the
// row's number.
std::string FillSql(int n) {
  std::ostringstream sql;
  const auto rows = [&sql](const char* table, int count, const char* select) {
    sql << "WITH RECURSIVE k(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM k "
           "WHERE i < "
        << count << ") INSERT INTO " << table << " SELECT " << select
        << " FROM k;\n";
  };
  const int tenth = n / 10 > 0 ? n / 10 : 1,
            hundredth = n / 100 > 0 ? n / 100 : 1;
  const auto oid = [](char kind, const std::string& expr) {
    return std::string("CAST('") + kind + "' || (" + expr + ") AS BLOB)";
  };
  const std::string t = std::to_string(tenth), h = std::to_string(hundredth);
  rows("host", n, (oid('H', "i") + ", 'host' || i, 'Linux', '6.1'").c_str());
  rows("data_server", n,
       (oid('D', "i") + ", 'db' || i, 'native', 'Oracle', 'db' || i, " +
        oid('H', "i"))
           .c_str());
  rows("vault_server", tenth, (oid('V', "i") + ", 'vault' || i, 'v'").c_str());
  rows("project", tenth, (oid('P', "i") + ", 'project' || i").c_str());
  rows("project_vault_server", tenth,
       (oid('P', "i") + ", " + oid('V', "i")).c_str());
  rows("project_data_server", tenth,
       (oid('P', "i") + ", " + oid('D', "i")).c_str());
  rows("domain", hundredth, (oid('O', "i") + ", 'domain' || i, 1").c_str());
  rows("business_domain", tenth,
       (oid('B', "i") + ", " + oid('O', "i % " + h + " + 1") +
        ", 'bd' || i, 'meta', 'ed', 'Y', 'dm'")
           .c_str());
  rows("data_domain", n,
       (oid('A', "i") + ", " + oid('P', "i % " + t + " + 1") +
        ", 'dd' || i, 'a', 'owner', 'oracle', 'rdb', " +
        oid('B', "i % " + t + " + 1") + ", " + oid('D', "i"))
           .c_str());
  rows("extern_site", 10, (oid('E', "i") + ", 'site' || i").c_str());
  sql << "INSERT INTO local_site VALUES (CAST('L' AS BLOB), 'home');\n";
  rows("media", 10, (oid('M', "i") + ", '/media/' || i").c_str());
  rows("package_definition", hundredth,
       (oid('K', "i") + ", 'pk' || i").c_str());
  rows("package_whole_data_domain", tenth,
       (oid('K', "i % " + h + " + 1") + ", " + oid('A', "i")).c_str());
  for (const char kind : {'T', 'S'})
    rows(kind == 'T' ? "subscribing_target" : "subscription", hundredth,
         (oid(kind, "i") + ", 'set' || i, " + oid('M', "i % 10 + 1") + ", " +
          oid('K', "i") + ", " + oid('E', "i % 10 + 1"))
             .c_str());
  const std::string server = "CASE WHEN i % 2 THEN " + oid('D', "i") +
                             " ELSE " + oid('V', "i % " + t + " + 1") + " END";
  rows("capture_status", n,
       (oid('C', "i") + ", " + oid('T', "i % " + h + " + 1") + ", " + server +
        ", '2026-11-01'")
           .c_str());
  rows("apply_status", n,
       (oid('Y', "i") + ", " + oid('S', "i % " + h + " + 1") + ", " + server +
        ", '2026-11-01'")
           .c_str());
  return sql.str();
}

// Builds the store of scale n once; returns its path.
std::string Store(int n) {
  const std::string path =
      std::string(BENCH_DIR) + "/store-" + std::to_string(n) + ".db";
  if (std::ifstream(path)) return path;
  std::ostringstream schema;
  schema << std::ifstream(SCHEMA_SQL).rdbuf();
  sqlite3* db = nullptr;
  sqlite3_open(path.c_str(), &db);
  char* error = nullptr;
  const std::string sql = schema.str() + "BEGIN;\n" + FillSql(n) + "COMMIT;\n";
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
    const std::string message = error ? error : "";
    sqlite3_free(error);
    sqlite3_close(db);
    std::remove(path.c_str());
    throw std::runtime_error(message);
  }
  sqlite3_close(db);
  return path;
}

void BM_Export(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  ::setenv("KIV_ADMIN_STORE", Store(n).c_str(), 1);
  for (auto _ : state) {
    std::ofstream out("/dev/null");
    if (ReadAdmin(&out) != 0) state.SkipWithError("the export failed");
  }
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  state.counters["objects"] = 6.0 * n;
  state.counters["objects/s"] =
      benchmark::Counter(6.0 * n * static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate);
  state.counters["maxRSS_MiB"] = static_cast<double>(usage.ru_maxrss) / 1024.0;
}

BENCHMARK(BM_Export)
    ->RangeMultiplier(10)
    ->Range(1000, 1000000)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
