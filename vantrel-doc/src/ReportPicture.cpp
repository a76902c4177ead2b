#include "ReportPicture.h"

#include <algorithm>
#include <map>
#include <memory>

#include "DocumentPicture.h"
#include "Escape.h"

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

bool DrawPicture(const PictureData& data, std::string* svg,
                 std::string* error) {
  doc::Graph graph;
  graph.name = "administration";
  if (data.Nodes().size() <= kMostDrawn) {
    for (const auto& n : data.Nodes()) {
      doc::Graph::Node v;
      v.key = n.id;
      v.label = doc::GraphLabel(n.name.empty() ? n.group + "\n" + n.id
                                               : n.name + "\n" + n.id);
      v.tooltip = doc::GraphLabel(n.group + " " + n.id);
      v.fill = Fill(n.group);
      if (n.linked) v.url = "#" + n.id;
      graph.nodes.push_back(std::move(v));
    }
    for (const auto& e : data.Edges())
      graph.edges.push_back({e.from, e.to, e.label, ""});
    return doc::DrawSvg(graph, svg, error);
  }
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
