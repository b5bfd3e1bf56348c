#include "pictures.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <string_view>

#include "imaging/imaging.h"
#include "scene/scene_writer.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

struct Signature {
  std::string_view bytes;
  std::size_t at;
  const char* extension;
};
constexpr Signature kSignatures[] = {
    {"\x89PNG", 0, ".png"},    {"\xFF\xD8\xFF", 0, ".jpg"}, {"WEBP", 8, ".webp"}, {"GIF8", 0, ".gif"},
    {"BM", 0, ".bmp"},         {"DDS ", 0, ".dds"},         {"II*", 0, ".tif"},   {"MM", 0, ".tif"},
    {"#?RADIANCE", 0, ".hdr"}, {"\xABKTX 20", 0, ".ktx2"}};

// By the content, or else as the name of the source ends.
std::string ExtensionOf(const std::vector<std::uint8_t>& bytes, const ImportPicture& picture) {
  const std::string_view content(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  for (const Signature& signature : kSignatures)
    if (content.size() > signature.at && content.substr(signature.at).starts_with(signature.bytes))
      return signature.extension;
  const std::string end = fs::path(picture.path.empty() ? picture.label : picture.path).extension().string();
  return end.empty() || end.size() > 5 ? ".picture" : TokenOf(end);
}

std::string FreeName(PictureShelf& shelf, const std::string& stem, const std::string& extension) {
  std::string name = stem + extension;
  for (int i = 2; !shelf.names.insert(name).second; ++i) name = stem + '-' + std::to_string(i) + extension;
  return name;
}

// Names that others systems wrote: with backslashes, absolute, or in another case.
std::string FindFile(const std::string& path) {
  std::error_code error;
  if (fs::is_regular_file(path, error)) return path;
  std::string slashed = path;
  std::replace(slashed.begin(), slashed.end(), '\\', '/');
  if (fs::is_regular_file(slashed, error)) return slashed;
  const auto equal = [](const std::string& a, const std::string& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
  };
  const fs::path wanted(slashed);
  // Beside the model under the whole name, then under the last part of it, whatever the letters' case.
  for (fs::path folder = wanted.parent_path();; folder = folder.parent_path()) {
    for (fs::directory_iterator entry(folder.empty() ? fs::path(".") : folder, error);
         !error && entry != fs::directory_iterator(); entry.increment(error))
      if (equal(entry->path().filename().string(), wanted.filename().string()) &&
          entry->is_regular_file(error))
        return entry->path().string();
    if (folder.empty() || folder == folder.parent_path()) return {};
    if (fs::is_directory(folder, error)) return {};  // what exists is the folder of the model, or in it
  }
}

PictureFacts Measure(const ImageBuffer& image) {
  PictureFacts facts;
  if (image.packed || image.bits != 8) return facts;
  const std::size_t pixels = static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height);
  facts.low = kWhite;
  facts.high = kBlack;
  double sums[3] = {};
  for (std::size_t p = 0; p < pixels; ++p) {
    const Vec3 color = ReadPixel(image, p);
    facts.low = {MinOf(facts.low.x, color.x), MinOf(facts.low.y, color.y), MinOf(facts.low.z, color.z)};
    facts.high = {MaxOf(facts.high.x, color.x), MaxOf(facts.high.y, color.y), MaxOf(facts.high.z, color.z)};
    for (int c = 0; c < 3; ++c) sums[c] += static_cast<double>(color[c]);
    if (image.channels == 4 && image.bytePixels[4 * p + 3] < 255) facts.isClear = true;
  }
  for (int c = 0; c < 3; ++c) facts.mean[c] = static_cast<float>(sums[c] / static_cast<double>(pixels));
  return facts;
}

// Writes the bytes, and reads them as the renderer will. Why there is no picture; empty if there is.
std::string Shelve(PictureShelf& shelf, const std::vector<std::uint8_t>& bytes, const std::string& name) {
  const std::string path = shelf.folder + '/' + name;
  fs::create_directories(shelf.folder);
  std::ofstream stream(path, std::ios::binary);
  stream.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  stream.close();
  if (!stream) FailWrite(name);
  ImageBuffer image;
  if (LoadImage(image, path)) {
    shelf.facts[name] = Measure(image);
    return {};
  }
  fs::remove(path);
  return std::string(ProblemText(image.problem));
}

bool Take(PictureShelf& shelf, ImportModel& model, ImportPicture& picture) {
  if (!picture.name.empty()) return true;
  std::string found;
  if (picture.bytes.empty()) {
    found = picture.path.empty() ? "" : FindFile(picture.path);
    if (found.empty()) {
      AddLoss(model, "the picture \"" + picture.label + "\" is not there");
      return false;
    }
    std::error_code error;
    const std::string key = fs::canonical(found, error).string();
    if (const auto known = shelf.byPath.find(key); known != shelf.byPath.end()) {
      picture.name = known->second;
      return true;
    }
    found = key;
    picture.bytes = ReadBytes(key);
  }
  const std::string stem = TokenOf(fs::path(found.empty() ? picture.label : found).stem().string());
  const std::string name = FreeName(shelf, stem, ExtensionOf(picture.bytes, picture));
  const std::string problem = Shelve(shelf, picture.bytes, name);
  picture.bytes = {};
  picture.path.clear();
  if (!problem.empty()) {
    shelf.names.erase(name);
    AddLoss(model, "the picture \"" + picture.label + "\" " + problem);
    return false;
  }
  picture.name = name;
  if (!found.empty()) shelf.byPath[found] = name;
  return true;
}

}  // namespace

bool TakePicture(PictureShelf& shelf, ImportModel& model, PictureUse& use) {
  if (use.picture < 0 || static_cast<std::size_t>(use.picture) >= model.pictures.size()) {
    use = {};
    return false;
  }
  if (Take(shelf, model, model.pictures[static_cast<std::size_t>(use.picture)])) return true;
  use = {};
  return false;
}

const PictureFacts& FactsOf(const PictureShelf& shelf, const ImportModel& model, const PictureUse& use) {
  return shelf.facts.at(model.pictures[static_cast<std::size_t>(use.picture)].name);
}

}  // namespace zp
