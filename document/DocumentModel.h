// A document as a tree of objects, for the commands that take objects out
// of one document and put them into another (a promoted part, a commit
// reverted): each object with its line as the exporter writes it, its
// children and the identifiers it names.
#pragma once

#include <list>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "AdminDocument.h"

namespace doc {

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

// The node of an element's line, without children.
Node NodeOf(const Line& line);

// Reads file, named shown in messages, into model; false with *error for a
// file that cannot be read or has a problem (the first is told).
bool ReadModel(const std::string& file, const std::string& shown, Model& model,
               std::string* error);

// The document model holds, as the exporter writes it.
std::string WrittenModel(const Model& model);

// The key of a node among a document's: its identifier, or for the server
// wrapper its kind.
std::string KeyOf(const Node& node);

// The objects of a model by identifier.
using Index = std::unordered_map<std::string, const Node*>;
Index IndexOf(const Model& model);

// An object as messages name it: its kind, identifier and name.
std::string Named(const Node& node);

// A model whose objects are found by key in constant time, as objects are
// taken out of it and put into it.
class Places {
 public:
  explicit Places(Model& model);
  bool Has(const std::string& key) const { return where_.count(key) != 0; }
  // The object whose identifier is oid, or null.
  const Node* Find(const std::string& oid) const;
  Node* Find(const std::string& oid);
  // The children list of the top-level node standing for parent, or null.
  List* ChildrenOf(const Node& parent);
  List& Top() { return model_.top; }
  // Takes the object oid out wherever it stands, with its children.
  void Remove(const std::string& oid);
  // Puts node, the one at from in source, into list where source places it:
  // after the nearest of its siblings before it that list holds, else
  // before the first node of list of its kind or a later one.
  void Insert(List& list, const List& source, List::const_iterator from);

 private:
  struct Where {
    List* list;
    List::iterator at;
  };
  void Index(List& list, List::iterator at);
  Model& model_;
  std::unordered_map<std::string, Where> where_;
};

// Puts the objects of from whose identifiers are chosen into store, in
// from's order, so that each one's siblings before it are in place first;
// a top-level object comes whole, its children leaving any other parent.
// Adds each object put to promoted, and the parent of a child the store
// cannot take to *missing.
void PutInto(Places& store, const Model& from,
             const std::unordered_set<std::string>& chosen,
             std::vector<const Node*>& promoted,
             std::vector<std::string>* missing);

// Adds to *missing what the promoted objects name that the store lacks,
// each once, after the parents already there.
void Lacking(const Places& store, const std::vector<const Node*>& promoted,
             std::vector<std::string>* missing);

}  // namespace doc
