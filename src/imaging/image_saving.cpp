// Pictures onto disk.

#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <limits>
#include <map>
#include <mutex>

#include "core/settings.h"
#include "imaging/exr_file.h"
#include "imaging/free_image.h"
#include "imaging/imaging.h"
#include "imaging/output_file.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

struct ExtensionRow {
  std::string_view lower, upper;
  FREE_IMAGE_FORMAT format;
  bool keepsFloats = false;  // else 8 bits
};
// Searched from the top. A mixed spelling does not count.
constexpr ExtensionRow kExtensions[] = {
    {".bmp", ".BMP", FIF_BMP},       {".cut", ".CUT", FIF_CUT},      {".dds", ".DDS", FIF_DDS},
    {".exr", ".EXR", FIF_EXR, true}, {".g3", ".G3", FIF_FAXG3},      {".gif", ".GIF", FIF_GIF},
    {".hdr", ".HDR", FIF_HDR, true}, {".ico", ".ICO", FIF_ICO},      {".iff", ".IFF", FIF_IFF},
    {".j2k", ".J2K", FIF_J2K},       {".jng", ".JNG", FIF_JNG},      {".jp2", ".JP2", FIF_JP2},
    {".jpg", ".JPG", FIF_JPEG},      {".jpeg", ".JPEG", FIF_JPEG},   {".koa", ".KOA", FIF_KOALA},
    {".mng", ".MNG", FIF_MNG},       {".pbm", ".PBM", FIF_PBM},      {".pcd", ".PCD", FIF_PCD},
    {".pfm", ".PFM", FIF_PFM, true}, {".pgm", ".PGM", FIF_PGM},      {".pic", ".PIC", FIF_PICT},
    {".pct", ".PCT", FIF_PICT},      {".pict", ".PICT", FIF_PICT},   {".png", ".PNG", FIF_PNG},
    {".ppm", ".PPM", FIF_PPM},       {".psd", ".PSD", FIF_PSD},      {".ras", ".RAS", FIF_RAS},
    {".raw", ".RAW", FIF_RAW},       {".sgi", ".SGI", FIF_SGI},      {".tga", ".TGA", FIF_TARGA},
    {".targa", ".TARGA", FIF_TARGA}, {".tif", ".TIF", FIF_TIFF},     {".tiff", ".TIFF", FIF_TIFF},
    {".wap", ".WAP", FIF_WBMP},      {".wabmp", ".WABMP", FIF_WBMP}, {".wbmp", ".WBMP", FIF_WBMP},
    {".wbm", ".WBM", FIF_WBMP},      {".xbm", ".XBM", FIF_XBM},      {".xpm", ".XPM", FIF_XPM},
};

// Names whose last save failed, with the reasons.
std::mutex failuresMutex;
std::map<std::string, std::string> failedSaves;

