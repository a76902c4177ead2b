// Tests of a configuration's history, through the built binaries, read with
// plain git as well.
//
// Plan:
//   Nights    three nights of one store: the first commit, an unchanged
//             night that leaves the repository untouched, a change and a
//             run-time-only night (committed, marked, no hook), each
//             revision giving back its archive byte for byte, git fsck
//             sound, an object's story as one path's git log and as
//             vantrel-doc log by identifier or kind and name (run-time
//             state with --all, dates bounded), the hook's JSON against
//             the plan's schema and its environment
//   Applied   apply --history: a commit of the drift before, one after,
//             naming the log, whose line names it; revert of one commit,
//             what changed since kept, and refused with the conflict named,
//             nothing written; what is no commit to undo refused
//   Timeline  log --format html: every link resolving within the page, a
//             reference linked to its object's story, secrets masked,
//             run-time state only with --all, rendered by Chromium
//   Revisions REPO@REV for every command that reads a document: a branch,
//             BRANCH~N, a commit, INSTALLATION:DATE; a revision or a date
//             that does not exist refused
//   NotAHistory what is not a history of this tool (an ordinary git
//             repository, a plain directory, a file) and a store that
//             cannot be exported: status 2, nothing written
//   Shared    installations share one repository, a branch each, or push
//             their branches to a central one (never over a branch moved
//             past theirs), compared side by side by name as text or a
//             page (run-time state with --all, secrets masked, the
//             history's rules leaving values out, a bad rule refused); a
//             group-shared repository stays shared; archives at once to
//             one branch all end up committed
//   ArchiveKilled SIGKILL at several moments of an archive: git fsck finds the
//             repository sound, and the next archive works
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "binaries.h"
#include "test_support.h"

using binaries::Doc;
using test_support::DataPath;
using test_support::MakeStore;
using test_support::OutputPath;
using test_support::ReadFile;
using test_support::RunResult;
using test_support::WriteFile;

