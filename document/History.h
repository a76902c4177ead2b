// A configuration's history: every archive a commit of a git repository
// that plain git reads (log, show, diff, clone, push, fsck).
//
// The repository is bare. Each installation is a branch of its own, named
// after its local site unless told otherwise. Each commit's tree holds the
// document whole, as the exporter wrote it, and one small file per object
// under its kind, so that one object's history is one path's history:
//
//   admin.xml                  the document, byte for byte
//   objects/PROJECT/x0401      the object's line, as the exporter writes it
//
// A history is marked as this tool's in its configuration
// (vantrel.history), so that an ordinary repository is never taken for
// one.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

struct git_repository;

namespace doc {

// The path of the whole document in every commit.
constexpr char kHistoryDocument[] = "admin.xml";
// Where each object's file stands: objects/KIND/IDENTIFIER.
constexpr char kHistoryObjects[] = "objects/";

class History {
 public:
  // Opens the history at path, creating it when missing and create is
  // given; null with *error for what is not a history of this tool (an
  // ordinary repository, a plain directory, a file) or cannot be opened.
  static std::unique_ptr<History> Open(const std::string& path, bool create,
                                       std::string* error);
  ~History();
  History(const History&) = delete;
  History& operator=(const History&) = delete;

  // Seconds since the epoch of an ISO 8601 date or time in UTC; a date
  // alone is the end of its day, or with start its beginning. -1 for what
  // is not one.
  static long long Time(const std::string& text, bool start = false);

  // The repository's directory.
  std::string Path() const;

  // Whether path is a history of this tool.
  static bool Is(const std::string& path);

  // Sets *bytes to the document of revision rev: a revision as git reads it
  // (an installation's branch, "prod~2", a commit id), or
  // "INSTALLATION:DATE", the newest commit of that installation at or
  // before DATE (ISO 8601; a date alone is its whole day, in UTC). False
  // with *error for a revision or date that does not exist, or a damaged
  // object.
  bool Document(const std::string& rev, std::string* bytes,
                std::string* error) const;

  // Sets *after to the document of the commit rev names (as Document reads
  // rev), *before to its first parent's, and *commit to its identifier.
  // False with *error, as Document, and for a branch's first commit.
  bool Change(const std::string& rev, std::string* before, std::string* after,
              std::string* commit, std::string* error) const;

  // Commits document to the branch of installation, unless the branch's
  // last commit holds it already: *commit is then "", else the new commit's
  // identifier. message(previous) gives the commit's message from the
  // document of the commit it follows ("" for the branch's first). The
  // branch moves only from the commit the new one follows: an archive
  // committed meanwhile is never lost, the new one follows it. False with
  // *error.
  bool Commit(
      const std::string& installation, const std::string& document,
      const std::function<std::string(const std::string& previous)>& message,
      std::string* commit, std::string* error);

  // The document of the branch's last commit (HEAD's for "") into *bytes;
  // false when the branch has none.
  bool Last(const std::string& installation, std::string* bytes) const;

  // One commit of a branch's history, newest first in a log.
  struct Entry {
    std::string commit;   // its identifier
    long long time = 0;   // seconds since the epoch
    std::string author;   // "name <email>"
    std::string message;  // the plan in text, totals first
    // For a log of one object: its line before and after ("" when it was
    // not there, or is no more).
    std::string before, after;
  };
  // The commits of installation's branch (of HEAD's for ""), newest first,
  // from since to until (seconds since the epoch, inclusive; -1 for no
  // bound), following first parents. With path (objects/KIND/IDENTIFIER),
  // only the commits that changed that file, with its line before and
  // after. False with *error for an installation the history lacks.
  bool Log(const std::string& installation, const std::string& path,
           long long since, long long until, std::vector<Entry>* entries,
           std::string* error) const;
  // One object's file a commit changed: its path, and its line before and
  // after ("" when it was not there, or is no more).
  struct Changed {
    std::string path, before, after;
  };
  // The object files the commit whose identifier is commit changed from
  // its first parent, in the order of their paths; none for a branch's
  // first commit. False with *error.
  bool ChangedObjects(const std::string& commit, std::vector<Changed>* changed,
                      std::string* error) const;
  // The path of the object whose identifier is oid in the branch's last
  // commit, "" when it holds none.
  std::string ObjectPath(const std::string& installation,
                         const std::string& oid) const;

  // Pushes the branch of installation to remote (a path or URL git
  // takes), which must not have moved past it; false with *error.
  bool Push(const std::string& installation, const std::string& remote,
            std::string* error) const;

  // The installations the history holds: its branches, sorted.
  std::vector<std::string> Installations() const;
  // Each object file of the branch's last commit: its path
  // (objects/KIND/IDENTIFIER) and its blob's identifier, in *files.
  bool ObjectFiles(const std::string& installation,
                   std::map<std::string, std::string>* files) const;
  // The bytes of the blob whose identifier is id, "" for none.
  std::string Blob(const std::string& id) const;
  // The text of the file rules, a file of the history beside its objects
  // (REPO/vantrel-ignore), "" for none.
  std::string IgnoreRules() const;

  // The branch name an installation's name gives: itself when git takes it
  // as one, else with each character git refuses as '-'.
  static std::string BranchOf(const std::string& installation);

 private:
  explicit History(git_repository* repo) : repo_(repo) {}
  git_repository* repo_;
};

}  // namespace doc
