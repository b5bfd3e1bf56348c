// lights/emitters.h: the emitting faces of format 2, ready to be picked. Private to this folder.
//
// Each Object has a light tree over its own virtual lights, of which an Instance is one: inside of it the
// pick goes on in the tree of what it places, with the receiver put into that space. A second tree over all
// faces of an Object serves Instances whose Shader lets them shine. So memory grows by the faces and
// Instances that there are, not by what they unfold to.

#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "accel/accel.h"
#include "geometry/object.h"
#include "lights/light_tree.h"
#include "lights/lights.h"
#include "lights/seen_rectangle.h"

namespace zp {

// A face, or an Instance; in the space of its own Object.
struct Emitter {
  Vec3 corner, edge1, edge2;  // of a face
  Vec3 twist;                 // what a tetragon's fourth corner is off the parallelogram's
  Vec3 normal;                // unit
  float area = 0;             // scene units squared
  std::int32_t part = kNone;  // index in the Object's parts; kNone for an Instance
  std::int32_t shader = kNone;
  std::uint32_t index = 0;         // in the Part's list of that kind, or of the Object's Instances
  std::int32_t rectangle = kNone;  // of a face that is one: its number in the list's rectangles
  std::uint8_t kind = kKindNone;
};

// The Instances around a face, outermost first.
struct InstanceChain {
  std::array<const Instance*, kMostInstanceLevels> instances;
  int count = 0;
};

// The face as it stands in the scene.
struct WorldFace {
  Vec3 corner, edge1, edge2, twist, normal;
  bool tetragon = false;
};
WorldFace InWorld(const Emitter& face, const InstanceChain& chain);
// The same of a rectangle; null where the Instances make it another shape. `placed` may hold the result.
const Rectangle* InWorld(const Rectangle* rectangle, const InstanceChain& chain, Rectangle& placed);
// A point by its barycentric coordinates, the normal there, and by how much area a unit of the square that it
// was drawn from is larger there.
struct PlacedPoint {
  Vec3 position, normal;
  float area;
};
PlacedPoint PlaceOn(const WorldFace& face, Vec3 barycentric);
// Of a point that is uniform by the unit square, per solid angle.
inline float DirectionDensity(float squaredDistance, float cosine, float area) {
  return squaredDistance / (cosine * area);
}

struct FacePick {
  const Emitter* face = nullptr;
  const Rectangle* rectangle = nullptr;  // the face as one, in its own space; null if it is none
  const Part* part = nullptr;
  InstanceChain chain;
  std::int32_t shader = kNone;  // the face's, or that of the Instance that overrides it
  float probability = 0;
  double rest = 0;  // see LightPick
};
// The face under a number in [0, 1), as LightPick has it. False where nothing shines for the receiver.
bool PickFace(const LightReceiver& receiver, double number, FacePick& pick);

// What a side of a Shader sends from virtual lights.
struct ShaderEmission {
  float power = 0;        // mean of the radiance over its pictures and layers, never 0 where it may be more
  bool isPlain = false;   // `radiance` leaves every point in every direction
  bool hasImage = false;  // it differs from point to point
  Vec3 radiance;
};
const ShaderEmission& EmissionOf(std::int32_t shader, bool front);

void BuildEmitters();  // when the accelerator, Shaders and the sky are ready
void ReleaseEmitters();

}  // namespace zp
