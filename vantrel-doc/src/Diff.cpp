#include <algorithm>
#include <new>
#include <ostream>
#include <sstream>
#include <thread>

#include "Checker.h"
#include "Escape.h"
#include "VantrelDoc.h"

namespace {

using doc::Kind;
using doc::Line;

// The objects of a document, for comparing: each one's values in one text
// (values hold no line break), its parent and its place.
struct Object {
  Kind kind;
  std::uint32_t present;
  std::size_t values;  // where its values start in the document's text
  std::size_t size;    // of its values, each ended by a line break
  Id oid;
  Id parent;               // size 0 for none
  std::size_t common = 0;  // its place among the siblings both documents hold
};
struct Objects {
  kiv::LargeVector<Object> objects;  // in the document's order
  kiv::LargeVector<Defined> byOid;   // sorted
  // The values of all objects.
  std::basic_string<char, std::char_traits<char>, kiv::LargeAllocator<char>>
      text;
  Spill spill;
  std::string_view Values(const Object& o) const {
    return std::string_view(text).substr(o.values, o.size);
  }
};

// Collects the objects of a document as it is walked.
class Collector : public doc::Visitor {
 public:
  explicit Collector(Objects& doc) : doc_(doc) {}
  void Element(const Line& line, std::size_t,
               const doc::Place& place) override {
    const int oidAt = doc::AttributeIndex(line.kind, "Oid");
    if (oidAt < 0) return;
    const std::string_view oid = line.values[oidAt];
    Object object{
        line.kind,
        line.present,
        doc_.text.size(),
        0,
        MakeId(oid, doc_.spill),
        place.parent.empty() ? Id{} : MakeId(place.parent, doc_.spill)};
    for (std::string_view value : line.values) (doc_.text += value) += '\n';
    object.size = doc_.text.size() - object.values;
    doc_.objects.push_back(object);
  }
  void Problem(std::size_t, const std::string&) override {}
  void Restart() override {
    doc_.objects.clear();
    doc_.text.clear();
    doc_.spill.clear();
  }

 private:
  Objects& doc_;
};

// Reads and checks a document into its objects, in one pass; 0, or the
// exit status of the failure after reporting it.
int Read(const std::string& file, Objects& doc, std::ostream& err) {
  Collector collector(doc);
  Checker checker(file, err, &collector);
  if (!checker.Run()) return 2;
  if (checker.Problems()) {
    err << "vantrel-doc: " << Shown(file) << " is refused by check\n";
    return 1;
  }
  doc.byOid.clear();
  doc.byOid.reserve(doc.objects.size());
  for (std::size_t i = 0; i < doc.objects.size(); ++i)
    doc.byOid.push_back({doc.objects[i].oid, doc.objects[i].kind,
                         static_cast<std::uint32_t>(i), 0});
  std::sort(doc.byOid.begin(), doc.byOid.end(),
            [&](const Defined& a, const Defined& b) {
              return Compare(a.id, doc.spill, b.id, doc.spill) < 0;
            });
  return 0;
}

std::string Quoted(std::string_view value) {
  return "\"" + vantrel::Escaped(value) + "\"";
}

// Value i of a joined text of values.
std::string_view ValueAt(std::string_view values, std::size_t i) {
  std::size_t start = 0;
  while (i--) start = values.find('\n', start) + 1;
  return values.substr(start, values.find('\n', start) - start);
}

}  // namespace

