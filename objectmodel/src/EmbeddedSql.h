// The schema and the demonstration administration, as SQL, compiled in
// from objectmodel/sql.
#pragma once

namespace kiv {

extern const char* const kSchemaSql;
extern const char* const kDemoSql;

}  // namespace kiv
