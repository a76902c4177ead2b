#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <ostream>
#include <sstream>

#include "AdminDocument.h"
#include "ApplyGuards.h"
#include "Checker.h"
#include "Escape.h"
#include "KivAdmin.h"
#include "KivStoreWriter.h"
#include "Output.h"
#include "SdaiSession.h"
#include "Vantrel.h"
#include "VantrelDoc.h"

namespace vdoc {

namespace {

// Whether the files a and b hold the same bytes.
bool SameBytes(const std::string& a, const std::string& b) {
  std::ifstream x(a, std::ios::binary), y(b, std::ios::binary);
  char p[1 << 16], q[1 << 16];
  while (x && y) {
    x.read(p, sizeof p);
    y.read(q, sizeof q);
    if (x.gcount() != y.gcount() ||
        std::memcmp(p, q, static_cast<std::size_t>(x.gcount())) != 0)
      return false;
  }
  return x.eof() && y.eof();
}

// The last archive against the new one: what changed, as "N added, N
// removed, N changed" (objects counted once whatever the number of their
// changes, a move among them), and the local site of each. Not read when
// the last archive is not a whole document: it is replaced as any archive
// cut short is.
struct SinceLast {
  bool read = false;
  std::string changes, was, now;
};

SinceLast Compare(const std::string& before, const std::string& after) {
  doc::PlanDocument last, next;
  std::ostringstream err;
  int status = 0;
  SinceLast since;
  if (!ReadPlanPair(before, after, last, next, err, &status)) return since;
  const doc::Plan plan = doc::MakePlan(last, next);
  since.read = true;
  since.changes = std::to_string(plan.added) + " added, " +
                  std::to_string(plan.removed) + " removed, " +
                  std::to_string(plan.changedOrMoved) + " changed";
  since.was = last.LocalSite();
  since.now = next.LocalSite();
  return since;
}

// A local site as the refusal names it.
std::string SiteWords(const std::string& site, const char* whose) {
  return site.empty()
             ? std::string(whose) + " has no local site"
             : std::string(whose) + " local site is " + vantrel::Escaped(site);
}

}  // namespace

bool ExportChecked(const std::string& store, std::ofstream& document,
                   const std::string& path, const std::string& shown,
                   std::ostream& err, std::size_t* total, std::string* why,
                   doc::Visitor* next) {
  ::setenv("KIV_ADMIN_STORE", store.c_str(), 1);
  // What a writer killed outright left (a hot journal) is rolled back
  // first, so that the nightly archive reads the store as it was before
  // that writer; when it cannot be, the exporter says why.
  std::string unused;
  KivRecoverStore(store, &unused);
  indent = 0;
  iXSL = 0;
  // The exporter tells its own chain of messages on standard error.
  const int rc = ReadAdmin(&document);
  if (SdaiSession* session = SdaiSession::CurrentSession())
    session->CloseSession();
  document.flush();
  if (rc != 0) {
    *why = "the export failed";
    return false;
  }
  if (document.fail()) {
    *why = std::strerror(errno ? errno : EIO);
    return false;
  }
  std::ostringstream problems;
  doc::Checker checker(path, problems, next);
  // Its problems are on the lines of the new document, not of an old one.
  checker.ShowAs(shown);
  if (!checker.Run() || checker.Problems()) {
    err << problems.str();
    *why = "the new document is not whole";
    return false;
  }
  *total = 0;
  for (int k = 0; k < doc::kKindCount; ++k)
    if (k != doc::kServer) *total += checker.Counts()[k];
  return true;
}

int DocExport(const std::string& store, const std::string& file, bool quiet,
              bool otherInstallation, std::ostream& out, std::ostream& err) {
  const auto failed = [&](const std::string& why) {
    err << "vantrel-doc: cannot export " << doc::Shown(store) << " to "
        << doc::ShownOutput(file) << ": " << why;
    if (file != "-") err << "; " << doc::Shown(file) << " is as it was";
    err << "\n";
    return 2;
  };
  ::setenv("KIV_ADMIN_STORE", store.c_str(), 1);
  if (KivAdminStoreIs(file.c_str()))
    return failed("it is the store or a file of the store");

  // The new archive is a file of its own beside the old one, which it
  // replaces only once it is whole, checked and on the disk.
  if (file == "-")
    return failed("an archive is a file, which standard output is not");
  Output archive;
  std::string error;
  // An archive is a file, and only an archive (or an empty file) is
  // replaced: a store named by mistake stays as it was.
  if (!archive.Open(file, {store}, &error, true, doc::StartsLikeDocument))
    return failed(error);
  std::size_t total = 0;
  if (!ExportChecked(store, archive.Stream(), archive.PartialPath(),
                     "the new " + doc::Shown(file), err, &total, &error))
    return failed(error);
  const std::string said = doc::Shown(file) + ": " + std::to_string(total) +
                           " objects exported from " + doc::Shown(store);
  struct stat old {};
  const bool existed = ::stat(file.c_str(), &old) == 0 && old.st_size > 0;
  // An unchanged night leaves the archive as it was, inode and time: a
  // backup or a history sees no change where there is none.
  if (existed && SameBytes(file, archive.PartialPath())) {
    if (!quiet) out << said << "; unchanged since the last archive\n";
    return 0;
  }
  const SinceLast since =
      existed ? Compare(file, archive.PartialPath()) : SinceLast();
  if (since.read && since.was != since.now && !otherInstallation) {
    err << "vantrel-doc: " << doc::Shown(file)
        << " is another installation's archive: " << SiteWords(since.was, "its")
        << ", " << SiteWords(since.now, "the store's")
        << " (--other-installation replaces it all the same); "
        << doc::Shown(file) << " is as it was\n";
    return doc::kRefusedByGuard;
  }
  if (!archive.Commit(&error)) return failed(error);
  if (!quiet)
    out << said
        << (since.read ? "; since the last archive: " + since.changes
                       : std::string())
        << "\n";
  return 0;
}

}  // namespace vdoc
