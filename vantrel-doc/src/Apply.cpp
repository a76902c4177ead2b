#include <ostream>
#include <sstream>

#include "ApplyPipeline.h"
#include "Checker.h"
#include "Escape.h"
#include "Files.h"
#include "Plans.h"
#include "VantrelDoc.h"

namespace vdoc {

namespace {

// The most identifiers of --only that messages list.
constexpr std::size_t kMostNamed = 5;

// A dry run's plan goes to -o in --format; the store's own words
// otherwise.
class Saying : public doc::ApplySaying {
 public:
  Saying(const ApplyOptions& o, std::vector<std::string> inputs,
         std::string title, std::string store, std::ostream& out,
         std::ostream& err)
      : o_(o),
        inputs_(std::move(inputs)),
        title_(std::move(title)),
        store_(std::move(store)),
        out_(out),
        err_(err) {}
  int DryRun(const doc::Plan& plan, const doc::Refusal& refusal,
             bool nothingToChange) override {
    // A plan asked for in a file is written even when empty: an old one
    // left there would be taken for it.
    if (nothingToChange && o_.format == PlanFormat::kText && o_.output == "-") {
      out_ << store_ << ": nothing to change\n";
      return 0;
    }
    const int written = WritePlan(plan, o_.format, o_.output, inputs_, title_,
                                  out_, err_, &refusal);
    if (nothingToChange) return written;
    if (refusal)
      err_ << "vantrel-doc: apply would refuse: " << refusal.why << "\n";
    // A dry run the apply would refuse says so as the apply would.
    return written ? written : refusal ? refusal.status : 1;
  }

  bool Carried(const doc::Plan& plan, std::string* text, std::string* summary,
               std::string* error) override {
    if (o_.output == "-" && o_.format == PlanFormat::kText) return true;
    // Standard output holds the plan alone; a file holds it, and standard
    // output the line of what was done.
    text->clear();
    if (o_.output == "-") summary->clear();
    std::ostringstream said;
    if (WritePlan(plan, o_.format, o_.output, inputs_, title_, out_, said) == 0)
      return true;
    *error = said.str();
    // The reason as WritePlan says it, without its prefix and line end.
    const std::string prefix = "vantrel-doc: ";
    if (error->compare(0, prefix.size(), prefix) == 0)
      error->erase(0, prefix.size());
    if (!error->empty() && error->back() == '\n') error->pop_back();
    return false;
  }

 private:
  const ApplyOptions& o_;
  const std::vector<std::string> inputs_;  // what -o never replaces
  std::string title_, store_;
  std::ostream& out_;
  std::ostream& err_;
};

}  // namespace

int DocApply(const std::string& file, const std::string& store,
             const ApplyOptions& o, std::ostream& out, std::ostream& err) {
  doc::ApplyRequest request;
  request.document = file;
  request.shownFile = doc::Shown(file);
  request.shownDocument = request.shownFile;
  // A part is named by its identifiers, a long list by its count.
  if (o.only.size() > kMostNamed) {
    request.shownDocument +=
        " (only " + std::to_string(o.only.size()) + " objects)";
  } else if (!o.only.empty()) {
    request.shownDocument += " (only ";
    for (std::size_t i = 0; i < o.only.size(); ++i)
      request.shownDocument += (i ? "," : "") + vantrel::Escaped(o.only[i]);
    request.shownDocument += ")";
  }
  return RunApplyRequest(request, store, o, out, err);
}

int RunApplyRequest(doc::ApplyRequest request, const std::string& store,
                    const ApplyOptions& o, std::ostream& out,
                    std::ostream& err) {
  request.store = store;
  request.options = o;
  request.planOutput = o.output;
  request.shownStore = doc::Shown(store);
  request.shownBase = doc::Shown(o.base);
  // The plan's file is held to the rule of every output before anything
  // is read, so that a refused one leaves the store, and the log, as they
  // were.
  std::vector<std::string> inputs{request.document, request.store, o.base,
                                  o.log};
  if (!request.revertBefore.empty()) inputs.push_back(request.revertBefore);
  const std::string refused = vantrel::RefusedOutput(o.output, inputs);
  if (!refused.empty()) {
    err << "vantrel-doc: cannot write " << doc::ShownOutput(o.output) << ": "
        << refused << "\n";
    return 2;
  }
  Saying saying(o, std::move(inputs),
                request.shownStore + " to " + request.shownDocument,
                request.shownStore, out, err);
  return doc::RunApply(request, saying, out, err);
}

}  // namespace vdoc
