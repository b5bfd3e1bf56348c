// frame/host_signals.h: how a host's own signals end what the library does for it.

#pragma once

namespace zp {

// While it lives, a signal to interrupt, to terminate or to hang up for which the host has a handler of its
// own also requests a stop (core/stop.h); the host's handler runs as ever. What the host ignores stays
// ignored, and what it has no handler for ends the process as ever. Clears an earlier request. One at a time.
class HostSignals {
 public:
  HostSignals();
  ~HostSignals();
  HostSignals(const HostSignals&) = delete;
  HostSignals& operator=(const HostSignals&) = delete;
};

}  // namespace zp
