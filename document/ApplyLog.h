// The record of applies: one JSON line per apply appended to a log file,
// written to the disk once the apply has ended.
#pragma once

#include <string>
#include <string_view>

#include "DocumentPlan.h"

namespace doc {

// The SHA-256 digest of bytes as "sha256:" and 64 hexadecimal digits.
std::string Sha256(std::string_view bytes);

class ApplyLog {
 public:
  // A log at path; an empty path keeps no log.
  ApplyLog(std::string path, std::string store, std::string document);
  // The line of an apply that commits, or finds nothing to do (an empty
  // plan): the digests of what the store exported before and after, and
  // the plan. Made before the commit; "" when no log is kept.
  std::string AppliedLine(const std::string& before, const std::string& after,
                          const Plan& plan) const;
  // Appends line, as AppliedLine made it: it allocates nothing, so that
  // it may follow a commit. False with *error.
  bool Append(const std::string& line, std::string* error) const;
  // Appends the line of an apply that failed or was refused, with why:
  // nothing changed. False with *error.
  bool Failed(const std::string& why, std::string* error) const;

 private:
  std::string path_, directory_, store_, document_;
};

}  // namespace doc