// Intended: anywhere in the name, so that "a.png.tmp" is a PNG file.
bool Contains(std::string_view name, std::string_view lower, std::string_view upper) {
  return name.find(lower) != name.npos || name.find(upper) != name.npos;
}
// The part of a name that tells the format: its last component, or all of it where that tells none.
std::string_view FormatText(std::string_view name) {
  const std::string_view last = name.substr(name.rfind('/') + 1);
  const auto stands = [last](const ExtensionRow& row) { return Contains(last, row.lower, row.upper); };
  return std::any_of(std::begin(kExtensions), std::end(kExtensions), stands) ? last : name;
}
bool IsPfm(std::string_view name) { return Contains(name, ".pfm", ".PFM"); }
bool IsFloatFile(std::string_view name) {
  return std::any_of(std::begin(kExtensions), std::end(kExtensions), [name](const ExtensionRow& row) {
    return row.keepsFloats && Contains(name, row.lower, row.upper);
  });
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

// Why there is no row for a name.
std::string UnknownFormat(const std::string& name) {
  const std::string extension = fs::path(name).extension().string();
  if (extension.size() < 2) return "the name has no extension, which tells the format";
  const std::string reason = "unknown format \"" + extension.substr(1) + "\"";
  std::string lower = extension;
  for (char& c : lower) c = 'A' <= c && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  for (const ExtensionRow& row : kExtensions)
    if (row.lower == lower) return reason + " (did you mean \"" + lower.substr(1) + "\"?)";
  return reason;
}

// Pixels along a side that the format's files can count.
int LongestSide(FREE_IMAGE_FORMAT format) {
  if (format == FIF_PSD) return 30000;
  if (format == FIF_JPEG || format == FIF_JNG) return 65500;
  return format == FIF_TARGA ? 65535 : std::numeric_limits<int>::max();
}

// FreeImage's plugins take other bitmaps too, and write garbage or crash on some.
bool CanHold(FREE_IMAGE_FORMAT format, FIBITMAP* bitmap) {
  const FREE_IMAGE_TYPE type = FreeImage_GetImageType(bitmap);
  if (type != FIT_BITMAP) return FreeImage_FIFSupportsExportType(format, type) != 0;
  return FreeImage_FIFSupportsExportBPP(format, static_cast<int>(FreeImage_GetBPP(bitmap))) != 0;
}

// Why the format cannot keep the picture, before it is tried; empty if nothing is known to be against it.
std::string FormatReason(const ExtensionRow& row, FIBITMAP* bitmap, const ImageBuffer& image) {
  const std::string format = "the format \"" + std::string(row.lower.substr(1)) + "\"";
  if (!FreeImage_FIFSupportsWriting(row.format)) return format + " can only be read";
  if (!CanHold(row.format, bitmap)) return format + " cannot hold such pixels";
  if (std::max(image.width, image.height) > LongestSide(row.format))
    return format + " cannot hold so many pixels";
  return {};
}

unsigned DLL_CALLCONV ReadProc(void* buffer, unsigned size, unsigned count, fi_handle handle) {
  if (size == 0) return 0;
  return static_cast<unsigned>(static_cast<OutputFile*>(handle)->Read(buffer, std::size_t{size} * count) /
                               size);
}
// FreeImage's plugins overlook failed writes: the file remembers them.
unsigned DLL_CALLCONV WriteProc(void* buffer, unsigned size, unsigned count, fi_handle handle) {
  if (size == 0) return count;
  return static_cast<unsigned>(static_cast<OutputFile*>(handle)->Write(buffer, std::size_t{size} * count) /
                               size);
}
int DLL_CALLCONV SeekProc(fi_handle handle, long offset, int origin) {
  return static_cast<OutputFile*>(handle)->Seek(offset, origin);
}
long DLL_CALLCONV TellProc(fi_handle handle) { return static_cast<OutputFile*>(handle)->Tell(); }

// Without FreeImage, whose half floats turn what they cannot hold into infinity.
bool EncodeExrFile(FIBITMAP* bitmap, OutputFile& file) {
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
  return file.Write(bytes.data(), bytes.size()) == bytes.size();
}

// Writes a picture's bytes; false if the format refused. Failures of the disk are the file's to tell.
bool Encode(FREE_IMAGE_FORMAT format, FIBITMAP* bitmap, OutputFile& file) {
  if (format == FIF_EXR) return EncodeExrFile(bitmap, file);
  const SilentTiff silence;
  FreeImageIO io = {ReadProc, WriteProc, SeekProc, TellProc};
  // In format 1 as ever; in format 2 what is looked at, colours at full size.
  const bool isFine = format == FIF_JPEG && settings.format >= 2;
  const int flags = isFine ? JPEG_QUALITYSUPERB | JPEG_SUBSAMPLING_444 : 0;
  return FreeImage_SaveToHandle(format, bitmap, &io, &file, flags) != 0;
}

// One way to write a picture, and what became of it.
struct Attempt {
  bool keep = true;                   // else the file is gone before it has its name
  ImageBuffer* back = nullptr;        // receives what the file holds
  const ExtensionRow* row = nullptr;  // the format that took the picture
  fs::path target;
  struct stat status = {};  // of what stands at the target
};

// Empty if the picture was written.
std::string WriteFile(const ExtensionRow& row, FIBITMAP* bitmap, const ImageBuffer& image, Attempt& attempt) {
  OutputFile file;
  if (std::string reason = file.Open(image.fileName); !reason.empty()) return reason;
  const bool encoded = Encode(row.format, bitmap, file);
  if (std::string reason = file.Trouble(); !reason.empty()) return reason;
  if (!encoded)
    return "the format \"" + std::string(row.lower.substr(1)) + "\" cannot hold a picture of this size";
  attempt.row = &row;
  attempt.target = file.Target();
  attempt.status = file.TargetStatus();
  if (attempt.back != nullptr) LoadImage(*attempt.back, file.Temporary().string());
  return attempt.keep ? file.Commit() : "";
}

// Empty if the picture was written. The format is the one that `name` tells, which is as a rule the file's.
std::string Save(const ImageBuffer& image, const std::string& name, Attempt& attempt) {
  if (image.packed) return Save(Unpack(image), name, attempt);
  if (image.width <= 0 || image.height <= 0) return "the picture has no pixels";
  if (image.channels != 1 && image.channels != 3 && image.channels != 4)
    return "pictures have one, three or four channels";
  const std::string_view text = FormatText(name);
  const bool isFloat = IsFloatFile(text);
  const Bitmap bitmap = isFloat ? MakeFloatBitmap(image) : MakeIntegerBitmap(image);
  if (!bitmap) return "not enough memory";
  // FreeImage counts rows from the bottom. It writes PFM files top row first, which other programs read as
  // the bottom row: without the turn the two cancel out.
  if (!isFloat || !IsPfm(text)) FreeImage_FlipVertical(bitmap.get());
  std::string refused, failed;
  for (const ExtensionRow& row : kExtensions) {
    if (!Contains(text, row.lower, row.upper)) continue;
    if (const std::string reason = FormatReason(row, bitmap.get(), image); !reason.empty()) {
      if (refused.empty()) refused = reason;
      continue;
    }
    failed = WriteFile(row, bitmap.get(), image, attempt);
    if (failed.empty()) return {};
  }
  if (!failed.empty()) return failed;
  return refused.empty() ? UnknownFormat(name) : refused;
}

std::string GuardedSave(const ImageBuffer& image, const std::string& name, Attempt& attempt) {
  try {
    return Save(image, name, attempt);
  } catch (const std::bad_alloc&) {  // for a copy
    return "not enough memory";
  } catch (const std::exception& error) {  // a path that the system refuses
    return error.what();
  }
}

// Bytes that a file of a format without compression cannot do without; 0 if it may shrink.
std::int64_t LeastBytes(FREE_IMAGE_FORMAT format, const ImageBuffer& image) {
  constexpr std::int64_t kMostPixels = std::int64_t{1} << 58;
  const std::int64_t pixels = std::min(std::int64_t{image.width} * image.height, kMostPixels);
  if (format == FIF_PFM) return 12 * pixels;
  const bool plain = format == FIF_BMP || format == FIF_PPM || format == FIF_PBM || format == FIF_PGM;
  return plain ? 3 * pixels : 0;
}

// The disks that pictures go to, as they will be filled one picture after the other.
struct Disks {
  std::map<dev_t, std::int64_t> available;  // bytes
  std::map<fs::path, std::int64_t> sizes;   // of the files there, on the disk
};

// Why the picture is sure to find no space; empty if it may. The old file goes when the new one is whole.
std::string SpaceReason(Disks& disks, const Attempt& attempt, const ImageBuffer& image) {
  const std::int64_t size = LeastBytes(attempt.row->format, image);
  const std::string folder = attempt.target.has_parent_path() ? attempt.target.parent_path().string() : ".";
  struct stat status = {};
  struct statvfs space = {};
  // Some network disks tell no numbers.
  if (stat(folder.c_str(), &status) != 0 || statvfs(folder.c_str(), &space) != 0 || space.f_blocks == 0)
    return {};
  const auto blocks = geteuid() == 0 ? space.f_bfree : space.f_bavail;
  const auto bytes = static_cast<std::int64_t>(blocks) * static_cast<std::int64_t>(space.f_frsize);
  std::int64_t& available = disks.available.try_emplace(status.st_dev, bytes).first->second;
  std::int64_t& old = disks.sizes.try_emplace(attempt.target, 512 * attempt.status.st_blocks).first->second;
  if (size > available)
    return "no space: it needs " + std::to_string(size >> 10) + " kB, and " +
           std::to_string(std::max<std::int64_t>(available, 0) >> 10) + " are left";
  available += old - size;
  old = size;
  return {};
}

}  // namespace