namespace {

RunResult Git(const std::string& repo, std::vector<std::string> args) {
  args.insert(args.begin(), {"-C", repo});
  return test_support::Run("/usr/bin/git", args, {});
}

// Every file of the directory dir, with its size and time: what an
// untouched repository keeps.
std::map<std::string, std::string> Snapshot(const std::string& dir) {
  const RunResult found =
      test_support::Run("/usr/bin/find", {dir, "-printf", "%P %s %T@\n"}, {});
  std::map<std::string, std::string> files;
  std::istringstream lines(found.out);
  for (std::string line; std::getline(lines, line);)
    files[line.substr(0, line.find(' '))] = line;
  return files;
}

// A fresh directory of the output for a test's repositories.
std::string Fresh(const std::string& name) {
  const std::string path = OutputPath(name);
  test_support::Run("/bin/rm", {"-rf", path}, {});
  return path;
}

const std::string kFull = ReadFile(DataPath("full.sql"));

TEST(Nights, CommittedOnlyWhenChangedAndReadByGit) {
  const std::string repo = Fresh("history"), store = OutputPath("history.db");
  const std::string hooked = OutputPath("history-hook.json"),
                    env = OutputPath("history-hook.env");
  std::remove(hooked.c_str());
  const std::string hook = "cat > '" + hooked +
                           "'; echo \"$VANTREL_INSTALLATION $VANTREL_COMMIT "
                           "$VANTREL_REPOSITORY\" > '" +
                           env + "'";
  const struct {
    const char* night;
    std::string sql;
    bool committed;
    std::string said;  // a part of the line
    bool hookRuns;
  } nights[] = {
      {"the first", "", true, ": 33 objects, the first archive", false},
      {"unchanged", "", false, "history: HOME unchanged\n", false},
      {"a host renamed", "UPDATE host SET name = 'gamma' WHERE oid = x'0A02';",
       true, ": 0 added, 0 removed, 1 changed, 0 moved\n", true},
      {"run-time state only",
       "UPDATE host SET name = 'gamma' WHERE oid = x'0A02';"
       "UPDATE capture_status SET last_successful_date = '2027-01-01';",
       true, ": 0 added, 0 removed, 0 changed, 0 moved (run-time state only)\n",
       false},
  };
  std::vector<std::string> archives;  // each night's document, committed
  for (const auto& n : nights) {
    SCOPED_TRACE(n.night);
    MakeStore(store, {kFull, n.sql});
    const auto before = Snapshot(repo);
    std::remove(hooked.c_str());
    const RunResult run = Doc({"archive", "--on-change", hook, store, repo});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find(n.said), std::string::npos) << run.out;
    EXPECT_EQ(test_support::FileExists(hooked), n.hookRuns);
    if (!n.committed) {
      EXPECT_TRUE(Snapshot(repo) == before);
      continue;
    }
    archives.push_back(binaries::Export(store, OutputPath("history-now.xml")));
  }
  // Each revision gives back its night's archive, byte for byte.
  for (std::size_t i = 0; i < archives.size(); ++i) {
    const std::string rev = "HOME~" + std::to_string(archives.size() - 1 - i);
    EXPECT_TRUE(Git(repo, {"show", rev + ":admin.xml"}).out == archives[i])
        << rev;
  }
  EXPECT_EQ(Git(repo, {"fsck", "--strict"}).status, 0);
  const RunResult log = Git(repo, {"log", "--format=%s"});
  EXPECT_EQ(log.out,
            "0 added, 0 removed, 0 changed, 0 moved (run-time state only)\n"
            "0 added, 0 removed, 1 changed, 0 moved\n"
            "the first archive of HOME: 33 objects\n");
  // One object's story is one path's history.
  EXPECT_EQ(Git(repo, {"log", "--format=%s", "--", "objects/HOST/x0A02"}).out,
            "0 added, 0 removed, 1 changed, 0 moved\n"
            "the first archive of HOME: 33 objects\n");
  EXPECT_EQ(
      Git(repo, {"show", "HOME:objects/HOST/x0A02"}).out,
      "<HOST Oid=\"x0A02\" Name=\"gamma\" OSType=\"\" OSVersion=\"\"/>\n");
  // vantrel-doc log tells the same by name: the branch, one object by its
  // identifier or its kind and name, run-time state only with --all.
  const auto logged = [&](std::vector<std::string> args) {
    args.insert(args.begin(), "log");
    const RunResult run = Doc(args);
    EXPECT_EQ(run.status, 0) << run.err;
    std::string said;
    std::istringstream lines(run.out);
    for (std::string line; std::getline(lines, line);)
      said += line.rfind("commit ", 0) == 0 ? "commit\n" : line + "\n";
    return said;
  };
  EXPECT_EQ(logged({repo}),
            "commit\n    0 added, 0 removed, 1 changed, 0 moved\n"
            "    changed HOST x0A02 \"gamma\" Name: \"beta\" -> \"gamma\"\n"
            "commit\n    the first archive of HOME: 33 objects\n");
  EXPECT_NE(logged({"--all", repo}).find("(run-time state only)"),
            std::string::npos);
  for (const char* object : {"x0A02", "HOST:gamma"})
    EXPECT_EQ(logged({repo + "@HOME", object}),
              "commit\n    changed HOST x0A02 \"gamma\" Name: \"beta\" -> "
              "\"gamma\"\ncommit\n    added HOST x0A02 \"beta\"\n");
  EXPECT_EQ(logged({repo, "x1701"}),
            "commit\n    added DATASERVERCAPTURESTATUS x1701\n");
  EXPECT_EQ(logged({"--all", repo, "x1701"}),
            "commit\n    changed DATASERVERCAPTURESTATUS x1701 "
            "LastSuccessfulDate: \"2026-01-01\" -> \"2027-01-01\"\n"
            "commit\n    added DATASERVERCAPTURESTATUS x1701\n");
  EXPECT_EQ(logged({"--until", "2001-01-01", repo}), "");
  const std::string json = OutputPath("history-log.json");
  ASSERT_EQ(Doc({"log", "--format", "json", "-o", json, repo, "x0A02"}).status,
            0);
  const RunResult parsed = test_support::Run(
      "/usr/bin/python3",
      {"-c",
       "import json, sys\n"
       "log = json.load(open(sys.argv[1]))\n"
       "changes = [e['changes'] for e in log['entries']]\n"
       "assert changes == [[{'action': 'changed', 'attribute': 'Name', "
       "'old': 'beta', 'new': 'gamma'}], [{'action': 'added'}]], changes\n",
       json},
      {});
  EXPECT_EQ(parsed.status, 0) << parsed.err;
  // The history's own files are no output.
  const std::string headBytes = ReadFile(repo + "/HEAD");
  const RunResult inside = Doc({"log", "-o", repo + "/HEAD", repo});
  EXPECT_EQ(inside.status, 2);
  EXPECT_NE(inside.err.find("a directory the command reads"), std::string::npos)
      << inside.err;
  EXPECT_EQ(ReadFile(repo + "/HEAD"), headBytes);
  // Since when each value holds, and who set it.
  const std::string
      firstCommit =
          Git(repo, {"rev-parse", "--short=12", "HOME~2"}).out.substr(0, 12),
      renamedCommit =
          Git(repo, {"rev-parse", "--short=12", "HOME~1"}).out.substr(0, 12);
  const RunResult blamed = Doc({"blame", repo, "HOST:gamma"});
  EXPECT_EQ(blamed.status, 0) << blamed.err;
  const std::string by =
      " UTC " + Git(repo, {"log", "-1", "--format=%an <%ae>"}).out;
  EXPECT_TRUE(
      std::regex_search(blamed.out, std::regex("^HOST x0A02 \"gamma\"\n"
                                               "  Oid \"x0A02\" since " +
                                               firstCommit +
                                               " [-0-9: ]+ UTC .*\n"
                                               "  Name \"gamma\" since " +
                                               renamedCommit +
                                               " [-0-9: ]+ UTC .*\n"
                                               "  OSType \"\" since " +
                                               firstCommit + " ")))
      << blamed.out;
  EXPECT_NE(blamed.out.find(by), std::string::npos) << blamed.out << by;
  // The history's rules leave values out of an object's story, and a night
  // that moves only such values runs no hook.
  WriteFile(repo + "/vantrel-ignore", "HOST.Name\n");
  EXPECT_EQ(logged({repo, "x0A02"}), "commit\n    added HOST x0A02 \"beta\"\n");
  MakeStore(store, {kFull,
                    "UPDATE host SET name = 'epsilon';"
                    "UPDATE capture_status SET last_successful_date = "
                    "'2027-01-01';"});
  std::remove(hooked.c_str());
  ASSERT_EQ(Doc({"archive", "-q", "--on-change", hook, store, repo}).status, 0);
  EXPECT_FALSE(test_support::FileExists(hooked));
  std::remove((repo + "/vantrel-ignore").c_str());
  // The hook's JSON, from the night that changed the configuration, is a
  // plan as the shipped schema says.
  MakeStore(store, {kFull,
                    "UPDATE subscription SET extern_site = NULL;"
                    "DELETE FROM extern_site WHERE oid = x'1102';"
                    "UPDATE host SET name = 'delta';"});
  ASSERT_EQ(Doc({"archive", "-q", "--on-change", hook, store, repo}).status, 0);
  const RunResult valid = binaries::PlanChecked(
      hooked,
      "assert plan['totals']['changed'] == 3, plan['totals']\n"
      "assert plan['totals']['removed'] == 1, plan['totals']\n");
  EXPECT_EQ(valid.status, 0) << valid.err;
  // A removed object's file goes with it.
  EXPECT_NE(
      Git(repo, {"cat-file", "-e", "HOME:objects/EXTERNSITE/x1102"}).status, 0);
  EXPECT_EQ(
      Git(repo, {"cat-file", "-e", "HOME~1:objects/EXTERNSITE/x1102"}).status,
      0);
  const std::string head = Git(repo, {"rev-parse", "HOME"}).out;
  EXPECT_EQ(ReadFile(env),
            "HOME " + head.substr(0, head.size() - 1) + " " + repo + "\n");
}

