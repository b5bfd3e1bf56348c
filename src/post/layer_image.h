// post/layer_image.h: a layer as the picture that other formats keep; private to this folder.

#pragma once

#include "imaging/imaging.h"
#include "post/layers.h"

namespace zp {

// Three floats a pixel of the display window, black where there are no pixels, the top row first. One channel
// is all three; of two the third is 0.
ImageBuffer MakeImage(const LayeredPicture& picture, const Layer& layer);

}  // namespace zp
