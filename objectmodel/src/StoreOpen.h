// Opening a store: its file, read-only, then the checks that the whole
// store passes before the first getter (AdminStore::Open runs them: format
// version, tables and columns, every oid once across the store, at most one
// local site).
#pragma once

struct sqlite3;

namespace kiv {

// The store's format version, PRAGMA user_version: the schema's, read from
// it by the build.
constexpr int kFormatVersion = KIV_FORMAT_VERSION;

// Opens the store file at path read-only, waiting for a writer's lock up to
// AdminStore::kBusyTimeoutMs. It must be a regular file, not empty; the name
// is a path, never a URI. Throws StoreError saying why it cannot be opened.
sqlite3* OpenStoreFile(const char* path);
// The built-in demonstration, in a database of its own in memory. Throws
// StoreError.
sqlite3* OpenDemo();

}  // namespace kiv
