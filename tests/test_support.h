// Support shared by the tests: files in the build tree, captured streams,
// golden documents, stores built from SQL, and runs of the built binary.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace test_support {

// A path under the build tree's test output directory, which is created.
std::string OutputPath(const std::string& name);
// A path under the committed test data.
std::string DataPath(const std::string& name);
std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& text);
bool FileExists(const std::string& path);
// The names in directory, without "." and "..".
std::vector<std::string> ListDirectory(const std::string& directory);

// Creates the store at path (replacing any file there) from the schema and
// then each SQL text in turn. A loose store, as one made elsewhere might be,
// has no STRICT tables, CHECK or NOT NULL constraints.
void MakeStore(const std::string& path, const std::vector<std::string>& sql,
               bool loose = false);

// SQL filling a store with random values holding markup, quotes, tabs and
// non-ASCII text, its rows in random order: the same store for the same
// seed on every run, so that a failing seed rebuilds its case.
std::string RandomStore(int seed);

// SQL adding count projects, their oids "P000001"..., named name and a
// number.
std::string Projects(int count, const char* name);

// Compares actual with the committed document data/golden. On a mismatch the
// actual text is written to the output directory and the failure shows the
// expected and actual lines side by side from the first difference.
::testing::AssertionResult MatchesGolden(const std::string& golden,
                                         const std::string& actual);

// Collects what the tool writes to std::cerr while it lives.
class CaptureStderr {
 public:
  CaptureStderr();
  ~CaptureStderr();
  CaptureStderr(const CaptureStderr&) = delete;
  CaptureStderr& operator=(const CaptureStderr&) = delete;
  std::string Text() const { return text_.str(); }

 private:
  std::ostringstream text_;
  std::streambuf* saved_;
};

struct RunResult {
  int status = -1;  // the exit status, or -1 when the process did not exit
  std::string out;  // standard output
  std::string err;  // standard error
};

// Runs program with args; env entries set (a value) or unset (nullopt)
// variables of the child.
RunResult Run(const std::string& program, const std::vector<std::string>& args,
              const std::map<std::string, std::optional<std::string>>& env);

// The first group of every match of pattern in text.
std::set<std::string> Matches(const std::string& text, const char* pattern);

// page (a file) as headless Chromium renders it: its DOM on standard
// output.
RunResult ChromiumDom(const std::string& page);

}  // namespace test_support