// An apply with its history: the store's document committed before it
// when it drifted from the history's last commit, and after it, the log's
// line and the commit naming each other; an apply with nothing to do
// commits nothing.
TEST(Applied, CommittedBeforeWhenDriftedAndAfter) {
  const std::string repo = Fresh("history-applied"),
                    store = OutputPath("history-applied.db"),
                    wanted = OutputPath("history-applied.xml"),
                    log = OutputPath("history-applied.log");
  std::remove(log.c_str());
  MakeStore(store, {kFull});
  ASSERT_EQ(Doc({"archive", "-q", store, repo}).status, 0);
  // A change outside apply, then an apply of a rename.
  test_support::Run("sqlite3", {store, "UPDATE host SET os_type = 'BSD';"}, {});
  MakeStore(OutputPath("history-wanted.db"),
            {kFull,
             "UPDATE host SET os_type = 'BSD';"
             "UPDATE project SET name = 'RENAMED' WHERE oid = x'0D02';"});
  WriteFile(wanted, binaries::Export(OutputPath("history-wanted.db"),
                                     OutputPath("history-applied-w.xml")));
  const RunResult run = Doc({"apply", "-q", "--history", repo, "--log", log,
                             "--comment", "CHG-9", wanted, store});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(Git(repo, {"log", "--format=%s", "HOME"}).out,
            "0 added, 0 removed, 1 changed, 0 moved\n"
            "drift: the store changed outside vantrel-doc apply\n"
            "the first archive of HOME: 33 objects\n");
  const std::string body = Git(repo, {"log", "-1", "--format=%b", "HOME"}).out;
  EXPECT_NE(body.find("applied " + wanted +
                      " by vantrel-doc apply, recorded in " + log + ": CHG-9"),
            std::string::npos)
      << body;
  const std::string commit = Git(repo, {"rev-parse", "HOME"}).out;
  EXPECT_NE(ReadFile(log).find("\"history\":{\"repository\":\"" + repo +
                               "\",\"commit\":\"" +
                               commit.substr(0, commit.size() - 1) + "\"}}"),
            std::string::npos)
      << ReadFile(log);
  EXPECT_TRUE(Git(repo, {"show", "HOME:admin.xml"}).out == ReadFile(wanted));
  // Nothing to do: no commit.
  EXPECT_EQ(Doc({"apply", "-q", "--history", repo, wanted, store}).status, 0);
  EXPECT_EQ(Git(repo, {"rev-parse", "HOME"}).out, commit);
}

