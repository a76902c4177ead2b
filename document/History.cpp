#include "History.h"

#include <fcntl.h>
#include <git2.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "AdminDocument.h"
#include "Escape.h"
#include "Files.h"
#include "GitObjects.h"
#include "HistoryTree.h"

namespace doc {

namespace {

// libgit2, set up once. What it writes is synced to the disk by the
// commit, once, before a reference names it, so that a killed archive or a
// machine that stops leaves a sound repository.
void SetUp() {
  static const bool done = [] {
    git_libgit2_init();
    return true;
  }();
  (void)done;
}

// The configuration key that marks a history of this tool.
constexpr char kMark[] = "vantrel.history";

bool Marked(git_repository* repo) {
  git_config* raw = nullptr;
  if (git_repository_config(&raw, repo) != 0) return false;
  const Own<git_config> config(raw);
  int marked = 0;
  return git_config_get_bool(&marked, config.get(), kMark) == 0 && marked;
}

// The bytes of the whole document in commit's tree; false with *error.
bool DocumentOf(git_repository* repo, const git_commit* commit,
                std::string* bytes, std::string* error) {
  git_tree* rawTree = nullptr;
  git_object* rawBlob = nullptr;
  if (git_commit_tree(&rawTree, commit) != 0) {
    *error = LastError();
    return false;
  }
  const Own<git_tree> tree(rawTree);
  const git_tree_entry* entry =
      git_tree_entry_byname(tree.get(), kHistoryDocument);
  if (!entry || git_tree_entry_to_object(&rawBlob, repo, entry) != 0 ||
      git_object_type(rawBlob) != GIT_OBJECT_BLOB) {
    git_object_free(rawBlob);
    *error = std::string("the commit holds no ") + kHistoryDocument;
    return false;
  }
  const Own<git_object> blob(rawBlob);
  const auto* b = reinterpret_cast<const git_blob*>(blob.get());
  bytes->assign(static_cast<const char*>(git_blob_rawcontent(b)),
                static_cast<std::size_t>(git_blob_rawsize(b)));
  return true;
}

// The last commit of branch, or null.
Own<git_commit> Head(git_repository* repo, const std::string& branch) {
  git_oid id;
  git_commit* commit = nullptr;
  if (git_reference_name_to_id(&id, repo, branch.c_str()) != 0 ||
      git_commit_lookup(&commit, repo, &id) != 0)
    return nullptr;
  return Own<git_commit>(commit);
}

// Seconds since the epoch of an ISO 8601 date or time in UTC: a date alone
// is the end of its day, or with start its beginning. -1 for what is not
// one.
long long UtcLimit(const std::string& text, bool start = false) {
  static const std::regex form(
      R"(^(\d{4})-(\d{2})-(\d{2})(?:[T ](\d{2}):(\d{2})(?::(\d{2}))?Z?)?$)");
  std::smatch m;
  if (!std::regex_match(text, m, form)) return -1;
  std::tm t{};
  t.tm_year = std::stoi(m[1]) - 1900;
  t.tm_mon = std::stoi(m[2]) - 1;
  t.tm_mday = std::stoi(m[3]);
  const bool time = m[4].matched;
  t.tm_hour = time ? std::stoi(m[4]) : start ? 0 : 23;
  t.tm_min = time ? std::stoi(m[5]) : start ? 0 : 59;
  t.tm_sec = time ? (m[6].matched ? std::stoi(m[6]) : 0) : start ? 0 : 59;
  if (t.tm_mon > 11 || t.tm_mday < 1 || t.tm_mday > 31 || t.tm_hour > 23 ||
      t.tm_min > 59 || t.tm_sec > 60)
    return -1;
  return static_cast<long long>(::timegm(&t));
}

// Who commits: the user behind sudo, when there is one, on this host.
Own<git_signature> Signature() {
  const char* sudo = std::getenv("SUDO_USER");
  std::string name = sudo && *sudo ? sudo : "";
  if (name.empty()) {
    const passwd* pw = ::getpwuid(::geteuid());
    name = pw ? pw->pw_name : std::to_string(::geteuid());
  }
  char host[256] = {};
  ::gethostname(host, sizeof host - 1);
  git_signature* signature = nullptr;
  git_signature_now(&signature, name.c_str(),
                    (name + "@" + (*host ? host : "localhost")).c_str());
  return Own<git_signature>(signature);
}

// Writes to the disk everything the repository's file system holds:
// the objects a commit made, before a branch names it, and the branch
// after. One call however many objects changed, where a sync per object
// would cost a disk write each. False with *error.
bool SyncRepository(git_repository* repo, std::string* error) {
  const int fd =
      ::open(git_repository_path(repo), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const bool synced = fd >= 0 && ::syncfs(fd) == 0;
  if (!synced)
    *error = std::string("cannot write the history to the disk: ") +
             std::strerror(errno);
  if (fd >= 0) ::close(fd);
  return synced;
}

}  // namespace

std::unique_ptr<History> History::Open(const std::string& path, bool create,
                                       std::string* error) {
  SetUp();
  struct stat st {};
  const bool exists = ::stat(path.c_str(), &st) == 0;
  git_repository* repo = nullptr;
  if (exists && !S_ISDIR(st.st_mode)) {
    *error = "it is a file, not a history of vantrel-doc";
    return nullptr;
  }
  if (!exists) {
    if (!create) {
      *error = "no such history";
      return nullptr;
    }
    // A new history: a bare repository, marked as this tool's.
    git_config* raw = nullptr;
    if (git_repository_init(&repo, path.c_str(), 1) != 0 ||
        git_repository_config(&raw, repo) != 0 ||
        git_config_set_bool(raw, kMark, 1) != 0) {
      git_config_free(raw);
      git_repository_free(repo);
      *error = LastError();
      return nullptr;
    }
    git_config_free(raw);
    return std::unique_ptr<History>(new History(repo));
  }
  if (git_repository_open_ext(&repo, path.c_str(),
                              GIT_REPOSITORY_OPEN_NO_SEARCH, nullptr) != 0) {
    *error = "it is a directory, not a history of vantrel-doc";
    return nullptr;
  }
  if (!Marked(repo)) {
    git_repository_free(repo);
    *error =
        "it is a git repository, but not a history of vantrel-doc (its "
        "configuration lacks vantrel.history)";
    return nullptr;
  }
  return std::unique_ptr<History>(new History(repo));
}

History::~History() { git_repository_free(repo_); }

std::string History::Path() const { return git_repository_path(repo_); }

bool History::Is(const std::string& path) {
  std::string unused;
  return Open(path, false, &unused) != nullptr;
}

std::string History::BranchOf(const std::string& installation) {
  std::string name = installation.empty() ? "installation" : installation;
  int valid = 0;
  if (git_reference_name_is_valid(&valid, ("refs/heads/" + name).c_str()) ==
          0 &&
      valid)
    return name;
  for (char& c : name)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '.')
      c = '-';
  while (!name.empty() && (name.front() == '.' || name.front() == '-'))
    name.erase(0, 1);
  return name.empty() ? "installation" : name;
}

bool History::Last(const std::string& installation, std::string* bytes) const {
  const Own<git_commit> head = Head(
      repo_,
      installation.empty() ? "HEAD" : "refs/heads/" + BranchOf(installation));
  std::string unused;
  return head && DocumentOf(repo_, head.get(), bytes, &unused);
}

namespace {

// The commit rev names (see History::Document); null with *error.
Own<git_commit> Resolve(git_repository* repo, const std::string& rev,
                        std::string* error) {
  const std::size_t colon = rev.rfind(':');
  const long long limit =
      colon == std::string::npos ? -1 : UtcLimit(rev.substr(colon + 1));
  if (limit >= 0) {
    // INSTALLATION:DATE: the newest commit of its branch at or before it.
    const std::string installation = rev.substr(0, colon);
    Own<git_commit> at =
        Head(repo, "refs/heads/" + History::BranchOf(installation));
    if (!at) {
      *error =
          vantrel::Escaped(installation) + " is no installation of the history";
      return nullptr;
    }
    while (at && git_commit_time(at.get()) > limit) {
      git_commit* parent = nullptr;
      at.reset(git_commit_parent(&parent, at.get(), 0) == 0 ? parent : nullptr);
    }
    if (!at)
      *error = vantrel::Escaped(installation) + " has no commit at or before " +
               vantrel::Escaped(rev.substr(colon + 1));
    return at;
  }
  git_object* raw = nullptr;
  git_object* peeled = nullptr;
  if (git_revparse_single(&raw, repo, rev.c_str()) != 0 ||
      git_object_peel(&peeled, raw, GIT_OBJECT_COMMIT) != 0) {
    git_object_free(raw);
    *error = vantrel::Escaped(rev) +
             " is no revision of the history: " + LastError();
    return nullptr;
  }
  git_object_free(raw);
  return Own<git_commit>(reinterpret_cast<git_commit*>(peeled));
}

}  // namespace

bool History::Document(const std::string& rev, std::string* bytes,
                       std::string* error) const {
  const Own<git_commit> commit = Resolve(repo_, rev, error);
  return commit && DocumentOf(repo_, commit.get(), bytes, error);
}

bool History::Change(const std::string& rev, std::string* before,
                     std::string* after, std::string* commit,
                     std::string* error) const {
  const Own<git_commit> at = Resolve(repo_, rev, error);
  if (!at) return false;
  git_commit* raw = nullptr;
  if (git_commit_parent(&raw, at.get(), 0) != 0) {
    *error = vantrel::Escaped(rev) +
             " is its branch's first commit: nothing comes before it to go "
             "back to";
    return false;
  }
  const Own<git_commit> parent(raw);
  char id[GIT_OID_HEXSZ + 1];
  git_oid_tostr(id, sizeof id, git_commit_id(at.get()));
  *commit = id;
  return DocumentOf(repo_, parent.get(), before, error) &&
         DocumentOf(repo_, at.get(), after, error);
}

namespace {

// The file mode mask of what is written into repo while it lives: a
// repository shared with its group, or everyone (core.sharedRepository, as
// git init --shared sets it), gets directories and references they may
// write, as git's own would; the process's mask otherwise.
class SharedMask {
 public:
  explicit SharedMask(git_repository* repo) : mask_(::umask(0)) {
    ::umask(mask_);
    git_config* raw = nullptr;
    if (git_repository_config(&raw, repo) != 0) return;
    const Own<git_config> config(raw);
    git_buf value = GIT_BUF_INIT;
    if (git_config_get_string_buf(&value, config.get(),
                                  "core.sharedRepository") != 0)
      return;
    const std::string shared(value.ptr, value.size);
    git_buf_dispose(&value);
    mode_t mask = mask_;
    // Everyone's repository is the group's too: what git writes there
    // others may read, as they may here.
    if (shared == "group" || shared == "true" || shared == "1" ||
        shared == "all" || shared == "world" || shared == "everybody" ||
        shared == "2")
      mask = 002;
    else if (shared.size() > 1 && shared[0] == '0' &&
             shared.find_first_not_of("01234567") == std::string::npos)
      // An exact mode for files: directories keep their search bits.
      mask = static_cast<mode_t>(~std::stoul(shared, nullptr, 8) & 0666);
    ::umask(mask);
  }
  ~SharedMask() { ::umask(mask_); }
  SharedMask(const SharedMask&) = delete;
  SharedMask& operator=(const SharedMask&) = delete;

