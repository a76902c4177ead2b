// The signals that end a command while it writes: held where an outcome
// must be said whole, and caught where a partial file must be removed.
#pragma once

#include <signal.h>

namespace vantrel {

// SIGINT, SIGTERM, SIGHUP, SIGPIPE and SIGXFSZ (a file-size limit).
extern const int kHeldSignals[5];

// Holds the signals of kHeldSignals while it lives: they are delivered
// when it ends, so that what is done between (a partial file made and
// registered, a commit and the line that says it) is never cut in two.
class HeldSignals {
 public:
  HeldSignals();
  ~HeldSignals();
  HeldSignals(const HeldSignals&) = delete;
  HeldSignals& operator=(const HeldSignals&) = delete;

 private:
  sigset_t saved_;
};

}  // namespace vantrel
