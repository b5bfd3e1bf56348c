#include "job/scene_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "core/files.h"
#include "core/stop.h"

namespace zp {
namespace {

// XXH3 of 128 bits (Collet).
class Hash {
 public:
  Hash() : state_(XXH3_createState(), XXH3_freeState) { XXH3_128bits_reset(state_.get()); }
  void Add(const void* bytes, std::size_t size) { XXH3_128bits_update(state_.get(), bytes, size); }
  std::string Text() const {
    XXH128_canonical_t bytes;
    XXH128_canonicalFromHash(&bytes, XXH3_128bits_digest(state_.get()));
    std::string text;
    for (const unsigned char byte : bytes.digest) {
      char digits[3];
      std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned>(byte));
      text += digits;
    }
    return text;
  }

 private:
  std::unique_ptr<XXH3_state_t, decltype(&XXH3_freeState)> state_;
};

// Empty for what is no regular file: a pipe would not end, and has been read already.
std::string HashFile(const std::string& path) {
  constexpr std::size_t kBlock = std::size_t{1} << 20;
  if (KindOfFile(path) != FileKind::kFile) return {};
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return {};
  Hash hash;
  const auto block = std::make_unique<char[]>(kBlock);
  ssize_t got = 1;
  while (!Stopping() && (got = read(file, block.get(), kBlock)) > 0)
    hash.Add(block.get(), static_cast<std::size_t>(got));
  close(file);
  return got != 0 ? std::string() : hash.Text();
}

}  // namespace

std::vector<SceneFile> HashSceneFiles() {
  std::vector<SceneFile> files;
  for (const std::string& path : ReadPaths()) {
    // "./model/a.obj" and "model/a.obj" are one file.
    const std::string plain = std::filesystem::path(path).lexically_normal().string();
    const auto isSame = [&](const SceneFile& file) { return file.path == plain; };
    if (std::none_of(files.begin(), files.end(), isSame)) files.push_back({plain, HashFile(path)});
  }
  std::sort(files.begin(), files.end(),
            [](const SceneFile& a, const SceneFile& b) { return a.path < b.path; });
  return files;
}

std::string SceneHash(const std::vector<SceneFile>& files, std::int32_t format) {
  Hash hash;
  const auto add = [&hash](const std::string& text) { hash.Add(text.c_str(), text.size() + 1); };
  add("format " + std::to_string(format));
  for (const SceneFile& file : files) {
    add(file.path);
    add(file.hash);
  }
  return hash.Text();
}

std::string FirstDifference(const std::vector<SceneFile>& a, const std::vector<SceneFile>& b) {
  const auto lacks = [](const std::vector<SceneFile>& files, const SceneFile& file) {
    return std::find(files.begin(), files.end(), file) == files.end();
  };
  for (const auto* pair : {&a, &b})
    for (const SceneFile& file : *pair)
      if (lacks(pair == &a ? b : a, file)) return file.path;
  return {};
}

}  // namespace zp
