#include "Plans.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <ostream>

#include "Checker.h"
#include "Output.h"
#include "PlanPage.h"
#include "PlanViews.h"

namespace vdoc {

namespace {

// Writes plan to out in format; false with *error.
bool Write(const doc::Plan& plan, PlanFormat format, const std::string& title,
           std::ostream& out, std::string* error, const doc::Refusal* refusal) {
  switch (format) {
    case PlanFormat::kText:
      doc::WritePlanText(plan, out);
      return true;
    case PlanFormat::kJson:
      doc::WritePlanJson(plan, out, refusal);
      return true;
    case PlanFormat::kHtml:
      return doc::WritePlanPage(plan, title, out, error);
  }
  return false;
}

}  // namespace

int WritePlan(const doc::Plan& plan, PlanFormat format,
              const std::string& output, const std::vector<std::string>& inputs,
              const std::string& title, std::ostream& out, std::ostream& err,
              const doc::Refusal* refusal) {
  std::string error;
  // The plan is whole before it is written: standard output needs no spool.
  if (output == "-") {
    if (Write(plan, format, title, out, &error, refusal)) return 0;
    err << "vantrel-doc: cannot write the plan: " << error << "\n";
    return 2;
  }
  Output written;
  if (written.Open(output, inputs, &error)) {
    std::ofstream& file = written.Stream();
    const bool whole = Write(plan, format, title, file, &error, refusal);
    file.flush();
    if (whole && file.fail()) error = std::strerror(errno ? errno : EIO);
    if (whole && !file.fail() && written.Commit(&error)) return 0;
  }
  err << "vantrel-doc: cannot write " << doc::ShownOutput(output) << ": "
      << error << "\n";
  return 2;
}

}  // namespace vdoc
