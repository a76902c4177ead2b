#include "ApplyPipeline.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <ostream>
#include <sstream>

#include "Alongside.h"
#include "ApplyFiles.h"
#include "ApplyLog.h"
#include "AttributeRules.h"
#include "Checker.h"
#include "DocumentPart.h"
#include "DocumentRows.h"
#include "DocumentWrite.h"
#include "Escape.h"
#include "Files.h"
#include "Hex.h"
#include "History.h"
#include "KeptValues.h"
#include "KivStoreChange.h"
#include "PlanViews.h"
#include "Revert.h"
#include "SdaiSession.h"
#include "Signals.h"
#include "Vantrel.h"

namespace doc {

namespace {

using W = KivStoreWriter;

volatile std::sig_atomic_t caught = 0;

void OnApplySignal(int signal) {
  caught = signal;
  KivStoreChange::Interrupt();
}

// While it lives, SIGINT, SIGTERM and SIGHUP stop the apply where it
// stands: the transaction is rolled back and its files closed as the
// command unwinds, then the process ends by the signal.
class Interruption {
 public:
  Interruption() {
    struct sigaction action {};
    action.sa_handler = OnApplySignal;
    sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < 3; ++i)
      ::sigaction(kSignals[i], &action, &saved_[i]);
  }
  ~Interruption() {
    for (std::size_t i = 0; i < 3; ++i)
      ::sigaction(kSignals[i], &saved_[i], nullptr);
    if (caught) ::raise(caught);
  }
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;
  static bool Caught() { return caught != 0; }

 private:
  static constexpr int kSignals[3] = {SIGINT, SIGTERM, SIGHUP};
  struct sigaction saved_[3];
};

// The document as the exporter writes it, whatever its syntax; then the
// rows of it that the plan touches, as load would make them.
struct Wants {
  std::string exported;
  KivStoreContent content;
  KivStoreTouched touched;
};

// Writes each line of the document as the exporter would, as it is walked.
class Gatherer : public Visitor {
 public:
  explicit Gatherer(Wants& wants) : wants_(wants) {}
  // A stylesheet instruction is how a document is shown, not configuration:
  // the store's export never has one.
  void Other(const Line& line, std::size_t) override {
    if (line.type != Line::kStylesheet) Write(line);
  }
  void Element(const Line& line, std::size_t, const Place&) override {
    Write(line);
  }
  void Problem(std::size_t, const std::string&) override {}
  void Restart() override { wants_ = Wants(); }

