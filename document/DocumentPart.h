// Promoting a part of a document: the document a store is to export when
// only some objects of another document are taken, with their children,
// their link lists and their place in their lists.
#pragma once

#include <string>
#include <vector>

namespace doc {

// Sets *wanted to the document at current (what a store exports) with the
// objects of source whose identifiers are in ids, and their children, put
// in the place source gives them; what else current holds stays as it is.
// False with *error, naming source as shownSource, when an identifier names
// no object of source, or a file cannot be read; false with *missing set
// (identifiers of objects the part names that the result lacks, each
// once) when the part names what the store does not hold. Linear in the
// identifiers and the documents.
bool PromotePart(const std::string& current, const std::string& source,
                 const std::string& shownSource,
                 const std::vector<std::string>& ids, std::string* wanted,
                 std::vector<std::string>* missing, std::string* error);

}  // namespace doc
