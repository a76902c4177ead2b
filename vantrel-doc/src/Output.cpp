#include "Output.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "Files.h"

namespace {

std::atomic<const char*> partialFile{nullptr};

void OnSignal(int signal) {
  // Only what is safe in a signal handler: unlink, then the default action.
  if (const char* path = partialFile.load()) ::unlink(path);
  ::signal(signal, SIG_DFL);
  ::raise(signal);
}

}  // namespace

void SetPartialFile(const char* path) { partialFile.store(path); }

HeldSignals::HeldSignals() {
  sigset_t held;
  sigemptyset(&held);
  for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&held, signal);
  ::sigprocmask(SIG_BLOCK, &held, &saved_);
}

HeldSignals::~HeldSignals() { ::sigprocmask(SIG_SETMASK, &saved_, nullptr); }

void RemovePartialFilesOnSignals() {
  struct sigaction action {};
  action.sa_handler = OnSignal;
  sigemptyset(&action.sa_mask);
  for (int signal : {SIGINT, SIGTERM, SIGHUP})
    ::sigaction(signal, &action, nullptr);
}

Output::~Output() {
  if (partial_.empty()) return;
  SetPartialFile(nullptr);
  file_.close();
  std::remove(partial_.c_str());
}

bool Output::Open(const std::string& path, std::string* error) {
  if (path == "-") {
    toStdout_ = true;
    return true;
  }
  path_ = path;
  const HeldSignals held;
  std::string partial = path + ".partial-XXXXXX";
  const int fd = ::mkstemp(&partial[0]);
  if (fd < 0) {
    *error = std::strerror(errno);
    return false;
  }
  // The mode of any file a tool creates.
  const mode_t mask = ::umask(0);
  ::umask(mask);
  ::fchmod(fd, 0666 & ~mask);
  ::close(fd);
  partial_ = partial;
  SetPartialFile(partial_.c_str());
  file_.open(partial_, std::ios::binary | std::ios::trunc);
  if (!file_) {
    *error = std::strerror(errno);
    return false;
  }
  return true;
}

bool Output::Rewind(std::string* error) {
  if (toStdout_) {
    *error = "standard output cannot be written again";
    return false;
  }
  file_.close();
  file_.open(partial_, std::ios::binary | std::ios::trunc);
  if (!file_) *error = std::strerror(errno);
  return static_cast<bool>(file_);
}

bool Output::Commit(std::string* error) {
  if (toStdout_) {
    std::cout.flush();
    if (!std::cout) *error = std::strerror(errno ? errno : EIO);
    return static_cast<bool>(std::cout);
  }
  file_.close();
  if (file_.fail() || !vantrel::Sync(partial_) ||
      ::rename(partial_.c_str(), path_.c_str()) != 0) {
    *error = std::strerror(errno ? errno : EIO);
    return false;
  }
  SetPartialFile(nullptr);
  partial_.clear();
  vantrel::Sync(vantrel::DirectoryOf(path_));
  return true;
}
