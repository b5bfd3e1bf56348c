// What all tests share: files, the console, other programs, colours that are nearly alike.

#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "core/vec.h"

namespace zp {

inline void ExpectNear(Vec3 actual, Vec3 expected, float tolerance) {
  for (int c = 0; c < 3; ++c) EXPECT_NEAR(actual[c], expected[c], tolerance) << "component " << c;
}

inline std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void WriteFile(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

// A new folder, which goes with its variable.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zephlore-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    path = pattern;
  }
  ~TemporaryFolder() {
    std::error_code error;
    std::filesystem::remove_all(path, error);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  std::string operator/(std::string_view name) const { return (path / name).string(); }

  std::filesystem::path path;
};

// What the call prints on standard output.
template <class Call>
std::string Printed(Call&& call) {
  testing::internal::CaptureStdout();
  call();
  return testing::internal::GetCapturedStdout();
}

// What a command line prints on both streams. It must succeed.
inline std::string OutputOf(const std::string& command) {
  std::FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  std::string text;
  std::array<char, 4096> block;
  for (std::size_t size = 0; pipe && (size = std::fread(block.data(), 1, block.size(), pipe)) > 0;)
    text.append(block.data(), size);
  const int status = pipe == nullptr ? -1 : pclose(pipe);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << command << text;
  return text;
}

}  // namespace zp
