#include <ostream>
#include <sstream>

#include "Alongside.h"
#include "Checker.h"
#include "Plans.h"
#include "VantrelDoc.h"

namespace vdoc {

bool ReadPlanPair(const std::string& oldFile, const std::string& newFile,
                  doc::PlanDocument& before, doc::PlanDocument& after,
                  std::ostream& err, int* status) {
  // The two documents are read at once, each by a thread of its own.
  std::ostringstream beforeErr, afterErr;
  int beforeRead = 0, afterRead = 0;
  Alongside reader(
      [&] { beforeRead = doc::ReadForPlan(oldFile, before, beforeErr); });
  afterRead = doc::ReadForPlan(newFile, after, afterErr);
  reader.Wait();
  err << beforeErr.str() << afterErr.str();
  for (const auto& [read, file] : {std::make_pair(beforeRead, &oldFile),
                                   std::make_pair(afterRead, &newFile)})
    if (read == 1)
      err << "vantrel-doc: " << doc::Shown(*file) << " is refused by check\n";
  *status = beforeRead || afterRead ? 2 : 0;
  return *status == 0;
}

int DocDiff(const std::string& oldFile, const std::string& newFile,
            PlanFormat format, const std::string& output, std::ostream& out,
            std::ostream& err, bool showSecrets) {
  doc::PlanDocument before, after;
  int status = 0;
  // A document that cannot be read or is refused: no comparison.
  if (!ReadPlanPair(oldFile, newFile, before, after, err, &status))
    return status;
  doc::Plan plan = doc::MakePlan(before, after);
  plan.showSecrets = showSecrets;
  if (const int written = WritePlan(
          plan, format, output, {oldFile, newFile},
          doc::Shown(oldFile) + " to " + doc::Shown(newFile), out, err))
    return written;
  return plan.Empty() ? 0 : 1;
}

}  // namespace vdoc