// revert: one commit undone on the live store, what changed since kept,
// recorded in the log and the history; a later change to the same value
// refuses it, the object named, the store, the history and the log's
// outcome saying nothing was changed.
TEST(Applied, RevertedWithAndWithoutAConflict) {
  const std::string repo = Fresh("history-revert"),
                    store = OutputPath("history-revert.db"),
                    log = OutputPath("history-revert.log");
  std::remove(log.c_str());
  const std::string night2 =
                        "UPDATE host SET name = 'gamma' WHERE oid = x'0A02';"
                        "INSERT INTO extern_site VALUES (x'1103', 'NORTH');"
                        "DELETE FROM project WHERE oid = x'0D02';",
                    night3 =
                        "UPDATE host SET os_type = 'BSD' WHERE oid = "
                        "x'0A01';";
  for (const std::vector<std::string>& sql : {std::vector<std::string>{kFull},
                                              {kFull, night2},
                                              {kFull, night2, night3}}) {
    MakeStore(store, sql);
    ASSERT_EQ(Doc({"archive", "-q", store, repo}).status, 0);
  }
  const std::string undone =
      Git(repo, {"rev-parse", "HOME~1"}).out.substr(0, 40);
  RunResult run = Doc({"revert", "-q", "--log", log, "--history", repo,
                       repo + "@HOME~1", store});
  ASSERT_EQ(run.status, 0) << run.err;
  // The store holds the first night with the third night's change.
  MakeStore(OutputPath("history-revert-w.db"), {kFull, night3});
  const std::string wanted = binaries::Export(
      OutputPath("history-revert-w.db"), OutputPath("history-revert-w.xml"));
  EXPECT_TRUE(binaries::Export(store, OutputPath("history-revert.xml")) ==
              wanted);
  EXPECT_TRUE(Git(repo, {"show", "HOME:admin.xml"}).out == wanted);
  EXPECT_NE(Git(repo, {"log", "-1", "--format=%b", "HOME"})
                .out.find("reverted commit " + undone + " (" + repo +
                          "@HOME~1) by vantrel-doc revert, recorded in " + log),
            std::string::npos);
  EXPECT_NE(ReadFile(log).find("\"revert\":\"" + undone + "\""),
            std::string::npos)
      << ReadFile(log);
  // The third night again, then its value changed since: refused.
  test_support::Run(
      "sqlite3", {store, "UPDATE host SET os_type = 'X' WHERE oid = x'0A01';"},
      {});
  const std::string head = Git(repo, {"rev-parse", "HOME"}).out,
                    now = binaries::Export(store,
                                           OutputPath("history-revert.xml"));
  run =
      Doc({"revert", "--log", log, "--history", repo, repo + "@HOME~1", store});
  EXPECT_EQ(run.status, 3);
  EXPECT_NE(run.err.find("a later change touched what the commit changed: HOST "
                         "x0A01 \"alpha\": OSType changed by " +
                         repo + "@HOME~1 and again since; " + store +
                         " was not changed"),
            std::string::npos)
      << run.err;
  EXPECT_TRUE(binaries::Export(store, OutputPath("history-revert.xml")) == now);
  EXPECT_EQ(Git(repo, {"rev-parse", "HOME"}).out, head);
  EXPECT_NE(ReadFile(log).find("\"guards\":[\"conflict\","), std::string::npos);
  const std::string last = ReadFile(log).substr(
      ReadFile(log).rfind('\n', ReadFile(log).size() - 2) + 1);
  EXPECT_NE(last.find("\"outcome\":\"refused\""), std::string::npos) << last;
  // Each line of the log holds to the shipped schema.
  const RunResult valid =
      test_support::Run("/usr/bin/python3",
                        {"-c",
                         "import json, sys, jsonschema\n"
                         "schema = json.load(open(sys.argv[2]))\n"
                         "for line in open(sys.argv[1]):\n"
                         "    jsonschema.validate(json.loads(line), schema)\n",
                         log, SHARE_DIR "/vantrel-log.schema.json"},
                        {});
  EXPECT_EQ(valid.status, 0) << valid.err;
  // A commit of another installation is no change of this store's.
  const std::string elsewhere = OutputPath("history-revert-other.db");
  for (const char* sql :
       {"UPDATE host SET os_version = '9' WHERE oid = x'0A02';", ""}) {
    MakeStore(elsewhere, {kFull, "UPDATE local_site SET oid = x'1299';", sql});
    ASSERT_EQ(
        Doc({"archive", "-q", "--installation", "far", elsewhere, repo}).status,
        0);
  }
  run = Doc({"revert", "--dry-run", repo + "@far", store});
  EXPECT_EQ(run.status, 3);
  EXPECT_NE(run.err.find("is another installation's: its local site is "
                         "x1299, the store's is x1201"),
            std::string::npos)
      << run.err;
  // What is no commit to undo.
  for (const std::string& bad :
       {repo + "@HOME~9",
        repo + "@" +
            Git(repo, {"rev-list", "--max-parents=0", "HOME"})
                .out.substr(0, 40),
        store}) {
    run = Doc({"revert", bad, store});
    EXPECT_EQ(run.status, 2) << bad;
    EXPECT_NE(run.err.find("vantrel-doc: cannot read "), std::string::npos);
  }
}

