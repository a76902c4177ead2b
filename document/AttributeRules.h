// Rules that name attributes of the document by kind: "KIND.Attribute",
// as apply --keep takes them (the store's values kept), and as a history
// names the values it ignores.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "AdminDocument.h"

namespace doc {

// For each kind, the attributes the rules name, a bit each by index.
using AttributeMask = std::array<std::uint32_t, kKindCount>;

// Reads rules, each "KIND.Attribute", into *mask (added to what it holds);
// false with *error naming the first rule that names no attribute of the
// document. An identifier is not a rule's: it is what an object is.
bool ReadAttributeRules(const std::vector<std::string>& rules,
                        AttributeMask* mask, std::string* error);

// A history's rules of what to ignore (REPO/vantrel-ignore), a line each:
// "KIND.Attribute" for every installation's values, "KIND.Attribute
// INSTALLATION" for one installation's; '#' starts a comment. The masks by
// installation, "" for every installation's; false with *error.
bool ReadIgnoreRules(const std::string& text,
                     std::map<std::string, AttributeMask>* ignored,
                     std::string* error);
// The attributes ignored for installation: every installation's and its
// own.
AttributeMask IgnoredFor(const std::map<std::string, AttributeMask>& ignored,
                         const std::string& installation);

}  // namespace doc
