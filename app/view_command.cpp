// app/view_command.cpp: a linear picture becomes a PNG for the screen.

#include <algorithm>
#include <cmath>

#include "commands.h"
#include "imaging/imaging.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

// Reads any picture, its bottom row first.
bool ReadPicture(const fs::path& path, ImageBuffer& image) {
  // File names choose formats wherever in them an extension stands, folders included: enter the folder, so
  // that only the file's own name counts.
  DirectoryVisit visit;
  if (visit.Enter(path.parent_path())) return false;
  image.fileName = path.filename().string();
  image.allowPacked = false;
  return LoadImage(image, image.fileName) && image.width > 0 && image.height > 0;
}

int Convert(const ViewOptions& options) {
  ImageBuffer linear;
  if (!ReadPicture(options.input, linear))
    return Fail("there is no picture to read in '" + options.input + "'");

  // A 16-bit component reads 257 where it is full.
  const double scale = std::exp2(options.exposure) / (linear.bits == 16 ? 257.0 : 1.0);
  ImageBuffer screen = ScreenPicture(linear, {scale, scale, scale});
  const auto row = static_cast<std::ptrdiff_t>(3 * screen.width);
  for (auto top = screen.bytePixels.begin(), bottom = screen.bytePixels.end() - row; top < bottom;
       top += row, bottom -= row)
    std::swap_ranges(top, top + row, bottom);
  screen.fileName = options.output;
  const std::string reason = StoreImage(screen, ".png");  // not by the name: "a.hdr.png" is two
  return reason.empty() ? kExitDone : Fail("cannot write the picture '" + options.output + "': " + reason);
}

}  // namespace

int RunView(const ViewOptions& options) {
  StartImageFiles();
  const int status = Convert(options);
  StopImageFiles();
  return status;
}

}  // namespace zp
