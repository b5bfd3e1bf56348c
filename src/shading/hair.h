// shading/hair.h: how fibres scatter light. Three lobes, each a longitudinal term times an azimuthal one: R
// is reflected at the outside, TT goes through, TRT is reflected once inside. Marschner et al., "Light
// Scattering from Human Hair Fibers", 2003; the longitudinal term is that of d'Eon et al., "An
// Energy-Conserving Hair Reflectance Model", 2011.
//
// Directions are unit vectors that leave the fibre in world space: `incoming`, wi, is the one that is known
// (the view), `scattered`, wo, the one that light comes from or a ray goes to. `tangent` is the fibre's axis.
// The scattering function stands for BSDF times cosine: over all `scattered` directions it adds up to what
// the fibre does not absorb. Everything here gives finite numbers for any input that is finite.

#pragma once

#include <array>
#include <memory>

#include "core/vec.h"
#include "imaging/imaging.h"

namespace zp {

inline constexpr int kFiberLutSize = 128;  // rows of cosThetaD, columns of phi

// The azimuthal terms, per radian.
struct FiberLut {
  ImageBuffer lutLobeWeights;       // of R, TT and TRT without attenuation, in the three channels
  ImageBuffer lutR, lutTT, lutTRT;  // with it; that of R comes with the half angle, when it is evaluated
  // By the view's inclination: with what chance rays take each lobe, in the mean over the fibre's width.
  std::array<Vec3, kFiberLutSize> lobeChances;
};

struct FiberParameters {
  float widthR = 10 * kPi / 180;  // radians; the other two follow from it at initialisation
  float widthTT = 20 * kPi / 180;
  float widthTRT = 30 * kPi / 180;
  float ior = 1.55f;
  Vec3 absorption = {0.01f, 0.02f, 0.01f};  // of light that crosses the fibre
  // Derived at initialisation.
  std::shared_ptr<const FiberLut> lut;  // null: the fibre is black. Equal fibres share it
  Vec3 variance;                        // of R, TT and TRT: the squared widths
  Vec3 normalization;                   // of the longitudinal term
  float f0 = 0;                         // Fresnel reflectance at normal incidence
  bool sampleAllLobes = false;          // by format 2; else rays are drawn from R alone
};

// Derives the widths and values and builds the look-up images, with a row that tells how long it took.
void InitializeFiber(FiberParameters& fiber);
// The same for every Shader and its surfaces, once hair was found in the scene. All Shaders: an Instance
// gives its own to the hair that it places. Before the first ray; not while rays are traced.
void InitializeFibers();

struct FiberScattering {
  Vec3 r, tt, trt;  // one RGB each
  Vec3 density;     // of the three lobes, without attenuation, times the squared cosine of `scattered`; where
                    // all are drawn also by three times the chance of each
};
FiberScattering EvaluateFiber(const FiberParameters& fiber, Vec3 incoming, Vec3 scattered, Vec3 tangent);
// What SampleFiber's rays bring home, and what they leave out: light samples alone show that.
Vec3 DrawnLobes(const FiberParameters& fiber, const FiberScattering& scattering);
Vec3 UndrawnLobes(const FiberParameters& fiber, const FiberScattering& scattering);
// The density that stands for those rays in the balance heuristic.
float DrawnDensity(const FiberParameters& fiber, const FiberScattering& scattering);

// Light scattered by a cylinder of a diffuse surface, cosine included, without colour: the mean over its
// width. It adds up to 1 over all `scattered` directions.
float FiberDiffuse(Vec3 incoming, Vec3 scattered, Vec3 tangent);

struct FiberSample {
  Vec3 direction;
  Vec3 weight;   // scattering function by density of the direction
  int lobe = 0;  // 0 R, 1 TT, 2 TRT
};
// A way on from a hit seen from `outgoing`; h in -1..1 is where the fibre is met, in radii beside its axis.
FiberSample SampleFiber(const FiberParameters& fiber, Vec3 outgoing, Vec3 tangent, float h);

// The longitudinal term, per radian of inclination and by the cosine once: it adds up to 1 over
// cos(thetaO) dthetaO. `cosines` and `sines` are the products of those of both inclinations; `normalization`
// is 1 / (2 variance sinh(1 / variance)).
float LongitudinalTerm(float variance, float normalization, float cosines, float sines);
// The modified Bessel function of the first kind and order 0, x not negative. Abramowitz and Stegun,
// "Handbook of Mathematical Functions", 1964, 9.8.1 and 9.8.2; relative error below 3e-7. Infinite above 88.
float BesselI0(float x);

}  // namespace zp
