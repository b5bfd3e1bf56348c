// integrator/matte_names.h: what hits are called in mattes; private to this folder.

#pragma once

#include <cstdint>

#include "core/ray.h"

namespace zp {

// Before the threads of a pass that needs ids begin.
void CollectMatteIds();
// Of a hit, before the thread's next Trace; 0: nothing.
std::uint32_t ObjectIdOf(const RayRecord& ray);
std::uint32_t ShaderIdOf(const RayRecord& ray);

}  // namespace zp
