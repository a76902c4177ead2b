// The files an apply reads and makes: documents read bounded, standard
// input copied to be read twice, the store's export through its
// transaction, and files in memory that nothing outlives.
#pragma once

#include <string>
#include <string_view>

struct sqlite3;

namespace doc {

// Exports the store that db serves, in its transaction, to file; true when
// the exporter succeeded (its messages went to standard error).
bool ExportThrough(sqlite3* db, const std::string& file);

// True when the file at path holds bytes exactly; read a block at a time.
bool Holds(const std::string& path, std::string_view bytes);

// A file in memory, named by a path of /proc: nothing of it is left on a
// disk whatever ends the process, and no temporary directory can fail it.
struct Temporary {
  Temporary();
  ~Temporary();
  Temporary(const Temporary&) = delete;
  Temporary& operator=(const Temporary&) = delete;
  int fd = -1;
  int error = 0;  // why there is no file
  std::string path;
};

// Sets *path to a file that holds the document file: file itself, or for
// "-" a copy of standard input in input. False with *error.
bool Readable(const std::string& file, Temporary& input, std::string* path,
              std::string* error);

// Reads the document file whole into *bytes, as any document is read:
// bounded, and only from a regular file. False with the reason in *error.
bool ReadDocumentFile(const std::string& file, std::string* bytes,
                      std::string* error);

}  // namespace doc
