// vantrel-doc: the commands that read AdminObjects documents. Each writes
// its report to out and its problems to err, and returns the exit status:
// 0 success, 1 a document with problems (for diff: documents that differ),
// 2 trouble (a file that cannot be read or written, a bad command line).
// "-" names standard input or standard output.
#pragma once

#include <cstddef>
#include <fstream>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "ApplyGuards.h"
#include "ApplyPipeline.h"
#include "DocumentWalk.h"
#include "Plans.h"

namespace vdoc {

// A summary when the document is whole and consistent, else one line per
// problem, each naming FILE:LINE.
int DocCheck(const std::string& file, std::ostream& out, std::ostream& err);
// How diff shows its plan, and of what.
struct DiffOptions {
  PlanFormat format = PlanFormat::kText;
  std::string output = "-";
  bool showSecrets = false;
  // A part, as apply --only makes it: the plan from the old document to
  // the old one with these objects of the new one in place.
  std::vector<std::string> only;
  bool withReferences = false;
};
// The plan from one document to another, object by object, written to
// output in format (1: their configurations differ); secrets masked unless
// asked for.
int DocDiff(const std::string& oldFile, const std::string& newFile,
            const DiffOptions& options, std::ostream& out, std::ostream& err);
// Reads and checks two documents at once into before and after; false,
// with the exit status in *status, after saying why.
bool ReadPlanPair(const std::string& oldFile, const std::string& newFile,
                  doc::PlanDocument& before, doc::PlanDocument& after,
                  std::ostream& err, int* status);
// Creates store, which must not exist, from a document that DocCheck
// accepts; exporting it gives the document back.
int DocLoad(const std::string& file, const std::string& store,
            std::ostream& out, std::ostream& err);
// Writes the well-formed twin of a document to output: the same lines with
// their values escaped, and a mark that says so.
int DocXml(const std::string& file, const std::string& output,
           std::ostream& out, std::ostream& err);
// Writes the configuration of a document as JSON to output.
int DocJson(const std::string& file, const std::string& output,
            std::ostream& out, std::ostream& err);
// Writes the HTML report of a document, with a picture of its servers and
// replication, to output; secrets masked unless showSecrets.
int DocReport(const std::string& file, const std::string& output,
              std::ostream& out, std::ostream& err, bool showSecrets = false);
// Exports store into document, the file at path, as the exporter does,
// then checks it (its problems named as shown), passing each line on to
// next when given: *total is then the number of its objects. False with
// *why, after the exporter's messages.
bool ExportChecked(const std::string& store, std::ofstream& document,
                   const std::string& path, const std::string& shown,
                   std::ostream& err, std::size_t* total, std::string* why,
                   doc::Visitor* next = nullptr);
// Exports store to file as the exporter does, through a new file beside it
// that replaces file only once it is whole, checked and on the disk; on any
// failure file is as it was and nothing is left behind. An archive that
// would not change is not written; one of another installation (its local
// site differs) is refused with kRefusedByGuard unless otherInstallation.
// Unless quiet, one line says what was written and, when file existed, how
// many objects were added, removed and changed since, or that nothing was.
int DocExport(const std::string& store, const std::string& file, bool quiet,
              bool otherInstallation, std::ostream& out, std::ostream& err);
// How archive goes.
struct ArchiveOptions {
  bool quiet = false;
  std::string installation;  // the branch's name: else the local site's
  std::string onChange;      // a shell command run after a change
  std::string push;          // a remote the branch is pushed to, or ""
};
// Exports store as export does, with the same checks, and commits the
// document to the history repo (created when missing), on the branch of
// its installation, unless the branch's last commit holds it. One line
// says unchanged, or the totals and the commit. A change of configuration
// runs onChange with the plan's JSON on its standard input; a failing one
// is told (status 2) and the commit stays.
int DocArchive(const std::string& store, const std::string& repo,
               const ArchiveOptions& options, std::ostream& out,
               std::ostream& err);
// How log shows a history.
struct LogOptions {
  PlanFormat format = PlanFormat::kText;  // text or JSON
  std::string output = "-";
  std::string since, until;  // ISO 8601 dates or times, UTC; "" for none
  bool all = false;          // run-time state too
};
// What changed in the history target (REPO, or REPO@INSTALLATION), when
// and by whom, newest first, a commit each; with object (an identifier or
// KIND:NAME), only that object's changes. Run-time state is left out
// unless all.
int DocLog(const std::string& target, const std::string& object,
           const LogOptions& options, std::ostream& out, std::ostream& err);
// For each attribute of object (an identifier or KIND:NAME) in the history
// target (REPO or REPO@INSTALLATION): its value, and the commit, date and
// author since which it holds that value.
int DocBlame(const std::string& target, const std::string& object,
             std::ostream& out, std::ostream& err);
// How compare shows the installations of a history.
struct CompareOptions {
  PlanFormat format = PlanFormat::kText;  // text or JSON
  bool all = false;                       // run-time state too
};
// The latest configuration of every installation of the history repo side
// by side: each object that differs, with the installations that hold it
// and the values that differ, by name; run-time state and the values the
// history's rules (REPO/vantrel-ignore) name are left out. 1 when some
// differ.
int DocCompare(const std::string& repo, const CompareOptions& options,
               std::ostream& out, std::ostream& err);
// How apply goes: the pipeline's options, and where its plan goes.
struct ApplyOptions : doc::ApplyOptions {
  PlanFormat format = PlanFormat::kText;  // of the plan, shown or carried out
  std::string output = "-";               // where the plan goes
};
// Makes store export file byte for byte, writing only what differs in one
// transaction, which it commits only once the store exports file; then
// prints the plan it carried out and a summary line. With dryRun it writes
// the plan and nothing else (0: nothing would change, 1: something would).
// A refused document, store or plan (status 1), and any failure (2), leave
// the store unchanged.
int DocApply(const std::string& file, const std::string& store,
             const ApplyOptions& options, std::ostream& out, std::ostream& err);
// Runs request, the apply of a document (named in the request) to store
// with options o, which fill in the rest of the request: the plan's output
// held to the rule of every output first, the plan written as o asks.
// Returns DocApply's exit status.
int RunApplyRequest(doc::ApplyRequest request, const std::string& store,
                    const ApplyOptions& o, std::ostream& out,
                    std::ostream& err);
// Undoes on store the changes of one commit of a history, commit
// (REPO@COMMIT), keeping everything changed since: applied as DocApply
// applies a document, with its options. A later change that touched what
// the commit changed refuses it (3), the conflicting objects named.
int DocRevert(const std::string& commit, const std::string& store,
              const ApplyOptions& options, std::ostream& out,
              std::ostream& err);
// Runs command; memory running out is said once on standard error, with
// status 2.
int SayingOutOfMemory(const std::function<int()>& command);
// The command line.
int VantrelDocMain(int argc, char* argv[]);

}  // namespace vdoc
