#include "PlanPage.h"

#include <map>
#include <ostream>
#include <unordered_map>
#include <unordered_set>

#include "DocumentPicture.h"
#include "Escape.h"
#include "PlanViews.h"

namespace doc {
namespace {

const char* const kHeadings[] = {"Removed", "Added", "Changed", "Moved"};
const char* const kClasses[] = {"removed", "added", "changed", "moved"};
const char* const kFills[] = {"#f6c6c6", "#c9ecc9", "#fbe7a8", "#c9dcf7"};

// The anchor of an object's section: the first the page gives it.
std::string Anchor(std::string_view oid) { return "o-" + std::string(oid); }

class Page {
 public:
  Page(const Plan& plan, std::ostream& out) : plan_(plan), out_(out) {
    for (const PlanChange& c : plan.changes) sections_.insert(c.object.oid);
  }

  bool Write(const std::string& title, std::string* error) {
    out_ << "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n"
            "<meta charset=\"utf-8\">\n<title>Plan: "
         << Html(title) << "</title>\n<style>\n"
         << kStyle
         << "</style>\n</head>\n<body>\n<h1>Plan</h1>\n<p class=\"from\">"
         << Html(title) << "</p>\n<p id=\"totals\">" << Html(PlanTotals(plan_))
         << "</p>\n";
    if (plan_.Empty()) {
      out_ << "<p>Nothing changes in the configuration.</p>\n";
      RunTime();
      out_ << "</body>\n</html>\n";
      return true;
    }
    std::string svg;
    if (!Picture(&svg, error)) return false;
    out_ << "<p class=\"legend\">";
    for (int action = 0; action < 4; ++action)
      out_ << "<span style=\"background: " << kFills[action] << "\">"
           << kClasses[action] << "</span> ";
    out_ << "<span class=\"named\">named by a change</span></p>\n";
    out_ << "<div id=\"picture\">\n" << svg << "</div>\n";
    out_ << "<p class=\"fold\"><button type=\"button\" "
            "onclick=\"fold(true)\">Open all</button> <button type=\"button\" "
            "onclick=\"fold(false)\">Close all</button></p>\n";
    const bool open = plan_.changes.size() <= 50;
    std::size_t c = 0;
    for (int action = 0; action < 4; ++action) {
      if (c == plan_.changes.size() || plan_.changes[c].action != action)
        continue;
      out_ << "<h2 id=\"" << kClasses[action] << "\">" << kHeadings[action]
           << "</h2>\n";
      while (c < plan_.changes.size() && plan_.changes[c].action == action) {
        const Kind kind = plan_.changes[c].kind;
        out_ << "<h3 id=\"" << kClasses[action] << "-" << LayoutOf(kind).name
             << "\">" << LayoutOf(kind).name << "</h3>\n";
        // Sections go out in blocks of 64 KiB.
        std::string block;
        for (; c < plan_.changes.size() && plan_.changes[c].action == action &&
               plan_.changes[c].kind == kind;
             ++c) {
          Section(block, plan_.changes[c], open);
          if (block.size() >= (1 << 16)) {
            out_ << block;
            block.clear();
          }
        }
        out_ << block;
      }
    }
    if (!plan_.reordered.empty()) {
      out_ << "<h2 id=\"reordered\">Lists in a new order</h2>\n<ul>\n";
      for (const PlanList& l : plan_.reordered) {
        std::string where;
        Where(where, l.parent);
        out_ << "<li>" << LayoutOf(l.kind).name << " in " << where << "</li>\n";
      }
      out_ << "</ul>\n";
    }
    RunTime();
    out_ << "<script>\nfunction fold(open) {\n"
            "  for (const d of document.querySelectorAll('details'))"
            " d.open = open;\n}\n</script>\n</body>\n</html>\n";
    return true;
  }

 private:
  // The run-time state that moved, apart from the configuration, after it.
  void RunTime() {
    if (plan_.runTime.empty()) return;
    out_ << "<h2 id=\"run-time\">Run-time state, not configuration</h2>\n";
    std::string block;
    for (const PlanChange& c : plan_.runTime) {
      Section(block, c, plan_.runTime.size() <= 50);
      if (block.size() >= (1 << 16)) {
        out_ << block;
        block.clear();
      }
    }
    out_ << block;
  }

