// Documents and commits of a history as a command line names them:
// REPO@REV beside a plain file.
#pragma once

#include <string>

namespace doc {

// A document as a command line names it: a file (an argument that names an
// existing file is that file), or REPO@REV, a revision of a history (see
// History::Document). Sets *path to a file that holds it: arg itself, or a
// temporary file, already removed and held open while the process lasts,
// named arg in messages. False with *error for a revision that cannot be
// read.
bool DocumentArgument(const std::string& arg, std::string* path,
                      std::string* error);

// A commit of a history as the command line names it, REPO@REV: sets
// *before and *after to files that hold the documents of its parent and of
// itself (as DocumentArgument makes them, named "REPO@REV^" and arg), and
// *commit to its identifier. False with *error for an argument that is not
// one, or a commit that cannot be read.
bool ChangeArgument(const std::string& arg, std::string* before,
                    std::string* after, std::string* commit,
                    std::string* error);

}  // namespace doc
