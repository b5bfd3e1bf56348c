// post/denoise.h: the noise of renders taken out, on the processor and without anything learnt elsewhere.

#pragma once

#include <string>

#include "post/layers.h"

namespace zp {

// The layers that it needs and the picture lacks, as "half0, half1"; empty if all are there: the beauty, the
// half sets of passes ("half0", "half1"), "albedo", "N" and "Z".
std::string MissingForDenoise(const LayeredPicture& picture);

struct DenoiseOptions {
  bool lightGroups = false;  // the layers "light_..." too; they still add up to the beauty
};

// Replaces the beauty's colours; alpha and all other layers stay. Needs what MissingForDenoise asks for.
// False if all work was stopped, and the picture is as it was.
//
// A pixel is what a plane of the guides (albedo, normal, the inverse of the depth), fitted to the light
// around it, says at its place. Pixels around it count by how alike their surroundings are, measured in their
// own variance. Each half set is fitted with the likeness seen in the other, so that noise does not choose
// its own company, and of two strengths that one is taken whose result is nearer to the other half set. Light
// is divided by the albedo meanwhile, which keeps texture. Rousselle, Knaus and Zwicker, "Adaptive Rendering
// with Non-Local Means Filtering", 2012; Bitterli and others, "Nonlinearly Weighted First-order Regression
// for Denoising Monte Carlo Renderings", 2016.
bool Denoise(LayeredPicture& picture, const DenoiseOptions& options);

// Writes color.pfm, albedo.pfm and normal.pfm into the folder, which is made if need be: the input of Open
// Image Denoise. The reason as the rest of a sentence about a file, its name before it; empty if all is well.
std::string ExportForDenoiser(const LayeredPicture& picture, const std::string& folder);

}  // namespace zp
