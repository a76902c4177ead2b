// Tests of what an output replaces, through the built binaries.
//
// Plan:
//   Targets  each command's output over each kind of target (a new file, a
//            0600 file, a symbolic link, a link to nothing, a FIFO, a
//            character device, a directory, a store, another file): the
//            exit status, the message, and what became of the target (its
//            bytes, its mode, the link, the device)
//   Stdout   "-" for every input, read in the exporter's layout or as XML,
//            and a standard output that cannot be written
//   Limits   a file-size limit removes the partial file; a temporary
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

TEST_F(Targets, EachCommandOverEachKindOfTarget) {
  const std::string target = OutputPath("target"),
                    linked = OutputPath("target-linked");
  const std::string other = "a note of the administrator's\n";
  // What a target is made as before the command runs.
  const auto file = [&](const std::string& bytes, int mode) {
    return [&, bytes, mode] {
      WriteFile(target, bytes);
      ::chmod(target.c_str(), static_cast<mode_t>(mode));
    };
  };
  const auto link = [&] {
    WriteFile(linked, "");
    ::chmod(linked.c_str(), 0640);
    ::symlink(linked.c_str(), target.c_str());
  };
  const auto dangling = [&] { ::symlink(linked.c_str(), target.c_str()); };
  const auto directory = [&] { ::mkdir(target.c_str(), 0755); };
  const auto fifo = [&] { ::mkfifo(target.c_str(), 0600); };
  const std::string storeBytes = ReadFile(store);
  const std::string bad = OutputPath("targets-bad.xml");
  WriteFile(bad, ReadFile(demo).substr(0, 200));
  enum Kept { kWritten, kAsItWas };
  const struct {
    const char* name;
    std::vector<std::string> args;  // the target stands for "@"
    std::function<void()> make;
    int status;
    std::string err;  // a pattern
    Kept kept;
    int mode;  // of the file written, or kept
  } cases[] = {
      {"a new archive",
       {"export", "-q", store, "@"},
       [] {},
       0,
       "",
       kWritten,
       0644},
      {"an archive at 0600 stays so",
       {"export", "-q", store, "@"},
       file("", 0600),
       0,
       "",
       kWritten,
       0600},
      {"an export cut short is replaced",
       {"export", "-q", store, "@"},
       file("<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<!DOCTYPE "
            "AdminObjects SYSTEM \"KivAdmin.dtd\" >\n<Admin",
            0640),
       0,
       "",
       kWritten,
       0640},
      {"a store is refused",
       {"export", store, "@"},
       file(storeBytes, 0644),
       2,
       "it is not a document of this tool, which alone it replaces; .* is as "
       "it was\n",
       kAsItWas,
       0644},
      {"any other file is refused",
       {"export", store, "@"},
       file(other, 0644),
       2,
       "it is not a document of this tool",
       kAsItWas,
       0644},
      {"an archive through a link",
       {"export", "-q", store, "@"},
       link,
       0,
       "",
       kWritten,
       0640},
      {"an archive is not a FIFO",
       {"export", store, "@"},
       fifo,
       2,
       ": not a regular file; ",
       kAsItWas,
       0600},
      {"xml into a FIFO", {"xml", demo, "@"}, fifo, 0, "", kAsItWas, 0600},
      {"nor a directory",
       {"export", store, "@"},
       directory,
       2,
       ": Is a directory; ",
       kAsItWas,
       0755},
      {"xml over a 0600 file",
       {"xml", demo, "@"},
       file(other, 0600),
       0,
       "",
       kWritten,
       0600},
      {"xml through a link to nothing",
       {"xml", demo, "@"},
       dangling,
       0,
       "",
       kWritten,
       0644},
      {"xml into a directory",
       {"xml", demo, "@"},
       directory,
       2,
       "^vantrel-doc: cannot write .*target: Is a directory\n$",
       kAsItWas,
       0755},
      {"json through a link", {"json", demo, "@"}, link, 0, "", kWritten, 0640},
      {"report over a 0640 file",
       {"report", demo, "@"},
       file(other, 0640),
       0,
       "",
       kWritten,
       0640},
      {"a refused document writes no report",
       {"report", bad, "@"},
       file(other, 0644),
       1,
       "is refused: no report was made\n$",
       kAsItWas,
       0644},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::remove(target.c_str());
    ::rmdir(target.c_str());
    std::remove(linked.c_str());
    c.make();
    struct stat st {};
    const bool regular =
        ::lstat(target.c_str(), &st) == 0 && S_ISREG(st.st_mode);
    const std::string before = regular ? ReadFile(target) : "";
    const bool wasLink = IsLink(target);
    std::vector<std::string> args = c.args;
    for (std::string& a : args)
      if (a == "@") a = target;
    // A FIFO is read while it is written.
    std::thread reader;
    std::string read;
    std::atomic<bool> readerDone{false};
    if (S_ISFIFO(st.st_mode))
      reader = std::thread([&] {
        read = ReadFile(target);
        readerDone = true;
      });
    const RunResult run = Doc(args);
    if (reader.joinable()) {
      // A reader still waiting for a writer is let go.
      while (!readerDone) {
        const int fd = ::open(target.c_str(), O_WRONLY | O_NONBLOCK);
        if (fd >= 0) ::close(fd);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      reader.join();
    }
    EXPECT_EQ(run.status, c.status) << run.err;
    if (c.err.empty())
      EXPECT_EQ(run.err, "");
    else
      EXPECT_TRUE(std::regex_search(run.err, std::regex(c.err))) << run.err;
    EXPECT_EQ(IsLink(target), wasLink);
    EXPECT_EQ(ModeOf(target), c.mode);
    struct stat now {};
    ASSERT_EQ(::stat(target.c_str(), &now), 0);
    if (c.kept == kAsItWas && c.status != 0 && S_ISREG(now.st_mode)) {
      EXPECT_TRUE(ReadFile(target) == before);
    }
    if (c.kept == kWritten || (S_ISFIFO(now.st_mode) && c.status == 0)) {
      const std::string written =
          S_ISFIFO(now.st_mode) ? read : ReadFile(target);
      EXPECT_NE(written.find("x0401"), std::string::npos);
      if (args[0] == "json") {
        EXPECT_EQ(written.back(), '\n');
      }
    }
    NothingLeftBehind(".partial-");
  }
  std::remove(target.c_str());
  ::rmdir(target.c_str());
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
              "vantrel-doc: cannot write <stdout>: No space left on device\n");
  }
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
            "vantrel-doc: cannot write <stdout>: cannot create a "
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
