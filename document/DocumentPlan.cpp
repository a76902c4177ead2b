#include "DocumentPlan.h"

#include <algorithm>

namespace doc {
void PlanDocument::Element(const Line& line, std::size_t, const Place& place) {
  const int oidAt = OidIndex(line.kind);
  if (oidAt < 0) return;  // the server wrapper: not an object
  Object object{line.kind,
                line.present,
                text_.size(),
                0,
                MakeId(line.values[oidAt], spill_),
                place.parent.empty() ? Id{} : MakeId(place.parent, spill_)};
  for (std::string_view value : line.values) (text_ += value) += '\n';
  object.size = text_.size() - object.values;
  objects_.push_back(object);
}

void PlanDocument::Reserve(std::size_t bytes) {
  // Values are most of a document's bytes; an object takes about 100.
  text_.reserve(bytes);
  objects_.reserve(bytes / 100);
}

void PlanDocument::Finish() {
  byOid_.clear();
  byOid_.reserve(objects_.size());
  for (std::size_t i = 0; i < objects_.size(); ++i)
    byOid_.push_back(
        {objects_[i].oid, objects_[i].kind, static_cast<std::uint32_t>(i), 0});
  std::sort(byOid_.begin(), byOid_.end(),
            [&](const Defined& a, const Defined& b) {
              return Compare(a.id, spill_, b.id, spill_) < 0;
            });
}

std::string_view PlanDocument::Value(const Object& o, std::size_t i) const {
  const std::string_view values = Values(o);
  std::size_t start = 0;
  while (i--) start = values.find('\n', start) + 1;
  return values.substr(start, values.find('\n', start) - start);
}

std::string_view PlanDocument::Name(const Object& o) const {
  const int at = NameIndex(o.kind);
  return at < 0 ? std::string_view() : Value(o, static_cast<std::size_t>(at));
}

std::size_t PlanDocument::Find(const Id& id, const Spill& spill) const {
  const auto it = std::lower_bound(
      byOid_.begin(), byOid_.end(), id, [&](const Defined& d, const Id& key) {
        return Compare(d.id, spill_, key, spill) < 0;
      });
  return it != byOid_.end() && Compare(it->id, spill_, id, spill) == 0
             ? it->order
             : std::string::npos;
}

std::size_t PlanDocument::Find(std::string_view identifier) const {
  Spill probe;
  const Id id = MakeId(identifier, probe);
  return Find(id, probe);
}

std::string PlanDocument::LocalSite() const {
  for (const Object& o : objects_)
    if (o.kind == kLocalSite) return Identifier(o.oid, spill_);
  return std::string();
}

std::string PlanDocument::LocalSiteName() const {
  for (const Object& o : objects_)
    if (o.kind == kLocalSite) return std::string(Name(o));
  return std::string();
}

// The working of MakePlan: the two documents and each object's match.
struct Planner {
  static constexpr std::size_t kNone = std::string::npos;
  const PlanDocument& before;
  const PlanDocument& after;
  std::vector<std::size_t> inAfter, inBefore;
  // Each object's place among the siblings of its kind that both documents
  // hold under the same parent.
  std::vector<std::size_t> beforePlace, afterPlace;
  std::deque<std::string>* spelled;  // the plan's

  static bool SameParent(const PlanDocument::Object& a, const Spill& sa,
                         const PlanDocument::Object& b, const Spill& sb) {
    return a.parent.size == b.parent.size &&
           (a.parent.size == 0 || Compare(a.parent, sa, b.parent, sb) == 0);
  }

  // Each object's match in the other document, from one merge of the two
  // sorted lists of identifiers.
  void Match() {
    inAfter.assign(before.objects_.size(), kNone);
    inBefore.assign(after.objects_.size(), kNone);
    for (std::size_t i = 0, j = 0;
         i < before.byOid_.size() && j < after.byOid_.size();) {
      const int order = Compare(before.byOid_[i].id, before.spill_,
                                after.byOid_[j].id, after.spill_);
      if (order == 0) {
        inAfter[before.byOid_[i].order] = after.byOid_[j].order;
        inBefore[after.byOid_[j].order] = before.byOid_[i].order;
      }
      i += order <= 0;
      j += order >= 0;
    }
  }

