// The index of oids of one table: every oid of its rows, sorted as SQLite
// sorts BLOBs, with the row that holds it. It answers every reference of a
// store without a statement.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "LargeAllocator.h"

namespace kiv {

// One row of an object table in its index of oids. An oid of up to 8 bytes
// is held in the entry itself, a longer one in the index's arena.
struct OidEntry {
  char head[8];          // the first 8 bytes, zero-padded
  std::uint32_t offset;  // where a longer oid starts in the arena
  std::uint32_t size;
  std::int64_t rowid;
  // The first 8 bytes as a big-endian number: prefixes order as the bytes.
  std::uint64_t Prefix() const { return Key(head); }
  // The 8 bytes at bytes as a big-endian number.
  static std::uint64_t Key(const char* bytes) {
    std::uint64_t key;
    std::memcpy(&key, bytes, 8);
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    key = __builtin_bswap64(key);
#endif
    return key;
  }
};

class OidIndex {
 public:
  void Reserve(std::size_t count) {
    entries_.reserve(count);
    samples_.reserve(count / kSampleEvery + 1);
  }
  // Adds an oid; entries must come in sorted order.
  void Add(std::string_view oid, std::int64_t rowid);
  // Called once every oid is added: when the rows are out of the order of
  // their oids, maps their rowids to their entries, so that a row read in
  // any order finds its own entry without a search.
  void Finish();
  // The entry of the row rowid, or null when there is none or the rowids
  // are unmapped (in row order, or too sparse for a map).
  const OidEntry* AtRowid(std::int64_t rowid) const {
    const auto at = static_cast<std::uint64_t>(rowid);
    if (at >= byRowid_.size() || byRowid_[at] == kNoEntry) return nullptr;
    return &entries_[byRowid_[at]];
  }
  // The entry of oid, or null. Searches near the last hit first, so that
  // references in the order of their rows cost little search.
  const OidEntry* Find(std::string_view oid) const;
  // The oid of e, which lives as long as the index.
  std::string_view Bytes(const OidEntry& e) const {
    return std::string_view(e.size <= 8 ? e.head : arena_.data() + e.offset,
                            e.size);
  }
  const LargeVector<OidEntry>& Entries() const { return entries_; }
  // True when the rows are stored in the order of their oids, so that a
  // statement ordered by oid meets them in row order too.
  bool InRowOrder() const { return inRowOrder_; }
  // Orders a against b as SQLite orders BLOBs.
  int Compare(const OidEntry& a, std::string_view b) const;
  // The position of e among the entries.
  std::uint32_t Position(const OidEntry& e) const {
    return static_cast<std::uint32_t>(&e - entries_.data());
  }

  // The prefix of every kSampleEvery-th entry, from the first, is kept in a
  // table small enough to stay in the cache.
  static constexpr std::size_t kSampleEvery = 64;

 private:
  LargeVector<OidEntry> entries_;
  std::vector<std::uint64_t> samples_;
  std::string arena_;
  static constexpr std::uint32_t kNoEntry = ~std::uint32_t{0};
  std::vector<std::uint32_t> byRowid_;  // entry positions by rowid
  bool inRowOrder_ = true;
  mutable std::size_t last_ = 0;
};

// Orders x of index a against y of index b as SQLite orders BLOBs.
int Order(const OidIndex& a, const OidEntry& x, const OidIndex& b,
          const OidEntry& y);

}  // namespace kiv
