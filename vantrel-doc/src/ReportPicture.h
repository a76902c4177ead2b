// The picture of a report: the servers and hosts, and the replication
// (targets and subscriptions with their sites, media and package
// definitions), drawn by Graphviz as SVG.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "DocumentWalk.h"

namespace vdoc {

// Gathers what the picture shows as a document is walked.
class PictureData : public doc::Visitor {
 public:
  void Element(const doc::Line& line, std::size_t n,
               const doc::Place& place) override;
  void Problem(std::size_t, const std::string&) override {}
  void Restart() override { *this = PictureData(); }

  struct Node {
    std::string id;     // the identifier, "x..."
    std::string group;  // the kind of object, as the summary names it
    std::string name;
    bool linked;  // has a row of its own in the report
  };
  struct Edge {
    std::string from, to, label;
  };
  const std::vector<Node>& Nodes() const { return nodes_; }
  const std::vector<Edge>& Edges() const { return edges_; }

 private:
  void Add(std::string_view id, const char* group, std::string_view name,
           bool linked = true);
  std::vector<Node> nodes_;
  std::vector<Edge> edges_;
  std::vector<std::string> media_;  // the media named so far
};

// The most objects drawn one by one: past them the picture shows one box
// per kind of object, with its count, and the links between kinds.
constexpr std::size_t kMostDrawn = 60;

// The picture as SVG; false with the reason in *error.
bool DrawPicture(const PictureData& data, std::string* svg, std::string* error);

}  // namespace vdoc
