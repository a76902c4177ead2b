#include "ReportPicture.h"

#include <graphviz/cgraph.h>
#include <graphviz/gvc.h>

#include <algorithm>
#include <map>
#include <memory>

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

// Text for a Graphviz label: its escapes (\N, \G, \n...) are not the
// text's, and a long name is shortened (the table row holds it whole), so
// that the layout stays within what a picture can show.
std::string Label(std::string_view text) {
  constexpr std::size_t kLongest = 60;
  std::string label;
  std::size_t shown = 0;
  for (std::size_t i = 0; i < text.size(); ++shown) {
    if (text[i] == '\n') shown = 0;
    if (shown == kLongest) {
      label += "...";
      while (i < text.size() && text[i] != '\n') ++i;
      continue;
    }
    // A character whole: never cut inside a UTF-8 sequence.
    const std::size_t n = std::max<std::size_t>(1, vantrel::Utf8At(text, i));
    if (text[i] == '\\') label += '\\';
    label.append(text.data() + i, std::min(n, text.size() - i));
    i += n;
  }
  return label;
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
  // One context for the process: a context freed and made again leaves
  // Graphviz's text plugin reading the fonts of the freed one.
  static GVC_t* const gvc = gvContext();
  if (!gvc) {
    *error = "Graphviz cannot start";
    return false;
  }
  Agraph_t* g =
      agopen(const_cast<char*>("administration"), Agdirected, nullptr);
  agattr(g, AGRAPH, const_cast<char*>("rankdir"), const_cast<char*>("LR"));
  agattr(g, AGRAPH, const_cast<char*>("fontname"),
         const_cast<char*>("sans-serif"));
  agattr(g, AGNODE, const_cast<char*>("shape"), const_cast<char*>("box"));
  agattr(g, AGNODE, const_cast<char*>("style"),
         const_cast<char*>("rounded,filled"));
  agattr(g, AGNODE, const_cast<char*>("fillcolor"), const_cast<char*>("white"));
  agattr(g, AGNODE, const_cast<char*>("fontname"),
         const_cast<char*>("sans-serif"));
  agattr(g, AGNODE, const_cast<char*>("label"), const_cast<char*>(""));
  agattr(g, AGNODE, const_cast<char*>("URL"), const_cast<char*>(""));
  agattr(g, AGNODE, const_cast<char*>("tooltip"), const_cast<char*>(""));
  agattr(g, AGEDGE, const_cast<char*>("label"), const_cast<char*>(""));
  agattr(g, AGEDGE, const_cast<char*>("fontname"),
         const_cast<char*>("sans-serif"));
  agattr(g, AGEDGE, const_cast<char*>("fontsize"), const_cast<char*>("10"));
  const auto set = [](void* object, const char* name,
                      const std::string& value) {
    agset(object, const_cast<char*>(name), const_cast<char*>(value.c_str()));
  };
  const auto node = [&](const std::string& key) {
    return agnode(g, const_cast<char*>(key.c_str()), 1);
  };
  if (data.Nodes().size() <= kMostDrawn) {
    std::map<std::string, Agnode_t*> nodes;
    for (const auto& n : data.Nodes()) {
      Agnode_t* v = node(n.id);
      nodes[n.id] = v;
      const std::string group = n.group == "Media" ? "Media" : n.group;
      set(v, "label",
          Label(n.name.empty() ? group + "\n" + n.id : n.name + "\n" + n.id));
      set(v, "tooltip", Label(group + " " + n.id));
      set(v, "fillcolor", Fill(group));
      if (n.linked) set(v, "URL", "#" + n.id);
    }
    for (const auto& e : data.Edges()) {
      const auto from = nodes.find(e.from), to = nodes.find(e.to);
      if (from == nodes.end() || to == nodes.end()) continue;
      set(agedge(g, from->second, to->second, nullptr, 1), "label", e.label);
    }
  } else {
    // An overview: a box per kind with its count, a link per pair of kinds
    // with the number of links it stands for.
    std::map<std::string, std::string> groupOf;
    std::map<std::string, std::size_t> counts;
    for (const auto& n : data.Nodes()) {
      groupOf[n.id] = n.group;
      ++counts[n.group];
    }
    for (const auto& [group, count] : counts) {
      Agnode_t* v = node(group);
      set(v, "label", group + "\n" + std::to_string(count));
      set(v, "fillcolor", Fill(group));
      if (group != "Media") set(v, "URL", "#" + Anchor(group));
    }
    std::map<std::tuple<std::string, std::string, std::string>, std::size_t>
        links;
    for (const auto& e : data.Edges()) {
      const auto from = groupOf.find(e.from), to = groupOf.find(e.to);
      if (from == groupOf.end() || to == groupOf.end()) continue;
      ++links[{from->second, to->second, e.label}];
    }
    for (const auto& [key, count] : links)
      set(agedge(g, node(std::get<0>(key)), node(std::get<1>(key)), nullptr, 1),
          "label", std::get<2>(key) + " (" + std::to_string(count) + ")");
  }
  char* rendered = nullptr;
  unsigned int size = 0;
  const bool drawn = gvLayout(gvc, g, "dot") == 0 &&
                     gvRenderData(gvc, g, "svg", &rendered, &size) == 0;
  if (drawn) svg->assign(rendered, size);
  if (rendered) gvFreeRenderData(rendered);
  gvFreeLayout(gvc, g);
  agclose(g);
  if (!drawn) *error = "Graphviz cannot draw the picture";
  return drawn;
}
