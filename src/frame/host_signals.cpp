#include "frame/host_signals.h"

#include <csignal>

#include "core/stop.h"

namespace zp {
namespace {

// Where a handler can read them: it has no argument of ours.
struct Watched {
  int number;
  struct sigaction host = {};
};
Watched watched[] = {{SIGINT}, {SIGTERM}, {SIGHUP}};

void StopAndPassOn(int number, siginfo_t* information, void* context) {
  stopRequested = true;
  for (const Watched& signal : watched) {
    if (signal.number != number) continue;
    if ((signal.host.sa_flags & SA_SIGINFO) != 0)
      signal.host.sa_sigaction(number, information, context);
    else
      signal.host.sa_handler(number);
  }
}

bool IsOurs(const struct sigaction& action) {
  return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == StopAndPassOn;
}

}  // namespace

HostSignals::HostSignals() {
  stopRequested = false;
  for (Watched& signal : watched) {
    struct sigaction action = {};
    if (sigaction(signal.number, nullptr, &action) != 0 || IsOurs(action)) continue;
    const bool hasHandler =
        (action.sa_flags & SA_SIGINFO) != 0 || (action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN);
    if (!hasHandler) continue;
    signal.host = action;
    action.sa_sigaction = StopAndPassOn;
    action.sa_flags |= SA_SIGINFO;
    sigaction(signal.number, &action, nullptr);
  }
}

// A handler that the host has set meanwhile, from another thread or out of its handler, stays.
HostSignals::~HostSignals() {
  for (const Watched& signal : watched) {
    struct sigaction action = {};
    if (sigaction(signal.number, nullptr, &action) == 0 && IsOurs(action))
      sigaction(signal.number, &signal.host, nullptr);
  }
}

}  // namespace zp
