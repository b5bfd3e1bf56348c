// app/view_command.cpp: a linear picture becomes a PNG for the screen.

#include <algorithm>
#include <cmath>

#include "commands.h"
#include "core/settings.h"
#include "imaging/imaging.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

// Reads any picture, its bottom row first. The reason why there is none; empty if all is well.
std::string ReadPicture(const fs::path& path, ImageBuffer& image) {
  // File names choose formats wherever in them an extension stands, folders included: enter the folder, so
  // that only the file's own name counts.
  DirectoryVisit visit;
  if (const std::error_code error = visit.Enter(path.parent_path())) return error.message();
  image.fileName = path.filename().string();
  image.allowPacked = false;
  if (!LoadImage(image, image.fileName)) return "it " + std::string(ProblemText(image.problem));
  return image.width > 0 && image.height > 0 ? "" : "it has no pixels";
}

int Convert(const ViewOptions& options) {
  ImageBuffer linear;
  if (const std::string problem = ReadPicture(options.input, linear); !problem.empty())
    return Fail("there is no picture to read in '" + options.input + "': " + problem);

  const double scale = std::exp2(options.exposure);
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
  settings.format = 2;  // no scene of format 1 asks for full components of 257, or for palettes as numbers
  StartImageFiles();
  const int status = Convert(options);
  StopImageFiles();
  return status;
}

}  // namespace zp
