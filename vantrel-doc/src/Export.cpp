#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <ostream>
#include <sstream>

#include "AdminDocument.h"
#include "Checker.h"
#include "KivAdmin.h"
#include "KivStoreWriter.h"
#include "Output.h"
#include "SdaiSession.h"
#include "Vantrel.h"
#include "VantrelDoc.h"

namespace vdoc {

namespace {

// What changed from the archive before to the new one, as "N added, N
// removed, N changed": objects counted once whatever the number of their
// changes, a move among them. "" when either cannot be read.
std::string Changes(const std::string& before, const std::string& after) {
  doc::PlanDocument was, now;
  std::ostringstream err;
  int status = 0;
  if (!ReadPlanPair(before, after, was, now, err, &status)) return "";
  const doc::Plan plan = doc::MakePlan(was, now);
  return std::to_string(plan.added) + " added, " +
         std::to_string(plan.removed) + " removed, " +
         std::to_string(plan.changedOrMoved) + " changed";
}

}  // namespace

int DocExport(const std::string& store, const std::string& file, bool quiet,
              std::ostream& out, std::ostream& err) {
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
  std::ofstream& document = archive.Stream();
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
  if (rc != 0) return failed("the export failed");
  if (document.fail()) return failed(std::strerror(errno ? errno : EIO));

  std::ostringstream problems;
  doc::Checker checker(archive.PartialPath(), problems);
  // Its problems are on the lines of the new archive, not of the old one.
  checker.ShowAs("the new " + doc::Shown(file));
  if (!checker.Run() || checker.Problems()) {
    err << problems.str();
    return failed("the new document is not whole");
  }
  const bool existed = ::access(file.c_str(), F_OK) == 0;
  const std::string changes =
      existed && !quiet ? Changes(file, archive.PartialPath()) : std::string();
  if (!archive.Commit(&error)) return failed(error);
  if (quiet) return 0;
  std::size_t total = 0;
  for (int k = 0; k < doc::kKindCount; ++k)
    if (k != doc::kServer) total += checker.Counts()[k];
  out << doc::Shown(file) << ": " << total << " objects exported from "
      << doc::Shown(store)
      << (changes.empty() ? std::string()
                          : "; since the last archive: " + changes)
      << "\n";
  return 0;
}

}  // namespace vdoc
