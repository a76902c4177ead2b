#include "PlanViews.h"

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <ostream>

#include "Escape.h"
#include "Secrets.h"

namespace doc {

namespace {

const char* const kActions[] = {"removed", "added", "changed", "moved"};

// Each piece of a line of the plan, appended to its text.
void Quoted(std::string& line, std::string_view value) {
  line += '"';
  vantrel::AppendEscaped(line, value);
  line += '"';
}

// An identifier with the name of what it names, when it has one.
void Named(std::string& line, const PlanRef& ref) {
  line += ref.oid;
  if (ref.name.empty()) return;
  line += " (";
  Quoted(line, ref.name);
  line += ')';
}

void Where(std::string& line, const PlanRef& parent) {
  if (parent.oid.empty())
    line += "the document";
  else
    Named(line, parent);
}

// The object as a line of the plan begins with it, after its action. An
// object without a name of its own (a status) is named by its parent's,
// where its line does not name the parent already.
void Object(std::string& line, const char* action, const PlanChange& c) {
  ((line += action) += LayoutOf(c.kind).name) += ' ';
  line += c.object.oid;
  if (NameIndex(c.kind) < 0) {
    if (c.parent.oid.empty() || c.action == PlanChange::kAdded ||
        c.action == PlanChange::kMoved)
      return;
    line += " of ";
    Named(line, c.parent);
    return;
  }
  line += ' ';
  Quoted(line, c.object.name);
}

// A value of an attribute with the names of what it names.
void Shown(std::string& line, bool present, std::string_view value,
           const std::vector<PlanRef>& refs) {
  if (!present) {
    line += "(none)";
    return;
  }
  Quoted(line, value);
  const auto named =
      std::find_if(refs.begin(), refs.end(),
                   [](const PlanRef& r) { return !r.name.empty(); });
  if (named == refs.end()) return;
  line += " (";
  for (const PlanRef& r : refs) {
    if (&r != &refs.front()) line += ", ";
    if (r.name.empty())
      line += r.oid;
    else
      Quoted(line, r.name);
  }
  line += ')';
}

// Calls done(line) after each line of change c is written into line;
// secrets are shown as they are with secrets, else masked.
template <typename F>
void Lines(const PlanChange& c, bool secrets, std::string& line, F done) {
  std::pair<std::string, std::string> masked;
  switch (c.action) {
    case PlanChange::kRemoved:
      Object(line, "removed ", c);
      return done(line);
    case PlanChange::kAdded:
      Object(line, "added ", c);
      line += " in ";
      Where(line, c.parent);
      done(line);
      // Then what it is made of, a line each, names beside references;
      // its identifier and name are on the line above.
      for (const PlanValue& v : c.values) {
        const Attribute& a = LayoutOf(c.kind).attributes[v.attribute];
        if (a.field == Field::kOid ||
            static_cast<int>(v.attribute) == NameIndex(c.kind))
          continue;
        ((line += "  ") += a.name) += ": ";
        Shown(line, v.has, ShownValues(c.kind, v, secrets, masked).second,
              v.toRefs);
        done(line);
      }
      return;
    case PlanChange::kChanged:
      if (c.wasKind != c.kind) {
        ((line += "changed ") += c.object.oid) += " from a ";
        ((line += LayoutOf(c.wasKind).name) += " to a ") +=
            LayoutOf(c.kind).name;
        return done(line);
      }
      for (const PlanValue& v : c.values) {
        Object(line, "changed ", c);
        ((line += ' ') += LayoutOf(c.kind).attributes[v.attribute].name) +=
            ": ";
        const auto [from, to] = ShownValues(c.kind, v, secrets, masked);
        Shown(line, v.had, from, v.fromRefs);
        line += " -> ";
        Shown(line, v.has, to, v.toRefs);
        done(line);
      }
      return;
    case PlanChange::kMoved:
      Object(line, "moved ", c);
      if (c.fromPlace == 0) {
        line += " from ";
        Where(line, c.fromParent);
        line += " to ";
        Where(line, c.parent);
      } else {
        line += " in ";
        Where(line, c.parent);
        ((line += " from place ") += std::to_string(c.fromPlace)) +=
            " to place ";
        line += std::to_string(c.toPlace);
      }
      return done(line);
  }
}

}  // namespace

std::pair<std::string_view, std::string_view> ShownValues(
    Kind kind, const PlanValue& v, bool secrets,
    std::pair<std::string, std::string>& masked) {
  if (secrets || !LayoutOf(kind).attributes[v.attribute].secret)
    return {v.from, v.to};
  masked = MaskedChange(v.from, v.to);
  return {masked.first, masked.second};
}

bool OtherObject(const Plan& plan, const PlanChange& c) {
  return !plan.otherObjects.empty() &&
         std::binary_search(plan.otherObjects.begin(), plan.otherObjects.end(),
                            c.object.oid);
}

std::string PlanTotals(const Plan& plan) {
  return std::to_string(plan.added) + " added, " +
         std::to_string(plan.removed) + " removed, " +
         std::to_string(plan.changed) + " changed, " +
         std::to_string(plan.moved) + " moved";
}

namespace {

// Writes a line for each value of changes, at most most, then how many
// more there are.
void WriteLines(const Plan& plan, const std::vector<PlanChange>& changes,
                std::ostream& out, std::size_t most) {
  const bool secrets = plan.showSecrets;
  std::size_t shown = 0, left = 0;
  // Lines are written into one block, given to out 64 KiB at a time; a
  // line past most is taken back.
  std::string block;
  for (const PlanChange& c : changes) {
    std::size_t start = block.size();
    const bool other = OtherObject(plan, c);
    Lines(c, secrets, block, [&](std::string& text) {
      if (shown == most) {
        ++left;
        text.resize(start);
        return;
      }
      ++shown;
      if (other && text.compare(start, 2, "  ") != 0)
        ((text += " (") += kOtherObject) += ')';
      text += '\n';
      if (text.size() >= (1 << 16)) {
        out.write(text.data(), static_cast<std::streamsize>(text.size()));
        text.clear();
      }
      start = text.size();
    });
  }
  out << block;
  if (left) out << "and " << left << " more\n";
}

}  // namespace

void WritePlanText(const Plan& plan, std::ostream& out, std::size_t most) {
  if (plan.Empty() && plan.runTime.empty()) return;
  WriteLines(plan, plan.changes, out, most);
  out << PlanTotals(plan) << "\n";
  if (plan.runTime.empty()) return;
  // Apart from the configuration, after its totals, which do not count it.
  out << kRunTimeHeading << ", " << plan.runTime.size()
      << (plan.runTime.size() == 1 ? " object" : " objects") << ":\n";
  WriteLines(plan, plan.runTime, out, most);
}

bool Utf8(std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    if (static_cast<unsigned char>(text[i]) < 0x80) {
      ++i;
      continue;
    }
    const std::size_t n = vantrel::Utf8At(text, i);
    if (n == 0) return false;
    i += n;
  }
  return true;
}

