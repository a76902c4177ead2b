#include "DocumentPart.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "DocumentWalk.h"
#include "DocumentWrite.h"

namespace doc {
namespace {

// An object of a document with its line as the exporter writes it, the
// identifiers it names, and for a top-level element its children and end
// tag. The server wrapper is a top-level node without an identifier.
struct Node {
  Kind kind;
  std::string oid, line, end;
  std::vector<std::string> names;
  std::vector<Node> children;
};

// A document as nodes: the lines before and after them, and the top-level
// nodes in order.
struct Model {
  std::string head, tail;
  std::vector<Node> top;
};

// Builds the model of a document as it is walked.
class Modeller : public Visitor {
 public:
  explicit Modeller(Model& model) : model_(model) {}
  void Element(const Line& line, std::size_t, const Place&) override {
    Node node{line.kind, "", Text(line), "", {}, {}};
    const Layout& layout = LayoutOf(line.kind);
    for (std::size_t i = 0; i < layout.attributes.size(); ++i) {
      if (!line.Has(static_cast<int>(i))) continue;
      const Attribute& a = layout.attributes[i];
      if (a.field == Field::kOid) node.oid = line.values[i];
      if (a.field == Field::kRef) node.names.emplace_back(line.values[i]);
      if (a.field == Field::kRefs)
        for (std::string_view id : Identifiers(line.values[i]))
          node.names.emplace_back(id);
    }
    if (layout.parent == kKindCount || model_.top.empty())
      model_.top.push_back(std::move(node));
    else
      model_.top.back().children.push_back(std::move(node));
  }
  void Other(const Line& line, std::size_t) override {
    if (line.type == Line::kEnd && !model_.top.empty())
      model_.top.back().end = Text(line);
    else if (model_.top.empty() && line.type != Line::kRootEnd)
      model_.head += Text(line);
    else
      model_.tail += Text(line);
  }
  void Problem(std::size_t, const std::string& what) override {
    if (problem_.empty()) problem_ = what;
  }
  void Restart() override { model_ = Model(); }
  const std::string& FirstProblem() const { return problem_; }

 private:
  static std::string Text(const Line& line) {
    std::string text, unused;
    WriteLine(line, false, text, &unused);
    return text + "\n";
  }
  Model& model_;
  std::string problem_;
};

bool Read(const std::string& file, Model& model, std::string* error) {
  Modeller modeller(model);
  const Walked walked = Walk(file, modeller);
  if (!walked.opened) {
    *error = file + ": " + std::strerror(walked.error);
    return false;
  }
  if (!modeller.FirstProblem().empty()) {
    *error = file + ": " + modeller.FirstProblem();
    return false;
  }
  return true;
}

// Where an object stands: its top-level node, and its place among that
// node's children (npos for the top-level node itself).
struct At {
  std::size_t top, child;
};
constexpr std::size_t kTop = std::string::npos;

// The place of each identifier of model.
std::unordered_map<std::string, At> Places(const Model& model) {
  std::unordered_map<std::string, At> at;
  for (std::size_t t = 0; t < model.top.size(); ++t) {
    if (!model.top[t].oid.empty()) at[model.top[t].oid] = {t, kTop};
    for (std::size_t c = 0; c < model.top[t].children.size(); ++c)
      at[model.top[t].children[c].oid] = {t, c};
  }
  return at;
}

// The top-level node of model that stands for parent of source: the same
// identifier, or the server wrapper.
std::size_t SameTop(const Model& model, const Node& parent) {
  for (std::size_t t = 0; t < model.top.size(); ++t)
    if (model.top[t].kind == parent.kind && model.top[t].oid == parent.oid)
      return t;
  return kTop;
}

// Removes the object oid from model wherever it stands.
void Remove(Model& model, const std::string& oid) {
  for (auto t = model.top.begin(); t != model.top.end(); ++t) {
    if (t->oid == oid) {
      model.top.erase(t);
      return;
    }
    for (auto c = t->children.begin(); c != t->children.end(); ++c)
      if (c->oid == oid) {
        t->children.erase(c);
        return;
      }
  }
}

// Where in list node goes: after the nearest of its siblings before it in
// source (sourceList, at index) that list holds, else before the first
// node of list of its kind or a later one.
std::size_t Position(const std::vector<Node>& list,
                     const std::vector<Node>& sourceList, std::size_t index) {
  for (std::size_t i = index; i-- > 0;) {
    const Node& before = sourceList[i];
    for (std::size_t j = 0; j < list.size(); ++j)
      if (list[j].kind == before.kind && list[j].oid == before.oid)
        return j + 1;
  }
  const Kind kind = sourceList[index].kind;
  for (std::size_t j = 0; j < list.size(); ++j)
    if (list[j].kind >= kind) return j;
  return list.size();
}

}  // namespace

bool PromotePart(const std::string& current, const std::string& source,
                 const std::vector<std::string>& ids, std::string* wanted,
                 std::vector<std::string>* missing, std::string* error) {
  Model store, from;
  if (!Read(current, store, error) || !Read(source, from, error)) return false;
  const auto inSource = Places(from);
  std::set<std::string> chosen;
  for (const std::string& id : ids) {
    if (!inSource.count(id)) {
      *error = id + " is no object of " + source;
      return false;
    }
    chosen.insert(id);
  }
  std::vector<const Node*> promoted;
  // In the source's order, so that each one's siblings before it are in
  // place first.
  for (std::size_t t = 0; t < from.top.size(); ++t) {
    const Node& top = from.top[t];
    if (!top.oid.empty() && chosen.count(top.oid)) {
      // The node comes whole: its children leave any other parent.
      Remove(store, top.oid);
      for (const Node& child : top.children) Remove(store, child.oid);
      store.top.insert(store.top.begin() + static_cast<std::ptrdiff_t>(Position(
                                               store.top, from.top, t)),
                       top);
      promoted.push_back(&top);
      for (const Node& child : top.children) promoted.push_back(&child);
      continue;
    }
    for (std::size_t c = 0; c < top.children.size(); ++c) {
      const Node& child = top.children[c];
      if (!chosen.count(child.oid)) continue;
      Remove(store, child.oid);
      promoted.push_back(&child);
      const std::size_t parent = SameTop(store, top);
      if (parent == kTop) {
        // Its parent is not in the store: named as missing below.
        missing->push_back(top.oid);
        continue;
      }
      std::vector<Node>& list = store.top[parent].children;
      list.insert(list.begin() + static_cast<std::ptrdiff_t>(
                                     Position(list, top.children, c)),
                  child);
    }
  }
  const auto inStore = Places(store);
  std::set<std::string> named(missing->begin(), missing->end());
  for (const Node* node : promoted)
    for (const std::string& name : node->names)
      if (!inStore.count(name) && named.insert(name).second)
        missing->push_back(name);
  if (!missing->empty()) return false;
  wanted->clear();
  *wanted += store.head;
  for (const Node& top : store.top) {
    *wanted += top.line;
    for (const Node& child : top.children) *wanted += child.line;
    *wanted += top.end;
  }
  *wanted += store.tail;
  return true;
}

}  // namespace doc
