#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <ctime>
#include <map>
#include <ostream>
#include <sstream>

#include "AdminDocument.h"
#include "AttributeRules.h"
#include "Checker.h"
#include "Escape.h"
#include "History.h"
#include "HistoryPage.h"
#include "Output.h"
#include "PlanViews.h"
#include "Secrets.h"
#include "VantrelDoc.h"

namespace vdoc {

namespace {

// A time as the log shows it: "2026-11-24 02:15:00 UTC".
std::string When(long long seconds) {
  const std::time_t t = static_cast<std::time_t>(seconds);
  std::tm utc{};
  ::gmtime_r(&t, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &utc);
  return text;
}

// One change of an object between two of its lines, as every view of the
// log tells it.
using ObjectChange = doc::TimelineChange;

// The attributes a history's rules leave out, by kind.
const doc::AttributeMask kNoneIgnored{};

// What changed from the line was to the line now of one object (either ""
// for none): its attributes but those ignored, a secret's masked.
std::vector<ObjectChange> Changes(const std::string& was,
                                  const std::string& now, doc::Kind* kind,
                                  std::string* name,
                                  const doc::AttributeMask& ignored) {
  // The lines without their line ends; the values view them.
  const std::string_view old = std::string_view(was).substr(
                             0, was.empty() ? 0 : was.size() - 1),
                         next = std::string_view(now).substr(
                             0, now.empty() ? 0 : now.size() - 1);
  doc::Line before, after;
  std::string unused;
  const bool had = !old.empty() && doc::ReadLine(old, before, &unused);
  const bool has = !next.empty() && doc::ReadLine(next, after, &unused);
  const doc::Line& line = has ? after : before;
  *kind = line.kind;
  const int named = doc::NameIndex(line.kind);
  *name = named >= 0 && static_cast<std::size_t>(named) < line.values.size()
              ? std::string(line.values[static_cast<std::size_t>(named)])
              : std::string();
  ObjectChange change;
  change.kind = line.kind;
  change.name = *name;
  if (!had || !has) {
    change.action = had ? "removed" : "added";
    return {change};
  }
  std::vector<ObjectChange> changes;
  const auto& attributes = doc::LayoutOf(line.kind).attributes;
  for (std::size_t i = 0; i < attributes.size(); ++i) {
    const std::string from(before.values[i]), to(after.values[i]);
    if ((from == to &&
         before.Has(static_cast<int>(i)) == after.Has(static_cast<int>(i))) ||
        (ignored[line.kind] >> i & 1))
      continue;
    const bool secret = attributes[i].secret;
    const auto masked =
        secret ? doc::MaskedChange(from, to) : std::make_pair(from, to);
    change.action = "changed";
    change.attribute = attributes[i].name;
    change.from = masked.first;
    change.to = masked.second;
    change.runTime = attributes[i].runTime;
    changes.push_back(change);
  }
  return changes;
}

// Whether the changes are of run-time state alone.
bool RunTimeOnly(const std::vector<ObjectChange>& changes) {
  for (const ObjectChange& c : changes)
    if (!c.runTime) return false;
  return !changes.empty();
}

// The log as text: a line per commit, then its message or the object's
// changes, indented.
void WriteText(const std::vector<doc::History::Entry>& entries,
               const std::string& oid, bool all,
               const doc::AttributeMask& ignored, std::ostream& out) {
  for (const doc::History::Entry& e : entries) {
    std::ostringstream body;
    if (oid.empty()) {
      if (!all && e.message.find("(run-time state only)") != std::string::npos)
        continue;
      std::istringstream lines(e.message);
      for (std::string line; std::getline(lines, line);)
        if (!line.empty()) body << "    " << line << "\n";
    } else {
      doc::Kind kind;
      std::string name;
      const auto changes = Changes(e.before, e.after, &kind, &name, ignored);
      if (changes.empty() || (!all && RunTimeOnly(changes))) continue;
      const std::string object =
          std::string(doc::LayoutOf(kind).name) + " " + oid +
          (name.empty() ? "" : " \"" + vantrel::Escaped(name) + "\"");
      for (const ObjectChange& c : changes) {
        if (c.runTime && !all) continue;
        body << "    " << c.action << " " << object;
        if (!c.attribute.empty())
          body << " " << c.attribute << ": \"" << vantrel::Escaped(c.from)
               << "\" -> \"" << vantrel::Escaped(c.to) << "\"";
        body << "\n";
      }
    }
    out << "commit " << e.commit.substr(0, 12) << "  " << When(e.time) << "  "
        << vantrel::Escaped(e.author) << "\n"
        << body.str();
  }
}

using Pretty = rapidjson::PrettyWriter<rapidjson::StringBuffer>;

// A value of the document, escaped as every view escapes it.
void Text(Pretty& w, const std::string& text) {
  const std::string safe = vantrel::ValueEscaped(text);
  w.String(safe.data(), static_cast<rapidjson::SizeType>(safe.size()));
}

// A text of the history's own (a message, a name), as JSON carries it.
void Said(Pretty& w, const std::string& text) {
  const std::string safe = doc::JsonSafe(text);
  w.String(safe.data(), static_cast<rapidjson::SizeType>(safe.size()));
}

// The log as one JSON object.
void WriteJson(const std::vector<doc::History::Entry>& entries,
               const std::string& history, const std::string& oid, bool all,
               const doc::AttributeMask& ignored, std::ostream& out) {
  rapidjson::StringBuffer buffer;
  Pretty w(buffer);
  w.SetIndent(' ', 2);
  w.StartObject();
  w.Key("format");
  w.String("vantrel-doc log 1");
  w.Key("history");
  Said(w, history);
  w.Key("object");
  if (oid.empty())
    w.Null();
  else
    Text(w, oid);
  w.Key("entries");
  w.StartArray();
  for (const doc::History::Entry& e : entries) {
    doc::Kind kind = doc::kKindCount;
    std::string name;
    const auto changes =
        oid.empty() ? std::vector<ObjectChange>()
                    : Changes(e.before, e.after, &kind, &name, ignored);
    const bool runTime =
        oid.empty()
            ? e.message.find("(run-time state only)") != std::string::npos
            : RunTimeOnly(changes);
    if ((runTime && !all) || (!oid.empty() && changes.empty())) continue;
    w.StartObject();
    w.Key("commit");
    Text(w, e.commit);
    w.Key("time");
    Text(w, When(e.time));
    w.Key("author");
    Said(w, e.author);
    w.Key("message");
    Said(w, e.message);
    w.Key("run_time_only");
    w.Bool(runTime);
    if (!oid.empty()) {
      w.Key("changes");
      w.StartArray();
      for (const ObjectChange& c : changes) {
        if (c.runTime && !all) continue;
        w.StartObject();
        w.Key("action");
        Text(w, c.action);
        if (!c.attribute.empty()) {
          w.Key("attribute");
          Text(w, c.attribute);
          w.Key("old");
          Text(w, c.from);
          w.Key("new");
          Text(w, c.to);
        }
        w.EndObject();
      }
      w.EndArray();
    }
    w.EndObject();
  }
  w.EndArray();
  w.EndObject();
  out << buffer.GetString() << "\n";
}

// The changes of one object between its lines was and now, for the page;
// run-time state left out unless all.
void AddChanges(const std::string& oid, const std::string& was,
                const std::string& now, bool all,
                const doc::AttributeMask& ignored,
                std::vector<doc::TimelineChange>* changes) {
  doc::Kind kind;
  std::string name;
  for (ObjectChange& c : Changes(was, now, &kind, &name, ignored)) {
    if (c.runTime && !all) continue;
    c.oid = oid;
    changes->push_back(std::move(c));
  }
}

// The log as one HTML page: each commit opens to its objects' changes, the
// history's rules and run-time state left out of them as from an object's
// story. False with *error.
bool WriteHtml(const doc::History& history,
               const std::vector<doc::History::Entry>& entries,
               const std::string& title, const std::string& oid, bool all,
               const doc::AttributeMask& ignored, std::ostream& out,
               std::string* error) {
  std::vector<doc::TimelineEntry> timeline;
  for (const doc::History::Entry& e : entries) {
    doc::TimelineEntry entry{e.commit,  When(e.time), e.author,
                             e.message, false,        {}};
    if (oid.empty()) {
      entry.runTimeOnly =
          e.message.find("(run-time state only)") != std::string::npos;
      std::vector<doc::History::Changed> changed;
      if (!history.ChangedObjects(e.commit, &changed, error)) return false;
      for (const doc::History::Changed& c : changed)
        AddChanges(c.path.substr(c.path.rfind('/') + 1), c.before, c.after, all,
                   ignored, &entry.changes);
      // A commit whose every change the rules or run-time state leave out
      // is left out; a first commit, which changes no object, tells its
      // message.
      if (entry.changes.empty() && !changed.empty()) continue;
    } else {
      AddChanges(oid, e.before, e.after, all, ignored, &entry.changes);
      if (entry.changes.empty()) continue;
    }
    timeline.push_back(std::move(entry));
  }
  doc::WriteTimelinePage(title, timeline, out);
  return true;
}

// The identifier object names in the branch's last document: itself, or
// for KIND:NAME the one object of that kind and name. "" with *error.
std::string ObjectOid(const doc::History& history,
                      const std::string& installation,
                      const std::string& object, std::string* error) {
  const std::size_t colon = object.find(':');
  if (colon == std::string::npos) return object;
  std::string last;
  const doc::Kind kind = doc::KindNamed(object.substr(0, colon));
  const int named = kind == doc::kKindCount ? -1 : doc::NameIndex(kind);
  std::vector<std::string> found;
  if (named >= 0 && history.Last(installation, &last)) {
    std::string unused;
    for (std::size_t at = 0; at < last.size();) {
      std::size_t end = last.find('\n', at);
      if (end == std::string::npos) end = last.size();
      doc::Line line;
      if (doc::ReadLine(std::string_view(last).substr(at, end - at), line,
                        &unused) &&
          line.type == doc::Line::kStart && line.kind == kind &&
          line.values[static_cast<std::size_t>(named)] ==
              object.substr(colon + 1))
        found.emplace_back(line.values[static_cast<std::size_t>(
            doc::AttributeIndex(kind, "Oid"))]);
      at = end + 1;
    }
  }
  if (found.size() == 1) return found[0];
  *error =
      vantrel::Escaped(object) +
      (found.empty() ? " is no object of the history"
                     : " names " + std::to_string(found.size()) + " objects:");
  for (const std::string& oid : found) *error += " " + vantrel::Escaped(oid);
  if (!found.empty()) *error += ": name one by its identifier";
  return std::string();
}

// The value of each attribute of the line text (a line of the document
// with its line end), by attribute; empty for no line.
std::map<std::string, std::string> ValuesOf(const std::string& text) {
  std::map<std::string, std::string> values;
  const std::string_view line =
      std::string_view(text).substr(0, text.empty() ? 0 : text.size() - 1);
  doc::Line read;
  std::string unused;
  if (line.empty() || !doc::ReadLine(line, read, &unused)) return values;
  const auto& attributes = doc::LayoutOf(read.kind).attributes;
  for (std::size_t i = 0; i < attributes.size(); ++i)
    if (read.Has(static_cast<int>(i)))
      values[attributes[i].name] = std::string(read.values[i]);
  return values;
}

// Where log's target and object lead: the history, the installation, the
// object's identifier and file. Returns the status after saying why not,
// or 0.
int Target(const std::string& target, const std::string& object,
           std::unique_ptr<doc::History>* history, std::string* installation,
           std::string* oid, std::string* path, std::ostream& err) {
  const auto failed = [&](const std::string& why) {
    err << "vantrel-doc: cannot read the history " << vantrel::Escaped(target)
        << ": " << why << "\n";
    return 2;
  };
  // REPO, or REPO@INSTALLATION.
  const std::size_t at = target.rfind('@');
  const bool named = at != std::string::npos && !doc::History::Is(target);
  const std::string repo = named ? target.substr(0, at) : target;
  *installation = named ? target.substr(at + 1) : "";
  std::string error;
  *history = doc::History::Open(repo, false, &error);
  if (!*history) return failed(error);
  if (object.empty()) return 0;
  *oid = ObjectOid(**history, *installation, object, &error);
  *path = oid->empty() ? "" : (*history)->ObjectPath(*installation, *oid);
  if (path->empty())
    return failed(error.empty() ? vantrel::Escaped(object) +
                                      " is no object of the history"
                                : error);
  return 0;
}

}  // namespace

int DocBlame(const std::string& target, const std::string& object,
             std::ostream& out, std::ostream& err) {
  std::unique_ptr<doc::History> history;
  std::string installation, oid, path, error;
  if (const int status =
          Target(target, object, &history, &installation, &oid, &path, err))
    return status;
  std::vector<doc::History::Entry> entries;
  if (!history->Log(installation, path, -1, -1, &entries, &error) ||
      entries.empty() || entries.front().after.empty()) {
    err << "vantrel-doc: " << vantrel::Escaped(object)
        << " is no object of the history's last commit\n";
    return 2;
  }
  doc::Kind kind;
  std::string name;
  Changes(entries.front().after, entries.front().after, &kind, &name,
          kNoneIgnored);
  out << doc::LayoutOf(kind).name << " " << oid
      << (name.empty() ? "" : " \"" + vantrel::Escaped(name) + "\"") << "\n";
  // Each value holds since the oldest commit, newest first, whose line
  // before did not hold it.
  const auto now = ValuesOf(entries.front().after);
  for (const auto& attribute : doc::LayoutOf(kind).attributes) {
    const auto value = now.find(attribute.name);
    if (value == now.end()) continue;
    const doc::History::Entry* since = &entries.back();
    for (const doc::History::Entry& e : entries) {
      const auto before = ValuesOf(e.before);
      const auto was = before.find(attribute.name);
      if (was == before.end() || was->second != value->second) {
        since = &e;
        break;
      }
    }
    const std::string shown =
        attribute.secret ? doc::MaskSecrets(value->second) : value->second;
    out << "  " << attribute.name << " \"" << vantrel::Escaped(shown)
        << "\" since " << since->commit.substr(0, 12) << " "
        << When(since->time) << " " << vantrel::Escaped(since->author) << "\n";
  }
  return 0;
}

int DocLog(const std::string& target, const std::string& object,
           const LogOptions& o, std::ostream& out, std::ostream& err) {
  const auto failed = [&](const std::string& why) {
    err << "vantrel-doc: cannot read the history " << vantrel::Escaped(target)
        << ": " << why << "\n";
    return 2;
  };
  std::unique_ptr<doc::History> history;
  std::string installation, oid, path, error;
  if (const int status =
          Target(target, object, &history, &installation, &oid, &path, err))
    return status;
  const long long since =
      o.since.empty() ? -1 : doc::History::Time(o.since, true);
  const long long until = o.until.empty() ? -1 : doc::History::Time(o.until);
  if ((!o.since.empty() && since < 0) || (!o.until.empty() && until < 0))
    return failed("a date is ISO 8601: 2026-11-24 or 2026-11-24T02:15Z");
  std::vector<doc::History::Entry> entries;
  if (!history->Log(installation, path, since, until, &entries, &error))
    return failed(error);
  // The history's rules leave values out of an object's changes.
  std::map<std::string, doc::AttributeMask> rules;
  if (!doc::ReadIgnoreRules(history->IgnoreRules(), &rules, &error))
    return failed("vantrel-ignore: " + error);
  const doc::AttributeMask ignored = doc::IgnoredFor(rules, installation);
  std::ostringstream text;
  if (o.format == PlanFormat::kJson)
    WriteJson(entries, target, oid, o.all, ignored, text);
  else if (o.format == PlanFormat::kText)
    WriteText(entries, oid, o.all, ignored, text);
  else if (!WriteHtml(*history, entries,
                      target + (object.empty() ? "" : " " + object), oid, o.all,
                      ignored, text, &error))
    return failed(error);
  if (o.output == "-") {
    out << text.str();
    return 0;
  }
  Output file;
  // The history's own files are no output.
  bool written = file.Open(o.output, {history->Path()}, &error);
  if (written) {
    file.Stream() << text.str();  // a write that fails is told by the commit
    written = file.Commit(&error);
  }
  if (!written) {
    err << "vantrel-doc: cannot write " << doc::ShownOutput(o.output) << ": "
        << error << "\n";
    return 2;
  }
  return 0;
}

}  // namespace vdoc
