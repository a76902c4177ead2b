#include "Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <utility>

#include "Escape.h"

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

namespace {}  // namespace

std::string Resolved(const std::string& path) {
  char dir[PATH_MAX];
  if (!::realpath(DirectoryOf(path).c_str(), dir)) return path;
  const std::size_t slash = path.rfind('/');
  return std::string(dir) + "/" +
         (slash == std::string::npos ? path : path.substr(slash + 1));
}

std::string AbsolutePath(const std::string& path) {
  char resolved[PATH_MAX];
  return ::realpath(path.c_str(), resolved) ? std::string(resolved)
                                            : Resolved(path);
}

namespace {

// Whether a and b are one file: the same inode when both exist, else the
// same name once resolved.
bool SameFile(const std::string& a, const std::string& b) {
  struct stat sa {
  }, sb{};
  const bool hasA = ::stat(a.c_str(), &sa) == 0,
             hasB = ::stat(b.c_str(), &sb) == 0;
  if (hasA && hasB) return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
  return !hasA && !hasB && Resolved(a) == Resolved(b);
}

}  // namespace

std::string RefusedOutput(const std::string& path,
                          const std::vector<std::string>& inputs) {
  if (path == "-") return std::string();
  struct stat st {};
  const bool exists = ::stat(path.c_str(), &st) == 0;
  if (exists && S_ISDIR(st.st_mode)) return std::strerror(EISDIR);
  // A store is never an output, whatever its name: what writes one is
  // load, apply or revert, in a transaction.
  char head[16] = {};
  if (exists && S_ISREG(st.st_mode))
    std::ifstream(path, std::ios::binary).read(head, sizeof head);
  if (std::memcmp(head, "SQLite format 3", sizeof head) == 0)
    return "it is an SQLite store";
  for (const std::string& input : inputs) {
    if (input.empty() || input == "-") continue;
    // A directory the command reads (a history) holds no output.
    struct stat in {};
    if (::stat(input.c_str(), &in) == 0 && S_ISDIR(in.st_mode)) {
      const std::string inside = AbsolutePath(input) + "/";
      if (AbsolutePath(path).compare(0, inside.size(), inside) == 0)
        return "it is inside " + Escaped(input) +
               ", a directory the command reads";
      continue;
    }
    for (const char* suffix : {"", "-journal", "-wal", "-shm"})
      if (SameFile(path, input + suffix))
        return std::string("it is ") + (*suffix ? "a journal of " : "") +
               Escaped(input) + ", a file of the command itself";
  }
  return std::string();
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

int HeldBytes(std::string_view bytes, std::string* path) {
  const int fd = AnonymousFile();
  if (fd < 0) return -1;
  for (std::size_t at = 0; at < bytes.size();) {
    const ssize_t put = ::write(fd, bytes.data() + at, bytes.size() - at);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) {
      const int saved = put == 0 ? ENOSPC : errno;
      ::close(fd);
      errno = saved;
      return -1;
    }
    at += static_cast<std::size_t>(put);
  }
  *path = "/proc/self/fd/" + std::to_string(fd);
  return fd;
}

}  // namespace vantrel
