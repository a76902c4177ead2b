#include "VantrelDoc.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <sstream>
#include <thread>
#include <unordered_map>
#include <vector>

#include "AdminDocument.h"
#include "DocumentRows.h"
#include "Escape.h"
#include "Hex.h"
#include "KivStoreWriter.h"
#include "LargeAllocator.h"

namespace {

using doc::Kind;
using doc::Line;

// Where an element stands: its parent's identifier ("" under the document
// element or the server wrapper) and its place among its siblings.
struct Place {
  std::string_view parent;  // valid while the element is read
  std::size_t index = 0;
};

// The top-level sections in their order; children have none.
int Section(Kind kind) {
  switch (kind) {
    case doc::kProject:
      return 0;
    case doc::kDomain:
      return 1;
    case doc::kServer:
      return 2;
    case doc::kHost:
      return 3;
    case doc::kSubscribingTarget:
      return 4;
    case doc::kSubscription:
      return 5;
    case doc::kPackageDefinition:
      return 6;
    case doc::kExternSite:
      return 7;
    case doc::kLocalSite:
      return 8;
    default:
      return -1;
  }
}

std::string Name(const doc::Attribute& a) {
  return a.name[0] == ' ' ? a.name + 1 : a.name;
}

// The identifier of an element, from its Oid attribute; valid while the
// line is.
std::string_view OidOf(const Line& line) {
  const auto& attributes = doc::LayoutOf(line.kind).attributes;
  for (std::size_t i = 0; i < attributes.size(); ++i)
    if (attributes[i].field == doc::Field::kOid) return line.values[i];
  return std::string_view();
}

// Reads a document, checking its structure: calls element for every element
// read, problem for every line at fault. False when the file cannot be
// opened.
bool Walk(
    const std::string& file,
    const std::function<void(const Line&, std::size_t, const Place&)>& element,
    const std::function<void(std::size_t, const std::string&)>& problem) {
  doc::Reader reader(file);
  if (!reader.Open()) return false;
  enum { kDeclaration, kDoctype, kRoot, kInRoot, kDone } stage = kDeclaration;
  int section = -1;
  Kind open = doc::kKindCount;  // the element whose children are read
  int childRank = 0;
  std::string openOid;
  std::size_t children = 0;
  std::map<Kind, std::size_t> topLevel;
  std::string_view text;
  std::string reason;
  Line line;
  while (reader.Next(text)) {
    const std::size_t n = reader.LineNumber();
    if (!doc::ReadLine(text, line, &reason)) {
      problem(n, reason);
      continue;
    }
    const auto misplaced = [&](const std::string& what) {
      problem(n, what + " is out of its place");
    };
    if (stage == kDone) {
      problem(n, "a line after </AdminObjects>");
      continue;
    }
    switch (line.type) {
      case Line::kDeclaration:
        if (stage != kDeclaration) misplaced("the XML declaration");
        stage = kDoctype;
        continue;
      case Line::kStylesheet:
        if (stage != kDoctype) misplaced("the stylesheet instruction");
        continue;
      case Line::kDoctype:
        if (stage != kDoctype) misplaced("the DOCTYPE");
        stage = kRoot;
        continue;
      case Line::kRootStart:
        if (stage != kRoot) misplaced("<AdminObjects>");
        stage = kInRoot;
        continue;
      case Line::kRootEnd:
        if (open != doc::kKindCount)
          problem(n, std::string("</") + doc::LayoutOf(open).name +
                         "> is missing before </AdminObjects>");
        stage = kDone;
        continue;
      default:
        break;
    }
    const doc::Layout& layout = doc::LayoutOf(line.kind);
    if (stage != kInRoot) {
      misplaced(std::string("<") + layout.name + ">");
      continue;
    }
    if (line.type == Line::kEnd) {
      if (open != line.kind)
        misplaced(std::string("</") + layout.name + ">");
      else
        open = doc::kKindCount;
      continue;
    }
    Place place;
    if (layout.parent == doc::kKindCount) {
      const int rank = Section(line.kind);
      if (open != doc::kKindCount || rank < section ||
          (rank == section &&
           (line.kind == doc::kServer || line.kind == doc::kLocalSite))) {
        misplaced(std::string("<") + layout.name + ">");
        continue;
      }
      section = rank;
      place.index = topLevel[line.kind]++;
      if (layout.hasEndTag) {
        open = line.kind;
        openOid = OidOf(line);
        children = 0;
        childRank = 0;
      }
    } else {
      // Children of one kind follow those of the kind written before them.
      const int rank = line.kind == doc::kVaultServer ||
                               line.kind == doc::kDataServerCaptureStatus ||
                               line.kind == doc::kDataServerApplyStatus
                           ? 1
                           : 0;
      if (open != layout.parent || rank < childRank) {
        misplaced(std::string("<") + layout.name + ">");
        continue;
      }
      childRank = rank;
      place.parent = openOid;
      place.index = children++;
    }
    element(line, n, place);
  }
  if (reader.Error())
    problem(reader.LineNumber(), std::string("cannot be read further: ") +
                                     std::strerror(reader.Error()));
  else if (stage != kDone)
    problem(reader.LineNumber(),
            "the document ends before </AdminObjects>: an export that failed "
            "or a file cut short");
  else if (reader.EndedWithoutNewline())
    problem(reader.LineNumber(), "the last line has no newline");
  return true;
}

// An identifier of a document, held in a few bytes: its first 8 bytes as
// a big-endian number, zero-padded (so that identifiers order as their
// bytes do), its size, and for a longer one its place in its document's
// list of long identifiers.
struct Id {
  std::uint64_t prefix = 0;
  std::uint32_t size = 0;
  std::uint32_t spill = 0;
};

// The bytes of the long identifiers of one document.
using Spill = std::vector<std::string>;

// The Id of identifier ("x" and hexadecimal), decoded as a store holds it.
Id MakeId(std::string_view identifier, Spill& spill) {
  std::string bytes;
  vantrel::Unhex(identifier.substr(1), &bytes);
  Id id;
  id.size = static_cast<std::uint32_t>(bytes.size());
  for (std::size_t i = 0; i < 8; ++i)
    id.prefix = (id.prefix << 8) |
                (i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0u);
  if (id.size > 8) {
    id.spill = static_cast<std::uint32_t>(spill.size());
    spill.push_back(bytes);
  }
  return id;
}

// Orders a of document sa against b of document sb as their bytes order.
int Compare(const Id& a, const Spill& sa, const Id& b, const Spill& sb) {
  if (a.prefix != b.prefix) return a.prefix < b.prefix ? -1 : 1;
  if (a.size <= 8 || b.size <= 8)
    return a.size == b.size ? 0 : (a.size < b.size ? -1 : 1);
  return sa[a.spill].compare(sb[b.spill]);
}

// The identifier as the document writes it.
std::string Identifier(const Id& id, const Spill& spill) {
  std::string bytes;
  if (id.size > 8) {
    bytes = spill[id.spill];
  } else {
    for (std::uint32_t i = 0; i < id.size; ++i)
      bytes += static_cast<char>((id.prefix >> (56 - 8 * i)) & 0xFF);
  }
  return "x" + vantrel::Hex(bytes);
}

// The size of file, or 0 when it cannot be told.
std::size_t FileSize(const std::string& file) {
  struct stat st {};
  return ::stat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode)
             ? static_cast<std::size_t>(st.st_size)
             : 0;
}

