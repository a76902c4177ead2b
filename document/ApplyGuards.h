// The guards of an apply: one table, evaluated once over what the apply
// found before it writes anything, for a dry run and a real apply alike.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "DocumentPlan.h"

namespace doc {

// How apply goes, as its command line asked.
struct ApplyOptions {
  bool dryRun = false;    // show the plan, from a snapshot, and write nothing
  std::string base;       // refuse a store that no longer exports it
  std::string log;        // a file to append a JSON line to, per apply
  long maxRemovals = -1;  // refuse a plan removing more (-1: any)
  bool otherInstallation = false;  // take a document of another local site
  std::vector<std::string> only;   // apply only these objects' subtrees
  bool runTime = false;            // write the document's run-time state too
  bool showSecrets = false;        // the plan shown with secrets unmasked
  std::string comment;             // a ticket or a reason, for the log
  // KIND.Attribute rules: the store's values of these are kept.
  std::vector<std::string> keep;
  // A history the store's document is committed to before the apply
  // (when it drifted from the history's last commit) and after it.
  std::string history;
  bool withReferences = false;    // a part brings what it names along
  bool sameIdentifierOk = false;  // takes an identifier another object holds
  // The commit of a history undone, by its identifier: the document is
  // the commit's, and the request names its parent's. "": not a revert.
  std::string revert;
};

// The exit status of an apply a guard refuses, nothing changed: apart
// from a document with problems (1) and trouble (2), so that a pipeline
// tells them apart.
constexpr int kRefusedByGuard = 3;

// What the guards look at. The names are as messages show them.
struct GuardFacts {
  const Plan* plan = nullptr;  // null when the apply has no plan to make
  std::string document, store, base;
  std::string documentSite, storeSite;  // local sites' identifiers, or ""
  bool baseMoved = false;               // the store no longer exports the base
  std::string baseChanges;  // what changed since the base, in plan text
  // Identifiers the part needs that the store lacks, each once.
  std::vector<std::string> missing;
  // Each object of the part that the store holds as another object.
  std::vector<std::string> otherObjects;
  // Each object a later change touched where the reverted commit did.
  std::vector<std::string> conflicts;
  // A media the store keeps whose identifier the document gives to an
  // object: the media's identifier and the object's kind; "" for none.
  std::string keptMedia, keptMediaTakenBy;
};

// A refusal: the guard's name, its message, anything said before it, its
// exit status, and whether a dry run still shows its plan.
struct Refusal {
  const char* guard = nullptr;  // null: nothing refused
  std::string why, detail;
  int status = 0;
  bool planShown = false;
  explicit operator bool() const { return guard != nullptr; }
};

// One guard: its name, its check (the message of a refusal, or "" to let
// the apply go on), the exit status it refuses with, and whether a dry run
// it refuses still shows its plan.
struct Guard {
  const char* name;
  std::string (*check)(const GuardFacts&, const ApplyOptions&);
  int status;
  bool planShown;
  // Whether the options leave it in force (the log records it so).
  bool (*inForce)(const ApplyOptions&);
};

// Every guard, in the order they are asked.
const std::vector<Guard>& Guards();

// The names of the guards the options leave in force, in their order.
std::vector<std::string> GuardsInForce(const ApplyOptions& options);

// The first guard of Guards() that refuses, with the base's changes as its
// detail when that guard is the base's; an empty Refusal when none does.
Refusal Guarded(const GuardFacts& facts, const ApplyOptions& options);

}  // namespace doc
