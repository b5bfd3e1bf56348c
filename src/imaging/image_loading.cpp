// Pictures from disk.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <span>

#include "core/settings.h"
#include "core/stop.h"
#include "imaging/decoder_process.h"
#include "imaging/exr_file.h"
#include "imaging/free_image.h"
#include "imaging/imaging.h"

namespace zp {
namespace {

constexpr float kLargestPacked = 255.0f * 0x1p119f;

// Ward's shared-exponent pixel ("Real Pixels", Graphics Gems II, 1991). Components that it cannot express,
// negative or not a number, are 0; those too large take its largest value. Mantissas are rounded, but in
// format 1 cut off: half a step too dark in the mean.
PackedPixel Pack(FIRGBF color) {
  const auto limit = [](float v) { return v > 0.0f ? std::min(v, kLargestPacked) : 0.0f; };
  const float r = limit(color.red), g = limit(color.green), b = limit(color.blue);
  const float largest = std::max({r, g, b});
  if (largest < 1e-32f) return {};
  int exponent = 0;
  float scale = 256.0f * std::frexp(largest, &exponent) / largest;
  const float half = settings.format >= 2 ? 0.5f : 0.0f;
  if (largest * scale + half >= 256.0f) {
    ++exponent;
    scale /= 2;
  }
  const auto mantissa = [&](float v) { return static_cast<std::uint8_t>(v * scale + half); };
  return {mantissa(r), mantissa(g), mantissa(b), static_cast<std::uint8_t>(exponent + 128)};
}

// Copies scan lines as they are, the bottom one first.
template <class Element>
void CopyLines(FIBITMAP* bitmap, std::vector<Element>& pixels, std::size_t rowElements) {
  const std::size_t rows = FreeImage_GetHeight(bitmap);
  for (std::size_t y = 0; y < rows; ++y)
    std::memcpy(pixels.data() + y * rowElements, FreeImage_GetScanLine(bitmap, static_cast<int>(y)),
                rowElements * sizeof(Element));
}

// 8, 24 and 32 bits a pixel; false for the other depths.
bool CopyIntegerBitmap(ImageBuffer& image, FIBITMAP* bitmap, int width, int height) {
  const unsigned sourceBytes = FreeImage_GetBPP(bitmap) / 8;
  if (sourceBytes != 1 && sourceBytes != 3 && sourceBytes != 4) return false;
  const bool hasPalette = FreeImage_GetPalette(bitmap) != nullptr;
  const int channels = sourceBytes == 4 ? 4 : sourceBytes == 1 && !hasPalette ? 1 : 3;
  Allocate(image, width, height, channels, 8, false);
  if (channels == 1) {
    CopyLines(bitmap, image.bytePixels, static_cast<std::size_t>(width));
    return true;
  }
  std::uint8_t* out = image.bytePixels.data();
  for (int y = 0; y < height; ++y) {
    const BYTE* in = FreeImage_GetScanLine(bitmap, y);
    for (int x = 0; x < width; ++x, in += sourceBytes, out += channels) {
      out[0] = sourceBytes == 1 ? in[0] : in[FI_RGBA_RED];
      out[1] = sourceBytes == 1 ? in[0] : in[FI_RGBA_GREEN];
      out[2] = sourceBytes == 1 ? in[0] : in[FI_RGBA_BLUE];
      if (channels == 4) out[3] = in[FI_RGBA_ALPHA];
    }
  }
  return true;
}

// A picture of up to 256 colours shows those of its palette. Format 1 takes the index for a grey level, and
// no picture of less than 8 bits.
bool ShowsPalette(FIBITMAP* bitmap) { return settings.format >= 2 && FreeImage_GetBPP(bitmap) <= 8; }

void PackFloats(ImageBuffer& image) {
  const std::vector<float> floats = std::move(image.floatPixels);
  Allocate(image, image.width, image.height, 3, 32, true);
  for (std::size_t i = 0; i < image.packedPixels.size(); ++i)
    image.packedPixels[i] = Pack({floats[3 * i], floats[3 * i + 1], floats[3 * i + 2]});
}

void CopyPacked(ImageBuffer& image, FIBITMAP* bitmap, int width, int height) {
  Allocate(image, width, height, 3, 32, true);
  PackedPixel* out = image.packedPixels.data();
  for (int y = 0; y < height; ++y) {
    const auto* in = reinterpret_cast<const FIRGBF*>(FreeImage_GetScanLine(bitmap, y));
    for (int x = 0; x < width; ++x) *out++ = Pack(in[x]);
  }
}

bool CopyBitmap(ImageBuffer& image, FIBITMAP* bitmap) {
  const auto width = static_cast<int>(FreeImage_GetWidth(bitmap));
  const auto height = static_cast<int>(FreeImage_GetHeight(bitmap));
  if (width <= 0 || height <= 0 || FreeImage_HasPixels(bitmap) == 0) return false;
  const auto copy = [&](int channels, int bits, auto& pixels) {
    Allocate(image, width, height, channels, bits, false);
    CopyLines(bitmap, pixels, static_cast<std::size_t>(width) * static_cast<std::size_t>(channels));
    return true;
  };
  switch (FreeImage_GetImageType(bitmap)) {
    case FIT_BITMAP:
      if (ShowsPalette(bitmap)) {
        const Bitmap colors(FreeImage_ConvertTo24Bits(bitmap));
        return colors && CopyIntegerBitmap(image, colors.get(), width, height);
      }
      return CopyIntegerBitmap(image, bitmap, width, height);
    case FIT_UINT16:
      return copy(1, 16, image.wordPixels);
    case FIT_RGB16:
      return copy(3, 16, image.wordPixels);
    case FIT_RGBA16:
      return copy(4, 16, image.wordPixels);
    case FIT_RGBF:
      if (!image.allowPacked) return copy(3, 32, image.floatPixels);
      CopyPacked(image, bitmap, width, height);
      return true;
    case FIT_RGBAF:
      return copy(4, 32, image.floatPixels);
    default:
      return false;
  }
}

// A file's bytes as FreeImage sees them. Plugins overlook the end of file: some take what they have for the
// whole, others read on for ever.
struct ByteSource {
  std::span<const std::uint8_t> bytes;
  std::size_t at = 0;
  bool endedWithin = false;   // a read got less than it asked for
  bool endedBefore = false;   // a read got nothing
  std::size_t vainCalls = 0;  // reads that got nothing, and steps back
};

// Sound files need few such calls; a plugin that makes more of them has lost its way.
void CountVainCall(ByteSource& source) {
  constexpr std::size_t kPatience = 256;
  if (++source.vainCalls > kPatience + source.bytes.size() / 4) GiveUpDecoding();
}

unsigned DLL_CALLCONV ReadProc(void* buffer, unsigned size, unsigned count, fi_handle handle) {
  auto& source = *static_cast<ByteSource*>(handle);
  const std::uint64_t wanted = std::uint64_t{size} * count;
  if (wanted == 0) return 0;
  const std::size_t left = Stopping() ? 0 : source.bytes.size() - source.at;
  const std::size_t given = std::min<std::uint64_t>(wanted, left);
  std::memcpy(buffer, source.bytes.data() + source.at, given);
  source.at += given;
  if (given < wanted) source.endedWithin = true;
  if (given == 0) source.endedBefore = true;
  if (given == 0) CountVainCall(source);
  return static_cast<unsigned>(given / size);
}

// A place behind the end is one, as in a file; reads find nothing there.
int DLL_CALLCONV SeekProc(fi_handle handle, long offset, int origin) {
  auto& source = *static_cast<ByteSource*>(handle);
  const std::size_t from = origin == SEEK_SET ? 0 : origin == SEEK_CUR ? source.at : source.bytes.size();
  long place = 0;
  if (__builtin_add_overflow(static_cast<long>(from), offset, &place) || place < 0) return -1;
  if (static_cast<std::size_t>(place) < source.at) CountVainCall(source);
  source.at = std::min(static_cast<std::size_t>(place), source.bytes.size());
  if (static_cast<std::size_t>(place) > source.bytes.size()) source.endedWithin = true;
  return 0;
}
long DLL_CALLCONV TellProc(fi_handle handle) {
  return static_cast<long>(static_cast<ByteSource*>(handle)->at);
}
unsigned DLL_CALLCONV NoWriteProc(void*, unsigned, unsigned, fi_handle) { return 0; }

// Processor time that a file of so many bytes, and pixels of so many, may take.
std::chrono::milliseconds Patience(double fileBytes, double pixelBytes) {
  return std::chrono::milliseconds(500 + static_cast<long>(1e-3 * fileBytes + 1e-5 * pixelBytes));
}

// How a format's plugin reads, and the most bytes of pixels that a byte of a file may become.
struct FormatTraits {
  bool readsAhead;  // in blocks that may be longer than the file
  double ratio;
};
FormatTraits TraitsOf(FREE_IMAGE_FORMAT format) {
  switch (format) {
    case FIF_PBM:
    case FIF_PGM:
    case FIF_PPM:
    case FIF_PBMRAW:
    case FIF_PGMRAW:
    case FIF_PPMRAW:
    case FIF_PFM:
      return {false, 1};
    case FIF_JPEG:
    case FIF_PNG:
    case FIF_JNG:
    case FIF_MNG:
    case FIF_J2K:
    case FIF_JP2:
    case FIF_WEBP:
    case FIF_JXR:
    case FIF_RAW:
    case FIF_TARGA:
    case FIF_PCX:
      return {true, 4096};
    case FIF_TIFF:
      return {false, 4096};
    default:
      return {false, 1024};  // runs of equal pixels
  }
}

// JPEG 2000's library shows what there is of a picture, and always looks for one more box.
bool BoxesAreWhole(std::span<const std::uint8_t> bytes) {
  const auto number = [&](std::size_t at) {
    return std::uint64_t{bytes[at]} << 24 | bytes[at + 1] << 16 | bytes[at + 2] << 8 | bytes[at + 3];
  };
  bool hasCodes = false;
  while (bytes.size() >= 8) {
    hasCodes = hasCodes || std::memcmp(bytes.data() + 4, "jp2c", 4) == 0;
    std::uint64_t length = number(0);
    if (length == 0) length = bytes.size();
    if (length == 1 && bytes.size() >= 16) length = number(8) << 32 | number(12);
    if (length < 8 || length > bytes.size()) return false;
    bytes = bytes.subspan(length);
  }
  return hasCodes;
}

// The next two plugins read blocks, of which the last keeps the bytes of the one before where the file ends.
// They are followed through their runs, without the colours.
std::size_t Number16(std::span<const std::uint8_t> bytes, std::size_t at) {
  return bytes[at] | bytes[at + 1] << 8;
}

bool PcxIsWhole(std::span<const std::uint8_t> bytes) {
  constexpr std::size_t kHeader = 128;
  if (bytes.size() < kHeader) return false;
  if (Number16(bytes, 8) < Number16(bytes, 4) || Number16(bytes, 10) < Number16(bytes, 6)) return false;
  const std::size_t width = Number16(bytes, 8) - Number16(bytes, 4) + 1, bits = bytes[3];
  const std::size_t rows = Number16(bytes, 10) - Number16(bytes, 6) + 1, planes = bytes[65];
  const std::size_t wanted = rows * planes * std::max(Number16(bytes, 66), (width * bits + 7) / 8);
  std::size_t at = kHeader, got = 0;
  for (; got < wanted && at < bytes.size(); ++at) {
    const bool isRun = bytes[2] == 1 && bytes[at] >= 0xC0;
    got += isRun ? bytes[at] & 0x3FU : 1;
    at += isRun;
  }
  return got >= wanted && at <= bytes.size();
}

bool TargaIsWhole(std::span<const std::uint8_t> bytes) {
  constexpr std::size_t kHeader = 18;
  if (bytes.size() < kHeader) return false;
  const std::size_t pixelBytes = (bytes[16] + 7U) / 8;
  const std::size_t wanted = Number16(bytes, 12) * Number16(bytes, 14);
  std::size_t at = kHeader + bytes[0] + (bytes[1] == 0 ? 0 : Number16(bytes, 5) * ((bytes[7] + 7U) / 8));
  if (bytes[2] < 8) return at + wanted * pixelBytes <= bytes.size();
  for (std::size_t got = 0; got < wanted;) {
    if (at >= bytes.size()) return false;
    const std::size_t length = (bytes[at] & 0x7FU) + 1;
    at += 1 + (bytes[at] >= 0x80 ? 1 : length) * pixelBytes;
    got += length;
  }
  return at <= bytes.size();
}

// The TIFF library makes up the rest of a JPEG stream that ends early, and warns.
thread_local bool streamEndedEarly = false;
void NoteEarlyEnd(const char*, const char* format, va_list arguments) {
  char text[200] = {};
  std::vsnprintf(text, sizeof text, format, arguments);
  if (std::strstr(text, "remature end") != nullptr) streamEndedEarly = true;
}

bool EndedEarly(FREE_IMAGE_FORMAT format, const ByteSource& source) {
  if (format == FIF_PCX) return !PcxIsWhole(source.bytes);
  if (format == FIF_TARGA) return !TargaIsWhole(source.bytes);
  if (format == FIF_JP2) return !BoxesAreWhole(source.bytes);
  if (format == FIF_TIFF && streamEndedEarly) return true;
  return TraitsOf(format).readsAhead ? source.endedBefore : source.endedWithin;
}

// Looks at the header alone, where the plugin can, for the size that it claims. Limits what reading the rest
// may take.
bool IsPlausible(FREE_IMAGE_FORMAT format, FreeImageIO& io, ByteSource& source) {
  constexpr double kSmall = 0x1p26;  // bytes that are there at once, whatever the file
  const auto size = static_cast<double>(source.bytes.size());
  const FormatTraits traits = TraitsOf(format);
  double most = kSmall + 600 * size;
  auto memory = static_cast<std::size_t>(0x1p27 + 4 * most);
  LimitDecoder(Patience(size, most), std::size_t{1} << 30);
  if (FreeImage_FIFSupportsNoPixels(format) != 0) {
    const Bitmap header(FreeImage_LoadFromHandle(format, &io, &source, FIF_LOAD_NOPIXELS));
    if (!header) return false;
    const double bits = static_cast<double>(FreeImage_GetWidth(header.get())) *
                        FreeImage_GetHeight(header.get()) * FreeImage_GetBPP(header.get());
    most = bits / 8;
    if (most > (traits.ratio == 1 ? size : kSmall + traits.ratio * size)) return false;
    memory = static_cast<std::size_t>(0x1p29 + 12 * most);
  }
  LimitDecoder(Patience(size, most), memory);
  source = {source.bytes};
  return true;
}

PictureProblem DecodeWithFreeImage(std::span<const std::uint8_t> bytes, ImageBuffer& image) {
  const SilentTiff silence;
  TIFFSetWarningHandler(NoteEarlyEnd);
  streamEndedEarly = false;
  FreeImageIO io = {ReadProc, NoWriteProc, SeekProc, TellProc};
  ByteSource source = {bytes};
  LimitDecoder(Patience(static_cast<double>(bytes.size()), 0), std::size_t{1} << 30);
  const FREE_IMAGE_FORMAT format = FreeImage_GetFileTypeFromHandle(&io, &source, 0);
  if (format == FIF_UNKNOWN || FreeImage_FIFSupportsReading(format) == 0)
    return PictureProblem::kUnknownFormat;
  source = {bytes};
  if (!IsPlausible(format, io, source)) return PictureProblem::kDamaged;
  const Bitmap bitmap(FreeImage_LoadFromHandle(format, &io, &source, 0));
  if (!bitmap || EndedEarly(format, source)) return PictureProblem::kDamaged;
  // FreeImage takes the first row of a PFM file for the top one, but the format starts at the bottom.
  if (format == FIF_PFM) FreeImage_FlipVertical(bitmap.get());
  return CopyBitmap(image, bitmap.get()) ? PictureProblem::kSound : PictureProblem::kUnsupported;
}

// A regular file that is open, or what is in the way of it.
struct OpenFile {
  explicit OpenFile(const char* path) : number(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
    struct stat status = {};
    if (number < 0)
      problem = errno == ENOENT || errno == ENOTDIR ? PictureProblem::kMissing : PictureProblem::kUnreadable;
    else if (fstat(number, &status) != 0 || !S_ISREG(status.st_mode))
      problem = PictureProblem::kUnreadable;
    size = static_cast<std::size_t>(status.st_size);
  }
  ~OpenFile() {
    if (number >= 0) close(number);
  }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  int number;
  std::size_t size = 0;
  PictureProblem problem = PictureProblem::kSound;
};

bool ReadAll(int file, std::vector<std::uint8_t>& bytes) {
  constexpr std::size_t kBlock = std::size_t{1} << 24;
  for (std::size_t at = 0; at < bytes.size();) {
    if (Stopping()) return false;
    const std::size_t size = std::min(kBlock, bytes.size() - at);
    const ssize_t got = pread(file, bytes.data() + at, size, static_cast<off_t>(at));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) bytes.resize(at);  // it has become shorter
    at += static_cast<std::size_t>(got);
  }
  return true;
}

PictureProblem DecodeFile(const DecoderJob& job, ImageBuffer& image) {
  try {
    std::vector<std::uint8_t> bytes(job.size);
    if (!ReadAll(job.file, bytes)) return PictureProblem::kUnreadable;
    image.allowPacked = job.allowPacked;
    settings.format = job.format;  // the child may be older than the scene's text
    return DecodePicture(bytes, image);
  } catch (const std::bad_alloc&) {
    return PictureProblem::kNoMemory;
  }
}

PictureProblem ReadPicture(ImageBuffer& image, const std::string& path) {
  const OpenFile file(path.c_str());
  if (file.problem != PictureProblem::kSound) return file.problem;
  const DecoderJob job = {DecodeFile, file.number, file.size, image.allowPacked, settings.format};
  try {
    if (const auto result = DecodeInChild(job, image)) return *result;
    return DecodeFile(job, image);
  } catch (const std::bad_alloc&) {
    image.width = image.height = 0;
    return PictureProblem::kNoMemory;
  }
}

}  // namespace

