// Tests of the store change as a unit: a KivStoreChange on a real store,
// with the rows a plan touches.
//
// Plan:
//   Change  for each case of a table (a rename touched beside one that is
//           not, a removal with the status without a server it owns, an
//           addition first in its list, a project's link list changed, the
//           same list not flagged as changed): after the commit the store
//           holds what was touched as wanted and the rest as it was, and
//           the counts say what was written
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>
#include <vector>

#include "KivStoreChange.h"
#include "test_support.h"

namespace {

using W = KivStoreWriter;

struct Row {
  const char* table;
  std::vector<W::Value> values;
};

// What query prints, a line per row and a blank between columns.
std::string Query(const std::string& store, const std::string& query) {
  sqlite3* db = nullptr;
  sqlite3_open(store.c_str(), &db);
  std::string result;
  sqlite3_exec(
      db, query.c_str(),
      [](void* to, int n, char** values, char**) {
        auto& text = *static_cast<std::string*>(to);
        for (int i = 0; i < n; ++i)
          (text += i ? " " : "") += values[i] ? values[i] : "NULL";
        text += "\n";
        return 0;
      },
      &result, nullptr);
  sqlite3_close(db);
  return result;
}

W::Value Oid(const char* identifier) { return W::Oid(identifier); }
W::Value Text(const char* text) { return W::Text(text); }

TEST(Change, OnlyWhatIsTouched) {
  const W::Value null = W::Null();
  const std::vector<Row> project = {
      {"project", {Oid("x0D01"), Text("P&ONE")}},
      {"project_vault_server", {Oid("x0D01"), Oid("x0C02")}},
      {"project_data_server", {Oid("x0D01"), Oid("x0B01")}}};
  const struct {
    const char* name;
    std::vector<Row> content;
    KivStoreTouched touched;
    const char* query;
    std::string result;
    KivStoreChange::Counts counts;
  } cases[] = {
      {"a rename touched beside one that is not",
       {{"host", {Oid("x0A01"), Text("zeta"), Text("Linux"), Text("6.1")}},
        {"host", {Oid("x0A02"), Text("gamma"), null, null}}},
       {{{std::string("\x0A\x02"), "host", false}}, {}},
       "SELECT name, quote(os_type) FROM host ORDER BY rowid",
       "alpha 'Linux'\ngamma NULL\n",
       {0, 1, 0, 0, 0}},
      {"a removal with the status without a server it owns",
       {},
       {{{std::string("\x15\x03"), "subscribing_target", true}}, {}},
       "SELECT hex(oid) FROM capture_status ORDER BY rowid",
       "1701\n1702\n1703\n",
       {0, 0, 2, 0, 0}},
      {"an addition first in its list",
       {{"extern_site", {Oid("x1109"), Text("NORTH")}},
        {"extern_site", {Oid("x1101"), Text("EAST")}},
        {"extern_site", {Oid("x1102"), Text("WEST")}}},
       {{{std::string("\x11\x09"), nullptr, true}}, {{"extern_site", ""}}},
       "SELECT name FROM extern_site ORDER BY rowid",
       "NORTH\nEAST\nWEST\n",
       {1, 0, 0, 1, 0}},
      {"a project's link list changed",
       project,
       {{{std::string("\x0D\x01"), "project", true}}, {}},
       "SELECT hex(vault_server) FROM project_vault_server ORDER BY rowid",
       "0C02\n",
       {0, 0, 0, 0, 1}},
      {"the same list not flagged as changed",
       project,
       {{{std::string("\x0D\x01"), "project", false}}, {}},
       "SELECT hex(vault_server) FROM project_vault_server ORDER BY rowid",
       "0C01\n0C02\n",
       {0, 0, 0, 0, 0}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string store = test_support::OutputPath("change.db");
    test_support::MakeStore(
        store, {test_support::ReadFile(test_support::DataPath("full.sql"))});
    KivStoreContent content;
    std::string error;
    for (const Row& row : c.content)
      ASSERT_TRUE(content.Add(row.table, row.values, &error)) << error;
    KivStoreChange::Refusal refusal;
    const auto change = KivStoreChange::Begin(store, &refusal, &error);
    ASSERT_TRUE(change) << error;
    ASSERT_TRUE(change->Apply(content, c.touched, &error)) << error;
    const KivStoreChange::Counts& done = change->Done();
    EXPECT_EQ(done.added, c.counts.added);
    EXPECT_EQ(done.changed, c.counts.changed);
    EXPECT_EQ(done.removed, c.counts.removed);
    EXPECT_EQ(done.reordered, c.counts.reordered);
    EXPECT_EQ(done.relinked, c.counts.relinked);
    ASSERT_TRUE(change->Commit(&error)) << error;
    EXPECT_EQ(Query(store, c.query), c.result);
  }
}

}  // namespace
