// What the history's units share of libgit2: each object owned and freed
// by its own function, and libgit2's last error as messages show it.
#pragma once

#include <git2.h>

#include <memory>
#include <string>

#include "Escape.h"

namespace doc {

// Each libgit2 object, freed by its own function.
struct Free {
  void operator()(git_object* o) const { git_object_free(o); }
  void operator()(git_commit* c) const { git_commit_free(c); }
  void operator()(git_tree* t) const { git_tree_free(t); }
  void operator()(git_blob* b) const { git_blob_free(b); }
  void operator()(git_index* i) const { git_index_free(i); }
  void operator()(git_reference* r) const { git_reference_free(r); }
  void operator()(git_signature* s) const { git_signature_free(s); }
  void operator()(git_config* c) const { git_config_free(c); }
};
template <typename T>
using Own = std::unique_ptr<T, Free>;

// libgit2's last error, escaped for a message.
inline std::string LastError() {
  const git_error* e = git_error_last();
  return e && e->message ? vantrel::Escaped(e->message) : "unknown error";
}

}  // namespace doc
