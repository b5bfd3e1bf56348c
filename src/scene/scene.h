// scene/scene.h: scene text fills the tables. The format is silent by design: what it does not understand it
// skips without a word, and bad numbers leave fields as they are. No exception leaves the reader.

#pragma once

#include <istream>
#include <string>
#include <vector>

namespace zp {

// The subfolders shader, render, light, camera and geometry of a scene folder, each one's .zp files in
// bytewise order of their names. False if the folder itself does not exist.
bool ReadSceneFolder(const std::string& folder);
// One file; false if it cannot be opened.
bool ReadSceneFile(const std::string& path);
void ReadScene(std::istream& stream);

extern std::string sceneFolder;
// Where a file or folder of scene text is: as it stands, from the current directory, or else in the scene
// folder if it is there. Format 2 looks in the scene folder first.
std::string ScenePath(const std::string& name);
// The folder of pictures that is searched first. Format 1 puts no separator behind the scene folder.
std::string SceneImageFolder();
extern std::vector<std::string> geometrySearchPaths;  // Intended: written, never read

}  // namespace zp
