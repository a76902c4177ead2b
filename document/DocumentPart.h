// Promoting a part of a document: the document a store is to export when
// only some objects of another document are taken, with their children,
// their link lists and their place in their lists.
#pragma once

#include <string>
#include <vector>

namespace doc {

// A part to promote: the objects ids name (identifiers, or "KIND:NAME" for
// the one object of that kind and name) in the document source (named
// shownSource in messages), put into current, the store's export.
struct PartRequest {
  std::string current, source, shownSource;
  std::vector<std::string> ids;
  // Brings along what the part names that the store lacks, as long as
  // source holds it, and what that names in turn.
  bool withReferences = false;
};

// A part made, or what keeps it from being made.
struct Part {
  std::string wanted;  // the document the store is to export
  // What the part names that the store lacks, each once: their
  // identifiers, and as messages name them (kind, identifier, name).
  std::vector<std::string> missingIds, missing;
  // The identifiers brought along with --with-references.
  std::vector<std::string> broughtAlong;
  // Each chosen object the store holds as another object (another kind or
  // name): their identifiers, sorted, and as messages tell them.
  std::vector<std::string> otherObjectIds, otherObjects;
};

// Sets part->wanted to current with the objects of source that request
// names, and their children, put in the place source gives them; what else
// current holds stays as it is. False with *error when a name is no object
// of source (or names several), or a file cannot be read; false with
// part->missing set when the part names what the store does not hold.
// Linear in the identifiers and the documents.
bool PromotePart(const PartRequest& request, Part* part, std::string* error);

}  // namespace doc
