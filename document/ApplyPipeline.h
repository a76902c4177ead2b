// apply as a pipeline of stages: read the documents, snapshot and export
// the store, plan, guards, change, verify, commit, record. Each stage is a
// function of its own; interruptions and the work done alongside (the
// document read while the store is exported, the plan said while the store
// is changed) are handled by the functions that run them.
#pragma once

#include <iosfwd>
#include <string>

#include "ApplyGuards.h"
#include "DocumentPlan.h"

namespace doc {

// What an apply is asked to do, with the names its messages show.
struct ApplyRequest {
  std::string document;  // a path, or "-" for standard input
  std::string store;
  // As messages name them: the document wanted (a part says so), the file
  // given, the base and the store.
  std::string shownDocument, shownFile, shownBase, shownStore;
  ApplyOptions options;
  std::string planOutput;  // the plan's file, which the log is not ("-")
  // A revert (options.revert): the document of the commit's parent; the
  // document is the commit's, named shownFile.
  std::string revertBefore;
  // The command, as the history's commit names it.
  std::string command = "apply";
};

// How the command says what an apply does: the pipeline decides, the
// command words it.
class ApplySaying {
 public:
  virtual ~ApplySaying() = default;
  // A dry run's plan (the store's state to the document's), the refusal
  // the apply would meet, if any, and whether the store already exports
  // the document; returns the exit status.
  virtual int DryRun(const Plan& plan, const Refusal& refusal,
                     bool nothingToChange) = 0;
  // The plan an apply carries out, written where it is asked for before
  // the commit: false with *error, and nothing is committed. text (the
  // plan as text) and summary (the line of what was done) are what standard
  // output gets after the commit; the command clears what it does not want
  // there.
  virtual bool Carried(const Plan& plan, std::string* text,
                       std::string* summary, std::string* error) = 0;
};

// Runs the apply of request; its messages go to err (a refused document's
// problems, what a stale base changed), the plan carried out and the
// summary to out. Returns the exit status: 0 done or nothing to do, 1 a
// document, store or plan refused, 2 trouble. Nothing is changed unless
// the store exports the document, verified before the commit.
int RunApply(const ApplyRequest& request, ApplySaying& say, std::ostream& out,
             std::ostream& err);

}  // namespace doc
