#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <ostream>
#include <set>
#include <sstream>
#include <unordered_map>

#include "Alongside.h"
#include "ApplyLog.h"
#include "Checker.h"
#include "DocumentPart.h"
#include "DocumentRows.h"
#include "DocumentWrite.h"
#include "Escape.h"
#include "Files.h"
#include "Hex.h"
#include "KivStoreChange.h"
#include "Output.h"
#include "PlanViews.h"
#include "Plans.h"
#include "SdaiSession.h"
#include "Vantrel.h"
#include "VantrelDoc.h"

namespace vdoc {

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

// The rows the document wants, as load would make them, and the document
// as the exporter writes it, whatever its syntax.
struct Wants {
  KivStoreContent content;
  std::vector<doc::Kind> kinds;  // of each object row, in the order added
  std::string exported;
  std::string error;  // a row the store's schema does not take
};

// Gathers the rows of each element as the document is walked.
class Gatherer : public doc::Visitor {
 public:
  explicit Gatherer(Wants& wants) : wants_(wants) {}
  // A stylesheet instruction is how a document is shown, not configuration:
  // the store's export never has one.
  void Other(const doc::Line& line, std::size_t) override {
    if (line.type != doc::Line::kStylesheet) Write(line);
  }
  void Element(const doc::Line& line, std::size_t,
               const doc::Place& place) override {
    Write(line);
    doc::RowsOf(
        line, place.parent,
        [&](const char* table, const std::vector<W::Value>& values, bool once) {
          const std::size_t objects = wants_.content.Objects();
          if (!wants_.content.Add(table, values, &wants_.error, once))
            return false;
          if (wants_.content.Objects() > objects)
            wants_.kinds.push_back(line.kind);
          return true;
        });
  }
  void Problem(std::size_t, const std::string&) override {}
  void Restart() override { wants_ = Wants(); }

 private:
  void Write(const doc::Line& line) {
    std::string unused;
    doc::WriteLine(line, false, wants_.exported, &unused);
    wants_.exported += '\n';
  }
  Wants& wants_;
};

// Exports the store that db serves, in its transaction, to file; true when
// the exporter succeeded (its messages went to standard error).
bool ExportThrough(sqlite3* db, const std::string& file) {
  std::ofstream out(file, std::ios::out | std::ios::trunc);
  // The connection is served, and its session closed, however the export
  // ends: memory running out among the ways.
  struct Serving {
    explicit Serving(sqlite3* connection) { KivServeConnection(connection); }
    ~Serving() {
      KivServeConnection(nullptr);
      if (SdaiSession* session = SdaiSession::CurrentSession())
        session->CloseSession();
    }
  } serving(db);
  indent = 0;
  iXSL = 0;
  const int rc = ReadAdmin(&out);
  out.close();
  return rc == 0 && !out.fail();
}

// True when the file at path holds bytes exactly; read a block at a time.
bool Holds(const std::string& path, std::string_view bytes) {
  std::ifstream in(path, std::ios::binary);
  char block[1 << 16];
  while (in) {
    in.read(block, sizeof block);
    const auto got = static_cast<std::size_t>(in.gcount());
    if (got > bytes.size() || bytes.compare(0, got, block, got) != 0)
      return false;
    bytes.remove_prefix(got);
  }
  return in.eof() && bytes.empty();
}

// A file in memory, named by a path of /proc: nothing of it is left on a
// disk whatever ends the process, and no temporary directory can fail it.
struct Temporary {
  Temporary() {
    fd = ::memfd_create("vantrel-apply", MFD_CLOEXEC);
    error = fd < 0 ? errno : 0;
    path = fd < 0 ? std::string() : "/proc/self/fd/" + std::to_string(fd);
  }
  ~Temporary() {
    if (fd >= 0) ::close(fd);
  }
  Temporary(const Temporary&) = delete;
  Temporary& operator=(const Temporary&) = delete;
  int fd = -1;
  int error = 0;  // why there is no file
  std::string path;
};

// Sets *path to a file that holds the document file: file itself, or for
// "-" a copy of standard input in input. False with *error.
bool Readable(const std::string& file, Temporary& input, std::string* path,
              std::string* error) {
  *path = file;
  if (file != "-") return true;
  if (input.fd >= 0 &&
      vantrel::CopyFile(STDIN_FILENO, input.fd, doc::kMaxDocumentBytes) ==
          vantrel::Copied::kWhole) {
    *path = input.path;
    return true;
  }
  *error = std::string("cannot read <stdin>: ") +
           (errno == EFBIG ? "larger than any document" : std::strerror(errno));
  return false;
}

// Reads the document file whole into *bytes, as any document is read:
// bounded, and only from a regular file. False with the reason in *error.
bool ReadDocumentFile(const std::string& file, std::string* bytes,
                      std::string* error) {
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st {};
  if (fd < 0 || ::fstat(fd, &st) != 0) {
    *error = std::strerror(errno);
    if (fd >= 0) ::close(fd);
    return false;
  }
  const bool regular = S_ISREG(st.st_mode);
  if (!regular ||
      static_cast<std::uint64_t>(st.st_size) > doc::kMaxDocumentBytes) {
    ::close(fd);
    *error = S_ISDIR(st.st_mode) ? std::strerror(EISDIR)
             : regular           ? "larger than any document"
                                 : "not a regular file";
    return false;
  }
  bytes->resize(static_cast<std::size_t>(st.st_size));
  std::size_t at = 0;
  while (at < bytes->size()) {
    const ssize_t got = ::read(fd, &(*bytes)[at], bytes->size() - at);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      *error = got < 0 ? std::strerror(errno) : "it was cut short while read";
      ::close(fd);
      return false;
    }
    at += static_cast<std::size_t>(got);
  }
  ::close(fd);
  return true;
}

}  // namespace

