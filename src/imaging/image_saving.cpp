// Pictures onto disk.

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "imaging/exr_file.h"
#include "imaging/free_image.h"
#include "imaging/imaging.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

struct ExtensionRow {
  std::string_view lower, upper;
  FREE_IMAGE_FORMAT format;
};
// Searched from the top. A mixed spelling does not count.
constexpr ExtensionRow kExtensions[] = {
    {".bmp", ".BMP", FIF_BMP},       {".cut", ".CUT", FIF_CUT},      {".dds", ".DDS", FIF_DDS},
    {".exr", ".EXR", FIF_EXR},       {".g3", ".G3", FIF_FAXG3},      {".gif", ".GIF", FIF_GIF},
    {".hdr", ".HDR", FIF_HDR},       {".ico", ".ICO", FIF_ICO},      {".iff", ".IFF", FIF_IFF},
    {".j2k", ".J2K", FIF_J2K},       {".jng", ".JNG", FIF_JNG},      {".jp2", ".JP2", FIF_JP2},
    {".jpg", ".JPG", FIF_JPEG},      {".jpeg", ".JPEG", FIF_JPEG},   {".koa", ".KOA", FIF_KOALA},
    {".mng", ".MNG", FIF_MNG},       {".pbm", ".PBM", FIF_PBM},      {".pcd", ".PCD", FIF_PCD},
    {".pfm", ".PFM", FIF_PFM},       {".pgm", ".PGM", FIF_PGM},      {".pic", ".PIC", FIF_PICT},
    {".pct", ".PCT", FIF_PICT},      {".pict", ".PICT", FIF_PICT},   {".png", ".PNG", FIF_PNG},
    {".ppm", ".PPM", FIF_PPM},       {".psd", ".PSD", FIF_PSD},      {".ras", ".RAS", FIF_RAS},
    {".raw", ".RAW", FIF_RAW},       {".sgi", ".SGI", FIF_SGI},      {".tga", ".TGA", FIF_TARGA},
    {".targa", ".TARGA", FIF_TARGA}, {".tif", ".TIF", FIF_TIFF},     {".tiff", ".TIFF", FIF_TIFF},
    {".wap", ".WAP", FIF_WBMP},      {".wabmp", ".WABMP", FIF_WBMP}, {".wbmp", ".WBMP", FIF_WBMP},
    {".wbm", ".WBM", FIF_WBMP},      {".xbm", ".XBM", FIF_XBM},      {".xpm", ".XPM", FIF_XPM},
};

std::atomic<int> failedSaves = 0;

// Intended: anywhere in the name, so that "a.png.tmp" is a PNG file.
bool Contains(std::string_view name, std::string_view lower, std::string_view upper) {
  return name.find(lower) != name.npos || name.find(upper) != name.npos;
}
bool IsPfm(std::string_view name) { return Contains(name, ".pfm", ".PFM"); }
bool IsFloatFile(std::string_view name) {
  return Contains(name, ".exr", ".EXR") || Contains(name, ".hdr", ".HDR") || IsPfm(name);
}

// Intended: a negative value wraps instead of turning black. What no integer can hold is 0.
template <class Float>
std::uint8_t WrappedByte(Float value) {
  if (value > Float(1)) return 255;
  const Float scaled = value * Float(255);
  if (!(scaled > Float(-2147483648.0))) return 0;
  return static_cast<std::uint8_t>(static_cast<std::int32_t>(scaled) & 255);
}

bool Bit(const ImageBuffer& image, std::size_t element) {
  const std::size_t word = element / 32;
  return word < image.bitPixels.size() && (image.bitPixels[word] >> (element % 32) & 1U) != 0;
}

// One element for a float file; 0 past the end.
float FloatElement(const ImageBuffer& image, std::size_t i) {
  if (image.bits == 1) return Bit(image, i) ? 1.0f : 0.0f;
  if (image.bits == 8 && i < image.bytePixels.size()) return static_cast<float>(image.bytePixels[i]) / 255.0f;
  if (image.bits == 16 && i < image.wordPixels.size())
    return static_cast<float>(image.wordPixels[i]) / 65535.0f;
  if (image.bits == 32 && i < image.floatPixels.size()) return image.floatPixels[i];
  if (image.bits == 64 && i < image.doublePixels.size()) return static_cast<float>(image.doublePixels[i]);
  return 0;
}

