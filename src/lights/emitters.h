// lights/emitters.h: the emitting faces of format 2, ready to be picked. Private to this folder.
//
// Each Object has a light tree over its own virtual lights, of which an Instance is one: inside of it the
// pick goes on in the tree of what it places, with the receiver put into that space. A second tree over all
// faces of an Object serves Instances whose Shader lets them shine. So memory grows by the faces and
// Instances that there are, not by what they unfold to.

#pragma once

#include <array>
#include <cstdint>
#include <tuple>
#include <vector>

#include "accel/accel.h"
#include "core/index.h"
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

struct EmitterList {
  std::vector<Emitter> emitters;  // in the order of KeyOf: Instances last
  std::vector<Rectangle> rectangles;
  LightTree tree;

  const Rectangle* RectangleOf(const Emitter& face) const {
    return face.rectangle == kNone ? nullptr : &At(rectangles, face.rectangle);
  }
};
inline auto KeyOf(std::int32_t part, std::uint8_t kind, std::uint32_t index) {
  return std::tuple(static_cast<std::uint32_t>(part), kind, index);
}
struct ObjectEmitters {
  EmitterList lamps;  // its virtual lights
  EmitterList faces;  // all of its faces, with their area for power
};
extern std::vector<ObjectEmitters> objectEmitters;  // by Object

// What a side of a Shader sends from virtual lights.
struct ShaderEmission {
  float power = 0;        // mean of the radiance over its pictures and layers, never 0 where it may be more
  bool isPlain = false;   // `radiance` leaves every point in every direction
  bool hasImage = false;  // it differs from point to point
  Vec3 radiance;
};
extern std::vector<std::array<ShaderEmission, 2>> shaderEmission;  // by Shader: back, front
inline constexpr ShaderEmission kNoEmission;
inline const ShaderEmission& EmissionOf(std::int32_t shader, bool front) {
  return IsIndex(shaderEmission, shader) ? At(shaderEmission, shader)[front ? 1 : 0] : kNoEmission;
}

// The sceneNumber that all of these are of.
extern std::uint32_t emittersScene;
// A host may have loaded another scene since.
inline bool HasEmitters() {
  return emittersScene == sceneNumber && IsIndex(objectEmitters, rootObject) &&
         objectTable.size() == objectEmitters.size();
}
void BuildEmitters();  // when the accelerator, Shaders and the sky are ready
void ReleaseEmitters();

// A sample of the face under `choice`; `b` and what the choice leaves of its number place it.
bool SampleEmitters(const LightReceiver& receiver, double choice, float b, const Meanwhile& meanwhile,
                    LightSample& sample);
// What leaves the placed point along point.outgoing by one of its layers; black for a layer that samples do
// not serve: paths that run into it count it in full.
Vec3 SampledEmission(const Shader& shader, bool front, ShadingPoint& point);

}  // namespace zp
