#include <ostream>

#include "Checker.h"
#include "Output.h"
#include "VantrelDoc.h"

namespace {

// Writes every line of a document again, its values escaped.
class TwinWriter : public doc::Visitor {
 public:
  TwinWriter(Output& output, Checker*& checker)
      : output_(output), checker_(checker) {}
  void Element(const doc::Line& line, std::size_t n,
               const doc::Place&) override {
    Write(line, n);
  }
  void Other(const doc::Line& line, std::size_t n) override { Write(line, n); }
  void Problem(std::size_t, const std::string&) override {}
  void Restart() override {
    std::string error;
    if (!output_.Rewind(&error)) checker_->Problem(0, error);
  }

 private:
  void Write(const doc::Line& line, std::size_t n) {
    text_.clear();
    std::string problem;
    if (!doc::WriteLine(line, true, text_, &problem))
      return checker_->Problem(n, problem);
    text_ += '\n';
    output_.Stream() << text_;
  }
  Output& output_;
  Checker*& checker_;
  std::string text_;
};

}  // namespace

int DocXml(const std::string& file, const std::string& output,
           std::ostream& out, std::ostream& err) {
  Output twin;
  std::string error;
  if (!twin.Open(output, &error)) {
    err << "vantrel-doc: cannot write " << Shown(output) << ": " << error
        << "\n";
    return 2;
  }
  Checker* reporter = nullptr;
  TwinWriter writer(twin, reporter);
  Checker checker(file, err, &writer);
  reporter = &checker;
  if (!checker.Run()) return 2;
  if (checker.Problems()) {
    err << "vantrel-doc: " << Shown(file)
        << " is refused: no well-formed copy was written\n";
    return 1;
  }
  if (!twin.Commit(&error)) {
    err << "vantrel-doc: cannot write " << Shown(output) << ": " << error
        << "\n";
    return 2;
  }
  if (output != "-")
    out << Shown(output) << ": the well-formed copy of " << Shown(file) << "\n";
  return 0;
}