// log --format html: one page, a commit each opening to its changes, each
// object's story, every link within the page resolving (a reference's
// identifiers to their stories), secrets masked and run-time state left
// out; headless Chromium renders it.
TEST(Timeline, EveryLinkResolvesAndChromiumShowsIt) {
  const std::string repo = Fresh("history-page"),
                    store = OutputPath("history-page.db"),
                    page = OutputPath("history-page.html");
  const std::string
      moved =
          "UPDATE data_server SET host = x'0A02', connection_string = "
          "'scott/tiger@db' WHERE oid = x'0B01';",
      renamed =
          "UPDATE host SET name = 'g<a>mma' WHERE oid = "
          "x'0A02';",
      dated = "UPDATE capture_status SET last_successful_date = '2027-01-01';",
      redated =
          "UPDATE capture_status SET last_successful_date = '2027-02-02';";
  for (const std::vector<std::string>& sql :
       {std::vector<std::string>{kFull},
        {kFull, moved},
        {kFull, moved, renamed, dated},
        {kFull, moved, renamed, redated}}) {
    MakeStore(store, sql);
    ASSERT_EQ(Doc({"archive", "-q", store, repo}).status, 0);
  }
  const auto ids = [](const std::string& html, const char* pattern) {
    std::multiset<std::string> found;
    const std::regex re(pattern);
    for (auto m = std::sregex_iterator(html.begin(), html.end(), re);
         m != std::sregex_iterator(); ++m)
      found.insert((*m)[1]);
    return found;
  };
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{repo}, {repo, "DATASERVER:MAINDB"}}) {
    std::vector<std::string> command{"log", "--format", "html", "-o", page};
    command.insert(command.end(), args.begin(), args.end());
    const RunResult run = Doc(command);
    ASSERT_EQ(run.status, 0) << run.err;
    const std::string html = ReadFile(page);
    const auto anchors = ids(html, "id=\"([^\"]+)\"");
    for (const std::string& id : anchors)
      EXPECT_EQ(anchors.count(id), 1u) << "twice: " << id;
    const auto links = ids(html, "href=\"#([^\"]+)\"");
    for (const std::string& link : links)
      EXPECT_EQ(anchors.count(link), 1u) << "unresolved #" << link;
    // The server's host is a reference: linked to the host's story, when
    // the page tells one.
    EXPECT_NE(html.find("Host: \"x0A01\" &rarr; \"" +
                        std::string(args.size() == 1
                                        ? "<a href=\"#o-x0A02\">x0A02</a>"
                                        : "x0A02") +
                        "\""),
              std::string::npos)
        << html;
    EXPECT_EQ(html.find("tiger"), std::string::npos);
    EXPECT_EQ(html.find("2027-0"), std::string::npos);
    EXPECT_EQ(html.find("g<a>mma"), std::string::npos);
    const RunResult dom = test_support::ChromiumDom(page);
    ASSERT_EQ(dom.status, 0) << dom.err;
    for (const char* shown : {"DATASERVER x0B01", "scott/*****@db", "History"})
      EXPECT_NE(dom.out.find(shown), std::string::npos) << shown;
    EXPECT_EQ(dom.out.find("g&lt;a&gt;mma") != std::string::npos,
              args.size() == 1);
  }
  // A status whose date alone moved since: its story is its addition,
  // without --all.
  ASSERT_EQ(Doc({"log", "--format", "html", "-o", page, repo, "x1701"}).status,
            0);
  EXPECT_EQ(
      test_support::Matches(ReadFile(page), "<li id=\"(c-[^\"]+)\"").size(),
      1u);
  // Run-time state with --all: beside a rename, and the night that only
  // moved it.
  ASSERT_EQ(Doc({"log", "--all", "--format", "html", "-o", page, repo}).status,
            0);
  for (const char* date : {"2027-01-01", "2027-02-02"})
    EXPECT_NE(ReadFile(page).find(date), std::string::npos) << date;
}

