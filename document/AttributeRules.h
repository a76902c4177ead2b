// Rules that name attributes of the document by kind: "KIND.Attribute",
// as apply --keep takes them (the store's values kept), and as a history
// names the values it ignores.
#pragma once

#include <array>
#include <cstdint>
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

}  // namespace doc