  // A reference: a link to the section of what it names, when the plan has
  // one, with its name.
  void Ref(std::string& html, const PlanRef& r) const {
    const bool linked = sections_.count(r.oid) != 0;
    if (linked) {
      html += "<a href=\"#o-";
      AppendHtml(html, r.oid);
      html += "\">";
    }
    if (r.name.empty()) {
      AppendHtml(html, r.oid);
    } else {
      AppendHtml(html, r.name);
      html += " <span class=\"oid\">";
      AppendHtml(html, r.oid);
      html += "</span>";
    }
    if (linked) html += "</a>";
  }
  void Where(std::string& html, const PlanRef& parent) const {
    if (parent.oid.empty())
      html += "the document";
    else
      Ref(html, parent);
  }
  void Value(std::string& html, bool present, std::string_view value,
             const std::vector<PlanRef>& refs) const {
    if (!present) {
      html += "<span class=\"none\">(none)</span>";
      return;
    }
    if (refs.empty()) {
      html += "<code>";
      AppendHtml(html, value);
      html += "</code>";
      return;
    }
    for (const PlanRef& r : refs) {
      if (&r != &refs.front()) html += "<br>";
      Ref(html, r);
    }
  }

  // Writes the section of change c into html.
  void Section(std::string& html, const PlanChange& c, bool open) {
    html += "<details class=\"";
    html += kClasses[c.action];
    html += '"';
    if (written_.insert(c.object.oid).second) {
      html += " id=\"o-";
      AppendHtml(html, c.object.oid);
      html += '"';
    }
    if (open) html += " open";
    ((html += "><summary>") += LayoutOf(c.kind).name) += ' ';
    if (!c.object.name.empty()) {
      AppendHtml(html, c.object.name);
      html += ' ';
    }
    html += "<span class=\"oid\">";
    AppendHtml(html, c.object.oid);
    html += "</span></summary>\n";
    if (OtherObject(plan_, c))
      ((html += "<p class=\"warning\">") += kOtherObject) +=
          ": the store gives this identifier to another object</p>\n";
    html += "<p>";
    switch (c.action) {
      case PlanChange::kRemoved:
        html += "Removed from ";
        Where(html, c.parent);
        break;
      case PlanChange::kAdded:
        html += "Added in ";
        Where(html, c.parent);
        break;
      case PlanChange::kChanged:
        html += "In ";
        Where(html, c.parent);
        if (c.wasKind != c.kind)
          (html += "; was a ") += LayoutOf(c.wasKind).name;
        break;
      case PlanChange::kMoved:
        if (c.fromPlace) {
          html += "Moved in ";
          Where(html, c.parent);
          ((html += " from place ") += std::to_string(c.fromPlace)) +=
              " to place ";
          html += std::to_string(c.toPlace);
        } else {
          html += "Moved from ";
          Where(html, c.fromParent);
          html += " to ";
          Where(html, c.parent);
        }
        break;
    }
    html += "</p>\n";
    if (!c.values.empty()) {
      html += "<table>\n<tr><th>Attribute</th><th>Old</th><th>New</th></tr>\n";
      std::pair<std::string, std::string> masked;
      for (const PlanValue& v : c.values) {
        ((html += "<tr><td>") +=
         LayoutOf(c.kind).attributes[v.attribute].name) +=
            "</td><td class=\"old\">";
        const auto [from, to] =
            ShownValues(c.kind, v, plan_.showSecrets, masked);
        Value(html, v.had, from, v.fromRefs);
        html += "</td><td class=\"new\">";
        Value(html, v.has, to, v.toRefs);
        html += "</td></tr>\n";
      }
      html += "</table>\n";
    }
    html += "</details>\n";
  }

