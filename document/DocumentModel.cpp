#include "DocumentModel.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <unordered_set>

#include "DocumentWalk.h"
#include "DocumentWrite.h"
#include "Escape.h"

namespace doc {
namespace {

// The line as the exporter writes it, with its line break.
std::string Text(const Line& line) {
  std::string text, unused;
  WriteLine(line, false, text, &unused);
  return text + "\n";
}

// Builds the model of a document as it is walked.
class Modeller : public Visitor {
 public:
  explicit Modeller(Model& model) : model_(model) {}
  void Element(const Line& line, std::size_t, const Place&) override {
    Node node = NodeOf(line);
    if (LayoutOf(line.kind).parent == kKindCount || model_.top.empty())
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
  Model& model_;
  std::string problem_;
};

}  // namespace

Node NodeOf(const Line& line) {
  Node node{line.kind, "", "", Text(line), "", {}, List()};
  if (NameIndex(line.kind) >= 0)
    node.name = line.values[static_cast<std::size_t>(NameIndex(line.kind))];
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
  return node;
}

bool ReadModel(const std::string& file, const std::string& shown, Model& model,
               std::string* error) {
  Modeller modeller(model);
  const Walked walked = Walk(file, modeller);
  if (!walked.opened) {
    *error = shown + ": " + std::strerror(walked.error);
    return false;
  }
  if (!modeller.FirstProblem().empty()) {
    *error = shown + ": " + modeller.FirstProblem();
    return false;
  }
  return true;
}

std::string WrittenModel(const Model& model) {
  std::string written = model.head;
  for (const Node& top : model.top) {
    written += top.line;
    for (const Node& child : top.children) written += child.line;
    written += top.end;
  }
  return written + model.tail;
}

std::string KeyOf(const Node& node) {
  return node.oid.empty() ? "#" + std::to_string(node.kind) : node.oid;
}

Index IndexOf(const Model& model) {
  Index index;
  for (const Node& top : model.top) {
    if (!top.oid.empty()) index[top.oid] = &top;
    for (const Node& child : top.children) index[child.oid] = &child;
  }
  return index;
}

std::string Named(const Node& node) {
  std::string named = std::string(LayoutOf(node.kind).name) + " " +
                      vantrel::Escaped(node.oid, 60);
  if (NameIndex(node.kind) >= 0)
    named += " \"" + vantrel::Escaped(node.name, 60) + "\"";
  return named;
}

Places::Places(Model& model) : model_(model) {
  for (auto t = model_.top.begin(); t != model_.top.end(); ++t)
    Index(model_.top, t);
}

const Node* Places::Find(const std::string& oid) const {
  const auto found = where_.find(oid);
  return found == where_.end() ? nullptr : &*found->second.at;
}

Node* Places::Find(const std::string& oid) {
  const auto found = where_.find(oid);
  return found == where_.end() ? nullptr : &*found->second.at;
}

List* Places::ChildrenOf(const Node& parent) {
  const auto found = where_.find(KeyOf(parent));
  return found == where_.end() || found->second.list != &model_.top ||
                 found->second.at->kind != parent.kind
             ? nullptr
             : &found->second.at->children;
}

void Places::Remove(const std::string& oid) {
  const auto found = where_.find(oid);
  if (found == where_.end()) return;
  const Where w = found->second;
  for (const Node& child : w.at->children) where_.erase(KeyOf(child));
  where_.erase(found);
  w.list->erase(w.at);
}

void Places::Insert(List& list, const List& source, List::const_iterator from) {
  List::iterator at = list.end();
  bool placed = false;
  for (auto before = from; !placed && before != source.begin();) {
    --before;
    const auto found = where_.find(KeyOf(*before));
    if (found == where_.end() || found->second.list != &list ||
        found->second.at->kind != before->kind)
      continue;
    at = std::next(found->second.at);
    placed = true;
  }
  if (!placed)
    at = std::find_if(list.begin(), list.end(),
                      [&](const Node& n) { return n.kind >= from->kind; });
  Index(list, list.insert(at, *from));
}

void Places::Index(List& list, List::iterator at) {
  where_[KeyOf(*at)] = {&list, at};
  for (auto c = at->children.begin(); c != at->children.end(); ++c)
    where_[KeyOf(*c)] = {&at->children, c};
}

void PutInto(Places& store, const Model& from,
             const std::unordered_set<std::string>& chosen,
             std::vector<const Node*>& promoted,
             std::vector<std::string>* missing) {
  for (auto t = from.top.cbegin(); t != from.top.cend(); ++t) {
    const Node& top = *t;
    if (!top.oid.empty() && chosen.count(top.oid)) {
      // The node comes whole: its children leave any other parent.
      store.Remove(top.oid);
      for (const Node& child : top.children) store.Remove(child.oid);
      store.Insert(store.Top(), from.top, t);
      promoted.push_back(&top);
      for (const Node& child : top.children) promoted.push_back(&child);
      continue;
    }
    for (auto c = top.children.cbegin(); c != top.children.cend(); ++c) {
      if (!chosen.count(c->oid)) continue;
      store.Remove(c->oid);
      promoted.push_back(&*c);
      List* const list = store.ChildrenOf(top);
      if (list)
        store.Insert(*list, top.children, c);
      else
        missing->push_back(top.oid);  // its parent: named below
    }
  }
}

void Lacking(const Places& store, const std::vector<const Node*>& promoted,
             std::vector<std::string>* missing) {
  std::unordered_set<std::string> named(missing->begin(), missing->end());
  for (const Node* node : promoted)
    for (const std::string& name : node->names)
      if (!store.Has(name) && named.insert(name).second)
        missing->push_back(name);
}

}  // namespace doc
