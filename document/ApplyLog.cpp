#include "ApplyLog.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <pwd.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>

#include "Files.h"
#include "Hex.h"
#include "Checker.h"
#include "PlanViews.h"

namespace doc {

std::string Sha256(std::string_view bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &size, EVP_sha256(), nullptr);
  std::string hex = vantrel::Hex(
      std::string_view(reinterpret_cast<const char*>(digest), size));
  for (char& c : hex) c = static_cast<char>(std::tolower(c));
  return "sha256:" + hex;
}

namespace {

// The user who runs the apply: the login's name, else the user id.
std::string User() {
  if (const passwd* pw = ::getpwuid(::geteuid())) return pw->pw_name;
  return std::to_string(::geteuid());
}

// The machine's name.
std::string Host() {
  char name[256] = {};
  return ::gethostname(name, sizeof name - 1) == 0 ? name : "";
}

// Now, in UTC, as "2026-11-23T10:04:05Z".
std::string Now() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  ::gmtime_r(&now, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

// The absolute path of a file, so that the record names it wherever the
// apply ran from.
std::string Absolute(const std::string& path) {
  return vantrel::AbsolutePath(path);
}

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

void Text(Writer& w, const char* key, std::string_view value) {
  w.Key(key);
  const std::string safe = doc::JsonSafe(value);
  w.String(safe.data(), static_cast<rapidjson::SizeType>(safe.size()));
}

// Writes options, the apply's options as given, and the guards they leave
// in force.
void Options(Writer& w, const ApplyOptions& o, const std::string& output) {
  w.Key("options");
  w.StartObject();
  w.Key("dry_run");
  w.Bool(o.dryRun);
  if (!o.base.empty()) Text(w, "base", o.base == "-" ? "-" : Absolute(o.base));
  if (o.maxRemovals >= 0) {
    w.Key("max_removals");
    w.Int64(o.maxRemovals);
  }
  w.Key("other_installation");
  w.Bool(o.otherInstallation);
  w.Key("run_time");
  w.Bool(o.runTime);
  if (!o.revert.empty()) Text(w, "revert", o.revert);
  if (!o.only.empty()) {
    w.Key("only");
    w.StartArray();
    for (const std::string& id : o.only) {
      const std::string safe = doc::JsonSafe(id);
      w.String(safe.data(), static_cast<rapidjson::SizeType>(safe.size()));
    }
    w.EndArray();
  }
  if (output != "-") Text(w, "output", Absolute(output));
  w.EndObject();
  w.Key("guards");
  w.StartArray();
  for (const std::string& name : GuardsInForce(o)) w.String(name.c_str());
  w.EndArray();
}

}  // namespace

std::string FileSha256(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  if (!in || !context || !EVP_DigestInit_ex(context, EVP_sha256(), nullptr)) {
    EVP_MD_CTX_free(context);
    return std::string();
  }
  char block[1 << 16];
  while (in) {
    in.read(block, sizeof block);
    EVP_DigestUpdate(context, block, static_cast<std::size_t>(in.gcount()));
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  const bool read = in.eof() && EVP_DigestFinal_ex(context, digest, &size);
  EVP_MD_CTX_free(context);
  if (!read) return std::string();
  std::string hex = vantrel::Hex(
      std::string_view(reinterpret_cast<const char*>(digest), size));
  for (char& c : hex) c = static_cast<char>(std::tolower(c));
  return "sha256:" + hex;
}

template <typename W>
void ApplyLog::Begin(W& w, const char* outcome) const {
  w.StartObject();
  Text(w, "time", Now());
  // The one behind sudo, when there is one: who asked for the apply.
  const char* sudo = std::getenv("SUDO_USER");
  Text(w, "user", sudo && *sudo ? sudo : User());
  if (sudo && *sudo) Text(w, "run_as", User());
  Text(w, "host", Host());
  if (!context_.installation.empty()) {
    w.Key("installation");
    w.StartObject();
    Text(w, "local_site", context_.installation);
    Text(w, "name", context_.installationName);
    w.EndObject();
  }
  Text(w, "store", store_);
  Text(w, "document", document_);
  if (!context_.documentDigest.empty())
    Text(w, "document_digest", context_.documentDigest);
  if (!context_.baseDigest.empty())
    Text(w, "base_digest", context_.baseDigest);
  if (context_.options) {
    if (!context_.options->comment.empty())
      Text(w, "comment", context_.options->comment);
    Options(w, *context_.options, context_.planOutput);
  }
  Text(w, "outcome", outcome);
}

ApplyLog::ApplyLog(std::string path, std::string store, std::string document)
    : path_(std::move(path)),
      directory_(path_.empty() ? "" : vantrel::DirectoryOf(path_)),
      store_(Absolute(store)),
      document_(document == "-"              ? document
                : NameOf(document) != document ? NameOf(document)
                                               : Absolute(document)) {}

std::string ApplyLog::AppliedLine(const std::string& before,
                                  const std::string& after,
                                  const doc::Plan& plan) const {
  if (path_.empty()) return std::string();
  rapidjson::StringBuffer buffer;
  Writer w(buffer);
  Begin(w, plan.Empty() ? "unchanged" : "applied");
  Text(w, "before", Sha256(before));
  Text(w, "after", Sha256(after));
  w.Key("plan");
  const std::string planText = doc::PlanJsonText(plan);
  w.RawValue(planText.data(), planText.size(), rapidjson::kObjectType);
  w.EndObject();
  return std::string(buffer.GetString(), buffer.GetSize()) + "\n";
}

ApplyLog::~ApplyLog() {
  if (fd_ >= 0) ::close(fd_);
}

bool ApplyLog::Open(const std::vector<std::string>& others,
                    std::string* error) {
  if (path_.empty()) return true;
  struct stat st {};
  const bool existed = ::stat(path_.c_str(), &st) == 0;
  if (existed && !S_ISREG(st.st_mode)) {
    *error = S_ISDIR(st.st_mode) ? std::strerror(EISDIR) : "not a regular file";
    return false;
  }
  // The rule of every output: no store, none of the apply's own files.
  *error = vantrel::RefusedOutput(path_, others);
  if (!error->empty()) return false;
  fd_ = ::open(path_.c_str(),
               O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0644);
  if (fd_ < 0 || ::flock(fd_, LOCK_EX) != 0 || ::fstat(fd_, &st) != 0) {
    *error = std::strerror(errno);
    return false;
  }
  created_ = !existed;
  // Read once the lock is had: the last line's end, through a reader of
  // its own, since the log is opened for writing only.
  char last = '\n';
  if (st.st_size > 0) {
    std::ifstream tail(path_, std::ios::binary);
    tail.seekg(-1, std::ios::end);
    tail.get(last);
    if (!tail) last = '\n';
  }
  unended_ = last != '\n';
  return true;
}

bool ApplyLog::Failed(const std::string& why, bool refused,
                      std::string* error) {
  if (path_.empty()) return true;
  rapidjson::StringBuffer buffer;
  Writer w(buffer);
  Begin(w, refused ? "refused" : "failed");
  Text(w, "reason", why);
  w.Key("changed");
  w.Bool(false);
  w.EndObject();
  return Append(std::string(buffer.GetString(), buffer.GetSize()) + "\n",
                error);
}

bool ApplyLog::Reserve(std::size_t size, std::string* error) {
  struct stat st {};
  if (path_.empty() || fd_ < 0) return true;
  if (::fstat(fd_, &st) == 0 &&
      ::fallocate(fd_, FALLOC_FL_KEEP_SIZE, st.st_size,
                  static_cast<off_t>(size)) == 0)
    return true;
  // A file system that cannot reserve is written as it comes.
  if (errno == EOPNOTSUPP || errno == ENOSYS) return true;
  *error = std::strerror(errno);
  return false;
}

bool ApplyLog::Append(const std::string& line, std::string* error) {
  if (path_.empty() || fd_ < 0) return true;
  // One write: lines of applies run at once never interleave. A partial
  // line left by a crash is ended first, so that every whole record stays
  // a JSON line.
  const std::string_view text(line);
  const char ended[] = "\n";
  struct iovec parts[2] = {
      {const_cast<char*>(ended), unended_ ? std::size_t{1} : 0},
      {const_cast<char*>(text.data()), text.size()}};
  const auto whole = static_cast<ssize_t>(parts[0].iov_len + text.size());
  ssize_t wrote;
  do {
    errno = 0;
    wrote = ::writev(fd_, parts, 2);
  } while (wrote < 0 && errno == EINTR);
  bool done = wrote == whole && ::fsync(fd_) == 0;
  if (!done) *error = errno ? std::strerror(errno) : "a short write";
  // A line cut short is ended by the next, as a crash's would be.
  if (wrote > 0) unended_ = wrote < whole;
  // A log made by this line needs its directory entry on the disk too.
  if (done && created_ && !vantrel::Sync(directory_)) {
    done = false;
    *error = std::strerror(errno);
  }
  return done;
}

}  // namespace doc