namespace {

// Says once why the apply stops and that store was not changed, and
// records it in log (named logName): a failure line claims no change.
// Returns status.
int Refuse(const doc::ApplyLog& log, const std::string& logName,
           const std::string& store, const std::string& why, int status,
           std::ostream& err) {
  err << "vantrel-doc: " << why << "; " << doc::Shown(store)
      << " was not changed\n";
  std::string error;
  if (!log.Failed(why, &error))
    err << "vantrel-doc: cannot append to " << doc::Shown(logName) << ": "
        << error << "\n";
  return status;
}

// Applies the document file, shown as shownFile, to store; its base, when
// given, shown as shownBase.
int ApplyDocument(const std::string& file, const std::string& shownFile,
                  const std::string& store, const ApplyOptions& o,
                  const std::string& shownBase, std::ostream& out,
                  std::ostream& err) {
  const doc::ApplyLog log(o.dryRun ? std::string() : o.log, store, shownFile);
  const auto refused = [&](const std::string& why, int status) {
    return Refuse(log, o.log, store, why, status, err);
  };
  const Interruption interruption;
  const auto interrupted = [&] {
    return refused("interrupted by signal " + std::to_string(caught), 2);
  };
  // Standard input is read twice: for the rows, then for the plan.
  Temporary input;
  std::string doc = file, error;
  if (!Readable(file, input, &doc, &error)) return refused(error, 2);
  Wants wants;
  struct stat size {};
  if (::stat(doc.c_str(), &size) == 0)
    wants.exported.reserve(static_cast<std::size_t>(size.st_size));
  Gatherer gatherer(wants);
  doc::PlanDocument wanted;
  // The document is read while the store is opened and exported; what is
  // found is then told in the order of the steps: the document first.
  std::ostringstream readErr;
  int read = 2;
  Alongside reading(
      [&] { read = doc::ReadForPlan(doc, wanted, readErr, &gatherer); });
  std::string baseBytes, baseError;
  const bool baseRead =
      o.base.empty() || ReadDocumentFile(o.base, &baseBytes, &baseError);
  KivStoreChange::Refusal refusal;
  std::string storeError;
  const std::unique_ptr<KivStoreChange> change =
      KivStoreChange::Begin(store, &refusal, &storeError, o.dryRun);
  // The store's document, and its objects for the plan.
  Temporary now;
  std::string before;
  doc::PlanDocument current;
  enum {
    kNotMade,
    kNotExported,
    kNotReadBack,
    kRefused,
    kRead
  } exported = kNotMade;
  if (change && now.fd >= 0) {
    std::ostringstream unused;
    exported = !ExportThrough(change->Connection(), now.path)     ? kNotExported
               : !ReadDocumentFile(now.path, &before, &error)     ? kNotReadBack
               : doc::ReadForPlan(now.path, current, unused) != 0 ? kRefused
                                                                  : kRead;
  }
  reading.Wait();
  err << readErr.str();
  if (read == 2) return refused("cannot read " + shownFile, 2);
  if (read == 1) return refused(shownFile + " is refused by check", 1);
  if (!wants.error.empty())
    return refused(
        shownFile + " gives a row the store cannot take (" + wants.error + ")",
        2);
  const std::string& document = wants.exported;
  if (!baseRead)
    return refused("cannot read " + shownBase + ": " + baseError, 2);
  if (Interruption::Caught()) return interrupted();

  error = storeError;
  switch (refusal) {
    case KivStoreChange::Refusal::kNone:
      break;
    case KivStoreChange::Refusal::kOpen:
      return refused("cannot open " + doc::Shown(store) + ": " + error, 2);
    case KivStoreChange::Refusal::kLock:
      return Interruption::Caught()
                 ? interrupted()
                 : refused("cannot " +
                               std::string(o.dryRun ? "read " : "write ") +
                               doc::Shown(store) + ": " + error,
                           2);
    case KivStoreChange::Refusal::kReplaced:
      return refused(doc::Shown(store) +
                         " was replaced by another file while it "
                         "was opened",
                     2);
    case KivStoreChange::Refusal::kForeign:
      return refused(doc::Shown(store) +
                         " holds what its schema does not define (" + error +
                         "): apply writes only a store of the schema",
                     2);
  }
  // The reason is the one of its making: errno has moved on since.
  if (now.fd < 0)
    return refused(std::string("cannot make a file in memory: ") +
                       std::strerror(now.error),
                   2);
  if (exported == kNotExported)
    return Interruption::Caught()
               ? interrupted()
               : refused(doc::Shown(store) + " cannot be exported", 2);
  if (exported == kNotReadBack)
    return refused("cannot read back the export of " + doc::Shown(store), 2);
  if (exported == kRefused)
    return refused(doc::Shown(store) + " exports a document check refuses", 2);
  if (!o.base.empty() && before != baseBytes) {
    // What changed since the base, in the plan's words, briefly.
    doc::PlanDocument based;
    std::ostringstream unused;
    if (doc::ReadForPlan(o.base, based, unused) == 0) {
      err << "vantrel-doc: since " << shownBase << ", " << doc::Shown(store)
          << " changed:\n";
      doc::WritePlanText(doc::MakePlan(based, current), err, 18);
    }
    return refused(doc::Shown(store) + " no longer exports " + shownBase +
                       ": it was changed since",
                   1);
  }
  // The guards: each refusal names what it found.
  std::string guard;
  const std::string site = current.LocalSite(), itsSite = wanted.LocalSite();
  if (!o.otherInstallation && !site.empty() && !itsSite.empty() &&
      site != itsSite)
    guard = shownFile + " is another installation's: its local site is " +
            itsSite + ", the store's is " + site +
            " (--other-installation applies it all the same)";
  const auto removalGuard = [&](const doc::Plan& plan) {
    return o.maxRemovals >= 0 &&
                   plan.removed > static_cast<std::size_t>(o.maxRemovals)
               ? "the plan removes " + std::to_string(plan.removed) +
                     " objects, more than --max-removals " +
                     std::to_string(o.maxRemovals)
               : std::string();
  };
  if (before == document || o.dryRun) {
    const doc::Plan plan = doc::MakePlan(current, wanted);
    if (before == document) {
      if (o.dryRun && o.format != PlanFormat::kText)
        return WritePlan(plan, o.format, o.output,
                         doc::Shown(store) + " to " + shownFile, out, err);
      out << doc::Shown(store) << ": nothing to change\n";
      if (o.dryRun) return 0;
      if (!log.Append(log.AppliedLine(before, document, plan), &error))
        err << "vantrel-doc: cannot append to " << doc::Shown(o.log) << ": "
            << error << "\n";
      return 0;
    }
    // The plan is what a dry run shows: reviewed before, it is not worked
    // out again for the apply itself.
    if (guard.empty()) guard = removalGuard(plan);
    const int written =
        WritePlan(plan, o.format, o.output,
                  doc::Shown(store) + " to " + shownFile, out, err);
    if (!guard.empty())
      err << "vantrel-doc: apply would refuse: " << guard << "\n";
    return written ? written : 1;
  }
  if (!guard.empty()) return refused(guard, 1);

  // The plan is worked out, and what it says made, while the store is
  // changed and checked on a thread of its own: the change is in the
  // transaction until the commit, and a plan that removes too much is
  // refused before it. Each refusal is told in the order of the steps.
  doc::Plan plan;
  std::string saidPlan, logLine;
  Alongside planning([&] {
    plan = doc::MakePlan(current, wanted);
    std::ostringstream said;
    doc::WritePlanText(plan, said);
    saidPlan = said.str();
    logLine = log.AppliedLine(before, document, plan);
  });
  // A media row that the document cannot carry is kept; one whose
  // identifier the document gives to an object would be its duplicate.
  std::vector<std::string> kept;
  std::string keptError, writeError;
  const bool keptRead = change->KeptMedia(wants.content, &kept, &keptError);
  const bool written =
      keptRead && kept.empty() && change->Apply(wants.content, &writeError);
  // The store must export the document before it is committed: anything
  // else is a fault of apply's own, never written.
  Temporary after;
  const bool verified = written && after.fd >= 0 &&
                        ExportThrough(change->Connection(), after.path) &&
                        Holds(after.path, document);
  planning.Wait();
  guard = removalGuard(plan);
  if (!guard.empty()) return refused(guard, 1);
  if (!keptRead)
    return Interruption::Caught()
               ? interrupted()
               : refused("cannot read " + doc::Shown(store) + ": " + keptError,
                         2);
  for (const std::string& oid : kept)
    return refused(
        "the store's media " + doc::Shown("x" + vantrel::Hex(oid)) +
            " is kept by apply, and " + shownFile +
            " gives its identifier to a " +
            doc::LayoutOf(
                wants.kinds[static_cast<std::size_t>(wants.content.Find(oid))])
                .name +
            ": remove the media row or change the document",
        1);
  if (!written)
    return Interruption::Caught()
               ? interrupted()
               : refused(
                     "cannot write " + doc::Shown(store) + ": " + writeError,
                     2);
  if (!verified)
    return Interruption::Caught()
               ? interrupted()
               : refused("after the change " + doc::Shown(store) +
                             " would not export " + shownFile +
                             " (a fault of vantrel-doc apply)",
                         2);
  // What is said is made before the commit: nothing after it may fail.
  std::ostringstream counted;
  const KivStoreChange::Counts& done = change->Done();
  counted << doc::Shown(store) << ": now exports " << shownFile << ": "
          << done.added << " rows added, " << done.changed << " changed, "
          << done.removed << " removed, " << plan.reordered.size()
          << " lists put in order, " << done.relinked
          << " link lists rewritten\n";
  const std::string saidText = std::move(saidPlan) + counted.str();
  {
    // A signal from here waits for the commit and its line: what is
    // committed is said.
    const vantrel::HeldSignals held;
    if (Interruption::Caught()) return interrupted();
    if (change->Replaced())
      return refused(doc::Shown(store) +
                         " was replaced by another file during the apply: "
                         "the change went to a file that no longer has the "
                         "name",
                     2);
    if (!change->Commit(&error))
      return refused("cannot commit to " + doc::Shown(store) + ": " + error, 2);
    out << saidText << std::flush;
  }
  // The record follows the commit: a line that says applied was.
  if (!log.Append(logLine, &error)) {
    err << "vantrel-doc: " << doc::Shown(store) << " was changed, but "
        << doc::Shown(o.log) << " cannot record it: " << error << "\n";
    return 2;
  }
  return 0;
}

}  // namespace

