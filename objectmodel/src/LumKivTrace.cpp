#include "LumKivTrace.h"

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>

const char LumKivTrace_returns[] = "returns ";
const char LumKivTrace_nl[] = "\n";

namespace {

// True when the comma-separated list names channel, or is "ALL".
bool Names(const char* list, const std::string& channel) {
  if (!list) return false;
  std::stringstream items(list);
  std::string item;
  while (std::getline(items, item, ','))
    if (item == "ALL" || item == channel) return true;
  return false;
}

LumFatalErrorHandler fatalErrorHandler = nullptr;

}  // namespace

LumKivTrace::LumKivTrace(const char* name, const char* /*label*/,
                         const char* destination, int /*bufferSize*/,
                         LumTraMode /*mode*/)
    : name_(name) {
  if (!Names(std::getenv("LUM_TRACE"), name_)) return;
  const std::string where = destination ? destination : "STDOUT";
  if (where == "STDOUT") {
    sink_ = &std::cout;
  } else if (where == "STDERR") {
    sink_ = &std::cerr;
  } else {
    file_ = std::make_unique<std::ofstream>(where, std::ios::app);
    sink_ = file_.get();
  }
}

LumKivTrace::~LumKivTrace() {
  if (sink_) sink_->flush();
}

void LumKivTrace::Capture(std::string* sink) {
  capture_ = sink;
  depth_ = 0;
  atLineStart_ = true;
}

void LumKivTrace::Write(const std::string& text) {
  if (capture_)
    *capture_ += text;
  else
    *sink_ << text;
}

LumKivTrace& LumKivTrace::Put(const char* text) {
  if (!text) return *this;
  // Cut the text at its line ends so that every line gets its lead-in.
  for (const char* p = text; *p;) {
    if (atLineStart_) {
      Write("[" + name_ + "] " + std::string(2 * depth_, ' '));
      atLineStart_ = false;
    }
    const char* end = p;
    while (*end && *end != '\n') ++end;
    if (*end == '\n') {
      Write(std::string(p, end + 1));
      atLineStart_ = true;
      p = end + 1;
    } else {
      Write(std::string(p, end));
      p = end;
    }
  }
  return *this;
}

LumKivTrace& LumKivTrace::Put(int value) {
  return Put(std::to_string(value).c_str());
}

void LumKivTrace::Open(const char* step) {
  *this << "> " << step << "\n";
  ++depth_;
}

void LumKivTrace::Close(const char* step) {
  if (depth_ > 0) --depth_;
  if (!atLineStart_) *this << "\n";
  *this << "< " << step << "\n";
}

LumKivTraceStep::LumKivTraceStep(LumKivTrace& channel, const char* name)
    : channel_(channel), name_(name) {
  channel_.Open(name_);
}

LumKivTraceStep::~LumKivTraceStep() { channel_.Close(name_); }

void LumFatalError(const char* message, const char* detail1,
                   const char* detail2, const char* detail3, const char* file,
                   int line) {
  std::cerr << "fatal error: " << (message ? message : "");
  for (const char* detail : {detail1, detail2, detail3})
    if (detail) std::cerr << " " << detail;
  std::cerr << " file [" << (file ? file : "") << "] line [" << line << "]"
            << std::endl;
  if (fatalErrorHandler) {
    fatalErrorHandler(message, file, line);
    return;
  }
  std::cout.flush();
  std::_Exit(3);
}

LumFatalErrorHandler LumSetFatalErrorHandler(LumFatalErrorHandler handler) {
  LumFatalErrorHandler previous = fatalErrorHandler;
  fatalErrorHandler = handler;
  return previous;
}
