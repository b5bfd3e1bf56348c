#include "stop_signals.h"

#include <semaphore.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <thread>
#include <utility>

#include "commands.h"
#include "core/stop.h"
#include "run_log.h"

namespace zp {
namespace {

std::atomic<const char*> stoppedEarly = "";
std::atomic<bool> nothingToLose = false;
std::atomic<int> secondSignal = 0;
sem_t ending;  // handlers may do little: a thread of its own waits to do the rest

// Loading and initialising end soon after a stop. This is for what never asks, as the decoder of a large
// picture or a disk that does not answer.
void EndWithNothing(int) {
  if (nothingToLose) sem_post(&ending);
}

// The report says how the process has ended.
void AwaitEnd() {
  while (sem_wait(&ending) != 0 && errno == EINTR) continue;
  if (const int signal = secondSignal) {
    Note({TroubleKind::kFatal, "killed", "ended by a second signal: nothing more is written"});
    CloseRunLog(kExitFailed);
    kill(getpid(), signal);
  } else {
    Fail(stoppedEarly.load(), kExitFailed, "stopped");
    _exit(CloseRunLog(kExitFailed));
  }
}

void TakeSignal(int signal) {
  static std::atomic<bool> isSecond = false;  // others than signals may stop a render
  stopRequested = true;
  if (isSecond.exchange(true)) {
    std::signal(signal, SIG_DFL);
    secondSignal = signal;
    sem_post(&ending);
  }
  if (nothingToLose) alarm(1);
}

}  // namespace

void SetNothingToLose(bool nothing, const char* told) {
  stoppedEarly = told;
  nothingToLose = nothing;
}

void StopOnSignals() {
  stopRequested = false;
  static bool isSetUp = false;
  if (std::exchange(isSetUp, true)) return;
  sem_init(&ending, 0, 0);
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &before);
  std::thread(AwaitEnd).detach();
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  struct sigaction action = {};
  action.sa_handler = EndWithNothing;
  sigaction(SIGALRM, &action, nullptr);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    if (sigaction(number, nullptr, &action) != 0 || action.sa_handler == SIG_IGN) continue;
    action.sa_handler = TakeSignal;
    action.sa_flags = static_cast<int>(SA_RESTART);
    sigaction(number, &action, nullptr);
  }
}

}  // namespace zp
