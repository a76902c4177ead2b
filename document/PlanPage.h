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

// Writes the page of plan, titled with what it goes from and to; false with
// the reason in *error when its picture cannot be drawn.
bool WritePlanPage(const Plan& plan, const std::string& title,
                   std::ostream& out, std::string* error);

}  // namespace doc
