// app/denoise_command.cpp: a render without its noise.

#include "image_commands.h"
#include "post/denoise.h"

namespace zp {

int RunDenoise(const DenoiseWords& words) {
  LayeredPicture picture;
  if (const auto status = ReadPicture(words.input, picture)) return *status;
  if (const std::string missing = MissingForDenoise(picture); !missing.empty())
    return Fail("cannot denoise '" + words.input + "': it lacks the layers " + missing);
  if (!words.exportFolder.empty())
    if (const std::string reason = ExportForDenoiser(picture, words.exportFolder); !reason.empty())
      return Fail("cannot write the picture " + reason);
  if (!Denoise(picture, {words.lightGroups})) return Fail("stopped: nothing is written");
  return WritePicture(words.output, picture);
}

}  // namespace zp
