// Reading documents for a plan, and writing a plan in the form asked for.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "ApplyGuards.h"
#include "DocumentPlan.h"

namespace vdoc {

enum class PlanFormat { kText, kJson, kHtml };

// Writes plan to output (out for "-") whole or not at all; 0, or
// 2 after saying why it cannot be written. inputs are the files the
// command reads, which the plan never replaces. title names the two sides;
// the JSON carries refusal, what a dry run's apply would meet, when given.
int WritePlan(const doc::Plan& plan, PlanFormat format,
              const std::string& output, const std::vector<std::string>& inputs,
              const std::string& title,
              std::ostream& out, std::ostream& err,
              const doc::Refusal* refusal = nullptr);

}  // namespace vdoc