TEST(Revisions, OfAHistoryForEveryCommand) {
  const std::string repo = Fresh("history-read"),
                    store = OutputPath("history-read.db");
  MakeStore(store, {kFull});
  ASSERT_EQ(Doc({"archive", "-q", store, repo}).status, 0);
  MakeStore(store, {kFull, "UPDATE host SET name = 'gamma';"});
  ASSERT_EQ(Doc({"archive", "-q", store, repo}).status, 0);
  const std::string first =
      Git(repo, {"rev-list", "--max-parents=0", "HOME"}).out.substr(0, 40);
  const std::string today = [] {
    char text[16];
    const std::time_t now = std::time(nullptr);
    std::strftime(text, sizeof text, "%Y-%m-%d", std::gmtime(&now));
    return std::string(text);
  }();
  const std::string at = repo + "@";
  const struct {
    std::vector<std::string> args;
    int status;
    std::string said;  // a part of standard output or error
  } cases[] = {
      {{"check", at + "HOME"}, 0, at + "HOME: a whole document of 33 objects"},
      {{"diff", at + "HOME~1", at + "HOME"}, 1, "changed HOST x0A01"},
      {{"diff", at + first, at + "HOME~1"}, 0, ""},
      {{"diff", at + "HOME:" + today, at + "HOME"}, 0, ""},
      {{"diff", at + "HOME:2001-01-01", at + "HOME"},
       2,
       "vantrel-doc: cannot read " + at +
           "HOME:2001-01-01: HOME has no commit at or before 2001-01-01\n"},
      {{"check", at + "nowhere"},
       2,
       "vantrel-doc: cannot read " + at + "nowhere: nowhere is no revision"},
      {{"json", at + "HOME", "-"}, 0, "\"document\":\"" + at + "HOME\""},
      {{"apply", "--dry-run", "--base", at + "HOME", at + "HOME~1", store},
       1,
       "changed HOST x0A01"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + c.args[1]);
    const RunResult run = Doc(c.args);
    EXPECT_EQ(run.status, c.status) << run.err;
    EXPECT_NE((run.out + run.err).find(c.said), std::string::npos)
        << run.out << run.err;
  }
}

