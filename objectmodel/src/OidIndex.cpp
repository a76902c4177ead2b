#include "OidIndex.h"

#include <algorithm>

namespace kiv {
namespace {

// The first 8 bytes of oid, zero-padded, as a big-endian number. Most oids
// are 8 bytes long or more: one load.
std::uint64_t Prefix(std::string_view oid) {
  if (oid.size() >= 8) return OidEntry::Key(oid.data());
  char head[8] = {};
  if (!oid.empty()) std::memcpy(head, oid.data(), oid.size());
  return OidEntry::Key(head);
}

// An oid being looked for, with its prefix worked out once.
struct Probe {
  std::string_view bytes;
  std::uint64_t prefix;
};

inline int Compare(const OidIndex& index, const OidEntry& a, const Probe& b) {
  const std::uint64_t prefix = a.Prefix();
  if (prefix != b.prefix) return prefix < b.prefix ? -1 : 1;
  if (a.size <= 8 && b.bytes.size() <= 8)
    return a.size == b.bytes.size() ? 0 : (a.size < b.bytes.size() ? -1 : 1);
  return index.Bytes(a).compare(b.bytes);
}

}  // namespace

int Order(const OidIndex& a, const OidEntry& x, const OidIndex& b,
          const OidEntry& y) {
  const std::uint64_t px = x.Prefix(), py = y.Prefix();
  if (px != py) return px < py ? -1 : 1;
  if (x.size <= 8 && y.size <= 8)
    return x.size == y.size ? 0 : (x.size < y.size ? -1 : 1);
  return a.Bytes(x).compare(b.Bytes(y));
}

void OidIndex::Add(std::string_view oid, std::int64_t rowid) {
  OidEntry entry{{},
                 static_cast<std::uint32_t>(arena_.size()),
                 static_cast<std::uint32_t>(oid.size()),
                 rowid};
  if (!oid.empty())
    std::memcpy(entry.head, oid.data(), oid.size() < 8 ? oid.size() : 8);
  if (oid.size() > 8) arena_.append(oid.data(), oid.size());
  if (!entries_.empty() && entries_.back().rowid > rowid) inRowOrder_ = false;
  if (entries_.size() % kSampleEvery == 0) samples_.push_back(entry.Prefix());
  entries_.push_back(entry);
}

void OidIndex::Finish() {
  if (inRowOrder_ || entries_.empty()) return;
  std::int64_t highest = 0;
  for (const OidEntry& e : entries_) {
    if (e.rowid < 0) return;
    highest = std::max(highest, e.rowid);
  }
  // Four bytes a row at most twice over: sparser rowids keep the search.
  if (static_cast<std::uint64_t>(highest) >= 2 * entries_.size() + 64) return;
  byRowid_.assign(static_cast<std::size_t>(highest) + 1, kNoEntry);
  for (std::size_t i = 0; i < entries_.size(); ++i)
    byRowid_[static_cast<std::size_t>(entries_[i].rowid)] =
        static_cast<std::uint32_t>(i);
}

int OidIndex::Compare(const OidEntry& a, std::string_view b) const {
  return kiv::Compare(*this, a, Probe{b, Prefix(b)});
}

const OidEntry* OidIndex::Find(std::string_view oid) const {
  const std::size_t n = entries_.size();
  if (n == 0) return nullptr;
  const Probe probe{oid, Prefix(oid)};
  // Rows read in order name the last entry or the one after it most of the
  // time, and otherwise one a few entries away.
  const int order = kiv::Compare(*this, entries_[last_], probe);
  if (order == 0) return &entries_[last_];
  if (order < 0 && last_ + 1 < n) {
    const int next = kiv::Compare(*this, entries_[last_ + 1], probe);
    if (next == 0) return &entries_[++last_];
    if (next > 0) return nullptr;
  }
  constexpr std::size_t kNear = 8;
  std::size_t low, high;  // the oid is in [low, high) if anywhere
  if (order < 0 && last_ + kNear < n &&
      kiv::Compare(*this, entries_[last_ + kNear], probe) >= 0) {
    low = last_ + 2;
    high = last_ + kNear + 1;
  } else if (order > 0 && last_ >= kNear &&
             kiv::Compare(*this, entries_[last_ - kNear], probe) <= 0) {
    low = last_ - kNear;
    high = last_;
  } else {
    // Far away: the samples narrow the search to the entries between the
    // samples around the oid's prefix.
    const auto first =
        std::lower_bound(samples_.begin(), samples_.end(), probe.prefix);
    const auto past = std::upper_bound(first, samples_.end(), probe.prefix);
    const auto block = static_cast<std::size_t>(first - samples_.begin());
    low = block > 0 ? (block - 1) * kSampleEvery : 0;
    high = std::min(
        n, static_cast<std::size_t>(past - samples_.begin()) * kSampleEvery);
  }
  while (low < high) {
    const std::size_t mid = low + (high - low) / 2;
    if (kiv::Compare(*this, entries_[mid], probe) < 0)
      low = mid + 1;
    else
      high = mid;
  }
  if (low == n || kiv::Compare(*this, entries_[low], probe) != 0)
    return nullptr;
  return &entries_[last_ = low];
}

}  // namespace kiv
