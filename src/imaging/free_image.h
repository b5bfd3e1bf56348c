// imaging/free_image.h: what reading and writing of picture files share of FreeImage.

#pragma once

#include <FreeImage.h>
#include <tiffio.h>

#include <memory>

namespace zp {

// FreeImage asks .tif files for tags that most do not have, and the library below it tells of each on the
// error stream. Silences it, and a host's handlers are as they were in the end.
class SilentTiff {
 public:
  ~SilentTiff() {
    TIFFSetErrorHandler(errors_);
    TIFFSetWarningHandler(warnings_);
  }

 private:
  TIFFErrorHandler errors_ = TIFFSetErrorHandler(nullptr);
  TIFFErrorHandler warnings_ = TIFFSetWarningHandler(nullptr);
};

struct UnloadBitmap {
  void operator()(FIBITMAP* bitmap) const { FreeImage_Unload(bitmap); }
};
using Bitmap = std::unique_ptr<FIBITMAP, UnloadBitmap>;

}  // namespace zp
