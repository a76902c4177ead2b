#include "RevisionArgument.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "Checker.h"
#include "Files.h"
#include "History.h"

namespace doc {

namespace {

// Splits arg, REPO@REV, at the first '@' after which the history stands;
// false when none does.
bool SplitRevision(const std::string& arg, std::string* repo,
                   std::string* rev) {
  for (std::size_t at = arg.find('@'); at != std::string::npos;
       at = arg.find('@', at + 1)) {
    *repo = arg.substr(0, at);
    if (repo->empty() || !History::Is(*repo)) continue;
    *rev = arg.substr(at + 1);
    return true;
  }
  return false;
}

// Sets *path to a file holding bytes, named name in messages: held open
// while the process lasts, the file is its descriptor. False with *error.
bool Held(const std::string& bytes, const std::string& name, std::string* path,
          std::string* error) {
  if (vantrel::HeldBytes(bytes, path) < 0) {
    *error = std::string("cannot hold it in the temporary directory: ") +
             std::strerror(errno);
    return false;
  }
  NameFile(*path, name);
  return true;
}

}  // namespace

bool DocumentArgument(const std::string& given, std::string* path,
                      std::string* error) {
  const std::string arg = given;  // path may be given itself
  *path = arg;
  struct stat st {};
  std::string repo, rev, bytes;
  if (arg == "-" || ::stat(arg.c_str(), &st) == 0 ||
      !SplitRevision(arg, &repo, &rev))
    return true;
  const std::unique_ptr<History> history = History::Open(repo, false, error);
  return history && history->Document(rev, &bytes, error) &&
         Held(bytes, arg, path, error);
}

bool ChangeArgument(const std::string& arg, std::string* before,
                    std::string* after, std::string* commit,
                    std::string* error) {
  std::string repo, rev, was, is;
  if (!SplitRevision(arg, &repo, &rev)) {
    *error = "it is no commit of a history (REPO@COMMIT)";
    return false;
  }
  const std::unique_ptr<History> history = History::Open(repo, false, error);
  return history && history->Change(rev, &was, &is, commit, error) &&
         Held(was, arg + "^", before, error) && Held(is, arg, after, error);
}

}  // namespace doc
