// lights/light_tree.h: a tree over many lights, out of which one is picked for a point in proportion to what
// it may send there. Private to this folder, but for the point.
//
// Each node has up to eight lights or nodes below it, each with a sphere around it, a cone around what its
// surfaces face, and its power. A walk down the tree takes one of them at each node, by chance, as they
// promise at the point. What can send light there is never left out; that is all that pictures need to be
// right, and the rest, how near the promise comes to the truth, is a matter of noise. Conty Estevez and
// Kulla, "Importance Sampling of Many Lights with Adaptive Tree Splitting", 2018; Yuksel, "Stochastic
// Lightcuts", 2019.
//
// Trees change before a render and between passes only; picks run on any thread and do not fail.

#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "core/box.h"
#include "lights/lights.h"

namespace zp {

// A light, or all those below a node.
struct LightBounds {
  Box box;                    // of where light leaves from
  Vec3 axis = {0, 0, 1};      // unit: the middle of the normals, or of the directions of spots
  float cosine = 1;           // of the widest angle between it and any of them; -1: all directions
  float front = 0, back = 0;  // power by the side of the normal that it leaves to; any unit
  bool spot = false;          // `cosine` bounds the light itself, and not the normals of what shines
  float rim = 0;              // of spots, radians: within which light fades towards that bound
};
// Around both. An empty one joins as nothing.
LightBounds Join(const LightBounds& a, const LightBounds& b);

inline constexpr int kLightLanes = 8;

struct alignas(32) LightNode {
  float center[3][kLightLanes], axis[3][kLightLanes];
  float radius[kLightLanes];
  float lift[kLightLanes];                      // by how much of the distance the cone widens the cosine
  float slope[kLightLanes];                     // how steeply light rises from the cone's rim
  float front[kLightLanes], back[kLightLanes];  // shares of the tree's power; an unused lane has none
  std::uint32_t child[kLightLanes];             // a node, or kLeafLane and a light
};
inline constexpr std::uint32_t kLeafLane = 0x80000000U;

struct LightTree {
  std::vector<LightNode> nodes;        // node 0 is the root; none without a light that has power
  std::vector<std::uint32_t> parents;  // of each node: 8 times the node above it and its lane there
  std::vector<std::uint32_t> places;   // of each light: likewise; kNowhere for one that has no power
  LightBounds whole;                   // with the power of all
};
inline constexpr std::uint32_t kNowhere = 0xFFFFFFFFU;

// The tree over lights by their numbers; those without power are left out.
void BuildLightTree(LightTree& tree, std::span<const LightBounds> lights);
// The same lights after they have moved or changed: the tree keeps its shape. Of other lights than it was
// built over it is built anew.
void RefitLightTree(LightTree& tree, std::span<const LightBounds> lights);
// Whether every light with power has one place, and every sphere holds what is below it; see core/validate.h.
std::string ValidateLightTree(const LightTree& tree, std::span<const LightBounds> lights);

struct LightPick {
  std::uint32_t light = 0;
  float probability = 0;
  double rest = 0;  // where the number that chose lies among those that choose this light
};
// The light under a number in [0, 1). False where none can send light to the point.
bool PickLight(const LightTree& tree, const LightReceiver& receiver, double number, LightPick& pick);
// The probability with which PickLight takes that light.
float PickProbability(const LightTree& tree, const LightReceiver& receiver, std::uint32_t light);

}  // namespace zp