// One element for an integer file; 0 past the end.
std::uint8_t ByteElement(const ImageBuffer& image, std::size_t i) {
  if (image.bits == 1) return Bit(image, i) ? 255 : 0;
  if (image.bits == 8 && i < image.bytePixels.size()) return image.bytePixels[i];
  if (image.bits == 16 && i < image.wordPixels.size())
    return static_cast<std::uint8_t>(image.wordPixels[i] >> 8);
  if (image.bits == 32 && i < image.floatPixels.size()) return WrappedByte(image.floatPixels[i]);
  if (image.bits == 64 && i < image.doublePixels.size()) return WrappedByte(image.doublePixels[i]);
  return 0;
}

// Scan line y is row y of the picture; the caller turns the rows over.
Bitmap MakeFloatBitmap(const ImageBuffer& image) {
  const int components = image.channels == 4 ? 4 : 3;
  Bitmap bitmap(FreeImage_AllocateT(components == 4 ? FIT_RGBAF : FIT_RGBF, image.width, image.height,
                                    32 * components, 0, 0, 0));
  if (!bitmap) return bitmap;
  const auto channels = static_cast<std::size_t>(image.channels);
  std::size_t pixel = 0;
  for (int y = 0; y < image.height; ++y) {
    auto* line = reinterpret_cast<float*>(FreeImage_GetScanLine(bitmap.get(), y));
    for (int x = 0; x < image.width; ++x, ++pixel)
      for (int c = 0; c < components; ++c)
        *line++ = FloatElement(image, pixel * channels + (channels == 1 ? 0U : static_cast<std::size_t>(c)));
  }
  return bitmap;
}

// Intended: the source moves by three elements a pixel whatever the channels are, so that the colours of a
// four-channel picture run away from the pixel grid. One channel makes an 8-bit file, whose pixels take no
// colour: it is black.
Bitmap MakeIntegerBitmap(const ImageBuffer& image) {
  Bitmap bitmap(FreeImage_Allocate(image.width, image.height, image.channels * 8, 0, 0, 0));
  if (!bitmap) return bitmap;
  std::size_t element = 0;
  for (int y = 0; y < image.height; ++y)
    for (int x = 0; x < image.width; ++x, element += 3) {
      RGBQUAD color = {};
      color.rgbRed = ByteElement(image, element);
      color.rgbGreen = ByteElement(image, element + 1);
      color.rgbBlue = ByteElement(image, element + 2);
      FreeImage_SetPixelColor(bitmap.get(), static_cast<unsigned>(x), static_cast<unsigned>(y), &color);
    }
  return bitmap;
}

// A packed picture as floats.
ImageBuffer Unpack(const ImageBuffer& image) {
  ImageBuffer floats;
  floats.fileName = image.fileName;
  Allocate(floats, image.width, image.height, 3, 32, false);
  for (std::size_t pixel = 0; pixel < image.packedPixels.size(); ++pixel)
    WritePixel(floats, ReadPixel(image, pixel), pixel);
  return floats;
}

// FreeImage's plugins take other bitmaps too, and write garbage or crash on some.
bool CanHold(FREE_IMAGE_FORMAT format, FIBITMAP* bitmap) {
  if (!FreeImage_FIFSupportsWriting(format)) return false;
  const FREE_IMAGE_TYPE type = FreeImage_GetImageType(bitmap);
  if (type != FIT_BITMAP) return FreeImage_FIFSupportsExportType(format, type) != 0;
  return FreeImage_FIFSupportsExportBPP(format, static_cast<int>(FreeImage_GetBPP(bitmap))) != 0;
}

// A file being written. FreeImage's plugins overlook failed writes, so they are noted here.
struct OutputFile {
  std::FILE* file = nullptr;
  bool failed = false;
};

unsigned DLL_CALLCONV ReadProc(void* buffer, unsigned size, unsigned count, fi_handle handle) {
  return static_cast<unsigned>(std::fread(buffer, size, count, static_cast<OutputFile*>(handle)->file));
}
unsigned DLL_CALLCONV WriteProc(void* buffer, unsigned size, unsigned count, fi_handle handle) {
  auto* output = static_cast<OutputFile*>(handle);
  const std::size_t written = std::fwrite(buffer, size, count, output->file);
  if (size != 0 && written != count) output->failed = true;
  return static_cast<unsigned>(written);
}
int DLL_CALLCONV SeekProc(fi_handle handle, long offset, int origin) {
  return std::fseek(static_cast<OutputFile*>(handle)->file, offset, origin);
}
long DLL_CALLCONV TellProc(fi_handle handle) { return std::ftell(static_cast<OutputFile*>(handle)->file); }

