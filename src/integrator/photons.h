// integrator/photons.h: photons leave their lights once, before the first pass. They paint the cells of the
// density estimator, fill the store of caustic photons, and draw light paths into AOVs that ask for them.

#pragma once

namespace zp {

// Casts the photons of all lights, in the order parallel, point, geometry and sky light, and prints their
// rows. The store is left unbuilt.
void CastPhotons();

}  // namespace zp