  static std::vector<std::size_t> Places(const PlanDocument& doc,
                                         const std::vector<std::size_t>& match,
                                         const PlanDocument& other) {
    std::vector<std::size_t> places(doc.objects_.size(), 0);
    std::size_t top[kKindCount] = {}, child[kKindCount] = {};
    const PlanDocument::Object* previous = nullptr;
    for (std::size_t i = 0; i < doc.objects_.size(); ++i) {
      const PlanDocument::Object& o = doc.objects_[i];
      if (!previous || !SameParent(o, doc.spill_, *previous, doc.spill_))
        std::fill(std::begin(child), std::end(child), 0);
      previous = &o;
      const std::size_t j = match[i];
      if (j == kNone || other.objects_[j].kind != o.kind ||
          !SameParent(o, doc.spill_, other.objects_[j], other.spill_))
        continue;
      places[i] = o.parent.size == 0 ? top[o.kind]++ : child[o.kind]++;
    }
    return places;
  }

  PlanRef Ref(const PlanDocument& doc, const Id& id) const {
    if (id.size == 0) return PlanRef();
    const std::size_t at = doc.Find(id, doc.spill_);
    if (at == kNone)
      return {spelled->emplace_back(Identifier(id, doc.spill_)), {}};
    return Self(doc, doc.objects_[at]);
  }
  static PlanRef Self(const PlanDocument& doc, const PlanDocument::Object& o) {
    return {doc.Value(o, static_cast<std::size_t>(OidIndex(o.kind))),
            doc.Name(o)};
  }
  // What value (of an attribute of field) names, in doc.
  static std::vector<PlanRef> Refs(const PlanDocument& doc, Field field,
                                   std::string_view value) {
    std::vector<PlanRef> refs;
    if (field == Field::kRef || field == Field::kMedia) {
      if (!value.empty()) refs.push_back({value, {}});
    } else if (field == Field::kRefs) {
      for (std::string_view id : Identifiers(value)) refs.push_back({id, {}});
    }
    for (PlanRef& r : refs) {
      const std::size_t at = doc.Find(r.oid);
      if (at != kNone) r.name = doc.Name(doc.objects_[at]);
    }
    return refs;
  }

  // Every present value of o in doc, as the new values of an object added
  // (asNew) or the old ones of an object removed.
  std::vector<PlanValue> AllValues(const PlanDocument& doc,
                                   const PlanDocument::Object& o,
                                   bool asNew) const {
    std::vector<PlanValue> values;
    const Layout& layout = LayoutOf(o.kind);
    for (std::size_t k = 0; k < layout.attributes.size(); ++k) {
      if (!((o.present >> k) & 1)) continue;
      const std::string_view value = doc.Value(o, k);
      std::vector<PlanRef> refs = Refs(doc, layout.attributes[k].field, value);
      PlanValue v{static_cast<std::uint8_t>(k), !asNew, asNew, {}, {}, {}, {}};
      (asNew ? v.to : v.from) = value;
      (asNew ? v.toRefs : v.fromRefs) = std::move(refs);
      values.push_back(std::move(v));
    }
    return values;
  }

