// Tests of the index of oids and the pool, which use no SQLite.
//
// Plan:
//   OidIndex  every oid of a table is found and nothing else, whatever the
//             order of the asks: short and long oids, prefixes shared past
//             8 bytes, trailing zero bytes, more entries than one sample
//             block, searches near the last hit, a few back and far away;
//             rows out of their oids' order found by rowid
//   Pool      blocks aligned and distinct, a block given back is the next
//             taken, chunks grow as the pool fills
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "OidIndex.h"
#include "Pool.h"

using kiv::OidEntry;
using kiv::OidIndex;

namespace {

// An index of oids, added in sorted order (as SQLite sorts BLOBs), each
// with its position as its rowid.
OidIndex Indexed(std::vector<std::string> oids) {
  std::sort(oids.begin(), oids.end());
  OidIndex index;
  for (std::size_t i = 0; i < oids.size(); ++i)
    index.Add(oids[i], static_cast<std::int64_t>(i));
  return index;
}

std::string Numbered(const std::string& head, int i) {
  std::string oid = head;
  oid += static_cast<char>(i >> 8);
  oid += static_cast<char>(i & 0xFF);
  return oid;
}

struct IndexCase {
  const char* name;
  std::vector<std::string> present;
  std::vector<std::string> absent;
};

std::vector<IndexCase> IndexCases() {
  using std::string;
  std::vector<IndexCase> cases = {
      {"short", {"\x0A\x01", "\x0A\x02", "\x0B"}, {"\x0A", "\x0A\x03", "\x0C"}},
      {"trailing zero bytes",
       {string("\x0A\x01", 2), string("\x0A\x01\x00", 3)},
       {string("\x0A\x01\x00\x00", 4), string("\x0A\x00", 2)}},
      {"long, equal in their first 8 bytes",
       {"ABCDEFGH", "ABCDEFGHI", "ABCDEFGHIJ", "ABCDEFGHJ"},
       {"ABCDEFG", "ABCDEFGHIA", "ABCDEFGHK"}},
  };
  // More entries than one sample block, long ones sharing 8 bytes.
  IndexCase many{"200 long oids sharing their first 8 bytes", {}, {}};
  for (int i = 0; i < 200; ++i) {
    many.present.push_back(Numbered("PREFIX00", 2 * i));
    many.absent.push_back(Numbered("PREFIX00", 2 * i + 1));
  }
  cases.push_back(many);
  IndexCase spread{"300 short oids", {}, {}};
  for (int i = 0; i < 300; ++i) {
    spread.present.push_back(Numbered("", 3 * i + 1));
    spread.absent.push_back(Numbered("", 3 * i + 2));
  }
  cases.push_back(spread);
  return cases;
}

// Each ask, in every order: the rows' own (ascending), backwards (the near
// window behind the last hit) and shuffled (far references).
TEST(OidIndex, FindsEveryOidAndNothingElseInAnyOrder) {
  for (const IndexCase& c : IndexCases()) {
    SCOPED_TRACE(c.name);
    const OidIndex index = Indexed(c.present);
    std::vector<std::string> asks = c.present;
    asks.insert(asks.end(), c.absent.begin(), c.absent.end());
    std::sort(asks.begin(), asks.end());
    std::vector<std::vector<std::string>> orders = {asks, asks, asks};
    std::reverse(orders[1].begin(), orders[1].end());
    std::shuffle(orders[2].begin(), orders[2].end(), std::mt19937(7));
    const std::set<std::string> present(c.present.begin(), c.present.end());
    for (const auto& order : orders) {
      for (const std::string& oid : order) {
        const OidEntry* entry = index.Find(oid);
        ASSERT_EQ(entry != nullptr, present.count(oid) == 1)
            << "oid of " << oid.size() << " bytes";
        if (entry) {
          EXPECT_EQ(index.Bytes(*entry), oid);
        }
      }
    }
  }
}

// Steps of a few entries back and forth from the last hit: the windows of
// 8 entries either side and their edges.
TEST(OidIndex, FindsEntriesAFewStepsFromTheLastHit) {
  std::vector<std::string> oids;
  for (int i = 0; i < 100; ++i) oids.push_back(Numbered("", i));
  const OidIndex index = Indexed(oids);
  for (int from : {0, 10, 50, 91, 99})
    for (int step : {-9, -8, -7, -2, -1, 1, 2, 7, 8, 9}) {
      const int to = from + step;
      if (to < 0 || to >= 100) continue;
      ASSERT_NE(index.Find(oids[from]), nullptr);
      const OidEntry* entry = index.Find(oids[to]);
      ASSERT_NE(entry, nullptr) << from << " then " << to;
      EXPECT_EQ(entry->rowid, to);
    }
}

// Rows out of their oids' order are mapped by rowid, unless their rowids
// are too sparse to map; rows in order need no map.
TEST(OidIndex, MapsRowidsOfRowsOutOfTheirOidsOrder) {
  struct Case {
    const char* name;
    std::vector<std::int64_t> rowids;  // of the oids 1, 2, 3, ... in turn
    bool inRowOrder;
    bool mapped;
  };
  const Case cases[] = {
      {"in order", {1, 2, 5}, true, false},
      {"shuffled", {3, 1, 2}, false, true},
      {"shuffled, with gaps and rowid 0", {9, 0, 4, 7}, false, true},
      {"too sparse to map", {1000, 1}, false, false},
      {"a negative rowid", {2, -1}, false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    OidIndex index;
    for (std::size_t i = 0; i < c.rowids.size(); ++i)
      index.Add(std::string(1, static_cast<char>(i + 1)), c.rowids[i]);
    index.Finish();
    EXPECT_EQ(index.InRowOrder(), c.inRowOrder);
    std::set<std::int64_t> rowids(c.rowids.begin(), c.rowids.end());
    for (std::int64_t rowid = -2; rowid < 12; ++rowid) {
      const OidEntry* entry = index.AtRowid(rowid);
      if (!c.mapped || !rowids.count(rowid)) {
        EXPECT_EQ(entry, nullptr) << "rowid " << rowid;
        continue;
      }
      ASSERT_NE(entry, nullptr) << "rowid " << rowid;
      EXPECT_EQ(entry->rowid, rowid);
    }
  }
}

TEST(Pool, BlocksAreAlignedDistinctAndReusedOnceGivenBack) {
  const struct {
    std::size_t size;
    int blocks;
  } cases[] = {{1, 40}, {24, 1000}, {200, 5000}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.size);
    kiv::Pool pool;
    std::set<void*> taken;
    for (int i = 0; i < c.blocks; ++i) {
      void* block = pool.Take(c.size);
      EXPECT_EQ(
          reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t),
          0u);
      ASSERT_TRUE(taken.insert(block).second) << "block " << i;
    }
    // Chunks grow as the pool fills: far fewer than blocks.
    EXPECT_LT(pool.Chunks(), 12u);
    void* first = *taken.begin();
    void* second = *std::next(taken.begin());
    pool.Give(first);
    pool.Give(second);
    const std::size_t chunks = pool.Chunks();
    EXPECT_EQ(pool.Take(c.size), second);
    EXPECT_EQ(pool.Take(c.size), first);
    EXPECT_EQ(pool.Chunks(), chunks);
  }
}

}  // namespace
