#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ostream>
#include <sstream>

#include "Alongside.h"
#include "Checker.h"
#include "DocumentPart.h"
#include "Escape.h"
#include "Files.h"
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

namespace {

// Reads into after the part of newFile that o names, put into oldFile, as
// apply --only makes it; its objects that oldFile gives to other objects
// go to *others. 0, or the status after saying why there is no part.
int ReadPart(const std::string& oldFile, const std::string& newFile,
             const DiffOptions& o, const std::string& shown,
             doc::PlanDocument& after, std::vector<std::string>* others,
             std::ostream& err) {
  doc::PartRequest request;
  request.current = oldFile;
  request.source = newFile;
  request.shownSource = doc::Shown(newFile);
  request.ids = o.only;
  request.withReferences = o.withReferences;
  doc::Part part;
  std::string error;
  if (!doc::PromotePart(request, &part, &error)) {
    if (part.missing.empty()) {
      err << "vantrel-doc: " << error << "\n";
      return 1;
    }
    std::string names;
    for (const std::string& named : part.missing)
      names += (names.empty() ? "" : ", ") + named;
    err << "vantrel-doc: the part names objects that " << doc::Shown(oldFile)
        << " lacks: " << names
        << " (add them to --only, or bring them along with "
           "--with-references)\n";
    return doc::kRefusedByGuard;
  }
  *others = std::move(part.otherObjectIds);
  std::string path;
  const int fd = vantrel::HeldBytes(part.wanted, &path);
  const bool written = fd >= 0;
  const int read =
      written ? doc::ReadForPlan(path, after, err, nullptr, shown) : 2;
  if (!written)
    err << "vantrel-doc: cannot make the part in the temporary directory "
        << vantrel::Escaped(vantrel::TemporaryDirectory()) << ": "
        << std::strerror(errno) << "\n";
  if (fd >= 0) ::close(fd);
  return read;
}

}  // namespace

int DocDiff(const std::string& oldFile, const std::string& newFile,
            const DiffOptions& o, std::ostream& out, std::ostream& err) {
  doc::PlanDocument before, after;
  int status = 0;
  // A document that cannot be read or is refused: no comparison.
  if (!ReadPlanPair(oldFile, newFile, before, after, err, &status))
    return status;
  std::string title = doc::Shown(oldFile) + " to " + doc::Shown(newFile);
  std::vector<std::string> others;
  if (!o.only.empty()) {
    title += " (only " + std::to_string(o.only.size()) + " objects)";
    after = doc::PlanDocument();
    if (const int read =
            ReadPart(oldFile, newFile, o, doc::Shown(newFile) + " (part)",
                     after, &others, err))
      return read;
  }
  doc::Plan plan = doc::MakePlan(before, after);
  plan.showSecrets = o.showSecrets;
  plan.otherObjects = std::move(others);
  if (const int written = WritePlan(plan, o.format, o.output,
                                    {oldFile, newFile}, title, out, err))
    return written;
  return plan.Empty() ? 0 : 1;
}

}  // namespace vdoc
