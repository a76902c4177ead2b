// Writing the well-formed twin of a document as it is walked: every line
// again, its values escaped, after the mark that says so.
#pragma once

#include <functional>
#include <ostream>
#include <string>

#include "Copy.h"
#include "DocumentWrite.h"

namespace vdoc {

class TwinWriter : public ReportingWriter {
 public:
  // Writes to stream; rewind empties what was written, for a walk that
  // starts again (false with the reason in its argument). With shown, a
  // value XML cannot carry is written as messages show it: for a view.
  TwinWriter(std::ostream& stream, std::function<bool(std::string*)> rewind,
             bool shown = false)
      : stream_(stream), rewind_(std::move(rewind)), shown_(shown) {}
  void Element(const doc::Line& line, std::size_t n,
               const doc::Place&) override {
    Write(line, n);
  }
  void Other(const doc::Line& line, std::size_t n) override { Write(line, n); }
  void Restart() override {
    std::string error;
    if (!rewind_(&error)) checker_->Problem(0, error);
  }

 private:
  void Write(const doc::Line& line, std::size_t n) {
    text_.clear();
    std::string problem;
    if (!doc::WriteLine(line, true, text_, &problem, shown_))
      return checker_->Problem(n, problem);
    text_ += '\n';
    stream_ << text_;
  }
  std::ostream& stream_;
  std::function<bool(std::string*)> rewind_;
  bool shown_;
  std::string text_;
};

}  // namespace vdoc
