// integrator/photon_aim.h: which photons of a light are worth their way, in format 2. The first ones of a
// cast try out where those begin that leave light behind: of the sun's photons over a house with one window
// hardly one in ten. Of the others that begin where none did a few are followed, each for many, so that the
// light that is left is the same on average.

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "lights/photon_numbers.h"

namespace zp {

// Cells in the space of the numbers by which a light's photons begin.
struct PhotonAim {
  std::int64_t trials = 0;  // photons that are all followed; of none other is anything known before them
  int axes = 0;             // numbers that tell cells apart: 2 or 4
  int edge = 0;             // cells along each
  std::vector<std::uint32_t> tried;  // trials that began in each cell
  std::vector<std::uint8_t> useful;  // whether one of them left light
  std::vector<float> chances;        // of the other photons to be followed
};

// For a cast of `count` photons of a kind of light whose first two or four numbers matter. All photons are
// trials where there are too few of them.
PhotonAim MakePhotonAim(std::int64_t count, int axes);
// The cell in which a photon begins.
std::size_t AimCell(const PhotonAim& aim, const PhotonNumbers& numbers);
// Counts a trial. Any thread.
void CountTrial(PhotonAim& aim, std::size_t cell, bool useful);
// Behind all trials.
void SettleChances(PhotonAim& aim);

}  // namespace zp