bool Plain(std::string_view text) {
  for (const char c : text)
    if (c == '\\' || static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
      return false;
  return Utf8(text);
}

std::string JsonSafe(std::string_view text) {
  return Utf8(text) ? std::string(text) : vantrel::Escaped(text);
}

namespace {

using Compact = rapidjson::Writer<rapidjson::StringBuffer>;

// The value s as a JSON string, escaped as every view escapes it.
void Text(Compact& w, std::string_view s) {
  if (Plain(s)) {
    w.String(s.data(), static_cast<rapidjson::SizeType>(s.size()));
    return;
  }
  const std::string safe = vantrel::ValueEscaped(s);
  w.String(safe.data(), static_cast<rapidjson::SizeType>(safe.size()));
}

void Ref(Compact& w, const PlanRef& r) {
  if (r.oid.empty()) return static_cast<void>(w.Null());
  w.StartObject();
  w.Key("oid");
  Text(w, r.oid);
  w.Key("name");
  Text(w, r.name);
  w.EndObject();
}

void Refs(Compact& w, const char* key, const std::vector<PlanRef>& list) {
  w.Key(key);
  w.StartArray();
  for (const PlanRef& r : list) Ref(w, r);
  w.EndArray();
}

// Change c as one JSON object; secrets as they are with secrets, else
// masked.
void Change(Compact& w, const PlanChange& c, bool secrets,
            bool otherObject) {
  std::pair<std::string, std::string> masked;
  w.StartObject();
  w.Key("action");
  w.String(kActions[c.action]);
  w.Key("kind");
  w.String(LayoutOf(c.kind).name);
  if (c.wasKind != c.kind) {
    w.Key("was_kind");
    w.String(LayoutOf(c.wasKind).name);
  }
  w.Key("oid");
  Text(w, c.object.oid);
  w.Key("name");
  Text(w, c.object.name);
  w.Key("parent");
  Ref(w, c.parent);
  if (otherObject) {
    w.Key("other_object");
    w.Bool(true);
  }
  if (c.action == PlanChange::kMoved) {
    w.Key("from_parent");
    Ref(w, c.fromParent);
    if (c.fromPlace) {
      w.Key("from_place");
      w.Uint64(c.fromPlace);
      w.Key("to_place");
      w.Uint64(c.toPlace);
    }
  }
  if (c.action != PlanChange::kMoved && c.wasKind == c.kind) {
    w.Key("attributes");
    w.StartArray();
    for (const PlanValue& v : c.values) {
      const Attribute& a = LayoutOf(c.kind).attributes[v.attribute];
      const auto [from, to] = ShownValues(c.kind, v, secrets, masked);
      w.StartObject();
      w.Key("attribute");
      w.String(a.name);
      w.Key("old");
      if (v.had)
        Text(w, from);
      else
        w.Null();
      w.Key("new");
      if (v.has)
        Text(w, to);
      else
        w.Null();
      if (a.field == Field::kRef || a.field == Field::kRefs ||
          a.field == Field::kMedia) {
        Refs(w, "old_refs", v.fromRefs);
        Refs(w, "new_refs", v.toRefs);
      }
      w.EndObject();
    }
    w.EndArray();
  }
  w.EndObject();
}

// Writes the plan through writer, flushing its buffer to out (when given)
// a block at a time. Each change and each list is one line of its own.
template <typename Writer>
void WriteJson(const Plan& plan, bool secrets, Writer& w,
               rapidjson::StringBuffer& buffer, std::ostream* out,
               const Refusal* refusal = nullptr) {
  rapidjson::StringBuffer one;
  Compact compact(one);
  const auto put = [&] {
    w.RawValue(one.GetString(), one.GetSize(), rapidjson::kObjectType);
    one.Clear();
    compact.Reset(one);
  };
  const auto flush = [&] {
    if (!out || buffer.GetSize() < (1 << 16)) return;
    out->write(buffer.GetString(),
               static_cast<std::streamsize>(buffer.GetSize()));
    buffer.Clear();
  };
  w.StartObject();
  w.Key("format");
  w.String("vantrel-doc plan 1");
  w.Key("totals");
  w.StartObject();
  const std::pair<const char*, std::size_t> totals[] = {
      {"added", plan.added},
      {"removed", plan.removed},
      {"changed", plan.changed},
      {"moved", plan.moved}};
  for (const auto& [key, count] : totals) {
    w.Key(key);
    w.Uint64(count);
  }
  w.EndObject();
  // What the apply of a dry run's plan would meet: a gate reads it first.
  if (refusal && *refusal) {
    w.Key("refused");
    w.StartObject();
    w.Key("guard");
    w.String(refusal->guard);
    w.Key("reason");
    const std::string reason = JsonSafe(refusal->why);
    w.String(reason.data(), static_cast<rapidjson::SizeType>(reason.size()));
    w.EndObject();
  }
  w.Key("changes");
  w.StartArray();
  for (const PlanChange& c : plan.changes) {
    Change(compact, c, secrets, OtherObject(plan, c));
    put();
    flush();
  }
  w.EndArray();
  w.Key("reordered");
  w.StartArray();
  for (const PlanList& l : plan.reordered) {
    compact.StartObject();
    compact.Key("kind");
    compact.String(LayoutOf(l.kind).name);
    compact.Key("parent");
    Ref(compact, l.parent);
    compact.EndObject();
    put();
  }
  w.EndArray();
  // Run-time state apart, after the configuration: no total counts it.
  w.Key("run_time");
  w.StartArray();
  for (const PlanChange& c : plan.runTime) {
    Change(compact, c, secrets, OtherObject(plan, c));
    put();
    flush();
  }
  w.EndArray();
  w.EndObject();
}

}  // namespace

void WritePlanJson(const Plan& plan, std::ostream& out,
                   const Refusal* refusal) {
  rapidjson::StringBuffer buffer;
  rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
  writer.SetIndent(' ', 2);
  WriteJson(plan, plan.showSecrets, writer, buffer, &out, refusal);
  out.write(buffer.GetString(), static_cast<std::streamsize>(buffer.GetSize()));
  out << '\n';
}

std::string PlanJsonText(const Plan& plan) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  // The log keeps no secret, whatever the views show.
  WriteJson(plan, false, writer, buffer, nullptr);
  return std::string(buffer.GetString(), buffer.GetSize());
}

void AppendHtml(std::string& html, std::string_view text) {
  std::string safe;
  if (!Plain(text)) {
    safe = vantrel::ValueEscaped(text);
    text = safe;
  }
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t plain = text.find_first_of("&<>\"", i);
    html.append(text.data() + i, std::min(plain, text.size()) - i);
    if (plain == std::string_view::npos) return;
    switch (text[plain]) {
      case '&':
        html += "&amp;";
        break;
      case '<':
        html += "&lt;";
        break;
      case '>':
        html += "&gt;";
        break;
      default:
        html += "&quot;";
    }
    i = plain + 1;
  }
}

std::string Html(std::string_view text) {
  std::string html;
  AppendHtml(html, text);
  return html;
}

}  // namespace doc