TEST(NotAHistory, NorAStoreThatCannotBeExported) {
  const std::string ordinary = Fresh("history-ordinary"),
                    plain = Fresh("history-plain"),
                    file = OutputPath("history-file"),
                    repo = Fresh("history-refused"),
                    store = OutputPath("history-refused.db");
  Git(OutputPath(""), {"init", "-q", ordinary});
  ::mkdir(plain.c_str(), 0755);
  WriteFile(plain + "/notes", "kept\n");
  WriteFile(file, "a file\n");
  MakeStore(store, {kFull});
  const std::string broken = OutputPath("history-broken.db");
  WriteFile(broken, "not a store");
  const struct {
    std::string store, repo, why;
  } cases[] = {
      {store, ordinary,
       ": it is a git repository, but not a history of vantrel-doc (its "
       "configuration lacks vantrel.history); nothing was committed\n"},
      {store, plain,
       ": it is a directory, not a history of vantrel-doc; nothing was "
       "committed\n"},
      {store, file,
       ": it is a file, not a history of vantrel-doc; nothing was "
       "committed\n"},
      {broken, repo, ": the export failed; nothing was committed\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.repo);
    const auto before = Snapshot(c.repo);
    const RunResult run = Doc({"archive", c.store, c.repo});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find(c.why), std::string::npos) << run.err;
    EXPECT_TRUE(Snapshot(c.repo) == before);
  }
  // The export failed after the history was made: it holds no commit.
  EXPECT_NE(Git(repo, {"rev-parse", "--verify", "-q", "HEAD"}).status, 0);
}

