#include <ostream>

#include "Checker.h"
#include "Output.h"
#include "TwinWriter.h"
#include "VantrelDoc.h"

int DocXml(const std::string& file, const std::string& output,
           std::ostream& out, std::ostream& err) {
  Output twin;
  std::string error;
  if (!twin.Open(output, &error)) {
    err << "vantrel-doc: cannot write " << Shown(output) << ": " << error
        << "\n";
    return 2;
  }
  TwinWriter writer(twin.Stream(),
                    [&](std::string* reason) { return twin.Rewind(reason); });
  Checker checker(file, err, &writer, false);
  writer.ReportTo(&checker);
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
