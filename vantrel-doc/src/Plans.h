// Reading documents for a plan, and writing a plan in the form asked for.
#pragma once

#include <iosfwd>
#include <string>

#include "DocumentPlan.h"

enum class PlanFormat { kText, kJson, kHtml };

// Reads and checks file into doc, through visitor too when given; 0, or
// the exit status of the failure after reporting its problems: 1 for a
// document check refuses, 2 for one that cannot be read.
int ReadForPlan(const std::string& file, doc::PlanDocument& doc,
                std::ostream& err, doc::Visitor* visitor = nullptr);

// Writes plan to output (out for "-") whole or not at all; 0, or
// 2 after saying why it cannot be written. title names the two sides.
int WritePlan(const doc::Plan& plan, PlanFormat format,
              const std::string& output, const std::string& title,
              std::ostream& out, std::ostream& err);
