#include "Output.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "Escape.h"
#include "Files.h"

namespace vdoc {

namespace {

std::atomic<const char*> partialFile{nullptr};

void OnSignal(int signal) {
  // Only what is safe in a signal handler: unlink, then the default action.
  if (const char* path = partialFile.load()) ::unlink(path);
  ::signal(signal, SIG_DFL);
  ::raise(signal);
}

std::string Reason(int error) { return std::strerror(error ? error : EIO); }

// The file that path names once its symbolic links are followed (a link
// to nothing names the file it would create); "" with errno set for a loop.
std::string Followed(std::string path) {
  for (int hops = 0; hops < 40; ++hops) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return path;
    char target[PATH_MAX];
    const ssize_t size = ::readlink(path.c_str(), target, sizeof target - 1);
    if (size < 0) return std::string();
    const std::string to(target, static_cast<std::size_t>(size));
    path = to[0] == '/' ? to : vantrel::DirectoryOf(path) + "/" + to;
  }
  errno = ELOOP;
  return std::string();
}

}  // namespace

void SetPartialFile(const char* path) { partialFile.store(path); }

void RemovePartialFilesOnSignals() {
  struct sigaction action {};
  action.sa_handler = OnSignal;
  sigemptyset(&action.sa_mask);
  for (int signal : vantrel::kHeldSignals)
    ::sigaction(signal, &action, nullptr);
}

Output::~Output() {
  if (direct_ > STDERR_FILENO) ::close(direct_);
  if (partial_.empty()) return;
  SetPartialFile(nullptr);
  file_.close();
  std::remove(partial_.c_str());
}

bool Output::Open(const std::string& path,
                  const std::vector<std::string>& inputs, std::string* error,
                  bool regularOnly, const Replaceable& replaceable) {
  *error = vantrel::RefusedOutput(path, inputs);
  if (!error->empty()) return false;
  struct stat old {};
  bool existed = false;
  if (path == "-") {
    if (regularOnly) {
      *error = "not a regular file";
      return false;
    }
    direct_ = STDOUT_FILENO;
  } else {
    // The kernel follows the links to what is written (a link of /proc to
    // a pipe among them); a regular file's links are followed here, so that
    // the rename replaces the file and the links stay.
    existed = ::stat(path.c_str(), &old) == 0;
    if (existed && !S_ISREG(old.st_mode)) {
      if (regularOnly) {
        *error = "not a regular file";
        return false;
      }
      // A FIFO with no reader would block here, as a redirection does.
      direct_ = ::open(path.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
      if (direct_ < 0) {
        *error = Reason(errno);
        return false;
      }
    } else {
      path_ = Followed(path);
      if (path_.empty()) {
        *error = Reason(errno);
        return false;
      }
    }
  }
  if (existed && direct_ < 0 && replaceable) {
    char head[4096];
    const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    const ssize_t got = fd < 0 ? -1 : ::read(fd, head, sizeof head);
    if (fd >= 0) ::close(fd);
    if (got < 0) {
      *error = Reason(errno);
      return false;
    }
    if (!replaceable(std::string_view(head, static_cast<std::size_t>(got)))) {
      *error = "it is not a document of this tool, which alone it replaces";
      return false;
    }
  }

  const vantrel::HeldSignals held;
  std::string partial =
      direct_ >= 0 ? vantrel::TemporaryDirectory() + "/vantrel-doc-XXXXXX"
                   : path_ + ".partial-XXXXXX";
  // A replaced file keeps its owner, group and mode; a new one has the
  // mode of any file a tool creates, a spool only its owner's.
  const bool replacing = existed && direct_ < 0;
  const unsigned mode = replacing      ? old.st_mode & 07777
                        : direct_ >= 0 ? 0600
                                       : vantrel::NewFileMode();
  if (const int failed = vantrel::MakePartialFile(
          partial, mode, replacing ? &old : nullptr, &partial_)) {
    *error = Reason(failed);
    if (direct_ >= 0)
      *error = "cannot create a file in the temporary directory " +
               vantrel::Escaped(vantrel::TemporaryDirectory()) + ": " + *error;
    return false;
  }
  SetPartialFile(partial_.c_str());
  file_.open(partial_, std::ios::binary | std::ios::trunc);
  if (!file_) {
    *error = Reason(errno);
    return false;
  }
  return true;
}

bool Output::Rewind(std::string* error) {
  file_.close();
  file_.open(partial_, std::ios::binary | std::ios::trunc);
  if (!file_) *error = Reason(errno);
  return static_cast<bool>(file_);
}

bool Output::Commit(std::string* error) {
  // A stream that failed already holds the errno of its failing write (a
  // failed stream makes no more calls); one that fails now, its last.
  const int failed = file_.fail() ? errno : 0;
  errno = 0;
  file_.close();
  if (file_.fail()) {
    *error = Reason(failed ? failed : errno);
    return false;
  }
  const bool done = direct_ >= 0 ? CommitSpool(error) : CommitFile(error);
  if (!done) return false;
  SetPartialFile(nullptr);
  partial_.clear();
  return true;
}

bool Output::CommitFile(std::string* error) {
  if (!vantrel::Sync(partial_) ||
      ::rename(partial_.c_str(), path_.c_str()) != 0) {
    *error = Reason(errno);
    return false;
  }
  if (!vantrel::Sync(vantrel::DirectoryOf(path_))) {
    // The file has its name; only its directory's entry may not be on the
    // disk yet.
    *error = "the directory " + vantrel::Escaped(vantrel::DirectoryOf(path_)) +
             " cannot be written to the disk: " + Reason(errno);
    partial_.clear();
    return false;
  }
  return true;
}

bool Output::CommitSpool(std::string* error) {
  // What the command wrote on standard output before goes first.
  if (direct_ == STDOUT_FILENO) std::cout.flush();
  const int fd = ::open(partial_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *error = Reason(errno);
    return false;
  }
  const bool copied = vantrel::CopyFile(fd, direct_) == vantrel::Copied::kWhole;
  const int saved = errno;
  ::close(fd);
  if (!copied) {
    *error = Reason(saved);
    return false;
  }
  std::remove(partial_.c_str());
  return true;
}

}  // namespace vdoc
