#include "Files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

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

std::string TemporaryDirectory() {
  const char* dir = std::getenv("TMPDIR");
  return dir && *dir ? dir : "/tmp";
}

int AnonymousFile() {
  std::string path = TemporaryDirectory() + "/vantrel-XXXXXX";
  const int fd = ::mkostemp(&path[0], O_CLOEXEC);
  if (fd >= 0) ::unlink(path.c_str());
  return fd;
}

}  // namespace vantrel
