// A file that a command writes whole or not at all. It is written as a
// partial file beside its name (NAME.partial-XXXXXX), then written to the
// disk and renamed over the name; a failure, or a signal, removes the
// partial file. "-" names standard output, written as it goes.
#pragma once

#include <signal.h>

#include <fstream>
#include <iostream>
#include <ostream>
#include <string>

class Output {
 public:
  Output() = default;
  ~Output();  // removes the partial file unless committed
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  // Creates the partial file of path; false with the system's reason in
  // *error.
  bool Open(const std::string& path, std::string* error);
  std::ostream& Stream() { return toStdout_ ? std::cout : file_; }
  // The stream of the partial file, null for standard output.
  std::ofstream* File() { return toStdout_ ? nullptr : &file_; }
  // The partial file being written, "" for standard output.
  const std::string& PartialPath() const { return partial_; }
  // Empties what was written, to write again from the start.
  bool Rewind(std::string* error);
  // Writes the file to the disk and gives it its name; false with the
  // system's reason in *error.
  bool Commit(std::string* error);

 private:
  std::string path_, partial_;
  std::ofstream file_;
  bool toStdout_ = false;
};

// Holds SIGINT, SIGTERM and SIGHUP while it lives: a partial file is made
// and registered in one step, so that a signal never finds it unknown.
class HeldSignals {
 public:
  HeldSignals();
  ~HeldSignals();
  HeldSignals(const HeldSignals&) = delete;
  HeldSignals& operator=(const HeldSignals&) = delete;

 private:
  sigset_t saved_;
};

// The partial file being written now, which a signal removes (null for
// none). Set by Output and by load for its store.
void SetPartialFile(const char* path);
// Removes the partial file at SIGINT, SIGTERM and SIGHUP and ends with
// 128 + the signal.
void RemovePartialFilesOnSignals();