int DocApply(const std::string& file, const std::string& store,
             const ApplyOptions& o, std::ostream& out, std::ostream& err) {
  if (o.only.empty())
    return ApplyDocument(file, doc::Shown(file), store, o, doc::Shown(o.base),
                         out, err);
  // A part: the store's export with the named objects of file in place,
  // applied as any document, with that export as its base, so that what
  // else the store holds is kept even when another program writes it
  // meanwhile.
  std::string shownFile = doc::Shown(file) + " (only ";
  for (std::size_t i = 0; i < o.only.size(); ++i)
    shownFile += (i ? "," : "") + vantrel::Escaped(o.only[i]);
  shownFile += ")";
  const doc::ApplyLog log(o.dryRun ? std::string() : o.log, store, shownFile);
  const auto refused = [&](const std::string& why, int status) {
    return Refuse(log, o.log, store, why, status, err);
  };
  Temporary input;
  std::string doc = file, error;
  if (!Readable(file, input, &doc, &error)) return refused(error, 2);
  {
    doc::PlanDocument checked;
    const int read = doc::ReadForPlan(doc, checked, err);
    if (read == 2) return refused("cannot read " + doc::Shown(file), 2);
    if (read == 1) return refused(doc::Shown(file) + " is refused by check", 1);
  }
  Temporary now, part;
  {
    KivStoreChange::Refusal refusal;
    const std::unique_ptr<KivStoreChange> snapshot =
        KivStoreChange::Begin(store, &refusal, &error, true);
    if (!snapshot)
      return refused("cannot read " + doc::Shown(store) +
                         (error.empty() ? "" : ": " + error),
                     2);
    if (now.fd < 0 || !ExportThrough(snapshot->Connection(), now.path))
      return refused(doc::Shown(store) + " cannot be exported", 2);
  }
  std::string wanted;
  std::vector<std::string> missing;
  if (!doc::PromotePart(now.path, doc, o.only, &wanted, &missing, &error)) {
    if (missing.empty()) return refused(vantrel::Escaped(error), 1);
    std::string names;
    for (const std::string& id : missing)
      names += (names.empty() ? "" : ",") + vantrel::Escaped(id);
    return refused("the part names objects that " + doc::Shown(store) +
                       " lacks: " + names + " (add them to --only)",
                   1);
  }
  if (part.fd < 0 || ::write(part.fd, wanted.data(), wanted.size()) !=
                         static_cast<ssize_t>(wanted.size()))
    return refused(
        std::string("cannot make a file in memory: ") + std::strerror(errno),
        2);
  ApplyOptions whole = o;
  whole.only.clear();
  // The part keeps the store's own sites.
  whole.otherInstallation = true;
  std::string shownBase = doc::Shown(o.base);
  if (whole.base.empty()) {
    whole.base = now.path;
    shownBase = "its export before the part";
  }
  return ApplyDocument(part.path, shownFile, store, whole, shownBase, out, err);
}

}  // namespace vdoc
