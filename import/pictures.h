// import/pictures.h: pictures of models on their way into a scene's folder.

#pragma once

#include <map>
#include <set>
#include <string>

#include "model.h"

namespace zp {

// What shaders ask about a picture's components, from 0 to 1.
struct PictureFacts {
  Vec3 low = kBlack, mean = {0.5f, 0.5f, 0.5f}, high = kWhite;  // red, green and blue
  bool isClear = false;                                         // some pixels are transparent
};

// Copies pictures into a folder, each once, under names that are free there.
struct PictureShelf {
  std::string folder;
  std::set<std::string> names = {};                // in use
  std::map<std::string, std::string> byPath = {};  // names of files that were copied
  std::map<std::string, PictureFacts> facts = {};  // by name
};

// Takes over what the use names and sets the picture's name. False, with a loss of the model, where there is
// no picture to be had; the use is empty then.
bool TakePicture(PictureShelf& shelf, ImportModel& model, PictureUse& use);
const PictureFacts& FactsOf(const PictureShelf& shelf, const ImportModel& model, const PictureUse& use);

}  // namespace zp
