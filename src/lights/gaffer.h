// lights/gaffer.h: what the Gaffer's sources share, private to this folder.

#pragma once

#include "lights/lights.h"

namespace zp {

// Share of the light that leaves in a unit direction: 1 inside the inner angle, 0 outside the outer one,
// linear in the angle between. Equal angles make a sharp edge.
float SpotFactor(const PointLight& light, Vec3 direction);

// Sorts the ready lights into lightGroups and those that stand alone.
void GroupLights();
void ReleaseLightGroups();

}  // namespace zp
