// The plan as one self-contained HTML page for a reviewer: its totals, a
// picture of what changes, then each object that changes as a section that
// opens and closes, removals first.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>

#include "DocumentPlan.h"

namespace doc {

// The most objects the page's picture draws one by one; past them it shows
// the counts of each kind.
constexpr std::size_t kMostPlanDrawn = 400;
// The most links a plan's picture draws: Graphviz's layout grows faster
// than its edges (1,000 take about 0.3 s, 3,000 about 4 s).
constexpr std::size_t kMostPlanEdges = 1000;

// Writes the page of plan, titled with what it goes from and to; false with
// the reason in *error when its picture cannot be drawn.
bool WritePlanPage(const Plan& plan, const std::string& title,
                   std::ostream& out, std::string* error);

}  // namespace doc
