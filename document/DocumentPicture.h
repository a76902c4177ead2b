// Pictures of documents drawn by Graphviz as SVG: the report's and the
// plan's, each described as nodes and edges.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace doc {

struct Graph {
  std::string name = "picture";  // the SVG's title
  struct Node {
    std::string key;  // how edges name it
    std::string label, tooltip;
    std::string fill = "white";
    std::string url;      // where a click leads; "" for nowhere
    std::string style;    // Graphviz's style; "" for rounded and filled
    std::string cluster;  // the key of the frame drawn around it, or ""
  };
  struct Edge {
    std::string from, to;  // node keys; an edge to an unknown key is dropped
    std::string label;
    std::string style;         // Graphviz's style: "dashed", or "" for solid
    bool fromCluster = false;  // starts at the border of from's frame
  };
  // A frame around the nodes that name it, with its label at the top; a
  // frame that no node names is not drawn.
  struct Cluster {
    std::string key;
    std::string label, tooltip;
    std::string fill = "white";
    std::string url;
  };
  std::vector<Node> nodes;
  std::vector<Edge> edges;
  std::vector<Cluster> clusters;
};

// Text for a Graphviz label: its escapes (\N, \G, \n...) are not the
// text's, and a long line is shortened, so that the layout stays within
// what a picture can show.
std::string GraphLabel(std::string_view text);

// Draws graph left to right as SVG into *svg; false with the reason in
// *error.
bool DrawSvg(const Graph& graph, std::string* svg, std::string* error);

}  // namespace doc