 private:
  mode_t mask_;
};

}  // namespace

bool History::Commit(
    const std::string& installation, const std::string& document,
    const std::function<std::string(const std::string&)>& message,
    std::string* commit, std::string* error) {
  const SharedMask shared(repo_);
  const std::string branch = "refs/heads/" + BranchOf(installation);
  const Own<git_signature> signature = Signature();
  // Another archive may move the branch meanwhile: the commit then follows
  // the one it made, and is made again.
  for (int attempt = 0; attempt < 20; ++attempt) {
    const Own<git_commit> parent = Head(repo_, branch);
    std::string previous;
    if (parent && !DocumentOf(repo_, parent.get(), &previous, error))
      return false;
    if (parent && previous == document) {
      commit->clear();
      return true;
    }
    git_oid treeId, commitId;
    git_tree* tree = nullptr;
    if (!WriteTree(repo_, parent.get(), previous, document, &treeId, error))
      return false;
    if (git_tree_lookup(&tree, repo_, &treeId) != 0) {
      *error = LastError();
      return false;
    }
    const Own<git_tree> owned(tree);
    const git_commit* parents[] = {parent.get()};
    const std::string text = message(previous);
    if (git_commit_create(&commitId, repo_, nullptr, signature.get(),
                          signature.get(), "UTF-8", text.c_str(), tree,
                          parent ? 1 : 0, parents) != 0) {
      *error = LastError();
      return false;
    }
    // The objects reach the disk before a branch names them.
    if (!SyncRepository(repo_, error)) return false;
    git_reference* ref = nullptr;
    const int moved =
        parent ? git_reference_create_matching(
                     &ref, repo_, branch.c_str(), &commitId, 1,
                     git_commit_id(parent.get()), "vantrel-doc archive")
               : git_reference_create(&ref, repo_, branch.c_str(), &commitId, 0,
                                      "vantrel-doc archive");
    git_reference_free(ref);
    if (moved == 0) {
      *commit = git_oid_tostr_s(&commitId);
      if (!SyncRepository(repo_, error)) return false;
      // The first branch is the one git log shows with no revision named.
      if (git_repository_head_unborn(repo_) == 1)
        git_repository_set_head(repo_, branch.c_str());
      return true;
    }
    if (moved != GIT_EMODIFIED && moved != GIT_EEXISTS &&
        moved != GIT_ELOCKED) {
      *error = LastError();
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5 + attempt * 10));
  }
  *error = "the branch " + vantrel::Escaped(BranchOf(installation)) +
           " kept moving: other archives commit to it at once";
  return false;
}

