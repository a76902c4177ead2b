// A file that a command writes whole or not at all.
//
// A regular file is written as a partial file beside it
// (NAME.partial-XXXXXX), written to the disk and renamed over it, keeping
// its mode and, where the process may set them, its owner and group. A
// symbolic link stays: the file it leads to is what gets replaced. What is
// not a regular file (standard output for "-", a character device, a FIFO,
// a socket) is written into, as a shell redirection would: what is written
// is held in a spool file in the temporary directory until the commit, so
// that a document read twice is written once. A failure, or a signal,
// removes the partial file or the spool.
#pragma once

#include <signal.h>
#include <sys/stat.h>

#include <fstream>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "Signals.h"

namespace vdoc {

class Output {
 public:
  // What may be replaced: the first bytes of an existing regular file
  // (empty for an empty one) are shown to it, and false leaves the file as
  // it was. Null: any regular file.
  using Replaceable = std::function<bool(std::string_view head)>;

  Output() = default;
  ~Output();  // removes the partial file unless committed
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  // Creates the partial file for path, an output of a command that reads
  // inputs; false with the reason, naming what failed, in *error. What
  // no output may be (vantrel::RefusedOutput) is refused, and with
  // regularOnly so is a target that is not a regular file.
  bool Open(const std::string& path, const std::vector<std::string>& inputs,
            std::string* error, bool regularOnly = false,
            const Replaceable& replaceable = nullptr);
  std::ofstream& Stream() { return file_; }
  // The partial file being written.
  const std::string& PartialPath() const { return partial_; }
  // Empties what was written, to write again from the start.
  bool Rewind(std::string* error);
  // Writes the file to the disk and gives it its name, or copies the spool
  // into the target; false with the reason in *error.
  bool Commit(std::string* error);

 private:
  bool CommitFile(std::string* error);
  bool CommitSpool(std::string* error);
  std::string path_;  // the file replaced, links followed
  std::string partial_;
  std::ofstream file_;
  int direct_ = -1;  // the target written into through a spool, or -1
};

// The partial file being written now, which a signal removes (null for
// none). Set by Output and by load for its store.
void SetPartialFile(const char* path);
// Removes the partial file at SIGINT, SIGTERM, SIGHUP, SIGPIPE and SIGXFSZ
// (a file-size limit), then ends by the signal.
void RemovePartialFilesOnSignals();

}  // namespace vdoc
