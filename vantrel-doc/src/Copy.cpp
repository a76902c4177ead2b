#include "Copy.h"

#include "Output.h"

namespace vdoc {

int CopyDocument(
    const std::string& file, const std::string& output,
    const std::function<std::unique_ptr<ReportingWriter>(Output&)>& make,
    const CopyWords& words, std::ostream& out, std::ostream& err) {
  Output copy;
  std::string error;
  const auto cannotWrite = [&] {
    err << "vantrel-doc: cannot write " << doc::ShownOutput(output) << ": "
        << error << "\n";
    return 2;
  };
  if (!copy.Open(output, {file}, &error)) return cannotWrite();
  const std::unique_ptr<ReportingWriter> writer = make(copy);
  // The copy is made line by line: the identifiers are not held.
  doc::Checker checker(file, err, writer.get(), false);
  writer->ReportTo(&checker);
  if (!checker.Run()) return 2;
  if (checker.Problems()) {
    err << "vantrel-doc: " << doc::Shown(file)
        << " is refused: " << words.unwritten << "\n";
    return 1;
  }
  if (!copy.Commit(&error)) return cannotWrite();
  if (output != "-")
    out << doc::Shown(output) << ": " << words.before << doc::Shown(file)
        << words.after << "\n";
  return 0;
}

}  // namespace vdoc
