// Values a store keeps when a document is applied to it: its run-time
// state, and the attributes apply --keep names. The document wanted is
// written again with the store's values of those attributes, for each
// object the store holds.
#pragma once

#include <string>

#include "AttributeRules.h"
#include "DocumentPlan.h"

namespace doc {

// Whether wanted gives an object of store another value of an attribute
// of kept.
bool HoldsOtherValues(const PlanDocument& store, const PlanDocument& wanted,
                      const AttributeMask& kept);

// Sets *text to the document in file written again as the exporter writes
// it, the values of the attributes of kept taken from store's for each
// object store holds (of the same kind); false when file cannot be read.
bool KeptDocument(const std::string& file, const PlanDocument& store,
                  const AttributeMask& kept, std::string* text);

}  // namespace doc