TEST(Shared, InstallationsShareARepositoryAndArchivesAtOnceAllCommit) {
  const std::string repo = Fresh("history-many");
  const std::string test = OutputPath("history-test.db"),
                    prod = OutputPath("history-prod.db");
  MakeStore(test, {kFull, "UPDATE local_site SET name = 'test';"});
  MakeStore(prod, {kFull,
                   "UPDATE local_site SET name = 'prod';"
                   "UPDATE capture_status SET last_successful_date = "
                   "'2027-01-01';"
                   "UPDATE data_server SET connection_string = "
                   "'u/prod-pw@db<1>' WHERE oid = x'0B02';"});
  ASSERT_EQ(Doc({"archive", "-q", test, repo}).status, 0);
  ASSERT_EQ(Doc({"archive", "-q", prod, repo}).status, 0);
  ASSERT_EQ(
      Doc({"archive", "-q", "--installation", "staging", prod, repo}).status,
      0);
  EXPECT_EQ(Git(repo, {"branch", "--format=%(refname:short)"}).out,
            "prod\nstaging\ntest\n");
  // Side by side: what differs, by name, run-time state left out unless
  // --all, a secret masked, and what the history's rules name left out.
  const struct {
    std::vector<std::string> options;
    std::string rules;
    int status;
    std::string out;
  } compared[] = {
      {{},
       "",
       1,
       "DATASERVER x0B02 \"SIDEDB\"\n"
       "  ConnectionString: prod \"u/*****@db<1>\", staging "
       "\"u/*****@db<1>\", test \"\"\n"
       "LOCALSITE x1201 \"prod\"\n"
       "  Name: prod \"prod\", staging \"prod\", test \"test\"\n"
       "2 objects differ across 3 installations\n"},
      {{"--all"}, "", 1, "5 objects differ"},
      {{"--format", "html"},
       "",
       1,
       "<tr><th>ConnectionString</th><td>&quot;u/*****@db&lt;1&gt;&quot;</td>"
       "<td>&quot;u/*****@db&lt;1&gt;&quot;</td><td>&quot;&quot;</td></tr>"},
      {{},
       "# the installations' own\nLOCALSITE.Name\n"
       "DATASERVER.ConnectionString prod\nDATASERVER.ConnectionString "
       "staging\n",
       0,
       "0 objects differ across 3 installations\n"},
      {{}, "LOCALSITE.Nom\n", 2, ""},
  };
  for (const auto& c : compared) {
    SCOPED_TRACE(c.rules);
    WriteFile(repo + "/vantrel-ignore", c.rules);
    std::vector<std::string> args = {"compare"};
    args.insert(args.end(), c.options.begin(), c.options.end());
    args.push_back(repo);
    const RunResult run = Doc(args);
    EXPECT_EQ(run.status, c.status) << run.err;
    EXPECT_NE(run.out.find(c.out), std::string::npos) << run.out;
  }
  std::remove((repo + "/vantrel-ignore").c_str());
  // A repository shared with its group stays shared: what an archive adds
  // (directories of objects, the branch), its group may write, whatever
  // the archive's own file mode mask.
  for (const char* shared : {"group", "1", "all", "0660"}) {
    SCOPED_TRACE(shared);
    const std::string group = Fresh("history-group");
    Git(OutputPath(""), {"init", "-q", "--bare", group});
    Git(group, {"config", "core.sharedRepository", shared});
    Git(group, {"config", "vantrel.history", "true"});
    const mode_t mask = ::umask(022);
    EXPECT_EQ(Doc({"archive", "-q", test, group}).status, 0);
    ::umask(mask);
    // What the archive made: readable by the group, the directories
    // searchable, and they and the branch writable by it.
    const std::vector<std::string> found = {group + "/objects",
                                            group + "/refs/heads",
                                            "-mindepth",
                                            "1",
                                            "-newer",
                                            group + "/config",
                                            "(",
                                            "!",
                                            "-perm",
                                            "-g+r",
                                            "-o",
                                            "(",
                                            "-type",
                                            "d",
                                            "!",
                                            "-perm",
                                            "-g+x",
                                            ")",
                                            "-o",
                                            "(",
                                            "-type",
                                            "d",
                                            "-o",
                                            "-path",
                                            "*/refs/heads/*",
                                            ")",
                                            "!",
                                            "-perm",
                                            "-g+w",
                                            ")"};
    EXPECT_EQ(test_support::Run("/usr/bin/find", found, {}).out, "");
    EXPECT_EQ(Git(group, {"fsck", "--strict"}).status, 0);
  }
  // Each installation archives into a history of its own and pushes its
  // branch to a central one, a bare repository marked as a history, whose
  // log and compare then work.
  const std::string central = Fresh("history-central"),
                    own = Fresh("history-own-test"),
                    other = Fresh("history-own-prod");
  Git(OutputPath(""), {"init", "-q", "--bare", central});
  Git(central, {"config", "vantrel.history", "true"});
  ASSERT_EQ(Doc({"archive", "-q", "--push", central, test, own}).status, 0);
  ASSERT_EQ(Doc({"archive", "-q", "--push", central, prod, other}).status, 0);
  EXPECT_EQ(Git(central, {"branch", "--format=%(refname:short)"}).out,
            "prod\ntest\n");
  EXPECT_EQ(Git(central, {"fsck", "--strict"}).status, 0);
  EXPECT_EQ(Doc({"compare", central}).status, 1);
  EXPECT_EQ(Doc({"log", central + "@prod"}).status, 0);
  // A central branch moved past the installation's is not overwritten.
  ASSERT_EQ(Doc({"archive", "-q", "--installation", "prod", "--push", central,
                 test, own})
                .status,
            2);
  EXPECT_EQ(Git(central, {"rev-parse", "prod"}).out,
            Git(other, {"rev-parse", "prod"}).out);
  // Eight archives at once of eight stores to one branch: each commits,
  // one after the other, and no commit is lost.
  std::vector<pid_t> children;
  for (int i = 0; i < 8; ++i) {
    const std::string store =
        OutputPath("history-at-once-" + std::to_string(i) + ".db");
    MakeStore(store, {kFull,
                      "UPDATE local_site SET name = 'test';"
                      "UPDATE host SET name = 'h" +
                          std::to_string(i) + "';"});
    children.push_back(binaries::Start({"archive", "-q", store, repo}));
  }
  for (const pid_t child : children) EXPECT_EQ(binaries::Wait(child), 0);
  EXPECT_EQ(Git(repo, {"rev-list", "--count", "test"}).out, "9\n");
  EXPECT_EQ(Git(repo, {"fsck", "--strict"}).status, 0);
}

TEST(ArchiveKilled, LeavesASoundRepository) {
  const std::string repo = Fresh("history-killed"),
                    store = OutputPath("history-killed.db");
  MakeStore(store, {kFull, test_support::Projects(5000, "p")});
  ASSERT_EQ(Doc({"archive", "-q", store, repo}).status, 0);
  for (const int ms : {5, 25, 50, 80, 100, 115}) {
    SCOPED_TRACE(ms);
    MakeStore(store, {kFull, test_support::Projects(5000, "p"),
                      "UPDATE project SET name = name || '" +
                          std::to_string(ms) + "';"});
    const pid_t child = binaries::Start({"archive", "-q", store, repo});
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    ::kill(child, SIGKILL);
    binaries::Wait(child);
    EXPECT_EQ(Git(repo, {"fsck", "--strict"}).status, 0);
    // The next archive works, and its revision is the store's archive.
    ASSERT_EQ(Doc({"archive", "-q", store, repo}).status, 0);
    EXPECT_TRUE(Git(repo, {"show", "HOME:admin.xml"}).out ==
                binaries::Export(store, OutputPath("history-killed.xml")));
  }
}

}  // namespace