// The first of the extensions that stand in the name and whose format can hold the picture is written. Names
// with ".exr", ".hdr" or ".pfm" get linear floats, all others bytes without gamma. On failure the file that
// was there stays, no other file is left, and the failure is kept unless the name is empty.
std::string StoreImage(const ImageBuffer& image, const std::string& formatName) {
  if (image.fileName.empty()) return "it has no name";
  Attempt attempt;
  std::string reason = GuardedSave(image, formatName.empty() ? image.fileName : formatName, attempt);
  KeepSave(image.fileName, reason);
  return reason;
}

void KeepSave(const std::string& name, const std::string& reason) {
  const std::lock_guard lock(failuresMutex);
  if (reason.empty())
    failedSaves.erase(name);
  else
    failedSaves[name] = reason;
}

bool KeepsBytes(const std::string& fileName) { return !IsFloatFile(FormatText(fileName)); }

bool SaveImage(const ImageBuffer& image) { return StoreImage(image).empty(); }

// A picture as large as tells formats with a smallest or a largest size is written in full but for its name.
std::string SaveObstacle(const std::vector<const ImageBuffer*>& images) {
  constexpr int kSide = 300;
  Disks disks;
  for (const ImageBuffer* image : images) {
    ImageBuffer sample;
    Allocate(sample, std::min(image->width, kSide), std::min(image->height, kSide), image->channels,
             image->bits, false);
    sample.fileName = image->fileName;
    Attempt attempt;
    attempt.keep = false;
    std::string reason = GuardedSave(sample, sample.fileName, attempt);
    if (reason.empty()) reason = SpaceReason(disks, attempt, *image);
    if (!reason.empty()) return "'" + image->fileName + "': " + reason;
  }
  return {};
}

bool WriteAndReadBack(const ImageBuffer& image, const std::string& formatName, ImageBuffer& back) {
  Attempt attempt;
  attempt.keep = false;
  attempt.back = &back;
  return GuardedSave(image, formatName, attempt).empty();
}

std::vector<SaveFailure> TakeFailedSaves() {
  const std::lock_guard lock(failuresMutex);
  std::vector<SaveFailure> failures;
  for (const auto& [name, reason] : failedSaves) failures.push_back({name, reason});
  failedSaves.clear();
  return failures;
}

}  // namespace zp
