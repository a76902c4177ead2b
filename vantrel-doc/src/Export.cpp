#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <ostream>
#include <set>
#include <sstream>

#include "Checker.h"
#include "KivAdmin.h"
#include "Output.h"
#include "SdaiSession.h"
#include "Vantrel.h"
#include "VantrelDoc.h"

namespace {

// Writes the file or directory at path to the disk; false with errno set.
bool Sync(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool synced = ::fsync(fd) == 0;
  const int saved = errno;
  ::close(fd);
  errno = saved;
  return synced;
}

std::string DirectoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Removes a partial file unless it was given its name.
struct Partial {
  std::string path;
  ~Partial() {
    if (path.empty()) return;
    SetPartialFile(nullptr);
    std::remove(path.c_str());
  }
};

// What changed from the archive before to the new one, as "N added, N
// removed, N changed": objects counted once whatever the number of their
// changes.
std::string Changes(const std::string& before, const std::string& after) {
  std::ostringstream out, err;
  if (DocDiff(before, after, out, err) == 2) return std::string();
  std::map<std::string, std::set<std::string>> objects;
  std::istringstream lines(out.str());
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string what, kind, id;
    words >> what >> kind >> id;
    // A change of kind names the identifier first.
    objects[what == "moved" ? "changed" : what].insert(
        what == "changed" && kind.size() > 1 && kind[0] == 'x' ? kind : id);
  }
  return std::to_string(objects["added"].size()) + " added, " +
         std::to_string(objects["removed"].size()) + " removed, " +
         std::to_string(objects["changed"].size()) + " changed";
}

}  // namespace

int DocExport(const std::string& store, const std::string& file, bool quiet,
              std::ostream& out, std::ostream& err) {
  const auto failed = [&](const std::string& why) {
    err << "vantrel-doc: cannot export " << Shown(store) << " to "
        << Shown(file) << ": " << why << "; " << Shown(file)
        << " is as it was\n";
    return 2;
  };
  ::setenv("KIV_ADMIN_STORE", store.c_str(), 1);
  if (KivAdminStoreIs(file.c_str()))
    return failed("it is the store or a file of the store");

  // The new archive is a file of its own beside the old one, which it
  // replaces only once it is whole, checked and on the disk.
  Partial partial;
  {
    const HeldSignals held;
    std::string name = file + ".partial-XXXXXX";
    const int fd = ::mkstemp(&name[0]);
    if (fd < 0) return failed(std::strerror(errno));
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(fd, 0666 & ~mask);
    ::close(fd);
    partial.path = name;
    SetPartialFile(partial.path.c_str());
  }
  std::ofstream document(partial.path, std::ios::out | std::ios::trunc);
  if (!document) return failed(std::strerror(errno));
  indent = 0;
  iXSL = 0;
  // The exporter tells its own chain of messages on standard error.
  const int rc = ReadAdmin(&document);
  if (SdaiSession* session = SdaiSession::CurrentSession())
    session->CloseSession();
  document.close();
  if (rc != 0) return failed("the export failed");
  if (document.fail()) return failed(std::strerror(errno ? errno : EIO));

  std::ostringstream problems;
  Checker checker(partial.path, problems);
  if (!checker.Run() || checker.Problems()) {
    err << problems.str();
    return failed("the new document is not whole");
  }
  const bool existed = ::access(file.c_str(), F_OK) == 0;
  const std::string changes =
      existed && !quiet ? Changes(file, partial.path) : std::string();
  if (!Sync(partial.path) || ::rename(partial.path.c_str(), file.c_str()) != 0)
    return failed(std::strerror(errno));
  SetPartialFile(nullptr);
  partial.path.clear();
  Sync(DirectoryOf(file));
  if (quiet) return 0;
  std::size_t total = 0;
  for (int k = 0; k < doc::kKindCount; ++k)
    if (k != doc::kServer) total += checker.Counts()[k];
  out << Shown(file) << ": " << total << " objects exported from "
      << Shown(store)
      << (changes.empty() ? std::string()
                          : "; since the last archive: " + changes)
      << "\n";
  return 0;
}