long long History::Time(const std::string& text, bool start) {
  return UtcLimit(text, start);
}

namespace {

// The id of the file at path in commit's tree; false when it has none.
bool EntryId(const git_commit* commit, const std::string& path, git_oid* id) {
  git_tree* raw = nullptr;
  git_tree_entry* entry = nullptr;
  if (git_commit_tree(&raw, commit) != 0) return false;
  const Own<git_tree> tree(raw);
  if (git_tree_entry_bypath(&entry, tree.get(), path.c_str()) != 0)
    return false;
  git_oid_cpy(id, git_tree_entry_id(entry));
  git_tree_entry_free(entry);
  return true;
}

// The bytes of the blob id, "" for none.
std::string BlobText(git_repository* repo, const git_oid* id) {
  git_blob* raw = nullptr;
  if (!id || git_blob_lookup(&raw, repo, id) != 0) return std::string();
  const Own<git_blob> blob(raw);
  return std::string(static_cast<const char*>(git_blob_rawcontent(raw)),
                     static_cast<std::size_t>(git_blob_rawsize(raw)));
}

}  // namespace

bool History::Push(const std::string& installation, const std::string& remote,
                   std::string* error) const {
  git_remote* raw = nullptr;
  if (git_remote_create_anonymous(&raw, repo_, remote.c_str()) != 0) {
    *error = LastError();
    return false;
  }
  const std::string ref = "refs/heads/" + BranchOf(installation);
  // The branch, to the remote's branch of the same name.
  const std::string mapping = ref + ":" + ref;
  char* mappings[] = {const_cast<char*>(mapping.c_str())};
  const git_strarray branches = {mappings, 1};
  git_push_options options;
  git_push_options_init(&options, GIT_PUSH_OPTIONS_VERSION);
  // A refused reference (the remote moved past it) is told by its status.
  std::string refused;
  options.callbacks.push_update_reference = [](const char*, const char* status,
                                               void* payload) {
    if (status) *static_cast<std::string*>(payload) = status;
    return 0;
  };
  options.callbacks.payload = &refused;
  const int pushed = git_remote_push(raw, &branches, &options);
  if (pushed != 0)
    *error = LastError();
  else if (!refused.empty())
    *error = vantrel::Escaped(refused);
  git_remote_free(raw);
  return pushed == 0 && refused.empty();
}

