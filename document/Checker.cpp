#include "Checker.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <ostream>

#include "DocumentPlan.h"
#include "Escape.h"
#include "Files.h"
#include "Hex.h"

namespace doc {

namespace {

// The names files are given in messages, by their paths.
std::map<std::string, std::string>& Names() {
  static std::map<std::string, std::string> names;
  return names;
}

}  // namespace

void NameFile(const std::string& path, const std::string& name) {
  Names()[path] = name;
}

std::string NameOf(const std::string& path) {
  const auto named = Names().find(path);
  return named == Names().end() ? path : named->second;
}

std::string Shown(const std::string& file) {
  return file == "-" ? "<stdin>" : vantrel::Escaped(NameOf(file));
}

std::string ShownOutput(const std::string& file) {
  return file == "-" ? "standard output" : vantrel::Escaped(file);
}

namespace {

// The size of file, or 0 when it cannot be told.
std::size_t FileSize(const std::string& file) {
  struct stat st {};
  return ::stat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode)
             ? static_cast<std::size_t>(st.st_size)
             : 0;
}

}  // namespace

Checker::Checker(const std::string& file, std::ostream& err, Visitor* next,
                 bool identifiers)
    : file_(file),
      shown_(Shown(file)),
      err_(err),
      next_(next),
      identifiers_(identifiers) {}

void Checker::Problem(std::size_t n, const std::string& what) {
  if (problems_ >= kMaxProblems) return;
  err_ << shown_ << ":" << n << ": " << what << "\n";
  if (++problems_ == kMaxProblems)
    err_ << shown_ << ": " << kMaxProblems
         << " problems: not a document the exporter writes; stopped\n";
}

void Checker::Restart() {
  std::fill(std::begin(counts_), std::end(counts_), 0);
  oids_.clear();
  references_.clear();
  spill_.clear();
  if (next_) next_->Restart();
}

void Checker::Other(const doc::Line& line, std::size_t n) {
  if (next_) next_->Other(line, n);
}

void Checker::Element(const doc::Line& line, std::size_t n,
                      const doc::Place& place) {
  if (next_) next_->Element(line, n, place);
  ++counts_[line.kind];
  if (!identifiers_) return;
  const auto& attributes = LayoutOf(line.kind).attributes;
  for (std::size_t i = 0; i < attributes.size(); ++i) {
    if (!line.Has(static_cast<int>(i))) continue;
    const doc::Attribute& a = attributes[i];
    if (a.field == doc::Field::kOid)
      oids_.push_back({MakeId(line.values[i], spill_), line.kind,
                       static_cast<std::uint32_t>(oids_.size()), n});
    else if (a.field == doc::Field::kRef)
      references_.push_back(
          {MakeId(line.values[i], spill_), a.kinds, a.name, n});
    else if (a.field == doc::Field::kMedia)  // names no element: kinds null
      references_.push_back(
          {MakeId(line.values[i], spill_), nullptr, a.name, n});
    else if (a.field == doc::Field::kRefs)
      for (std::string_view id : doc::Identifiers(line.values[i]))
        references_.push_back({MakeId(id, spill_), a.kinds, a.name, n});
  }
}

bool Checker::Run() {
  // Sized for the usual density of a document: an object in about 100
  // bytes, a reference in about 60.
  if (identifiers_) {
    const std::size_t bytes = FileSize(file_);
    oids_.reserve(bytes / 100);
    references_.reserve(bytes / 60);
  }
  walked_ = Walk(file_, *this);
  if (!walked_.opened) {
    err_ << "vantrel-doc: " << shown_ << ": "
         << (walked_.temporary
                 ? "cannot be copied to the temporary directory " +
                       vantrel::Escaped(vantrel::TemporaryDirectory()) + ": "
                 : std::string())
         << (walked_.error == EFBIG ? "larger than any document"
                                    : std::strerror(walked_.error))
         << "\n";
    return false;
  }
  CheckIdentifiers();
  return true;
}

void Checker::CheckIdentifiers() {
  const auto order = [&](const Defined& a, const Defined& b) {
    const int c = Compare(a.id, spill_, b.id, spill_);
    return c != 0 ? c < 0 : a.line < b.line;
  };
  std::sort(oids_.begin(), oids_.end(), order);
  // Found apart from the lines' own problems, they are told in the order
  // of their lines.
  std::vector<std::pair<std::size_t, std::string>> found;
  const auto shown = [&](const Id& id) { return Identifier(id, spill_); };
  for (std::size_t i = 1; i < oids_.size(); ++i)
    if (Compare(oids_[i].id, spill_, oids_[i - 1].id, spill_) == 0)
      found.emplace_back(oids_[i].line, "identifier " + shown(oids_[i].id) +
                                            " is also the identifier of line " +
                                            std::to_string(oids_[i - 1].line));
  for (const Reference& r : references_) {
    if (found.size() >= kMaxProblems) break;
    const auto it = std::lower_bound(
        oids_.begin(), oids_.end(), r.id, [&](const Defined& d, const Id& id) {
          return Compare(d.id, spill_, id, spill_) < 0;
        });
    const bool named =
        it != oids_.end() && Compare(it->id, spill_, r.id, spill_) == 0;
    if (!r.kinds) {
      // A media has no element, and shares its identifiers with them all.
      if (named)
        found.emplace_back(r.line,
                           std::string(r.attribute) + " names " + shown(r.id) +
                               ", a " + LayoutOf(it->kind).name + " (line " +
                               std::to_string(it->line) + "), not a media");
      continue;
    }
    if (!named) {
      found.emplace_back(r.line, std::string(r.attribute) + " names " +
                                     shown(r.id) +
                                     ", which is not in the document");
      continue;
    }
    const std::string kind = LayoutOf(it->kind).name;
    if ((std::string(" ") + r.kinds + " ").find(" " + kind + " ") ==
        std::string::npos)
      found.emplace_back(r.line, std::string(r.attribute) + " names " +
                                     shown(r.id) + ", a " + kind + " (line " +
                                     std::to_string(it->line) + "), not a " +
                                     r.kinds);
  }
  std::stable_sort(
      found.begin(), found.end(),
      [](const auto& a, const auto& b) { return a.first < b.first; });
  for (const auto& p : found) Problem(p.first, p.second);
}

int ReadForPlan(const std::string& file, PlanDocument& plan, std::ostream& err,
                Visitor* visitor, const std::string& shown) {
  struct stat st {};
  if (::stat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode))
    plan.Reserve(static_cast<std::size_t>(st.st_size));
  Both both(plan, *(visitor ? visitor : &plan));
  Checker checker(file, err, visitor ? static_cast<Visitor*>(&both) : &plan);
  if (!shown.empty()) checker.ShowAs(shown);
  if (!checker.Run()) return 2;
  if (checker.Problems()) return 1;
  plan.Finish();
  return 0;
}

}  // namespace doc
