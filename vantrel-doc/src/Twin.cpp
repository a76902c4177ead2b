#include <ostream>

#include "Checker.h"
#include "Copy.h"
#include "Output.h"
#include "TwinWriter.h"
#include "VantrelDoc.h"

namespace vdoc {

int DocXml(const std::string& file, const std::string& output,
           std::ostream& out, std::ostream& err) {
  return CopyDocument(
      file, output,
      [](Output& twin) -> std::unique_ptr<ReportingWriter> {
        return std::make_unique<TwinWriter>(
            twin.Stream(),
            [&twin](std::string* reason) { return twin.Rewind(reason); });
      },
      {"the well-formed copy of ", "", "no well-formed copy was written"}, out,
      err);
}

}  // namespace vdoc