  // The objects that change and those they name directly, coloured by what
  // happens to them; past kMostPlanDrawn objects or kMostPlanEdges links,
  // the counts of each kind.
  bool Picture(std::string* svg, std::string* error) const {
    if (sections_.size() > kMostPlanDrawn) return Overview(svg, error);
    Graph graph;
    graph.name = "plan";
    std::unordered_map<std::string_view, std::size_t> nodeOf;
    const auto node = [&](const PlanRef& r, const std::string& kind) {
      const auto [it, added] = nodeOf.emplace(r.oid, graph.nodes.size());
      if (!added) return;
      Graph::Node n;
      n.key = r.oid;
      n.label = GraphLabel((r.name.empty() ? kind : std::string(r.name)) +
                           "\n" + n.key);
      n.tooltip = GraphLabel(kind + " " + n.key);
      n.style = "rounded,dashed";
      graph.nodes.push_back(std::move(n));
    };
    // Changes come removals first: an object both changed and moved is
    // coloured as changed.
    for (const PlanChange& c : plan_.changes) {
      const auto it = nodeOf.find(c.object.oid);
      if (it == nodeOf.end()) {
        node(c.object, LayoutOf(c.kind).name);
      } else if (!graph.nodes[it->second].url.empty()) {
        continue;  // already drawn as a change
      }
      Graph::Node& n = graph.nodes[nodeOf[c.object.oid]];
      n.fill = kFills[c.action];
      n.style.clear();
      n.url = "#" + Anchor(c.object.oid);
      n.tooltip =
          GraphLabel(std::string(kClasses[c.action]) + " " +
                     LayoutOf(c.kind).name + " " + std::string(c.object.oid));
    }
    for (const PlanChange& c : plan_.changes) {
      if (!c.parent.oid.empty()) {
        node(c.parent, "");
        graph.edges.push_back(
            {std::string(c.parent.oid), std::string(c.object.oid), "", ""});
      }
      if (c.action == PlanChange::kMoved && !c.fromParent.oid.empty() &&
          c.fromParent.oid != c.parent.oid) {
        node(c.fromParent, "");
        graph.edges.push_back({std::string(c.fromParent.oid),
                               std::string(c.object.oid), "was in", "dashed"});
      }
      for (const PlanValue& v : c.values) {
        const std::string name = LayoutOf(c.kind).attributes[v.attribute].name;
        for (const PlanRef& r : v.toRefs) {
          if (r.name.empty() && !sections_.count(r.oid)) continue;  // a media
          node(r, "");
          graph.edges.push_back(
              {std::string(c.object.oid), std::string(r.oid), name, ""});
        }
        for (const PlanRef& r : v.fromRefs) {
          if (r.name.empty() && !sections_.count(r.oid)) continue;
          node(r, "");
          graph.edges.push_back({std::string(c.object.oid), std::string(r.oid),
                                 name + " (old)", "dashed"});
        }
      }
    }
    if (graph.nodes.size() > 2 * kMostPlanDrawn ||
        graph.edges.size() > kMostPlanEdges)
      return Overview(svg, error);
    return DrawSvg(graph, svg, error);
  }

  // A box per kind and what happens to how many of it.
  bool Overview(std::string* svg, std::string* error) const {
    std::map<Kind, std::size_t[4]> counts;
    for (const PlanChange& c : plan_.changes) ++counts[c.kind][c.action];
    Graph graph;
    graph.name = "plan";
    for (const auto& [kind, count] : counts) {
      Graph::Node n;
      n.key = LayoutOf(kind).name;
      n.label = n.key;
      for (int action = 0; action < 4; ++action)
        if (count[action]) {
          n.label +=
              "\n" + std::to_string(count[action]) + " " + kClasses[action];
          if (n.url.empty())
            n.url = std::string("#") + kClasses[action] + "-" + n.key;
        }
      graph.nodes.push_back(std::move(n));
    }
    for (const auto& [kind, count] : counts)
      if (LayoutOf(kind).parent != kKindCount &&
          counts.count(LayoutOf(kind).parent))
        graph.edges.push_back({LayoutOf(LayoutOf(kind).parent).name,
                               LayoutOf(kind).name, "", ""});
    return DrawSvg(graph, svg, error);
  }

  static constexpr const char* kStyle =
      "body { font-family: sans-serif; margin: 2em; }\n"
      "details { border: 1px solid #ccc; border-radius: 4px; margin: 0.3em 0;"
      " padding: 0.3em 0.6em; }\n"
      "details.removed { border-left: 6px solid #d9534f; }\n"
      "details.added { border-left: 6px solid #5cb85c; }\n"
      "details.changed { border-left: 6px solid #e6b800; }\n"
      "details.moved { border-left: 6px solid #428bca; }\n"
      "summary { cursor: pointer; font-weight: bold; }\n"
      ".oid { color: #666; font-family: monospace; font-weight: normal; }\n"
      "table { border-collapse: collapse; margin: 0.4em 0; }\n"
      "th, td { border: 1px solid #ddd; padding: 0.2em 0.6em;"
      " text-align: left; vertical-align: top; }\n"
      "td.old { background: #fdf0f0; } td.new { background: #f0fbf0; }\n"
      ".none { color: #999; }\n"
      ".warning { color: #a00; font-weight: bold; }\n"
      "#picture svg { max-width: 100%; height: auto; }\n"
      ".legend span { border: 1px solid #888; border-radius: 4px;"
      " padding: 0 0.4em; }\n"
      ".legend span.named { border-style: dashed; }\n";

  const Plan& plan_;
  std::ostream& out_;
  // The objects with a section; those whose section is written, the first
  // holding the anchor.
  std::unordered_set<std::string_view> sections_, written_;
};

}  // namespace

bool WritePlanPage(const Plan& plan, const std::string& title,
                   std::ostream& out, std::string* error) {
  return Page(plan, out).Write(title, error);
}

}  // namespace doc