// Without FreeImage, whose half floats turn what they cannot hold into infinity.
bool WriteExr(FIBITMAP* bitmap, std::FILE* file) try {
  const auto width = static_cast<int>(FreeImage_GetWidth(bitmap));
  const auto height = static_cast<int>(FreeImage_GetHeight(bitmap));
  const auto channels = static_cast<int>(FreeImage_GetBPP(bitmap) / 32);
  const std::size_t row = static_cast<std::size_t>(width) * static_cast<std::size_t>(channels);
  std::vector<float> pixels;
  pixels.reserve(row * static_cast<std::size_t>(height));
  for (int y = height - 1; y >= 0; --y) {
    const auto* line = reinterpret_cast<const float*>(FreeImage_GetScanLine(bitmap, y));
    pixels.insert(pixels.end(), line, line + row);
  }
  const std::string bytes = EncodeExr(pixels.data(), width, height, channels);
  return std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
} catch (const std::exception&) {
  return false;
}

// True if all bytes of the file reached the file system.
bool WriteFile(FREE_IMAGE_FORMAT format, FIBITMAP* bitmap, const std::string& path) {
  OutputFile output;
  output.file = std::fopen(path.c_str(), "w+bx");
  if (output.file == nullptr) return false;
  const SilentTiff silence;
  FreeImageIO io = {ReadProc, WriteProc, SeekProc, TellProc};
  const bool saved = format == FIF_EXR ? WriteExr(bitmap, output.file)
                                       : FreeImage_SaveToHandle(format, bitmap, &io, &output, 0) != 0;
  const bool sound = std::ferror(output.file) == 0 && !output.failed;
  return (std::fclose(output.file) == 0) && saved && sound;
}

// A name of this process alone, in the target's folder: a rename cannot cross file systems.
fs::path TemporaryName(const fs::path& target) {
  static std::atomic<unsigned> number = 0;
  return target.parent_path() / (".zp-" + std::to_string(getpid()) + "-" + std::to_string(number++) + ".tmp");
}

// Writes beside `path` and renames, so that a failure leaves what was there. Only a file, or nothing, can be
// replaced; a link stays, and what it leads to is replaced.
bool ReplaceFile(FREE_IMAGE_FORMAT format, FIBITMAP* bitmap, const std::string& path) {
  std::error_code error;
  fs::path target = path;
  if (fs::is_symlink(target, error)) target = fs::weakly_canonical(target, error);
  const fs::file_status status = fs::status(target, error);
  const bool exists = fs::exists(status);
  // A rename would replace even a file that is protected against writing.
  if (exists && (!fs::is_regular_file(status) || access(target.c_str(), W_OK) != 0)) return false;
  const fs::path temporary = TemporaryName(target);
  if (WriteFile(format, bitmap, temporary.string())) {
    if (exists) fs::permissions(temporary, status.permissions(), error);
    fs::rename(temporary, target, error);
    if (!error) return true;
  }
  fs::remove(temporary, error);
  return false;
}

bool Save(const ImageBuffer& image) {
  if (image.packed) return Save(Unpack(image));
  if (image.width <= 0 || image.height <= 0) return false;
  if (image.channels != 1 && image.channels != 3 && image.channels != 4) return false;
  const std::string& name = image.fileName;
  const bool isFloat = IsFloatFile(name);
  const Bitmap bitmap = isFloat ? MakeFloatBitmap(image) : MakeIntegerBitmap(image);
  if (!bitmap) return false;
  // FreeImage counts rows from the bottom. It writes PFM files top row first, which other programs read as
  // the bottom row: without the turn the two cancel out.
  if (!isFloat || !IsPfm(name)) FreeImage_FlipVertical(bitmap.get());
  for (const ExtensionRow& row : kExtensions)
    if (Contains(name, row.lower, row.upper) && CanHold(row.format, bitmap.get()) &&
        ReplaceFile(row.format, bitmap.get(), name))
      return true;
  return false;
}

}  // namespace

// The first of the extensions that stand in the name and whose format can hold the picture is written. Names
// with ".exr", ".hdr" or ".pfm" get linear floats, all others bytes without gamma. On failure the file that
// was there stays, no other file is left, and the failure is counted unless the name is empty.
bool SaveImage(const ImageBuffer& image) {
  if (image.fileName.empty()) return false;
  bool saved = false;
  try {
    saved = Save(image);
  } catch (const std::exception&) {  // no memory for a copy, or a path that the system refuses
  }
  if (!saved) ++failedSaves;
  return saved;
}

int FailedSaves(bool reset) { return reset ? failedSaves.exchange(0) : failedSaves.load(); }

}  // namespace zp
