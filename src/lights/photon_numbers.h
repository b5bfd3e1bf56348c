// lights/photon_numbers.h: the numbers in [0, 1) by which a photon begins, two pairs of them. What the first
// pair says is the light's own: a place on a disc, or a direction. Halton's in format 1; in format 2 Sobol's,
// whose two pairs are one set in four dimensions. Format 2 has one number more.

#pragma once

#include "core/sample_points.h"
#include "core/settings.h"
#include "core/tables.h"

namespace zp {

struct PhotonNumbers {
  std::uint32_t sample = 0;
  PointSource points;  // format 2

  explicit PhotonNumbers(std::uint32_t number) : sample(number) {
    if (settings.format >= 2) points = PhotonPoints(number);
  }
  Vec2 First() const {
    if (settings.format >= 2) return UnitPair(PointAt(points, kDecidePhoton, sample));
    return {Halton(sample, 0), Halton(sample, 1)};
  }
  Vec2 Second() const {
    if (settings.format >= 2) return UnitPair(PointAt(Behind(points), kDecidePhoton, sample));
    return {Halton(sample, 2), Halton(sample, 3)};
  }
  // One more of its own.
  float Extra() const { return UnitFloat(MixKeys(points.key ^ kDecidePhoton, sample)); }
  // Of the draws at the photon's first hit.
  PointSource Onwards() const { return Behind(Behind(points)); }

 private:
  static PointSource Behind(PointSource source) {
    StepOn(source, kDecidePhoton);
    return source;
  }
};

}  // namespace zp
