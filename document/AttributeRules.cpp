#include "AttributeRules.h"

#include "Escape.h"

namespace doc {

bool ReadAttributeRules(const std::vector<std::string>& rules,
                        AttributeMask* mask, std::string* error) {
  for (const std::string& rule : rules) {
    const std::size_t dot = rule.find('.');
    const Kind kind = dot == std::string::npos
                          ? kKindCount
                          : KindNamed(std::string_view(rule).substr(0, dot));
    const int attribute =
        kind == kKindCount
            ? -1
            : AttributeIndex(kind, std::string_view(rule).substr(dot + 1));
    if (attribute < 0 ||
        LayoutOf(kind).attributes[static_cast<std::size_t>(attribute)].field ==
            Field::kOid) {
      *error = vantrel::Escaped(rule) +
               " names no attribute: a rule is KIND.Attribute, as the "
               "document writes them (DATASERVER.ConnectionString)";
      return false;
    }
    (*mask)[kind] |= 1u << attribute;
  }
  return true;
}

}  // namespace doc
