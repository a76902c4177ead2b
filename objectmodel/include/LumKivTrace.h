// Trace channels, trace steps and the fatal-error report.
#pragma once

#include <iosfwd>
#include <memory>
#include <string>

enum LumTraMode : int { LumTraModeStandard = 0 };

// A named trace channel. It is silent unless the environment variable
// LUM_TRACE names it (a comma-separated list of channel names, or ALL) when it
// is constructed. Its destination is "STDOUT", "STDERR" or a file appended to.
//
// Each line reads "[NAME] " followed by two blanks per open step and the
// text; a step writes "> Step" when it opens and "< Step" when it closes.
class LumKivTrace {
 public:
  LumKivTrace(const char* name, const char* label, const char* destination,
              int bufferSize, LumTraMode mode);
  ~LumKivTrace();
  LumKivTrace(const LumKivTrace&) = delete;
  LumKivTrace& operator=(const LumKivTrace&) = delete;

  // Writes text; a "\n" in it ends the line.
  // A silent channel returns at once: traces sit on every step of a run.
  LumKivTrace& operator<<(const char* text) {
    return IsEnabled() ? Put(text) : *this;
  }
  LumKivTrace& operator<<(int value) {
    return IsEnabled() ? Put(value) : *this;
  }

  bool IsEnabled() const { return capture_ != nullptr || sink_ != nullptr; }
  // Sends the channel's lines to *sink (enabling it) until called with null,
  // which restores the destination chosen at construction.
  void Capture(std::string* sink);

  // Opens and closes one level of nesting; used by LumKivTraceStep.
  void Open(const char* step);
  void Close(const char* step);

 private:
  LumKivTrace& Put(const char* text);
  LumKivTrace& Put(int value);
  void Write(const std::string& text);

  std::string name_;
  int depth_ = 0;
  bool atLineStart_ = true;
  std::ostream* sink_ = nullptr;  // null when the channel is silent
  std::unique_ptr<std::ostream> file_;
  std::string* capture_ = nullptr;
};

// A step of a function on a channel: opened when constructed, closed when
// destroyed.
class LumKivTraceStep {
 public:
  LumKivTraceStep(LumKivTrace& channel, const char* name);
  ~LumKivTraceStep();
  LumKivTraceStep(const LumKivTraceStep&) = delete;
  LumKivTraceStep& operator=(const LumKivTraceStep&) = delete;

  // The channel all trace output of the step goes to.
  LumKivTrace& Trace() { return channel_; }

 private:
  LumKivTrace& channel_;
  const char* name_;
};

// The lead-in of a "returns" line and its line end.
extern const char LumKivTrace_returns[];
extern const char LumKivTrace_nl[];

// Reports a fatal error: writes one line to standard error with the message,
// any non-null detail texts, the file and the line, then ends the process
// with status 3 unless a handler is installed, in which case it calls the
// handler and returns when the handler does.
void LumFatalError(const char* message, const char* detail1,
                   const char* detail2, const char* detail3, const char* file,
                   int line);

using LumFatalErrorHandler = void (*)(const char* message, const char* file,
                                      int line);
// Installs handler (null restores the default); returns the previous one.
LumFatalErrorHandler LumSetFatalErrorHandler(LumFatalErrorHandler handler);
