#include "test_support.h"

#include <dirent.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <regex>

namespace test_support {

std::string OutputPath(const std::string& name) {
  // A directory per test program: the programs run side by side, and one's
  // partial files must not be counted as another's leftovers.
  static const std::string directory = [] {
    ::mkdir(TEST_OUTPUT_DIR, 0755);
    const std::string mine =
        std::string(TEST_OUTPUT_DIR) + "/" + program_invocation_short_name;
    ::mkdir(mine.c_str(), 0755);
    return mine;
  }();
  return directory + "/" + name;
}

std::string DataPath(const std::string& name) {
  return std::string(TEST_DATA_DIR) + "/" + name;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

bool FileExists(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0;
}

std::vector<std::string> ListDirectory(const std::string& directory) {
  std::vector<std::string> names;
  if (DIR* dir = ::opendir(directory.c_str())) {
    while (const dirent* entry = ::readdir(dir))
      if (std::string(".") != entry->d_name &&
          std::string("..") != entry->d_name)
        names.push_back(entry->d_name);
    ::closedir(dir);
  }
  return names;
}

namespace {

// The schema without what makes the sqlite3 shell refuse bad rows.
std::string Loose(std::string schema) {
  for (const char* strict :
       {" STRICT", " CHECK (length(oid) > 0)", " CHECK (visible IN (0, 1))",
        " NOT NULL", " CHECK (kind IN ('rdb', 'file'))"})
    for (std::size_t at; (at = schema.find(strict)) != std::string::npos;)
      schema.erase(at, std::string(strict).size());
  // And each text's check against line breaks: " CHECK (name NOT GLOB ...)".
  const std::string lineBreaks = " NOT GLOB '*[' || char(10, 13) || ']*')";
  for (std::size_t at; (at = schema.find(lineBreaks)) != std::string::npos;) {
    const std::size_t from = schema.rfind(" CHECK (", at);
    schema.erase(from, at + lineBreaks.size() - from);
  }
  return schema;
}

}  // namespace

void MakeStore(const std::string& path, const std::vector<std::string>& sql,
               bool loose) {
  std::remove(path.c_str());
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK) << path;
  const std::string schema = ReadFile(SCHEMA_SQL);
  std::vector<std::string> scripts{loose ? Loose(schema) : schema};
  scripts.insert(scripts.end(), sql.begin(), sql.end());
  for (const std::string& script : scripts) {
    char* error = nullptr;
    const int rc = sqlite3_exec(db, script.c_str(), nullptr, nullptr, &error);
    EXPECT_EQ(rc, SQLITE_OK) << (error ? error : "") << "\n" << script;
    sqlite3_free(error);
  }
  sqlite3_close(db);
}

namespace {

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  if (!text.empty() && text.back() != '\n') lines.back() += "<no newline>";
  return lines;
}

}  // namespace

::testing::AssertionResult MatchesGolden(const std::string& golden,
                                         const std::string& actual) {
  const std::string expected = ReadFile(DataPath(golden));
  if (expected == actual) return ::testing::AssertionSuccess();
  const std::string actualPath = OutputPath(golden + ".actual");
  WriteFile(actualPath, actual);

  const std::vector<std::string> want = Lines(expected), got = Lines(actual);
  std::size_t first = 0;
  while (first < want.size() && first < got.size() && want[first] == got[first])
    ++first;
  auto result = ::testing::AssertionFailure();
  result << golden << " differs from line " << first + 1 << " (actual in "
         << actualPath << ")\n";
  const std::size_t last =
      std::min(std::max(want.size(), got.size()), first + 8);
  for (std::size_t i = first; i < last; ++i) {
    const std::string w = i < want.size() ? want[i] : "<none>";
    const std::string g = i < got.size() ? got[i] : "<none>";
    result << "  " << i + 1 << (w == g ? "   " : " ! ") << "expected: " << w
           << "\n  " << std::string(std::to_string(i + 1).size(), ' ')
           << "     actual:   " << g << "\n";
  }
  return result;
}

CaptureStderr::CaptureStderr() : saved_(std::cerr.rdbuf(text_.rdbuf())) {}

CaptureStderr::~CaptureStderr() { std::cerr.rdbuf(saved_); }

namespace {

// Quotes text for the shell.
std::string Quote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text)
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

}  // namespace

RunResult Run(const std::string& program, const std::vector<std::string>& args,
              const std::map<std::string, std::optional<std::string>>& env) {
  static int runs = 0;
  const std::string stem = OutputPath("run" + std::to_string(++runs));
  std::string command = "env", settings;
  for (const auto& [name, value] : env)
    if (value)
      settings += " " + name + "=" + Quote(*value);
    else
      command += " -u " + name;  // env takes its options first
  command += settings;
  command += " " + Quote(program);
  for (const std::string& arg : args) command += " " + Quote(arg);
  command += " >" + Quote(stem + ".out") + " 2>" + Quote(stem + ".err");
  const int status = std::system(command.c_str());
  RunResult result;
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.out = ReadFile(stem + ".out");
  result.err = ReadFile(stem + ".err");
  return result;
}

