// Pictures in memory and on disk, and the rays of the camera.

#include "imaging/imaging.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <numeric>
#include <set>
#include <tuple>

#include "core/console.h"
#include "core/random.h"
#include "core/settings.h"
#include "core/stop.h"
#include "core/tables.h"
#include "imaging/frame_noise.h"
#include "imaging/frame_state.h"
#include "surroundings.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

namespace zp {
namespace {

namespace fs = std::filesystem;

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

bool StartsWith(const fs::path& path, std::string_view magic) { return ReadFile(path).starts_with(magic); }

// A picture of one row.
ImageBuffer MakeRow(int channels, int bits, const std::vector<Vec3>& colors) {
  ImageBuffer image;
  Allocate(image, static_cast<int>(colors.size()), 1, channels, bits, false);
  for (std::size_t i = 0; i < colors.size(); ++i) WritePixel(image, colors[i], i);
  return image;
}

class ImageFiles : public testing::Test {
 protected:
  void SetUp() override {
    StartImageFiles();
    FillExponentTable();
    TakeFailedSaves();
  }
  void TearDown() override { StopImageFiles(); }
  std::string Path(std::string_view name) const { return folder / name; }
  std::ptrdiff_t FileCount() const { return std::distance(fs::directory_iterator(folder.path), {}); }

  void Write(std::string_view name, const std::string& content) const { WriteFile(Path(name), content); }
  static ImageBuffer Load(const std::string& path, bool allowPacked = false) {
    ImageBuffer image;
    image.allowPacked = allowPacked;
    EXPECT_TRUE(LoadImage(image, path)) << path;
    return image;
  }
  ImageBuffer SaveAndLoad(ImageBuffer image, std::string_view name, bool allowPacked = false) const {
    image.fileName = Path(name);
    EXPECT_TRUE(SaveImage(image)) << name;
    return Load(image.fileName, allowPacked);
  }

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

