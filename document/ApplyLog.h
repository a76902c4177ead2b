// The record of applies: one JSON line per apply appended to a log file,
// which is opened, checked and locked before the store is touched, and
// written to the disk once the apply has ended.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ApplyGuards.h"
#include "DocumentPlan.h"

namespace doc {

// The SHA-256 digest of bytes as "sha256:" and 64 hexadecimal digits.
std::string Sha256(std::string_view bytes);
// The digest of the file at path, as Sha256 gives it; "" when it cannot
// be read.
std::string FileSha256(const std::string& path);

// What every line says of its apply besides its outcome, filled in as the
// apply learns it: what is not known when a line is written is left out.
struct ApplyContext {
  const ApplyOptions* options = nullptr;  // as given on the command line
  std::string planOutput;                 // -o ("-": standard output)
  std::string documentDigest;             // of the document's bytes
  std::string baseDigest;                 // of the base's bytes
  // The store's local site: the installation.
  std::string installation, installationName;
};

class ApplyLog {
 public:
  // A log at path of applies of document ("-" for standard input) to
  // store; an empty path keeps no log.
  ApplyLog(std::string path, std::string store, std::string document);
  // What the lines say of the apply, filled in as it goes.
  ApplyContext& Context() { return context_; }
  ~ApplyLog();
  ApplyLog(const ApplyLog&) = delete;
  ApplyLog& operator=(const ApplyLog&) = delete;
  // Opens the log to append to it, creating it, and locks it against other
  // applies until it is closed; a partial last line, left by a crash, is
  // closed before the next. Refused, with the reason in *error: what is not
  // a regular file, and the files of the apply itself (each of others
  // names one). True when no log is kept.
  bool Open(const std::vector<std::string>& others, std::string* error);
  // The line of an apply that commits, or finds nothing to do (an empty
  // plan): the digests of what the store exported before and after, and
  // the plan. Made before the commit; "" when no log is kept.
  std::string AppliedLine(const std::string& before, const std::string& after,
                          const Plan& plan) const;
  // Appends line, as AppliedLine made it, with one write, and syncs it:
  // it allocates nothing, so that it may follow a commit. False with
  // *error; nothing is written to a log that is not open.
  bool Append(const std::string& line, std::string* error);
  // Makes sure the disk holds room for size more bytes of the log, where
  // the file system can say so, so that a full disk refuses the apply
  // before its commit rather than losing its record after; false with
  // *error.
  bool Reserve(std::size_t size, std::string* error);
  // Appends the line of an apply that failed, or that a guard refused
  // (refused), with why: nothing changed. False with *error.
  bool Failed(const std::string& why, bool refused, std::string* error);

 private:
  // Opens a line: when, who, where, with what, and how it went.
  template <typename Writer>
  void Begin(Writer& w, const char* outcome) const;
  std::string path_, directory_, store_, document_;
  ApplyContext context_;
  int fd_ = -1;
  bool created_ = false;  // its directory entry is to be synced
  bool unended_ = false;  // its last line lacks its line break
};

}  // namespace doc
