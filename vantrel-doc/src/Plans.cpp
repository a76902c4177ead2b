#include "Plans.h"

#include <sys/stat.h>

#include <ostream>

#include "Checker.h"
#include "Output.h"
#include "PlanPage.h"
#include "PlanViews.h"

int ReadForPlan(const std::string& file, doc::PlanDocument& doc,
                std::ostream& err, doc::Visitor* visitor) {
  struct stat st {};
  if (::stat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode))
    doc.Reserve(static_cast<std::size_t>(st.st_size));
  doc::Both both(doc, *(visitor ? visitor : &doc));
  Checker checker(file, err,
                  visitor ? static_cast<doc::Visitor*>(&both) : &doc);
  if (!checker.Run()) return 2;
  if (checker.Problems()) return 1;
  doc.Finish();
  return 0;
}

namespace {

// Writes plan to out in format; false with *error.
bool Write(const doc::Plan& plan, PlanFormat format, const std::string& title,
           std::ostream& out, std::string* error) {
  switch (format) {
    case PlanFormat::kText:
      doc::WritePlanText(plan, out);
      return true;
    case PlanFormat::kJson:
      doc::WritePlanJson(plan, out);
      return true;
    case PlanFormat::kHtml:
      return doc::WritePlanPage(plan, title, out, error);
  }
  return false;
}

}  // namespace

int WritePlan(const doc::Plan& plan, PlanFormat format,
              const std::string& output, const std::string& title,
              std::ostream& out, std::ostream& err) {
  std::string error;
  // The plan is whole before it is written: standard output needs no spool.
  if (output == "-") {
    if (Write(plan, format, title, out, &error)) return 0;
    err << "vantrel-doc: cannot write the plan: " << error << "\n";
    return 2;
  }
  Output written;
  if (written.Open(output, &error)) {
    std::ofstream& file = written.Stream();
    const bool whole = Write(plan, format, title, file, &error);
    file.flush();
    if (whole && file.fail()) error = "the write failed";
    if (whole && !file.fail() && written.Commit(&error)) return 0;
  }
  err << "vantrel-doc: cannot write " << ShownOutput(output) << ": " << error
      << "\n";
  return 2;
}
