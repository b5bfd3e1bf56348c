// job/scene_files.h: what a scene was read from, to tell whether it is the same scene another time.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zp {

struct SceneFile {
  std::string path;  // as the scene names it: from its folder on, unless it is absolute
  std::string hash;  // 32 hexadecimal digits of what it holds, whatever its time and place; empty: not there
  friend bool operator==(const SceneFile&, const SceneFile&) = default;
};

// The files that the scene at hand was read from, or looked for, in alphabetical order. To be called in the
// directory that it was read in.
std::vector<SceneFile> HashSceneFiles();
// Of all that decides what the scene is: paths, what they hold, and the rules that it is read by.
std::string SceneHash(const std::vector<SceneFile>& files, std::int32_t format);
// The first path that one list has and the other has not, or with other bytes; empty if they are alike.
std::string FirstDifference(const std::vector<SceneFile>& a, const std::vector<SceneFile>& b);

}  // namespace zp
