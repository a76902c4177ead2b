// The record of applies: one JSON line per apply appended to a log file,
// written to the disk once the apply has ended.
#pragma once

#include <string>
#include <string_view>

#include "DocumentPlan.h"

// The SHA-256 digest of bytes as "sha256:" and 64 hexadecimal digits.
std::string Sha256(std::string_view bytes);

class ApplyLog {
 public:
  // A log at path; an empty path keeps no log.
  ApplyLog(std::string path, std::string store, std::string document);
  // Appends the line of an apply that committed, or found nothing to do
  // (an empty plan): the digests of what the store exported before and
  // after, and the plan. False with *error.
  bool Applied(const std::string& before, const std::string& after,
               const doc::Plan& plan, std::string* error);
  // Appends the line of an apply that failed or was refused, with why:
  // nothing changed. False with *error.
  bool Failed(const std::string& why, std::string* error);

 private:
  // Appends line and a line break in one write, then syncs the file.
  bool Append(const std::string& line, std::string* error);
  std::string path_, store_, document_;
};