struct Defined {
  Id id;
  Kind kind;
  std::uint32_t order;  // of the element among those with an identifier
  std::size_t line;
};

struct Reference {
  Id id;
  const char* kinds;
  const char* attribute;
  std::size_t line;
};

// Checks a document; returns its problems, one line each in the order of
// the lines, and counts its elements per kind.
//
// also, when given, is called for each element, after which the identifiers
// sorted and the long ones are left in *sorted and *spill.
std::vector<std::string> Problems(
    const std::string& file, std::size_t counts[doc::kKindCount], bool* opened,
    const std::function<void(const Line&, const Place&)>& also = nullptr,
    kiv::LargeVector<Defined>* sorted = nullptr, Spill* kept = nullptr) {
  Spill own;
  Spill& spill = kept ? *kept : own;
  std::vector<std::pair<std::size_t, std::string>> problems;
  kiv::LargeVector<Defined> oids;
  kiv::LargeVector<Reference> references;
  // Sized for the usual density of a document: an object in about 100
  // bytes, a reference in about 60.
  const std::size_t bytes = FileSize(file);
  oids.reserve(bytes / 100);
  references.reserve(bytes / 60);
  const auto problem = [&](std::size_t n, const std::string& what) {
    problems.emplace_back(n, file + ":" + std::to_string(n) + ": " + what);
  };
  *opened = Walk(
      file,
      [&](const Line& line, std::size_t n, const Place& place) {
        if (also) also(line, place);
        ++counts[line.kind];
        const auto& attributes = doc::LayoutOf(line.kind).attributes;
        for (std::size_t i = 0; i < attributes.size(); ++i) {
          if (!line.Has(static_cast<int>(i))) continue;
          const doc::Attribute& a = attributes[i];
          if (a.field == doc::Field::kOid)
            oids.push_back({MakeId(line.values[i], spill), line.kind,
                            static_cast<std::uint32_t>(oids.size()), n});
          else if (a.field == doc::Field::kRef)
            references.push_back(
                {MakeId(line.values[i], spill), a.kinds, a.name, n});
          else if (a.field == doc::Field::kRefs)
            for (std::string_view id : doc::Identifiers(line.values[i]))
              references.push_back({MakeId(id, spill), a.kinds, a.name, n});
        }
      },
      problem);
  const auto order = [&](const Defined& a, const Defined& b) {
    const int c = Compare(a.id, spill, b.id, spill);
    return c != 0 ? c < 0 : a.line < b.line;
  };
  std::sort(oids.begin(), oids.end(), order);
  const auto shown = [&](const Id& id) { return Identifier(id, spill); };
  for (std::size_t i = 1; i < oids.size(); ++i)
    if (Compare(oids[i].id, spill, oids[i - 1].id, spill) == 0)
      problem(oids[i].line, "identifier " + shown(oids[i].id) +
                                " is also the identifier of line " +
                                std::to_string(oids[i - 1].line));
  for (const Reference& r : references) {
    const auto it = std::lower_bound(
        oids.begin(), oids.end(), r.id, [&](const Defined& d, const Id& id) {
          return Compare(d.id, spill, id, spill) < 0;
        });
    if (it == oids.end() || Compare(it->id, spill, r.id, spill) != 0) {
      problem(r.line, std::string(r.attribute) + " names " + shown(r.id) +
                          ", which is not in the document");
      continue;
    }
    const std::string kind = doc::LayoutOf(it->kind).name;
    if ((std::string(" ") + r.kinds + " ").find(" " + kind + " ") ==
        std::string::npos)
      problem(r.line, std::string(r.attribute) + " names " + shown(r.id) +
                          ", a " + kind + " (line " + std::to_string(it->line) +
                          "), not a " + r.kinds);
  }
  std::stable_sort(
      problems.begin(), problems.end(),
      [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<std::string> lines;
  for (auto& p : problems) lines.push_back(std::move(p.second));
  if (sorted) *sorted = std::move(oids);
  return lines;
}

}  // namespace

int DocCheck(const std::string& file, std::ostream& out, std::ostream& err) {
  std::size_t counts[doc::kKindCount] = {};
  bool opened = false;
  const std::vector<std::string> problems = Problems(file, counts, &opened);
  if (!opened) {
    err << "vantrel-doc: cannot read " << file << "\n";
    return 1;
  }
  for (const std::string& p : problems) err << p << "\n";
  if (!problems.empty()) return 1;
  std::size_t total = 0;
  for (std::size_t c : counts) total += c;
  out << file << ": a whole document of " << total - counts[doc::kServer]
      << " objects\n";
  for (int k = 0; k < doc::kKindCount; ++k)
    if (k != doc::kServer && counts[k])
      out << "  " << doc::LayoutOf(Kind(k)).name << " " << counts[k] << "\n";
  return 0;
}

namespace {

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

// Reads and checks a document into its objects, in one pass.
bool Read(const std::string& file, Objects& doc, std::ostream& err) {
  // Room reserved from the file's size is only taken as it is written: the
  // values are less than the file, an object takes more than 60 bytes.
  const std::size_t bytes = FileSize(file);
  doc.text.reserve(bytes);
  doc.objects.reserve(bytes / 60);
  std::size_t counts[doc::kKindCount] = {};
  bool opened = false;
  const std::vector<std::string> problems = Problems(
      file, counts, &opened,
      [&](const Line& line, const Place& place) {
        const std::string_view oid = OidOf(line);
        if (oid.empty()) return;
        Object object{
            line.kind,
            line.present,
            doc.text.size(),
            0,
            MakeId(oid, doc.spill),
            place.parent.empty() ? Id{} : MakeId(place.parent, doc.spill)};
        for (std::string_view value : line.values) (doc.text += value) += '\n';
        object.size = doc.text.size() - object.values;
        doc.objects.push_back(object);
      },
      &doc.byOid, &doc.spill);
  if (!opened || !problems.empty()) {
    err << "vantrel-doc: " << file
        << (opened ? " is refused by check" : " cannot be read") << "\n";
    for (const std::string& p : problems) err << p << "\n";
    return false;
  }
  return true;
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
  bool beforeRead = false;
  std::thread reader([&] { beforeRead = Read(oldFile, before, beforeErr); });
  const bool afterRead = Read(newFile, after, afterErr);
  reader.join();
  err << beforeErr.str() << afterErr.str();
  if (!beforeRead || !afterRead) return 2;
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
      if (Name(layout.attributes[i]) == "Name")
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
                                  Name(layout.attributes[a]) + ": " +
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

int DocLoad(const std::string& file, const std::string& store,
            std::ostream& out, std::ostream& err) {
  std::string error;
  std::unique_ptr<KivStoreWriter> writer =
      KivStoreWriter::Create(store, &error);
  if (!writer) {
    err << "vantrel-doc: cannot create the store " << store << ": " << error
        << "\n";
    return 1;
  }
  bool ok = true;
  // Rows are added as the document is checked, in one pass; a document
  // with a problem leaves no store behind.
  const auto load = [&](const Line& line, const Place& place) {
    ok = ok && doc::AddRows(*writer, line, place.parent, &error);
  };
  std::size_t counts[doc::kKindCount] = {};
  bool opened = false;
  const std::vector<std::string> problems =
      Problems(file, counts, &opened, load);
  if (!opened || !problems.empty()) {
    err << "vantrel-doc: " << file
        << (opened ? " is refused by check: nothing was loaded"
                   : " cannot be read")
        << "\n";
    for (const std::string& p : problems) err << p << "\n";
    return 1;  // the new file is removed
  }
  if (!ok || !writer->Commit(&error)) {
    err << "vantrel-doc: cannot load " << file << " into " << store << ": "
        << error << "\n";
    return 1;
  }
  out << store << ": loaded from " << file << "\n";
  return 0;
}

int VantrelDocMain(int argc, char* argv[]) {
  const std::string command = argc > 1 ? argv[1] : "";
  if (command == "check" && argc == 3)
    return DocCheck(argv[2], std::cout, std::cerr);
  if (command == "diff" && argc == 4)
    return DocDiff(argv[2], argv[3], std::cout, std::cerr);
  if (command == "load" && argc == 4)
    return DocLoad(argv[2], argv[3], std::cout, std::cerr);
  std::cerr << "usage: vantrel-doc check FILE\n"
               "       vantrel-doc diff OLD NEW\n"
               "       vantrel-doc load FILE STORE\n";
  return 2;
}
