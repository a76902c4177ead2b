#include "DocumentPart.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <list>
#include <unordered_map>
#include <unordered_set>

#include "DocumentWalk.h"
#include "DocumentWrite.h"
#include "Escape.h"

namespace doc {
namespace {

// An object of a document with its line as the exporter writes it, the
// identifiers it names, and for a top-level element its children and end
// tag. The server wrapper is a top-level node without an identifier.
// Lists are linked, so that an object is taken out of one and put into
// another at a known place in constant time.
struct Node {
  Kind kind;
  std::string oid, name, line, end;
  std::vector<std::string> names;
  std::list<Node> children;
};
using List = std::list<Node>;

// A document as nodes: the lines before and after them, and the top-level
// nodes in order.
struct Model {
  std::string head, tail;
  List top;
};

// Builds the model of a document as it is walked.
class Modeller : public Visitor {
 public:
  explicit Modeller(Model& model) : model_(model) {}
  void Element(const Line& line, std::size_t, const Place&) override {
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

// Reads file, named shown in messages, into model; false with *error.
bool Read(const std::string& file, const std::string& shown, Model& model,
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

// The key of a node among the store's: its identifier, or for the server
// wrapper its kind.
std::string KeyOf(const Node& node) {
  return node.oid.empty() ? "#" + std::to_string(node.kind) : node.oid;
}

// The store's document, each of its objects found by its key in constant
// time, as the part is put in.
class Store {
 public:
  explicit Store(Model& model) : model_(model) {
    for (auto t = model_.top.begin(); t != model_.top.end(); ++t)
      Index(model_.top, t);
  }
  bool Has(const std::string& key) const { return where_.count(key) != 0; }
  // The object of the store whose identifier is oid, or null.
  const Node* Find(const std::string& oid) const {
    const auto found = where_.find(oid);
    return found == where_.end() ? nullptr : &*found->second.at;
  }
  // The children list of the top-level node standing for parent, or null.
  List* ChildrenOf(const Node& parent) {
    const auto found = where_.find(KeyOf(parent));
    return found == where_.end() || found->second.list != &model_.top ||
                   found->second.at->kind != parent.kind
               ? nullptr
               : &found->second.at->children;
  }
  List& Top() { return model_.top; }
  // Takes the object oid out of the store wherever it stands, with its
  // children.
  void Remove(const std::string& oid) {
    const auto found = where_.find(oid);
    if (found == where_.end()) return;
    const Where w = found->second;
    for (const Node& child : w.at->children) where_.erase(KeyOf(child));
    where_.erase(found);
    w.list->erase(w.at);
  }
  // Puts node, the one at from in source, into list where source places it:
  // after the nearest of its siblings before it that list holds, else
  // before the first node of list of its kind or a later one.
  void Insert(List& list, const List& source, List::const_iterator from) {
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

 private:
  struct Where {
    List* list;
    List::iterator at;
  };
  void Index(List& list, List::iterator at) {
    where_[KeyOf(*at)] = {&list, at};
    for (auto c = at->children.begin(); c != at->children.end(); ++c)
      where_[KeyOf(*c)] = {&at->children, c};
  }
  Model& model_;
  std::unordered_map<std::string, Where> where_;
};

// The source's objects by identifier.
using Index = std::unordered_map<std::string, const Node*>;

Index IndexOf(const Model& from) {
  Index index;
  for (const Node& top : from.top) {
    if (!top.oid.empty()) index[top.oid] = &top;
    for (const Node& child : top.children) index[child.oid] = &child;
  }
  return index;
}

// An object as messages name it: its kind, identifier and name.
std::string Named(const Node& node) {
  std::string named = std::string(LayoutOf(node.kind).name) + " " +
                      vantrel::Escaped(node.oid, 60);
  if (NameIndex(node.kind) >= 0)
    named += " \"" + vantrel::Escaped(node.name, 60) + "\"";
  return named;
}

// The identifier id names: itself, or for "KIND:NAME" the one object of
// source of that kind and name. "" with *error for none, or for more than
// one.
std::string ChosenOid(const std::string& id, const Model& from,
                      const Index& index, const std::string& shown,
                      std::string* error) {
  const std::size_t colon = id.find(':');
  const Kind kind = colon == std::string::npos
                        ? kKindCount
                        : KindNamed(std::string_view(id).substr(0, colon));
  if (kind == kKindCount) {
    if (!id.empty() && index.count(id)) return id;
    *error = vantrel::Escaped(id, 60) + " is no object of " + shown;
    return std::string();
  }
  const std::string_view name = std::string_view(id).substr(colon + 1);
  std::vector<const Node*> named;
  for (const Node& top : from.top) {
    if (top.kind == kind && top.name == name) named.push_back(&top);
    for (const Node& child : top.children)
      if (child.kind == kind && child.name == name) named.push_back(&child);
  }
  if (named.size() == 1) return named[0]->oid;
  *error = vantrel::Escaped(id, 60) +
           (named.empty() ? " is no object of " + shown
                          : " names " + std::to_string(named.size()) +
                                " objects of " + shown + ":");
  for (const Node* node : named) *error += " " + vantrel::Escaped(node->oid);
  if (!named.empty()) *error += ": name one by its identifier";
  return std::string();
}

// Puts the objects of from whose identifiers are chosen into store, in
// from's order, so that each one's siblings before it are in place first;
// adds each to promoted, and the parent of a child the store cannot take
// to *missing.
void Promote(Store& store, const Model& from,
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

// What the promoted objects name that the store lacks, each once, after
// the parents already in *missing.
void Lacking(const Store& store, const std::vector<const Node*>& promoted,
             std::vector<std::string>* missing) {
  std::unordered_set<std::string> named(missing->begin(), missing->end());
  for (const Node* node : promoted)
    for (const std::string& name : node->names)
      if (!store.Has(name) && named.insert(name).second)
        missing->push_back(name);
}

// Sets part's other objects: the chosen ones that the store holds as
// another object, of another kind or another name.
void OtherObjects(const Store& store, const Index& index,
                  const std::unordered_set<std::string>& chosen,
                  const std::string& shownSource, Part* part) {
  for (const std::string& oid : chosen) {
    const Node* held = store.Find(oid);
    const Node* wanted = index.at(oid);
    if (held && (held->kind != wanted->kind || held->name != wanted->name))
      part->otherObjectIds.push_back(oid);
  }
  std::sort(part->otherObjectIds.begin(), part->otherObjectIds.end());
  for (const std::string& oid : part->otherObjectIds)
    part->otherObjects.push_back(Named(*store.Find(oid)) + " in the store, " +
                                 Named(*index.at(oid)) + " in " + shownSource);
}

}  // namespace

bool PromotePart(const PartRequest& request, Part* part, std::string* error) {
  Model model, from;
  if (!Read(request.current, "the store's export", model, error) ||
      !Read(request.source, request.shownSource, from, error))
    return false;
  const Index index = IndexOf(from);
  std::unordered_set<std::string> chosen;
  for (const std::string& id : request.ids) {
    const std::string oid =
        ChosenOid(id, from, index, request.shownSource, error);
    if (oid.empty()) return false;
    chosen.insert(oid);
  }
  Store store(model);
  OtherObjects(store, index, chosen, request.shownSource, part);
  std::vector<const Node*> promoted;
  std::vector<std::string> missing;
  Promote(store, from, chosen, promoted, &missing);
  Lacking(store, promoted, &missing);
  // What the part names that the store lacks comes along, with what it
  // names in turn, as long as the source holds it.
  while (request.withReferences && !missing.empty()) {
    std::unordered_set<std::string> more;
    for (const std::string& oid : missing)
      if (index.count(oid) && chosen.insert(oid).second) more.insert(oid);
    if (more.empty()) break;
    for (const std::string& oid : more) part->broughtAlong.push_back(oid);
    missing.clear();
    Promote(store, from, more, promoted, &missing);
    Lacking(store, promoted, &missing);
  }
  for (const std::string& oid : missing) {
    part->missingIds.push_back(oid);
    part->missing.push_back(index.count(oid) ? Named(*index.at(oid))
                                             : vantrel::Escaped(oid));
  }
  if (!missing.empty()) return false;
  std::string& wanted = part->wanted;
  wanted.clear();
  wanted += model.head;
  for (const Node& top : model.top) {
    wanted += top.line;
    for (const Node& child : top.children) wanted += child.line;
    wanted += top.end;
  }
  wanted += model.tail;
  return true;
}

}  // namespace doc
