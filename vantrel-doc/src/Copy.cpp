#include "Copy.h"

#include "Output.h"

int CopyDocument(
    const std::string& file, const std::string& output,
    const std::function<std::unique_ptr<ReportingWriter>(Output&)>& make,
    const CopyWords& words, std::ostream& out, std::ostream& err) {
  Output copy;
  std::string error;
  const auto cannotWrite = [&] {
    err << "vantrel-doc: cannot write " << ShownOutput(output) << ": " << error
        << "\n";
    return 2;
  };
  if (!copy.Open(output, &error)) return cannotWrite();
  const std::unique_ptr<ReportingWriter> writer = make(copy);
  // The copy is made line by line: the identifiers are not held.
  Checker checker(file, err, writer.get(), false);
  writer->ReportTo(&checker);
  if (!checker.Run()) return 2;
  if (checker.Problems()) {
    err << "vantrel-doc: " << Shown(file) << " is refused: " << words.unwritten
        << "\n";
    return 1;
  }
  if (!copy.Commit(&error)) return cannotWrite();
  if (output != "-")
    out << Shown(output) << ": " << words.before << Shown(file) << words.after
        << "\n";
  return 0;
}
