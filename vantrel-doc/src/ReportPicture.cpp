#include "ReportPicture.h"

#include <algorithm>
#include <map>
#include <memory>
#include <set>

#include "DocumentPicture.h"
#include "Escape.h"

namespace vdoc {

namespace {

// The value of attribute name of line, or "".
std::string_view Value(const doc::Line& line, const char* name) {
  const int i = doc::AttributeIndex(line.kind, name);
  return i >= 0 && line.Has(i) ? line.values[i] : std::string_view();
}

// The anchor of a kind's table in the report ("Data servers" is
// "kind-data-servers").
std::string Anchor(const std::string& group) {
  std::string anchor = "kind-";
  for (char c : group)
    anchor += c == ' ' ? '-' : static_cast<char>(std::tolower(c));
  return anchor;
}

// The fill of a kind of object, so that kinds tell apart at a glance.
const char* Fill(const std::string& group) {
  static const std::map<std::string, const char*> kFills = {
      {"Hosts", "#e8e8e8"},
      {"Data servers", "#cfe2ff"},
      {"Vault servers", "#d7f0d2"},
      {"Subscribing targets", "#ffe4c4"},
      {"Subscriptions", "#ffd6e0"},
      {"Media", "#fff6bf"},
      {"Package definitions", "#e6dcff"},
      {"Extern sites", "#d0f0f0"},
      {"Local site", "#d0f0f0"}};
  const auto it = kFills.find(group);
  return it == kFills.end() ? "#ffffff" : it->second;
}

}  // namespace

void PictureData::Add(std::string_view id, const char* group,
                      std::string_view name, bool linked) {
  nodes_.push_back({std::string(id), group, std::string(name), linked});
}

void PictureData::Element(const doc::Line& line, std::size_t,
                          const doc::Place& place) {
  const std::string_view oid = Value(line, "Oid"), name = Value(line, "Name");
  switch (line.kind) {
    case doc::kHost:
      return Add(oid, "Hosts", name);
    case doc::kDataServer:
      Add(oid, "Data servers", name);
      if (!Value(line, "Host").empty())
        edges_.push_back(
            {std::string(oid), std::string(Value(line, "Host")), "runs on"});
      return;
    case doc::kVaultServer:
      return Add(oid, "Vault servers", name);
    case doc::kSubscribingTarget:
    case doc::kSubscription: {
      Add(oid,
          line.kind == doc::kSubscription ? "Subscriptions"
                                          : "Subscribing targets",
          name);
      const std::string_view media = Value(line, "Media");
      if (!media.empty()) {
        // A media has no element: it is drawn where it is first named.
        if (std::find(media_.begin(), media_.end(), media) == media_.end()) {
          media_.emplace_back(media);
          Add(media, "Media", "", false);
        }
        edges_.push_back({std::string(oid), std::string(media), "media"});
      }
      for (const char* attribute : {"PackageDefinition", "ExternSite"})
        if (!Value(line, attribute).empty())
          edges_.push_back(
              {std::string(oid), std::string(Value(line, attribute)),
               attribute == std::string("ExternSite") ? "site" : "package"});
      return;
    }
    case doc::kVaultServerCaptureStatus:
    case doc::kDataServerCaptureStatus:
      edges_.push_back({std::string(place.parent),
                        std::string(Value(line, "CapturedObject")),
                        "captures"});
      return;
    case doc::kVaultServerApplyStatus:
    case doc::kDataServerApplyStatus:
      edges_.push_back({std::string(place.parent),
                        std::string(Value(line, "AppliedObject")), "applies"});
      return;
    case doc::kPackageDefinition:
      return Add(oid, "Package definitions", name);
    case doc::kExternSite:
      return Add(oid, "Extern sites", name);
    case doc::kLocalSite:
      return Add(oid, "Local site", name);
    default:
      return;
  }
}

namespace {

// Past the drawing of every object: a box per site, linked to its row, with
// the targets and subscriptions that replicate through it, and the servers
// and package definitions they involve. False, with graph untouched, when
// there are no sites with replication or too many sites to draw.
bool SiteOverview(const PictureData& data, doc::Graph* graph) {
  struct Site {
    std::string name, group;
    std::size_t targets = 0, subscriptions = 0;
    std::set<std::string> servers, packages;
  };
  std::map<std::string, Site> sites;
  std::map<std::string, std::string> kindOf;  // a target's or subscription's
  for (const auto& n : data.Nodes()) {
    if (n.group == "Extern sites" || n.group == "Local site")
      sites[n.id] = Site{n.name, n.group, 0, 0, {}, {}};
    else if (n.group == "Subscribing targets" || n.group == "Subscriptions")
      kindOf[n.id] = n.group;
  }
  if (sites.empty() || sites.size() > kMostDrawn) return false;
  std::map<std::string, Site*> siteOf;  // of a target or subscription
  for (const auto& e : data.Edges()) {
    const auto site = sites.find(e.to);
    if (e.label != "site" || site == sites.end()) continue;
    siteOf[e.from] = &site->second;
    ++(kindOf[e.from] == "Subscriptions" ? site->second.subscriptions
                                         : site->second.targets);
  }
  for (const auto& e : data.Edges()) {
    const auto site = siteOf.find(e.from);
    if (site == siteOf.end()) continue;
    if (e.label == "captures" || e.label == "applies")
      site->second->servers.insert(e.to);
    else if (e.label == "package")
      site->second->packages.insert(e.to);
  }
  const auto plural = [](std::size_t n, const char* one, const char* many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
  };
  std::string local;
  for (const auto& [oid, site] : sites) {
    doc::Graph::Node v;
    v.key = oid;
    v.label = doc::GraphLabel(site.name.empty() ? oid : site.name);
    if (site.targets + site.subscriptions)
      v.label += "\n" + plural(site.servers.size(), "server", "servers") +
                 ", " +
                 plural(site.packages.size(), "package definition",
                        "package definitions");
    v.tooltip = doc::GraphLabel(site.group + " " + oid);
    v.fill = Fill(site.group);
    v.url = "#" + oid;
    graph->nodes.push_back(std::move(v));
    if (site.group == "Local site") local = oid;
  }
  // What replicates through each site, drawn from the local site, or as
  // the sites' own counts when the document has none.
  for (const auto& [oid, site] : sites) {
    if (oid == local || site.targets + site.subscriptions == 0) continue;
    const std::string what =
        plural(site.targets, "target", "targets") + ", " +
        plural(site.subscriptions, "subscription", "subscriptions");
    if (local.empty())
      graph
          ->nodes[static_cast<std::size_t>(
              std::distance(sites.begin(), sites.find(oid)))]
          .label += "\n" + what;
    else
      graph->edges.push_back({local, oid, what, ""});
  }
  return true;
}

// Each object a box linked to its row. The targets and subscriptions of a
// site are framed together under the site's name, their media written in
// their boxes, a frame's links to one package definition drawn as one, and
// the links between the same two boxes as one with their labels joined.
void DrawEach(const PictureData& data, doc::Graph* graph) {
  std::map<std::string, const PictureData::Node*> byId;
  for (const auto& n : data.Nodes()) byId[n.id] = &n;
  const auto groupOf = [&](const std::string& id) {
    const auto it = byId.find(id);
    return it == byId.end() ? std::string() : it->second->group;
  };
  std::map<std::string, std::string> siteOf, mediaOf;
  for (const auto& e : data.Edges()) {
    const std::string to = groupOf(e.to);
    if (e.label == "site" && (to == "Extern sites" || to == "Local site"))
      siteOf[e.from] = e.to;
    else if (e.label == "media")
      mediaOf[e.from] = e.to;
  }
  std::set<std::string> framed;
  for (const auto& [member, site] : siteOf) {
    if (!framed.insert(site).second) continue;
    const PictureData::Node& n = *byId[site];
    graph->clusters.push_back(
        {site, doc::GraphLabel(n.name.empty() ? site : n.name + "  " + site),
         doc::GraphLabel(n.group + " " + site), Fill(n.group), "#" + site});
  }
  for (const auto& n : data.Nodes()) {
    if (n.group == "Media" || framed.count(n.id)) continue;
    doc::Graph::Node v;
    v.key = n.id;
    v.label = doc::GraphLabel(n.name.empty() ? n.group + "\n" + n.id
                                             : n.name + "\n" + n.id);
    const auto media = mediaOf.find(n.id);
    if (media != mediaOf.end())
      v.label += "\n" + doc::GraphLabel("media " + media->second);
    v.tooltip = doc::GraphLabel(n.group + " " + n.id);
    v.fill = Fill(n.group);
    if (n.linked) v.url = "#" + n.id;
    const auto site = siteOf.find(n.id);
    if (site != siteOf.end()) v.cluster = site->second;
    graph->nodes.push_back(std::move(v));
  }
  // The labels of the links between two boxes, or from a frame to a box,
  // in the order first drawn.
  std::vector<std::pair<std::string, std::string>> order;
  std::map<std::pair<std::string, std::string>, std::vector<std::string>>
      labels;
  // A frame's links to one package definition: the first member, drawn
  // from, and how many.
  std::map<std::pair<std::string, std::string>,
           std::pair<std::string, std::size_t>>
      members;
  for (const auto& e : data.Edges()) {
    if (e.label == "media" || (e.label == "site" && siteOf.count(e.from)))
      continue;
    const auto site = siteOf.find(e.from);
    if (e.label == "package" && site != siteOf.end()) {
      auto& member = members[{site->second, e.to}];
      if (member.second++ == 0) member.first = e.from;
      continue;
    }
    auto& joined = labels[{e.from, e.to}];
    if (joined.empty()) order.emplace_back(e.from, e.to);
    if (std::find(joined.begin(), joined.end(), e.label) == joined.end())
      joined.push_back(e.label);
  }
  for (const auto& key : order) {
    std::string label;
    for (const auto& l : labels[key]) label += (label.empty() ? "" : ", ") + l;
    graph->edges.push_back({key.first, key.second, label, ""});
  }
  for (const auto& [key, member] : members) {
    const std::size_t count = member.second;
    graph->edges.push_back(
        {member.first, key.second,
         count == 1 ? "package" : "package (" + std::to_string(count) + ")", "",
         true});
  }
}

}  // namespace

bool DrawPicture(const PictureData& data, std::string* svg,
                 std::string* error) {
  doc::Graph graph;
  graph.name = "administration";
  // A media is written in the boxes that name it, not drawn: it is no
  // object of the count.
  const auto objects = std::count_if(
      data.Nodes().begin(), data.Nodes().end(),
      [](const PictureData::Node& n) { return n.group != "Media"; });
  if (static_cast<std::size_t>(objects) <= kMostDrawn) {
    DrawEach(data, &graph);
    return doc::DrawSvg(graph, svg, error);
  }
  if (SiteOverview(data, &graph)) return doc::DrawSvg(graph, svg, error);
  // An overview: a box per kind with its count, a link per pair of kinds
  // with the number of links it stands for.
  std::map<std::string, std::string> groupOf;
  std::map<std::string, std::size_t> counts;
  for (const auto& n : data.Nodes()) {
    groupOf[n.id] = n.group;
    ++counts[n.group];
  }
  for (const auto& [group, count] : counts) {
    doc::Graph::Node v;
    v.key = group;
    v.label = group + "\n" + std::to_string(count);
    v.fill = Fill(group);
    if (group != "Media") v.url = "#" + Anchor(group);
    graph.nodes.push_back(std::move(v));
  }
  std::map<std::tuple<std::string, std::string, std::string>, std::size_t>
      links;
  for (const auto& e : data.Edges()) {
    const auto from = groupOf.find(e.from), to = groupOf.find(e.to);
    if (from == groupOf.end() || to == groupOf.end()) continue;
    ++links[{from->second, to->second, e.label}];
  }
  for (const auto& [key, count] : links)
    graph.edges.push_back(
        {std::get<0>(key), std::get<1>(key),
         std::get<2>(key) + " (" + std::to_string(count) + ")", ""});
  return doc::DrawSvg(graph, svg, error);
}

}  // namespace vdoc
