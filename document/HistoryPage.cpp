#include "HistoryPage.h"

#include <map>
#include <ostream>
#include <set>

#include "PlanViews.h"

namespace doc {
namespace {

constexpr const char* kStyle =
    "body { font-family: sans-serif; margin: 2em; }\n"
    "ol.timeline { list-style: none; padding: 0; }\n"
    "ol.timeline > li { border-left: 4px solid #428bca; margin: 0.3em 0;"
    " padding: 0.2em 0.6em; }\n"
    "li.run-time { border-left-color: #aaa; color: #555; }\n"
    ".when { font-family: monospace; }\n"
    ".author { color: #555; }\n"
    "li.added { color: #2b7a2b; } li.removed { color: #a12b2b; }\n"
    "section { border-top: 1px solid #ddd; margin-top: 0.8em; }\n"
    "pre { white-space: pre-wrap; }\n";

// An object as the page names it: its kind, identifier and name.
std::string Named(const TimelineChange& c) {
  return Html(std::string(LayoutOf(c.kind).name) + " " + c.oid +
              (c.name.empty() ? "" : " \"" + c.name + "\""));
}

std::string Story(const std::string& oid) { return "o-" + oid; }

class Timeline {
 public:
  Timeline(const std::vector<TimelineEntry>& entries, std::ostream& out)
      : entries_(entries), out_(out) {
    for (const TimelineEntry& e : entries)
      for (const TimelineChange& c : e.changes)
        stories_[{c.kind, c.oid}].push_back({&e, &c});
    for (const auto& story : stories_) told_.insert(story.first.second);
  }

  void Write(const std::string& title) {
    out_ << "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n"
            "<meta charset=\"utf-8\">\n<title>History: "
         << Html(title) << "</title>\n<style>\n"
         << kStyle << "</style>\n</head>\n<body>\n<h1>History</h1>\n"
         << "<p class=\"from\">" << Html(title) << ": " << entries_.size()
         << (entries_.size() == 1 ? " commit" : " commits")
         << ", newest first</p>\n<ol class=\"timeline\">\n";
    for (const TimelineEntry& e : entries_) Entry(e);
    out_ << "</ol>\n";
    if (!stories_.empty()) out_ << "<h2>Each object's story</h2>\n";
    for (const auto& [object, changes] : stories_) Object(changes);
    out_ << "</body>\n</html>\n";
  }

 private:
  struct Told {
    const TimelineEntry* entry;
    const TimelineChange* change;
  };

  void Entry(const TimelineEntry& e) {
    const std::string subject = e.message.substr(0, e.message.find('\n'));
    out_ << "<li id=\"c-" << Html(e.commit) << "\""
         << (e.runTimeOnly ? " class=\"run-time\"" : "")
         << "><details><summary><span class=\"when\">" << Html(e.when)
         << "</span> <span class=\"author\">" << Html(e.author) << "</span> "
         << Html(subject) << "</summary>\n";
    if (e.changes.empty()) {
      // Each line escaped alone: the line breaks are the message's own.
      out_ << "<pre>";
      for (std::size_t at = 0; at < e.message.size();) {
        const std::size_t end =
            std::min(e.message.find('\n', at), e.message.size());
        out_ << Html(std::string_view(e.message).substr(at, end - at)) << "\n";
        at = end + 1;
      }
      out_ << "</pre>\n";
    } else {
      out_ << "<ul>\n";
      for (const TimelineChange& c : e.changes) {
        out_ << "<li class=\"" << Html(c.action) << "\">" << Html(c.action)
             << " <a href=\"#" << Html(Story(c.oid)) << "\">" << Named(c)
             << "</a>";
        Value(c);
        out_ << "</li>\n";
      }
      out_ << "</ul>\n";
    }
    out_ << "<p class=\"commit\">commit " << Html(e.commit) << "</p>\n"
         << "</details></li>\n";
  }

  void Object(const std::vector<Told>& changes) {
    const TimelineChange& first = *changes.front().change;
    out_ << "<section id=\"" << Html(Story(first.oid)) << "\"><h3>"
         << Named(first) << "</h3>\n<ul>\n";
    for (const Told& t : changes) {
      out_ << "<li class=\"" << Html(t.change->action) << "\"><a href=\"#c-"
           << Html(t.entry->commit) << "\" class=\"when\">"
           << Html(t.entry->when) << "</a> " << Html(t.change->action);
      Value(*t.change);
      out_ << "</li>\n";
    }
    out_ << "</ul></section>\n";
  }

  // A changed value: its attribute, and its values before and after, the
  // identifiers of a reference linked to their stories.
  void Value(const TimelineChange& c) {
    if (c.attribute.empty()) return;
    const Field field = AttributeIndex(c.kind, c.attribute) < 0
                            ? Field::kText
                            : LayoutOf(c.kind)
                                  .attributes[static_cast<std::size_t>(
                                      AttributeIndex(c.kind, c.attribute))]
                                  .field;
    const bool linked = field == Field::kRef || field == Field::kRefs;
    out_ << " " << Html(c.attribute) << ": \"";
    Shown(c.from, linked);
    out_ << "\" &rarr; \"";
    Shown(c.to, linked);
    out_ << "\"";
  }

  void Shown(const std::string& value, bool linked) {
    if (!linked) {
      out_ << Html(value);
      return;
    }
    // A list of identifiers keeps its blanks: each one is linked alone.
    std::size_t at = 0;
    while (at < value.size()) {
      const std::size_t end = std::min(value.find(' ', at), value.size());
      const std::string id = value.substr(at, end - at);
      if (told_.count(id))
        out_ << "<a href=\"#" << Html(Story(id)) << "\">" << Html(id) << "</a>";
      else
        out_ << Html(id);
      if (end < value.size()) out_ << ' ';
      at = end + 1;
    }
  }

  const std::vector<TimelineEntry>& entries_;
  std::ostream& out_;
  std::map<std::pair<Kind, std::string>, std::vector<Told>> stories_;
  std::set<std::string> told_;
};

}  // namespace

void WriteTimelinePage(const std::string& title,
                       const std::vector<TimelineEntry>& entries,
                       std::ostream& out) {
  Timeline(entries, out).Write(title);
}

}  // namespace doc
