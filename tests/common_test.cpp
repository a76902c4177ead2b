// Tests of the helpers every module shares.
//
// Plan:
//   Hex      bytes to digits and back; odd counts and non-digits refused
//   Escaped  a message's text cut after its limit, never inside a
//            character; appending shows the same as a string of its own
//   Files    the directory a rename changes; a partial file made with its
//            mode or not at all; a copy cut at its limit or at a failed
//            read; syncing a missing file
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "Escape.h"
#include "Files.h"
#include "Hex.h"
#include "test_support.h"

namespace {

TEST(Hex, DigitsAndBack) {
  const struct {
    std::string bytes, digits;
  } cases[] = {
      {"", ""},
      {std::string("\x00\x0A\xFF", 3), "000AFF"},
      {"AZ", "415A"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(vantrel::Hex(c.bytes), c.digits);
    std::string back;
    EXPECT_TRUE(vantrel::Unhex(c.digits, &back));
    EXPECT_EQ(back, c.bytes);
  }
  std::string bytes;
  EXPECT_TRUE(vantrel::Unhex("0aff", &bytes));
  EXPECT_EQ(bytes, "\x0A\xFF");
  for (const char* bad : {"0", "0G", "G0", "0A1", " 0A", "0x"})
    EXPECT_FALSE(vantrel::Unhex(bad, &bytes)) << bad;
}

TEST(Escaped, CutAfterTheLimitNeverInsideACharacter) {
  const struct {
    const char* text;
    std::size_t max;
    const char* shown;
  } cases[] = {
      {"abcdef", 3, "abc..."},
      {"abc", 3, "abc"},
      {"ab\"cd", 3, "ab\\x22..."},
      {"ab\xC3\xA9xy", 3, "ab\xC3\xA9..."},
      {"\x01\x02\x03", 4, "\\x01..."},
      {"", 0, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(vantrel::Escaped(c.text, c.max), c.shown);
  }
  std::string appended = "<";
  vantrel::AppendEscaped(appended, "a\x7F\\b\xE2\x82\xAC\xFF");
  EXPECT_EQ(appended, "<" + vantrel::Escaped("a\x7F\\b\xE2\x82\xAC\xFF"));
  EXPECT_EQ(appended, "<a\\x7F\\x5Cb\xE2\x82\xAC\\xFF");
}

TEST(Files, DirectoriesPartialFilesCopiesAndSyncs) {
  const struct {
    const char* path;
    const char* directory;
  } directories[] = {
      {"name", "."}, {"/name", "/"}, {"a/b/name", "a/b"}, {"/a/name", "/a"}};
  for (const auto& d : directories)
    EXPECT_EQ(vantrel::DirectoryOf(d.path), d.directory) << d.path;

  const std::string dir = test_support::OutputPath("");
  std::string made;
  ASSERT_EQ(
      vantrel::MakePartialFile(dir + "/part-XXXXXX", 0640, nullptr, &made), 0);
  struct stat st {};
  ASSERT_EQ(::stat(made.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  EXPECT_EQ(st.st_size, 0);
  EXPECT_EQ(made.find("XXXXXX"), std::string::npos);
  std::string missing = "unchanged";
  EXPECT_EQ(vantrel::MakePartialFile(dir + "/no-such-dir/part-XXXXXX", 0640,
                                     nullptr, &missing),
            ENOENT);
  EXPECT_EQ(missing, "unchanged");

  test_support::WriteFile(made, std::string(100000, 'v'));
  const struct {
    std::uint64_t limit;
    vantrel::Copied copied;
    int error;  // errno when not whole
  } copies[] = {
      {100000, vantrel::Copied::kWhole, 0},
      {99999, vantrel::Copied::kTooLarge, EFBIG},
  };
  for (const auto& c : copies) {
    SCOPED_TRACE(c.limit);
    const int from = ::open(made.c_str(), O_RDONLY);
    const int to = ::open("/dev/null", O_WRONLY);
    errno = 0;
    EXPECT_EQ(vantrel::CopyFile(from, to, c.limit), c.copied);
    if (c.error) {
      EXPECT_EQ(errno, c.error);
    }
    ::close(from);
    ::close(to);
  }
  const int to = ::open("/dev/null", O_WRONLY);
  EXPECT_EQ(vantrel::CopyFile(-1, to), vantrel::Copied::kReadFailed);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(vantrel::CopyFile(::open(made.c_str(), O_RDONLY), -1),
            vantrel::Copied::kWriteFailed);
  ::close(to);

  EXPECT_TRUE(vantrel::Sync(made));
  EXPECT_TRUE(vantrel::Sync(dir));
  errno = 0;
  EXPECT_FALSE(vantrel::Sync(dir + "/no-such-file"));
  EXPECT_EQ(errno, ENOENT);
  ::unlink(made.c_str());
}

}  // namespace
