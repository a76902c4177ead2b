// Measures the export of generated stores against reading the same rows.
//
// Each iteration reads every row of every table through the SQLite C API
// (every value touched), then has the sqlite3 shell print every table to
// /dev/null, then exports the store as the tool does (to /dev/null), so that
// all three are timed side by side, on the same machine at the same moment;
// the machine's noise cancels out of their ratios. The two references:
//   readAll  SQLite's reading alone, in process
//   shell    the sqlite3 shell printing every table, in a process of its own:
//            the reference of the first measurements of the export
// The counters give the times, the export's ratio to each, and the export's
// peak memory, measured once in a child process of its own.
//
// The stores are shaped like a large administration (shaped_store.h),
// generated once and kept in the build tree.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "Vantrel.h"
#include "VantrelDoc.h"
#include "shaped_store.h"

namespace {

// Builds the store once; returns its path.
std::string Store(long n, bool random) {
  const std::string path = std::string(BENCH_DIR) + "/store-" +
                           std::to_string(n) + (random ? "-random" : "") +
                           ".db";
  if (std::ifstream(path)) return path;
  std::ostringstream schema;
  schema << std::ifstream(SCHEMA_SQL).rdbuf();
  const std::string building = path + ".part";
  std::remove(building.c_str());
  sqlite3* db = nullptr;
  sqlite3_open(building.c_str(), &db);
  char* error = nullptr;
  const std::string sql =
      schema.str() + "BEGIN;\n" + ShapedStoreSql(n, random) + "COMMIT;\n";
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
    const std::string message = error ? error : "";
    sqlite3_free(error);
    sqlite3_close(db);
    throw std::runtime_error(message);
  }
  sqlite3_close(db);
  std::rename(building.c_str(), path.c_str());
  return path;
}

// Reads every row of every table, touching every value; returns the rows.
long ReadAll(const std::string& path) {
  sqlite3* db = nullptr;
  sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
  sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
  sqlite3_stmt* tables = nullptr;
  sqlite3_prepare_v2(db, "SELECT name FROM sqlite_schema WHERE type = 'table'",
                     -1, &tables, nullptr);
  long rows = 0, bytes = 0;
  while (sqlite3_step(tables) == SQLITE_ROW) {
    const std::string sql =
        std::string("SELECT * FROM \"") +
        reinterpret_cast<const char*>(sqlite3_column_text(tables, 0)) + "\"";
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr);
    const int columns = sqlite3_column_count(stmt);
    while (sqlite3_step(stmt) == SQLITE_ROW) {
      ++rows;
      for (int c = 0; c < columns; ++c) {
        switch (sqlite3_column_type(stmt, c)) {
          case SQLITE_INTEGER:
            bytes += sqlite3_column_int64(stmt, c) & 1;
            break;
          case SQLITE_TEXT:
            bytes += sqlite3_column_text(stmt, c) != nullptr;
            bytes += sqlite3_column_bytes(stmt, c);
            break;
          case SQLITE_BLOB:
            bytes += sqlite3_column_blob(stmt, c) != nullptr;
            bytes += sqlite3_column_bytes(stmt, c);
            break;
        }
      }
    }
    sqlite3_finalize(stmt);
  }
  sqlite3_finalize(tables);
  sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_close(db);
  benchmark::DoNotOptimize(bytes);
  return rows;
}

// Has the sqlite3 shell print every table of the store to /dev/null.
void Shell(const std::string& path) {
  const std::string command =
      "sqlite3 -readonly '" + path +
      "' \"SELECT 'SELECT * FROM \\\"' || name || '\\\";' FROM sqlite_schema "
      "WHERE type = 'table'\" | sqlite3 -readonly '" +
      path + "' >/dev/null";
  if (std::system(command.c_str()) != 0)
    throw std::runtime_error("the sqlite3 shell failed");
}

// Exports the store at path to file as the tool does; returns its exit
// status.
int Export(const std::string& path, std::string file = "/dev/null") {
  ::setenv("KIV_ADMIN_STORE", path.c_str(), 1);
  char program[] = "Vantrel", option[] = "-f";
  char* argv[] = {program, option, file.data(), nullptr};
  std::fflush(stderr);
  std::streambuf* saved = std::cerr.rdbuf(nullptr);  // START and END lines
  const int rc = VantrelMain(3, argv);
  std::cerr.rdbuf(saved);
  return rc;
}

