#include "KeptValues.h"

#include "DocumentWalk.h"
#include "DocumentWrite.h"

namespace doc {

namespace {

// Writes each line of a document as the exporter would, the values of the
// attributes of kept taken from the store's, where the store holds the
// object.
class Keeper : public Visitor {
 public:
  Keeper(const PlanDocument& store, const AttributeMask& kept, std::string& out)
      : store_(store), kept_(kept), out_(out) {}
  void Other(const Line& line, std::size_t) override { Write(line); }
  void Element(const Line& line, std::size_t, const Place&) override {
    const std::uint32_t runTime = kept_[line.kind];
    const int oid = AttributeIndex(line.kind, "Oid");
    const std::size_t at =
        runTime && oid >= 0
            ? store_.Find(line.values[static_cast<std::size_t>(oid)])
            : std::string::npos;
    if (at == std::string::npos || store_.Objects()[at].kind != line.kind)
      return Write(line);
    const PlanDocument::Object& kept = store_.Objects()[at];
    Line taken = line;
    for (std::size_t k = 0; k < taken.values.size(); ++k) {
      if (!(runTime >> k & 1)) continue;
      taken.values[k] = store_.Value(kept, k);
      taken.present = (taken.present & ~(1u << k)) | (kept.present & 1u << k);
    }
    Write(taken);
  }
  void Problem(std::size_t, const std::string&) override {}
  void Restart() override { out_.clear(); }

 private:
  void Write(const Line& line) {
    std::string unused;
    WriteLine(line, false, out_, &unused);
    out_ += '\n';
  }
  const PlanDocument& store_;
  const AttributeMask& kept_;
  std::string& out_;
};

}  // namespace

bool HoldsOtherValues(const PlanDocument& store, const PlanDocument& wanted,
                      const AttributeMask& kept) {
  for (const PlanDocument::Object& o : wanted.Objects()) {
    const std::uint32_t attributes = kept[o.kind];
    const std::size_t at =
        attributes ? store.Find(o.oid, wanted.Long()) : std::string::npos;
    if (at == std::string::npos || store.Objects()[at].kind != o.kind) continue;
    for (std::size_t k = 0; k < LayoutOf(o.kind).attributes.size(); ++k)
      if ((attributes >> k & 1) &&
          store.Value(store.Objects()[at], k) != wanted.Value(o, k))
        return true;
  }
  return false;
}

bool KeptDocument(const std::string& file, const PlanDocument& store,
                  const AttributeMask& kept, std::string* text) {
  text->clear();
  Keeper keeper(store, kept, *text);
  return Walk(file, keeper).opened;
}

}  // namespace doc
