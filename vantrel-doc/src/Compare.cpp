#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <map>
#include <ostream>
#include <set>
#include <sstream>

#include "AdminDocument.h"
#include "AttributeRules.h"
#include "Escape.h"
#include "History.h"
#include "PlanViews.h"
#include "Secrets.h"
#include "VantrelDoc.h"

namespace vdoc {

namespace {

// One object that differs across installations: who holds it, and each
// attribute whose values differ, by installation.
struct Differing {
  doc::Kind kind = doc::kKindCount;
  std::string oid, name;
  std::vector<std::string> heldBy;
  std::map<std::string, std::map<std::string, std::string>> values;
};

// What compare leaves out: run-time state unless all, and the history's
// rules ("KIND.Attribute", or "KIND.Attribute INSTALLATION" for one
// installation's values), for everyone ("") or by installation.
using Ignored = std::map<std::string, doc::AttributeMask>;

bool ReadIgnored(const std::string& rules, bool all, Ignored* ignored,
                 std::string* error) {
  if (!doc::ReadIgnoreRules(rules, ignored, error)) return false;
  doc::AttributeMask& everyone = (*ignored)[""];
  for (int k = 0; k < doc::kKindCount && !all; ++k)
    everyone[k] |= doc::RunTimeAttributes(doc::Kind(k));
  return true;
}

// The values of each attribute of the object's lines (by installation)
// that differ among the installations whose values are not ignored.
void Compared(const std::map<std::string, std::string>& lines,
              const Ignored& ignored, Differing* d) {
  std::map<std::string, doc::Line> read;
  std::string unused;
  for (const auto& [installation, text] : lines) {
    doc::Line line;
    if (doc::ReadLine(std::string_view(text).substr(0, text.size() - 1), line,
                      &unused))
      read[installation] = line;
  }
  if (read.empty()) return;
  d->kind = read.begin()->second.kind;
  const int named = doc::NameIndex(d->kind);
  if (named >= 0)
    d->name = std::string(
        read.begin()->second.values[static_cast<std::size_t>(named)]);
  const auto& attributes = doc::LayoutOf(d->kind).attributes;
  for (std::size_t i = 0; i < attributes.size(); ++i) {
    std::map<std::string, std::string> values;
    for (const auto& [installation, line] : read) {
      const auto own = ignored.find(installation);
      if ((ignored.at("")[d->kind] >> i & 1) ||
          (own != ignored.end() && (own->second[d->kind] >> i & 1)) ||
          line.kind != d->kind)
        continue;
      values[installation] = std::string(line.values[i]);
    }
    std::set<std::string> distinct;
    for (const auto& [installation, value] : values) distinct.insert(value);
    if (distinct.size() < 2) continue;
    if (attributes[i].secret)
      for (auto& [installation, value] : values)
        value = doc::MaskSecrets(value);
    d->values[attributes[i].name] = std::move(values);
  }
}

// The objects that differ across installations, in the order of their
// files.
std::vector<Differing> Differences(
    const doc::History& history, const std::vector<std::string>& installations,
    const Ignored& ignored) {
  std::map<std::string, std::map<std::string, std::string>> byPath;
  for (const std::string& installation : installations) {
    std::map<std::string, std::string> files;
    history.ObjectFiles(installation, &files);
    for (const auto& [path, id] : files) byPath[path][installation] = id;
  }
  std::vector<Differing> differing;
  for (const auto& [path, ids] : byPath) {
    std::set<std::string> distinct;
    for (const auto& [installation, id] : ids) distinct.insert(id);
    if (ids.size() == installations.size() && distinct.size() == 1) continue;
    std::map<std::string, std::string> lines;
    for (const auto& [installation, id] : ids)
      lines[installation] = history.Blob(id);
    Differing d;
    d.oid = path.substr(path.rfind('/') + 1);
    for (const auto& [installation, id] : ids) d.heldBy.push_back(installation);
    Compared(lines, ignored, &d);
    if (d.heldBy.size() == installations.size() && d.values.empty()) continue;
    differing.push_back(std::move(d));
  }
  return differing;
}

void WriteText(const std::vector<Differing>& differing,
               const std::vector<std::string>& installations,
               std::ostream& out) {
  for (const Differing& d : differing) {
    out << doc::LayoutOf(d.kind).name << " " << vantrel::Escaped(d.oid);
    if (!d.name.empty()) out << " \"" << vantrel::Escaped(d.name) << "\"";
    out << "\n";
    if (d.heldBy.size() != installations.size()) {
      out << "  held by:";
      for (const std::string& i : d.heldBy) out << " " << vantrel::Escaped(i);
      out << "\n";
    }
    for (const auto& [attribute, values] : d.values) {
      out << "  " << attribute << ":";
      const char* separator = " ";
      for (const auto& [installation, value] : values) {
        out << separator << vantrel::Escaped(installation) << " \""
            << vantrel::Escaped(value) << "\"";
        separator = ", ";
      }
      out << "\n";
    }
  }
  out << differing.size() << " objects differ across " << installations.size()
      << " installations\n";
}

void WriteJson(const std::vector<Differing>& differing,
               const std::vector<std::string>& installations,
               std::ostream& out) {
  rapidjson::StringBuffer buffer;
  rapidjson::PrettyWriter<rapidjson::StringBuffer> w(buffer);
  w.SetIndent(' ', 2);
  const auto text = [&](const std::string& value) {
    const std::string safe = vantrel::ValueEscaped(value);
    w.String(safe.data(), static_cast<rapidjson::SizeType>(safe.size()));
  };
  w.StartObject();
  w.Key("format");
  w.String("vantrel-doc compare 1");
  w.Key("installations");
  w.StartArray();
  for (const std::string& i : installations) text(i);
  w.EndArray();
  w.Key("objects");
  w.StartArray();
  for (const Differing& d : differing) {
    w.StartObject();
    w.Key("kind");
    w.String(doc::LayoutOf(d.kind).name);
    w.Key("oid");
    text(d.oid);
    w.Key("name");
    text(d.name);
    w.Key("held_by");
    w.StartArray();
    for (const std::string& i : d.heldBy) text(i);
    w.EndArray();
    w.Key("attributes");
    w.StartObject();
    for (const auto& [attribute, values] : d.values) {
      w.Key(attribute.c_str());
      w.StartObject();
      for (const auto& [installation, value] : values) {
        const std::string key = doc::JsonSafe(installation);
        w.Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
        text(value);
      }
      w.EndObject();
    }
    w.EndObject();
    w.EndObject();
  }
  w.EndArray();
  w.EndObject();
  out << buffer.GetString() << "\n";
}

// The installations side by side as one self-contained page: a table per
// object that differs, an installation a column.
void WriteHtml(const std::vector<Differing>& differing,
               const std::vector<std::string>& installations,
               const std::string& repo, std::ostream& out) {
  out << "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta "
         "charset=\"utf-8\">\n<title>Installations: "
      << doc::Html(repo)
      << "</title>\n<style>\nbody { font-family: sans-serif; margin: 2em; }\n"
         "table { border-collapse: collapse; margin-bottom: 1em; }\n"
         "th, td { border: 1px solid #ccc; padding: 0.2em 0.5em; "
         "text-align: left; }\ntd.none { color: #999; }\n</style>\n</head>\n"
         "<body>\n<h1>Installations</h1>\n<p>"
      << doc::Html(repo) << ": " << differing.size()
      << " objects differ across " << installations.size()
      << " installations</p>\n";
  for (const Differing& d : differing) {
    out << "<h2 id=\"" << doc::Html("o-" + d.oid) << "\">"
        << doc::LayoutOf(d.kind).name << " " << doc::Html(d.oid)
        << (d.name.empty() ? "" : " \"" + doc::Html(d.name) + "\"")
        << "</h2>\n<table>\n<tr><th></th>";
    for (const std::string& i : installations)
      out << "<th>" << doc::Html(i) << "</th>";
    out << "</tr>\n<tr><th>held</th>";
    const std::set<std::string> held(d.heldBy.begin(), d.heldBy.end());
    for (const std::string& i : installations)
      out << (held.count(i) ? "<td>yes</td>" : "<td class=\"none\">no</td>");
    out << "</tr>\n";
    for (const auto& [attribute, values] : d.values) {
      out << "<tr><th>" << doc::Html(attribute) << "</th>";
      for (const std::string& i : installations) {
        const auto value = values.find(i);
        out << (value == values.end()
                    ? "<td class=\"none\"></td>"
                    : "<td>&quot;" + doc::Html(value->second) + "&quot;</td>");
      }
      out << "</tr>\n";
    }
    out << "</table>\n";
  }
  out << "</body>\n</html>\n";
}

}  // namespace

int DocCompare(const std::string& repo, const CompareOptions& o,
               std::ostream& out, std::ostream& err) {
  const auto failed = [&](const std::string& why) {
    err << "vantrel-doc: cannot compare the installations of "
        << vantrel::Escaped(repo) << ": " << why << "\n";
    return 2;
  };
  std::string error;
  const std::unique_ptr<doc::History> history =
      doc::History::Open(repo, false, &error);
  if (!history) return failed(error);
  Ignored ignored;
  if (!ReadIgnored(history->IgnoreRules(), o.all, &ignored, &error))
    return failed("vantrel-ignore: " + error);
  const std::vector<std::string> installations = history->Installations();
  const std::vector<Differing> differing =
      Differences(*history, installations, ignored);
  if (o.format == PlanFormat::kJson)
    WriteJson(differing, installations, out);
  else if (o.format == PlanFormat::kHtml)
    WriteHtml(differing, installations, repo, out);
  else
    WriteText(differing, installations, out);
  return differing.empty() ? 0 : 1;
}

}  // namespace vdoc
