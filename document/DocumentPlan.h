// The plan: what changes from one document to another, object by object.
// diff and apply compute it once; it is shown as text, as JSON for the
// gates of a pipeline, or as an HTML page for a reviewer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "DocumentIds.h"
#include "DocumentWalk.h"
#include "LargeAllocator.h"

namespace doc {

// The objects of one document, gathered as it is walked, for a plan.
class PlanDocument : public Visitor {
 public:
  void Element(const Line& line, std::size_t n, const Place& place) override;
  void Problem(std::size_t, const std::string&) override {}
  void Restart() override { *this = PlanDocument(); }
  // Makes room for the objects of a document of about bytes, so that they
  // are not copied as they come.
  void Reserve(std::size_t bytes);
  // Once the walk has ended: orders the identifiers for lookups.
  void Finish();

  struct Object {
    Kind kind;
    std::uint32_t present;
    std::size_t values;  // where its values start in the text
    std::size_t size;    // of its values, each ended by a line break
    Id oid;
    Id parent;  // size 0 for none
  };
  const kiv::LargeVector<Object>& Objects() const { return objects_; }
  const Spill& Long() const { return spill_; }
  // The values of o, each ended by a line break.
  std::string_view Values(const Object& o) const {
    return std::string_view(text_).substr(o.values, o.size);
  }
  // Value i of o.
  std::string_view Value(const Object& o, std::size_t i) const;
  // The name of o ("" for a kind without one).
  std::string_view Name(const Object& o) const;
  // The index of the object whose identifier is id (of spill), or npos.
  std::size_t Find(const Id& id, const Spill& spill) const;
  std::size_t Find(std::string_view identifier) const;
  // The identifier of the local site, "" for none.
  std::string LocalSite() const;
  // The name of the local site (the installation's), "" for none.
  std::string LocalSiteName() const;

 private:
  friend struct Planner;
  kiv::LargeVector<Object> objects_;  // in the document's order
  kiv::LargeVector<Defined> byOid_;   // sorted
  std::basic_string<char, std::char_traits<char>, kiv::LargeAllocator<char>>
      text_;
  Spill spill_;
};

// An identifier in a plan with the name of the object it names ("" for an
// object without a name, or none in the document).
struct PlanRef {
  std::string_view oid, name;
};

// An attribute that changed.
struct PlanValue {
  std::uint8_t attribute;  // its index in the layout of the object's kind
  bool had, has;
  std::string_view from, to;  // as the documents write them
  // For a reference or a list of them: what the old and the new value name.
  std::vector<PlanRef> fromRefs, toRefs;
};

struct PlanChange {
  enum Action : std::uint8_t { kRemoved, kAdded, kChanged, kMoved };
  Action action;
  Kind kind;
  Kind wasKind;    // for a change of kind, what it was; else kind
  PlanRef object;  // the object, with its name
  PlanRef parent;  // where it is (was, for a removal); no oid: the document
  // A move: where it was; for a move within its list, its places from 1
  // among the siblings both documents hold (0 for a move between parents).
  PlanRef fromParent;
  std::size_t fromPlace = 0, toPlace = 0;
  // A change: each attribute that changed; an addition or a removal: each
  // value the object has or had.
  std::vector<PlanValue> values;
};

// A list whose order changed: the objects of one kind under one parent.
struct PlanList {
  Kind kind;
  PlanRef parent;
};

// A plan views the texts of the two documents it was made from: they must
// outlive it. Its own memory is a few words for each change.
struct Plan {
  Plan() = default;
  Plan(Plan&&) = default;
  Plan& operator=(Plan&&) = default;
  // Not copied: a copy would view the texts its original spelled.
  Plan(const Plan&) = delete;
  Plan& operator=(const Plan&) = delete;

  // Objects added, removed, changed and moved; one both changed and moved
  // counts in both, and once in changedOrMoved; one whose identifier
  // changes kind, listed as a change, counts as removed and added.
  std::size_t added = 0, removed = 0, changed = 0, moved = 0;
  std::size_t changedOrMoved = 0;
  // Removals, then additions, changes and moves, each kind by kind in the
  // order of its document.
  std::vector<PlanChange> changes;
  std::vector<PlanList> reordered;
  // Run-time state that moved (a replication's last success), apart from
  // the configuration and not in its totals: each object changed, with
  // its run-time attributes that changed, in the order of changes.
  std::vector<PlanChange> runTime;
  // The identifiers, sorted, that the store gives to another object than
  // the document does: every view flags their changes.
  std::vector<std::string> otherObjects;
  // Whether views write secrets as they are (--show-secrets); else their
  // password parts are masked.
  bool showSecrets = false;
  // Whether the configuration is the same; run-time state may differ.
  bool Empty() const { return changes.empty(); }
  // The texts neither document holds as they are shown (an identifier
  // spelled anew); a deque, so that they stay where they are.
  std::deque<std::string> spelled;
};

// The plan that makes before into after; both walked and finished. A list
// reordered is told by the fewest moves that order it.
Plan MakePlan(const PlanDocument& before, const PlanDocument& after);

}  // namespace doc
