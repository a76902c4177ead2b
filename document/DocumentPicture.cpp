#include "DocumentPicture.h"

#include <graphviz/cgraph.h>
#include <graphviz/gvc.h>

#include <algorithm>
#include <unordered_map>

#include "Escape.h"

namespace doc {

std::string GraphLabel(std::string_view text) {
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

bool DrawSvg(const Graph& graph, std::string* svg, std::string* error) {
  // One context for the process: a context freed and made again leaves
  // Graphviz's text plugin reading the fonts of the freed one.
  static GVC_t* const gvc = gvContext();
  if (!gvc) {
    *error = "Graphviz cannot start";
    return false;
  }
  Agraph_t* g =
      agopen(const_cast<char*>(graph.name.c_str()), Agdirected, nullptr);
  const auto defaults = [&](int kind, const char* name, const char* value) {
    agattr(g, kind, const_cast<char*>(name), const_cast<char*>(value));
  };
  defaults(AGRAPH, "rankdir", "LR");
  defaults(AGRAPH, "fontname", "sans-serif");
  defaults(AGNODE, "shape", "box");
  defaults(AGNODE, "style", "rounded,filled");
  defaults(AGNODE, "fillcolor", "white");
  defaults(AGNODE, "fontname", "sans-serif");
  defaults(AGNODE, "label", "");
  defaults(AGNODE, "URL", "");
  defaults(AGNODE, "tooltip", "");
  defaults(AGEDGE, "label", "");
  defaults(AGEDGE, "style", "solid");
  defaults(AGEDGE, "fontname", "sans-serif");
  defaults(AGEDGE, "fontsize", "10");
  defaults(AGEDGE, "ltail", "");
  if (!graph.clusters.empty()) {
    defaults(AGRAPH, "compound", "true");
    defaults(AGRAPH, "label", "");
    defaults(AGRAPH, "labeljust", "l");
    defaults(AGRAPH, "style", "rounded,filled");
    defaults(AGRAPH, "fillcolor", "white");
    defaults(AGRAPH, "URL", "");
    defaults(AGRAPH, "tooltip", "");
  }
  const auto set = [](void* object, const char* name,
                      const std::string& value) {
    agset(object, const_cast<char*>(name), const_cast<char*>(value.c_str()));
  };
  // Graphviz draws a subgraph as a frame only when its name starts so.
  std::unordered_map<std::string, std::pair<Agraph_t*, std::string>> clusters;
  for (const Graph::Cluster& c : graph.clusters) {
    std::string name = "cluster_" + std::to_string(clusters.size());
    Agraph_t* sub = agsubg(g, const_cast<char*>(name.c_str()), 1);
    set(sub, "label", c.label);
    set(sub, "tooltip", c.tooltip);
    set(sub, "fillcolor", c.fill);
    if (!c.url.empty()) set(sub, "URL", c.url);
    clusters[c.key] = {sub, std::move(name)};
  }
  std::unordered_map<std::string, Agnode_t*> nodes;
  std::unordered_map<Agnode_t*, const std::string*> frameOf;
  for (const Graph::Node& n : graph.nodes) {
    Agnode_t* v = agnode(g, const_cast<char*>(n.key.c_str()), 1);
    nodes[n.key] = v;
    const auto frame = clusters.find(n.cluster);
    if (frame != clusters.end()) {
      agsubnode(frame->second.first, v, 1);
      frameOf[v] = &frame->second.second;
    }
    set(v, "label", n.label);
    set(v, "tooltip", n.tooltip);
    set(v, "fillcolor", n.fill);
    if (!n.url.empty()) set(v, "URL", n.url);
    if (!n.style.empty()) set(v, "style", n.style);
  }
  for (const Graph::Edge& e : graph.edges) {
    const auto from = nodes.find(e.from), to = nodes.find(e.to);
    if (from == nodes.end() || to == nodes.end()) continue;
    Agedge_t* edge = agedge(g, from->second, to->second, nullptr, 1);
    set(edge, "label", e.label);
    if (!e.style.empty()) set(edge, "style", e.style);
    const auto frame = frameOf.find(from->second);
    if (e.fromCluster && frame != frameOf.end())
      set(edge, "ltail", *frame->second);
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

}  // namespace doc
