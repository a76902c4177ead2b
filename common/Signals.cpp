#include "Signals.h"

namespace vantrel {

const int kHeldSignals[5] = {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGXFSZ};

HeldSignals::HeldSignals() {
  sigset_t held;
  sigemptyset(&held);
  for (int signal : kHeldSignals) sigaddset(&held, signal);
  ::sigprocmask(SIG_BLOCK, &held, &saved_);
}

HeldSignals::~HeldSignals() { ::sigprocmask(SIG_SETMASK, &saved_, nullptr); }

}  // namespace vantrel
