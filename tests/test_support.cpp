#include "test_support.h"

#include <fcntl.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <iostream>

extern char** environ;

namespace test_support {

std::string OutputPath(const std::string& name) {
  ::mkdir(TEST_OUTPUT_DIR, 0755);
  return std::string(TEST_OUTPUT_DIR) + "/" + name;
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

void MakeStore(const std::string& path, const std::vector<std::string>& sql) {
  std::remove(path.c_str());
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK) << path;
  std::vector<std::string> scripts{ReadFile(SCHEMA_SQL)};
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

RunResult Run(const std::string& program, const std::vector<std::string>& args,
              const std::map<std::string, std::optional<std::string>>& env) {
  static int runs = 0;
  const std::string stem = OutputPath("run" + std::to_string(++runs));
  const std::string outPath = stem + ".out", errPath = stem + ".err";

  std::vector<std::string> environment;
  for (char** e = environ; *e; ++e) {
    const std::string entry = *e;
    if (!env.count(entry.substr(0, entry.find('='))))
      environment.push_back(entry);
  }
  for (const auto& [name, value] : env)
    if (value) environment.push_back(name + "=" + *value);

  std::vector<char*> argv{const_cast<char*>(program.c_str())};
  for (const std::string& arg : args)
    argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (std::string& entry : environment) envp.push_back(entry.data());
  envp.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t pid = 0;
  RunResult result;
  if (posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(),
                  envp.data()) == 0) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
  }
  posix_spawn_file_actions_destroy(&actions);
  result.out = ReadFile(outPath);
  result.err = ReadFile(errPath);
  return result;
}

}  // namespace test_support
