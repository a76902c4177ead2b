// The store's refusals and how they quote what the store holds: every
// value escaped and cut, so that no value can forge a line of its own.
#pragma once

#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace kiv {

// A store that cannot be served; the message names the table, the row and
// the column of a bad value.
class StoreError {
 public:
  explicit StoreError(std::string message) : message_(std::move(message)) {}
  const std::string& Message() const { return message_; }

 private:
  std::string message_;
};

// A BLOB as a message shows it: "x" and hexadecimal, cut.
std::string ShownBlob(std::string_view bytes);
// A text as a message quotes it: escaped and cut, between single quotes.
std::string ShownText(std::string_view text);
// The value of column col of stmt as a message shows it: NULL, a number, a
// quoted text, "an empty BLOB" or a BLOB.
std::string ShownValue(sqlite3_stmt* stmt, int col);
// The reason SQLite gave for rc on db (null before it opened), told so that
// the reader knows what to do about it.
std::string Reason(sqlite3* db, int rc);

}  // namespace kiv