 private:
  void Write(const Line& line) {
    std::string unused;
    WriteLine(line, false, wants_.exported, &unused);
    wants_.exported += '\n';
  }
  Wants& wants_;
};

// Where a stage stopped the apply: why, and the exit status; status 0
// goes on.
struct Stop {
  int status = 0;
  std::string why;
};
const Stop kGoOn{};

// How far the store's export went.
enum class Exported { kNotMade, kNotExported, kNotReadBack, kRefused, kRead };

// Everything one apply holds from stage to stage.
struct Run {
  Run(const ApplyRequest& r, ApplySaying& s, std::ostream& o, std::ostream& e)
      : request(r),
        options(r.options),
        say(s),
        out(o),
        err(e),
        log(r.options.dryRun ? std::string() : r.options.log, r.store,
            r.document) {
    log.Context().options = &r.options;
    log.Context().planOutput = r.planOutput;
  }
  const ApplyRequest& request;
  ApplyOptions options;  // a part's base is its snapshot
  ApplySaying& say;
  std::ostream& out;
  std::ostream& err;
  ApplyLog log;
  std::string shownBase = request.shownBase;
  // The documents: standard input copied to be read twice, a part made.
  // The document wanted with the store's run-time state kept.
  Temporary input, baseInput, part, snapshot, kept;
  std::string document = request.document;
  Wants wants;
  PlanDocument wanted;
  int read = 2;
  std::ostringstream readErr;
  std::string baseBytes, baseError;
  bool baseRead = true;
  // The store, its state exported and read for the plan.
  KivStoreChange::Refusal refusal = KivStoreChange::Refusal::kNone;
  std::string storeError;
  std::unique_ptr<KivStoreChange> change;
  Temporary now;
  std::string before;
  PlanDocument current;
  Exported exported = Exported::kNotMade;
  // What is found and decided.
  Plan plan;
  GuardFacts facts;
  std::string saidPlan, logLine;
  // The part's objects that the store holds as other objects, sorted.
  std::vector<std::string> otherObjectIds;
  // A revert: the local site of the commit's document.
  std::string revertSite;
};

// Says once why the apply stops and that the store was not changed, and
// records it in the log: a failure line claims no change. Returns status.
int Refuse(Run& run, const std::string& why, int status) {
  run.err << "vantrel-doc: " << why << "; " << run.request.shownStore
          << " was not changed\n";
  std::string error;
  if (!run.log.Failed(why, status == kRefusedByGuard, &error))
    run.err << "vantrel-doc: cannot append to "
            << vantrel::Escaped(run.options.log) << ": " << error << "\n";
  return status;
}

// The part of --only put into the store's snapshot: *wanted, or the
// facts of what keeps it from being made.
Stop PromoteOn(Run& run, std::string* wanted) {
  PartRequest part;
  part.current = run.snapshot.path;
  part.source = run.document;
  part.shownSource = run.request.shownFile;
  part.ids = run.options.only;
  part.withReferences = run.options.withReferences;
  Part made;
  std::string error;
  const bool promoted = PromotePart(part, &made, &error);
  run.facts.missing = std::move(made.missing);
  run.facts.otherObjects = std::move(made.otherObjects);
  run.otherObjectIds = std::move(made.otherObjectIds);
  if (!promoted) return run.facts.missing.empty() ? Stop{1, error} : kGoOn;
  *wanted = std::move(made.wanted);
  return kGoOn;
}

// The commit undone on the store's snapshot: *wanted, or the conflicts
// that keep it from being made.
Stop RevertOn(Run& run, std::string* wanted) {
  RevertRequest revert{run.snapshot.path, run.request.revertBefore,
                       run.document, run.request.shownFile};
  Reverted made;
  std::string error;
  const bool reverted = RevertCommit(revert, &made, &error);
  run.facts.conflicts = std::move(made.conflicts);
  run.revertSite = made.site;
  if (!reverted) return run.facts.conflicts.empty() ? Stop{1, error} : kGoOn;
  *wanted = std::move(made.wanted);
  return kGoOn;
}

// The part of --only, or a commit reverted: the store's snapshot changed
// so, which the apply then takes as its document, with the snapshot as its
// base unless one is given, so that what else the store holds is kept even
// when another program writes it meanwhile. Leaves the document made and
// the snapshot in files in memory; what keeps it from being made goes to
// the facts.
Stop MakePart(Run& run) {
  const std::string& shown = run.request.shownFile;
  {
    PlanDocument checked;
    const int read = ReadForPlan(run.document, checked, run.err, nullptr,
                                 run.request.shownFile);
    if (read == 2) return {2, "cannot read " + shown};
    if (read == 1) return {1, shown + " is refused by check"};
  }
  std::string error;
  {
    KivStoreChange::Refusal refusal;
    const std::unique_ptr<KivStoreChange> snapshot =
        KivStoreChange::Begin(run.request.store, &refusal, &error, true);
    if (!snapshot)
      return {2, "cannot read " + run.request.shownStore +
                     (error.empty() ? "" : ": " + error)};
    if (run.snapshot.fd < 0 ||
        !ExportThrough(snapshot->Connection(), run.snapshot.path))
      return {2, run.request.shownStore + " cannot be exported"};
  }
  std::string wanted;
  const Stop made = !run.options.revert.empty() ? RevertOn(run, &wanted)
                                                : PromoteOn(run, &wanted);
  if (made.status || wanted.empty()) return made;
  if (run.part.fd < 0 || ::write(run.part.fd, wanted.data(), wanted.size()) !=
                             static_cast<ssize_t>(wanted.size()))
    return {2, std::string("cannot make a file in memory: ") +
                   std::strerror(errno)};
  run.document = run.part.path;
  if (run.options.base.empty()) {
    run.options.base = run.snapshot.path;
    run.shownBase = !run.options.revert.empty() ? "its export before the revert"
                                                : "its export before the part";
  }
  return kGoOn;
}

// Reads the document wanted: its lines as the exporter writes them, and
// its objects for the plan; its problems are held until they are told.
void ReadWanted(Run& run) {
  struct stat size {};
  if (::stat(run.document.c_str(), &size) == 0)
    run.wants.exported.reserve(static_cast<std::size_t>(size.st_size));
  Gatherer gatherer(run.wants);
  // A part's lines are its own: it is named as the part of the document.
  run.read = ReadForPlan(run.document, run.wanted, run.readErr, &gatherer,
                         run.options.only.empty() && run.options.revert.empty()
                             ? run.request.shownFile
                             : run.request.shownDocument);
}

// Reads the base, opens the store (a snapshot for a dry run, else its
// write lock) and exports it, in its transaction, for the plan. What fails
// is kept to be told in the order of the steps.
void ExportStore(Run& run) {
  run.baseRead =
      run.options.base.empty() ||
      ReadDocumentFile(run.options.base, &run.baseBytes, &run.baseError);
  run.change = KivStoreChange::Begin(run.request.store, &run.refusal,
                                     &run.storeError, run.options.dryRun);
  if (!run.change || run.now.fd < 0) return;
  std::ostringstream unused;
  std::string error;
  run.exported = !ExportThrough(run.change->Connection(), run.now.path)
                     ? Exported::kNotExported
                 : !ReadDocumentFile(run.now.path, &run.before, &error)
                     ? Exported::kNotReadBack
                 : ReadForPlan(run.now.path, run.current, unused) != 0
                     ? Exported::kRefused
                     : Exported::kRead;
}

// What reading the document, the base and the store found, the document
// first: its problems are told on their lines.
Stop CheckRead(Run& run) {
  run.err << run.readErr.str();
  const std::string& shown = run.request.shownDocument;
  if (run.read == 2) return {2, "cannot read " + shown};
  if (run.read == 1) return {1, shown + " is refused by check"};
  if (!run.baseRead)
    return {2, "cannot read " + run.shownBase + ": " + run.baseError};
  struct stat base {
  }, store{};
  if (!run.options.base.empty() &&
      ::stat(run.options.base.c_str(), &base) == 0 &&
      ::stat(run.request.store.c_str(), &store) == 0 &&
      base.st_dev == store.st_dev && base.st_ino == store.st_ino)
    return {2, run.shownBase +
                   " is the store itself: --base names the archive the plan "
                   "was reviewed against"};
  return kGoOn;
}

// The document wanted keeps the store's values, for each object the store
// holds, of its run-time state (when a replication last succeeded) unless
// --run-time, and of the attributes --keep names: the system keeps the
// one up, and neither a promotion nor the undo by an older archive sets it
// back; the other is the installation's own (a connection string). The
// document is then written so, and read again.
Stop KeepStoreValues(Run& run) {
  AttributeMask kept{};
  std::string error;
  ReadAttributeRules(run.options.keep, &kept, &error);
  for (int k = 0; k < kKindCount && !run.options.runTime; ++k)
    kept[k] |= RunTimeAttributes(Kind(k));
  if (!HoldsOtherValues(run.current, run.wanted, kept)) return kGoOn;
  std::string text;
  if (!KeptDocument(run.document, run.current, kept, &text) ||
      run.kept.fd < 0 ||
      ::write(run.kept.fd, text.data(), text.size()) !=
          static_cast<ssize_t>(text.size()))
    return {2, "cannot keep the store's values: " +
                   std::string(std::strerror(errno))};
  run.document = run.kept.path;
  run.wants = Wants();
  run.wanted = PlanDocument();
  run.readErr.str("");
  ReadWanted(run);
  return CheckRead(run);
}

// Why the store could not be opened, or exported: none when it was.
Stop CheckStore(Run& run) {
  const std::string& store = run.request.shownStore;
  const std::string& error = run.storeError;
  switch (run.refusal) {
    case KivStoreChange::Refusal::kNone:
      break;
    case KivStoreChange::Refusal::kOpen:
      return {2, "cannot open " + store + ": " + error};
    case KivStoreChange::Refusal::kLock:
      return {2, "cannot " +
                     std::string(run.options.dryRun ? "read " : "write ") +
                     store + ": " + error};
    case KivStoreChange::Refusal::kReplaced:
      return {2, store + " was replaced by another file while it was opened"};
    case KivStoreChange::Refusal::kForeign:
      return {2, store + " holds what its schema does not define (" + error +
                     "): apply writes only a store of the schema"};
  }
  // The reason is the one of its making: errno has moved on since.
  if (run.now.fd < 0)
    return {2, std::string("cannot make a file in memory: ") +
                   std::strerror(run.now.error)};
  switch (run.exported) {
    case Exported::kNotMade:
    case Exported::kNotExported:
      return {2, store + " cannot be exported"};
    case Exported::kNotReadBack:
      return {2, "cannot read back the export of " + store};
    case Exported::kRefused:
      return {2, store + " exports a document check refuses"};
    case Exported::kRead:
      break;
  }
  return kGoOn;
}

// The plan, the rows it touches, and what the guards look at: the local
// sites, the base, a media the store keeps whose identifier the document
// takes.
// Whether the store's configuration moved since the base: what changed
// since, in the plan's words, briefly. Run-time state that moved is said,
// and refuses nothing.
void CompareBase(Run& run) {
  GuardFacts& f = run.facts;
  PlanDocument based;
  std::ostringstream unused, changes;
  f.baseMoved = true;
  if (ReadForPlan(run.options.base, based, unused, nullptr, run.shownBase) != 0)
    return;
  const Plan since = MakePlan(based, run.current);
  f.baseMoved = !since.Empty();
  changes << "vantrel-doc: since " << run.shownBase << ", " << f.store
          << (f.baseMoved ? " changed:\n"
                          : " changed only its run-time state, which --base "
                            "does not compare:\n");
  WritePlanText(since, changes, 18);
  if (f.baseMoved)
    f.baseChanges = changes.str();
  else if (!since.runTime.empty())
    run.err << changes.str();
}

Stop FindFacts(Run& run) {
  GuardFacts& f = run.facts;
  f.base = run.shownBase;
  // A revert's document is the store's own, changed: the commit's says
  // whose installation the change was.
  f.documentSite =
      run.options.revert.empty() ? run.wanted.LocalSite() : run.revertSite;
  f.storeSite = run.current.LocalSite();
  if (!f.storeSite.empty()) {
    ApplyContext& context = run.log.Context();
    context.installation = f.storeSite;
    context.installationName = run.current.LocalSiteName();
  }
  if (!run.options.base.empty() && run.before != run.baseBytes)
    CompareBase(run);
  run.plan = MakePlan(run.current, run.wanted);
  run.plan.showSecrets = run.options.showSecrets;
  run.plan.otherObjects = run.otherObjectIds;
  f.plan = &run.plan;
  std::string error;
  if (!TouchedRows(run.wanted, run.plan, &run.wants.content, &run.wants.touched,
                   &error))
    return {2, run.request.shownDocument +
                   " gives a row the store cannot take (" + error + ")"};
  std::vector<std::string> kept;
  if (!run.change->KeptMedia(run.wants.content, &kept, &error))
    return {2, "cannot read " + f.store + ": " + error};
  if (!kept.empty()) {
    const std::string identifier = "x" + vantrel::Hex(kept[0]);
    f.keptMedia = vantrel::Escaped(identifier);
    f.keptMediaTakenBy =
        LayoutOf(run.wanted.Objects()[run.wanted.Find(identifier)].kind).name;
  }
  return kGoOn;
}

// Says the plan the change carries out, and makes the log line of its
// commit: both are made before the commit, and alongside the change.
void SayPlan(Run& run) {
  std::ostringstream said;
  WritePlanText(run.plan, said);
  run.saidPlan = said.str();
  run.logLine = run.log.AppliedLine(run.before, run.wants.exported, run.plan);
}

// Writes the rows the plan touches, in the transaction until the commit.
// Why a change to a store that was renamed over stops: SQLite's own words
// for it ("attempt to write a readonly database") name no cause.
Stop ReplacedStore(const Run& run) {
  return {2, run.request.shownStore +
                 " was replaced by another file during the apply: the "
                 "change went to a file that no longer has the name"};
}

Stop Change(Run& run) {
  std::string error;
  if (run.change->Apply(run.wants.content, run.wants.touched, &error))
    return kGoOn;
  if (run.change->Replaced()) return ReplacedStore(run);
  return {2, "cannot write " + run.request.shownStore + ": " + error};
}

// The store must export the document before it is committed: anything
// else is a fault of apply's own, never written.
Stop Verify(Run& run) {
  Temporary after;
  if (after.fd >= 0 && ExportThrough(run.change->Connection(), after.path) &&
      Holds(after.path, run.wants.exported))
    return kGoOn;
  return {2, "after the change " + run.request.shownStore +
                 " would not export " + run.request.shownDocument +
                 " (a fault of vantrel-doc apply)"};
}

// Commits, and says what was done: what is said is made before the commit,
// so that nothing after it may fail, and a signal waits for both.
Stop Commit(Run& run) {
  std::ostringstream counted;
  const KivStoreChange::Counts& done = run.change->Done();
  counted << run.request.shownStore << ": now exports "
          << run.request.shownDocument << ": " << done.added << " rows added, "
          << done.changed << " changed, " << done.removed << " removed, "
          << run.plan.reordered.size() << " lists put in order, "
          << done.relinked << " link lists rewritten\n";
  std::string summary = counted.str(), error;
  // The line ended by a crash's partial one, and the end of this one, and
  // the history's commit it may name.
  if (!run.log.Reserve(run.logLine.size() + 2 + 4096, &error))
    return {2,
            "cannot write " + vantrel::Escaped(run.options.log) + ": " + error};
  if (!run.say.Carried(run.plan, &run.saidPlan, &summary, &error))
    return {2, error};
  const std::string said = std::move(run.saidPlan) + summary;
  const vantrel::HeldSignals held;
  if (Interruption::Caught())
    return {2, "interrupted by signal " + std::to_string(caught)};
  if (run.change->Replaced()) return ReplacedStore(run);
  if (!run.change->Commit(&error))
    return run.change->Replaced()
               ? ReplacedStore(run)
               : Stop{2, "cannot commit to " + run.request.shownStore + ": " +
                             error};
  run.out << said << std::flush;
  return kGoOn;
}

// With --history, the installation's name (the store's local site's) and
// its history; null with *error.
std::unique_ptr<History> OpenHistory(const Run& run, std::string* installation,
                                     std::string* error) {
  *installation = run.current.LocalSiteName();
  return History::Open(run.options.history, true, error);
}

// With --history, the store's document is committed before the change when
// it differs from the installation's last commit: a change made outside
// apply, marked as drift. A history that cannot take it refuses the apply.
Stop RecordDrift(Run& run) {
  if (run.options.history.empty()) return kGoOn;
  std::string installation, error, commit, last;
  const std::unique_ptr<History> history =
      OpenHistory(run, &installation, &error);
  if (!history)
    return {2, "cannot write the history " +
                   vantrel::Escaped(run.options.history) + ": " + error};
  if (history->Last(installation, &last) && last == run.before) return kGoOn;
  if (!history->Commit(
          installation, run.before,
          [&](const std::string& previous) {
            return std::string(previous.empty()
                                   ? "the store before the first apply"
                                   : "drift: the store changed outside "
                                     "vantrel-doc apply") +
                   "\n";
          },
          &commit, &error))
    return {2, "cannot write the history " +
                   vantrel::Escaped(run.options.history) + ": " + error};
  return kGoOn;
}

// With --history, the store's new document is committed, naming the apply
// and its log; line, the log's line, then names the commit. Returns the
// line to record.
std::string Recorded(Run& run, std::string line) {
  if (run.options.history.empty()) return line;
  std::string installation, error, commit;
  const std::unique_ptr<History> history =
      OpenHistory(run, &installation, &error);
  std::ostringstream plan;
  WritePlanText(run.plan, plan);
  const bool committed =
      history &&
      history->Commit(
          installation, run.wants.exported,
          [&](const std::string&) {
            return PlanTotals(run.plan) + "\n\n" +
                   (!run.options.revert.empty()
                        ? "reverted commit " + run.options.revert + " (" +
                              run.request.shownFile + ")"
                        : "applied " + run.request.shownDocument) +
                   " by vantrel-doc " + run.request.command +
                   (run.options.log.empty()
                        ? std::string()
                        : ", recorded in " +
                              vantrel::AbsolutePath(run.options.log)) +
                   (run.options.comment.empty() ? ""
                                                : ": " + run.options.comment) +
                   "\n\n" + plan.str();
          },
          &commit, &error);
  if (!committed) {
    run.err << "vantrel-doc: " << run.request.shownStore << " was changed, but "
            << "the history " << vantrel::Escaped(run.options.history)
            << " cannot record it: " << error << "\n";
    return line;
  }
  // The line names the commit, before its closing brace.
  if (line.size() >= 2)
    line.insert(line.size() - 2,
                ",\"history\":{\"repository\":\"" +
                    JsonSafe(vantrel::AbsolutePath(run.options.history)) +
                    "\",\"commit\":\"" + commit + "\"}");
  return line;
}

// The record follows the commit: a line that says applied was. Returns
// the exit status.
int Record(Run& run, const std::string& line) {
  std::string error;
  if (run.log.Append(line, &error)) return 0;
  run.err << "vantrel-doc: " << run.request.shownStore << " was changed, but "
          << vantrel::Escaped(run.options.log) << " cannot record it: " << error
          << "\n";
  return 2;
}

// The store already exports the document: said, and recorded. Returns the exit
// status.
int NothingToChange(Run& run) {
  // A plan asked for in a file is written, empty: an old one left there
  // would be taken for it.
  std::string text, summary = run.request.shownStore + ": nothing to change\n",
                    error;
  if (!run.say.Carried(run.plan, &text, &summary, &error))
    return Refuse(run, error, 2);
  run.out << summary;
  if (!run.log.Append(
          run.log.AppliedLine(run.before, run.wants.exported, run.plan),
          &error))
    run.err << "vantrel-doc: cannot append to "
            << vantrel::Escaped(run.options.log) << ": " << error << "\n";
  return 0;
}

// The stages up to the plan and its guards, the documents read alongside
// the store's export; a stop or a signal ends them.
Stop Prepare(Run& run) {
  const auto interrupted = [] {
    return Stop{2, "interrupted by signal " + std::to_string(caught)};
  };
  // The record is made sure of before the store is touched: an apply that
  // cannot be recorded is not made.
  std::string error;
  const std::string& store = run.request.store;
  if (!run.log.Open({store, run.request.document, run.options.base,
                     run.request.planOutput},
                    &error))
    return {2,
            "cannot write " + vantrel::Escaped(run.options.log) + ": " + error};
  if (run.document == "-" && run.options.base == "-")
    return {2,
            "standard input is the document or the base, not both: "
            "name one of them as a file"};
  if (run.document == "-" &&
      !Readable(run.document, run.input, &run.document, &error))
    return {2, error};
  if (run.options.base == "-") {
    if (!Readable(run.options.base, run.baseInput, &run.options.base, &error))
      return {2, error};
    run.shownBase = "the base on standard input";
  }
  run.log.Context().documentDigest = FileSha256(run.document);
  if (!run.options.only.empty() || !run.options.revert.empty()) {
    const Stop part = MakePart(run);
    if (part.status) return part;
    if (!run.facts.missing.empty() || !run.facts.conflicts.empty())
      return kGoOn;
  }
  {
    Alongside reading([&] { ReadWanted(run); });
    ExportStore(run);
    reading.Wait();
  }
  if (!run.request.options.base.empty() && run.baseRead)
    run.log.Context().baseDigest = Sha256(run.baseBytes);
  for (Stop (*stage)(Run&) :
       {CheckRead, CheckStore, KeepStoreValues, FindFacts}) {
    if (Interruption::Caught()) return interrupted();
    const Stop stop = stage(run);
    if (stop.status)
      return Interruption::Caught() && stop.status == 2 ? interrupted() : stop;
  }
  return kGoOn;
}

}  // namespace

