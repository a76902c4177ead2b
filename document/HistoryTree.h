// The tree of a commit of a history: the document whole, and one file per
// object under its kind (objects/KIND/IDENTIFIER) holding its line.
#pragma once

#include <git2.h>

#include <string>

namespace doc {

// Writes the tree of document into repo, *tree its identifier: the tree of
// parent (null for none), whose document is previous, with the files of
// the lines that differ rewritten and those of objects no longer there
// removed. A night changes a few objects of thousands: only their lines
// are read, and only the trees that hold them written again. False with
// *error.
bool WriteTree(git_repository* repo, git_commit* parent,
               const std::string& previous, const std::string& document,
               git_oid* tree, std::string* error);

}  // namespace doc