  const TemporaryFolder folder;
};

// The rows come back bottom first. The eight blocks differ, so that a turn or a mirror image shows. XPM files
// have a palette: what is read back are the numbers of the colours, in the order in which they are met. Where
// a name mentions several formats the first takes it that can: GIF files hold no 24 bits, BMP files no
// floats. None of the libraries has anything to say about it.
TEST_F(ImageFiles, EveryFormatRoundTrips) {
  testing::internal::CaptureStderr();
  struct Format {
    std::string_view magic;  // the first bytes of the file
    float tolerance;
    std::vector<std::string> extensions;
  };
  const Format formats[] = {{"", 0.004f, {".tga", ".targa"}},
                            {"/* XPM */", 1e-6f, {".xpm"}},
                            {"#?RADIANCE", 0.008f, {".hdr", ".HDR", ".bmp.hdr"}},
                            {"8BPS", 0.004f, {".psd"}},
                            {"BM", 0.004f, {".bmp"}},
                            {"II*", 0.004f, {".tif", ".tiff"}},
                            {"P", 0.004f, {".pbm", ".pgm"}},
                            {"P6", 0.004f, {".ppm"}},
                            {"PF", 0.0f, {".pfm"}},
                            {"\x76\x2f\x31\x01", 0.001f, {".exr"}},
                            {"\x89PNG", 0.004f, {".png", ".PNG", ".gif.png", ".png.tmp"}},
                            {"\x8bJNG", 0.06f, {".jng"}},
                            {"\xff\x4f", 0.06f, {".j2k"}},
                            {"\xff\xd8", 0.06f, {".jpg", ".jpeg"}},
                            {std::string_view("\0\0\0\x0cjP", 6), 0.06f, {".jp2"}},
                            {std::string_view("\0\0\1\0", 4), 0.004f, {".ico"}}};
  for (const auto& [magic, tolerance, extensions] : formats)
    for (const std::string& extension : extensions) {
      SCOPED_TRACE(extension);
      const ImageBuffer image = Blocks("picture" + extension);
#ifdef __SANITIZE_ADDRESS__
      // FreeImage's own PSD writer loses a table of line lengths.
      if (extension == ".psd") __lsan_disable();
#endif
      const bool saved = SaveImage(image);
#ifdef __SANITIZE_ADDRESS__
      if (extension == ".psd") __lsan_enable();
#endif
      ASSERT_TRUE(saved);
      EXPECT_TRUE(StartsWith(image.fileName, magic));
      for (const bool allowPacked : {true, false}) {
        const ImageBuffer back = Load(image.fileName, allowPacked);
        ASSERT_TRUE(back.loaded);
        ASSERT_EQ(back.width, 128);
        ASSERT_EQ(back.height, 128);
        EXPECT_EQ(back.packed, back.bits == 32 && allowPacked);
        for (const int y : {16, 48, 80, 112})
          for (const int x : {32, 96}) {
            const float number = static_cast<float>(y / 32 * 2 + x / 64);
            ExpectNear(ReadPixel(back, static_cast<std::size_t>((127 - y) * 128 + x)),
                       extension == ".xpm" ? number / 255 * kWhite : BlockColor(x, y),
                       tolerance + (back.packed ? 0.004f : 0));
          }
      }
    }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_TRUE(TakeFailedSaves().empty());
}

// Formats that only read, or cannot hold the bitmap, and names that match nothing.
TEST_F(ImageFiles, UnwritableNamesFailAndAreCounted) {
  for (const char* name :
       {"a.cut", "a.g3", "a.gif", "a.iff", "a.koa", "a.mng", "a.pcd", "a.pct", "a.ras", "a.raw", "a.sgi",
        "a.wap", "a.wbmp", "a.xbm", "a.Hdr", "a.Png", "a", "a.txt", "none/a.png"}) {
    EXPECT_FALSE(SaveImage(Blocks(name))) << name;
    EXPECT_EQ(TakeFailedSaves().size(), 1U) << name;
  }
  EXPECT_FALSE(SaveImage(Blocks("four.hdr", 4)));
  ImageBuffer image;
  image.fileName = Path("nothing.png");
  EXPECT_FALSE(SaveImage(image));
  EXPECT_EQ(TakeFailedSaves().size(), 2U);
  image = MakeRow(3, 32, {kWhite});  // without a name
  EXPECT_FALSE(SaveImage(image));
  EXPECT_TRUE(TakeFailedSaves().empty());
  EXPECT_EQ(FileCount(), 0);
}

TEST_F(ImageFiles, FailingSaveKeepsTheOldFile) {
  ImageBuffer image = Blocks("kept.png");
  ASSERT_TRUE(SaveImage(image));
  const std::string before = ReadFile(image.fileName);
  for (float& v : image.floatPixels) v = 1 - v;
  const auto saveAs = [&](const char* name) {
    image.fileName = Path(name);
    return SaveImage(image);
  };
  // A full disk: files may not grow past a few bytes.
  const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
  const rlimit small = {16, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  std::string saved;
  for (const char* name : {"kept.png", "new.hdr", "new.bmp", "new.tif"})
    if (saveAs(name)) saved += name;
  setrlimit(RLIMIT_FSIZE, &limit);
  std::signal(SIGXFSZ, oldHandler);
  EXPECT_EQ(saved, "");
  EXPECT_EQ(ReadFile(Path("kept.png")), before);
  EXPECT_EQ(FileCount(), 1);
  EXPECT_TRUE(saveAs("kept.png"));
  EXPECT_NE(ReadFile(image.fileName), before);
  // What a link leads to is written; the link stays.
  fs::create_symlink("kept.png", Path("link.png"));
  std::ofstream(Path("kept.png")) << "old";
  EXPECT_TRUE(saveAs("link.png"));
  EXPECT_TRUE(fs::is_symlink(image.fileName));
  EXPECT_TRUE(StartsWith(Path("kept.png"), "\x89PNG"));
  EXPECT_EQ(FileCount(), 2);
}

// The same before a render and by the save. Nothing is touched, and a superuser is told as others are.
TEST_F(ImageFiles, ObstaclesAreKnownBeforeTheyAreMet) {
  Write("kept.png", "old");
  fs::permissions(Path("kept.png"), fs::perms::owner_read);
  ASSERT_EQ(mkfifo(Path("pipe.png").c_str(), 0600), 0);
  for (const auto& [target, link] : {std::pair{"/dev/full", "full.png"},
                                     {"full.png", "again.png"},
                                     {"none/a.png", "loose.png"},
                                     {"ring.png", "ring.png"}})
    fs::create_symlink(target, Path(link));
  fs::create_directories(Path("v.exr_old"));
  fs::create_directory(Path("closed"));
  fs::permissions(Path("closed"), fs::perms::owner_read | fs::perms::owner_exec);
  const std::ptrdiff_t files = FileCount();
  const std::string longest = std::string(251, 'n') + ".png";
  for (const auto& [name, reason] : std::vector<std::pair<std::string, std::string>>{
           {"kept.png", "no permission: the file is protected against writing"},
           {"pipe.png", "it is a pipe"},
           {"v.exr_old", "it is a folder"},
           {"again.png", "it is a link to a device, \"/dev/full\""},
           {"loose.png", "there is no folder \"" + Path("none") + "\""},
           {"ring.png", "its links lead nowhere"},
           {"kept.png/a.png", "\"" + Path("kept.png") + "\" is no folder"},
           {"closed/a.png", "no permission to write into the folder \"" + Path("closed") + "\""},
           {"n" + longest, "the name is too long"},
           {"a.webp", "unknown format \"webp\""},
           {"a.gif", "the format \"gif\" cannot hold such pixels"},
           {"a.ico", "the format \"ico\" cannot hold a picture of this size"}}) {
    ImageBuffer image = MakeRow(3, 32, {kWhite});
    image.fileName = Path(name);
    EXPECT_EQ(SaveObstacle({&image}), "'" + Path(name) + "': " + reason);
    EXPECT_EQ(StoreImage(image), reason);
  }
  ImageBuffer huge;  // more bytes than disks have
  huge.fileName = Path("huge.pfm");
  huge.width = huge.height = 1 << 30;
  EXPECT_NE(SaveObstacle({&huge}).find("no space: it needs "), std::string::npos);
  EXPECT_EQ(FileCount(), files);
  EXPECT_TRUE(SaveImage(Blocks(longest)));
  // Folders tell the format where the name behind them does not.
  EXPECT_TRUE(SaveImage(Blocks("v.exr_old/x.pfm")) && StartsWith(Path("v.exr_old/x.pfm"), "PF"));
  EXPECT_TRUE(SaveImage(Blocks("v.exr_old/x")) && StartsWith(Path("v.exr_old/x"), "\x76\x2f\x31\x01"));
}

TEST_F(ImageFiles, DefaultNamesStepAside) {
  const fs::path before = fs::current_path();
  fs::current_path(folder.path);
  ImageBuffer image = MakeRow(3, 32, {kWhite});
  image.fileName = DefaultBeautyName();
  Write(image.fileName, "another's");
  for (int i = 0; i < 2; ++i) {  // once more to the same file
    EXPECT_TRUE(SaveImage(image));
    EXPECT_EQ(FileCount(), 2);
  }
  fs::current_path(before);
  EXPECT_EQ(ReadFile(Path(image.fileName)).size(), 9U);
}

TEST_F(ImageFiles, FloatsBecomeBytes) {
  const std::pair<float, int> cases[] = {{1.0f, 255},  {0.999f, 254}, {0.0f, 0},  {0.5f, 127},  {1.001f, 255},
                                         {1e30f, 255}, {kInf, 255},   {-1.0f, 1}, {-0.001f, 0}, {kNan, 0},
                                         {-1e30f, 0},  {-kInf, 0},    {-2.0f, 2}, {0.25f, 63},  {-0.5f, 129}};
  std::vector<Vec3> colors;
  for (const auto& [value, byte] : cases) colors.push_back(value * kWhite);
  for (const int bits : {32, 64}) {
    const ImageBuffer back = SaveAndLoad(MakeRow(3, bits, colors), "bytes.png");
    for (std::size_t i = 0; i < colors.size(); ++i)
      EXPECT_EQ(back.bytePixels.at(3 * i), cases[i].second) << cases[i].first << " of " << bits << " bits";
  }
}

// Every component depth reaches a float file and an integer file by its own rule.
// A camera's last type counts, an idle camera writes nothing, and files of 8 bits show light times the
// exposure, and colours, by the curve; numbers and floats stay what they are.
TEST_F(ImageFiles, FormatTwoShowsLightToTheEye) {
  settings.format = 2;
  cameras.assign(2, {});
  const std::tuple<const char*, Channel, Vec3> cases[] = {
      {"beauty.png", kChannelBeauty, {82, 126, 173}},
      {"light.tif", kChannelGlossy, {82, 126, 173}},
      {"color.png", kChannelGlossyColor, {126, 126, 126}},
      {"number.png", kChannelNormal, {53, 53, 53}},
      {"float.pfm", kChannelGlossy, {53.125f, 53.125f, 53.125f}}};
  for (Camera& camera : cameras) {
    camera.aovs.resize(std::size(cases));
    camera.exposure = {0.4f, 1, 2};
    camera.width = camera.height = 1;
  }
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    cameras[0].aovs[i].image.fileName = Path(std::get<0>(cases[i]));
    cameras[1].aovs[i].image.fileName = Path("idle.png");
    if (i > 0) cameras[0].aovs[i].channel = kChannelBeauty | kChannelDepth;
    if (i > 0) cameras[0].aovs[i].lastType = std::get<1>(cases[i]);
  }
  InitializeCameras();
  const std::vector<Camera> kept = cameras;
  for (Camera& camera : cameras)
    for (Aov& aov : camera.aovs)
      if (aov.image.width > 0) WritePixel(aov.image, 53.125f / 255 * kWhite, 0);
  FinalizeCameras();
  EXPECT_EQ(FileCount(), 0) << "without a sample";
  cameras = kept;
  for (Aov& aov : cameras[0].aovs) WritePixel(aov.image, 53.125f / 255 * kWhite, 0);
  frameState = {.planned = 1, .left = 0, .right = 1, .rows = {{1, 0}}};
  FinalizeCameras();
  for (const auto& [name, channel, bytes] : cases)
    ExpectNear(255 * ReadPixel(Load(Path(name)), 0), bytes, 1e-4f);
  EXPECT_FALSE(fs::exists(Path("idle.png")));
  settings.format = 1;
  frameState = {};
}

// Three tiles: one awake, one whose half sets rest from the third pass on and have come back once, one cut.
TEST(FrameState, CountsWhatTilesAndHalfSetsHave) {
  FrameState state = {.left = 0, .right = 48, .rows = {{9, 20}}, .tilesAcross = 3};
  state.tiles = {{}, {TileRest{3, 1}, TileRest{}}, {}};
  const auto samples = [&](int x) {
    return std::array{SamplesOf(state, x, 0, 0), SamplesOf(state, x, 0, 1)};
  };
  EXPECT_EQ(samples(0), (std::array{5U, 5U}));
  EXPECT_EQ(samples(16), (std::array{2U, 5U}));
  EXPECT_EQ(samples(30), (std::array{2U, 4U}));
  EXPECT_EQ(samples(47), (std::array{5U, 4U}));
  EXPECT_EQ(samples(48), (std::array{0U, 0U}));
  EXPECT_EQ(CountSamples(state), 16U * 10 + 4 * 7 + 12 * 6 + 16 * 9);
  EXPECT_TRUE(Rests(state, 16, 0, 6) && !Rests(state, 16, 0, 4) && !Rests(state, 16, 0, 7));

  settings.format = 2;
  settings.said.halfSets = true;
  Aov aov;
  aov.channel = kChannelEmissive;
  InitializeAov(aov, 48, 1);
  WritePixel(aov.image, 6 * kWhite, 16);
  WritePixel(aov.odd[0].image, 5 * kWhite, 16);
  EXPECT_EQ(ReadPixel(FinishedPicture(aov, state), 16), 2.0f * kWhite) << "each half set counts alike";
  aov.channel = kChannelSamples;
  EXPECT_EQ(ReadPixel(FinishedPicture(aov, state), 16), 7.0f * kWhite);
  settings.said.halfSets = false;
  settings.format = 1;
}

// A noisy half set makes the other one go on, quiet ones rest, neighbours of noise with caution, until there
// is too much of it on the whole.
TEST(FrameState, TilesRestByTheOtherHalfSet) {
  FrameState state = {.left = 0, .right = 80, .rows = {{16, 0}}, .tilesAcross = 5};
  FrameNoise noise;
  noise.tiles.assign(5, {.squares = 1, .ofSample = {0.1, 0.1}, .promised = 1, .pixels = 16});
  noise.tiles[0].ofSample[0] = 8;
  noise.error = 0.2;
  const auto rests = [&](double error) {
    RestTiles(noise, error, 16, state);
    std::string text;
    for (const TileRests& tile : state.tiles)
      for (const TileRest& rest : tile) text += rest.from == 8 ? 'r' : 'a';
    return text;
  };
  EXPECT_EQ(rests(0.2), "rararrrrrr") << "the neighbour has a quarter of it";
  noise.tiles[0].ofSample[0] = 1;
  EXPECT_EQ(rests(0.2), "rarrrrrrrr");
  noise.tiles[0].ofSample[0] = 0.1;
  EXPECT_EQ(rests(0.2), "rrrrrrrrrr");
  noise.tiles[0].ofSample[0] = 8;
  EXPECT_EQ(rests(0.2), "rrrrrrrrrr") << "what rests does so";
  noise.tiles[0].ofSample[0] = 0.1;
  EXPECT_EQ(rests(0.19), "aaaaaaaaaa") << "all rest, and the whole has too much";
}

TEST_F(ImageFiles, EveryDepthIsWritten) {
  for (const int bits : {1, 8, 16, 32, 64})
    for (const char* name : {"depth.pfm", "depth.png"}) {
      SCOPED_TRACE(testing::Message() << bits << name);
      ImageBuffer image = MakeRow(3, bits, {{1, 0, 0.5f}, {1, 0, 0}});
      if (bits == 1) image.bitPixels[0] = 0b001101;
      const ImageBuffer back = SaveAndLoad(image, name);
      ExpectNear(ReadPixel(back, 0), {1, 0, bits == 1 ? 1 : 0.5f}, 0.004f);
      EXPECT_EQ(ReadPixel(back, 1), (Vec3{1, 0, 0}));
    }
}

TEST_F(ImageFiles, OtherChannelCounts) {
  // Three elements a pixel are taken from a picture of four: its colours run away from the grid.
  ImageBuffer image = MakeRow(4, 8, std::vector<Vec3>(4));
  std::iota(image.bytePixels.begin(), image.bytePixels.end(), std::uint8_t{0});
  ImageBuffer back = SaveAndLoad(image, "four.png");
  ASSERT_EQ(back.channels, 4);
  for (std::size_t p = 0; p < 4; ++p)
    for (std::size_t c = 0; c < 3; ++c) EXPECT_EQ(back.bytePixels[4 * p + c], 3 * p + c);
  // One channel fills all three of a float file, four keep their alpha.
  image = MakeRow(1, 32, {kBlack, 0.5f * kWhite, kWhite, 2 * kWhite});
  back = SaveAndLoad(image, "one.pfm");
  for (std::size_t p = 0; p < 4; ++p) EXPECT_EQ(ReadPixel(back, p), image.floatPixels[p] * kWhite);
  SaveAndLoad(image, "one.png");  // reads no element past the fourth
  image = MakeRow(4, 32, {{0.25f, 0.5f, 1}});
  image.floatPixels[3] = 0.75f;
  EXPECT_EQ(SaveAndLoad(image, "four.exr").floatPixels, image.floatPixels);
}

// Read by hand, as another program would: the buffer's first row is the top of both pictures. The format is
// that of the content, whatever the name says.
TEST_F(ImageFiles, RowsOnDisk) {
  ImageBuffer image;
  Allocate(image, 1, 2, 3, 32, false);
  WritePixel(image, {4, 4, 4}, 0);
  WritePixel(image, {1, 1, 1}, 1);
  SaveAndLoad(image, "rows.pfm");
  SaveAndLoad(image, "rows.hdr");
  // PFM is defined to store the bottom row first: its last 24 bytes are the two pixels.
  const std::string pfm = ReadFile(Path("rows.pfm")), hdr = ReadFile(Path("rows.hdr"));
  const float rows[] = {1, 1, 1, 4, 4, 4};
  ASSERT_GE(pfm.size(), sizeof rows);
  EXPECT_EQ(std::memcmp(rows, pfm.data() + pfm.size() - sizeof rows, sizeof rows), 0);
  // Radiance stores the top row first: 4 = 128/256 * 2^(131-128).
  ASSERT_GE(hdr.size(), 8U);
  EXPECT_EQ(std::string(hdr.end() - 8, hdr.end()), "\x80\x80\x80\x83\x80\x80\x80\x81");
  fs::rename(Path("rows.pfm"), Path("false.hdr"));
  fs::rename(Path("rows.hdr"), Path("false.pfm"));
  for (const char* name : {"false.pfm", "false.hdr"}) {
    const ImageBuffer back = Load(Path(name));
    EXPECT_EQ(ReadPixel(back, 0), kWhite) << name;  // the bottom row
    EXPECT_EQ(ReadPixel(back, 1), 4 * kWhite) << name;
  }
}

TEST_F(ImageFiles, SharedExponentPacking) {
  const std::pair<Vec3, Vec3> cases[] = {{{1, 0.5f, 0.25f}, {1, 0.5f, 0.25f}},
                                         {{}, {}},
                                         {{1e-33f, 0, 0}, {}},
                                         {{-1, 2, 0}, {0, 2, 0}},
                                         {{kNan, 1, 0}, {0, 1, 0}},
                                         {{1000, 1, 0.1f}, {1000, 1, 0.1f}},
                                         {{1e-30f, 0, 0}, {1e-30f, 0, 0}},
                                         {{0.998f, 0.4985f, 0}, {0.998f, 0.4985f, 0}},
                                         {{0.999f, 0.3f, 0}, {0.999f, 0.3f, 0}},
                                         {{kInf, 0, 0}, {1.7e38f, 0, 0}}};
  for (settings.format = 1; settings.format <= 2; ++settings.format)
    for (const auto& [given, exact] : cases) {
      const ImageBuffer back = SaveAndLoad(MakeRow(3, 32, {given}), "packed.pfm", true);
      ASSERT_TRUE(back.packed);
      EXPECT_EQ(PixelBytes(back), 4U);
      const Vec3 color = ReadPixel(back, 0);
      // One of at least 128 steps: cut off to it, or rounded.
      const float step = MaxOf(MaxOf(exact.x, exact.y), exact.z) / 128;
      const float above = settings.format >= 2 ? step / 2 : 0;
      for (int c = 0; c < 3; ++c) {
        EXPECT_LE(color[c], exact[c] + above);
        EXPECT_GE(color[c], exact[c] + above - step);
      }
      // A packed picture can be written again.
      EXPECT_EQ(ReadPixel(SaveAndLoad(back, "again.pfm"), 0), color);
    }
  settings.format = 1;
}

// A file that is cut is damaged, not smaller. What cannot be read changes no pixel.
TEST_F(ImageFiles, LoadingWhatIsNoPicture) {
  Write("text.png", "no picture\n");
  Write("empty.hdr", "");
  Write("short.ppm", "P6\n400");
  Write("bits.pbm", "P1\n2 1\n1 0\n");  // one bit a pixel is not supported
  const std::vector<std::string> cut = {"cut.exr", "cut.ppm", "cut.jpg", "cut.bmp",
                                        "cut.tga", "cut.psd", "cut.png"};
  for (const std::string& name : cut) {
    ASSERT_TRUE(SaveImage(Blocks(name)));
    fs::resize_file(Path(name), fs::file_size(Path(name)) / 2);
  }
  std::vector<std::string> names = {"", "missing.png", "text.png", "empty.hdr", "short.ppm", "bits.pbm"};
  names.insert(names.end(), cut.begin(), cut.end());
  for (const std::string& name : names) {
    ImageBuffer image;
    Allocate(image, 2, 2, 3, 32, false);
    image.loaded = true;
    EXPECT_FALSE(LoadImage(image, Path(name))) << name;
    EXPECT_FALSE(image.loaded);
    EXPECT_EQ(image.floatPixels.size(), 12U);
    EXPECT_TRUE(!name.starts_with("cut") || image.problem == PictureProblem::kDamaged) << name;
    stopRequested = true;
    EXPECT_FALSE(LoadImage(image, Path(name)));
    stopRequested = false;
    EXPECT_TRUE(!name.starts_with("cut") || image.problem == PictureProblem::kStopped) << name;
  }
}

// Half floats where they can hold all, else 32 bits.
TEST_F(ImageFiles, OpenExrKeepsLargeNumbers) {
  for (const float largest : {65504.0f, 65520.0f, 100000.0f}) {
    const ImageBuffer back = SaveAndLoad(MakeRow(3, 32, {{largest, 1.0f / 3, -kInf}}), "large.exr");
    EXPECT_EQ(back.floatPixels[0], largest);
    EXPECT_EQ(back.floatPixels[1] == 1.0f / 3, largest > 65504);
    EXPECT_EQ(back.floatPixels[2], -kInf);
  }
}

// The indices of a palette picture are its grey levels; 16 bits keep their components.
TEST_F(ImageFiles, LoadsPalettesAndWords) {
  const auto load = [this](const char* name, const std::string& content) {
    Write(name, content);
    return Load(Path(name));
  };
  // A BMP file of 8 bits, 1 x 1, whose index 7 is red in the palette.
  std::string bmp("BM\0\0\0\0\0\0\0\0\x36\4\0\0\x28\0\0\0\1\0\0\0\1\0\0\0\1\0\x8\0", 30);
  bmp.resize(54 + 1024, '\0');
  bmp[54 + 7 * 4 + 2] = '\xff';
  bmp += std::string("\7\0\0\0", 4);
  EXPECT_EQ(load("red.bmp", bmp).bytePixels, (std::vector<std::uint8_t>{7, 7, 7}));
  settings.format = 2;  // behind the start of the decoders, as by scene text
  EXPECT_EQ(load("red.bmp", bmp).bytePixels, (std::vector<std::uint8_t>{255, 0, 0}));
  settings.format = 1;
  EXPECT_EQ(load("grey.pgm", "P2\n2 1\n255\n128 255\n").bytePixels,
            (std::vector<std::uint8_t>{128, 128, 128, 255, 255, 255}));
  const ImageBuffer words = load("words.ppm", "P3\n1 1\n65535\n65535 256 7\n");
  EXPECT_EQ(words.wordPixels, (std::vector<std::uint16_t>{65535, 256, 7}));
  EXPECT_FLOAT_EQ(ReadPixel(words, 0).x, 257.0f);
  EXPECT_EQ(load("words.pgm", "P2\n1 1\n65535\n300\n").wordPixels, (std::vector<std::uint16_t>{300}));
}

TEST(ImageBuffer, HoldsWhatItsFormatCan) {
  EXPECT_EQ(MakeRow(3, 16, {{1, -1, kNan}}).wordPixels, (std::vector<std::uint16_t>{65535, 0, 0}));
  EXPECT_EQ(MakeRow(3, 8, {{0.999f, 5, -5}}).bytePixels, (std::vector<std::uint8_t>{254, 255, 0}));
  EXPECT_EQ(MakeRow(1, 8, {{}, {1, 0, 0}, {}}).bytePixels, (std::vector<std::uint8_t>{0, 255, 0}));
  ImageBuffer image = MakeRow(4, 64, {{}, {-3, 1e20f, 0.1f}});
  WritePixel(image, kWhite, 2);  // behind the last
  EXPECT_EQ(ReadPixel(image, 0), kBlack);
  EXPECT_EQ(ReadPixel(image, 1), (Vec3{-3, 1e20f, 0.1f}));
  EXPECT_EQ(ReadPixel(image, 2), kBlack);
}

TEST(ImageBuffer, AllocateNeedsPositiveSizes) {
  ImageBuffer image = MakeRow(3, 32, {kWhite});
  for (const auto& [width, height, channels, bits] :
       {std::array{0, 1, 3, 32}, {1, -1, 3, 32}, {1, 1, 0, 32}, {1, 1, 3, 0}}) {
    image.loaded = true;
    Allocate(image, width, height, channels, bits, false);
    EXPECT_FALSE(image.loaded);
    EXPECT_EQ(PixelBytes(image), 12U);
    EXPECT_EQ(ReadPixel(image, 0), kWhite);
  }
  const int most = std::numeric_limits<int>::max();
  EXPECT_THROW(Allocate(image, most, most, 4, 64, false), std::bad_alloc);
  EXPECT_TRUE(IsFinite(ReadPixel(image, 0)));
  Allocate(image, 1, 1, 3, 32, false);
  EXPECT_EQ(ReadPixel(image, 0), kBlack);
}

TEST(BeautyName, IsTheLocalTimeAndUnique) {
  const std::time_t before = std::time(nullptr);
  std::set<std::string> names;
  for (int i = 0; i < 4; ++i) {
    const Camera camera;
    const std::string& name = camera.aovs.at(0).image.fileName;
    EXPECT_TRUE(names.insert(name).second) << name;
    std::tm stamp = {};
    const char* rest = strptime(name.c_str(), "beauty-%Y%m%d-%H%M%S", &stamp);
    ASSERT_NE(rest, nullptr) << name;
    stamp.tm_isdst = -1;
    EXPECT_NEAR(std::difftime(std::mktime(&stamp), before), 0, 2);
    // The second of a second has a number.
    EXPECT_TRUE(rest == std::string(".hdr") || (*rest == '-' && std::strtol(rest + 1, nullptr, 10) >= 2));
    EXPECT_TRUE(name.ends_with(".hdr"));
  }
}

class Cameras : public testing::Test {
 protected:
  void SetUp() override {
    SetConsoleQuiet(true);
    cameras.clear();
    cameras.emplace_back();
    CameraPose& pose = TheCamera().poses[0];
    pose.position = {1, 2, 3}, pose.target = {1, 12, 3};
    pose.upVector = {0, 0, 7}, pose.fieldOfView = 90;
    TheCamera().poseWritten[0] = kWholePose;
    TheCamera().width = 40, TheCamera().height = 20, TheCamera().sample = 4;
  }
  void TearDown() override {
    cameras.clear();
    SetConsoleQuiet(false);
    StartRandom(std::nullopt);
  }
  static Camera& TheCamera() { return cameras[0]; }
  static RayRecord Ray(int x, int y, std::uint32_t sample = 0) {
    RayRecord ray;
    MakePrimaryRay(TheCamera(), CameraAtTime(TheCamera(), TimeOfPass(TheCamera(), sample)), ray, x, y,
                   sample);
    return ray;
  }
};

// At 90 degrees and 40 pixels the image plane is 20 pixels away; the view is along y, right is x, up is z.
TEST_F(Cameras, PinholeRaysFillTheirPixel) {
  InitializeCameras();
  EXPECT_FLOAT_EQ(TheCamera().poses[0].focusDistance, 10);
  for (const auto& [x, y] : {std::pair{0, 0}, {39, 0}, {0, 19}, {39, 19}, {20, 10}}) {
    float minX = 1e9f, maxX = -1e9f, minY = 1e9f, maxY = -1e9f;
    for (int i = 0; i < 400; ++i) {
      const RayRecord ray = Ray(x, y);
      EXPECT_EQ(ray.origin, (Vec3{1, 2, 3}));
      EXPECT_NEAR(Dot(ray.direction, ray.direction), 1, 1e-5f);
      // Back to the image plane: the pixel's own square, columns to the right, rows downwards.
      const float column = 20 * ray.direction.x / ray.direction.y + 20 - static_cast<float>(x);
      const float row = -20 * ray.direction.z / ray.direction.y + 10 - static_cast<float>(y);
      minX = std::min(minX, column), maxX = std::max(maxX, column);
      minY = std::min(minY, row), maxY = std::max(maxY, row);
    }
    for (const float low : {minX, minY}) EXPECT_TRUE(low >= -1e-4f && low < 0.1f) << low;
    for (const float high : {maxX, maxY}) EXPECT_TRUE(high > 0.9f && high <= 1.0001f) << high;
  }
}

// Of a record that another path has used only the thread is kept. An unknown projection aims no ray.
TEST_F(Cameras, RaysStartAfresh) {
  InitializeCameras();
  TheCamera().projection = static_cast<Projection>(2);
  pixelRotationTable[10 & 31][35 & 31] = {0.25f, 0.75f};
  RayRecord ray;
  ray.origin = {9, 9, 9};
  ray.thread = 3;
  ray.depth = 7;
  ray.throughput = kBlack;
  MakePrimaryRay(TheCamera(), TheCamera().poses[0], ray, 35, 10, 2);
  EXPECT_EQ(std::tuple(ray.origin, ray.thread, ray.depth, ray.throughput, ray.rotation),
            std::tuple(Vec3{9, 9, 9}, 3, 0, kWhite, Vec2{0.25f, 0.75f}));
}

TEST_F(Cameras, SphericalRaysSpanTheSphere) {
  TheCamera().projection = Projection::kSpherical;
  TheCamera().width = 720, TheCamera().height = 360;
  TheCamera().poses[0].bokeh = 5;  // ignored
  InitializeCameras();
  const std::tuple<int, int, Vec3> cases[] = {{360, 180, {0, 1, 0}},  {540, 180, {1, 0, 0}},
                                              {180, 180, {-1, 0, 0}}, {719, 180, {0, -1, 0}},
                                              {100, 0, {0, 0, 1}},    {600, 359, {0, 0, -1}}};
  for (const auto& [x, y, expected] : cases) {
    const RayRecord ray = Ray(x, y);
    EXPECT_EQ(ray.origin, (Vec3{1, 2, 3}));
    ExpectNear(ray.direction, expected, 0.02f);  // a pixel is half a degree wide
    EXPECT_NEAR(Dot(ray.direction, ray.direction), 1, 1e-5f);
  }
}

// All rays of a lens meet at the focus point, and fill the cone evenly.
TEST_F(Cameras, LensRaysMeetAtTheFocus) {
  TheCamera().poses[0].bokeh = 10;
  TheCamera().width = TheCamera().height = 20001;  // so fine that a pixel's rays are all one
  TheCamera().aovs.clear();
  InitializeCameras();
  const Vec3 d = SafeNormalize(Vec3{5000, 10000.5f, 6000});
  const Vec3 focus = Vec3{1, 2, 3} + 10 * d;
  const float rim = std::cos(10 * kPi / 180);
  const int count = 4000;
  int inner = 0, left = 0;
  for (int i = 0; i < count; ++i) {
    const RayRecord ray = Ray(15000, 4000);
    ExpectNear(ray.origin + 10 * ray.direction, focus, 0.003f);
    EXPECT_NEAR(Dot(ray.direction, ray.direction), 1, 1e-4f);
    EXPECT_GT(Dot(ray.direction, d), rim - 1e-4f);
    inner += Dot(ray.direction, d) > (1 + rim) / 2;
    left += Dot(ray.direction, Perpendicular(d)) > 0;
  }
  // Half of the cap's area, and half of its turn: five standard deviations of 32.
  EXPECT_NEAR(inner, count / 2, 160);
  EXPECT_NEAR(left, count / 2, 160);
}

TEST_F(Cameras, LimitsOfSampleAndRegion) {
  Camera& camera = TheCamera();
  for (const auto& [given, expected] : {std::pair{0, 1}, {-5, 1}, {65535, 65535}, {65536, 65535}}) {
    camera.sample = given;
    InitializeCameras();
    EXPECT_EQ(camera.sample, expected);
  }
  EXPECT_EQ(camera.regionXMax, 40);
  camera.regionXMin = -3, camera.regionYMin = -4, camera.regionXMax = 1000, camera.regionYMax = 7;
  InitializeCameras();
  EXPECT_EQ((std::array{camera.regionXMin, camera.regionXMax, camera.regionYMin, camera.regionYMax}),
            (std::array{0, 40, 0, 7}));
  // A sensor past all memory: an error row, and nothing to render.
  camera.width = camera.height = std::numeric_limits<int>::max();
  camera.regionXMax = camera.regionYMax = 1048576;
  InitializeCameras();
  EXPECT_LE(camera.regionXMax, camera.regionXMin);
}

TEST_F(Cameras, PosesAndTheirInterpolation) {
  Camera& camera = TheCamera();
  CameraPose& open = camera.poses[0];
  CameraPose& close = camera.poses[1];
  // One pose makes a still camera, whichever it is.
  InitializeCameras();
  EXPECT_EQ(close.target, open.target);
  std::swap(camera.poseWritten[0], camera.poseWritten[1]);
  open = {};
  InitializeCameras();
  EXPECT_EQ(open.target, (Vec3{1, 12, 3}));

  // Of a pose in part the rest is the other's.
  camera.poseWritten[0] = kPosePosition;
  open = {};
  InitializeCameras();
  EXPECT_EQ(std::tuple(open.position, open.target, open.upVector, open.fieldOfView),
            std::tuple(Vec3{0, 0, 0}, Vec3{1, 12, 3}, Vec3{0, 0, 7}, 90));

  camera.poseWritten[0] = camera.poseWritten[1] = kWholePose;
  open.position = {1, 2, 3}, close.position = {5, 2, 3};
  close.target = {5, 2, 13}, close.fieldOfView = 50;
  open.upVector = {0, 0, 1}, close.upVector = {1, 0, 0};
  InitializeCameras();
  const CameraPose mid = CameraAtTime(camera, 0.25f);
  EXPECT_EQ(mid.position, (Vec3{2, 2, 3}));
  EXPECT_EQ(mid.target, (Vec3{2, 9.5f, 5.5f}));
  EXPECT_NEAR(mid.focalLength, 20 / std::tan(40 * kPi / 180), 1e-3f);
  ExpectNear(mid.upVector, {std::sin(kPi / 8), 0, std::cos(kPi / 8)}, 1e-6f);  // a quarter of the arc
  ExpectNear(Cross(mid.right, mid.forward), mid.up, 1e-5f);
  EXPECT_NEAR(Dot(mid.up, mid.up), 1, 1e-5f);
  for (std::uint32_t i = 0; i < 4; ++i)  // pass i of 4 sees the instant (i + 0.5) / 4
    EXPECT_FLOAT_EQ(Ray(20, 10, i).origin.x, 1.5f + static_cast<float>(i));
  // Opposite vectors are mixed in a straight line, through nothing.
  close.upVector = {0, 0, -1};
  EXPECT_EQ(CameraAtTime(camera, 0.5f).upVector, kBlack);
}

TEST_F(Cameras, DegeneratePosesStayFinite) {
  CameraPose& pose = TheCamera().poses[0];
  pose.fieldOfView = 0;
  InitializeCameras();
  EXPECT_NEAR(Ray(3, 3).direction.y, 1, 1e-6f);
  for (const Vec3 target : {pose.target, pose.position}) {
    pose.upVector = {0, 5, 0};  // along the view
    pose.target = target;
    InitializeCameras();
    EXPECT_TRUE(IsFinite(Ray(3, 3).direction));
    EXPECT_EQ(target == pose.position ? pose.forward : pose.right, kBlack);
  }
}

}  // namespace
}  // namespace zp