PictureProblem DecodePicture(std::span<const std::uint8_t> bytes, ImageBuffer& image) {
  if (!IsExr(bytes)) return DecodeWithFreeImage(bytes, image);
  const auto size = static_cast<double>(bytes.size());
  LimitDecoder(Patience(size, 0x1p26 + 100 * size), static_cast<std::size_t>(0x1p29 + 6000 * size));
  const bool allowPacked = image.allowPacked;
  const PictureProblem problem = DecodeExr(bytes, image);
  if (problem != PictureProblem::kSound || image.channels != 3 || !allowPacked) return problem;
  PackFloats(image);
  return problem;
}

// The first row of the buffer is the bottom of the picture in every format, which the content tells and not
// the name. image.fileName is only read. A failure leaves the buffer unloaded: as it was, or, when memory
// does not suffice, without a size.
bool LoadImage(ImageBuffer& image, const std::string& path) {
  image.loaded = false;
  image.problem = ReadPicture(image, path);
  image.loaded = image.problem == PictureProblem::kSound;
  return image.loaded;
}

std::string_view ProblemText(PictureProblem problem) {
  switch (problem) {
    case PictureProblem::kSound:
      return "is read";
    case PictureProblem::kMissing:
      return "cannot be found";
    case PictureProblem::kUnreadable:
      return "cannot be opened for reading";
    case PictureProblem::kUnknownFormat:
      return "is of no known format";
    case PictureProblem::kUnsupported:
      return "has pixels of a kind that is not read";
    case PictureProblem::kDamaged:
      return "is damaged or cut off";
    case PictureProblem::kNoMemory:
      return "takes more memory than there is";
    case PictureProblem::kStopped:
      break;
  }
  return "is not read to its end";
}

void StartImageFiles() {
  FreeImage_Initialise(0);
  StartDecoders();
}
void StopImageFiles() {
  StopDecoders();
  FreeImage_DeInitialise();
}

}  // namespace zp