std::vector<std::string> History::Installations() const {
  std::vector<std::string> names;
  git_branch_iterator* it = nullptr;
  if (git_branch_iterator_new(&it, repo_, GIT_BRANCH_LOCAL) != 0) return names;
  git_reference* ref = nullptr;
  git_branch_t type;
  while (git_branch_next(&ref, &type, it) == 0) {
    const char* name = nullptr;
    if (git_branch_name(&name, ref) == 0) names.push_back(name);
    git_reference_free(ref);
  }
  git_branch_iterator_free(it);
  std::sort(names.begin(), names.end());
  return names;
}

bool History::ObjectFiles(const std::string& installation,
                          std::map<std::string, std::string>* files) const {
  const Own<git_commit> head =
      Head(repo_, "refs/heads/" + BranchOf(installation));
  git_tree* raw = nullptr;
  if (!head || git_commit_tree(&raw, head.get()) != 0) return false;
  const Own<git_tree> tree(raw);
  struct Files {
    std::map<std::string, std::string>* files;
  } walked{files};
  return git_tree_walk(
             tree.get(), GIT_TREEWALK_PRE,
             [](const char* root, const git_tree_entry* entry, void* payload) {
               if (git_tree_entry_type(entry) != GIT_OBJECT_BLOB) return 0;
               const std::string path =
                   std::string(root) + git_tree_entry_name(entry);
               if (path.rfind(kHistoryObjects, 0) == 0)
                 (*static_cast<Files*>(payload)->files)[path] =
                     git_oid_tostr_s(git_tree_entry_id(entry));
               return 0;
             },
             &walked) == 0;
}

std::string History::Blob(const std::string& id) const {
  git_oid oid;
  return git_oid_fromstr(&oid, id.c_str()) == 0 ? BlobText(repo_, &oid)
                                                : std::string();
}

