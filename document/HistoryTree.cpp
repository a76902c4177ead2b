#include "HistoryTree.h"

#include <algorithm>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "AdminDocument.h"
#include "GitObjects.h"
#include "History.h"

namespace doc {
namespace {

// Puts a blob of bytes at path of index; false with *error.
bool Put(git_repository* repo, git_index* index, const std::string& path,
         std::string_view bytes, std::string* error) {
  git_index_entry entry{};
  entry.mode = GIT_FILEMODE_BLOB;
  entry.path = path.c_str();
  if (git_blob_create_from_buffer(&entry.id, repo, bytes.data(),
                                  bytes.size()) != 0 ||
      git_index_add(index, &entry) != 0) {
    *error = LastError();
    return false;
  }
  return true;
}

// The path of the object whose line is text, or "" for a line of no object.
std::string PathOf(std::string_view text) {
  Line line;
  std::string unused;
  const int oid = ReadLine(text.substr(0, text.size() - (text.empty() ? 0 : 1)),
                           line, &unused) &&
                          line.type == Line::kStart
                      ? OidIndex(line.kind)
                      : -1;
  return oid < 0
             ? std::string()
             : std::string(kHistoryObjects) + LayoutOf(line.kind).name + "/" +
                   std::string(line.values[static_cast<std::size_t>(oid)]);
}

// Each line of text, with its line end.
std::vector<std::string_view> LinesOf(std::string_view text) {
  std::vector<std::string_view> lines;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size() - 1);
    lines.push_back(text.substr(at, end + 1 - at));
    at = end + 1;
  }
  return lines;
}

// The tree of the first document: every object's file, and the document.
bool WriteFirstTree(git_repository* repo, const std::string& document,
                    git_oid* tree, std::string* error) {
  git_index* raw = nullptr;
  if (git_index_new(&raw) != 0) {
    *error = LastError();
    return false;
  }
  const Own<git_index> index(raw);
  for (std::string_view line : LinesOf(document)) {
    const std::string path = PathOf(line);
    if (!path.empty() && !Put(repo, index.get(), path, line, error))
      return false;
  }
  if (!Put(repo, index.get(), kHistoryDocument, document, error)) return false;
  if (git_index_write_tree_to(tree, index.get(), repo) != 0) {
    *error = LastError();
    return false;
  }
  return true;
}

// Makes *update put a blob of bytes at its path (set by the caller); false
// with *error.
bool Upsert(git_repository* repo, std::string_view bytes,
            git_tree_update* update, std::string* error) {
  update->action = GIT_TREE_UPDATE_UPSERT;
  update->filemode = GIT_FILEMODE_BLOB;
  if (git_blob_create_from_buffer(&update->id, repo, bytes.data(),
                                  bytes.size()) == 0)
    return true;
  *error = LastError();
  return false;
}

}  // namespace

bool WriteTree(git_repository* repo, git_commit* parent,
               const std::string& previous, const std::string& document,
               git_oid* tree, std::string* error) {
  if (!parent) return WriteFirstTree(repo, document, tree, error);
  git_tree* rawTree = nullptr;
  if (git_commit_tree(&rawTree, parent) != 0) {
    *error = LastError();
    return false;
  }
  const Own<git_tree> baseline(rawTree);
  // A line both documents hold is an object unchanged, or no object.
  std::unordered_map<std::string_view, int> was;
  for (std::string_view line : LinesOf(previous)) ++was[line];
  std::vector<std::string> paths;
  std::vector<git_tree_update> updates;
  std::unordered_set<std::string> upserted;
  for (std::string_view line : LinesOf(document)) {
    const auto held = was.find(line);
    if (held != was.end() && held->second > 0) {
      --held->second;
      continue;
    }
    std::string path = PathOf(line);
    if (path.empty()) continue;
    git_tree_update update{};
    if (!Upsert(repo, line, &update, error)) return false;
    upserted.insert(path);
    paths.push_back(std::move(path));
    updates.push_back(update);
  }
  // What previous holds and document does not: objects gone, unless their
  // file was written anew above.
  for (const auto& [line, left] : was) {
    if (left <= 0) continue;
    std::string path = PathOf(line);
    if (path.empty() || upserted.count(path)) continue;
    git_tree_update update{};
    update.action = GIT_TREE_UPDATE_REMOVE;
    paths.push_back(std::move(path));
    updates.push_back(update);
  }
  git_tree_update whole{};
  if (!Upsert(repo, document, &whole, error)) return false;
  paths.push_back(kHistoryDocument);
  updates.push_back(whole);
  // The paths are set last: the vector holding them no longer moves.
  for (std::size_t i = 0; i < updates.size(); ++i)
    updates[i].path = paths[i].c_str();
  if (git_tree_create_updated(tree, repo, baseline.get(), updates.size(),
                              updates.data()) != 0) {
    *error = LastError();
    return false;
  }
  return true;
}

}  // namespace doc
