// Copies of a document written line by line (the well-formed twin, the
// JSON), refused whole when the checker finds a problem.
#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <string>

#include "Checker.h"

namespace vdoc {

// A visitor that writes what it is given and tells the checker of the walk
// what it cannot write, as a problem of its line.
class ReportingWriter : public doc::Visitor {
 public:
  void ReportTo(doc::Checker* checker) { checker_ = checker; }
  void Problem(std::size_t, const std::string&) override {}

 protected:
  doc::Checker* checker_ = nullptr;
};

class Output;

// How a copy is told: "OUT: <before>FILE<after>" once written, "FILE is
// refused: <unwritten>" when the document has problems.
struct CopyWords {
  const char* before;
  const char* after;
  const char* unwritten;
};

// Writes a copy of the document file to output, line by line through the
// writer that make gives for the output; refused (status 1) when the
// document has problems, and then nothing is written.
int CopyDocument(
    const std::string& file, const std::string& output,
    const std::function<std::unique_ptr<ReportingWriter>(Output&)>& make,
    const CopyWords& words, std::ostream& out, std::ostream& err);

}  // namespace vdoc