  // The objects of after that are not in the longest run of its lists kept
  // in their order: the fewest moves that reorder each list. Sets moved[i]
  // and names each list whose order changed.
  void Reordered(std::vector<bool>& moved, std::vector<PlanList>& lists) const {
    // Each object both documents hold under the same parent, keyed by its
    // list: its kind, and its parent's run (0 for the document's own).
    struct Member {
      std::uint64_t list;
      std::size_t index;
    };
    std::vector<Member> members;
    std::uint64_t run = 0;
    const PlanDocument::Object* previous = nullptr;
    for (std::size_t i = 0; i < after.objects_.size(); ++i) {
      const PlanDocument::Object& o = after.objects_[i];
      if (o.parent.size != 0 &&
          (!previous || !SameParent(o, after.spill_, *previous, after.spill_)))
        ++run;
      previous = &o;
      const std::size_t j = inBefore[i];
      if (j == kNone || before.objects_[j].kind != o.kind ||
          !SameParent(o, after.spill_, before.objects_[j], before.spill_))
        continue;
      members.push_back(
          {(o.parent.size == 0 ? 0 : run) * kKindCount + o.kind, i});
    }
    std::stable_sort(
        members.begin(), members.end(),
        [](const Member& a, const Member& b) { return a.list < b.list; });
    // A longest increasing run of the old places, by patience sorting.
    std::vector<std::size_t> tails, previousOf;
    for (std::size_t start = 0, end = 0; start < members.size(); start = end) {
      for (end = start;
           end < members.size() && members[end].list == members[start].list;
           ++end) {
      }
      const auto was = [&](std::size_t m) {
        return beforePlace[inBefore[members[m].index]];
      };
      bool ordered = true;
      for (std::size_t m = start + 1; m < end && ordered; ++m)
        ordered = was(m - 1) < was(m);
      if (ordered) continue;
      tails.clear();
      previousOf.assign(end - start, kNone);
      for (std::size_t m = start; m < end; ++m) {
        const auto at = std::lower_bound(
            tails.begin(), tails.end(), was(m),
            [&](std::size_t t, std::size_t value) { return was(t) < value; });
        if (at != tails.begin()) previousOf[m - start] = *(at - 1);
        if (at == tails.end())
          tails.push_back(m);
        else
          *at = m;
      }
      for (std::size_t m = start; m < end; ++m) moved[members[m].index] = true;
      for (std::size_t m = tails.back(); m != kNone; m = previousOf[m - start])
        moved[members[m].index] = false;
      const PlanDocument::Object& first = after.objects_[members[start].index];
      lists.push_back({first.kind, Ref(after, first.parent)});
    }
  }
};

namespace {

// A change without values.
PlanChange NewChange(PlanChange::Action action, Kind kind, Kind wasKind,
                     PlanRef object, PlanRef parent) {
  PlanChange c;
  c.action = action;
  c.kind = kind;
  c.wasKind = wasKind;
  c.object = object;
  c.parent = parent;
  return c;
}

// The objects of each action and kind, in their document's order, and last
// those whose run-time state changed: the changes are then made once, in
// the order the plan lists them.
constexpr int kRunTime = 4;
using ByAction = std::vector<std::uint32_t>[5][kKindCount];

// Whether the objects was and now differ in the attributes of mask, among
// those of their kind.
bool Differ(const PlanDocument& before, const PlanDocument::Object& was,
            const PlanDocument& after, const PlanDocument::Object& now,
            std::uint32_t mask) {
  if ((was.present ^ now.present) & mask) return true;
  for (std::size_t k = 0; k < LayoutOf(now.kind).attributes.size(); ++k)
    if ((mask >> k & 1) && before.Value(was, k) != after.Value(now, k))
      return true;
  return false;
}

// Sorts the objects of both documents into by, and counts them in plan.
void Classify(const Planner& planner, const std::vector<bool>& reordered,
              Plan& plan, ByAction& by) {
  const PlanDocument& before = planner.before;
  const PlanDocument& after = planner.after;
  for (std::size_t i = 0; i < before.Objects().size(); ++i)
    if (planner.inAfter[i] == Planner::kNone)
      by[PlanChange::kRemoved][before.Objects()[i].kind].push_back(
          static_cast<std::uint32_t>(i));
  for (std::size_t i = 0; i < after.Objects().size(); ++i) {
    const auto& now = after.Objects()[i];
    const auto index = static_cast<std::uint32_t>(i);
    const std::size_t j = planner.inBefore[i];
    if (j == Planner::kNone) {
      by[PlanChange::kAdded][now.kind].push_back(index);
      continue;
    }
    const auto& was = before.Objects()[j];
    bool changed = was.kind != now.kind || was.present != now.present ||
                   before.Values(was) != after.Values(now);
    // Run-time state is told apart, and counts in no total.
    const std::uint32_t runTime = RunTimeAttributes(now.kind);
    if (changed && runTime && was.kind == now.kind) {
      if (Differ(before, was, after, now, runTime))
        by[kRunTime][now.kind].push_back(index);
      changed = Differ(before, was, after, now, ~runTime);
    }
    // A change of kind is that object's only change.
    const bool moved =
        was.kind == now.kind &&
        (!Planner::SameParent(was, before.Long(), now, after.Long()) ||
         reordered[i]);
    if (changed) by[PlanChange::kChanged][now.kind].push_back(index);
    if (moved) by[PlanChange::kMoved][now.kind].push_back(index);
    // A change of kind removes the object the store holds and adds
    // another: the totals count it so, as the guards and gates read them.
    const bool newKind = was.kind != now.kind;
    plan.removed += newKind;
    plan.added += newKind;
    plan.changed += changed && !newKind;
    plan.moved += moved;
    plan.changedOrMoved += (changed && !newKind) || moved;
  }
  for (const auto& kinds : by[PlanChange::kRemoved])
    plan.removed += kinds.size();
  for (const auto& kinds : by[PlanChange::kAdded]) plan.added += kinds.size();
}

// Each object removed or added, with every value it had or has.
void AddWhole(Planner& planner, PlanChange::Action action,
              const PlanDocument& doc, const ByAction& by, Plan& plan) {
  for (const auto& kinds : by[action])
    for (const std::uint32_t i : kinds) {
      const auto& o = doc.Objects()[i];
      plan.changes.push_back(NewChange(action, o.kind, o.kind,
                                       Planner::Self(doc, o),
                                       planner.Ref(doc, o.parent)));
      plan.changes.back().values =
          planner.AllValues(doc, o, action == PlanChange::kAdded);
    }
}

// Each object changed, with the attributes that changed: the configuration
// into changes, or with runTime the run-time state into runTime.
void AddChanged(Planner& planner, const ByAction& by, bool runTime,
                Plan& plan) {
  const PlanDocument& before = planner.before;
  const PlanDocument& after = planner.after;
  std::vector<PlanChange>& into = runTime ? plan.runTime : plan.changes;
  for (const auto& kinds : by[runTime ? kRunTime : PlanChange::kChanged])
    for (const std::uint32_t i : kinds) {
      const auto& now = after.Objects()[i];
      const auto& was = before.Objects()[planner.inBefore[i]];
      into.push_back(NewChange(PlanChange::kChanged, now.kind, was.kind,
                               Planner::Self(after, now),
                               planner.Ref(after, now.parent)));
      if (was.kind != now.kind) continue;
      PlanChange& c = into.back();
      const Layout& layout = LayoutOf(now.kind);
      for (std::size_t k = 0; k < layout.attributes.size(); ++k) {
        if (layout.attributes[k].runTime != runTime) continue;
        const bool had = (was.present >> k) & 1, has = (now.present >> k) & 1;
        const std::string_view from = before.Value(was, k),
                               to = after.Value(now, k);
        if (had == has && from == to) continue;
        const Field field = layout.attributes[k].field;
        c.values.push_back({static_cast<std::uint8_t>(k), had, has, from, to,
                            Planner::Refs(before, field, had ? from : ""),
                            Planner::Refs(after, field, has ? to : "")});
      }
    }
}

// Each object moved: from another parent, or to another place in its list.
void AddMoved(Planner& planner, const ByAction& by, Plan& plan) {
  const PlanDocument& before = planner.before;
  const PlanDocument& after = planner.after;
  for (const auto& kinds : by[PlanChange::kMoved])
    for (const std::uint32_t i : kinds) {
      const auto& now = after.Objects()[i];
      const std::size_t j = planner.inBefore[i];
      const auto& was = before.Objects()[j];
      plan.changes.push_back(NewChange(PlanChange::kMoved, now.kind, now.kind,
                                       Planner::Self(after, now),
                                       planner.Ref(after, now.parent)));
      PlanChange& c = plan.changes.back();
      if (!Planner::SameParent(was, before.Long(), now, after.Long())) {
        c.fromParent = planner.Ref(before, was.parent);
      } else {
        c.fromParent = c.parent;
        c.fromPlace = planner.beforePlace[j] + 1;
        c.toPlace = planner.afterPlace[i] + 1;
      }
    }
}

}  // namespace

Plan MakePlan(const PlanDocument& before, const PlanDocument& after) {
  Plan plan;
  Planner planner{before, after, {}, {}, {}, {}, &plan.spelled};
  planner.Match();
  planner.beforePlace = Planner::Places(before, planner.inAfter, after);
  planner.afterPlace = Planner::Places(after, planner.inBefore, before);
  std::vector<bool> reordered(after.Objects().size(), false);
  planner.Reordered(reordered, plan.reordered);
  ByAction by;
  Classify(planner, reordered, plan, by);
  plan.changes.reserve(plan.removed + plan.added + plan.changed + plan.moved);
  AddWhole(planner, PlanChange::kRemoved, before, by, plan);
  AddWhole(planner, PlanChange::kAdded, after, by, plan);
  AddChanged(planner, by, false, plan);
  AddMoved(planner, by, plan);
  AddChanged(planner, by, true, plan);
  return plan;
}

}  // namespace doc
