// core/stop.h: the wish that all work ends at once. Whatever takes long asks for it, down to single rays:
// what then comes back is unfinished, and its caller drops it. Nothing here but the flag: who may set it, and
// what is kept of the work, is said where the work is started.

#pragma once

#include <atomic>

namespace zp {

// Signal handlers may set it, and observers of a frame. Cleared by who starts work, never while work runs.
inline std::atomic<bool> stopRequested = false;
static_assert(std::atomic<bool>::is_always_lock_free);

// One plain load: cheap enough to be asked for every ray.
inline bool Stopping() { return stopRequested.load(std::memory_order_relaxed); }

}  // namespace zp
