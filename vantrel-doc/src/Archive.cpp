#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <ostream>
#include <sstream>

#include "ApplyFiles.h"
#include "AttributeRules.h"
#include "Checker.h"
#include "DocumentPlan.h"
#include "Escape.h"
#include "Files.h"
#include "History.h"
#include "PlanViews.h"
#include "VantrelDoc.h"

namespace vdoc {

namespace {

// A file of the temporary directory, already removed, holding bytes; its
// path as /proc/self/fd names it, or "" with errno set.
class HeldFile {
 public:
  explicit HeldFile(std::string_view bytes)
      : fd_(vantrel::HeldBytes(bytes, &path_)) {}
  ~HeldFile() {
    if (fd_ >= 0) ::close(fd_);
  }
  HeldFile(const HeldFile&) = delete;
  HeldFile& operator=(const HeldFile&) = delete;
  const std::string& Path() const { return path_; }

 private:
  std::string path_;  // made before fd_, which names it
  int fd_;
};

// The plan from the document before (whole) to after, into *plan, reading
// it into before; the plan views both.
bool Planned(std::string_view was, doc::PlanDocument& before,
             const doc::PlanDocument& after, doc::Plan* plan) {
  const HeldFile old(was);
  std::ostringstream unused;
  if (old.Path().empty() || doc::ReadForPlan(old.Path(), before, unused) != 0)
    return false;
  *plan = doc::MakePlan(before, after);
  return true;
}

// The commit message: the plan in text, totals first, then its lines.
std::string Message(const std::string& installation, std::size_t total,
                    const doc::Plan& plan, bool first) {
  if (first)
    return "the first archive of " + installation + ": " +
           std::to_string(total) + " objects\n";
  std::ostringstream lines;
  doc::WritePlanText(plan, lines);
  // The totals come first, once.
  std::string body = lines.str();
  const std::string totals = doc::PlanTotals(plan) + "\n";
  const std::size_t at = body.find(totals);
  if (at != std::string::npos) body.erase(at, totals.size());
  return totals.substr(0, totals.size() - 1) +
         (plan.Empty() ? " (run-time state only)" : "") + "\n\n" + body;
}

// Runs command with the plan's JSON on its standard input and the history,
// installation and commit in its environment; its exit status, or -1.
int RunHook(const std::string& command, const doc::Plan& plan,
            const std::string& repo, const std::string& installation,
            const std::string& commit) {
  std::ostringstream json;
  doc::WritePlanJson(plan, json);
  const HeldFile input(json.str());
  if (input.Path().empty()) return -1;
  const pid_t child = ::fork();
  if (child == 0) {
    const int fd = ::open(input.Path().c_str(), O_RDONLY);
    if (fd < 0 || ::dup2(fd, STDIN_FILENO) < 0) ::_exit(127);
    ::setenv("VANTREL_REPOSITORY", vantrel::AbsolutePath(repo).c_str(), 1);
    ::setenv("VANTREL_INSTALLATION", installation.c_str(), 1);
    ::setenv("VANTREL_COMMIT", commit.c_str(), 1);
    ::execl("/bin/sh", "sh", "-c", command.c_str(),
            static_cast<char*>(nullptr));
    ::_exit(127);
  }
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Exports store, checked, into *document and read into *checked as it is
// checked, its objects counted in *total; false with *error after the
// exporter's messages.
bool Exported(const std::string& store, std::string* document,
              doc::PlanDocument* checked, std::size_t* total, std::ostream& err,
              std::string* error) {
  std::string path;
  const int fd = vantrel::HeldBytes("", &path);
  if (fd < 0) {
    *error = std::strerror(errno);
    return false;
  }
  std::ofstream file(path, std::ios::binary);
  const bool exported =
      ExportChecked(store, file, path, "the export of " + doc::Shown(store),
                    err, total, error, checked);
  file.close();
  checked->Finish();
  const bool read = exported && doc::ReadDocumentFile(path, document, error);
  ::close(fd);
  return read;
}

// Whether plan changes what the history's rules leave in, for
// installation: a change that moves only ignored values announces nothing.
bool Announced(const doc::Plan& plan, const doc::History& history,
               const std::string& installation) {
  std::map<std::string, doc::AttributeMask> rules;
  std::string unused;
  doc::ReadIgnoreRules(history.IgnoreRules(), &rules, &unused);
  const doc::AttributeMask ignored = doc::IgnoredFor(rules, installation);
  for (const doc::PlanChange& c : plan.changes) {
    if (c.action != doc::PlanChange::kChanged || c.wasKind != c.kind)
      return true;
    for (const doc::PlanValue& v : c.values)
      if (!(ignored[c.kind] >> v.attribute & 1)) return true;
  }
  return false;
}

}  // namespace

int DocArchive(const std::string& store, const std::string& repo,
               const ArchiveOptions& o, std::ostream& out, std::ostream& err) {
  const auto failed = [&](const std::string& why) {
    err << "vantrel-doc: cannot archive " << doc::Shown(store) << " in "
        << doc::Shown(repo) << ": " << why << "; nothing was committed\n";
    return 2;
  };
  std::string error;
  // What is not a history is refused before the store is read; the store
  // is then exported and checked before a history is made: one that
  // cannot be leaves nothing behind.
  struct stat st {};
  if (::stat(repo.c_str(), &st) == 0 &&
      !doc::History::Open(repo, false, &error))
    return failed(error);
  std::string now;
  std::size_t total = 0;
  doc::PlanDocument after;  // now, read once as it is checked
  if (!Exported(store, &now, &after, &total, err, &error)) return failed(error);
  const std::unique_ptr<doc::History> history =
      doc::History::Open(repo, true, &error);
  if (!history) return failed(error);
  const std::string installation =
      o.installation.empty() ? after.LocalSiteName() : o.installation;
  doc::PlanDocument before;
  doc::Plan plan;
  std::string commit;
  bool first = false;
  const bool committed = history->Commit(
      installation, now,
      [&](const std::string& previous) {
        plan = doc::Plan();
        before = doc::PlanDocument();
        first = previous.empty();
        if (!first) Planned(previous, before, after, &plan);
        return Message(installation, total, plan, first);
      },
      &commit, &error);
  if (!committed) return failed(error);
  const std::string branch = doc::History::BranchOf(installation);
  // The branch goes to the central history, changed or not: a push that
  // failed once is made by the next night.
  if (!o.push.empty() && !history->Push(installation, o.push, &error)) {
    err << "vantrel-doc: cannot push " << vantrel::Escaped(branch) << " to "
        << vantrel::Escaped(o.push) << ": " << error
        << (commit.empty() ? "" : "; commit " + commit.substr(0, 12) + " stays")
        << "\n";
    return 2;
  }
  if (commit.empty()) {
    if (!o.quiet) out << doc::Shown(repo) << ": " << branch << " unchanged\n";
    return 0;
  }
  if (!o.quiet)
    out << doc::Shown(repo) << ": " << branch << " " << commit.substr(0, 12)
        << ": "
        << (first ? std::to_string(total) + " objects, the first archive"
                  : doc::PlanTotals(plan) +
                        (plan.Empty() ? " (run-time state only)" : ""))
        << "\n";
  // Announced only when the configuration changed: the first archive and
  // run-time state alone are committed, and said by no hook.
  if (o.onChange.empty() || first || plan.Empty() ||
      !Announced(plan, *history, branch))
    return 0;
  out << std::flush;
  const int hook = RunHook(o.onChange, plan, repo, branch, commit);
  if (hook == 0) return 0;
  err << "vantrel-doc: the --on-change command failed (status " << hook
      << "); commit " << commit.substr(0, 12) << " stays\n";
  return 2;
}

}  // namespace vdoc
