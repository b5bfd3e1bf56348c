// app/stop_signals.h: signals that end a render.

#pragma once

namespace zp {

// The first signal ends the work and lets the images be written, a second one ends the process at once. What
// the caller has chosen to ignore, as under nohup, stays ignored.
void StopOnSignals();
// Whether all would be lost anyway: no sample is taken and no file is being written, so that a second after
// the first signal the process ends, whatever it hangs on. `told` is what is said then, kept as long.
void SetNothingToLose(bool nothing, const char* told);

}  // namespace zp