// The peak resident memory of one export, in a new process of its own (this
// program run again with --export-once), in MiB.
double ExportPeakMiB(const std::string& path) {
  const pid_t child = ::fork();
  if (child == 0) {
    const char* argv[] = {"export_bench", "--export-once", path.c_str(),
                          nullptr};
    ::execv("/proc/self/exe", const_cast<char* const*>(argv));
    ::_exit(127);
  }
  int status = 0;
  rusage usage{};
  ::wait4(child, &status, 0, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

double Seconds(std::chrono::steady_clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

void BM_ExportVsReadAll(benchmark::State& state) {
  const long n = state.range(0);
  const bool random = state.range(1) != 0;
  const std::string path = Store(n, random);
  double readAll = 0, shell = 0, exported = 0;
  long rows = 0;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    rows = ReadAll(path);
    const auto read = std::chrono::steady_clock::now();
    Shell(path);
    const auto dumped = std::chrono::steady_clock::now();
    if (Export(path) != 0) state.SkipWithError("the export failed");
    const auto end = std::chrono::steady_clock::now();
    readAll += Seconds(read - start);
    shell += Seconds(dumped - read);
    exported += Seconds(end - dumped);
  }
  const double iterations = static_cast<double>(state.iterations());
  state.counters["rows"] = static_cast<double>(rows);
  state.counters["readAll_s"] = readAll / iterations;
  state.counters["shell_s"] = shell / iterations;
  state.counters["export_s"] = exported / iterations;
  state.counters["xShell"] = exported / shell;
  state.counters["xReadAll"] = exported / readAll;
  state.counters["exportPeak_MiB"] = ExportPeakMiB(path);
}

BENCHMARK(BM_ExportVsReadAll)
    ->ArgNames({"objects", "random"})
    ->Args({9000, 0})
    ->Args({90000, 0})
    ->Args({900000, 0})
    ->Args({900000, 1})
    ->MinTime(2.0)
    ->Unit(benchmark::kMillisecond);

// The peak resident memory of one vantrel-doc command on file, in a new
// process of its own (this program run again with --doc-once), in MiB. The
// child tells its own high-water mark: the rusage of a forked child counts
// the pages it shared with this process before its exec.
double DocumentPeakMiB(const char* command, const std::string& file,
                       const std::string& output) {
  const std::string peak = std::string(BENCH_DIR) + "/peak.txt";
  const pid_t child = ::fork();
  if (child == 0) {
    const char* argv[] = {"export_bench", "--doc-once", command, file.c_str(),
                          output.c_str(), peak.c_str(), nullptr};
    ::execv("/proc/self/exe", const_cast<char* const*>(argv));
    ::_exit(127);
  }
  ::waitpid(child, nullptr, 0);
  double kib = 0;
  std::ifstream(peak) >> kib;
  return kib / 1024.0;
}

// The document tool beside the export of the same store: check, diff of a
// document with itself, load into a new store, its well-formed twin and its
// JSON, each timed once per iteration after the export that writes the
// document; and the peak memory of the twin and the JSON, which stays flat
// as the document grows.
void BM_DocumentVsExport(benchmark::State& state) {
  const std::string path = Store(state.range(0), false);
  const std::string file = std::string(BENCH_DIR) + "/document.xml";
  const std::string loaded = std::string(BENCH_DIR) + "/loaded.db";
  const std::string twin = std::string(BENCH_DIR) + "/twin.xml";
  const std::string json = std::string(BENCH_DIR) + "/document.json";
  double exported = 0, checked = 0, diffed = 0, load = 0, xml = 0, js = 0;
  std::ostringstream sink;
  for (auto _ : state) {
    auto t0 = std::chrono::steady_clock::now();
    const int rc = Export(path, file);
    auto t1 = std::chrono::steady_clock::now();
    if (rc != 0) state.SkipWithError("the export failed");
    if (vdoc::DocCheck(file, sink, sink) != 0)
      state.SkipWithError("check failed");
    auto t2 = std::chrono::steady_clock::now();
    if (vdoc::DocDiff(file, file, vdoc::DiffOptions(), sink, sink) != 0)
      state.SkipWithError("diff failed");
    auto t3 = std::chrono::steady_clock::now();
    std::remove(loaded.c_str());
    if (vdoc::DocLoad(file, loaded, sink, sink) != 0)
      state.SkipWithError("load failed");
    auto t4 = std::chrono::steady_clock::now();
    if (vdoc::DocXml(file, twin, sink, sink) != 0)
      state.SkipWithError("xml failed");
    auto t5 = std::chrono::steady_clock::now();
    if (vdoc::DocJson(file, json, sink, sink) != 0)
      state.SkipWithError("json failed");
    auto t6 = std::chrono::steady_clock::now();
    xml += Seconds(t5 - t4);
    js += Seconds(t6 - t5);
    exported += Seconds(t1 - t0);
    checked += Seconds(t2 - t1);
    diffed += Seconds(t3 - t2);
    load += Seconds(t4 - t3);
    sink.str("");
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["export_s"] = exported / n;
  state.counters["xCheck"] = checked / exported;
  state.counters["xDiff"] = diffed / exported;
  state.counters["xLoad"] = load / exported;
  state.counters["xXml"] = xml / exported;
  state.counters["xJson"] = js / exported;
  state.counters["xmlPeak_MiB"] = DocumentPeakMiB("xml", file, twin);
  state.counters["jsonPeak_MiB"] = DocumentPeakMiB("json", file, json);
}

BENCHMARK(BM_DocumentVsExport)
    ->ArgNames({"objects"})
    ->Arg(30000)
    ->Arg(300000)
    ->Iterations(2)
    ->Unit(benchmark::kMillisecond);

// diff's options for a plan in format written to output.
vdoc::DiffOptions Viewed(vdoc::PlanFormat format, const std::string& output) {
  vdoc::DiffOptions options;
  options.format = format;
  options.output = output;
  return options;
}

// Makes the store at from, changed by sql, into a copy at to, and exports
// it to wanted.
void Changed(const std::string& from, const std::string& to, const char* sql,
             const std::string& wanted) {
  std::filesystem::copy_file(from, to,
                             std::filesystem::copy_options::overwrite_existing);
  sqlite3* db = nullptr;
  sqlite3_open(to.c_str(), &db);
  sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
  sqlite3_close(db);
  Export(to, wanted);
}

// Times the export of have, then an apply of wanted to a fresh copy of it
// at work; adds the seconds of each.
void ExportThenApply(benchmark::State& state, const std::string& have,
                     const std::string& wanted, const std::string& work,
                     double* exported, double* applied) {
  state.PauseTiming();
  std::filesystem::copy_file(have, work,
                             std::filesystem::copy_options::overwrite_existing);
  state.ResumeTiming();
  std::ostringstream sink;
  const auto t0 = std::chrono::steady_clock::now();
  if (Export(have) != 0) state.SkipWithError("the export failed");
  const auto t1 = std::chrono::steady_clock::now();
  if (vdoc::DocApply(wanted, work, vdoc::ApplyOptions(), sink, sink) != 0)
    state.SkipWithError("the apply failed");
  const auto t2 = std::chrono::steady_clock::now();
  *exported += Seconds(t1 - t0);
  *applied += Seconds(t2 - t1);
}

// A large apply beside the export of the store it changes: a store of about
// 30 thousand projects made to export the document of one of about 20
// thousand, its projects and hosts renamed.
void BM_ApplyVsExport(benchmark::State& state) {
  const std::string have = Store(270000, false);
  const std::string dir = BENCH_DIR;
  const std::string wanted = dir + "/wanted.xml";
  Changed(Store(180000, false), dir + "/renamed.db",
          "UPDATE project SET name = name || ' renamed';"
          "UPDATE host SET name = 'h-' || name;",
          wanted);
  const std::string work = dir + "/applied.db",
                    before = dir + "/apply-before.xml";
  Export(have, before);
  // Each view of the plan from the store's document to the wanted one.
  const std::pair<vdoc::PlanFormat, const char*> views[] = {
      {vdoc::PlanFormat::kText, "Text"},
      {vdoc::PlanFormat::kJson, "Json"},
      {vdoc::PlanFormat::kHtml, "Html"}};
  double viewed[3] = {};
  double exported = 0, applied = 0;
  std::ostringstream sink;
  for (auto _ : state) {
    ExportThenApply(state, have, wanted, work, &exported, &applied);
    for (int v = 0; v < 3; ++v) {
      const auto start = std::chrono::steady_clock::now();
      if (vdoc::DocDiff(before, wanted,
                        Viewed(views[v].first, dir + "/plan.view"), sink,
                        sink) != 1)
        state.SkipWithError("the plan failed");
      viewed[v] += Seconds(std::chrono::steady_clock::now() - start);
      if (views[v].first == vdoc::PlanFormat::kHtml)
        state.counters["html_MiB"] =
            static_cast<double>(
                std::filesystem::file_size(dir + "/plan.view")) /
            (1 << 20);
    }
    sink.str("");
  }
  state.counters["export_s"] =
      exported / static_cast<double>(state.iterations());
  state.counters["xApply"] = applied / exported;
  for (int v = 0; v < 3; ++v)
    state.counters[std::string("xPlan") + views[v].second] =
        viewed[v] / exported;
}

BENCHMARK(BM_ApplyVsExport)->Iterations(3)->Unit(benchmark::kMillisecond);

// The most common apply beside the export of the store it changes: one
// attribute changed (a host renamed) in a store of about 27 thousand
// objects. Two exports, the plan's and the verifying one, are its floor.
void BM_OneChangeApplyVsExport(benchmark::State& state) {
  const std::string have = Store(48500, false);
  const std::string dir = BENCH_DIR;
  const std::string wanted = dir + "/one-change.xml";
  Changed(have, dir + "/one-change.db",
          "UPDATE host SET name = name || ' renamed' WHERE rowid = "
          "(SELECT min(rowid) FROM host);",
          wanted);
  double exported = 0, applied = 0;
  for (auto _ : state)
    ExportThenApply(state, have, wanted, dir + "/one-change-applied.db",
                    &exported, &applied);
  state.counters["export_s"] =
      exported / static_cast<double>(state.iterations());
  state.counters["xApply"] = applied / exported;
}

BENCHMARK(BM_OneChangeApplyVsExport)
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);

// The report of a document of about 2.7 and of about 27 thousand objects,
// beside the well-formed copy of the larger one: ten times the objects
// should cost about ten times the time.
void BM_ReportScales(benchmark::State& state) {
  const std::string dir = BENCH_DIR;
  // About 0.56 objects a row.
  const std::string small = dir + "/report-small.xml",
                    large = dir + "/report-large.xml";
  Export(Store(4850, false), small);
  Export(Store(48500, false), large);
  const std::string page = dir + "/report.html", twin = dir + "/twin.xml";
  double smallS = 0, largeS = 0, xml = 0;
  std::ostringstream sink;
  for (auto _ : state) {
    const auto t0 = std::chrono::steady_clock::now();
    if (vdoc::DocReport(small, page, sink, sink) != 0)
      state.SkipWithError("the report failed");
    const auto t1 = std::chrono::steady_clock::now();
    if (vdoc::DocReport(large, page, sink, sink) != 0)
      state.SkipWithError("the report failed");
    const auto t2 = std::chrono::steady_clock::now();
    if (vdoc::DocXml(large, twin, sink, sink) != 0)
      state.SkipWithError("xml failed");
    const auto t3 = std::chrono::steady_clock::now();
    smallS += Seconds(t1 - t0);
    largeS += Seconds(t2 - t1);
    xml += Seconds(t3 - t2);
    sink.str("");
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["report2.7k_s"] = smallS / n;
  state.counters["report27k_s"] = largeS / n;
  state.counters["x27kVs2.7k"] = largeS / smallS;
  state.counters["x27kVsXml"] = largeS / xml;
}

BENCHMARK(BM_ReportScales)->Iterations(2)->Unit(benchmark::kMillisecond);

// Makes a store of the schema alone at path, then runs sql in it.
void SchemaStore(const std::string& path, const std::string& sql) {
  std::ostringstream schema;
  schema << std::ifstream(SCHEMA_SQL).rdbuf();
  std::remove(path.c_str());
  sqlite3* db = nullptr;
  sqlite3_open(path.c_str(), &db);
  sqlite3_exec(db, (schema.str() + sql).c_str(), nullptr, nullptr, nullptr);
  sqlite3_close(db);
}

// The densest picture of a plan beside the same plan's JSON: 100 projects
// each linking the same 100 data servers, all of them added. The picture
// gives way to counts past its bound on links, so that the page costs
// about what the JSON does.
void BM_DensePlanHtmlVsJson(benchmark::State& state) {
  const std::string dir = BENCH_DIR;
  const std::string empty = dir + "/dense-empty.xml",
                    dense = dir + "/dense.xml";
  SchemaStore(dir + "/dense-empty.db", "");
  SchemaStore(dir + "/dense.db",
              "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n "
              "WHERE i < 100) INSERT INTO project SELECT CAST('p' || i AS "
              "BLOB), 'project ' || i FROM n;"
              "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n "
              "WHERE i < 100) INSERT INTO data_server SELECT CAST('s' || i AS "
              "BLOB), 'server ' || i, '', '', '', NULL FROM n;"
              "INSERT INTO project_data_server SELECT p.oid, s.oid FROM "
              "project p, data_server s;");
  Export(dir + "/dense-empty.db", empty);
  Export(dir + "/dense.db", dense);
  double json = 0, html = 0;
  std::ostringstream sink;
  for (auto _ : state) {
    const auto t0 = std::chrono::steady_clock::now();
    if (vdoc::DocDiff(empty, dense,
                      Viewed(vdoc::PlanFormat::kJson, dir + "/dense.json"),
                      sink, sink) != 1)
      state.SkipWithError("the JSON plan failed");
    const auto t1 = std::chrono::steady_clock::now();
    if (vdoc::DocDiff(empty, dense,
                      Viewed(vdoc::PlanFormat::kHtml, dir + "/dense.html"),
                      sink, sink) != 1)
      state.SkipWithError("the HTML plan failed");
    const auto t2 = std::chrono::steady_clock::now();
    json += Seconds(t1 - t0);
    html += Seconds(t2 - t1);
    sink.str("");
  }
  state.counters["json_s"] = json / static_cast<double>(state.iterations());
  state.counters["html_s"] = html / static_cast<double>(state.iterations());
  state.counters["xHtmlVsJson"] = html / json;
}

BENCHMARK(BM_DensePlanHtmlVsJson)->Iterations(3)->Unit(benchmark::kMillisecond);

// A promotion of many objects by identifier beside the export of the
// store: 7,000 projects of a document of about 107 thousand objects, in a
// dry run. It is linear in the identifiers and the document.
void BM_OnlyManyVsExport(benchmark::State& state) {
  const std::string have = Store(192000, false);
  const std::string dir = BENCH_DIR;
  const std::string wanted = dir + "/only-wanted.xml";
  Changed(have, dir + "/only.db", "UPDATE project SET name = name || ' p';",
          wanted);
  vdoc::ApplyOptions options;
  options.dryRun = true;
  options.sameIdentifierOk = true;  // the projects promoted are renamed
  std::ifstream text(wanted);
  for (std::string line;
       options.only.size() < 7000 && std::getline(text, line);)
    if (line.rfind("<PROJECT ", 0) == 0) {
      const std::size_t at = line.find(" Oid=\"") + 6;
      options.only.push_back(line.substr(at, line.find('"', at) - at));
    }
  double exported = 0, promoted = 0;
  std::ostringstream sink;
  for (auto _ : state) {
    const auto t0 = std::chrono::steady_clock::now();
    if (Export(have) != 0) state.SkipWithError("the export failed");
    const auto t1 = std::chrono::steady_clock::now();
    if (vdoc::DocApply(wanted, have, options, sink, sink) != 1)
      state.SkipWithError("the dry run failed");
    const auto t2 = std::chrono::steady_clock::now();
    exported += Seconds(t1 - t0);
    promoted += Seconds(t2 - t1);
    sink.str("");
  }
  state.counters["ids"] = static_cast<double>(options.only.size());
  state.counters["only_s"] = promoted / static_cast<double>(state.iterations());
  state.counters["xOnlyVsExport"] = promoted / exported;
}

BENCHMARK(BM_OnlyManyVsExport)->Iterations(2)->Unit(benchmark::kMillisecond);

// The bytes of the files under dir.
double DirectoryBytes(const std::string& dir) {
  std::uintmax_t bytes = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir))
    if (entry.is_regular_file()) bytes += entry.file_size();
  return static_cast<double>(bytes);
}

// One night's archive into a history beside the export of the same store:
// a store of about 27 thousand objects, about 50 of them changed each
// night, for 1,000 nights. The history is made anew, with one first night,
// before the nights timed; then one changed host's log and blame over all
// of them, and the history's size per night once git gc packed it, beside
// the size of one night's document.
void BM_ArchiveVsExport(benchmark::State& state) {
  const std::string have = Store(48500, false);
  const std::string dir = BENCH_DIR;
  const std::string night = dir + "/night.db", repo = dir + "/history";
  std::filesystem::remove_all(repo);
  std::filesystem::copy_file(have, night,
                             std::filesystem::copy_options::overwrite_existing);
  std::ostringstream sink;
  vdoc::ArchiveOptions quiet;
  quiet.quiet = true;
  if (vdoc::DocArchive(night, repo, quiet, sink, sink) != 0)
    state.SkipWithError("the first archive failed");
  double exported = 0, archived = 0;
  int n = 0;
  for (auto _ : state) {
    state.PauseTiming();
    sqlite3* db = nullptr;
    sqlite3_open(night.c_str(), &db);
    const std::string sql = "UPDATE host SET name = name || '" +
                            std::to_string(++n) +
                            "' WHERE rowid % (SELECT count(*) / 50 FROM host "
                            "WHERE 1) = 0;";
    sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
    sqlite3_close(db);
    state.ResumeTiming();
    const auto t0 = std::chrono::steady_clock::now();
    if (Export(night) != 0) state.SkipWithError("the export failed");
    const auto t1 = std::chrono::steady_clock::now();
    if (vdoc::DocArchive(night, repo, quiet, sink, sink) != 0)
      state.SkipWithError("the archive failed");
    const auto t2 = std::chrono::steady_clock::now();
    exported += Seconds(t1 - t0);
    archived += Seconds(t2 - t1);
  }
  state.counters["export_s"] =
      exported / static_cast<double>(state.iterations());
  state.counters["archive_s"] =
      archived / static_cast<double>(state.iterations());
  state.counters["xArchive"] = archived / exported;
  // One host's story, and its blame, over every night: it changed in some.
  sqlite3* db = nullptr;
  sqlite3_open(night.c_str(), &db);
  sqlite3_stmt* first = nullptr;
  sqlite3_prepare_v2(db,
                     "SELECT hex(oid) FROM host WHERE rowid % (SELECT "
                     "count(*) / 50 FROM host WHERE 1) = 0 LIMIT 1",
                     -1, &first, nullptr);
  const std::string host =
      sqlite3_step(first) == SQLITE_ROW
          ? "x" + std::string(reinterpret_cast<const char*>(
                      sqlite3_column_text(first, 0)))
          : std::string();
  sqlite3_finalize(first);
  sqlite3_close(db);
  const auto t0 = std::chrono::steady_clock::now();
  if (vdoc::DocLog(repo, host, vdoc::LogOptions(), sink, sink) != 0)
    state.SkipWithError("the log failed");
  const auto t1 = std::chrono::steady_clock::now();
  if (vdoc::DocBlame(repo, host, sink, sink) != 0)
    state.SkipWithError("the blame failed");
  const auto t2 = std::chrono::steady_clock::now();
  const double nights = static_cast<double>(state.iterations() + 1);
  state.counters["nights"] = nights;
  state.counters["logObject_s"] = Seconds(t1 - t0);
  state.counters["blame_s"] = Seconds(t2 - t1);
  state.counters["looseKiBPerNight"] = DirectoryBytes(repo) / 1024 / nights;
  if (std::system(("git -C '" + repo + "' gc -q").c_str()) != 0)
    state.SkipWithError("git gc failed");
  state.counters["gcKiBPerNight"] = DirectoryBytes(repo) / 1024 / nights;
  if (Export(night, dir + "/night.xml") != 0)
    state.SkipWithError("the export failed");
  state.counters["documentKiB"] =
      static_cast<double>(std::filesystem::file_size(dir + "/night.xml")) /
      1024;
}

BENCHMARK(BM_ArchiveVsExport)->Iterations(999)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "--export-once")
    return Export(argv[2]);
  if (argc == 6 && std::string(argv[1]) == "--doc-once") {
    std::ostringstream sink;
    const int rc = std::string(argv[2]) == "xml"
                       ? vdoc::DocXml(argv[3], argv[4], sink, sink)
                       : vdoc::DocJson(argv[3], argv[4], sink, sink);
    // The high-water mark of this process, in KiB.
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
      if (line.rfind("VmHWM:", 0) == 0)
        std::ofstream(argv[5]) << std::stod(line.substr(6)) << "\n";
    return rc;
  }
  // A child's form not met above is a fault here, never the whole suite
  // run again.
  if (argc > 1 && std::string(argv[1]).rfind("--", 0) == 0 &&
      std::string(argv[1]).find("-once") != std::string::npos)
    return 2;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
