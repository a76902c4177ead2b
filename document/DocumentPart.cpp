#include "DocumentPart.h"

#include <algorithm>
#include <unordered_set>

#include "DocumentModel.h"
#include "Escape.h"

namespace doc {
namespace {

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

// Sets part's other objects: the chosen ones that the store holds as
// another object, of another kind or another name.
void OtherObjects(const Places& store, const Index& index,
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
  if (!ReadModel(request.current, "the store's export", model, error) ||
      !ReadModel(request.source, request.shownSource, from, error))
    return false;
  const Index index = IndexOf(from);
  std::unordered_set<std::string> chosen;
  for (const std::string& id : request.ids) {
    const std::string oid =
        ChosenOid(id, from, index, request.shownSource, error);
    if (oid.empty()) return false;
    chosen.insert(oid);
  }
  Places store(model);
  OtherObjects(store, index, chosen, request.shownSource, part);
  std::vector<const Node*> promoted;
  std::vector<std::string> missing;
  PutInto(store, from, chosen, promoted, &missing);
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
    PutInto(store, from, more, promoted, &missing);
    Lacking(store, promoted, &missing);
  }
  for (const std::string& oid : missing) {
    part->missingIds.push_back(oid);
    part->missing.push_back(index.count(oid) ? Named(*index.at(oid))
                                             : vantrel::Escaped(oid));
  }
  if (!missing.empty()) return false;
  part->wanted = WrittenModel(model);
  return true;
}

}  // namespace doc
