#include "DocumentPicture.h"

#include <graphviz/cgraph.h>
#include <graphviz/gvc.h>

#include <algorithm>
#include <unordered_map>

#include "Escape.h"
#include "Hex.h"

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
    // A character whole: never cut inside a UTF-8 sequence. A backslash, a control byte and a byte that is not UTF-8 are shown by
    // their escape, as in every view: Graphviz takes only UTF-8.
    const auto c = static_cast<unsigned char>(text[i]);
    const std::size_t n = vantrel::Utf8At(text, i);
    if (n == 0 || c == '\\' || (c < 0x20 && c != '\n') || c == 0x7F) {
      label += "\\\\x" + vantrel::Hex(text.substr(i, 1));
      ++i;
      continue;
    }
    label.append(text.data() + i, std::min(n, text.size() - i));
    i += n;
  }
  return label;
}

namespace {

// Sets name's value for every object of kind in g, unless set otherwise.
void Default(Agraph_t* g, int kind, const char* name, const char* value) {
  agattr(g, kind, const_cast<char*>(name), const_cast<char*>(value));
}

void Set(void* object, const char* name, const std::string& value) {
  agset(object, const_cast<char*>(name), const_cast<char*>(value.c_str()));
}

// The attributes the picture sets, with their defaults.
void Defaults(Agraph_t* g, bool clustered) {
  Default(g, AGRAPH, "rankdir", "LR");
  Default(g, AGRAPH, "fontname", "sans-serif");
  Default(g, AGNODE, "shape", "box");
  Default(g, AGNODE, "style", "rounded,filled");
  Default(g, AGNODE, "fillcolor", "white");
  Default(g, AGNODE, "fontname", "sans-serif");
  Default(g, AGNODE, "label", "");
  Default(g, AGNODE, "URL", "");
  Default(g, AGNODE, "tooltip", "");
  Default(g, AGEDGE, "label", "");
  Default(g, AGEDGE, "style", "solid");
  Default(g, AGEDGE, "fontname", "sans-serif");
  Default(g, AGEDGE, "fontsize", "10");
  Default(g, AGEDGE, "ltail", "");
  if (!clustered) return;
  Default(g, AGRAPH, "compound", "true");
  Default(g, AGRAPH, "label", "");
  Default(g, AGRAPH, "labeljust", "l");
  Default(g, AGRAPH, "style", "rounded,filled");
  Default(g, AGRAPH, "fillcolor", "white");
  Default(g, AGRAPH, "URL", "");
  Default(g, AGRAPH, "tooltip", "");
}

// Each frame by its key: its subgraph and the subgraph's name.
using Frames =
    std::unordered_map<std::string, std::pair<Agraph_t*, std::string>>;

Frames AddFrames(Agraph_t* g, const Graph& graph) {
  Frames clusters;
  for (const Graph::Cluster& c : graph.clusters) {
    // Graphviz draws a subgraph as a frame only when its name starts so.
    std::string name = "cluster_" + std::to_string(clusters.size());
    Agraph_t* sub = agsubg(g, const_cast<char*>(name.c_str()), 1);
    Set(sub, "label", c.label);
    Set(sub, "tooltip", c.tooltip);
    Set(sub, "fillcolor", c.fill);
    if (!c.url.empty()) Set(sub, "URL", c.url);
    clusters[c.key] = {sub, std::move(name)};
  }
  return clusters;
}

// The nodes, each in its frame, and the edges between them.
void AddNodesAndEdges(Agraph_t* g, const Graph& graph, Frames& clusters) {
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
    Set(v, "label", n.label);
    Set(v, "tooltip", n.tooltip);
    Set(v, "fillcolor", n.fill);
    if (!n.url.empty()) Set(v, "URL", n.url);
    if (!n.style.empty()) Set(v, "style", n.style);
  }
  for (const Graph::Edge& e : graph.edges) {
    const auto from = nodes.find(e.from), to = nodes.find(e.to);
    if (from == nodes.end() || to == nodes.end()) continue;
    Agedge_t* edge = agedge(g, from->second, to->second, nullptr, 1);
    Set(edge, "label", e.label);
    if (!e.style.empty()) Set(edge, "style", e.style);
    const auto frame = frameOf.find(from->second);
    if (e.fromCluster && frame != frameOf.end())
      Set(edge, "ltail", *frame->second);
  }
}

}  // namespace

bool DrawSvg(const Graph& graph, std::string* svg, std::string* error) {
  // One context for the process: a context freed and made again leaves
  // Graphviz's text plugin reading the fonts of the freed one.
  static GVC_t* const gvc = [] {
    // Graphviz's own messages name options of its command line: what fails
    // is told by this tool, in its own words.
    agseterrf([](char*) { return 0; });
    return gvContext();
  }();
  if (!gvc) {
    *error = "Graphviz cannot start";
    return false;
  }
  Agraph_t* g =
      agopen(const_cast<char*>(graph.name.c_str()), Agdirected, nullptr);
  Defaults(g, !graph.clusters.empty());
  Frames clusters = AddFrames(g, graph);
  AddNodesAndEdges(g, graph, clusters);
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
