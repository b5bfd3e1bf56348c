// What tests share that run programs beside themselves, in a folder of their own.

#pragma once

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "built_files.h"
#include "imaging/imaging.h"
#include "surroundings.h"

namespace zp {

// Polls until `done` is true; false if it never was, even on a busy machine.
template <class Done>
bool Await(Done done) {
  using Clock = std::chrono::steady_clock;
  for (const auto end = Clock::now() + std::chrono::seconds(120); Clock::now() < end;) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

// A program that runs beside the test and dies with it. What it prints goes beside its folder.
class Child {
 public:
  // The command in words of the shell's, which it takes the place of.
  Child(const std::string& command, const std::filesystem::path& folder)
      : outputFile(folder.parent_path() / "stdout"), errorsFile(folder.parent_path() / "stderr") {
    std::filesystem::remove(outputFile);  // of an earlier child, which nobody shall take for this one's
    const std::string line = "cd '" + folder.string() + "' && exec " + command + " >../stdout 2>../stderr";
    id = fork();
    if (id != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
    _exit(127);
  }
  ~Child() { Kill(); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  bool Ended() {
    if (id > 0 && waitpid(id, &rawStatus, WNOHANG) == id) id = 0;
    return id <= 0;
  }
  // The exit status; -1 if it had to be killed or a signal ended it.
  int ExitStatus() {
    if (!Await([this] { return Ended(); })) Kill();
    return WIFEXITED(rawStatus) ? WEXITSTATUS(rawStatus) : -1;
  }
  void Send(int signal) const { kill(id, signal); }
  void Kill() {
    if (id <= 0) return;
    Send(SIGKILL);
    waitpid(id, &rawStatus, 0);
    id = 0;
  }
  std::string Output() const { return ReadFile(outputFile); }
  std::string Errors() const { return ReadFile(errorsFile); }

 private:
  std::filesystem::path outputFile, errorsFile;
  pid_t id = -1;
  int rawStatus = -1;
};

// "work" is the caller's directory, "scene" a scene that a test may ask for.
class ProgramTest : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(work);
    StartImageFiles();
  }
  void TearDown() override { StopImageFiles(); }

  struct Outcome {
    int status = -1;
    std::string output, errors;
  };
  // Runs the program in root/work to its end.
  Outcome Run(const std::string& arguments) const {
    Child child("'" + std::string(kProgram) + "' " + arguments, work);
    const int status = child.ExitStatus();
    return {status, child.Output(), child.Errors()};
  }

  // A square that faces the camera and fills the right half of the view under a sky of constant colour, on a
  // floor that makes the picture noisy. Each first hit gathers one ray a pass whatever the number of passes,
  // so that with a seed the picture after pass k is that of a render with k passes. The model's path counts
  // from the scene folder.
  void WriteScene(const std::string& cameraText, bool onFloor) const {
    const std::pair<const char*, std::string> files[] = {
        {"model/square.obj", "v 0 0 -9\nv 9 0 -9\nv 9 0 9\nv 0 0 9\nusemtl red\nf 1 2 3 4\n"},
        {"geometry/a.zp", "object\nname square\nobj \"model/square.obj\"\nend\n"},
        {"shader/a.zp",
         "shader\nname \"red\"\nsurface_shader\nlambertian\ncolor 0.9 0.5 0.3\nend\nend\nend\n"},
        {"light/a.zp", "sky_light\ncolor 0.3 0.6 1.5\nend\n"},
        {"render/a.zp", "render\nfinal_gather\nsample 1\nbounce 8\ndistance 0\nresolution 0\nend\nend\n"},
        {"camera/a.zp",
         "camera\n" + cameraText +
             "pose\nposition 0 -5 0\ntarget 0 0 0\nup_vector 0 0 1\nbokeh 0\nfield_of_view 60\nend\nend\n"}};
    for (const auto& [name, text] : files) WriteFile(root / "scene" / name, text);
    if (onFloor)
      std::ofstream(root / "scene/model/square.obj", std::ios::app)
          << "v -9 -9 -1\nv 9 -9 -1\nv 9 9 -1\nv -9 9 -1\nf 5 6 7 8\n";
  }

  const TemporaryFolder own;
  const std::filesystem::path root = own.path, work = root / "work";
};

}  // namespace zp
