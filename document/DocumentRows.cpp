#include "DocumentRows.h"

#include <algorithm>
#include <vector>

namespace doc {
namespace {

using W = KivStoreWriter;

// Where a column of a row comes from.
struct Column {
  enum Source : std::uint8_t {
    kAttribute,  // the attribute named text: a text, or an identifier
    kParent,     // the parent element's identifier
    kFlag,       // the attribute named text, Y or N, as 1 or 0
    kConstant,   // the text itself
  } source;
  const char* text;
};

// The row of one kind of element: its table and its columns in the
// schema's order.
struct RowShape {
  const char* table;
  std::vector<Column> columns;
};

constexpr Column::Source A = Column::kAttribute, P = Column::kParent,
                         F = Column::kFlag, C = Column::kConstant;

// The writer tells tables apart by the address of their name: each name
// used by two kinds is one constant.
constexpr char kCaptureStatus[] = "capture_status";
constexpr char kApplyStatus[] = "apply_status";
constexpr char kMedia[] = "media";

// The statuses of a replication set: the set is their parent.
RowShape Status(const char* table, const char* object) {
  return {table, {{A, "Oid"}, {P, ""}, {A, object}, {A, "LastSuccessfulDate"}}};
}

RowShape Set(const char* table) {
  return {table,
          {{A, "Oid"},
           {A, "Name"},
           {A, "Media"},
           {A, "PackageDefinition"},
           {A, "ExternSite"}}};
}

const RowShape kRows[kKindCount] = {
    {"project", {{A, "Oid"}, {A, "Name"}}},
    {"data_domain",
     {{A, "Oid"},
      {P, ""},
      {A, "Name"},
      {A, "AliasName"},
      {A, "OwnerDico"},
      {A, "Driver"},
      {C, "rdb"},
      {A, "BusinessDomain"},
      {A, "DataServer"}}},
    {"domain", {{A, "Oid"}, {A, "Name"}, {F, "Visible"}}},
    {"business_domain",
     {{A, "Oid"},
      {P, ""},
      {A, "Name"},
      {A, "MetaDataName"},
      {A, "Editor"},
      {A, "CorvelFlag"},
      {A, "DataModeler"}}},
    {nullptr, {}},
    {"data_server",
     {{A, "Oid"},
      {A, "Name"},
      {A, "Authentication"},
      {A, "DBMS"},
      {A, "ConnectionString"},
      {A, "Host"}}},
    {"vault_server", {{A, "Oid"}, {A, "Name"}, {A, "AliasName"}}},
    {"host", {{A, "Oid"}, {A, "Name"}, {A, "OSType"}, {A, "OSVersion"}}},
    Set("subscribing_target"),
    Status(kCaptureStatus, "CapturedObject"),
    Status(kCaptureStatus, "CapturedObject"),
    Set("subscription"),
    Status(kApplyStatus, "AppliedObject"),
    Status(kApplyStatus, "AppliedObject"),
    {"package_definition", {{A, "Oid"}, {A, "Name"}}},
    {"extern_site", {{A, "Oid"}, {A, "Name"}}},
    {"local_site", {{A, "Oid"}, {A, "Name"}}},
};

const LinkList kLists[] = {
    {kProject, "VaultServers", "project_vault_server"},
    {kProject, "DataServers", "project_data_server"},
    {kPackageDefinition, "WholeDataDomains", "package_whole_data_domain"},
};

// A column's place among the attributes, worked out once per kind.
struct Resolved {
  int attribute;  // -1 for a column that is not an attribute
  const Column* column;
};

const std::vector<Resolved>& ResolvedRow(Kind kind) {
  static const std::vector<std::vector<Resolved>> all = [] {
    std::vector<std::vector<Resolved>> rows(kKindCount);
    for (int k = 0; k < kKindCount; ++k)
      for (const Column& c : kRows[k].columns)
        rows[k].push_back({c.source == A || c.source == F
                               ? AttributeIndex(Kind(k), c.text)
                               : -1,
                           &c});
    return rows;
  }();
  return all[kind];
}

}  // namespace

std::vector<std::string> RowShapeProblems() {
  std::vector<std::string> problems;
  for (int k = 0; k < kKindCount; ++k) {
    const Layout& layout = LayoutOf(Kind(k));
    std::vector<bool> used(layout.attributes.size());
    for (const Resolved& r : ResolvedRow(Kind(k))) {
      if (r.column->source != A && r.column->source != F) continue;
      if (r.attribute < 0)
        problems.push_back(std::string(layout.name) + " has no attribute " +
                           r.column->text);
      else
        used[r.attribute] = true;
    }
    for (const LinkList& list : kLists) {
      if (list.kind != k) continue;
      const int i = AttributeIndex(Kind(k), list.attribute);
      if (i < 0)
        problems.push_back(std::string(layout.name) + " has no attribute " +
                           list.attribute);
      else
        used[i] = true;
    }
    for (std::size_t i = 0; i < used.size(); ++i)
      if (!used[i])
        problems.push_back(std::string(layout.name) + " " +
                           layout.attributes[i].name + " goes to no column");
  }
  return problems;
}


bool RowsOf(const Line& line, std::string_view parent, const RowSink& sink) {
  const char* table = kRows[line.kind].table;
  if (!table) return true;
  const auto& attributes = LayoutOf(line.kind).attributes;
  // The value of attribute i as the store holds it.
  const auto value = [&](int i) {
    if (!line.Has(i)) return W::Null();
    return attributes[i].field == Field::kText ? W::Text(line.values[i])
                                               : W::Oid(line.values[i]);
  };
  const int media = AttributeIndex(line.kind, "Media");
  // A media has no element: its row is made where it is first named.
  if (media >= 0 && line.Has(media) &&
      !sink(kMedia, {value(media), W::Null()}, true))
    return false;
  std::vector<W::Value> row;
  for (const Resolved& r : ResolvedRow(line.kind)) {
    switch (r.column->source) {
      case A:
        row.push_back(value(r.attribute));
        break;
      case P:
        row.push_back(W::Oid(parent));
        break;
      case F:
        row.push_back(W::Integer(line.values[r.attribute] == "Y" ? 1 : 0));
        break;
      case C:
        row.push_back(W::Text(r.column->text));
        break;
    }
  }
  if (!sink(table, row, false)) return false;
  const std::string_view oid = line.values[AttributeIndex(line.kind, "Oid")];
  for (const LinkList& list : kLists) {
    if (list.kind != line.kind) continue;
    const int i = AttributeIndex(line.kind, list.attribute);
    if (!line.Has(i)) continue;
    for (std::string_view id : Identifiers(line.values[i]))
      if (!sink(list.table, {W::Oid(oid), W::Oid(id)}, false)) return false;
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

const std::vector<LinkList>& LinkLists() {
  static const std::vector<LinkList> lists(std::begin(kLists),
                                           std::end(kLists));
  return lists;
}

std::vector<const char*> ObjectTables() {
  std::vector<const char*> tables;
  for (const RowShape& row : kRows)
    if (row.table &&
        std::find(tables.begin(), tables.end(), row.table) == tables.end())
      tables.push_back(row.table);
  tables.push_back(kMedia);
  return tables;
}

}  // namespace doc
