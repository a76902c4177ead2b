#include "ApplyGuards.h"

#include "Escape.h"

namespace doc {

namespace {

std::string Base(const GuardFacts& f, const ApplyOptions&) {
  return f.baseMoved ? f.store + " no longer exports " + f.base +
                           ": it was changed since"
                     : std::string();
}

std::string Part(const GuardFacts& f, const ApplyOptions&) {
  if (f.missing.empty()) return std::string();
  std::string names;
  for (const std::string& named : f.missing)
    names += (names.empty() ? "" : ", ") + named;
  return "the part names objects that " + f.store + " lacks: " + names +
         " (add them to --only, or bring them along with --with-references)";
}

// A revert takes back only what nothing changed since: a later change is
// never undone with it.
std::string Conflict(const GuardFacts& f, const ApplyOptions&) {
  if (f.conflicts.empty()) return std::string();
  std::string objects;
  for (const std::string& told : f.conflicts)
    objects += (objects.empty() ? "" : "; ") + told;
  return "a later change touched what the commit changed: " + objects;
}

// A promoted object whose identifier the store gives to another object
// would silently become a rename of that object.
std::string SameIdentifier(const GuardFacts& f, const ApplyOptions& o) {
  if (f.otherObjects.empty() || o.sameIdentifierOk) return std::string();
  std::string objects;
  for (const std::string& told : f.otherObjects)
    objects += (objects.empty() ? "" : "; ") + told;
  return "the same identifier, another object: " + objects +
         " (--same-identifier-ok applies it all the same)";
}

// A document without a local site is not the store's: applied, it would
// remove the store's own.
std::string OtherInstallation(const GuardFacts& f, const ApplyOptions& o) {
  if (o.otherInstallation || f.storeSite.empty() ||
      f.storeSite == f.documentSite)
    return std::string();
  return f.document + " is another installation's: " +
         (f.documentSite.empty() ? "it has no local site"
                                 : "its local site is " + f.documentSite) +
         ", the store's is " + f.storeSite +
         " (--other-installation applies it all the same)";
}

std::string MaxRemovals(const GuardFacts& f, const ApplyOptions& o) {
  if (!f.plan || o.maxRemovals < 0 ||
      f.plan->removed <= static_cast<std::size_t>(o.maxRemovals))
    return std::string();
  return "the plan removes " + std::to_string(f.plan->removed) +
         " objects, more than --max-removals " + std::to_string(o.maxRemovals);
}

// A media row that no element carries is kept: one whose identifier the
// document gives to an object would be its duplicate.
std::string KeptMedia(const GuardFacts& f, const ApplyOptions&) {
  if (f.keptMedia.empty()) return std::string();
  return "the store's media " + f.keptMedia + " is kept by apply, and " +
         f.document + " gives its identifier to a " + f.keptMediaTakenBy +
         ": remove the media row or change the document";
}

}  // namespace

const std::vector<Guard>& Guards() {
  // A new guard is a row here, its fact in GuardFacts, and a test row.
  static const std::vector<Guard> guards = {
      {"base", Base, kRefusedByGuard, false,
       [](const ApplyOptions& o) { return !o.base.empty(); }},
      {"part", Part, kRefusedByGuard, false,
       [](const ApplyOptions& o) { return !o.only.empty(); }},
      {"conflict", Conflict, kRefusedByGuard, false,
       [](const ApplyOptions& o) { return !o.revert.empty(); }},
      {"same-identifier", SameIdentifier, kRefusedByGuard, true,
       [](const ApplyOptions& o) {
         return !o.only.empty() && !o.sameIdentifierOk;
       }},
      {"other-installation", OtherInstallation, kRefusedByGuard, true,
       [](const ApplyOptions& o) { return !o.otherInstallation; }},
      {"max-removals", MaxRemovals, kRefusedByGuard, true,
       [](const ApplyOptions& o) { return o.maxRemovals >= 0; }},
      {"kept-media", KeptMedia, kRefusedByGuard, true,
       [](const ApplyOptions&) { return true; }},
  };
  return guards;
}

std::vector<std::string> GuardsInForce(const ApplyOptions& options) {
  std::vector<std::string> names;
  for (const Guard& g : Guards())
    if (g.inForce(options)) names.push_back(g.name);
  return names;
}

Refusal Guarded(const GuardFacts& facts, const ApplyOptions& options) {
  for (const Guard& g : Guards()) {
    std::string why = g.check(facts, options);
    if (why.empty()) continue;
    Refusal r;
    r.guard = g.name;
    r.why = std::move(why);
    if (g.check == Base) r.detail = facts.baseChanges;
    r.status = g.status;
    r.planShown = g.planShown;
    return r;
  }
  return Refusal();
}

}  // namespace doc
