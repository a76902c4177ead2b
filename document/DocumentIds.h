// The identifiers of a document held compactly, for the commands that
// gather every identifier of a large document: checking, comparing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "AdminDocument.h"

namespace doc {

// An identifier of a document, held in a few bytes: its first 8 bytes as a
// big-endian number, zero-padded (so that identifiers order as their bytes
// do), its size, and for a longer one its place in its document's list of
// long identifiers.
struct Id {
  std::uint64_t prefix = 0;
  std::uint32_t size = 0;
  std::uint32_t spill = 0;
};

// The bytes of the long identifiers of one document.
using Spill = std::vector<std::string>;

// The Id of identifier ("x" and hexadecimal), decoded as a store holds it;
// a long one is added to spill.
Id MakeId(std::string_view identifier, Spill& spill);
// Orders a of document sa against b of document sb as their bytes order.
int Compare(const Id& a, const Spill& sa, const Id& b, const Spill& sb);
// The identifier as the document writes it.
std::string Identifier(const Id& id, const Spill& spill);

// An element with an identifier.
struct Defined {
  Id id;
  Kind kind;
  std::uint32_t order;  // of the element among those with an identifier
  std::size_t line;
};

}  // namespace doc
