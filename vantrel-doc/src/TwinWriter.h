// Writing the well-formed twin of a document as it is walked: every line
// again, its values escaped, after the mark that says so.
#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "Copy.h"
#include "DocumentWrite.h"
#include "Secrets.h"

namespace vdoc {

class TwinWriter : public ReportingWriter {
 public:
  // Writes to stream; rewind empties what was written, for a walk that
  // starts again (false with the reason in its argument). With shown, a
  // value XML cannot carry is written as messages show it: for a view.
  // With masked, the password parts of secrets are masked.
  TwinWriter(std::ostream& stream, std::function<bool(std::string*)> rewind,
             bool shown = false, bool masked = false)
      : stream_(stream),
        rewind_(std::move(rewind)),
        shown_(shown),
        masked_(masked) {}
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
    if (masked_ && line.type == doc::Line::kStart) return WriteMasked(line, n);
    if (!doc::WriteLine(line, true, text_, &problem, shown_))
      return checker_->Problem(n, problem);
    text_ += '\n';
    stream_ << text_;
  }
  std::ostream& stream_;
  // Writes line with its secrets masked.
  void WriteMasked(const doc::Line& line, std::size_t n) {
    doc::Line masked = line;
    std::vector<std::string> held;
    held.reserve(line.values.size());
    const auto& attributes = doc::LayoutOf(line.kind).attributes;
    for (std::size_t i = 0; i < masked.values.size(); ++i)
      if (i < attributes.size() && attributes[i].secret) {
        held.push_back(doc::MaskSecrets(masked.values[i]));
        masked.values[i] = held.back();
      }
    masked_ = false;
    Write(masked, n);
    masked_ = true;
  }
  std::function<bool(std::string*)> rewind_;
  bool shown_;
  bool masked_;
  std::string text_;
};

}  // namespace vdoc
