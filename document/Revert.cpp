#include "Revert.h"

#include <unordered_set>

#include "DocumentModel.h"
#include "DocumentWrite.h"

namespace doc {
namespace {

// An object's line read back into its values; the node must outlive it.
Line ValuesOf(const Node& node) {
  Line line;
  std::string reason;
  const std::string_view text(node.line.data(), node.line.size() - 1);
  ReadLine(text, line, &reason, false);
  return line;
}

// Whether a and b hold attribute i alike.
bool Alike(const Line& a, const Line& b, std::size_t i) {
  const int bit = static_cast<int>(i);
  return a.Has(bit) == b.Has(bit) && a.values[i] == b.values[i];
}

// Whether a and b, of one kind, hold the same configuration: their run-time
// state may differ.
bool SameConfiguration(const Node& a, const Node& b) {
  if (a.kind != b.kind) return false;
  if (a.line == b.line) return true;
  const std::uint32_t runTime = RunTimeAttributes(a.kind);
  if (!runTime) return false;
  const Line x = ValuesOf(a), y = ValuesOf(b);
  for (std::size_t i = 0; i < x.values.size(); ++i)
    if (!(runTime >> i & 1) && !Alike(x, y, i)) return false;
  return true;
}

// Calls each for every object of model with an identifier, in its order.
template <typename Each>
void ForEachObject(const Model& model, Each each) {
  for (const Node& top : model.top) {
    if (!top.oid.empty()) each(top);
    for (const Node& child : top.children) each(child);
  }
}

const Node* Found(const Index& index, const std::string& oid) {
  const auto found = index.find(oid);
  return found == index.end() ? nullptr : found->second;
}

// Undoes what the commit changed in the values of one object, held by the
// store as now: each value the commit changed goes back where the store
// still holds the commit's. Returns the attributes changed since, by
// name, "" for none; now is changed only then.
std::string RevertValues(const Node& before, const Node& after, Node& now) {
  const Line was = ValuesOf(before), is = ValuesOf(after);
  Line held = ValuesOf(now);
  const std::uint32_t runTime = RunTimeAttributes(now.kind);
  const Layout& layout = LayoutOf(now.kind);
  std::string touched;
  bool reverted = false;
  for (std::size_t i = 0; i < held.values.size(); ++i) {
    if ((runTime >> i & 1) || Alike(was, is, i) || Alike(held, was, i))
      continue;
    if (!Alike(held, is, i)) {
      touched += (touched.empty() ? "" : ", ") +
                 std::string(layout.attributes[i].name);
      continue;
    }
    held.values[i] = was.values[i];
    held.present = (held.present & ~(1u << i)) | (was.present & (1u << i));
    reverted = true;
  }
  if (touched.empty() && reverted) {
    Node written = NodeOf(held);
    now.line = std::move(written.line);
    now.name = std::move(written.name);
    now.names = std::move(written.names);
  }
  return touched;
}

// The work of one revert: the three documents and what is decided.
struct Revert {
  Model before, after, now;
  Index was, is;
  std::unordered_set<std::string> dropped, restored;
  std::vector<const Node*> changed;
  std::vector<std::string>& conflicts;
  const std::string& shown;
};

// What the commit added is taken out, and what it changed set back.
void UndoAdditionsAndChanges(Revert& r, Places& store) {
  ForEachObject(r.after, [&](const Node& is) {
    const Node* was = Found(r.was, is.oid);
    Node* now = store.Find(is.oid);
    if (!was || was->kind != is.kind) {
      // Gone since: nothing is left to undo.
      if (!now) return;
      if (SameConfiguration(*now, is))
        r.dropped.insert(is.oid);
      else
        r.conflicts.push_back(Named(*now) + ": added by " + r.shown +
                              " and changed since");
      return;
    }
    if (was->line == is.line) return;
    if (!now || now->kind != is.kind) {
      r.conflicts.push_back(Named(is) + ": changed by " + r.shown +
                            " and removed since");
      return;
    }
    const std::string touched = RevertValues(*was, is, *now);
    if (!touched.empty())
      r.conflicts.push_back(Named(*now) + ": " + touched + " changed by " +
                            r.shown + " and again since");
    else
      r.changed.push_back(now);
  });
}

// An object taken out leaves none behind: no child added since, nothing
// that names it.
void CheckDropped(Revert& r, const Places& store) {
  if (r.dropped.empty()) return;
  ForEachObject(r.now, [&](const Node& node) {
    if (r.dropped.count(node.oid)) {
      for (const Node& child : node.children)
        if (!r.dropped.count(child.oid))
          r.conflicts.push_back(Named(node) + ": added by " + r.shown +
                                ", and holds " + Named(child) +
                                ", added since");
      return;
    }
    for (const std::string& name : node.names)
      if (r.dropped.count(name))
        r.conflicts.push_back(Named(node) + ": names " +
                              Named(*store.Find(name)) + ", added by " +
                              r.shown);
  });
}

// What the commit removed is put back, unless the store holds it again.
void FindRemovals(Revert& r, const Places& store) {
  ForEachObject(r.before, [&](const Node& was) {
    const Node* is = Found(r.is, was.oid);
    if (is && is->kind == was.kind) return;
    const Node* now = store.Find(was.oid);
    if (now && !r.dropped.count(was.oid)) {
      if (!SameConfiguration(*now, was))
        r.conflicts.push_back(Named(was) + ": removed by " + r.shown +
                              " and added again since");
      return;
    }
    r.restored.insert(was.oid);
  });
}

}  // namespace

bool RevertCommit(const RevertRequest& request, Reverted* reverted,
                  std::string* error) {
  Revert r{{}, {}, {}, {}, {}, {}, {}, {}, reverted->conflicts, request.shown};
  if (!ReadModel(request.current, "the store's export", r.now, error) ||
      !ReadModel(request.before, "the parent of " + request.shown, r.before,
                 error) ||
      !ReadModel(request.after, request.shown, r.after, error))
    return false;
  r.was = IndexOf(r.before);
  r.is = IndexOf(r.after);
  for (const Node& top : r.after.top)
    if (top.kind == kLocalSite) reverted->site = top.oid;
  Places store(r.now);
  UndoAdditionsAndChanges(r, store);
  CheckDropped(r, store);
  FindRemovals(r, store);
  if (!r.conflicts.empty()) return false;
  for (const std::string& oid : r.dropped) store.Remove(oid);
  // What is put back, and the values set back, name only what the store
  // holds: else a later change removed it.
  std::vector<const Node*> put = r.changed;
  std::vector<std::string> missing;
  PutInto(store, r.before, r.restored, put, &missing);
  Lacking(store, put, &missing);
  for (const std::string& oid : missing) {
    const Node* named = Found(r.was, oid);
    r.conflicts.push_back((named ? Named(*named) : oid) + ": needed by what " +
                          request.shown + " changed, and removed since");
  }
  if (!r.conflicts.empty()) return false;
  reverted->wanted = WrittenModel(r.now);
  return true;
}

}  // namespace doc