int RunApply(const ApplyRequest& request, ApplySaying& say, std::ostream& out,
             std::ostream& err) {
  // Made first, so that it ends last: the signal is raised once the
  // change is rolled back and its files closed.
  const Interruption interruption;
  Run run(request, say, out, err);
  run.facts.document = request.shownDocument;
  run.facts.store = request.shownStore;
  const Stop prepared = Prepare(run);
  if (prepared.status) return Refuse(run, prepared.why, prepared.status);
  // The guards, asked once: a dry run says what the apply would refuse.
  const Refusal refusal = Guarded(run.facts, run.options);
  if (refusal && !refusal.planShown) {
    run.err << refusal.detail;
    return Refuse(run, refusal.why, refusal.status);
  }
  if (run.before == run.wants.exported)
    return run.options.dryRun ? say.DryRun(run.plan, Refusal(), true)
                              : NothingToChange(run);
  if (run.options.dryRun) return say.DryRun(run.plan, refusal, false);
  if (refusal) return Refuse(run, refusal.why, refusal.status);
  if (const Stop drift = RecordDrift(run); drift.status)
    return Refuse(run, drift.why, drift.status);
  Stop stop;
  {
    Alongside saying([&] { SayPlan(run); });
    stop = Change(run);
    saying.Wait();
  }
  if (!stop.status) stop = Verify(run);
  if (!stop.status) stop = Commit(run);
  if (stop.status)
    return Refuse(run,
                  Interruption::Caught() && stop.status == 2
                      ? "interrupted by signal " + std::to_string(caught)
                      : stop.why,
                  stop.status);
  return Record(run, Recorded(run, run.logLine));
}

}  // namespace doc
