// A signal in the middle of a render: nothing that was rendered is lost.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

namespace {

namespace fs = std::filesystem;

std::string ReadFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Waits at most half a minute.
template <class Done>
bool Await(Done done) {
  for (int i = 0; i < 3000; ++i) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

TEST(Stop, SignalsEndTheRenderBehindThePassAndKeepThePicture) {
  std::string pattern = (fs::temp_directory_path() / "zephlore-stop-XXXXXX").string();
  ASSERT_NE(mkdtemp(pattern.data()), nullptr);
  const fs::path root = pattern;
  fs::create_directories(root / "scene/camera");
  std::ofstream(root / "scene/camera/a.zp")
      << "camera\nresolution 64 64\nsample 65535\npose\nposition 0 -5 0\ntarget 0 0 0\nup_vector 0 0 1\n"
         "bokeh 0\nfield_of_view 60\nend\nend\n";
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    const pid_t child = fork();
    if (child == 0) {
      setenv("OMP_NUM_THREADS", "1", 1);
      const std::string command = "exec '" ZP_PROGRAM "' render scene --output a.pfm > rows 2> errors";
      if (chdir(root.c_str()) == 0) execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
      _exit(127);
    }
    EXPECT_TRUE(Await([&] { return ReadFile(root / "rows").find("performance") != std::string::npos; }));
    kill(child, number);
    int status = 0;
    const bool ended = Await([&] { return waitpid(child, &status, WNOHANG) == child; });
    if (!ended) {
      kill(child, SIGKILL);
      waitpid(child, &status, 0);
    }
    EXPECT_TRUE(ended && WIFEXITED(status) && WEXITSTATUS(status) == 1) << number;
    const std::string errors = ReadFile(root / "errors");
    EXPECT_EQ(errors.rfind("zephlore: stopped after pass ", 0), 0U) << errors;
    EXPECT_NE(errors.find(" of 65535: the images hold what was rendered\n"), std::string::npos) << errors;
    // The sky's 0.75, in every pixel behind three lines of text.
    const std::string picture = ReadFile(root / "a.pfm");
    ASSERT_GT(picture.size(), 64U * 64 * 12);
    EXPECT_EQ(picture.substr(picture.size() - 4), std::string("\0\0\x40\x3f", 4));
    fs::remove(root / "a.pfm");
    fs::remove(root / "rows");
  }
  fs::remove_all(root);
}

}  // namespace
