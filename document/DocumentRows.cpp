#include "DocumentRows.h"

#include <algorithm>
#include <map>
#include <vector>

#include "Hex.h"

namespace doc {
namespace {

using W = KivStoreWriter;

// The table of the media, which have no element of their own.
constexpr char kMediaTable[] = "media";

// Where a column of an element's row comes from.
struct Source {
  enum Type : std::uint8_t {
    kAttribute,  // the attribute at index attribute
    kParent,     // the parent element's identifier
    kImplied,    // the layout's implied value
  } type;
  int attribute;
};

// The rows of one kind of element, worked out from its layout and its
// table's columns.
struct RowPlan {
  const char* table = nullptr;  // one pointer per table name
  std::vector<Source> columns;  // in the order of the table's columns
  std::vector<std::pair<int, const char*>> lists;  // attribute, link table
  int media = -1;                // the attribute naming a media, if any
  std::size_t mediaColumns = 0;  // of the media table, for its rows
  const char* mediaTable = nullptr;
};

struct Plans {
  std::vector<RowPlan> kinds;
  std::vector<std::string> problems;
};

// The writer tells tables apart by the address of their name: each name
// gets one.
const char* Interned(const char* table) {
  static std::map<std::string, const char*> names;
  return names.emplace(table, table).first->second;
}

const Plans& PlansOf() {
  static const Plans plans = [] {
    Plans all;
    all.kinds.resize(kKindCount);
    for (int k = 0; k < kKindCount; ++k) {
      const Layout& layout = LayoutOf(Kind(k));
      if (!layout.table) continue;
      RowPlan& plan = all.kinds[k];
      plan.table = Interned(layout.table);
      const auto& attributes = layout.attributes;
      const auto problem = [&](const std::string& what) {
        all.problems.push_back(std::string(layout.name) + ": " + what);
      };
      std::vector<bool> used(attributes.size());
      const std::vector<std::string> columns = KivTableColumns(layout.table);
      if (columns.empty()) problem(std::string("no table ") + layout.table);
      const bool parented = layout.parent != kKindCount &&
                            LayoutOf(layout.parent).table != nullptr;
      for (std::size_t c = 0; c < columns.size(); ++c) {
        int found = -1;
        for (std::size_t i = 0; i < attributes.size() && found < 0; ++i)
          if (attributes[i].field != Field::kRefs &&
              columns[c] == attributes[i].column)
            found = static_cast<int>(i);
        if (found >= 0) {
          plan.columns.push_back({Source::kAttribute, found});
          used[static_cast<std::size_t>(found)] = true;
        } else if (layout.impliedColumn && columns[c] == layout.impliedColumn) {
          plan.columns.push_back({Source::kImplied, -1});
        } else if (c == 1 && parented) {
          plan.columns.push_back({Source::kParent, -1});
        } else {
          problem("column " + columns[c] + " of table " + layout.table +
                  " gets no value");
        }
      }
      for (std::size_t i = 0; i < attributes.size(); ++i) {
        const Attribute& a = attributes[i];
        if (a.field == Field::kRefs) {
          if (KivTableColumns(a.column).size() == 2)
            plan.lists.push_back({static_cast<int>(i), Interned(a.column)});
          else
            problem(std::string(a.name) + ": no link table " + a.column);
        } else if (!used[i]) {
          problem(std::string(a.name) + " goes to no column of table " +
                  layout.table);
        }
        if (a.field == Field::kMedia) {
          plan.media = static_cast<int>(i);
          plan.mediaTable = Interned(kMediaTable);
          plan.mediaColumns = KivTableColumns(kMediaTable).size();
          if (plan.mediaColumns == 0) problem("no table media");
        }
      }
    }
    return all;
  }();
  return plans;
}

}  // namespace

std::vector<std::string> RowShapeProblems() { return PlansOf().problems; }

bool RowsOf(const Line& line, std::string_view parent, const RowSink& sink) {
  const RowPlan& plan = PlansOf().kinds[line.kind];
  if (!plan.table) return true;
  const auto& attributes = LayoutOf(line.kind).attributes;
  // The value of attribute i as the store holds it.
  const auto value = [&](int i) {
    if (!line.Has(i)) return W::Null();
    switch (attributes[static_cast<std::size_t>(i)].field) {
      case Field::kText:
        return W::Text(line.values[i]);
      case Field::kFlag:
        return W::Integer(line.values[i] == "Y" ? 1 : 0);
      default:
        return W::Oid(line.values[i]);
    }
  };
  // A media has no element: its row is made where it is first named, with
  // its identifier alone.
  if (plan.media >= 0 && line.Has(plan.media)) {
    std::vector<W::Value> media(plan.mediaColumns, W::Null());
    media[0] = value(plan.media);
    if (!sink(plan.mediaTable, media, true)) return false;
  }
  std::vector<W::Value> row;
  row.reserve(plan.columns.size());
  for (const Source& source : plan.columns) {
    switch (source.type) {
      case Source::kAttribute:
        row.push_back(value(source.attribute));
        break;
      case Source::kParent:
        row.push_back(W::Oid(parent));
        break;
      case Source::kImplied:
        row.push_back(W::Text(LayoutOf(line.kind).impliedValue));
        break;
    }
  }
  if (!sink(plan.table, row, false)) return false;
  const std::string_view oid = line.values[AttributeIndex(line.kind, "Oid")];
  for (const auto& [attribute, table] : plan.lists) {
    if (!line.Has(attribute)) continue;
    for (std::string_view id : Identifiers(line.values[attribute]))
      if (!sink(table, {W::Oid(oid), W::Oid(id)}, false)) return false;
  }
  return true;
}

bool AddRows(KivStoreWriter& writer, const Line& line, std::string_view parent,
             std::string* error) {
  return RowsOf(
      line, parent,
      [&](const char* table, const std::vector<W::Value>& values, bool once) {
        return writer.Add(table, values, error, once);
      });
}

namespace {

// The bytes of an identifier as a document spells it ("" for none).
std::string OidBytes(std::string_view identifier) {
  std::string bytes;
  if (!identifier.empty()) vantrel::Unhex(identifier.substr(1), &bytes);
  return bytes;
}

// True when c's object enters a list of the document it is added to: as
// new, as a new kind, or moved (to another owner, or in a list put in
// another order: each of its objects that moves).
bool EntersList(const PlanChange& c) {
  return c.action == PlanChange::kAdded || c.action == PlanChange::kMoved ||
         (c.action == PlanChange::kChanged && c.wasKind != c.kind);
}

}  // namespace

KivStoreTouched RowsTouched(const Plan& plan) {
  KivStoreTouched touched;
  touched.objects.reserve(plan.changes.size() + plan.runTime.size());
  // Run-time state that moved is written as any change is, when the plan
  // carries it (apply --run-time).
  for (const std::vector<PlanChange>* part : {&plan.changes, &plan.runTime})
    for (const PlanChange& c : *part) {
      // The store holds it in the table of what it was, unless it is new.
      const bool added = c.action == PlanChange::kAdded;
      // Its link lists differ only where a list of references changed.
      bool links = c.action != PlanChange::kMoved;
      if (c.action == PlanChange::kChanged && c.wasKind == c.kind) {
        links = false;
        for (const PlanValue& v : c.values)
          links = links || LayoutOf(c.kind).attributes[v.attribute].field ==
                               Field::kRefs;
      }
      touched.objects.push_back({OidBytes(c.object.oid),
                                 added ? nullptr : LayoutOf(c.wasKind).table,
                                 links});
      if (EntersList(c) && LayoutOf(c.kind).table)
        touched.lists.emplace_back(LayoutOf(c.kind).table,
                                   OidBytes(c.parent.oid));
    }
  return touched;
}

namespace {

// The identifier of o's parent, "" for none.
std::string ParentOf(const PlanDocument& doc, const PlanDocument::Object& o) {
  return o.parent.size == 0 ? std::string() : Identifier(o.parent, doc.Long());
}

// A list of objects: their table, and their parent in the document.
struct ListKey {
  std::string_view table;
  Id parent;
};

// The objects of wanted that plan's changes need, in the document's order:
// each it names, and each of a list that one of them enters or moves in.
std::vector<std::size_t> Needed(const PlanDocument& wanted, const Plan& plan) {
  const Spill& spill = wanted.Long();
  const auto before = [&](const ListKey& a, const ListKey& b) {
    return a.table != b.table ? a.table < b.table
                              : Compare(a.parent, spill, b.parent, spill) < 0;
  };
  std::vector<std::size_t> needed;
  std::vector<ListKey> lists;
  for (const std::vector<PlanChange>* part : {&plan.changes, &plan.runTime})
    for (const PlanChange& c : *part) {
      if (c.action == PlanChange::kRemoved) continue;
      const std::size_t i = wanted.Find(c.object.oid);
      if (i == std::string::npos) continue;
      needed.push_back(i);
      const char* table = LayoutOf(c.kind).table;
      if (table && EntersList(c))
        lists.push_back({table, wanted.Objects()[i].parent});
    }
  if (!lists.empty()) {
    std::sort(lists.begin(), lists.end(), before);
    const auto& objects = wanted.Objects();
    for (std::size_t i = 0; i < objects.size(); ++i) {
      const char* table = LayoutOf(objects[i].kind).table;
      if (table &&
          std::binary_search(lists.begin(), lists.end(),
                             ListKey{table, objects[i].parent}, before))
        needed.push_back(i);
    }
  }
  std::sort(needed.begin(), needed.end());
  needed.erase(std::unique(needed.begin(), needed.end()), needed.end());
  return needed;
}

}  // namespace

bool TouchedRows(const PlanDocument& wanted, const Plan& plan,
                 KivStoreContent* content, KivStoreTouched* touched,
                 std::string* error) {
  *touched = RowsTouched(plan);
  Line line;
  line.type = Line::kStart;
  for (const std::size_t i : Needed(wanted, plan)) {
    // The element's line again, from the values the plan's document holds.
    const PlanDocument::Object& o = wanted.Objects()[i];
    line.kind = o.kind;
    line.present = o.present;
    line.values.clear();
    std::string_view values = wanted.Values(o);
    for (std::size_t end; (end = values.find('\n')) != std::string_view::npos;
         values.remove_prefix(end + 1))
      line.values.push_back(values.substr(0, end));
    const bool added = RowsOf(
        line, ParentOf(wanted, o),
        [&](const char* table, const std::vector<W::Value>& row, bool once) {
          return content->Add(table, row, error, once);
        });
    if (!added) return false;
  }
  return true;
}

}  // namespace doc
