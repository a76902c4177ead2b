#include "Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <utility>

namespace vantrel {

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

Copied CopyFile(int from, int to, std::uint64_t limit) {
  char block[1 << 16];
  std::uint64_t total = 0;
  for (;;) {
    ssize_t got = ::read(from, block, sizeof block);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return Copied::kReadFailed;
    if (got == 0) return Copied::kWhole;
    total += static_cast<std::uint64_t>(got);
    if (total > limit) {
      errno = EFBIG;
      return Copied::kTooLarge;
    }
    for (const char* at = block; got > 0;) {
      const ssize_t put = ::write(to, at, static_cast<std::size_t>(got));
      if (put < 0 && errno == EINTR) continue;
      if (put <= 0) {
        if (put == 0) errno = ENOSPC;
        return Copied::kWriteFailed;
      }
      at += put;
      got -= put;
    }
  }
}

std::string TemporaryDirectory() {
  const char* dir = std::getenv("TMPDIR");
  return dir && *dir ? dir : "/tmp";
}

unsigned NewFileMode() {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return 0666 & ~mask;
}

int MakePartialFile(std::string pattern, unsigned mode, const struct stat* like,
                    std::string* path) {
  const int fd = ::mkstemp(&pattern[0]);
  if (fd < 0) return errno;
  // The owner first: a new owner clears the set-id bits of the mode.
  if (like && (like->st_uid != ::geteuid() || like->st_gid != ::getegid()))
    (void)::fchown(fd, like->st_uid, like->st_gid);  // where it may
  const int moded = ::fchmod(fd, static_cast<mode_t>(mode));
  const int saved = errno;
  ::close(fd);
  if (moded != 0) {
    ::unlink(pattern.c_str());
    return saved;
  }
  *path = std::move(pattern);
  return 0;
}

int AnonymousFile() {
  std::string path = TemporaryDirectory() + "/vantrel-XXXXXX";
  const int fd = ::mkostemp(&path[0], O_CLOEXEC);
  if (fd >= 0) ::unlink(path.c_str());
  return fd;
}

}  // namespace vantrel
