// The fixture of the in-process tests of the tool: a fake administration, and
// writers run on a document in the build tree with standard error and the
// "VANTREL" trace captured.
#pragma once

#include <fstream>
#include <functional>
#include <memory>
#include <ostream>
#include <regex>
#include <string>

#include "Vantrel.h"
#include "fake_admin.h"
#include "test_support.h"

// What a writer did: its result, standard error (with source line numbers
// as N), the document, and the depth it left.
struct Outcome {
  int rc;
  std::string err, doc;
  int depth;
  bool operator==(const Outcome& o) const {
    return rc == o.rc && err == o.err && doc == o.doc && depth == o.depth;
  }
};

inline std::ostream& operator<<(std::ostream& s, const Outcome& o) {
  return s << "{rc " << o.rc << ", depth " << o.depth << ", err \"" << o.err
           << "\", doc \"" << o.doc << "\"}";
}

class ToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    indent = 0;
    iXSL = 0;
    cXSLFile = "";
    traceVantrel.Capture(&trace);
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name =
        std::string(info->test_suite_name()) + "." + info->name();
    for (char& c : name)
      if (c == '/') c = '_';
    path = test_support::OutputPath(name + ".xml");
    out = std::make_unique<std::ofstream>(path);
  }
  void TearDown() override { traceVantrel.Capture(nullptr); }

  // Runs writer on a fresh document and trace, entered at depth.
  Outcome Run(const std::function<int(std::ofstream*)>& writer, int depth) {
    out = std::make_unique<std::ofstream>(path);
    trace.clear();
    indent = depth;
    test_support::CaptureStderr captured;
    const int rc = writer(out.get());
    return {rc, WithoutLines(captured.Text()), Doc(), indent};
  }
  // Runs an exporter on object.
  template <class T, class U>
  Outcome Write(int (*exporter)(std::ofstream*, T*), U* object, int depth = 0) {
    return Run([&](std::ofstream* o) { return exporter(o, object); }, depth);
  }

  // The document written so far.
  std::string Doc() {
    out->flush();
    return test_support::ReadFile(path);
  }
  static std::string WithoutLines(const std::string& text) {
    static const std::regex line(R"(line \[[0-9]+\])");
    return std::regex_replace(text, line, "line [N]");
  }
  static bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
  }

  static constexpr const char* kNullReport =
      "unexpected null pointer line [N] File [Vantrel.m/src/Vantrel.cpp]\n";

  fake::World fakes;
  std::string path;
  std::unique_ptr<std::ofstream> out;
  std::string trace;
};
