#include <ostream>

#include "ApplyPipeline.h"
#include "Checker.h"
#include "Escape.h"
#include "RevisionArgument.h"
#include "VantrelDoc.h"

namespace vdoc {

int DocRevert(const std::string& commit, const std::string& store,
              const ApplyOptions& o, std::ostream& out, std::ostream& err) {
  doc::ApplyRequest request;
  std::string error, id;
  if (!doc::ChangeArgument(commit, &request.revertBefore, &request.document,
                           &id, &error)) {
    err << "vantrel-doc: cannot read " << vantrel::Escaped(commit) << ": "
        << error << "\n";
    return 2;
  }
  request.command = "revert";
  request.shownFile = doc::Shown(request.document);
  request.shownDocument = request.shownFile + " (reverted)";
  ApplyOptions options = o;
  options.revert = id;
  return RunApplyRequest(request, store, options, out, err);
}

}  // namespace vdoc
