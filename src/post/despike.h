// post/despike.h: single pixels that one lucky path has made far too bright.

#pragma once

#include <cstddef>

#include "post/layers.h"

namespace zp {

// Where a pixel of the beauty is `strength` times as bright as all its eight neighbours but one, and where
// there are half sets as one of them alone has it, the neighbour in the middle of their order takes its
// place: in the beauty, its light groups and half sets. How many; 0 too of a picture without a beauty.
std::size_t Despike(LayeredPicture& picture, double strength);

}  // namespace zp
