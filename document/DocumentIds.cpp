#include "DocumentIds.h"

#include "Hex.h"

namespace doc {

Id MakeId(std::string_view identifier, Spill& spill) {
  std::string bytes;
  vantrel::Unhex(identifier.substr(1), &bytes);
  Id id;
  id.size = static_cast<std::uint32_t>(bytes.size());
  for (std::size_t i = 0; i < 8; ++i)
    id.prefix = (id.prefix << 8) |
                (i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0u);
  if (id.size > 8) {
    id.spill = static_cast<std::uint32_t>(spill.size());
    spill.push_back(bytes);
  }
  return id;
}

int Compare(const Id& a, const Spill& sa, const Id& b, const Spill& sb) {
  if (a.prefix != b.prefix) return a.prefix < b.prefix ? -1 : 1;
  if (a.size <= 8 || b.size <= 8)
    return a.size == b.size ? 0 : (a.size < b.size ? -1 : 1);
  return sa[a.spill].compare(sb[b.spill]);
}

std::string Identifier(const Id& id, const Spill& spill) {
  std::string bytes;
  if (id.size > 8) {
    bytes = spill[id.spill];
  } else {
    for (std::uint32_t i = 0; i < id.size; ++i)
      bytes += static_cast<char>((id.prefix >> (56 - 8 * i)) & 0xFF);
  }
  return "x" + vantrel::Hex(bytes);
}

}  // namespace doc
