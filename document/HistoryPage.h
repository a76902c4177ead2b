// The log of a history as one self-contained HTML page: a timeline whose
// entries open to their changes, then each object's own story, to which
// the objects and the references of the changes link.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "AdminDocument.h"

namespace doc {

// One change of an object in a commit, its values as the page shows them
// (secrets masked already).
struct TimelineChange {
  std::string action;  // added, removed, changed
  Kind kind = kKindCount;
  std::string oid, name;
  // A changed value: its attribute, and its value before and after.
  std::string attribute, from, to;
  bool runTime = false;  // a value of run-time state
};

// One commit of the timeline, newest first.
struct TimelineEntry {
  std::string commit, when, author, message;
  bool runTimeOnly = false;
  // Its objects' changes; none listed (its message shown instead) for a
  // branch's first commit.
  std::vector<TimelineChange> changes;
};

// Writes the page titled title: the timeline of entries, each opening to
// its changes, then a story per object that changed, in the order of
// kinds and identifiers. Every object and every identifier a reference
// holds links to its story when the page tells one; every link resolves
// within the page.
void WriteTimelinePage(const std::string& title,
                       const std::vector<TimelineEntry>& entries,
                       std::ostream& out);

}  // namespace doc
