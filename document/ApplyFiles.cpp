#include "ApplyFiles.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>

#include "AdminDocument.h"
#include "Files.h"
#include "KivStoreChange.h"
#include "SdaiSession.h"
#include "Vantrel.h"

namespace doc {

bool ExportThrough(sqlite3* db, const std::string& file) {
  std::ofstream out(file, std::ios::out | std::ios::trunc);
  // The connection is served, and its session closed, however the export
  // ends: memory running out among the ways.
  struct Serving {
    explicit Serving(sqlite3* connection) { KivServeConnection(connection); }
    ~Serving() {
      KivServeConnection(nullptr);
      if (SdaiSession* session = SdaiSession::CurrentSession())
        session->CloseSession();
    }
  } serving(db);
  indent = 0;
  iXSL = 0;
  const int rc = ReadAdmin(&out);
  out.close();
  return rc == 0 && !out.fail();
}

bool Holds(const std::string& path, std::string_view bytes) {
  std::ifstream in(path, std::ios::binary);
  char block[1 << 16];
  while (in) {
    in.read(block, sizeof block);
    const auto got = static_cast<std::size_t>(in.gcount());
    if (got > bytes.size() || bytes.compare(0, got, block, got) != 0)
      return false;
    bytes.remove_prefix(got);
  }
  return in.eof() && bytes.empty();
}

Temporary::Temporary() {
  fd = ::memfd_create("vantrel-apply", MFD_CLOEXEC);
  error = fd < 0 ? errno : 0;
  path = fd < 0 ? std::string() : "/proc/self/fd/" + std::to_string(fd);
}

Temporary::~Temporary() {
  if (fd >= 0) ::close(fd);
}

bool Readable(const std::string& file, Temporary& input, std::string* path,
              std::string* error) {
  *path = file;
  if (file != "-") return true;
  if (input.fd >= 0 &&
      vantrel::CopyFile(STDIN_FILENO, input.fd, kMaxDocumentBytes) ==
          vantrel::Copied::kWhole) {
    *path = input.path;
    return true;
  }
  *error = std::string("cannot read standard input: ") +
           (errno == EFBIG ? "larger than any document" : std::strerror(errno));
  return false;
}

bool ReadDocumentFile(const std::string& file, std::string* bytes,
                      std::string* error) {
  // Not blocking: a FIFO is refused as what it is, not waited on.
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  struct stat st {};
  if (fd < 0 || ::fstat(fd, &st) != 0) {
    *error = std::strerror(errno);
    if (fd >= 0) ::close(fd);
    return false;
  }
  const bool regular = S_ISREG(st.st_mode);
  if (!regular || static_cast<std::uint64_t>(st.st_size) > kMaxDocumentBytes) {
    ::close(fd);
    *error = S_ISDIR(st.st_mode) ? std::strerror(EISDIR)
             : regular           ? "larger than any document"
                                 : "not a regular file";
    return false;
  }
  bytes->resize(static_cast<std::size_t>(st.st_size));
  std::size_t at = 0;
  while (at < bytes->size()) {
    const ssize_t got = ::read(fd, &(*bytes)[at], bytes->size() - at);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      *error = got < 0 ? std::strerror(errno) : "it was cut short while read";
      ::close(fd);
      return false;
    }
    at += static_cast<std::size_t>(got);
  }
  ::close(fd);
  return true;
}

}  // namespace doc
