// Tests of the support classes.
//
// Plan:
//   Identifier  hexadecimal rendering of identifiers, table driven
//   Text        copies of short and long texts, onto themselves too
//   List        1-based indexing, appending past the list's own room, an
//               index out of range
//   Trace       silent by default, enabled by LUM_TRACE, nesting, file output
//   FatalError  the report line, a returning handler, the default exit
#include <cstdlib>

#include "Lum.h"
#include "LumKivTrace.h"
#include "test_support.h"

using test_support::CaptureStderr;

namespace {

struct HexCase {
  std::string bytes;
  const char* hex;
};

TEST(Identifier, HexaValueIsUpperCaseTwoDigitsPerByte) {
  const HexCase cases[] = {
      {"", ""},
      {std::string(1, '\0'), "00"},
      {"\x0A\x1B", "0A1B"},
      {"\xFF\x01\xab", "FF01AB"},
      {std::string(20, '\x5A'), "5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A"},
  };
  EXPECT_STREQ(LumDbBinary(0).GetHexaValue().ConvertToChar(), "");
  for (const HexCase& c : cases) {
    LumDbBinary oid(0);
    oid.Assign(c.bytes.data(), c.bytes.size());
    EXPECT_STREQ(oid.GetHexaValue().ConvertToChar(), c.hex);
  }
}

// Texts up to 39 bytes are held in the string, longer ones apart.
TEST(Text, CopiesAreWholeWhateverTheirLength) {
  for (const std::string& text :
       {std::string(), std::string("short"), std::string(39, 's'),
        std::string(40, 'l'), std::string(500, 'L')}) {
    LumUnicodeString a(text.c_str()), b("x"), c(std::string(90, 'y').c_str());
    b = a;
    c = a;
    const LumUnicodeString& same = a;
    a = same;
    a = a.ConvertToChar();
    LumUnicodeString moved(std::move(b));
    for (const LumUnicodeString* s : {&a, &c, &moved})
      EXPECT_EQ(s->ConvertToChar(), text);
  }
  EXPECT_STREQ(LumUnicodeString(nullptr).ConvertToChar(), "");
}

int one = 1;

TEST(List, IndexesFromOneInAppendOrder) {
  for (int size : {3, 8, 9, 40}) {
    LumListPtrIUnknown list(size == 40 ? 64 : 0);
    EXPECT_EQ(list.Count(), 0);
    std::vector<int> items(static_cast<std::size_t>(size));
    for (int& item : items) list.Append(&item);
    ASSERT_EQ(list.Count(), size);
    for (int i = 1; i <= size; ++i)
      EXPECT_EQ(list[i], &items[static_cast<std::size_t>(i - 1)]) << size;
    list[2] = nullptr;  // the index gives the stored pointer itself
    EXPECT_EQ(list[2], nullptr);
  }
}

std::string lastFatal;
void RecordFatal(const char* message, const char*, int) { lastFatal = message; }

TEST(List, IndexOutOfRangeIsFatal) {
  LumListPtrIUnknown list(0);
  list.Append(&one);
  CaptureStderr err;
  LumFatalErrorHandler previous = LumSetFatalErrorHandler(RecordFatal);
  for (int index : {0, 2}) {
    lastFatal.clear();
    EXPECT_EQ(list[index], nullptr);
    EXPECT_NE(lastFatal.find("AssertionFailed:"), std::string::npos) << index;
  }
  LumSetFatalErrorHandler(previous);
}

// Writes a step with a nested step to channel.
void WriteSteps(LumKivTrace& channel) {
  LumKivTraceStep outer(channel, "Outer");
  outer.Trace() << "count :[" << 2 << "]"
                << "\n";
  {
    LumKivTraceStep inner(channel, "Inner");
    inner.Trace() << LumKivTrace_returns << 0 << LumKivTrace_nl;
  }
}

TEST(Trace, CapturedLinesAreIndentedByNesting) {
  LumKivTrace channel("TEST", "TEST", "STDOUT", 1024, LumTraMode(0));
  std::string text;
  channel.Capture(&text);
  WriteSteps(channel);
  EXPECT_EQ(text,
            "[TEST] > Outer\n"
            "[TEST]   count :[2]\n"
            "[TEST]   > Inner\n"
            "[TEST]     returns 0\n"
            "[TEST]   < Inner\n"
            "[TEST] < Outer\n");
}

TEST(Trace, EnabledOnlyForTheNamedChannels) {
  const struct {
    const char* setting;
    bool enabled;
  } cases[] = {{nullptr, false}, {"", false},        {"OTHER", false},
               {"TEST", true},   {"A,TEST,B", true}, {"ALL", true},
               {"test", false}};
  for (const auto& c : cases) {
    if (c.setting)
      ::setenv("LUM_TRACE", c.setting, 1);
    else
      ::unsetenv("LUM_TRACE");
    LumKivTrace channel("TEST", "TEST", "STDERR", 1024, LumTraMode(0));
    EXPECT_EQ(channel.IsEnabled(), c.enabled)
        << (c.setting ? c.setting : "unset");
  }
  ::unsetenv("LUM_TRACE");
}

TEST(Trace, FileDestinationIsAppendedTo) {
  const std::string path = test_support::OutputPath("trace.log");
  test_support::WriteFile(path, "earlier\n");
  ::setenv("LUM_TRACE", "TEST", 1);
  {
    LumKivTrace channel("TEST", "TEST", path.c_str(), 1024, LumTraMode(0));
    LumKivTraceStep step(channel, "Step");
  }
  ::unsetenv("LUM_TRACE");
  EXPECT_EQ(test_support::ReadFile(path),
            "earlier\n[TEST] > Step\n[TEST] < Step\n");
}

TEST(FatalError, ReportsOneLineAndReturnsThroughAHandler) {
  CaptureStderr err;
  LumFatalErrorHandler previous = LumSetFatalErrorHandler(RecordFatal);
  LumFatalError("AssertionFailed:pServer", nullptr, nullptr, nullptr, "f.cpp",
                42);
  LumSetFatalErrorHandler(previous);
  EXPECT_EQ(lastFatal, "AssertionFailed:pServer");
  EXPECT_EQ(err.Text(),
            "fatal error: AssertionFailed:pServer file [f.cpp] line [42]\n");
}

TEST(FatalErrorDeathTest, EndsTheProcessByDefault) {
  EXPECT_EXIT(
      LumFatalError("AssertionFailed:0", nullptr, nullptr, nullptr, "f.cpp", 7),
      ::testing::ExitedWithCode(3),
      "fatal error: AssertionFailed:0 file \\[f.cpp\\] line \\[7\\]");
}

}  // namespace
