// Writes a small picture in each format that FreeImage writes, and in the other kinds that matter to the
// readers of some, into a folder: the corpus of zp_fuzz_picture; and files of layers, with what else OpenEXR
// knows, into another: that of zp_fuzz_layers.
//   zp_fuzz_picture_corpus FOLDER LAYERS

#include <FreeImage.h>
#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfMultiPartOutputFile.h>
#include <ImfOutputPart.h>
#include <ImfPartType.h>
#include <ImfRgbaFile.h>
#include <ImfTiledRgbaFile.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "imaging/exr_file.h"
#include "post/layers.h"

namespace {

struct Kind {
  const char* name;
  FREE_IMAGE_FORMAT format;
  FREE_IMAGE_TYPE type;
  int bits;
  int flags;
};
constexpr Kind kKinds[] = {
    {"rle.bmp", FIF_BMP, FIT_BITMAP, 8, BMP_SAVE_RLE},
    {"24.bmp", FIF_BMP, FIT_BITMAP, 24, 0},
    {"8.gif", FIF_GIF, FIT_BITMAP, 8, 0},
    {"float.hdr", FIF_HDR, FIT_RGBF, 96, 0},
    {"32.ico", FIF_ICO, FIT_BITMAP, 32, 0},
    {"24.j2k", FIF_J2K, FIT_BITMAP, 24, 0},
    {"24.jp2", FIF_JP2, FIT_BITMAP, 24, 0},
    {"24.jpg", FIF_JPEG, FIT_BITMAP, 24, 0},
    {"progressive.jpg", FIF_JPEG, FIT_BITMAP, 24, JPEG_PROGRESSIVE},
    {"24.jng", FIF_JNG, FIT_BITMAP, 24, 0},
    {"1.pbm", FIF_PBMRAW, FIT_BITMAP, 1, PNM_SAVE_RAW},
    {"8.pgm", FIF_PGMRAW, FIT_BITMAP, 8, PNM_SAVE_RAW},
    {"text.ppm", FIF_PPM, FIT_BITMAP, 24, PNM_SAVE_ASCII},
    {"24.ppm", FIF_PPMRAW, FIT_BITMAP, 24, PNM_SAVE_RAW},
    {"float.pfm", FIF_PFM, FIT_RGBF, 96, 0},
    {"8.png", FIF_PNG, FIT_BITMAP, 8, 0},
    {"32.png", FIF_PNG, FIT_BITMAP, 32, PNG_INTERLACED},
    {"48.png", FIF_PNG, FIT_RGB16, 48, 0},
    {"24.psd", FIF_PSD, FIT_BITMAP, 24, PSD_RLE},
    {"raw.psd", FIF_PSD, FIT_BITMAP, 32, PSD_NONE},
    {"24.tga", FIF_TARGA, FIT_BITMAP, 24, 0},
    {"rle.tga", FIF_TARGA, FIT_BITMAP, 32, TARGA_SAVE_RLE},
    {"lzw.tif", FIF_TIFF, FIT_BITMAP, 24, TIFF_LZW},
    {"jpeg.tif", FIF_TIFF, FIT_BITMAP, 24, TIFF_JPEG},
    {"float.tif", FIF_TIFF, FIT_RGBAF, 128, TIFF_NONE},
    {"1.wbmp", FIF_WBMP, FIT_BITMAP, 1, 0},
    {"24.webp", FIF_WEBP, FIT_BITMAP, 24, 0},
    {"8.xpm", FIF_XPM, FIT_BITMAP, 8, 0},
};

bool Write(const Kind& kind, const std::string& path) {
  FIBITMAP* bitmap = FreeImage_AllocateT(kind.type, 32, 32, kind.bits, 0, 0, 0);
  if (bitmap == nullptr) return false;
  for (unsigned y = 0; y < 32; ++y) {
    BYTE* line = FreeImage_GetScanLine(bitmap, static_cast<int>(y));
    for (unsigned i = 0; kind.type != FIT_RGBF && kind.type != FIT_RGBAF && i < FreeImage_GetLine(bitmap);
         ++i)
      line[i] = static_cast<BYTE>(i < 24 ? 200 : 7 * i * y);  // with runs
  }
  const bool written = FreeImage_Save(kind.format, bitmap, path.c_str(), kind.flags) != 0;
  FreeImage_Unload(bitmap);
  return written;
}

bool WriteExr(const std::string& path, float largest, int channels) {
  std::vector<float> pixels(static_cast<std::size_t>(16 * 12 * channels));
  for (std::size_t i = 0; i < pixels.size(); ++i) pixels[i] = largest * static_cast<float>(i % 37) / 36;
  const std::string bytes = zp::EncodeExr(pixels.data(), 16, 12, channels);
  std::ofstream(path, std::ios::binary) << bytes;
  return true;
}

constexpr int kWidth = 24, kHeight = 18;

bool WriteLayered(const std::string& path) {
  zp::LayeredPicture picture;
  picture.display = {0, 0, 2 * kWidth, kHeight};
  picture.data = {2, 1, 2 + kWidth, 1 + kHeight};
  picture.layers = {{"", {"R", "G", "B", "A"}, zp::LayerKind::kHalf, {}},
                    {"Z", {"Z"}, zp::LayerKind::kFloat, {}},
                    {"light_a.b", {"R", "G", "B"}, zp::LayerKind::kFloat, {}},
                    {"object00", {"R", "G", "B", "A"}, zp::LayerKind::kFloat, {}},
                    {"samples", {"Y"}, zp::LayerKind::kWhole, {}}};
  for (zp::Layer& layer : picture.layers)
    for (std::size_t i = 0; i < layer.channels.size() * zp::PixelCount(picture); ++i)
      layer.numbers.push_back(static_cast<float>(i % 29));
  SetAttribute(picture, "comments", std::string("of a test"));
  SetAttribute(picture, "cryptomatte/0123456/name", std::string("object"));
  SetAttribute(picture, "worldToCamera", std::array<float, 16>{1, 0, 0, 0, 0, 1});
  SetAttribute(picture, "zephlore:passes", std::int32_t{8});
  return zp::WriteLayers(path, picture).empty();
}

// Every method of compression, single channels of less pixels, tiles of several levels, and parts.
void WriteKinds(const std::string& folder) {
  std::vector<Imf::Rgba> colors(kWidth * kHeight);
  for (std::size_t i = 0; i < colors.size(); ++i) colors[i].r = colors[i].a = static_cast<float>(i % 7);
  for (int method = Imf::NO_COMPRESSION; method < Imf::NUM_COMPRESSION_METHODS; ++method) {
    Imf::Header header(kWidth, kHeight);
    header.compression() = static_cast<Imf::Compression>(method);
    const bool chroma = method == Imf::ZIP_COMPRESSION;
    Imf::RgbaOutputFile file((folder + std::to_string(method) + ".exr").c_str(), header,
                             chroma ? Imf::WRITE_YC : Imf::WRITE_RGBA);
    file.setFrameBuffer(colors.data(), 1, kWidth);
    file.writePixels(kHeight);
  }
  Imf::TiledRgbaOutputFile tiles((folder + "tiles.exr").c_str(), kWidth, kHeight, 8, 8, Imf::MIPMAP_LEVELS);
  tiles.setFrameBuffer(colors.data(), 1, kWidth);
  for (int level = 0; level < tiles.numLevels(); ++level)
    tiles.writeTiles(0, tiles.numXTiles(level) - 1, 0, tiles.numYTiles(level) - 1, level);

  std::vector<float> depth(kWidth * kHeight, 3);
  std::vector<Imf::Header> headers(2, Imf::Header(kWidth, kHeight));
  for (std::size_t part = 0; part < headers.size(); ++part) {
    headers[part].setName(part == 0 ? "left" : "right");
    headers[part].setType(Imf::SCANLINEIMAGE);
    headers[part].channels().insert("depth.Z", Imf::Channel(Imf::FLOAT));
  }
  Imf::MultiPartOutputFile parts((folder + "parts.exr").c_str(), headers.data(), 2);
  for (int part = 0; part < 2; ++part) {
    Imf::OutputPart output(parts, part);
    Imf::FrameBuffer frame;
    frame.insert("depth.Z", Imf::Slice(Imf::FLOAT, reinterpret_cast<char*>(depth.data()), 4, 4 * kWidth));
    output.setFrameBuffer(frame);
    output.writePixels(kHeight);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 1;
  const std::string folder = std::string(argv[1]) + '/', layers = std::string(argv[2]) + '/';
  std::filesystem::create_directories(folder);
  std::filesystem::create_directories(layers);
  bool written = WriteLayered(layers + "layers.exr");
  WriteKinds(layers);
  written = written && WriteExr(folder + "half.exr", 1, 4) && WriteExr(folder + "float.exr", 1e6f, 3);
  zp::StartImageFiles();
  for (const Kind& kind : kKinds)
    if (!Write(kind, folder + kind.name)) {
      std::fprintf(stderr, "%s is not written\n", kind.name);
      written = false;
    }
  zp::StopImageFiles();
  return written ? 0 : 1;
}
