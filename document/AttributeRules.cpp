#include "AttributeRules.h"

#include <sstream>

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

bool ReadIgnoreRules(const std::string& text,
                     std::map<std::string, AttributeMask>* ignored,
                     std::string* error) {
  (*ignored)[""];
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string rule, installation;
    if (!(words >> rule) || rule[0] == '#') continue;
    words >> installation;
    if (!ReadAttributeRules({rule}, &(*ignored)[installation], error))
      return false;
  }
  return true;
}

AttributeMask IgnoredFor(const std::map<std::string, AttributeMask>& ignored,
                         const std::string& installation) {
  AttributeMask mask{};
  for (const std::string& who : {std::string(), installation}) {
    const auto rules = ignored.find(who);
    if (rules == ignored.end()) continue;
    for (int k = 0; k < kKindCount; ++k) mask[k] |= rules->second[k];
  }
  return mask;
}

}  // namespace doc
