// app/view_command.cpp: a linear picture becomes a PNG or JPEG for the screen.

#include "image_commands.h"
#include "imaging/imaging.h"
#include "post/look.h"

namespace zp {
namespace {

// The one that was asked for, the beauty, or what comes first; null if there is none of that name.
const Layer* ChooseLayer(const LayeredPicture& picture, const std::string& name) {
  const Layer* layer = FindLayer(picture, name);
  return layer == nullptr && name.empty() ? &picture.layers.front() : layer;
}

// Numbers of 8 bits are linear too: such are the files of format 1.
int Convert(const ViewOptions& options) {
  LayeredPicture picture;
  if (const auto status = ReadPicture(options.input, picture)) return *status;
  const Layer* layer = ChooseLayer(picture, options.layer);
  if (layer == nullptr)
    return Fail("there is no layer '" + options.layer + "' in '" + options.input + "': it has " +
                LayerNames(picture));
  ImageBuffer screen = LookAt(picture, *layer,
                              {.exposure = options.exposure,
                               .whiteBalance = options.whiteBalance,
                               .curve = options.filmic ? Curve::kFilmic : Curve::kSrgb});
  screen.fileName = options.output;
  const std::string reason = StoreImage(screen, ScreenFormat(options.output));  // "a.hdr.png" is two
  return reason.empty() ? kExitDone : Fail("cannot write the picture '" + options.output + "': " + reason);
}

}  // namespace

std::string ScreenFormat(const std::string& name) {
  for (const char* end : {".png", ".PNG"})
    if (name.ends_with(end)) return ".png";
  for (const char* end : {".jpg", ".JPG", ".jpeg", ".JPEG"})
    if (name.ends_with(end)) return ".jpg";
  return {};
}

int RunView(const ViewOptions& options) {
  return WithImageFiles([&options] { return Convert(options); });
}

}  // namespace zp