int DocDiff(const std::string& oldFile, const std::string& newFile,
            std::ostream& out, std::ostream& err) {
  // The two documents are read at once, each by a thread of its own.
  Objects before, after;
  std::ostringstream beforeErr, afterErr;
  // Memory running out in either reading goes up from here, once both have
  // ended: an exception may not leave a thread, nor a thread be left.
  int beforeRead = 0;
  bool beforeOutOfMemory = false;
  std::thread reader([&] {
    try {
      beforeRead = Read(oldFile, before, beforeErr);
    } catch (const std::bad_alloc&) {
      beforeOutOfMemory = true;
    }
  });
  int afterRead = 0;
  try {
    afterRead = Read(newFile, after, afterErr);
  } catch (...) {
    reader.join();
    throw;
  }
  reader.join();
  if (beforeOutOfMemory) throw std::bad_alloc();
  err << beforeErr.str() << afterErr.str();
  // A document that cannot be read or is refused: no comparison.
  if (beforeRead || afterRead) return 2;
  // Each object's match in the other document (npos for none), from one
  // merge of the two sorted lists of identifiers.
  constexpr std::size_t kNone = std::string::npos;
  std::vector<std::size_t> inAfter(before.objects.size(), kNone),
      inBefore(after.objects.size(), kNone);
  for (std::size_t i = 0, j = 0;
       i < before.byOid.size() && j < after.byOid.size();) {
    const int order = Compare(before.byOid[i].id, before.spill,
                              after.byOid[j].id, after.spill);
    if (order == 0) {
      inAfter[before.byOid[i].order] = after.byOid[j].order;
      inBefore[after.byOid[j].order] = before.byOid[i].order;
    }
    i += order <= 0;
    j += order >= 0;
  }
  const auto sameParent = [&](const Object& o, const Object& other,
                              const Spill& os, const Spill& others) {
    return o.parent.size == other.parent.size &&
           (o.parent.size == 0 ||
            Compare(o.parent, os, other.parent, others) == 0);
  };
  // Places among the siblings both documents hold under the same parent.
  const auto places = [&](Objects& doc, const std::vector<std::size_t>& match,
                          const Objects& other) {
    std::size_t top[doc::kKindCount] = {}, child[doc::kKindCount] = {};
    const Object* previous = nullptr;
    for (std::size_t i = 0; i < doc.objects.size(); ++i) {
      Object& o = doc.objects[i];
      if (!previous || !sameParent(o, *previous, doc.spill, doc.spill))
        std::fill(std::begin(child), std::end(child), 0);
      previous = &o;
      const std::size_t j = match[i];
      if (j == kNone ||
          !sameParent(o, other.objects[j], doc.spill, other.spill))
        continue;
      o.common = o.parent.size == 0 ? top[o.kind]++ : child[o.kind]++;
    }
  };
  places(before, inAfter, after);
  places(after, inBefore, before);

  std::vector<std::string> lines[doc::kKindCount];
  const auto named = [](const Objects& doc, const Object& o) {
    const doc::Layout& layout = doc::LayoutOf(o.kind);
    std::string text =
        std::string(layout.name) + " " + Identifier(o.oid, doc.spill);
    for (std::size_t i = 0; i < layout.attributes.size(); ++i)
      if (std::string(layout.attributes[i].name) == "Name")
        text += " " + Quoted(ValueAt(doc.Values(o), i));
    return text;
  };
  const auto where = [](const Objects& doc, const Object& o) {
    return o.parent.size == 0 ? std::string("the document")
                              : Identifier(o.parent, doc.spill);
  };
  for (std::size_t i = 0; i < before.objects.size(); ++i)
    if (inAfter[i] == kNone)
      lines[before.objects[i].kind].push_back("removed " +
                                              named(before, before.objects[i]));
  for (std::size_t i = 0; i < after.objects.size(); ++i) {
    const Object& now = after.objects[i];
    const std::size_t j = inBefore[i];
    if (j == kNone) {
      lines[now.kind].push_back("added " + named(after, now) + " in " +
                                where(after, now));
      continue;
    }
    const Object& was = before.objects[j];
    if (was.kind != now.kind) {
      lines[now.kind].push_back("changed " + Identifier(now.oid, after.spill) +
                                " from a " + doc::LayoutOf(was.kind).name +
                                " to a " + doc::LayoutOf(now.kind).name);
      continue;
    }
    const std::string_view wasValues = before.Values(was),
                           nowValues = after.Values(now);
    if (was.present != now.present || wasValues != nowValues) {
      const doc::Layout& layout = doc::LayoutOf(now.kind);
      for (std::size_t a = 0; a < layout.attributes.size(); ++a) {
        const bool had = (was.present >> a) & 1, has = (now.present >> a) & 1;
        const std::string_view from = ValueAt(wasValues, a),
                               to = ValueAt(nowValues, a);
        if (had == has && from == to) continue;
        lines[now.kind].push_back("changed " + named(after, now) + " " +
                                  layout.attributes[a].name + ": " +
                                  (had ? Quoted(from) : "(none)") + " -> " +
                                  (has ? Quoted(to) : "(none)"));
      }
    }
    if (!sameParent(was, now, before.spill, after.spill))
      lines[now.kind].push_back("moved " + named(after, now) + " from " +
                                where(before, was) + " to " +
                                where(after, now));
    else if (was.common != now.common)
      lines[now.kind].push_back("moved " + named(after, now) + " in " +
                                where(after, now) + " from place " +
                                std::to_string(was.common + 1) + " to place " +
                                std::to_string(now.common + 1));
  }
  bool differ = false;
  for (const auto& kind : lines)
    for (const std::string& line : kind) {
      out << line << "\n";
      differ = true;
    }
  return differ ? 1 : 0;
}
