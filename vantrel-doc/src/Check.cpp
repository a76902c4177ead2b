#include <ostream>

#include "Checker.h"
#include "VantrelDoc.h"

namespace vdoc {

int DocCheck(const std::string& file, std::ostream& out, std::ostream& err) {
  doc::Checker checker(file, err);
  if (!checker.Run()) return 2;
  if (checker.Problems()) return 1;
  const std::size_t* counts = checker.Counts();
  std::size_t total = 0;
  for (int k = 0; k < doc::kKindCount; ++k)
    if (k != doc::kServer) total += counts[k];
  out << doc::Shown(file) << ": a whole document of " << total << " objects"
      << (checker.Walked().xml ? ", read as XML" : "") << "\n";
  for (int k = 0; k < doc::kKindCount; ++k)
    if (k != doc::kServer && counts[k])
      out << "  " << doc::LayoutOf(doc::Kind(k)).name << " " << counts[k]
          << "\n";
  // The exporter's document as it is: accepted, with the way to a copy
  // that XML tools read.
  if (!checker.Walked().illFormed.empty())
    out << doc::Shown(file) << ":" << checker.Walked().illFormed
        << ": the document is not well-formed XML; vantrel-doc xml writes a "
           "well-formed copy\n";
  return 0;
}

}  // namespace vdoc
