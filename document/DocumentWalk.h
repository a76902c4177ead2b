// Walking a document: its lines read and its structure checked, element by
// element, for every command that reads one.
//
// A document is read with the exporter's own layout (AdminDocument.h), since
// the exporter writes values unescaped. One that is not in that layout but
// is well-formed XML (a well-formed twin, a document an XML tool has
// reformatted) is read as XML through libxml2, which gives back the values
// that the escapes stand for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "AdminDocument.h"

namespace doc {

// Where an element stands: its parent's identifier ("" under the document
// element or the server wrapper) and its place among its siblings.
struct Place {
  std::string_view parent;  // valid during the call
  std::size_t index = 0;
};

class Visitor {
 public:
  virtual ~Visitor() = default;
  // An element, in the document's order, from line n. line and place view
  // text that is valid during the call.
  virtual void Element(const Line& line, std::size_t n, const Place& place) = 0;
  // Every other line read: the prologue, the document element's tags, end
  // tags of elements.
  virtual void Other(const Line& /*line*/, std::size_t /*n*/) {}
  // A problem at line n.
  virtual void Problem(std::size_t n, const std::string& what) = 0;
  // Everything reported so far is void: the document is read again from
  // its start, as XML.
  virtual void Restart() {}
  // True once the visitor wants no more: the walk ends at the next line.
  virtual bool Stopped() const { return false; }
};

// Passes everything a walk reports on to two visitors, a first then b.
class Both : public Visitor {
 public:
  Both(Visitor& a, Visitor& b) : a_(a), b_(b) {}
  void Element(const Line& line, std::size_t n, const Place& place) override {
    a_.Element(line, n, place);
    b_.Element(line, n, place);
  }
  void Other(const Line& line, std::size_t n) override {
    a_.Other(line, n);
    b_.Other(line, n);
  }
  void Problem(std::size_t n, const std::string& what) override {
    a_.Problem(n, what);
    b_.Problem(n, what);
  }
  void Restart() override {
    a_.Restart();
    b_.Restart();
  }

 private:
  Visitor& a_;
  Visitor& b_;
};

// How a walk went.
struct Walked {
  bool opened = false;  // false: the file could not be opened or read
  int error = 0;        // the system's reason when not opened
  // Not opened for a failure of the copy of standard input in the
  // temporary directory, not of the input.
  bool temporary = false;
  bool xml = false;  // read as XML, not in the exporter's layout
  // Read in the exporter's layout but not well-formed XML: where first, as
  // "LINE: what" (empty when it is well-formed).
  std::string illFormed;
};

// libxml2 says nothing on standard error in the calling thread: what it
// finds reaches each reader through a handler of its own.
void QuietXmlErrors();

// Reads file ("-": standard input), calling visitor for each line and each
// problem, in the order of the lines.
Walked Walk(const std::string& file, Visitor& visitor);

}  // namespace doc
