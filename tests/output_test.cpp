// Tests of what an output replaces, through the built binaries.
//
// Plan:
//   Targets  every output of every command (export's archive, the OUT of
//            xml, json and report, -o of diff and apply, apply's log) over
//            every kind of target (a new file, a 0600 file of other text,
//            a symbolic link, a link to nothing, a FIFO, a directory, a
//            store, the command's input, a journal of it): the exit status,
//            the message, and what became of the target, the store and the
//            input (their bytes, the mode, the link); an export cut short;
//            character devices
//   Stdout   "-" for every input, read in the exporter's layout or as XML,
//            and a standard output that cannot be written
//   Limits   every output on a full disk tells the errno, leaves nothing
//            and changes no store; a file-size limit removes the partial
//            file; a temporary
//            directory that cannot be written is named, not the store
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <regex>
#include <thread>

#include "binaries.h"
#include "test_support.h"

using binaries::Doc;
using binaries::Export;
using test_support::DataPath;
using test_support::ListDirectory;
using test_support::MakeStore;
using test_support::OutputPath;
using test_support::ReadFile;
using test_support::RunResult;
using test_support::WriteFile;

namespace {

// The mode bits of path (its link followed), or -1.
int ModeOf(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777)
                                        : -1;
}

bool IsLink(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

// No name in the output directory holds part.
void NothingLeftBehind(const std::string& part) {
  for (const std::string& name : ListDirectory(OutputPath("")))
    EXPECT_EQ(name.find(part), std::string::npos) << name;
}

class Targets : public ::testing::Test {
 protected:
  void SetUp() override {
    ::umask(022);
    demo = OutputPath("targets-demo.xml");
    store = OutputPath("targets-demo.db");
    Export("", demo);
    std::remove(store.c_str());
    ASSERT_EQ(Doc({"load", demo, store}).status, 0);
  }
  std::string demo, store;
};

// Every output of every command, over every kind of target: one rule
// for all of them. The outputs are rows, the targets columns; what differs
// between outputs (an archive replaces only an archive and only a regular
// file, a log is appended to) is said by the output's kind.
TEST_F(Targets, EveryOutputOverEveryKindOfTarget) {
  enum Kind { kReplaced, kArchive, kAppended };
  // "@" stands for the target, "%" for the input that a target may be.
  const struct {
    const char* name;
    std::vector<std::string> args;
    bool storeIsInput;  // "%" is the store, else the changed document
    Kind kind;
    int status;  // when written
  } outputs[] = {
      {"export", {"export", "-q", "%", "@"}, true, kArchive, 0},
      {"xml", {"xml", "%", "@"}, false, kReplaced, 0},
      {"json", {"json", "%", "@"}, false, kReplaced, 0},
      {"report", {"report", "%", "@"}, false, kReplaced, 0},
      {"diff -o", {"diff", "-o", "@", "=demo", "%"}, false, kReplaced, 1},
      {"a dry run's -o",
       {"apply", "--dry-run", "-o", "@", "%", "=store"},
       false,
       kReplaced,
       1},
      {"apply -o",
       {"apply", "-q", "--format", "json", "-o", "@", "--log", "=log", "%",
        "=store"},
       false,
       kReplaced,
       0},
      {"apply --log", {"apply", "-q", "--log", "@", "%", "=store"}, false,
       kAppended, 0},
  };
  const std::string target = OutputPath("target"),
                    linked = OutputPath("target-linked"),
                    input = OutputPath("target-input"),
                    log = OutputPath("target-log");
  const std::string other = "a note of the administrator's\n";
  const std::string storeBytes = ReadFile(store);
  std::string changed = ReadFile(demo);
  changed.replace(changed.find("Name=\"ares\""), 11, "Name=\"zeus\"");
  const std::string changedFile = OutputPath("targets-changed.xml");
  WriteFile(changedFile, changed);
  enum Outcome { kWritten, kRefused, kWrittenUnlessArchive };
  // The targets, each with how it is made, what becomes of it and the
  // reason of a refusal (a pattern).
  const struct {
    const char* name;
    std::function<void(const std::string& inputBytes)> make;
    Outcome outcome;
    int mode;  // of the file written, or kept
    std::string why;
    bool isInput = false;  // "%" is the target, or the file it is a journal of
  } targets[] = {
      {"a new file", [](const std::string&) {}, kWritten, 0644, ""},
      {"a 0600 file of other text",
       [&](const std::string&) {
         WriteFile(target, other);
         ::chmod(target.c_str(), 0600);
       },
       kWrittenUnlessArchive, 0600,
       "it is not a document of this tool, which alone it replaces"},
      {"a link to a 0640 file",
       [&](const std::string&) {
         WriteFile(linked, "");
         ::chmod(linked.c_str(), 0640);
         ::symlink(linked.c_str(), target.c_str());
       },
       kWritten, 0640, ""},
      {"a link to nothing",
       [&](const std::string&) { ::symlink(linked.c_str(), target.c_str()); },
       kWritten, 0644, ""},
      {"a FIFO",
       [&](const std::string&) { ::mkfifo(target.c_str(), 0600); },
       kWrittenUnlessArchive, 0600, "not a regular file"},
      {"a directory",
       [&](const std::string&) { ::mkdir(target.c_str(), 0755); }, kRefused,
       0755, ": Is a directory"},
      {"a store",
       [&](const std::string&) {
         WriteFile(target, storeBytes);
         ::chmod(target.c_str(), 0644);
       },
       kRefused, 0644, ": it is an SQLite store"},
      {"the command's input",
       [&](const std::string& bytes) {
         WriteFile(target, bytes);
         ::chmod(target.c_str(), 0644);
       },
       kRefused, 0644,
       ": it is .*target, a file of the command itself|: it is the store or a "
       "file of the store|: it is an SQLite store",
       true},
      {"a journal of the command's input",
       [&](const std::string& bytes) {
         WriteFile(input, bytes);
         WriteFile(target, other);
         ::chmod(target.c_str(), 0644);
       },
       kRefused, 0644,
       ": it is a journal of .*target-input, a file of the command itself|: "
       "it is the store or a file of the store",
       true},
  };
  for (const auto& o : outputs)
    for (const auto& t : targets) {
      SCOPED_TRACE(std::string(o.name) + " over " + t.name);
      for (const std::string& path : {target, linked, input, log})
        std::remove(path.c_str());
      ::rmdir(target.c_str());
      WriteFile(store, storeBytes);
      const bool journal = std::string(t.name).find("journal") !=
                           std::string::npos;
      const std::string inputFile =
          !t.isInput ? (o.storeIsInput ? store : changedFile)
          : journal  ? input
                     : target;
      t.make(o.storeIsInput ? storeBytes : changed);
      if (journal) ::rename(target.c_str(), (input + "-journal").c_str());
      const std::string at = journal ? input + "-journal" : target;
      std::vector<std::string> args = o.args;
      for (std::string& a : args)
        a = a == "@"       ? at
            : a == "%"     ? inputFile
            : a == "=demo" ? demo
            : a == "=store" ? store
            : a == "=log"   ? log
                            : a;
      struct stat st {};
      const bool exists = ::lstat(at.c_str(), &st) == 0;
      const bool regular = exists && S_ISREG(st.st_mode);
      const std::string before = regular ? ReadFile(at) : "";
      const bool wasLink = IsLink(at);
      const bool written =
          t.outcome == kWritten ||
          (t.outcome == kWrittenUnlessArchive && o.kind == kReplaced) ||
          (t.outcome == kWrittenUnlessArchive && o.kind == kAppended &&
           regular);
      // A FIFO is read while it is written.
      std::thread reader;
      std::string read;
      std::atomic<bool> readerDone{false};
      if (exists && S_ISFIFO(st.st_mode))
        reader = std::thread([&] {
          read = ReadFile(at);
          readerDone = true;
        });
      const RunResult run = Doc(args);
      if (reader.joinable()) {
        // A reader still waiting for a writer is let go.
        while (!readerDone) {
          const int fd = ::open(at.c_str(), O_WRONLY | O_NONBLOCK);
          if (fd >= 0) ::close(fd);
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        reader.join();
      }
      EXPECT_EQ(IsLink(at), wasLink);
      EXPECT_EQ(ModeOf(at), t.mode);
      const bool fifo = exists && S_ISFIFO(st.st_mode);
      const std::string now = fifo ? read : ReadFile(at);
      if (!written) {
        EXPECT_EQ(run.status, 2) << run.err;
        EXPECT_TRUE(std::regex_search(
            run.err, std::regex("^vantrel-doc: cannot (write|export) .*(" +
                                t.why + ")")))
            << run.err;
        // Nothing written: not the target, nor the store, nor the input.
        if (regular) {
          EXPECT_TRUE(now == before);
        }
        if (fifo) {
          EXPECT_EQ(read, "");
        }
        EXPECT_TRUE(ReadFile(store) == storeBytes);
        EXPECT_TRUE(ReadFile(changedFile) == changed);
        EXPECT_FALSE(test_support::FileExists(log));
        continue;
      }
      EXPECT_EQ(run.status, o.status) << run.err;
      EXPECT_EQ(run.err, "");
      if (o.kind == kAppended) {
        // The log keeps what it held, and ends with this apply's line.
        EXPECT_EQ(now.compare(0, before.size(), before), 0);
        EXPECT_NE(now.find("\"outcome\":\"applied\"", before.size()),
                  std::string::npos)
            << now;
      } else {
        EXPECT_NE(now, before);
        EXPECT_FALSE(now.empty());
      }
      NothingLeftBehind(".partial-");
    }
  for (const std::string& path :
       {target, linked, input, input + "-journal", log, changedFile})
    std::remove(path.c_str());
  ::rmdir(target.c_str());
}

// What only an archive or a report meets: an export cut short is
// replaced, and a refused document writes no report.
TEST_F(Targets, AnExportCutShortAndARefusedReport) {
  const std::string target = OutputPath("target"),
                    bad = OutputPath("targets-bad.xml");
  WriteFile(bad, ReadFile(demo).substr(0, 200));
  const std::string cut =
      "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<!DOCTYPE "
      "AdminObjects SYSTEM \"KivAdmin.dtd\" >\n<Admin";
  WriteFile(target, cut);
  ::chmod(target.c_str(), 0640);
  RunResult run = Doc({"export", "-q", store, target});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(ModeOf(target), 0640);
  EXPECT_NE(ReadFile(target).find("x0401"), std::string::npos);
  run = Doc({"report", bad, target});
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(std::regex_search(run.err,
                                std::regex("is refused: no report was made\n$")))
      << run.err;
  EXPECT_NE(ReadFile(target).find("x0401"), std::string::npos);
  std::remove(target.c_str());
  std::remove(bad.c_str());
}

TEST_F(Targets, DevicesAreWrittenIntoAndStay) {
  for (const char* command : {"xml", "json", "report"}) {
    SCOPED_TRACE(command);
    RunResult run = Doc({command, demo, "/dev/null"});
    EXPECT_EQ(run.status, 0) << run.err;
    struct stat st {};
    ASSERT_EQ(::stat("/dev/null", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    run = Doc({command, demo, "/dev/full"});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err,
              "vantrel-doc: cannot write /dev/full: No space left on device\n");
  }
}

// Standard output, whatever the input: the twin read back as XML, piped
// again, gives the same JSON; a standard output that cannot be written is
// said so, under its own name.
TEST_F(Targets, StandardOutputForEveryInput) {
  const std::string twin = OutputPath("targets-twin.xml");
  ASSERT_EQ(Doc({"xml", demo, twin}).status, 0);
  const RunResult fromDoc = Doc({"json", demo, "-"});
  const RunResult fromTwin = Doc({"json", twin, "-"});
  EXPECT_EQ(fromTwin.status, 0) << fromTwin.err;
  EXPECT_EQ(fromTwin.err, "");
  // Only the name of the document differs.
  EXPECT_EQ(std::regex_replace(fromTwin.out, std::regex("targets-twin"),
                               "targets-demo"),
            fromDoc.out);
  const RunResult again = Doc({"xml", twin, "-"});
  EXPECT_EQ(again.status, 0) << again.err;
  EXPECT_TRUE(again.out == ReadFile(twin));
  for (const char* command : {"xml", "json", "report"}) {
    const RunResult full = test_support::Run(
        "/bin/sh",
        {"-c", std::string("exec \"$0\" ") + command + " \"$1\" - >/dev/full",
         VANTREL_DOC_BINARY, demo},
        {});
    EXPECT_EQ(full.status, 2) << command;
    EXPECT_EQ(full.err,
              "vantrel-doc: cannot write standard output: No space left on device\n");
  }
}

// Every output on a full disk (a small file system of its own, in a mount
// namespace of the test's, where the machine allows one): the errno is
// told, nothing is left there, and the store is as it was.
TEST_F(Targets, AFullDiskIsToldAndLosesNothing) {
  const std::string full = OutputPath("full"), at = full + "/out";
  ::mkdir(full.c_str(), 0755);
  std::string changed = ReadFile(demo);
  changed.replace(changed.find("Name=\"ares\""), 11, "Name=\"zeus\"");
  const std::string changedFile = OutputPath("targets-full.xml");
  WriteFile(changedFile, changed);
  const std::string storeBytes = ReadFile(store);
  const std::vector<std::vector<std::string>> outputs = {
      {"export", store, at},
      {"xml", demo, at},
      {"json", demo, at},
      {"report", demo, at},
      {"diff", "-o", at, demo, changedFile},
      {"apply", "--dry-run", "-o", at, changedFile, store},
      {"apply", "--format", "json", "-o", at, changedFile, store},
      {"apply", "--log", at, changedFile, store},
  };
  for (const std::vector<std::string>& o : outputs) {
    SCOPED_TRACE(o[0] + " " + o[1]);
    std::vector<std::string> args = {
        "-rm", "/bin/sh", "-c",
        "mount -t tmpfs -o size=64k none \"$0\" || exit 99\n"
        "dd if=/dev/zero of=\"$0\"/filler bs=1k count=64 2>/dev/null\n"
        "\"$@\" >/dev/null; rc=$?\n"
        "ls -A \"$0\"; find \"$0\" -name out -size +0 >&2; exit $rc",
        full, VANTREL_DOC_BINARY};
    args.insert(args.end(), o.begin(), o.end());
    const RunResult run =
        test_support::Run("/usr/bin/unshare", args, {{"KIV_ADMIN_STORE", std::nullopt}});
    if (run.status == 99 || run.status == 1)
      GTEST_SKIP() << "no file system of the test's own here: " << run.err;
    EXPECT_EQ(run.status, 2) << run.err;
    EXPECT_NE(run.err.find(": No space left on device"), std::string::npos)
        << run.err;
    // A log is made before the apply, and stays, empty: another apply may
    // wait on it already.
    EXPECT_EQ(run.out, o[1] == "--log" ? "filler\nout\n" : "filler\n");
    EXPECT_TRUE(ReadFile(store) == storeBytes);
  }
  std::remove(changedFile.c_str());
  ::rmdir(full.c_str());
}

TEST_F(Targets, AFileSizeLimitRemovesThePartialFile) {
  const std::string target = OutputPath("targets-limited.xml");
  std::remove(target.c_str());
  const RunResult run =
      test_support::Run("/bin/sh",
                        {"-c", "ulimit -f 1; exec \"$0\" xml \"$1\" \"$2\"",
                         VANTREL_DOC_BINARY, demo, target},
                        {});
  EXPECT_TRUE(run.status == -1 || run.status == 128 + SIGXFSZ) << run.status;
  EXPECT_FALSE(test_support::FileExists(target));
  NothingLeftBehind("targets-limited.xml.partial-");
}

TEST_F(Targets, ATemporaryDirectoryThatCannotBeWrittenIsNamed) {
  const RunResult run =
      test_support::Run(VANTREL_DOC_BINARY, {"json", demo, "-"},
                        {{"TMPDIR", OutputPath("no/such/tmp")},
                         {"KIV_ADMIN_STORE", std::nullopt}});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err,
            "vantrel-doc: cannot write standard output: cannot create a "
            "file in the temporary directory " +
                OutputPath("no/such/tmp") + ": No such file or directory\n");
  // Standard input is copied there to be read twice.
  const RunResult piped = test_support::Run(
      "/bin/sh",
      {"-c", "exec \"$0\" check - <\"$1\"", VANTREL_DOC_BINARY, demo},
      {{"TMPDIR", OutputPath("no/such/tmp")}});
  EXPECT_EQ(piped.status, 2);
  EXPECT_EQ(piped.err,
            "vantrel-doc: <stdin>: cannot be copied to the "
            "temporary directory " +
                OutputPath("no/such/tmp") + ": No such file or directory\n");
}

// A file name that is not UTF-8 reaches messages and JSON escaped, so that
// both stay valid UTF-8.
TEST_F(Targets, ANameThatIsNotUtf8IsEscaped) {
  const std::string latin = OutputPath("caf\xE9.xml");
  WriteFile(latin, ReadFile(demo));
  const RunResult json = Doc({"json", latin, "-"});
  EXPECT_EQ(json.status, 0) << json.err;
  EXPECT_NE(json.out.find("caf\\\\xE9.xml\""), std::string::npos);
  EXPECT_EQ(json.out.find('\xE9'), std::string::npos);
  WriteFile(latin, ReadFile(demo).substr(0, 100));
  const RunResult check = Doc({"check", latin});
  EXPECT_EQ(check.status, 1);
  EXPECT_NE(check.err.find("caf\\xE9.xml:"), std::string::npos) << check.err;
  EXPECT_EQ(check.err.find('\xE9'), std::string::npos);
  // Values XML cannot carry, which the exporter writes as a store holds
  // them: the report shows them as messages do.
  std::string odd = ReadFile(demo);
  odd.replace(odd.find("Name=\"ares\""), 11, "Name=\"a\x01r\xFF\"");
  WriteFile(latin, odd);
  const std::string page = OutputPath("targets-odd.html");
  const RunResult report = Doc({"report", latin, page});
  EXPECT_EQ(report.status, 0) << report.err;
  EXPECT_NE(ReadFile(page).find("a\\x01r\\xFF"), std::string::npos);
  std::remove(page.c_str());
  std::remove(latin.c_str());
}

// A value longer than an XML parser holds by default is reported, its
// label in the picture shortened.
TEST_F(Targets, AReportOfAVeryLongValue) {
  std::string text = ReadFile(demo);
  const std::string name = "Name=\"ares\"";
  text.replace(text.find(name), name.size(),
               "Name=\"" + std::string(12 << 20, 'a') + "\"");
  const std::string file = OutputPath("targets-long.xml"),
                    page = OutputPath("targets-long.html");
  WriteFile(file, text);
  const RunResult run = Doc({"report", file, page});
  EXPECT_EQ(run.status, 0) << run.err.substr(0, 500);
  EXPECT_EQ(run.err, "");
  EXPECT_NE(ReadFile(page).find(std::string(60, 'a') + "..."),
            std::string::npos);
  std::remove(file.c_str());
  std::remove(page.c_str());
}

}  // namespace
