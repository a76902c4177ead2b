#include "StoreTables.h"

namespace kiv {
namespace {

const TableShape kShapes[kTableCount] = {
    {"host", {"name", "os_type", "os_version"}, kTableCount, true},
    {"data_server",
     {"name", "authentication", "dbms", "connection_string", "host"},
     kTableCount,
     true},
    {"vault_server", {"name", "alias_name"}, kTableCount, true},
    {"project", {"name"}, kTableCount, true},
    {"domain", {"name", "visible"}, kTableCount, true},
    {"business_domain",
     {"domain", "name", "meta_data_name", "editor", "corvel_flag",
      "data_modeler"},
     kDomain,
     true},
    {"data_domain",
     {"project", "name", "alias_name", "owner_dico", "driver", "kind",
      "business_domain", "data_server"},
     kProject,
     true},
    {"extern_site", {"name"}, kTableCount, true},
    {"local_site", {"name"}, kTableCount, true},
    {"media", {"media_path"}, kTableCount, true},
    {"package_definition", {"name"}, kTableCount, true},
    {"subscribing_target",
     {"name", "media", "package_definition", "extern_site"},
     kTableCount,
     true},
    {"subscription",
     {"name", "media", "package_definition", "extern_site"},
     kTableCount,
     true},
    {"capture_status",
     {"subscribing_target", "server", "last_successful_date"},
     kSubscribingTarget,
     true},
    {"apply_status",
     {"subscription", "server", "last_successful_date"},
     kSubscription,
     true},
    {"project_vault_server", {"project", "vault_server"}, kProject, false},
    {"project_data_server", {"project", "data_server"}, kProject, false},
    {"package_whole_data_domain",
     {"package_definition", "data_domain"},
     kPackageDefinition,
     false},
};

}  // namespace

const TableShape& ShapeOf(Table table) { return kShapes[table]; }

Table TableNamed(std::string_view name) {
  for (int t = 0; t < kTableCount; ++t)
    if (name == kShapes[t].name) return Table(t);
  return kTableCount;
}

std::string ColumnList(Table table) {
  const TableShape& shape = kShapes[table];
  std::string list = shape.hasOid ? "oid" : "";
  for (const char* column : shape.columns)
    list += std::string(list.empty() ? "\"" : ", \"") + column + "\"";
  return list;
}

int FirstColumn(Table table) { return kShapes[table].hasOid ? 2 : 1; }

std::string SelectList(Table table, const char* prefix) {
  const TableShape& shape = kShapes[table];
  std::string list = std::string(prefix) + "rowid";
  if (shape.hasOid) list += std::string(", ") + prefix + "oid";
  for (const char* column : shape.columns)
    list += std::string(", ") + prefix + "\"" + column + "\"";
  return list;
}

}  // namespace kiv
