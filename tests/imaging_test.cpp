// Pictures in memory and on disk, and the rays of the camera.

#include "imaging/imaging.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <thread>

#include "core/console.h"
#include "core/random.h"
#include "core/tables.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

namespace zp {
namespace {

namespace fs = std::filesystem;

std::vector<char> Bytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}
bool StartsWith(const std::vector<char>& bytes, std::string_view magic) {
  return bytes.size() >= magic.size() && std::memcmp(bytes.data(), magic.data(), magic.size()) == 0;
}

class ImageFiles : public testing::Test {
 protected:
  void SetUp() override {
    StartImageFiles();
    FillExponentTable();
    std::string pattern = (fs::temp_directory_path() / "imagingXXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folder = pattern;
    FailedSaves(true);
  }
  void TearDown() override {
    fs::remove_all(folder);
    StopImageFiles();
  }
  std::string Path(std::string_view name) const { return (folder / name).string(); }
  std::ptrdiff_t FileCount() const { return std::distance(fs::directory_iterator(folder), {}); }

  // A picture of flat 64 x 32 blocks: formats that compress with loss keep their middles.
  ImageBuffer Blocks(std::string_view name, int channels = 3) const {
    ImageBuffer image;
    Allocate(image, 128, 128, channels, 32, false);
    for (int y = 0; y < 128; ++y)
      for (int x = 0; x < 128; ++x)
        WritePixel(image, BlockColor(x, y), static_cast<std::size_t>(y * 128 + x));
    image.fileName = Path(name);
    return image;
  }
  static Vec3 BlockColor(int x, int y) {
    const float column = x < 64 ? 0.2f : 0.8f;
    return {column, static_cast<float>(y / 32) * 0.25f + 0.1f, 0.4f};
  }

  fs::path folder;
};

struct FormatCase {
  std::string_view extension;
  std::string_view magic;  // first bytes of the file
  float tolerance;
};

// The rows come back bottom first. The eight blocks differ, so that a turn or a mirror image shows.
TEST_F(ImageFiles, EveryFormatRoundTrips) {
  const FormatCase cases[] = {
      {".bmp", "BM", 0.004f},
      {".exr", "\x76\x2f\x31\x01", 0.001f},
      {".hdr", "#?RADIANCE", 0.008f},
      {".ico", std::string_view("\0\0\1\0", 4), 0.004f},
      {".j2k", "\xff\x4f", 0.06f},
      {".jng", "\x8bJNG", 0.06f},
      {".jp2", std::string_view("\0\0\0\x0cjP", 6), 0.06f},
      {".jpg", "\xff\xd8", 0.06f},
      {".jpeg", "\xff\xd8", 0.06f},
      {".pfm", "PF", 0.0f},
      {".png", "\x89PNG", 0.004f},
      {".ppm", "P6", 0.004f},
      {".pbm", "P", 0.004f},
      {".pgm", "P", 0.004f},
      {".psd", "8BPS", 0.004f},
      {".tga", "", 0.004f},
      {".targa", "", 0.004f},
      {".tif", "II*", 0.004f},
      {".tiff", "II*", 0.004f},
      {".PNG", "\x89PNG", 0.004f},
      {".HDR", "#?RADIANCE", 0.008f},
  };
  for (const FormatCase& format : cases) {
    SCOPED_TRACE(format.extension);
    const ImageBuffer image = Blocks("picture" + std::string(format.extension));
    {
#ifdef __SANITIZE_ADDRESS__
      // FreeImage's own PSD writer loses a table of line lengths.
      if (format.extension == ".psd") __lsan_disable();
#endif
      const bool saved = SaveImage(image);
#ifdef __SANITIZE_ADDRESS__
      if (format.extension == ".psd") __lsan_enable();
#endif
      ASSERT_TRUE(saved);
    }
    EXPECT_TRUE(StartsWith(Bytes(image.fileName), format.magic));
    for (const bool allowPacked : {true, false}) {
      ImageBuffer back;
      back.allowPacked = allowPacked;
      back.fileName = image.fileName;
      if (!LoadImage(back, image.fileName)) {
        ADD_FAILURE() << "not read";
        break;
      }
      EXPECT_TRUE(back.loaded);
      ASSERT_EQ(back.width, 128);
      ASSERT_EQ(back.height, 128);
      const bool isFloat = back.bits == 32;
      EXPECT_EQ(back.packed, isFloat && allowPacked);
      const float tolerance = format.tolerance + (back.packed ? 0.004f : 0.0f);
      for (const int y : {16, 48, 80, 112})
        for (const int x : {32, 96}) {
          const Vec3 pixel = ReadPixel(back, static_cast<std::size_t>((127 - y) * 128 + x));
          for (int c = 0; c < 3; ++c) EXPECT_NEAR(pixel[c], BlockColor(x, y)[c], tolerance) << x << " " << y;
        }
    }
  }
  EXPECT_EQ(FailedSaves(false), 0);
}

// XPM files are the one format with a palette: the eight colours are in the file, and what is read back are
// their numbers as grey levels, bottom row first.
TEST_F(ImageFiles, XpmReadsBackAsColorNumbers) {
  const ImageBuffer image = Blocks("picture.xpm");
  ASSERT_TRUE(SaveImage(image));
  const std::vector<char> bytes = Bytes(image.fileName);
  const std::string text(bytes.begin(), bytes.end());
  EXPECT_TRUE(text.starts_with("/* XPM */"));
  EXPECT_NE(text.find("#331966"), text.npos);  // 0.2, 0.1, 0.4
  EXPECT_NE(text.find("#ccd866"), text.npos);  // 0.8, 0.85, 0.4
  ImageBuffer back;
  ASSERT_TRUE(LoadImage(back, image.fileName));
  for (const int y : {16, 48, 80, 112})
    for (const int x : {32, 96}) {
      const std::size_t pixel = static_cast<std::size_t>((127 - y) * 128 + x);
      const int number = y / 32 * 2 + x / 64;  // in the order in which the colours are met
      for (std::size_t c = 0; c < 3; ++c) EXPECT_EQ(back.bytePixels[3 * pixel + c], number);
    }
}

// Formats that only read, or cannot hold the bitmap, and names that match nothing.
TEST_F(ImageFiles, UnwritableNamesFailAndAreCounted) {
  const std::string_view names[] = {"a.cut", "a.g3",  "a.gif", "a.iff", "a.koa",     "a.mng",  "a.pcd",
                                    "a.pct", "a.ras", "a.raw", "a.sgi", "a.wap",     "a.wbmp", "a.xbm",
                                    "a.Hdr", "a.Png", "a",     "a.txt", "none/a.png"};
  for (const std::string_view name : names) EXPECT_FALSE(SaveImage(Blocks(name))) << name;
  EXPECT_FALSE(SaveImage(Blocks("four.hdr", 4)));
  ImageBuffer nothing;
  nothing.fileName = Path("nothing.png");
  EXPECT_FALSE(SaveImage(nothing));
  EXPECT_EQ(FailedSaves(true), static_cast<int>(std::size(names)) + 2);
  ImageBuffer unnamed = Blocks("");
  unnamed.fileName.clear();
  EXPECT_FALSE(SaveImage(unnamed));
  EXPECT_EQ(FailedSaves(false), 0);
  EXPECT_EQ(FileCount(), 0);
}

TEST_F(ImageFiles, NameIsSearchedAnywhereAndLaterRowsGetTheirTry) {
  EXPECT_TRUE(SaveImage(Blocks("a.png.tmp")));
  EXPECT_TRUE(StartsWith(Bytes(Path("a.png.tmp")), "\x89PNG"));
  // A GIF file holds no 24 bits, a BMP file no floats: the next row that matches takes over.
  EXPECT_TRUE(SaveImage(Blocks("a.gif.png")));
  EXPECT_TRUE(StartsWith(Bytes(Path("a.gif.png")), "\x89PNG"));
  EXPECT_TRUE(SaveImage(Blocks("a.bmp.hdr")));
  EXPECT_TRUE(StartsWith(Bytes(Path("a.bmp.hdr")), "#?RADIANCE"));
  EXPECT_EQ(FileCount(), 3);
}

TEST_F(ImageFiles, FailingSaveKeepsTheOldFile) {
  ImageBuffer image = Blocks("kept.png");
  ASSERT_TRUE(SaveImage(image));
  const std::vector<char> before = Bytes(image.fileName);
  for (float& v : image.floatPixels) v = 1 - v;
  // A full disk: files may not grow past a few bytes.
  const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
  const rlimit small = {16, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  bool saved[4] = {};
  int next = 0;
  for (const char* name : {"kept.png", "new.hdr", "new.bmp", "new.tif"}) {
    image.fileName = Path(name);
    saved[next++] = SaveImage(image);
  }
  setrlimit(RLIMIT_FSIZE, &limit);
  std::signal(SIGXFSZ, oldHandler);
  for (const bool s : saved) EXPECT_FALSE(s);
  EXPECT_EQ(Bytes(Path("kept.png")), before);
  EXPECT_EQ(FileCount(), 1);
  image.fileName = Path("kept.png");
  EXPECT_TRUE(SaveImage(image));
  EXPECT_NE(Bytes(image.fileName), before);
  // A folder in the way stays, with what is in it.
  fs::create_directory(Path("folder.png"));
  image.fileName = Path("folder.png");
  EXPECT_FALSE(SaveImage(image));
  EXPECT_TRUE(fs::is_directory(image.fileName));
  // What a link leads to is written; the link stays.
  fs::create_symlink("kept.png", Path("link.png"));
  image.fileName = Path("link.png");
  std::ofstream(Path("kept.png")) << "old";
  EXPECT_TRUE(SaveImage(image));
  EXPECT_TRUE(fs::is_symlink(image.fileName));
  EXPECT_TRUE(StartsWith(Bytes(Path("kept.png")), "\x89PNG"));
  EXPECT_EQ(FileCount(), 3);
}

TEST_F(ImageFiles, FloatsBecomeBytes) {
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const std::pair<float, int> cases[] = {{1.0f, 255},  {0.999f, 254}, {0.0f, 0},  {0.5f, 127},  {1.001f, 255},
                                         {1e30f, 255}, {inf, 255},    {-1.0f, 1}, {-0.001f, 0}, {nan, 0},
                                         {-1e30f, 0},  {-inf, 0},     {-2.0f, 2}, {0.25f, 63},  {-0.5f, 129}};
  for (const int bits : {32, 64}) {
    ImageBuffer image;
    Allocate(image, static_cast<int>(std::size(cases)), 1, 3, bits, false);
    for (std::size_t i = 0; i < std::size(cases); ++i) WritePixel(image, kWhite * cases[i].first, i);
    image.fileName = Path("bytes.png");
    ASSERT_TRUE(SaveImage(image));
    ImageBuffer back;
    ASSERT_TRUE(LoadImage(back, image.fileName));
    for (std::size_t i = 0; i < std::size(cases); ++i)
      EXPECT_EQ(back.bytePixels[3 * i], cases[i].second) << cases[i].first << " of " << bits << " bits";
  }
}

// Every component depth reaches a float file and an integer file by its own rule.
TEST_F(ImageFiles, EveryDepthIsWritten) {
  for (const int bits : {1, 8, 16, 32, 64}) {
    SCOPED_TRACE(bits);
    ImageBuffer image;
    Allocate(image, 2, 1, 3, bits, false);
    if (bits == 1) image.bitPixels[0] = 0b001101;
    WritePixel(image, {1, 0, 0.5f}, 0);
    WritePixel(image, {1, 0, 0}, 1);
    const Vec3 expected = bits == 1 ? Vec3{1, 0, 1} : Vec3{1, 0, 0.5f};
    image.fileName = Path("depth.pfm");
    ASSERT_TRUE(SaveImage(image));
    ImageBuffer back;
    back.allowPacked = false;
    ASSERT_TRUE(LoadImage(back, image.fileName));
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(ReadPixel(back, 0)[c], expected[c], 0.002f);
    EXPECT_EQ(ReadPixel(back, 1), (Vec3{1, 0, 0}));
    image.fileName = Path("depth.png");
    ASSERT_TRUE(SaveImage(image));
    ASSERT_TRUE(LoadImage(back, image.fileName));
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(ReadPixel(back, 0)[c], expected[c], 0.004f);
  }
}

TEST_F(ImageFiles, OtherChannelCounts) {
  // Three elements a pixel are taken from a picture of four: its colours run away from the grid.
  ImageBuffer image;
  Allocate(image, 4, 1, 4, 8, false);
  for (std::size_t i = 0; i < 16; ++i) image.bytePixels[i] = static_cast<std::uint8_t>(10 * i);
  image.fileName = Path("four.png");
  ASSERT_TRUE(SaveImage(image));
  ImageBuffer back;
  ASSERT_TRUE(LoadImage(back, image.fileName));
  ASSERT_EQ(back.channels, 4);
  for (std::size_t p = 0; p < 4; ++p)
    for (std::size_t c = 0; c < 3; ++c) EXPECT_EQ(back.bytePixels[4 * p + c], 10 * (3 * p + c));
  // One channel fills all three of a float file, four keep their alpha.
  Allocate(image, 2, 2, 1, 32, false);
  image.floatPixels = {0.25f, 0.5f, 1, 2};
  image.fileName = Path("one.pfm");
  ASSERT_TRUE(SaveImage(image));
  back.allowPacked = false;
  ASSERT_TRUE(LoadImage(back, image.fileName));
  for (std::size_t p = 0; p < 4; ++p)  // the rows come back bottom first
    EXPECT_EQ(ReadPixel(back, p), kWhite * image.floatPixels[p ^ 2]);
  image.fileName = Path("one.png");  // reads no element past the fourth
  EXPECT_TRUE(SaveImage(image));
  Allocate(image, 1, 1, 4, 32, false);
  image.floatPixels = {0.25f, 0.5f, 1, 0.75f};
  image.fileName = Path("four.exr");
  ASSERT_TRUE(SaveImage(image));
  ASSERT_TRUE(LoadImage(back, image.fileName));
  EXPECT_EQ(back.floatPixels, image.floatPixels);
}

// Read by hand, as another program would: the buffer's first row is the top of both pictures.
TEST_F(ImageFiles, RowsOnDisk) {
  ImageBuffer image;
  Allocate(image, 1, 2, 3, 32, false);
  WritePixel(image, {4, 4, 4}, 0);
  WritePixel(image, {1, 1, 1}, 1);
  image.fileName = Path("rows.pfm");
  ASSERT_TRUE(SaveImage(image));
  // PFM is defined to store the bottom row first; its last 24 bytes are the two pixels.
  const std::vector<char> pfm = Bytes(image.fileName);
  float rows[2] = {};
  ASSERT_GE(pfm.size(), 24U);
  std::memcpy(&rows[0], pfm.data() + pfm.size() - 24, 4);
  std::memcpy(&rows[1], pfm.data() + pfm.size() - 12, 4);
  EXPECT_EQ(rows[0], 1.0f);
  EXPECT_EQ(rows[1], 4.0f);
  // Radiance stores the top row first: 4 = 128/256 * 2^(131-128).
  image.fileName = Path("rows.hdr");
  ASSERT_TRUE(SaveImage(image));
  const std::vector<char> hdr = Bytes(image.fileName);
  ASSERT_GE(hdr.size(), 8U);
  EXPECT_EQ(static_cast<std::uint8_t>(hdr[hdr.size() - 8]), 128);
  EXPECT_EQ(static_cast<std::uint8_t>(hdr[hdr.size() - 5]), 131);
}

// Files made by hand, whose four corners differ: what a viewer shows at the bottom left is the first pixel of
// the buffer. The format is that of the content, whatever the name says.
TEST_F(ImageFiles, BottomRowComesFirst) {
  const auto write = [&](const char* name, const std::string& content) {
    std::ofstream(Path(name), std::ios::binary) << content;
  };
  const auto words = [](std::initializer_list<float> values) {
    std::string text;
    for (const float value : values)
      for (int c = 0; c < 3; ++c) text.append(reinterpret_cast<const char*>(&value), sizeof value);
    return text;
  };
  // Greys: top row 4 3, bottom row 1 2; for bytes 255 times a quarter of them.
  write("corners.pfm", "PF\n2 2\n-1.0\n" + words({1, 2, 4, 3}));
  const std::string one = "\x80\x80\x80\x81", two = "\x80\x80\x80\x82", three = "\xc0\xc0\xc0\x82",
                    four = "\x80\x80\x80\x83";
  write("corners.hdr", "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y 2 +X 2\n" + four + three + one + two);
  write("corners.ppm", "P3\n2 2\n4\n4 4 4 3 3 3\n1 1 1 2 2 2\n");
  fs::copy_file(Path("corners.pfm"), Path("false.hdr"));
  fs::copy_file(Path("corners.hdr"), Path("false.pfm"));
  for (const char* name : {"corners.pfm", "corners.hdr", "corners.ppm", "false.hdr", "false.pfm"})
    for (const bool allowPacked : {true, false}) {
      SCOPED_TRACE(name);
      ImageBuffer image;
      image.allowPacked = allowPacked;
      image.fileName = name;
      ASSERT_TRUE(LoadImage(image, Path(name)));
      ASSERT_EQ(image.width, 2);
      ASSERT_EQ(image.height, 2);
      const float unit = ReadPixel(image, 0).x;
      EXPECT_GT(unit, 0.0f);
      const float expected[] = {1, 2, 4, 3};
      for (std::size_t i = 0; i < 4; ++i) EXPECT_NEAR(ReadPixel(image, i).x / unit, expected[i], 0.07f) << i;
    }
}

TEST_F(ImageFiles, SharedExponentPacking) {
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const Vec3 colors[] = {{1, 0.5f, 0.25f}, {0, 0, 0},      {1e-33f, 0, 0}, {1000, 1, 0.1f},
                         {-1, 2, 0},       {nan, 1, 0},    {inf, 0, 1},    {3.4e38f, 3.4e38f, 0},
                         {1e-30f, 0, 0},   {0.7f, 0.3f, 9}};
  ImageBuffer image;
  Allocate(image, static_cast<int>(std::size(colors)), 1, 3, 32, false);
  for (std::size_t i = 0; i < std::size(colors); ++i) WritePixel(image, colors[i], i);
  image.fileName = Path("packed.pfm");
  ASSERT_TRUE(SaveImage(image));
  ImageBuffer back;
  ASSERT_TRUE(LoadImage(back, image.fileName));
  ASSERT_TRUE(back.packed);
  EXPECT_EQ(PixelBytes(back), 4 * std::size(colors));
  const PackedPixel one = back.packedPixels[0];
  EXPECT_EQ(one.r, 128);
  EXPECT_EQ(one.g, 64);
  EXPECT_EQ(one.b, 32);
  EXPECT_EQ(one.exponent, 129);
  EXPECT_EQ(ReadPixel(back, 0), colors[0]);
  EXPECT_EQ(back.packedPixels[1].exponent, 0);
  EXPECT_EQ(back.packedPixels[2].exponent, 0);
  EXPECT_EQ(ReadPixel(back, 2), kBlack);
  EXPECT_EQ(ReadPixel(back, 4), (Vec3{0, 2, 0}));
  EXPECT_EQ(ReadPixel(back, 5), (Vec3{0, 1, 0}));
  EXPECT_GT(ReadPixel(back, 6).x, 1.6e38f);
  for (const std::size_t i : {0, 1, 3, 8, 9}) {
    const float largest = std::max({colors[i].x, colors[i].y, colors[i].z});
    for (int c = 0; c < 3; ++c) {  // truncated, by less than one of at least 128 steps
      EXPECT_LE(ReadPixel(back, i)[c], colors[i][c]);
      EXPECT_GE(ReadPixel(back, i)[c], colors[i][c] - largest / 128);
    }
  }
  // A packed picture can be written again.
  back.fileName = Path("again.pfm");
  ASSERT_TRUE(SaveImage(back));
  ImageBuffer again;
  ASSERT_TRUE(LoadImage(again, back.fileName));
  EXPECT_EQ(ReadPixel(again, 3), ReadPixel(back, 3));
}

TEST_F(ImageFiles, LoadingWhatIsNoPicture) {
  ImageBuffer image;
  Allocate(image, 2, 2, 3, 32, false);
  image.loaded = true;
  EXPECT_FALSE(LoadImage(image, Path("missing.png")));
  EXPECT_FALSE(image.loaded);
  EXPECT_FALSE(LoadImage(image, folder.string()));
  std::ofstream(Path("text.png")) << "no picture\n";
  EXPECT_FALSE(LoadImage(image, Path("text.png")));
  ASSERT_TRUE(SaveImage(Blocks("cut.png")));
  fs::resize_file(Path("cut.png"), 40);
  EXPECT_FALSE(LoadImage(image, Path("cut.png")));
  std::ofstream(Path("bits.pbm")) << "P1\n2 1\n1 0\n";  // one bit a pixel is not supported
  EXPECT_FALSE(LoadImage(image, Path("bits.pbm")));
  EXPECT_FALSE(image.loaded);
  EXPECT_EQ(image.floatPixels.size(), 12U);
}

// The indices of a palette picture are its grey levels; 16 bits keep their components.
TEST_F(ImageFiles, LoadsPalettesAndWords) {
  std::ofstream(Path("grey.pgm")) << "P2\n3 1\n255\n0 128 255\n";
  ImageBuffer image;
  ASSERT_TRUE(LoadImage(image, Path("grey.pgm")));
  EXPECT_EQ(image.channels, 3);
  EXPECT_EQ(image.bytePixels, (std::vector<std::uint8_t>{0, 0, 0, 128, 128, 128, 255, 255, 255}));
  // A BMP file of 8 bits, 1 x 1, whose index 7 is red in the palette.
  std::string bmp("BM\0\0\0\0\0\0\0\0\x36\4\0\0\x28\0\0\0\1\0\0\0\1\0\0\0\1\0\x8\0", 30);
  bmp.resize(54 + 1024, '\0');
  bmp[54 + 7 * 4 + 2] = '\xff';
  bmp += std::string("\7\0\0\0", 4);
  std::ofstream(Path("red.bmp"), std::ios::binary) << bmp;
  ASSERT_TRUE(LoadImage(image, Path("red.bmp")));
  EXPECT_EQ(image.bytePixels, (std::vector<std::uint8_t>{7, 7, 7}));
  std::ofstream(Path("words.ppm")) << "P3\n1 1\n65535\n65535 256 7\n";
  ASSERT_TRUE(LoadImage(image, Path("words.ppm")));
  EXPECT_EQ(image.wordPixels, (std::vector<std::uint16_t>{65535, 256, 7}));
  EXPECT_FLOAT_EQ(ReadPixel(image, 0).x, 257.0f);
  std::ofstream(Path("words.pgm")) << "P2\n1 1\n65535\n300\n";
  ASSERT_TRUE(LoadImage(image, Path("words.pgm")));
  EXPECT_EQ(image.channels, 1);
  EXPECT_EQ(image.wordPixels, (std::vector<std::uint16_t>{300}));
}

TEST(ImageBuffer, WriteAndReadByDepth) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  ImageBuffer image;
  Allocate(image, 2, 1, 3, 16, false);
  WritePixel(image, {1, -1, nan}, 1);
  EXPECT_FLOAT_EQ(ReadPixel(image, 1).x, 257.0f);
  EXPECT_EQ(image.wordPixels, (std::vector<std::uint16_t>{0, 0, 0, 65535, 0, 0}));
  Allocate(image, 2, 1, 3, 8, false);
  EXPECT_TRUE(image.wordPixels.empty());
  WritePixel(image, {0.999f, 5, -5}, 0);
  EXPECT_EQ(image.bytePixels, (std::vector<std::uint8_t>{254, 255, 0, 0, 0, 0}));
  for (const int bits : {32, 64}) {
    Allocate(image, 2, 1, 4, bits, false);
    WritePixel(image, {-3, 1e20f, 0.1f}, 1);
    EXPECT_EQ(ReadPixel(image, 1), (Vec3{-3, 1e20f, 0.1f}));
    EXPECT_EQ(ReadPixel(image, 0), kBlack);
    WritePixel(image, kWhite, 2);  // behind the last
    EXPECT_EQ(ReadPixel(image, 2), kBlack);
  }
  Allocate(image, 3, 1, 1, 8, false);
  WritePixel(image, {1, 0, 0}, 1);  // leaves its neighbour alone
  EXPECT_EQ(ReadPixel(image, 1), kWhite);
  EXPECT_EQ(ReadPixel(image, 2), kBlack);
  Allocate(image, 33, 2, 1, 1, false);
  EXPECT_EQ(image.bitPixels.size(), 3U);
  image.bitPixels[2] = 1;
  EXPECT_EQ(ReadPixel(image, 64), kWhite);
  EXPECT_EQ(ReadPixel(image, 65), kBlack);
}

TEST(ImageBuffer, AllocateNeedsPositiveSizes) {
  ImageBuffer image;
  Allocate(image, 4, 5, 3, 32, false);
  EXPECT_EQ(PixelBytes(image), 240U);
  WritePixel(image, kWhite, 0);
  for (const auto& [w, h, c, b] :
       {std::array{0, 1, 3, 32}, std::array{1, -1, 3, 32}, std::array{1, 1, 0, 32}, std::array{1, 1, 3, 0}}) {
    image.loaded = true;
    Allocate(image, w, h, c, b, false);
    EXPECT_FALSE(image.loaded);
    EXPECT_EQ(image.width, 4);
    EXPECT_EQ(ReadPixel(image, 0), kWhite);
  }
  Allocate(image, 4, 5, 3, 32, false);
  EXPECT_EQ(ReadPixel(image, 0), kBlack);
  const int most = std::numeric_limits<int>::max();
  EXPECT_THROW(Allocate(image, most, most, 4, 64, false), std::bad_alloc);
  EXPECT_EQ(ReadPixel(image, 0), kBlack);
}

// In the pattern '#' stands for any digit.
bool Matches(std::string_view text, std::string_view pattern) {
  return std::equal(text.begin(), text.end(), pattern.begin(), pattern.end(),
                    [](char t, char p) { return p == '#' ? t >= '0' && t <= '9' : t == p; });
}

TEST(BeautyName, IsTheLocalTimeAndUnique) {
  // A second that no earlier camera of the process was made in.
  std::string first;
  std::time_t before = 0;
  for (int tries = 0; tries < 4 && !Matches(first, "beauty-########-######.hdr"); ++tries) {
    if (tries > 0) std::this_thread::sleep_until(std::chrono::system_clock::from_time_t(before + 1));
    before = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    first = DefaultBeautyName();
  }
  ASSERT_TRUE(Matches(first, "beauty-########-######.hdr")) << first;
  std::tm stamp = {};
  ASSERT_NE(strptime(first.c_str(), "beauty-%Y%m%d-%H%M%S", &stamp), nullptr);
  stamp.tm_isdst = -1;
  EXPECT_NEAR(std::difftime(std::mktime(&stamp), before), 0, 2);
  // The clock may tick between two calls, but not between all of them.
  std::vector<std::string> names = {first, DefaultBeautyName(), DefaultBeautyName(), DefaultBeautyName()};
  const auto numbered = [&](int number) {
    const std::string pattern = "beauty-########-######-" + std::to_string(number) + ".hdr";
    return std::any_of(names.begin(), names.end(), [&](const std::string& n) { return Matches(n, pattern); });
  };
  EXPECT_TRUE(numbered(2));
  std::sort(names.begin(), names.end());
  EXPECT_EQ(std::unique(names.begin(), names.end()), names.end());
  const Camera a, b;
  ASSERT_EQ(a.aovs.size(), 1U);
  EXPECT_TRUE(a.aovs[0].image.fileName.starts_with("beauty-"));
  EXPECT_NE(a.aovs[0].image.fileName, b.aovs[0].image.fileName);
}

class Cameras : public testing::Test {
 protected:
  void SetUp() override {
    SetConsoleQuiet(true);
    cameras.clear();
    cameras.emplace_back();
    CameraPose& pose = TheCamera().poses[0];
    pose.position = {1, 2, 3};
    pose.target = {1, 12, 3};
    pose.upVector = {0, 0, 7};
    pose.fieldOfView = 90;
    TheCamera().poseWritten[0] = true;
    TheCamera().width = 40;
    TheCamera().height = 20;
    TheCamera().sample = 4;
  }
  void TearDown() override {
    cameras.clear();
    SetConsoleQuiet(false);
    StartRandom(std::nullopt);
  }
  static Camera& TheCamera() { return cameras[0]; }
  static RayRecord Ray(int x, int y, std::uint32_t sample = 0) {
    RayRecord ray;
    MakePrimaryRay(TheCamera(), ray, x, y, sample);
    return ray;
  }
};

// At 90 degrees and 40 pixels the image plane is 20 pixels away; the view is along y, right is x, up is z.
TEST_F(Cameras, PinholeRaysPassThroughTheirPixel) {
  InitializeCameras();
  EXPECT_NEAR(TheCamera().poses[0].focalLength, 20, 1e-4f);
  EXPECT_FLOAT_EQ(TheCamera().poses[0].focusDistance, 10);
  EXPECT_FLOAT_EQ(TheCamera().inverseSample, 0.25f);
  for (const auto& [x, y] : {std::pair{0, 0}, {39, 0}, {0, 19}, {39, 19}, {20, 10}}) {
    float minX = 1e9f, maxX = -1e9f, minY = 1e9f, maxY = -1e9f;
    for (int i = 0; i < 400; ++i) {
      const RayRecord ray = Ray(x, y);
      EXPECT_EQ(ray.origin, (Vec3{1, 2, 3}));
      EXPECT_NEAR(Dot(ray.direction, ray.direction), 1, 1e-5f);
      // Back to the image plane: the pixel's own square, columns to the right, rows downwards.
      const float column = 20 + 20 * ray.direction.x / ray.direction.y;
      const float row = 10 - 20 * ray.direction.z / ray.direction.y;
      minX = std::min(minX, column), maxX = std::max(maxX, column);
      minY = std::min(minY, row), maxY = std::max(maxY, row);
    }
    EXPECT_NEAR(minX, x, 0.1f);
    EXPECT_NEAR(maxX, x + 1, 0.1f);
    EXPECT_NEAR(minY, y, 0.1f);
    EXPECT_NEAR(maxY, y + 1, 0.1f);
    EXPECT_GE(minX, static_cast<float>(x) - 1e-4f);
    EXPECT_LE(maxY, static_cast<float>(y) + 1.0001f);
  }
}

TEST_F(Cameras, FreshRay) {
  InitializeCameras();
  TheCamera().ior = 1.5f;
  pixelRotationTable[10 & 31][35 & 31] = {0.25f, 0.75f};
  RayRecord ray;
  ray.thread = 3;
  ray.depth = 7;
  ray.throughput = kBlack;
  ray.event = kEventGlossy;
  ray.shader = 5;
  ray.dimension = 8;
  MakePrimaryRay(TheCamera(), ray, 35, 10, 2);
  EXPECT_EQ(ray.thread, 3);
  EXPECT_EQ(ray.depth, 0);
  EXPECT_EQ(ray.throughput, kWhite);
  EXPECT_EQ(ray.event, kEventSpecular);
  EXPECT_EQ(ray.shader, kNone);
  EXPECT_EQ(ray.dimension, 0);
  EXPECT_EQ(ray.ior, 1.5f);
  EXPECT_EQ(ray.sampleWeight, 4);
  EXPECT_EQ(ray.rotation, (Vec2{0.25f, 0.75f}));
  const Vec3 direction = ray.direction;
  TheCamera().projection = static_cast<Projection>(2);
  ray.origin = {9, 9, 9};
  MakePrimaryRay(TheCamera(), ray, 0, 0, 0);
  EXPECT_EQ(ray.origin, (Vec3{9, 9, 9}));
  EXPECT_EQ(ray.direction, direction);
}

TEST_F(Cameras, SphericalRaysSpanTheSphere) {
  TheCamera().projection = Projection::kSpherical;
  TheCamera().width = 720;
  TheCamera().height = 360;
  TheCamera().poses[0].bokeh = 5;  // ignored
  InitializeCameras();
  const auto expectNear = [](const RayRecord& ray, Vec3 expected) {
    EXPECT_EQ(ray.origin, (Vec3{1, 2, 3}));
    EXPECT_NEAR(Dot(ray.direction, ray.direction), 1, 1e-5f);
    EXPECT_GT(Dot(ray.direction, expected), std::cos(0.02f));  // a pixel is half a degree wide
  };
  expectNear(Ray(360, 180), {0, 1, 0});   // the middle looks forward
  expectNear(Ray(540, 180), {1, 0, 0});   // right of it
  expectNear(Ray(180, 180), {-1, 0, 0});  // left of it
  expectNear(Ray(0, 180), {0, -1, 0});    // the edges look back
  expectNear(Ray(719, 180), {0, -1, 0});
  expectNear(Ray(100, 0), {0, 0, 1});
  expectNear(Ray(600, 359), {0, 0, -1});
}

// All rays of a lens meet at the focus point, and fill the cone evenly.
TEST_F(Cameras, LensRaysMeetAtTheFocus) {
  const float bokeh = 10 * kPi / 180;
  TheCamera().poses[0].bokeh = 10;
  TheCamera().width = TheCamera().height = 20001;  // so fine that a pixel's rays are all one
  TheCamera().aovs.clear();
  InitializeCameras();
  const int x = 15000, y = 4000;
  const Vec3 d = SafeNormalize(Vec3{x + 0.5f - 10000.5f, 10000.5f, 10000.5f - y - 0.5f});
  const Vec3 focus = Vec3{1, 2, 3} + 10 * d;
  int inner = 0, left = 0;
  const int count = 4000;
  const float half = 1 - 0.5f * (1 - std::cos(bokeh));
  for (int i = 0; i < count; ++i) {
    const RayRecord ray = Ray(x, y);
    const Vec3 toFocus = focus - ray.origin;
    EXPECT_LT(SafeLength(Cross(toFocus, ray.direction)), 0.003f);
    EXPECT_NEAR(SafeLength(toFocus), 10, 0.003f);
    EXPECT_NEAR(Dot(ray.direction, ray.direction), 1, 1e-4f);
    const float cosine = Dot(ray.direction, d);
    EXPECT_GT(cosine, std::cos(bokeh) - 1e-4f);
    inner += cosine > half;
    left += Dot(ray.direction, Perpendicular(d)) > 0;
  }
  // Half of the cap's area, and half of its turn: five standard deviations of 32.
  EXPECT_NEAR(inner, count / 2, 160);
  EXPECT_NEAR(left, count / 2, 160);
}

TEST_F(Cameras, LimitsOfSampleAndRegion) {
  for (const auto& [given, expected] : {std::pair{0, 1}, {-5, 1}, {1, 1}, {65535, 65535}, {65536, 65535}}) {
    TheCamera().sample = given;
    InitializeCameras();
    EXPECT_EQ(TheCamera().sample, expected);
    EXPECT_FLOAT_EQ(TheCamera().inverseSample, 1.0f / static_cast<float>(expected));
  }
  Camera& camera = TheCamera();
  EXPECT_EQ(camera.regionXMin, 0);
  EXPECT_EQ(camera.regionXMax, 40);
  EXPECT_EQ(camera.regionYMax, 20);
  camera.regionXMin = -3, camera.regionYMin = -4, camera.regionXMax = 1000, camera.regionYMax = 7;
  InitializeCameras();
  EXPECT_EQ(camera.regionXMin, 0);
  EXPECT_EQ(camera.regionYMin, 0);
  EXPECT_EQ(camera.regionXMax, 40);
  EXPECT_EQ(camera.regionYMax, 7);
  // A sensor past all memory: an error row, and nothing to render.
  camera.width = camera.height = std::numeric_limits<int>::max();
  camera.regionXMax = camera.regionYMax = 1048576;
  InitializeCameras();
  EXPECT_LE(camera.regionXMax, camera.regionXMin);
}

TEST_F(Cameras, PosesAndTheirInterpolation) {
  InitializeCameras();
  Camera& camera = TheCamera();
  // One pose makes a still camera, whichever it is.
  EXPECT_FALSE(camera.moving);
  EXPECT_EQ(camera.poses[1].position, camera.poses[0].position);
  EXPECT_EQ(camera.poses[1].fieldOfView, 90);
  std::swap(camera.poses[0], camera.poses[1]);
  std::swap(camera.poseWritten[0], camera.poseWritten[1]);
  camera.poses[0] = {};
  InitializeCameras();
  EXPECT_EQ(camera.poses[0].target, (Vec3{1, 12, 3}));

  camera.poseWritten[0] = true;
  CameraPose& close = camera.poses[1];
  close.position = {5, 2, 3};
  close.target = {5, 2, 13};
  close.fieldOfView = 50;
  close.bokeh = 2;
  camera.poses[0].upVector = {0, 0, 1};
  close.upVector = {1, 0, 0};
  InitializeCameras();
  EXPECT_TRUE(camera.moving);
  const CameraPose mid = CameraAtTime(camera, 0.25f);
  EXPECT_EQ(mid.position, (Vec3{2, 2, 3}));
  EXPECT_EQ(mid.target, (Vec3{2, 9.5f, 5.5f}));
  EXPECT_FLOAT_EQ(mid.fieldOfView, 80);
  EXPECT_FLOAT_EQ(mid.bokeh, 0.5f);
  EXPECT_NEAR(mid.upVector.x, std::sin(kPi / 8), 1e-6f);  // a quarter of the way along the arc
  EXPECT_NEAR(mid.upVector.z, std::cos(kPi / 8), 1e-6f);
  EXPECT_NEAR(mid.focalLength, 20 / std::tan(40 * kPi / 180), 1e-3f);
  const auto unit = [](Vec3 v) { return std::fabs(Dot(v, v) - 1) < 1e-5f; };
  EXPECT_TRUE(unit(mid.right) && unit(mid.forward) && unit(mid.up));
  EXPECT_NEAR(Dot(mid.right, mid.up), 0, 1e-6f);
  EXPECT_NEAR(Dot(mid.right, mid.forward), 0, 1e-6f);
  EXPECT_NEAR(Dot(Cross(mid.right, mid.forward), mid.up), 1, 1e-5f);  // right-handed
  EXPECT_EQ(mid.toWorld * Vec3({0, 1, 0}), mid.forward);
  // Pass i of 4 sees the instant (i + 0.5) / 4.
  close.bokeh = camera.poses[0].bokeh = 0;
  for (std::uint32_t i = 0; i < 4; ++i)
    EXPECT_FLOAT_EQ(Ray(20, 10, i).origin.x, 1 + 4 * (static_cast<float>(i) + 0.5f) / 4);
  // Opposite vectors are mixed in a straight line, through nothing.
  close.upVector = {0, 0, -1};
  EXPECT_EQ(CameraAtTime(camera, 0.5f).upVector, kBlack);
}

TEST_F(Cameras, DegeneratePosesStayFinite) {
  Camera& camera = TheCamera();
  camera.poses[0].upVector = {0, 5, 0};  // along the view
  InitializeCameras();
  EXPECT_EQ(camera.poses[0].right, kBlack);
  EXPECT_TRUE(IsFinite(Ray(3, 3).direction));
  camera.poses[0].target = camera.poses[0].position;
  InitializeCameras();
  EXPECT_EQ(camera.poses[0].forward, kBlack);
  EXPECT_FLOAT_EQ(camera.poses[0].focusDistance, 1e-5f);
  EXPECT_TRUE(IsFinite(Ray(3, 3).direction));
  camera.poses[0].target = {1, 12, 3};
  camera.poses[0].upVector = {0, 0, 1};
  camera.poses[0].fieldOfView = 0;
  InitializeCameras();
  EXPECT_NEAR(Ray(3, 3).direction.y, 1, 1e-6f);
}

TEST_F(Cameras, ReportRows) {
  SetConsoleQuiet(false);
  testing::internal::CaptureStdout();
  InitializeCameras();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "camera sensor width                40 [ pixels ]\n"
            "camera sensor height               20 [ pixels ]\n"
            "camera memory                  0.0092 [ M bytes ]\n" +
                std::string(80, '_') + "\n\n");
}

TEST_F(ImageFiles, FinalizeCamerasWritesEveryAov) {
  cameras.clear();
  for (int i = 0; i < 2; ++i) {
    Camera& camera = cameras.emplace_back();
    camera.width = camera.height = 4;
    camera.aovs[0].image.fileName = Path("beauty" + std::to_string(i) + ".hdr");
    camera.aovs.resize(3);
    camera.aovs[1].image.fileName = Path("depth" + std::to_string(i) + ".png");
  }
  SetConsoleQuiet(true);
  InitializeCameras();
  SetConsoleQuiet(false);
  cameras[1].aovs[1].image.fileName = Path("no/such/folder.png");
  FinalizeCameras();
  EXPECT_TRUE(cameras.empty());
  EXPECT_EQ(FileCount(), 3);
  EXPECT_EQ(FailedSaves(true), 1);  // an AOV without a name is no failure
}

}  // namespace
}  // namespace zp
