// app/image_despike.cpp: a picture without its fireflies.

#include <cstdio>

#include "image_commands.h"
#include "post/despike.h"

namespace zp {

int RunDespike(const DespikeWords& words) {
  LayeredPicture picture;
  if (const auto status = ReadPicture(words.input, picture)) return *status;
  if (FindLayer(picture, "") == nullptr) return Fail("there is no beauty in '" + words.input + "'");
  MakeLinear(picture);
  const std::size_t count = Despike(picture, words.strength);
  const int status = WritePicture(words.output, picture);
  if (status == kExitDone) std::printf("%zu pixels of %zu were too bright\n", count, PixelCount(picture));
  return status;
}

}  // namespace zp
