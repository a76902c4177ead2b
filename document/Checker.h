// Checking a document as it is walked: every problem reported as it is
// found, then the identifiers (each used once) and the references (each
// naming an element of a kind it may name).
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <utility>
#include <string_view>
#include <vector>

#include "DocumentIds.h"
#include "DocumentWalk.h"
#include "LargeAllocator.h"

namespace doc {

// The most problems reported of one file: past them it is not a document
// the exporter writes, and reading it further tells nothing more.
constexpr std::size_t kMaxProblems = 100;

// A file name as diagnostics show it, escaped: the name given to it, when
// it has one.
std::string Shown(const std::string& file);
// Gives the file at path a name for messages and records: a revision of a
// history held in a temporary file is named as the user named it.
void NameFile(const std::string& path, const std::string& name);
// The name given to the file at path, else path.
std::string NameOf(const std::string& path);
// An output's name as diagnostics show it ("-" is standard output).
std::string ShownOutput(const std::string& file);

class Checker : public Visitor {
 public:
  // Reports problems of file to err as "FILE:LINE: what"; passes every
  // element and line on to next, when given. Without identifiers, the
  // identifiers and references are not checked, and memory stays flat
  // however long the document: for commands that copy a document line by
  // line.
  Checker(const std::string& file, std::ostream& err, Visitor* next = nullptr,
          bool identifiers = true);
  void Element(const Line& line, std::size_t n, const Place& place) override;
  void Other(const Line& line, std::size_t n) override;
  void Problem(std::size_t n, const std::string& what) override;
  void Restart() override;
  // Names the file shown in messages: a copy or a part of a document is
  // named as the user named the document.
  void ShowAs(std::string shown) { shown_ = std::move(shown); }
  bool Stopped() const override { return problems_ >= kMaxProblems; }

  // Walks the file; false after reporting why it cannot be read. Then
  // checks identifiers and references.
  bool Run();
  std::size_t Problems() const { return problems_; }
  const std::size_t* Counts() const { return counts_; }
  const doc::Walked& Walked() const { return walked_; }
  // After Run: the identifiers, sorted, and the long ones.
  kiv::LargeVector<Defined>& Sorted() { return oids_; }
  Spill& Long() { return spill_; }

 private:
  struct Reference {
    Id id;
    const char* kinds;
    const char* attribute;
    std::size_t line;
  };
  void CheckIdentifiers();
  std::string file_;
  std::string shown_;  // file_ as messages name it
  std::ostream& err_;
  Visitor* next_;
  bool identifiers_;
  doc::Walked walked_;
  std::size_t problems_ = 0;
  std::size_t counts_[kKindCount] = {};
  kiv::LargeVector<Defined> oids_;
  kiv::LargeVector<Reference> references_;
  Spill spill_;
};

// Reads and checks file into plan, through visitor too when given; 0, or
// the exit status of the failure after reporting its problems: 1 for a
// document check refuses, 2 for one that cannot be read. Messages name the
// file shown, when given, else the file.
class PlanDocument;
int ReadForPlan(const std::string& file, PlanDocument& plan, std::ostream& err,
                Visitor* visitor = nullptr, const std::string& shown = "");

}  // namespace doc