std::string History::IgnoreRules() const {
  std::ifstream in(std::string(git_repository_path(repo_)) + "vantrel-ignore");
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string History::ObjectPath(const std::string& installation,
                                const std::string& oid) const {
  const Own<git_commit> head = Head(
      repo_,
      installation.empty() ? "HEAD" : "refs/heads/" + BranchOf(installation));
  git_oid id;
  for (int k = 0; head && k < kKindCount; ++k) {
    const std::string path =
        std::string(kHistoryObjects) + LayoutOf(Kind(k)).name + "/" + oid;
    if (EntryId(head.get(), path, &id)) return path;
  }
  return std::string();
}

bool History::ChangedObjects(const std::string& commit,
                             std::vector<Changed>* changed,
                             std::string* error) const {
  git_oid id;
  git_commit* rawCommit = nullptr;
  git_commit* rawParent = nullptr;
  git_tree *rawTree = nullptr, *rawOld = nullptr;
  git_diff* rawDiff = nullptr;
  if (git_oid_fromstr(&id, commit.c_str()) != 0 ||
      git_commit_lookup(&rawCommit, repo_, &id) != 0) {
    *error = LastError();
    return false;
  }
  const Own<git_commit> at(rawCommit);
  if (git_commit_parent(&rawParent, at.get(), 0) != 0) return true;
  const Own<git_commit> parent(rawParent);
  if (git_commit_tree(&rawTree, at.get()) != 0 ||
      git_commit_tree(&rawOld, parent.get()) != 0) {
    git_tree_free(rawTree);
    *error = LastError();
    return false;
  }
  const Own<git_tree> tree(rawTree), old(rawOld);
  // Only the objects' files: the whole document changes with each.
  git_diff_options options = GIT_DIFF_OPTIONS_INIT;
  char objects[] = "objects/";
  char* paths[] = {objects};
  options.pathspec = {paths, 1};
  if (git_diff_tree_to_tree(&rawDiff, repo_, old.get(), tree.get(), &options) !=
      0) {
    *error = LastError();
    return false;
  }
  const std::unique_ptr<git_diff, void (*)(git_diff*)> diff(rawDiff,
                                                            git_diff_free);
  for (std::size_t i = 0; i < git_diff_num_deltas(diff.get()); ++i) {
    const git_diff_delta* d = git_diff_get_delta(diff.get(), i);
    changed->push_back(
        {d->new_file.path ? d->new_file.path : d->old_file.path,
         d->status == GIT_DELTA_ADDED ? "" : BlobText(repo_, &d->old_file.id),
         d->status == GIT_DELTA_DELETED ? ""
                                        : BlobText(repo_, &d->new_file.id)});
  }
  return true;
}

bool History::Log(const std::string& installation, const std::string& path,
                  long long since, long long until, std::vector<Entry>* entries,
                  std::string* error) const {
  Own<git_commit> at = Head(
      repo_,
      installation.empty() ? "HEAD" : "refs/heads/" + BranchOf(installation));
  if (!at) {
    *error =
        vantrel::Escaped(installation) + " is no installation of the history";
    return false;
  }
  // The file's identifier in a parent is the next commit's own: each
  // tree is looked into once.
  bool known = false, knownHas = false;
  git_oid knownId{};
  while (at) {
    git_commit* raw = nullptr;
    Own<git_commit> parent(git_commit_parent(&raw, at.get(), 0) == 0 ? raw
                                                                     : nullptr);
    const long long time = git_commit_time(at.get());
    if (until >= 0 && time > until) {
      at = std::move(parent);
      known = false;
      continue;
    }
    if (since >= 0 && time < since) break;
    Entry entry;
    git_oid now = knownId, was;
    const bool has =
        known ? knownHas : !path.empty() && EntryId(at.get(), path, &now);
    const bool had =
        parent && !path.empty() && EntryId(parent.get(), path, &was);
    known = true;
    knownHas = had;
    if (had) knownId = was;
    // Only the commits that changed the object's file, for a log of one.
    if (!path.empty() && (has == had && (!has || git_oid_equal(&now, &was)))) {
      at = std::move(parent);
      continue;
    }
    entry.commit = git_oid_tostr_s(git_commit_id(at.get()));
    entry.time = time;
    const git_signature* author = git_commit_author(at.get());
    entry.author = std::string(author->name) + " <" + author->email + ">";
    entry.message = git_commit_message(at.get());
    if (!path.empty()) {
      entry.before = had ? BlobText(repo_, &was) : std::string();
      entry.after = has ? BlobText(repo_, &now) : std::string();
    }
    entries->push_back(std::move(entry));
    at = std::move(parent);
  }
  return true;
}

}  // namespace doc
