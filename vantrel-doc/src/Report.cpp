#include <ostream>

#include "VantrelDoc.h"

int DocReport(const std::string&, const std::string&, std::ostream&,
              std::ostream& err) {
  err << "vantrel-doc: report: not yet\n";
  return 2;
}