std::string Projects(int count, const char* name) {
  return "WITH RECURSIVE k(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM k "
         "WHERE i < " +
         std::to_string(count) +
         ") INSERT INTO project SELECT CAST(printf('P%06d', i) AS BLOB), '" +
         name + "' || i FROM k;";
}

std::string RandomStore(int seed) {
  // A number of row i from the seed and a salt of its own, the same on
  // every run: SQLite's random() cannot be seeded.
  int salts = 0;
  const auto hash = [&](const char* i = "i") {
    return std::string("(((") + i + " * 7919 + " + std::to_string(seed) +
           " * 104729 + " + std::to_string(++salts) +
           " * 1299709) * 2654435761) % 4294967291)";
  };
  const auto values = [&] {
    return "substr('&<>\"''' || char(9) || 'é日本 =\" x\"', " + hash() +
           " % 12 + 1, " + hash() + " % 6)";
  };
  const auto rows = [&](int count, const std::string& insert) {
    return "WITH RECURSIVE k(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM k "
           "WHERE i < " +
           std::to_string(count) + ") " + insert + " ORDER BY " + hash() + ";";
  };
  return rows(40,
              "INSERT INTO host SELECT CAST(printf('H%03d', i) AS BLOB), 'h' "
              "|| i || " +
                  values() + ", " + values() + ", NULL FROM k") +
         rows(20,
              "INSERT INTO data_server SELECT CAST(printf('S%03d', i) AS "
              "BLOB), " +
                  values() + ", 'a' || " + values() + ", '', " + values() +
                  ", CAST(printf('H%03d', i) AS BLOB) FROM k") +
         rows(10,
              "INSERT INTO vault_server SELECT CAST(printf('V%03d', i) AS "
              "BLOB), 'v' || " +
                  values() + ", " + values() + " FROM k") +
         rows(30,
              "INSERT INTO project SELECT CAST(printf('P%03d', i) AS BLOB), "
              "'p' || i || " +
                  values() + " FROM k") +
         rows(30,
              "INSERT INTO project_data_server SELECT CAST(printf('P%03d', "
              "i) AS BLOB), CAST(printf('S%03d', i % 20 + 1) AS BLOB) FROM "
              "k") +
         rows(10,
              "INSERT INTO domain SELECT CAST(printf('D%03d', i) AS BLOB), " +
                  values() + ", i % 2 FROM k") +
         rows(30,
              "INSERT INTO business_domain SELECT CAST(printf('B%03d', i) AS "
              "BLOB), CAST(printf('D%03d', i % 10 + 1) AS BLOB), " +
                  values() + ", " + values() + ", " + values() + ", 'Y', " +
                  values() + " FROM k") +
         rows(60,
              "INSERT INTO data_domain SELECT CAST(printf('A%03d', i) AS "
              "BLOB), CAST(printf('P%03d', i % 30 + 1) AS BLOB), " +
                  values() + ", " + values() + ", '', " + values() +
                  ", 'rdb', CAST(printf('B%03d', i % 30 + 1) AS BLOB), NULL "
                  "FROM k") +
         "INSERT INTO extern_site VALUES (x'E1', 'east&<'), (x'E2', "
         "'\"west\"');"
         "INSERT INTO local_site VALUES (x'E0', 'home' || char(9));"
         "INSERT INTO media VALUES (x'F1', NULL);"
         "INSERT INTO package_definition VALUES (x'C1', 'pk&');"
         "INSERT INTO package_whole_data_domain SELECT x'C1', oid FROM "
         "data_domain ORDER BY " +
         hash("rowid") + " LIMIT 5;" +
         rows(8,
              "INSERT INTO subscribing_target SELECT CAST(printf('T%03d', i) "
              "AS BLOB), " +
                  values() + ", x'F1', x'C1', x'E1' FROM k") +
         rows(16,
              "INSERT INTO capture_status SELECT CAST(printf('K%03d', i) AS "
              "BLOB), CAST(printf('T%03d', i % 8 + 1) AS BLOB), "
              "CAST(printf('S%03d', i) AS BLOB), " +
                  values() + " FROM k");
}

std::set<std::string> Matches(const std::string& text, const char* pattern) {
  std::set<std::string> found;
  const std::regex re(pattern);
  for (auto it = std::sregex_iterator(text.begin(), text.end(), re);
       it != std::sregex_iterator(); ++it)
    found.insert((*it)[1]);
  return found;
}

RunResult ChromiumDom(const std::string& page) {
  return Run("chromium",
             {"--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
              "--no-first-run", "--disable-background-networking",
              "--disable-component-update", "--disable-sync",
              "--user-data-dir=" + OutputPath("chromium"), "--dump-dom",
              "file://" + page},
             {});
}

}  // namespace test_support
