// The plan shown as text, for a terminal and the apply's output, and as
// JSON, for the gates of a pipeline and the apply log.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>

#include "ApplyGuards.h"
#include "DocumentPlan.h"

namespace doc {

// The heading of the plan's run-time state, in every view.
constexpr char kRunTimeHeading[] = "run-time state, not configuration";

// The plan as lines of text, then its totals, then its run-time state under
// its heading; nothing for a plan without either. With at most lines of
// changes shown in each part, the rest are counted in one line.
void WritePlanText(const Plan& plan, std::ostream& out,
                   std::size_t most = static_cast<std::size_t>(-1));
// The old and the new value of v, an attribute of kind, as every view
// shows them: a secret's masked (MaskedChange, held in masked) unless
// secrets are shown.
std::pair<std::string_view, std::string_view> ShownValues(
    Kind kind, const PlanValue& v, bool secrets,
    std::pair<std::string, std::string>& masked);
// How every view flags a change of an object that plan marks as another
// object under the same identifier.
constexpr char kOtherObject[] = "the same identifier, another object";
// Whether plan marks c's object so.
bool OtherObject(const Plan& plan, const PlanChange& c);
// "3 added, 1 removed, 4 changed, 1 moved".
std::string PlanTotals(const Plan& plan);
// The plan as one JSON object, as the plan's JSON Schema describes it.
void WritePlanJson(const Plan& plan, std::ostream& out,
                   const Refusal* refusal = nullptr);
// Writes the plan's JSON object, on one line, into a line of the apply
// log: the caller gives the keys around it.
std::string PlanJsonText(const Plan& plan);

// A text of a document as JSON may carry it: itself when it is UTF-8, else
// escaped as messages show it.
std::string JsonSafe(std::string_view text);
// Whether text is UTF-8 as Utf8At takes it.
bool Utf8(std::string_view text);
// Whether every view writes the value text as it is: UTF-8, without a
// backslash or a control byte (see vantrel::ValueEscaped).
bool Plain(std::string_view text);

// Appends text to html, escaped for HTML, after the escape of every view
// (ValueEscaped): what a page shows of a document or a store.
void AppendHtml(std::string& html, std::string_view text);
// Text for HTML, as AppendHtml writes it.
std::string Html(std::string_view text);

}  // namespace doc
