// Changes an existing administration store into the rows a document wants,
// in one write transaction that the caller verifies before it commits.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "KivStoreWriter.h"

struct sqlite3;

// The rows a store is to hold, gathered in memory as a document is read,
// the way KivStoreWriter::Add takes them.
class KivStoreContent {
 public:
  // Takes a row of table (a name of the schema) with the values of its
  // columns in the schema's order, texts copied. A row with once is a media
  // named where it is used; a row of a link table is one link of its owner's
  // list. False with *error for a table the schema does not have.
  bool Add(const char* table, const std::vector<KivStoreWriter::Value>& values,
           std::string* error, bool once = false);
  // The index, in the order added, of the object row whose oid (its bytes)
  // is oid; -1 for none.
  long Find(const std::string& oid) const;
  // The number of object rows taken: the index the next one gets.
  std::size_t Objects() const { return rows_.size(); }
  // Forgets every row.
  void Clear() { *this = KivStoreContent(); }

 private:
  friend class KivStoreChange;
  friend struct KivStoreChangePhases;
  struct Row {
    int table;
    std::vector<KivStoreWriter::Value> values;  // texts owned
  };
  std::vector<Row> rows_;
  std::unordered_map<std::string, std::size_t> byOid_;  // oid -> row
  // Each list of objects (its table and owner's oid): its rows, in the
  // order added.
  std::map<std::pair<int, std::string>, std::vector<std::size_t>> lists_;
  // Each link list (its table and owner's oid), targets in order.
  std::map<std::pair<int, std::string>, std::vector<std::string>> links_;
  std::set<std::string> media_;
};

// What a plan says changed, as a store change takes it: the change reads
// and writes the rows of these objects, their link lists and these lists,
// and no others.
struct KivStoreTouched {
  // Each object the plan names: its oid's bytes, the name of the table
  // that holds it in the store (null for an object the store lacks), and
  // whether its link lists may differ.
  struct Object {
    std::string oid;
    const char* table;
    bool links;
  };
  std::vector<Object> objects;
  // Each list whose order may have changed: its table's name, and its
  // owner's oid bytes ("" for a table without an owner).
  std::vector<std::pair<const char*, std::string>> lists;
};

// A write transaction on a store of the schema, rolled back unless
// committed. One at a time in a process.
class KivStoreChange {
 public:
  // Where Begin stopped.
  enum class Refusal {
    kNone,
    kOpen,      // the store cannot be opened for writing
    kLock,      // the write lock was not had (a writer at work, 5 s waited)
    kReplaced,  // the path names another file than the one opened
    kForeign,   // the store holds triggers or views its schema lacks
  };
  // Opens the store at path and takes its write lock, waiting up to 5 s for
  // a writer at work. Null on failure, with *refusal and *error (SQLite's
  // reason; for kForeign, the names of what the schema lacks). With
  // snapshot, the store is opened for reading only and no write lock is
  // taken: the transaction reads the store as it was when it began, while
  // another program writes it, and Apply and Commit fail.
  static std::unique_ptr<KivStoreChange> Begin(const std::string& path,
                                               Refusal* refusal,
                                               std::string* error,
                                               bool snapshot = false);
  ~KivStoreChange();
  KivStoreChange(const KivStoreChange&) = delete;
  KivStoreChange& operator=(const KivStoreChange&) = delete;

  // The connection, inside the transaction: what is written is read through
  // it (KivServeConnection) before the commit. It stays the change's.
  sqlite3* Connection() const { return db_; }
  // Sets *found to the oids of the store's media rows that a change keeps,
  // as no element carries a media, while content gives them to objects of
  // its own. False with *error when the store cannot be read.
  bool KeptMedia(const KivStoreContent& content,
                 std::vector<std::string>* found, std::string* error) const;
  // Makes the store's rows those of content, writing only what differs:
  // rows removed, changed and added, lists put in their order, link lists
  // rewritten. What no element carries is kept: media, and statuses without
  // a server whose owner stays. Only the rows and lists of touched are read
  // and written, so that a change costs what the plan holds, not what the
  // store does. False with *error.
  bool Apply(const KivStoreContent& content, const KivStoreTouched& touched,
             std::string* error);
  // What Apply wrote.
  struct Counts {
    std::size_t added = 0, changed = 0, removed = 0, reordered = 0,
                relinked = 0;
  };
  const Counts& Done() const { return counts_; }
  // True when the path no longer names the file opened.
  bool Replaced() const;
  // Commits; false with *error.
  bool Commit(std::string* error);
  // Stops the change where it stands: the statement running fails and so
  // does every later one. Safe in a signal handler.
  static void Interrupt();

 private:
  KivStoreChange(sqlite3* db, std::string path);
  sqlite3* db_;
  std::string path_;
  unsigned long long device_ = 0, inode_ = 0;
  bool open_ = false;  // in a transaction
  Counts counts_;
};
