// Undoing one commit of a history on a live store: what the commit changed
// is taken back from the store's document, and everything changed since is
// kept. A value, an object or a place a later change touched where the
// commit did is a conflict, and nothing is undone.
#pragma once

#include <string>
#include <vector>

namespace doc {

// The documents of a revert: the store's export, and the documents of the
// commit's parent and of the commit, named shown in messages.
struct RevertRequest {
  std::string current, before, after, shown;
};

// A revert made, or the conflicts that keep it from being made.
struct Reverted {
  std::string wanted;  // the document the store is to export
  // Each object a later change touched where the commit did, as messages
  // tell it, in the order of the commit's document.
  std::vector<std::string> conflicts;
  // The local site of the commit's document (its installation), "" for
  // none: a commit of another installation is no change of this store's.
  std::string site;
};

// Sets reverted->wanted to current with the changes from before to after
// undone:
//   - a value after changed goes back to before's, where current still
//     holds after's;
//   - an object after added is taken out, where current holds it as after
//     does, with no child added since;
//   - an object after removed is put back at before's place, with its
//     children.
// Run-time state (when a replication last succeeded) is neither undone nor
// a conflict: the store keeps its own; so is an object's place among its
// siblings. False with reverted->conflicts set, or with *error for a file
// that cannot be read. Linear in the documents.
bool RevertCommit(const RevertRequest& request, Reverted* reverted,
                  std::string* error);

}  // namespace doc
